"""Tests of oxel.Expression: results against Python's math, arrays against scalars, pickling."""
import math
import pickle
import threading

import numpy as np
import pytest

import oxel

XY = ["x", "y"]

# Formula next to the same computation in Python; both call the C library, so the bits agree.
NATIVE = [
    ("sin(x)*y + 1", lambda x, y: math.sin(x) * y + 1),
    ("x/y - y", lambda x, y: x / y - y),
    ("exp(-x*x/2)*y", lambda x, y: math.exp(-x * x / 2) * y),
    ("sqrt(x*x + y*y)", lambda x, y: math.sqrt(x * x + y * y)),
    ("a = x*2; a + y", lambda x, y: x * 2 + y),
]

POINTS = [0.0, -0.0, 1.0, -1.0, 0.5, 2.5, -3.25, 1e-3, 7.0, 1e308, -1e308, 1e-310,
          math.inf, -math.inf, math.nan, 709.9, 710.0]

# Formulas whose rows take error paths: array results must match scalar calls row by row.
ERRORS = ["ln(x) + sqrt(y)", "x / y", "exp(x) * y", "asin(x) - acos(y)", "fmod(x, y)",
          "a = x*2; a / y", "x < y && y > 1 || x == 0"]


def bits(v):
    return np.asarray(v, dtype=np.float64).view(np.uint64)


@pytest.mark.parametrize("text,native", NATIVE)
def test_scalars_match_python_math(text, native):
    e = oxel.Expression(text, variables=XY)
    for x in POINTS[:9]:
        for y in POINTS[:9]:
            value, err = e.eval(x=x, y=y)
            assert isinstance(value, float) and isinstance(err, int)
            if err == 0:
                assert bits(value) == bits(native(x, y)), (text, x, y)


@pytest.mark.parametrize("text", ERRORS + [t for t, _ in NATIVE])
def test_arrays_match_scalars_bit_for_bit(text):
    e = oxel.Expression(text, variables=XY)
    x, y = (g.ravel() for g in np.meshgrid(POINTS, POINTS))
    values, errors = e.eval(x=x, y=y)
    assert values.dtype == np.float64 and errors.dtype == np.int32
    alone = [e.eval(x=a, y=b) for a, b in zip(x, y)]
    assert np.array_equal(bits(values), bits([v for v, _ in alone]))
    assert errors.tolist() == [c for _, c in alone]
    assert (text not in ERRORS[:2]) or errors.any()  # the error paths really ran


def test_broadcasting_shapes_and_layouts():
    e = oxel.Expression("x*y + z", variables=["x", "y", "z"])
    x = np.arange(12, dtype=np.int64).reshape(3, 4)  # integers convert to float64
    y = np.linspace(0.5, 2, 4)                       # broadcast along the rows
    z = np.arange(24.0).reshape(4, 6).T[::2]  # strided, not contiguous
    values, errors = e.eval(x=x, y=y, z=z)
    assert values.shape == errors.shape == (3, 4)
    assert np.array_equal(bits(values), bits(x * y + z))
    values, _ = e.eval(x=[1.0, 2.0], y=3.0, z=0.5)    # lists and scalars mix
    assert values.tolist() == [3.5, 6.5]
    assert e.eval(x=np.zeros(0), y=1.0, z=1.0)[0].shape == (0,)
    with pytest.raises(ValueError):
        e.eval(x=np.zeros(3), y=np.zeros(4), z=0.0)


@pytest.mark.parametrize("call,message", [
    (lambda e: e.eval(x=1.0), "missing a value for variable 'y'"),
    (lambda e: e.eval(x=1.0, y=2.0, w=3.0), "'w', which is not a variable"),
    (lambda e: e.eval(x=1.0, y=2.0, speed=3.0), "two values for variable 'y'"),
])
def test_eval_names_its_arguments(call, message):
    e = oxel.Expression("x + speed", variables=XY, aliases={"speed": "y"})
    with pytest.raises(TypeError, match=message):
        call(e)


def test_aliases_and_variables():
    e = oxel.Expression("a = x*speed; a + 1", variables=["x", "y", "x"], aliases={"speed": "y"})
    assert e.variables == XY  # duplicates collapse; assigned names are not arguments
    assert e.aliases == {"speed": "y"}
    assert e.eval(x=2.0, speed=3.0) == e.eval(x=2.0, y=3.0) == (7.0, 0)


@pytest.mark.parametrize("text", ["x + * y", "sin(x", "x + q", ""])
def test_parse_errors(text):
    with pytest.raises(oxel.ParseError) as info:
        oxel.Expression(text, variables=XY)
    err = info.value
    assert isinstance(err, ValueError) and type(err).__name__ == "ParseError"
    assert err.text == text
    assert err.offset is None or 0 <= err.offset <= len(text)
    assert str(err)  # the library's message


# (text, variable, slope written out by hand)
SLOPES = [
    ("x*x*y", "x", lambda x, y: 2 * x * y),
    ("x*x*speed", "speed", lambda x, y: x * x),
    ("sin(x)*y", "x", lambda x, y: math.cos(x) * y),
    ("x*y", "w", lambda x, y: 0.0),
]


@pytest.mark.parametrize("text,var,slope", SLOPES)
def test_derivatives(text, var, slope):
    d = oxel.Expression(text, variables=XY, aliases={"speed": "y"}).derivative(var)
    assert d.variables == XY
    for x in POINTS[:9]:
        for y in POINTS[:9]:
            assert d.eval(x=x, y=y)[0] == pytest.approx(slope(x, y), rel=1e-15, abs=0)


