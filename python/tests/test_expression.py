"""Tests of oxel.Expression: results against Python's math, arrays against scalars, pickling."""
import builtins
import ctypes
import math
import pickle
import re
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


@pytest.mark.parametrize("text", ERRORS + [t for t, _ in NATIVE])
def test_arrays_match_scalars_and_python_math(text):
    e = oxel.Expression(text, variables=XY)
    x, y = (g.ravel() for g in np.meshgrid(POINTS, POINTS))
    values, errors = e.eval(x=x, y=y)
    assert values.dtype == np.float64 and errors.dtype == np.int32
    alone = [e.eval(x=a, y=b) for a, b in zip(x, y)]
    assert all(isinstance(v, float) and isinstance(c, int) for v, c in alone)
    assert np.array_equal(bits(values), bits([v for v, _ in alone]))
    assert errors.tolist() == [c for _, c in alone]
    assert (text not in ERRORS[:2]) or errors.any()  # the error paths really ran
    native = dict(NATIVE).get(text)
    for a, b, (v, c) in zip(x, y, alone):
        if native and c == 0 and a in POINTS[:9] and b in POINTS[:9]:
            assert bits(v) == bits(native(a, b)), (text, a, b)


def test_many_variables_and_assignments_match_arrays():
    # More variables than fit the stack buffer, and assigned slots after the declared ones.
    names = ["v%d" % i for i in range(20)]
    e = oxel.Expression("a = v0*v19; b = a + v7; b*b - " + " - ".join(names), variables=names)
    rows = np.random.default_rng(3).uniform(-2, 2, size=(5, 20))
    values, _ = e.eval(**dict(zip(names, rows.T)))
    alone = [e.eval(**dict(zip(names, r)))[0] for r in rows]
    assert np.array_equal(bits(values), bits(alone))


def test_scalar_eval_imports_nothing(monkeypatch):
    e = oxel.Expression("x*y", variables=XY)
    imports = []

    def counting(name, *args, **kwargs):
        imports.append(name)
        return real(name, *args, **kwargs)

    real = builtins.__import__
    monkeypatch.setattr(builtins, "__import__", counting)
    assert [e.eval(x=2.0, y=i)[0] for i in range(3)] == [0.0, 2.0, 4.0]
    e.eval(x=np.float64(2.0), y=np.ones(2))  # numpy values: numpy is already at hand
    assert imports == []


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
    # Numbers beside long arrays are reused chunk after chunk: as good as their full columns.
    root = oxel.Expression("sqrt(x) * y - z", variables=["x", "y", "z"])
    x = np.linspace(-3, 3, 300_001)
    for f in (root, root.gradient(["x", "y"])):
        (v, c), (w, d) = f.eval(x=x, y=2.5, z=-1), f.eval(x=x, y=x * 0 + 2.5, z=x * 0 - 1)
        assert np.array_equal(bits(v), bits(w)) and np.array_equal(c, d) and c.any()
    with pytest.raises(ValueError):
        e.eval(x=np.zeros(3), y=np.zeros(4), z=0.0)


# (text, offset of the failure, the caret line under the formula's line); offsets index the str
PARSE_ERRORS = [
    ("x + * y", 4, "      ^"),
    ("sin(x", 5, "       ^"),
    ("x + q", 5, "       ^"),    # an unknown name fails at the end of the text
    ("x + 1 ?", 6, "        ^"),   # a skipped character would change the formula's meaning
    ("x;\ny +", 6, "             ^"),  # second line, end of text: "  line 2: y +"
    ("", 0, None),
    ("x + é", 5, None), ("x; # é\n x +*", 11, None), ("x = 2; y +* 1", 10, None),
]


@pytest.mark.parametrize("text,offset,caret", PARSE_ERRORS)
def test_parse_errors(text, offset, caret, capfd):
    with pytest.raises(oxel.ParseError) as info:
        oxel.Expression(text, variables=XY)
    err = info.value
    assert isinstance(err, ValueError) and type(err).__name__ == "ParseError"
    assert (err.text, err.offset) == (text, offset)
    assert err.message and str(err).startswith(err.message)
    if caret:
        assert caret in str(err).splitlines()
    assert capfd.readouterr() == ("", "")  # nothing printed: the exception carries it all


def with_speed():
    return oxel.Expression("x + speed", variables=XY, aliases={"speed": "y"})


