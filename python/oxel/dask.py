"""Evaluation of an oxel.Expression over dask arrays, block by block (dask is imported lazily)."""
import functools

__all__ = ["evaluate"]


def _block(expr, names, scalars, *blocks):
    return expr.eval(**dict(zip(names, blocks)), **scalars)


def evaluate(expr, **values):
    """Returns (values, errors) as lazy dask arrays (float64 and int32) for variables given as
    dask arrays or plain numbers; the arrays broadcast against each other as in dask.

    Each block is evaluated once, giving both of its outputs. Blocks run wherever dask
    schedules them: the expression is pickled (its text, variables and aliases) and rebuilt in
    each worker process."""
    import dask.array as da
    import numpy as np

    names = [n for n, v in values.items() if isinstance(v, da.Array)]
    scalars = {n: v for n, v in values.items() if not isinstance(v, da.Array)}
    if not names:
        raise TypeError("oxel.dask.evaluate needs at least one dask array")
    arrays = [values[n] for n in names]
    # Element-wise with two outputs: one task per block, and one cheap selection per output.
    return da.apply_gufunc(functools.partial(_block, expr, names, scalars),
                           ",".join(["()"] * len(arrays)) + "->(),()", *arrays,
                           output_dtypes=(np.float64, np.int32))
