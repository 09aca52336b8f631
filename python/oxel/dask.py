"""Evaluation of an oxel.Expression over dask arrays, block by block (dask is imported lazily)."""
import functools

__all__ = ["evaluate"]


def _block(expr, names, scalars, *blocks):
    return expr.eval(**dict(zip(names, blocks)), **scalars)


def _gradient_block(expr, names, scalars, *blocks):
    # A gradient's outputs come first; dask wants the new axis last.
    import numpy as np

    out, err = expr.eval(**dict(zip(names, blocks)), **scalars)
    return np.moveaxis(out, 0, -1), np.moveaxis(err, 0, -1)


def evaluate(expr, **values):
    """Returns (values, errors) as lazy dask arrays (float64 and int32) for variables given as
    dask arrays or plain numbers; the arrays broadcast against each other as in dask. expr is
    an oxel.Expression, or an oxel.Gradient, whose outputs come along a new first axis.

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
    inputs = ",".join(["()"] * len(arrays))
    # Element-wise with two outputs: one task per block, and one cheap selection per output.
    if not hasattr(expr, "num_outputs"):
        return da.apply_gufunc(functools.partial(_block, expr, names, scalars), inputs + "->(),()",
                               *arrays, output_dtypes=(np.float64, np.int32))
    outs = da.apply_gufunc(functools.partial(_gradient_block, expr, names, scalars),
                           inputs + "->(k),(k)", *arrays, output_dtypes=(np.float64, np.int32),
                           output_sizes={"k": expr.num_outputs})
    return tuple(da.moveaxis(o, -1, 0) for o in outs)
