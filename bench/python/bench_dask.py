#!/usr/bin/env python3
"""oxel.dask.evaluate on one worker (synchronous scheduler) against a plain eval of the same array.

Prints the best time of each and their ratio. Run with PYTHONPATH=<build>/python.
"""
import argparse

import dask
import dask.array as da
import numpy as np

import oxel
import oxel.dask
from timing import best_seconds


def main():
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("-n", type=int, default=8_000_000, help="elements (default 8M)")
    ap.add_argument("--chunks", type=int, default=4, help="blocks (default 4)")
    ap.add_argument("--repeat", type=int, default=5, help="runs per measurement; the best counts")
    ap.add_argument("--formula", default="exp(-x*x/2)*y + ln(x)")
    args = ap.parse_args()

    expr = oxel.Expression(args.formula, variables=["x", "y"])
    x = np.random.default_rng(1).uniform(-1, 3, args.n)  # some rows fail: errors are real work
    lazy = oxel.dask.evaluate(expr, x=da.from_array(x, chunks=-(-args.n // args.chunks)), y=1.5)

    def through_dask():
        return dask.compute(*lazy, scheduler="synchronous")

    got, want = through_dask(), expr.eval(x=x, y=1.5)
    if not (np.array_equal(got[0].view(np.uint64), want[0].view(np.uint64))
            and np.array_equal(got[1], want[1])):
        raise SystemExit("bench_dask: dask and plain evaluation disagree")
    t_plain = best_seconds(lambda: expr.eval(x=x, y=1.5), args.repeat)
    t_dask = best_seconds(through_dask, args.repeat)
    # Dask's own share: the same blocks, tasks and outputs around a function that only copies
    # (fresh result blocks, then the concatenation that compute() does).
    def copy_block(b):
        return b.copy(), np.zeros(b.shape, np.int32)
    copies = da.apply_gufunc(copy_block, "()->(),()", da.from_array(x, chunks=lazy[0].chunks),
                             output_dtypes=(np.float64, np.int32))
    t_copy_plain = best_seconds(lambda: copy_block(x), args.repeat)
    t_copy_dask = best_seconds(lambda: dask.compute(*copies, scheduler="synchronous"),
                               args.repeat)
    print("%s over %s elements, %d blocks, best of %d: plain eval %.1f ms, dask (synchronous) "
          "%.1f ms, dask/plain %.2f" % (args.formula, "{:,}".format(args.n), args.chunks,
                                        args.repeat, t_plain * 1e3, t_dask * 1e3, t_dask / t_plain))
    print("dask's own cost for the same blocks (a copy instead of eval): %.1f ms against %.1f ms "
          "plain; dask/plain without it %.2f" % (
              t_copy_dask * 1e3, t_copy_plain * 1e3,
              (t_dask - (t_copy_dask - t_copy_plain)) / t_plain))

if __name__ == "__main__":
    main()
