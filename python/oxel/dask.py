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


def _check_names(expr, values):
    """The errors eval() would raise in every block, raised now, while the graph is built."""
    source = getattr(expr, "expression", expr)  # a Gradient's expression
    variables = getattr(source, "variables", None)
    if variables is None:  # an object of the caller's own: its eval() decides
        return
    aliases = source.aliases
    taken = set()
    for name in values:
        variable = aliases.get(name, name)
        if variable not in variables:
            raise TypeError("oxel.dask.evaluate got a value for '%s', which is not a variable of "
                            "this expression (variables: %s)" % (name, ", ".join(variables)))
        if variable in taken:
            raise TypeError("oxel.dask.evaluate got two values for variable '%s'" % variable)
        taken.add(variable)
    for variable in variables:
        if variable not in taken:
            raise TypeError("oxel.dask.evaluate is missing a value for variable '%s'" % variable)


def _aligned(arrays):
    """The arrays (dask, or numpy beside them) as dask arrays whose chunks agree axis by axis,
    the axes aligned from the right as numpy broadcasts them."""
    import dask.array as da

    arrays = [a if isinstance(a, da.Array) else da.from_array(a, chunks=a.shape) for a in arrays]
    ndim = max(a.ndim for a in arrays)
    args = []
    for a in arrays:
        args += [a, tuple(range(ndim - a.ndim, ndim))]
    return da.core.unify_chunks(*args)[1]


def evaluate(expr, **values):
    """Returns (values, errors) as lazy dask arrays (float64 and int32) for variables given as
    dask arrays, numpy arrays or plain numbers; the arrays broadcast against each other as in
    numpy, and arrays chunked differently (or numpy arrays, which get the dask arrays' chunks)
    are rechunked to agree. expr is an oxel.Expression, or an oxel.Gradient, whose outputs
    come along a new first axis. A missing or unknown name raises TypeError here, not when
    the result is computed.

    Each block is evaluated once, giving both of its outputs. Blocks run wherever dask
    schedules them: the expression is pickled (its text, variables and aliases) and rebuilt in
    each worker process.

        >>> x = da.linspace(0, 1, 1000, chunks=100)
        >>> values, errors = oxel.dask.evaluate(oxel.Expression("ln(x) * y"), x=x, y=2.0)
    """
    import dask.array as da
    import numpy as np

    _check_names(expr, values)
    names = [n for n, v in values.items() if isinstance(v, da.Array) or np.ndim(v) > 0]
    scalars = {n: v for n, v in values.items() if n not in names}
    if not any(isinstance(values[n], da.Array) for n in names):
        raise TypeError("oxel.dask.evaluate needs at least one dask array")
    arrays = _aligned([v if isinstance(v, da.Array) else np.asarray(v)
                       for v in (values[n] for n in names)])
    inputs = ",".join(["()"] * len(arrays))
    # Element-wise with two outputs: one task per block, and one cheap selection per output.
    if not hasattr(expr, "num_outputs"):
        return da.apply_gufunc(functools.partial(_block, expr, names, scalars), inputs + "->(),()",
                               *arrays, output_dtypes=(np.float64, np.int32))
    outs = da.apply_gufunc(functools.partial(_gradient_block, expr, names, scalars),
                           inputs + "->(k),(k)", *arrays, output_dtypes=(np.float64, np.int32),
                           output_sizes={"k": expr.num_outputs})
    return tuple(da.moveaxis(o, -1, 0) for o in outs)
