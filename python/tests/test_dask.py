"""oxel over dask arrays on a LocalCluster of two worker processes, against one process."""
import numpy as np
import pytest

import oxel

da = pytest.importorskip("dask.array")
distributed = pytest.importorskip("dask.distributed")
import dask  # noqa: E402  (after the skip checks)
import oxel.dask  # noqa: E402

# distributed 2022.12 on this tornado warns about its own event-loop use.
pytestmark = pytest.mark.filterwarnings("ignore::DeprecationWarning")


def test_two_worker_processes_match_one_process_bit_for_bit():
    # Derived expressions travel too: the worker rebuilds text, aliases and the derivative.
    expr = oxel.Expression("ln(x)*sqrt(speed) + x/(y - 1) + exp(x)", variables=["x", "y"],
                           aliases={"speed": "y"}).derivative("x")
    rng = np.random.default_rng(7)
    x = rng.uniform(-2, 800, size=(400, 250))  # negative logs, overflowing exps
    y = np.round(rng.uniform(-3, 3, size=250), 1)  # y == 1 divides by zero
    want_values, want_errors = expr.eval(x=x, y=y)
    assert want_errors.any() and not want_errors.all()

    # A loaded two-core machine starts worker processes slowly: generous timeouts throughout.
    with dask.config.set({"distributed.comm.timeouts.connect": "180s",
                          "distributed.comm.timeouts.tcp": "180s"}):
        with distributed.LocalCluster(n_workers=2, threads_per_worker=1, processes=True,
                                      dashboard_address=None, death_timeout=180) as cluster, \
                distributed.Client(cluster, timeout=180) as client:
            client.wait_for_workers(2, timeout=180)
            values, errors = oxel.dask.evaluate(expr, x=da.from_array(x, chunks=(100, 125)),
                                                y=da.from_array(y, chunks=125))
            got_values, got_errors = client.compute([values, errors], sync=False)
            got_values, got_errors = got_values.result(timeout=600), got_errors.result(timeout=600)
            pids = client.run(lambda: __import__("os").getpid())
    assert len(set(pids.values())) == 2
    assert got_values.dtype == np.float64 and got_errors.dtype == np.int32
    assert np.array_equal(got_values.view(np.uint64), want_values.view(np.uint64))
    assert np.array_equal(got_errors, want_errors)


class CountingExpression:
    """Stands in for an Expression and counts the block evaluations and their shapes."""

    def __init__(self, expr):
        self.expr, self.calls, self.shapes = expr, 0, []

    def eval(self, **values):
        self.calls += 1
        self.shapes.append({name: np.shape(v) for name, v in values.items()})
        return self.expr.eval(**values)


def test_each_block_is_evaluated_once():
    counting = CountingExpression(oxel.Expression("ln(x) + y", variables=["x", "y"]))
    x = np.linspace(-1, 1, 1200).reshape(30, 40)
    values, errors = oxel.dask.evaluate(counting, x=da.from_array(x, chunks=(10, 20)),
                                        y=da.from_array(np.arange(40.0), chunks=20))
    got = dask.compute(values, errors, scheduler="synchronous")
    assert counting.calls == 6  # 3 x 2 blocks, for both outputs together
    want = counting.expr.eval(x=x, y=np.arange(40.0))
    assert np.array_equal(got[0], want[0]) and np.array_equal(got[1], want[1])
    assert got[1].dtype == np.int32 and got[1].any()


def test_gradient_outputs_along_a_new_axis_with_scalars():
    g = oxel.Expression("x*x*y + exp(x)", variables=["x", "y"]).gradient(["x", "y"], 2)
    with pytest.raises(TypeError):  # no dask array among the values
        oxel.dask.evaluate(g, x=1.0, y=2.0)
    x = np.linspace(-1, 800, 1000).reshape(40, 25)  # exp overflows at the far end
    values, errors = oxel.dask.evaluate(g, x=da.from_array(x, chunks=(10, 25)), y=2.0)
    got = dask.compute(values, errors, scheduler="threads")
    want = g.eval(x=x, y=2.0)
    assert got[0].shape == (6, 40, 25) and want[1].any()
    assert np.array_equal(got[0].view(np.uint64), want[0].view(np.uint64))
    assert np.array_equal(got[1], want[1])


def test_chunks_are_aligned_and_numpy_arrays_split_alike():
    counting = CountingExpression(oxel.Expression("x*y + z"))
    x = np.arange(120.0).reshape(12, 10)
    y, z = np.linspace(-1, 1, 10), np.linspace(0, 2, 12).reshape(12, 1)
    # The shared axis chunked (5, 5) in x and (2, 2, ...) in y; z is a numpy array.
    values, errors = oxel.dask.evaluate(counting, x=da.from_array(x, chunks=(4, 5)),
                                        y=da.from_array(y, chunks=2), z=z)
    got = dask.compute(values, errors, scheduler="synchronous")
    want = counting.expr.eval(x=x, y=y, z=z)
    assert np.array_equal(got[0].view(np.uint64), want[0].view(np.uint64))
    assert np.array_equal(got[1], want[1])
    for shapes in counting.shapes:  # every block gets the matching pieces, z included
        assert shapes["x"][-1:] == shapes["y"] and shapes["z"] == (shapes["x"][0], 1)
        assert shapes["x"][0] <= 4 and shapes["x"][1] <= 2


@pytest.mark.parametrize("values,message", [
    (dict(y=1.0), "missing a value for variable 'x'"),
    (dict(x=1.0, y=1.0, w=2.0), "'w', which is not a variable"),
    (dict(x=1.0, y=1.0, speed=2.0), "two values for variable 'y'"),
])
def test_names_are_checked_when_the_graph_is_built(values, message):
    expr = oxel.Expression("x + speed", variables=["x", "y"], aliases={"speed": "y"})
    arrays = {n: da.from_array(np.ones(4), chunks=2) if n != "w" else v for n, v in values.items()}
    for target in (expr, expr.gradient(["x"])):
        with pytest.raises(TypeError, match=message):
            oxel.dask.evaluate(target, **arrays)
