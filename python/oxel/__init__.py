"""Python interface to liboxel: parse a formula once, evaluate it over scalars or numpy arrays.

    >>> import numpy as np, oxel
    >>> f = oxel.Expression("sin(x) * speed", variables=["x", "y"], aliases={"speed": "y"})
    >>> value, code = f.eval(x=0.5, y=2.0)
    >>> values = f.eval({"x": np.linspace(0, 1, 5), "y": 2.0}, errors="raise")
    >>> outputs, codes = f.gradient(["x", "y"]).eval(x=0.5, y=2.0)  # value, d/dx, d/dy

``oxel.dask.evaluate`` runs the same evaluation over dask arrays, on one machine or a cluster.
"""
from ._oxel import (Error, EvaluationError, Expression, Gradient, ParseError, __version__,
                    error_message, get_num_threads, set_num_threads,
                    get_node_budget, set_node_budget)

__all__ = ["Error", "EvaluationError", "Expression", "Gradient", "ParseError", "__version__",
           "error_message", "get_num_threads", "set_num_threads",
           "get_node_budget", "set_node_budget"]
