#!/usr/bin/python3
"""Collects ten seconds of quotes into a pandas DataFrame, through NumPy:
the raw record bytes are kept as they come and turned into columns at once
with DEPTH_DTYPE, without a Python object per field.

    PYTHONPATH=build/python python3 python/examples/to_pandas.py tcp://127.0.0.1:7000

(pandas comes from Debian's python3-pandas.)
"""

import sys
import threading
import time

import numpy as np
import pandas as pd

import orvexmd


class Collect(orvexmd.MdSpi):
    def __init__(self, api):
        super().__init__()
        self.api = api
        self.raw = []
        self.lock = threading.Lock()

    def OnFrontLinked(self):
        self.api.ReqUserLogin(orvexmd.ReqUserLoginField(BrokerID="9999", UserID="demo", Password="demo"), 1)

    def OnDepthMarketData(self, md):
        with self.lock:
            self.raw.append(md.raw)


def main(front, seconds=10):
    with orvexmd.MdApi() as api:
        spi = Collect(api)
        api.RegisterSpi(spi)
        api.RegisterFront(front)
        api.Init()
        time.sleep(seconds)
    rows = np.frombuffer(b"".join(spi.raw), dtype=orvexmd.DEPTH_DTYPE)
    frame = pd.DataFrame({name: rows[name] for name in ("InstrumentID", "UpdateTime", "LastPrice", "Volume",
                                                         "BidPrice1", "AskPrice1")})
    for text in ("InstrumentID", "UpdateTime"):
        frame[text] = frame[text].str.decode("ascii")
    # Empty prices are DBL_MAX: make them missing values.
    frame = frame.replace(orvexmd.DBL_MAX, np.nan)
    print(frame.groupby("InstrumentID")["LastPrice"].agg(["count", "min", "max", "last"]))


if __name__ == "__main__":
    main(sys.argv[1] if len(sys.argv) > 1 else "tcp://127.0.0.1:7000")
