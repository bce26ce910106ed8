#!/usr/bin/python3
"""read_journal's speed: a journal's depth records into one NumPy array,
median of a few passes (the file in the page cache).

    PYTHONPATH=build-bench/python python3 python/bench/bench_journal.py JOURNAL [--markdown FILE]

Run by scripts/bench.sh on the journal the C++ journal benchmark leaves.
"""

import argparse
import time

import orvexmd


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("journal")
    ap.add_argument("--passes", type=int, default=5)
    ap.add_argument("--markdown")
    args = ap.parse_args()
    rates, n = [], 0
    for _ in range(args.passes):
        t0 = time.perf_counter()
        j = orvexmd.read_journal(args.journal)
        elapsed = time.perf_counter() - t0
        n = len(j.depth)
        rates.append(n / elapsed)
        del j
    rates.sort()
    rate = rates[len(rates) // 2]
    report = (
        "### read_journal (Python)\n\n"
        "orvexmd.read_journal on the journal above: every entry checked, deltas applied, each depth record and "
        "its receive time copied into one NumPy structured array (JOURNAL_DEPTH_DTYPE), no Python object per "
        "record. Median of %d passes.\n\n"
        "read_journal depth records/s: %.2f M (%d records)\n\n" % (args.passes, rate / 1e6, n)
    )
    print(report)
    if args.markdown:
        with open(args.markdown, "w") as f:
            f.write(report)


if __name__ == "__main__":
    main()
