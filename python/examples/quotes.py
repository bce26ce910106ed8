#!/usr/bin/python3
"""Prints live quotes from a quote server, e.g. the project's simulator:

    build/sim/qxdc-sim --port 7000 --file-port 7001 &
    PYTHONPATH=build/python python3 python/examples/quotes.py tcp://127.0.0.1:7000

Run it in a directory of its own: the library reads ./OrvexWiraMdApi.def and
writes its files there. Ctrl-C stops it.
"""

import queue
import sys

import orvexmd


class Spi(orvexmd.MdSpi):
    def __init__(self, api, out):
        super().__init__()
        self.api = api
        self.out = out

    # Callbacks run on the library's thread: hand the records over and return.
    def OnFrontLinked(self):
        self.api.ReqUserLogin(orvexmd.ReqUserLoginField(BrokerID="9999", UserID="demo", Password="demo"), 1)

    def OnLoginAnswer(self, login, info, request_id, is_last):
        self.out.put(("login", info.ErrorID, info.ErrorMsg))

    def OnFrontLost(self, reason):
        self.out.put(("lost", reason))

    def OnDepthMarketData(self, md):
        self.out.put(("depth", md))


def main(front):
    out = queue.Queue()
    with orvexmd.MdApi() as api:
        api.RegisterSpi(Spi(api, out))
        api.RegisterFront(front)
        api.Init()
        try:
            while True:
                item = out.get()
                if item[0] == "depth":
                    md = item[1]
                    bid = "-" if md.BidPrice1 == orvexmd.DBL_MAX else md.BidPrice1
                    ask = "-" if md.AskPrice1 == orvexmd.DBL_MAX else md.AskPrice1
                    print(f"{md.UpdateTime}.{md.UpdateMillisec:03d} {md.ExchangeID:6} {md.InstrumentID:10} "
                          f"last {md.LastPrice:<10g} bid {bid} ask {ask} volume {md.Volume:g}")
                else:
                    print(*item)
        except KeyboardInterrupt:
            pass


if __name__ == "__main__":
    main(sys.argv[1] if len(sys.argv) > 1 else "tcp://127.0.0.1:7000")
