#!/usr/bin/env python3
"""The Python module oxel against numexpr and plain numpy over large arrays.

Prints a markdown table of nanoseconds per element (best of several runs) ready for
docs/performance.md. Run through ./build.sh bench-python, or with PYTHONPATH=<build>/python.
"""
import argparse
import datetime
import os
import platform
import statistics

import numpy as np
import numexpr

import oxel
from timing import best_seconds

# name, oxel text, numexpr text, numpy function: one row per formula, the same computation in
# each library's syntax.
FORMULAS = [
    ("add", "x + y", "x + y", lambda x, y: x + y),
    ("mul-add", "x*y + x - y*2", "x*y + x - y*2", lambda x, y: x * y + x - y * 2),
    ("rational", "(x*x + 1)/(y + 2)", "(x*x + 1)/(y + 2)", lambda x, y: (x * x + 1) / (y + 2)),
    ("sqrt", "sqrt(x*x + y*y)", "sqrt(x*x + y*y)", lambda x, y: np.sqrt(x * x + y * y)),
    ("trig", "sin(x)*cos(y)", "sin(x)*cos(y)", lambda x, y: np.sin(x) * np.cos(y)),
    ("gauss bell", "exp(-x*x/2)*y", "exp(-x*x/2)*y", lambda x, y: np.exp(-x * x / 2) * y),
    ("logs", "ln(x) + log10(y)", "log(x) + log10(y)", lambda x, y: np.log(x) + np.log10(y)),
    ("polynomial", "((x*0.5 + 1.5)*x - 2)*x + y", "((x*0.5 + 1.5)*x - 2)*x + y",
     lambda x, y: ((x * 0.5 + 1.5) * x - 2) * x + y),
    ("logic", "x < y && y > 1", "where((x < y) & (y > 1), 1.0, 0.0)",
     lambda x, y: ((x < y) & (y > 1)).astype(np.float64)),
]


def main():
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("-n", type=int, default=10**7, help="elements per array (default 10^7)")
    ap.add_argument("--repeat", type=int, default=5, help="runs per measurement; the best counts")
    args = ap.parse_args()

    rng = np.random.default_rng(1)
    x = rng.uniform(0.5, 2.5, args.n)  # no error paths, as in the C++ benchmark
    y = rng.uniform(0.5, 2.5, args.n)
    per = 1e9 / args.n

    rows = []
    for name, text, ne_text, np_fn in FORMULAS:
        expr = oxel.Expression(text, variables=["x", "y"])
        values, errors = expr.eval(x=x, y=y)
        want = np_fn(x, y)
        # Same computation, different libraries: agreement to rounding, not bits.
        if not (np.allclose(values, want, rtol=1e-13, atol=1e-13) and not errors.any()
                and np.allclose(numexpr.evaluate(ne_text, {"x": x, "y": y}), want, rtol=1e-13, atol=1e-13)):
            raise SystemExit("bench_numexpr: %s: the libraries disagree" % name)
        t_oxel = best_seconds(lambda: expr.eval(x=x, y=y), args.repeat) * per
        t_ne = best_seconds(lambda: numexpr.evaluate(ne_text, {"x": x, "y": y}), args.repeat) * per
        t_np = best_seconds(lambda: np_fn(x, y), args.repeat) * per
        rows.append((name, text, t_oxel, t_ne, t_np))

    cpu = platform.processor() or platform.machine()
    print("Python module against numexpr %s (%d threads) and numpy %s, %s elements per array, "
          "best of %d runs, %d CPUs (%s), %s UTC:" % (
              numexpr.__version__, numexpr.get_num_threads(), np.__version__,
              "{:,}".format(args.n), args.repeat, os.cpu_count(), cpu,
              datetime.datetime.utcnow().strftime("%Y-%m-%d %H:%M")))
    print()
    print("| formula | oxel text | oxel | numexpr | numpy | oxel/numexpr | oxel/numpy |")
    print("|---|---|---:|---:|---:|---:|---:|")
    for name, text, a, b, c in rows:
        print("| %s | `%s` | %.2f | %.2f | %.2f | %.2f | %.2f |" % (
            name, text.replace("|", "\\|"), a, b, c, a / b, a / c))
    print()
    print("ns per element; medians: oxel %.2f, numexpr %.2f, numpy %.2f; median ratio "
          "oxel/numexpr %.2f, oxel/numpy %.2f" % (
              statistics.median(r[2] for r in rows), statistics.median(r[3] for r in rows),
              statistics.median(r[4] for r in rows),
              statistics.median(r[2] / r[3] for r in rows),
              statistics.median(r[2] / r[4] for r in rows)))


if __name__ == "__main__":
    main()
