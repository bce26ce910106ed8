"""Worker processes sharing an exchange's stream through a Redis consumer
group: each record md-record puts in ``md:{EXCHANGE}`` goes to one worker.

    PYTHONPATH=build/python python3 python/examples/redis_group.py \\
        redis://127.0.0.1:6379 SHFE --workers 4 --since start --seconds 10

The password, if Redis wants one, comes from $ORVEX_REDIS_PASSWORD (or the
URL). Every worker prints a line per ``--every`` records it takes and a
count when it ends; the parent adds the counts up. Run it twice with the
same ``--group`` and the second run only gets what the first left; a worker
stopped before it finished with a record gets that record again when it
starts under the same name.
"""

import argparse
import collections
import multiprocessing
import time

from orvexmd.redis import follow


def work(name, args, results):
    counts = collections.Counter()
    first = last = None
    for e in follow(args.url, exchange=args.exchange, since=args.since, group=args.group, consumer=name,
                    block_ms=200, status=True, until=args.until, batch=args.batch):
        rec = e.record
        key = getattr(rec, "InstrumentID", "") or "(status)"
        counts[key] += 1
        first = first or e.id
        last = e.id
        n = sum(counts.values())
        if args.every and n % args.every == 0:
            print("%s: %d records, last %s %s %s" % (name, n, e.id, key, getattr(rec, "LastPrice", "")), flush=True)
    results.put((name, dict(counts), first, last))


def main():
    p = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    p.add_argument("url", help="redis://HOST:PORT[/DB], unix:///path or a socket path")
    p.add_argument("exchange", help="exchange code, e.g. SHFE")
    p.add_argument("--workers", type=int, default=3)
    p.add_argument("--group", default="md-workers")
    p.add_argument("--since", default=None, help="start, HH:MM:SS or epoch seconds when the group is made "
                                                  "(default: its new entries)")
    p.add_argument("--seconds", type=float, default=10.0, help="how long the workers run")
    p.add_argument("--batch", type=int, default=64, help="entries a worker takes at a time: smaller shares "
                                                       "more evenly, larger costs fewer round trips")
    p.add_argument("--every", type=int, default=1000, help="print a line per this many records (0: never)")
    args = p.parse_args()
    if args.since and args.since.replace(".", "", 1).isdigit():
        args.since = float(args.since)
    # The same end for every worker.
    args.until = time.time() + args.seconds

    results = multiprocessing.Queue()
    procs = [multiprocessing.Process(target=work, args=("worker-%d" % i, args, results))
             for i in range(args.workers)]
    for proc in procs:
        proc.start()
    total = collections.Counter()
    for _ in procs:
        name, counts, first, last = results.get()
        n = sum(counts.values())
        total.update(counts)
        print("%s: %d records (%s .. %s), %d instruments" % (name, n, first, last,
                                                            len([k for k in counts if k != "(status)"])))
    for proc in procs:
        proc.join()
    print("all workers: %d records, %d status reports" % (sum(total.values()) - total["(status)"],
                                                          total["(status)"]))


if __name__ == "__main__":
    main()
