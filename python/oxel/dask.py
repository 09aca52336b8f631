"""Evaluation of an oxel.Expression over dask arrays, block by block (dask is imported lazily)."""
import functools

__all__ = ["evaluate"]


def _block(expr, names, scalars, which, *blocks):
    return expr.eval(**dict(zip(names, blocks)), **scalars)[which]


def evaluate(expr, **values):
    """Returns (values, errors) as lazy dask arrays (float64 and int32) for variables given as
    dask arrays or plain numbers; the arrays broadcast against each other as in dask. expr is
    an oxel.Expression, or an oxel.Gradient, whose outputs come along a new first axis.

    Blocks run wherever dask schedules them: the expression is pickled (its text, variables
    and aliases) and rebuilt in each worker process."""
    import dask.array as da
    import numpy as np

    names = [n for n, v in values.items() if isinstance(v, da.Array)]
    scalars = {n: v for n, v in values.items() if not isinstance(v, da.Array)}
    if not names:
        raise TypeError("oxel.dask.evaluate needs at least one dask array")
    arrays = [values[n] for n in names]
    # An oxel.Gradient gives its outputs along a new first axis, one chunk of all of them.
    extra = {}
    if hasattr(expr, "num_outputs"):
        extra = dict(new_axis=0, chunks=((expr.num_outputs,),) + da.core.broadcast_chunks(
            *(a.chunks for a in arrays)))
    return tuple(
        da.map_blocks(functools.partial(_block, expr, names, scalars, which), *arrays,
                      dtype=dtype, **extra)
        for which, dtype in ((0, np.float64), (1, np.int32)))