@pytest.mark.parametrize("call,error,message", [
    (lambda: with_speed().eval(x=1.0), TypeError, "missing a value for variable 'y'"),
    (lambda: with_speed().eval(x=1.0, y=2.0, w=3.0), TypeError, "'w', which is not a variable"),
    (lambda: with_speed().eval(x=1.0, y=2.0, speed=3.0), TypeError, "two values for variable 'y'"),
    (lambda: with_speed().derivative("w"), ValueError, "'w'"),
    (lambda: with_speed().derivative_statements("w"), ValueError, "'w'"),
    (lambda: with_speed().gradient(["x", "w"]), ValueError,
     "'w', which is not a variable or alias of this expression"),
    (lambda: with_speed().gradient(["x"], 2**40), ValueError, "order must be 1 or 2"),
    (lambda: with_speed().gradient(["x"], True), ValueError, "order must be 1 or 2"),
    (lambda: oxel.Expression("x", variables=["x"], aliases={"s": "w"}), ValueError,
     "alias 's' refers to 'w', which is not a declared variable"),
    (lambda: oxel.Expression("x", variables="x"), TypeError, "a list of names"),
    (lambda: oxel.Expression("x").eval(x=np.ma.masked_array([1.0, 2.0], [0, 1])), TypeError,
     "masked array for variable 'x'"),
    (lambda: oxel.Expression("x\0+1", variables=XY), ValueError, "NUL byte at offset 1"),
    (lambda: oxel.Expression("x", variables=["1x"]), ValueError, "'1x' is not a valid variable"),
    (lambda: oxel.Expression("x", variables=["sin"]), ValueError, "'sin' is not a valid variable"),
    (lambda: oxel.Expression("x", variables=XY, aliases={"s t": "x"}), ValueError, "'s t' is not"),
    (lambda: oxel.Expression("x", variables=XY).eval(x=None, y=1), TypeError, "'x', not NoneType"),
    (lambda: oxel.Expression("x", variables=XY).eval(x=1, y=1j), TypeError, "complex values"),
    (lambda: oxel.Expression("x", variables=XY).eval(x=np.ones(2), y=np.ones(2, complex)),
     TypeError, "complex values for variable 'y'"),
    (lambda: oxel.Expression("x", variables=XY).eval(x="1", y=1), TypeError, "not str"),
])
def test_bad_input_raises(call, error, message):
    with pytest.raises(error, match=re.escape(message)):
        call()


def test_other_hosts_keep_the_default_output(capfd):
    # A parse that does not come through the module (here the C interface over ctypes, as an
    # embedding host would call it) still prints the library's default message.
    lib = ctypes.CDLL("liboxel.so.1")  # the copy the module loaded, found by its soname
    lib.oxel_expr_new.restype = ctypes.c_void_p
    lib.oxel_expr_free.argtypes = [ctypes.c_void_p]
    lib.oxel_expr_parse.argtypes = [ctypes.c_void_p, ctypes.c_char_p]
    e = lib.oxel_expr_new()
    assert lib.oxel_expr_parse(e, b"1 +") == 0
    lib.oxel_expr_free(e)
    assert capfd.readouterr().err.startswith("Parsing OxError: syntax error")
    with pytest.raises(oxel.ParseError):
        oxel.Expression("1 +")
    assert capfd.readouterr() == ("", "")


# (text, variable, slope written out by hand)
SLOPES = [
    ("x*x*y", "x", lambda x, y: 2 * x * y),
    ("x*x*speed", "speed", lambda x, y: x * x),
    ("sin(x)*y", "x", lambda x, y: math.cos(x) * y),
    # Parts that do not depend on the variable are an exact 0, never evaluated: no code 11
    # from ln(x) at x <= 0, no code from sqrt(x) at x < 0.
    ("pow(x, 2) + y", "y", lambda x, y: 1.0),
    ("ln(x) * y * y + sqrt(x)", "speed", lambda x, y: math.log(x) * 2 * y if x > 0 else None),
]


@pytest.mark.parametrize("text,var,slope", SLOPES)
def test_derivatives(text, var, slope):
    d = oxel.Expression(text, variables=XY, aliases={"speed": "y"}).derivative(var)
    assert d.variables == XY
    for x in POINTS[:9]:
        for y in POINTS[:9]:
            value, code = d.eval(x=x, y=y)
            want = slope(x, y)
            if want is None:  # ln(x) depends on nothing but x, yet y multiplies it: its code
                assert code != 0
                continue
            assert code == 0 and value == pytest.approx(want, rel=1e-15, abs=0)


def test_derivative_statements_read_back():
    e = oxel.Expression("sin(" * 300 + "x*y" + ")" * 300, variables=XY)
    text = e.derivative_statements("x")
    assert text.startswith("t1 = ") and len(text) < len(str(e.derivative("x"))) / 10
    xs = np.array(POINTS)
    want = e.derivative("x").eval(x=xs, y=0.75)
    got = oxel.Expression(text, variables=XY).eval(x=xs, y=0.75)
    assert np.array_equal(bits(got[0]), bits(want[0])) and np.array_equal(got[1], want[1])
    assert oxel.Expression("x % 2", variables=XY).derivative_statements("x") is None


@pytest.mark.parametrize("text", ["x % 2 + y", "a = x; a*y", "x > 1", "!x", "x < y"])
def test_no_derivative_or_gradient_is_none(text, capfd):
    e = oxel.Expression(text, variables=XY)
    assert e.derivative("x") is None and e.gradient(["x"]) is None
    assert capfd.readouterr() == ("", "")  # the library's note is not printed


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
    lambda: oxel.Expression("x*x*y*1", variables=XY, aliases={"speed": "y"}).derivative("speed"),
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
