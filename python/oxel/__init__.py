"""Python interface to liboxel: parse a formula once, evaluate it over scalars or numpy arrays.

    >>> import numpy as np, oxel
    >>> f = oxel.Expression("sin(x) * speed", variables=["x", "y"], aliases={"speed": "y"})
    >>> value, error = f.eval(x=0.5, y=2.0)
    >>> values, errors = f.eval(x=np.linspace(0, 1, 5), y=2.0)
    >>> outputs, errors = f.gradient(["x", "y"]).eval(x=0.5, y=2.0)  # value, d/dx, d/dy

``oxel.dask.evaluate`` runs the same evaluation over dask arrays, on one machine or a cluster.
"""
from ._oxel import Expression, Gradient, ParseError, error_message

__all__ = ["Expression", "Gradient", "ParseError", "error_message"]
