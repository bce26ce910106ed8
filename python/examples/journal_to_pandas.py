#!/usr/bin/python3
"""A recorded session in pandas: read_journal gives the depth records as one
NumPy array (no Python object per record), and pandas takes it as it is.

    md-record --front tcp://127.0.0.1:7000 --journal ticks/ --duration 60
    PYTHONPATH=build/python python3 python/examples/journal_to_pandas.py ticks/

Prints, per instrument, the records, the last price and the traded volume,
and the one-second OHLC bars of the busiest instrument.
"""

import sys

import pandas as pd

import orvexmd


def frame(journal):
    j = orvexmd.read_journal(journal)
    columns = ["time", "InstrumentID", "ExchangeID", "UpdateTime", "UpdateMillisec", "LastPrice", "Volume",
               "BidPrice1", "BidVolume1", "AskPrice1", "AskVolume1"]
    df = pd.DataFrame({c: j.depth[c] for c in columns})
    for c in ("InstrumentID", "ExchangeID", "UpdateTime"):
        df[c] = df[c].str.decode("ascii")
    df["time"] = pd.to_datetime(df["time"], unit="ns")
    return df


def main(journal):
    df = frame(journal)
    summary = df.groupby("InstrumentID").agg(records=("LastPrice", "size"), last=("LastPrice", "last"),
                                              volume=("Volume", "last"))
    print(summary.sort_values("records", ascending=False).head(10).to_string())
    busiest = summary["records"].idxmax()
    bars = df[df.InstrumentID == busiest].set_index("time")["LastPrice"].resample("1s").ohlc().dropna()
    print("\n%s, 1 s bars:\n%s" % (busiest, bars.head(10).to_string()))
    return df


if __name__ == "__main__":
    main(sys.argv[1] if len(sys.argv) > 1 else "ticks")
