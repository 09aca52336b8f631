"""Forked worker processes (multiprocessing's fork context): own machine code, own batch threads."""
import math
import multiprocessing

import numpy as np
import pytest

import oxel

# Enough calls for eval to switch to machine code.
HOT = 1500
# A regression hangs a worker: the test fails after this many seconds instead of hanging.
TIMEOUT = 120

FORMULAS = [("x*1000 + 7", lambda x: x * 1000 + 7), ("sin(x)*2 - 5", lambda x: math.sin(x) * 2 - 5)]

pytestmark = pytest.mark.skipif(
    "fork" not in multiprocessing.get_all_start_methods(), reason="no fork on this system")


def compiled(text):
    e = oxel.Expression(text, variables=["x"])
    for i in range(HOT):
        e.eval(x=i * 1e-3)
    return e


# What the workers inherit from the parent (a pickled copy would be a new expression).
inherited = {}


def own_formula(k):
    # Both workers compile before either evaluates, into what the parent's arena left free.
    text, _ = FORMULAS[k]
    e = compiled(text)
    inherited["barrier"].wait(TIMEOUT)
    return [e.eval(x=x)[0] for x in (1.0, -2.5)] + [inherited["expression"].eval(x=1.0)[0]]


def test_workers_keep_their_own_code():
    ctx = multiprocessing.get_context("fork")
    inherited.update(expression=compiled("x + 1"), barrier=ctx.Barrier(2))
    with ctx.Pool(2) as pool:
        jobs = [pool.apply_async(own_formula, (k,)) for k in range(2)]
        got = [j.get(TIMEOUT) for j in jobs]
    for (_, want), values in zip(FORMULAS, got):
        assert values == pytest.approx([want(1.0), want(-2.5), 2.0], rel=1e-12)
    assert inherited["expression"].eval(x=1.0)[0] == 2.0


def batch(seed):
    x = np.random.default_rng(seed).uniform(-3, 3, 300_000)
    values, errors = oxel.Expression("sin(x)*2 - 5", variables=["x"]).eval(x=x)
    return bool(np.allclose(values, np.sin(x) * 2 - 5, rtol=1e-12) and not errors.any())


def test_workers_run_batches_after_the_parent_did():
    f = oxel.Expression("x*2 + 1", variables=["x"])
    values, _ = f.eval(x=np.zeros(300_000))  # starts the parent's worker threads
    assert (values == 1.0).all()
    with multiprocessing.get_context("fork").Pool(2) as pool:
        assert pool.map_async(batch, range(4)).get(TIMEOUT) == [True] * 4


def differentiate(_):
    e = inherited["busy"]
    return e.derivative("x") is not None and str(e) != ""


def test_workers_use_an_expression_another_thread_was_differentiating():
    # The thread holds the expression's own lock most of the time, the interpreter lock released.
    import threading
    inherited["busy"] = oxel.Expression("+".join(["sin(x*%d)*exp(x/%d)" % (k, k) for k in range(1, 300)]))
    stop = threading.Event()

    def work():
        while not stop.is_set():
            inherited["busy"].derivative("x")

    thread = threading.Thread(target=work)
    thread.start()
    try:
        ctx = multiprocessing.get_context("fork")
        for _ in range(3):
            with ctx.Pool(2) as pool:
                assert pool.map_async(differentiate, range(2)).get(TIMEOUT) == [True, True]
    finally:
        stop.set()
        thread.join()
