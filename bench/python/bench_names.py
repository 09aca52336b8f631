"""Declaring and parsing with many variables and aliases: processor seconds (steady on a busy
machine, and nothing here waits) at n, 2n, 4n names, and the growth exponent (1 is linear)."""
import argparse
import math
import time

import oxel
from timing import best_seconds


def cases(n):
    names = ["v%d" % i for i in range(n)]
    aliases = {"a%d" % i: names[i] for i in range(n)}
    total = " + ".join(names)
    by_alias = " + ".join(aliases)
    return {
        "declare": lambda: oxel.Expression("1", variables=names),
        "declare+parse": lambda: oxel.Expression(total, variables=names),
        "aliases+parse": lambda: oxel.Expression(by_alias, variables=names, aliases=aliases),
    }


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--names", type=int, default=25_000, help="smallest count (n)")
    parser.add_argument("--repeat", type=int, default=3)
    args = parser.parse_args()
    sizes = [args.names, 2 * args.names, 4 * args.names]
    rows = {}
    for n in sizes:
        for what, fn in cases(n).items():
            rows.setdefault(what, []).append(best_seconds(fn, args.repeat, time.process_time))
    print("%-14s" % "names" + "".join("%12d" % n for n in sizes) + "   growth")
    for what, seconds in rows.items():
        growth = math.log(seconds[-1] / seconds[0]) / math.log(sizes[-1] / sizes[0])
        print("%-14s" % what + "".join("%11.3fs" % s for s in seconds) + "   n^%.2f" % growth)


if __name__ == "__main__":
    main()
