#!/usr/bin/python3
"""The Python path against the C++ path, in one run: rows per second
delivered to a Python callback that does nothing, at full speed, next to a
C++ callback; and the latency of the Python path with rows paced every
100 µs at 10,000 and 100,000 rows/s.

    PYTHONPATH=build-bench/python python3 python/bench/bench_python.py [--markdown FILE] [--quick]

Run by scripts/bench.sh, which adds its report to docs/performance.md.
"""

import argparse
import os
import tempfile
import threading
import time

import orvexmd
import _orvexbench as bench

TICK_NS = 100_000


class PySpi(orvexmd.MdSpi):
    """Logs in; counts pushed rows, and with `latency` keeps each row's
    latency (the blaster stamps its send time into Volume)."""

    def __init__(self, api):
        super().__init__()
        self.api = api
        self.linked = threading.Event()
        self.completed = threading.Event()
        self.reset(0, False)

    def reset(self, target, latency):
        self.count = 0
        self.target = target
        self.latency = [] if latency else None
        self.done_ns = 0
        self.done = threading.Event()

    def OnFrontLinked(self):
        self.api.ReqUserLogin(orvexmd.ReqUserLoginField(BrokerID="bench", UserID="bench", Password="bench"), 1)

    def OnStatusChange(self, status):
        if status.MarketStatus != "*":
            self.completed.set()

    def OnDepthMarketData(self, md):
        self.count += 1
        if self.latency is not None:
            self.latency.append(bench.now_ns() - int(md.Volume))
        if self.count == self.target:
            self.done_ns = bench.now_ns()
            self.done.set()


def percentile(values, p):
    if not values:
        return 0
    values = sorted(values)
    return values[min(len(values) - 1, int(len(values) * p / 100))]


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--markdown")
    ap.add_argument("--quick", action="store_true")
    args = ap.parse_args()
    rows = 200_000 if args.quick else 1_000_000
    seconds = 1.0 if args.quick else 4.0

    os.chdir(tempfile.mkdtemp(prefix="orvex-py-bench-"))
    open("OrvexWiraMdApi.def", "w").write("[CONFIG]\nLog=0\nSubscribe=0\n")
    open("qxmktaccess.xml", "w").write('<qxmkts allaccess="1"/>\n')

    py_blaster, cpp_blaster = bench.Blaster(1000), bench.Blaster(1000)
    api = orvexmd.MdApi("", False)
    spi = PySpi(api)
    api.RegisterSpi(spi)
    api.RegisterFront(py_blaster.front)
    api.Init()
    cpp = bench.CppClient(cpp_blaster.front)
    if not (cpp.log_in(10000) and spi.completed.wait(10) and py_blaster.wait_subscribed(5000)
            and cpp_blaster.wait_subscribed(5000)):
        raise SystemExit("the clients did not log in")

    seq = 1
    lines = []
    lost = 0

    def py_run(send, expected_rows, latency):
        nonlocal seq, lost
        spi.reset(expected_rows, latency)
        r = send(seq)
        spi.done.wait(5)
        time.sleep(0.05)
        seq += r["rows"] + 1000
        lost += r["rows"] - min(r["rows"], spi.count)
        return r

    def cpp_run(send, capacity):
        nonlocal seq, lost
        cpp.arm(seq, capacity)
        r = send(seq)
        f = cpp.finish(r["rows"])
        seq += r["rows"] + 1000
        lost += r["rows"] - min(r["rows"], f["delivered"])
        return r, f

    # Full speed, the two paths in turn, three rounds; the median round.
    py_rates, cpp_rates = [], []
    for _ in range(3):
        r = py_run(lambda s: py_blaster.stream(0, 60, rows, s), rows, False)
        py_rates.append(spi.count * 1e9 / max(1, spi.done_ns - r["start_ns"]))
        r, f = cpp_run(lambda s: cpp_blaster.stream(0, 60, rows, s), rows)
        cpp_rates.append(f["delivered"] * 1e9 / max(1, f["last_ns"] - r["start_ns"]))
    py_rate, cpp_rate = sorted(py_rates)[1], sorted(cpp_rates)[1]

    # Paced: one frame every 100 µs.
    paced = []
    for rate in (10_000, 100_000):
        per_tick = rate * TICK_NS // 1_000_000_000
        expected = int(seconds * 1e9 / TICK_NS) * per_tick
        r = py_run(lambda s: py_blaster.stream_paced(TICK_NS, per_tick, seconds, s), expected, True)
        py_p99 = percentile(spi.latency, 99)
        py_p50 = percentile(spi.latency, 50)
        delivered = spi.count
        r2, f = cpp_run(lambda s: cpp_blaster.stream_paced(TICK_NS, per_tick, seconds, s), expected + 1000)
        paced.append((rate, r["rows"], delivered, py_p50, py_p99, f["p50_ns"], f["p99_ns"]))

    api.Release()

    lines.append("## Python\n")
    lines.append("The binding `orvexmd` against the blaster (1,000 instruments), with snapshot delivery off: a "
                 "Python callback that counts the row (and, in the paced runs, keeps its latency), next to the "
                 "C++ callback of the end-to-end benchmark, the two paths taking turns in one process "
                 "(nothing bound to a CPU).\n")
    lines.append("| run | Python rows/s | C++ rows/s | Python / C++ |")
    lines.append("|---|---:|---:|---:|")
    lines.append("| full speed, median of 3 rounds of %d rows | %.0f | %.0f | %.2f |"
                 % (rows, py_rate, cpp_rate, py_rate / cpp_rate if cpp_rate else 0))
    lines.append("")
    lines.append("| paced every 100 µs | rows sent | Python delivered | Python p50 µs | Python p99 µs | "
                 "C++ p50 µs | C++ p99 µs |")
    lines.append("|---|---:|---:|---:|---:|---:|---:|")
    for rate, sent, delivered, p50, p99, c50, c99 in paced:
        lines.append("| %d rows/s | %d | %d | %.1f | %.1f | %.1f | %.1f |"
                     % (rate, sent, delivered, p50 / 1e3, p99 / 1e3, c50 / 1e3, c99 / 1e3))
    lines.append("")
    p99_100k = paced[-1][4] / 1e3
    lines.append("| target | measured | met |")
    lines.append("|---|---|---|")
    lines.append("| every row delivered to Python and C++ | %d lost | %s |" % (lost, "yes" if lost == 0 else "**no**"))
    lines.append("| Python keeps up with 100,000 rows/s paced, p99 < 1 ms | %.1f µs | %s |"
                 % (p99_100k, "yes" if p99_100k < 1000 else "**no**"))
    ratio = py_rate / cpp_rate if cpp_rate else 0
    lines.append("| Python full speed ≥ a tenth of C++ | %.2f | %s |" % (ratio, "yes" if ratio >= 0.1 else "**no**"))
    lines.append("")
    report = "\n".join(lines) + "\n"
    print(report)
    if args.markdown:
        open(args.markdown, "w").write(report)


if __name__ == "__main__":
    main()
