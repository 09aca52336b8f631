#!/usr/bin/env python3
# Time and peak memory of the oxel program on nested chains and flat texts at n, 2n, 4n, 8n.
"""Usage: bench/budgets.py [path/to/oxel] [--budget N]

For `oxel diff CHAIN x` with and without --simplify and `oxel grad CHAIN x x=0.5 --hessian`
over exp( nested n deep, from 1000 to 8000, prints the seconds, the peak resident memory (MB),
the exit status and the growth exponent log(t2/t1)/log(2) between doubled sizes. Past the node
budget (from 2000 on), diff prints statements over shared parts instead of the expanded tree.
An exit status of 4 is a refusal by the node budget, 3 an evaluation error (the chain
overflows at x=0.5). Then `oxel print --file` of flat sums of up to a million terms and of up
to 200000 distinct names (the names are declared from the text).
"""
import math
import os
import subprocess
import sys
import tempfile
import time


def run(args):
    """Seconds, peak RSS in MB (from /usr/bin/time) and exit status of one run."""
    start = time.perf_counter()
    proc = subprocess.run(["/usr/bin/time", "-f", "%M"] + args, stdout=subprocess.DEVNULL,
                          stderr=subprocess.PIPE, text=True)
    seconds = time.perf_counter() - start
    kb = int(proc.stderr.strip().splitlines()[-1])
    return seconds, kb / 1024.0, proc.returncode


def chain(n):
    return "exp(" * n + "x" + ")" * n


def series(title, sizes, make_args):
    print(title)
    print("%8s %10s %10s %6s %8s" % ("n", "seconds", "MB", "exit", "growth"))
    last = None
    for n in sizes:
        t, mb, rc = run(make_args(n))
        growth = "" if last is None else "%.2f" % (math.log(max(t, 1e-3) / max(last, 1e-3), 2))
        print("%8d %10.3f %10.1f %6d %8s" % (n, t, mb, rc, growth))
        last = t


def main():
    argv = sys.argv[1:]
    extra = []
    if "--budget" in argv:
        i = argv.index("--budget")
        extra = ["--budget", argv[i + 1]]
        del argv[i:i + 2]
    oxel = argv[0] if argv else os.path.join("build", "oxel")
    sizes = [1000, 2000, 4000, 8000]
    series("oxel diff exp-chain x", sizes, lambda n: [oxel, "diff", chain(n), "x"] + extra)
    series("oxel diff exp-chain x --simplify", sizes,
           lambda n: [oxel, "diff", chain(n), "x", "--simplify"] + extra)
    series("oxel grad exp-chain x x=0.5 --hessian", sizes,
           lambda n: [oxel, "grad", chain(n), "x", "x=0.5", "--hessian"] + extra)
    # Flat texts too long for a command line: sums of n terms, and of n distinct names.
    with tempfile.TemporaryDirectory() as tmp:
        def text(name, n, term):
            path = os.path.join(tmp, "%s%d.txt" % (name, n))
            with open(path, "w") as f:
                f.write("+".join(term % i for i in range(n)))
            return path
        flat = [125000, 250000, 500000, 1000000]
        series("oxel print (sum of sin(x*i))", flat,
               lambda n: [oxel, "print", "--file", text("sum", n, "sin(x*%d)")])
        series("oxel print (sum of n names)", [25000, 50000, 100000, 200000],
               lambda n: [oxel, "print", "--file", text("names", n, "a%d")])


if __name__ == "__main__":
    main()
