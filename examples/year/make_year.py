#!/usr/bin/env python3
"""make_year.py - a year of one item at one sample a second, as CSV for `orva store import`.

Python 3.8 or newer, standard library only. 31,514,400 rows by default, 1.3 GB, on stdout; what it
planted goes to stderr. Same arguments, same bytes.

A tank that fills and empties every day, slower in summer, with some noise; every sample is good.
Spikes of one second, to value 500 or -200, stand at --spikes moments (every ninth day or so), where
a chart of the year has to show them. On the 200th day nothing came for six hours.
"""
import argparse
import random
import sys

DAY = 86400


def wave(x):
    """A sine-like curve of period 1 and range -1..1, arithmetic only."""
    x -= x // 1
    return 16 * x * (0.5 - x) if x < 0.5 else -16 * (x - 0.5) * (1 - x)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--days", type=int, default=365)
    parser.add_argument("--start", type=int, default=1735689600, help="seconds since 1970 (2025-01-01)")
    parser.add_argument("--spikes", type=int, default=40)
    parser.add_argument("--id", type=int, default=1)
    parser.add_argument("--path", default="Year/Level")
    args = parser.parse_args()
    rng = random.Random("year")
    noise = [rng.random() - 0.5 for _ in range(9973)]
    spikes = {}
    for n in range(args.spikes):
        second = int((n + rng.random()) * args.days * DAY / args.spikes)
        spikes[second] = 500 if n % 2 == 0 else -200
    out = sys.stdout
    out.write("time_ms,item_id,path,type,value,quality\n")
    columns = "000,%d,%s,double," % (args.id, args.path)
    for begin in range(0, args.days * DAY, 60):
        day = begin / DAY
        if 200 <= day < 200.25:
            continue
        base = 60 + 10 * wave(day / 365) + 20 * wave(day)
        rows = []
        for second in range(begin, begin + 60):
            value = spikes.get(second) or base + noise[second % 9973]
            rows.append("%d%s%.2f,0\n" % (args.start + second, columns, value))
        out.write("".join(rows))
    for second in sorted(spikes):
        sys.stderr.write("spike %d at %d000\n" % (spikes[second], args.start + second))


if __name__ == "__main__":
    main()
