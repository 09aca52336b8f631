#!/usr/bin/env python3
"""Evaluates one formula over a large dask array, on this machine or on a Dask cluster.

    python3 examples/dask_eval.py                          # two local worker processes
    python3 examples/dask_eval.py tcp://scheduler:8786     # an existing cluster

The workers need the oxel module too (installed, or on their PYTHONPATH).
"""
import sys

import dask.array as da
import numpy as np
from dask.distributed import Client, LocalCluster

import oxel
import oxel.dask


def main():
    expr = oxel.Expression("exp(-(x*x + y*y)/2) * ln(r)", variables=["x", "y", "r"])
    # Ten million points in blocks of a million; nothing is computed until compute().
    x = da.linspace(-4, 4, 10_000_000, chunks=1_000_000)
    y = da.cos(x)
    values, errors = oxel.dask.evaluate(expr, x=x, y=y, r=2.5)

    cluster = None
    if len(sys.argv) > 1:
        client = Client(sys.argv[1])
    else:
        cluster = LocalCluster(n_workers=2, threads_per_worker=1, processes=True)
        client = Client(cluster)
    with client:
        print("workers:", len(client.scheduler_info()["workers"]))
        total, failed = da.compute(values.sum(), (errors != 0).sum())
        print("sum of %d values: %.17g, rows with an error: %d" % (values.size, total, failed))
        # The first block evaluated in this process gives the very same bits.
        head, hx, hy = da.compute(values[:1_000_000], x[:1_000_000], y[:1_000_000])
        local, _ = expr.eval(x=hx, y=hy, r=2.5)
        print("first block identical to a local evaluation:",
              np.array_equal(head.view(np.uint64), local.view(np.uint64)))
    if cluster is not None:
        cluster.close()


if __name__ == "__main__":
    main()