@pytest.mark.parametrize("text", ["x % 2", "a = x; a*2"])
def test_no_derivative_is_none(text):
    assert oxel.Expression(text, variables=XY).derivative("x") is None


def test_simplify_and_print():
    e = oxel.Expression("2+3*x*1", variables=["x"])
    assert str(e.simplified()) == str(e.simplified_fully()) == "2+3*x"
    assert str(e) != str(e.simplified())
    xs = np.array(POINTS)
    assert np.array_equal(bits(e.simplified().eval(x=xs)[0]), bits(e.eval(x=xs)[0]))
    # Printed text that is also formula syntax reads back to the same values.
    f = oxel.Expression("x*y + x/y - 3", variables=XY)
    g = oxel.Expression(str(f), variables=XY)
    assert np.array_equal(bits(f.eval(x=xs, y=2.5)[0]), bits(g.eval(x=xs, y=2.5)[0]))


@pytest.mark.parametrize("make", [
    lambda: oxel.Expression("sin(x)*speed", variables=XY, aliases={"speed": "y"}),
    lambda: oxel.Expression("sin(x)*speed", variables=XY, aliases={"speed": "y"}).derivative("x"),
    lambda: oxel.Expression("x*x*y*1", variables=XY).derivative("speed"),
    lambda: oxel.Expression("x*x*y*1", variables=XY).derivative("x").simplified(),
    lambda: oxel.Expression("a = x*2; ln(a) + y", variables=XY).simplified_fully(),
])
def test_pickle_rebuilds_the_same_expression(make):
    e = make()
    copy = pickle.loads(pickle.dumps(e))
    assert type(copy) is oxel.Expression
    assert (str(copy), copy.variables, copy.aliases, copy.text) == \
           (str(e), e.variables, e.aliases, e.text)
    xs = np.array(POINTS)
    for a, b in zip(e.eval(x=xs, y=xs[::-1]), copy.eval(x=xs, y=xs[::-1])):
        assert np.array_equal(a.view(np.uint8), b.view(np.uint8))


def test_error_message():
    e = oxel.Expression("ln(x)", variables=["x"])
    _, code = e.eval(x=0.0)
    assert code != 0 and oxel.error_message(code) == "Illegal log argument"
    assert oxel.error_message(123456) == "Unknown"


def assert_threads_agree(e, count, **kw):
    """eval on count threads at once (the interpreter lock is released) gives eval's bits."""
    want = e.eval(**kw)
    got = [None] * count

    def work(i):
        got[i] = e.eval(**kw)

    threads = [threading.Thread(target=work, args=(i,)) for i in range(count)]
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    for values, errors in got:
        assert np.array_equal(bits(values), bits(want[0])) and np.array_equal(errors, want[1])


def test_threads_share_one_expression():
    # eval releases the interpreter lock; the expression serialises its own callers.
    e = oxel.Expression("sqrt(x)*y - ln(x)", variables=XY)
    assert_threads_agree(e, 4, x=np.linspace(-1, 4, 200_001), y=1.5)


def separate(e, names, order):
    """The expressions a gradient stands for, in its output order."""
    first = [e.derivative(n) for n in names]
    second = [first[i].derivative(names[j]) for i in range(len(names))
              for j in range(i, len(names))] if order == 2 else []
    return [e] + first + second


@pytest.mark.parametrize("order", [1, 2])
def test_gradient_matches_separate_derivatives(order):
    e = oxel.Expression("sqrt(x*x + s*s) / (1 + exp(-x*y))", variables=XY, aliases={"s": "y"})
    names = ["x", "s"]
    g = e.gradient(names, order)
    exprs = separate(e, names, order)
    assert g.num_outputs == len(exprs) and (g.names, g.order) == (names, order)
    out, err = g.eval(x=0.5, y=-2.0)
    assert out.shape == err.shape == (len(exprs),) and err.dtype == np.int32
    assert [(v, c) for v, c in zip(out, err)] == [x.eval(x=0.5, y=-2.0) for x in exprs]
    # Arrays with failures (sqrt(0) in the derivatives, overflow at 1e300) and broadcasting.
    x = np.array([[0.0, 1.0, -2.0], [3.0, 0.0, 1e300]])
    y = np.array([0.0, 2.0, math.nan])
    out, err = g.eval(x=x, y=y)
    assert out.shape == err.shape == (len(exprs), 2, 3) and err.any() and not err.all()
    for k, other in enumerate(exprs):
        values, codes = other.eval(x=x, y=y)
        assert np.array_equal(bits(out[k]), bits(values)) and np.array_equal(err[k], codes)
    copy = pickle.loads(pickle.dumps(g))
    assert type(copy) is oxel.Gradient
    for a, b in zip(copy.eval(x=x, y=y), (out, err)):
        assert np.array_equal(a.view(np.uint8), b.view(np.uint8))
    assert_threads_agree(g, 3, x=np.linspace(-1, 4, 100_001), y=1.5)


@pytest.mark.parametrize("text,names,order", [
    ("x % 2 + y", ["x"], 1), ("a = x; a*y", ["x"], 1), ("x*y", ["q"], 1), ("x*y", ["x"], 3)])
def test_no_gradient_is_none(text, names, order):
    assert oxel.Expression(text, variables=XY).gradient(names, order) is None
