"""The numpy/pandas conventions of oxel: default names, mappings and DataFrames, out=, errors=,
oxel.Error, Gradient.split, repr, hints; half-built objects; the interpreter lock."""
import ast
import doctest
import math
import os
import pickle
import re
import sys
import threading
import time

import numpy as np
import pytest

import oxel

XY = ["x", "y"]
HERE = os.path.dirname(os.path.abspath(__file__))


def bits(v):
    return np.asarray(v, dtype=np.float64).view(np.uint64)


# ------------------------------------------------------------------ objects built once

@pytest.mark.parametrize("call", [
    lambda e, g: e.eval(x=1), lambda e, g: e.variables, lambda e, g: e.derivative("x"),
    lambda e, g: str(e), lambda e, g: repr(e), lambda e, g: e.gradient(["x"]),
    lambda e, g: pickle.dumps(e), lambda e, g: e.to_c(), lambda e, g: e.normalized(),
    lambda e, g: g.eval(x=1), lambda e, g: g.split([1.0]), lambda e, g: pickle.dumps(g),
    lambda e, g: g.names,
])
def test_half_built_objects_raise(call):
    e, g = oxel.Expression.__new__(oxel.Expression), oxel.Gradient.__new__(oxel.Gradient)
    with pytest.raises(TypeError, match="is not initialised"):
        call(e, g)


def test_objects_are_built_once():
    e = oxel.Expression("x*2")
    g = e.gradient(["x"])
    for again in (lambda: e.__init__("x*3"), lambda: e.__setstate__(("x*3", ["x"], [], [])),
                  lambda: g.__setstate__((e, ["x"], 2))):
        with pytest.raises(TypeError, match="already initialised"):
            again()
    assert e.eval(x=1.0) == (2.0, 0) and g.order == 1
    # Unpickling builds a fresh object through __new__ and __setstate__, once.
    assert pickle.loads(pickle.dumps(g)).eval(x=1.0)[0].tolist() == [2.0, 2.0]


# ------------------------------------------------------------------ the interpreter lock

def sum_of(n):
    return oxel.Expression(" + ".join("sin(x*%d + y)*exp(y/%d)" % (k, k) for k in range(1, n)))


LONG_CALLS = {
    "derivative": lambda e: e.derivative("x"), "normalized": lambda e: e.normalized(),
    "simplified": lambda e: e.simplified(), "simplified_fully": lambda e: e.simplified_fully(),
    "gradient": lambda e: e.gradient(XY, 2), "to_c": lambda e: e.to_c(),
    "to_latex": lambda e: e.to_latex(), "to_formula": lambda e: e.to_formula(),
}


@pytest.mark.parametrize("name", list(LONG_CALLS))
def test_long_calls_let_other_threads_run(name):
    # With a long switch interval the calling thread keeps the lock between bytecodes, so the
    # ticker only advances during the call where the call itself releases the lock.
    ticks, running = [0], [True]

    def ticker():
        while running[0]:
            ticks[0] += 1
            time.sleep(0.0005)

    old = sys.getswitchinterval()
    thread = threading.Thread(target=ticker)
    thread.start()
    try:
        sys.setswitchinterval(1.0)
        seen = 0
        for n in (400, 1600, 3200, 6400):  # larger until the call is long enough to see
            e = sum_of(n)
            before = ticks[0]
            LONG_CALLS[name](e)
            seen = ticks[0] - before
            if seen >= 5:
                break
        assert seen >= 5, (name, n)
    finally:
        sys.setswitchinterval(old)
        running[0] = False
        thread.join()


def test_threads_deriving_and_printing_one_expression_agree():
    e = sum_of(60)
    serial = [e.normalized().to_formula(), e.derivative("y").to_latex(), e.to_c(), str(e)]
    got = []

    def work():
        got.append([e.normalized().to_formula(), e.derivative("y").to_latex(), e.to_c(), str(e)])

    threads = [threading.Thread(target=work) for _ in range(4)]
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    assert got == [serial] * 4


# ------------------------------------------------------------------ names and inputs

@pytest.mark.parametrize("text,aliases,variables", [
    ("x * 2 + y", None, ["x", "y"]),
    ("b*a + a - b", None, ["b", "a"]),       # order of first appearance
    ("t = x*2; t + y", None, ["x", "y"]),    # an assigned name is no variable
    ("speed * x", {"speed": "y"}, ["y", "x"]),  # an alias stands for its variable
    ("x + 1", {"s": "y"}, ["x", "y"]),       # an alias's variable is declared too
    ("2 + 3", None, []),
])
def test_variables_default_to_the_names_read(text, aliases, variables):
    e = oxel.Expression(text, aliases=aliases)
    assert e.variables == variables
    assert oxel.Expression(text, variables=variables[::-1], aliases=aliases).variables == \
        variables[::-1]


def test_mappings_and_keywords():
    e = oxel.Expression("x / speed", variables=["x", "y", "x"], aliases={"speed": "y"})
    assert e.variables == XY and e.aliases == {"speed": "y"}  # duplicates collapse
    want = e.eval(x=3.0, y=2.0)
    assert want == e.eval(x=3.0, speed=2.0) == (1.5, 0)
    assert e.eval({"x": 3.0, "y": 2.0}) == e.eval({"x": 3.0}, speed=2.0) == want
    assert e.eval({"x": 3.0, "speed": 2, "unused": "anything"}) == want  # other keys ignored
    # A variable named like an option takes the keyword, unless the mapping gave its value.
    clash = oxel.Expression("out / errors")
    assert clash.eval(out=1.0, errors=4.0) == (0.25, 0)
    assert math.isnan(clash.eval({"out": 1.0, "errors": 0.0}, errors="nan"))
    for bad, error, message in [
            (lambda: e.eval({"x": 1.0, "y": 1.0}, y=2.0), TypeError, "two values for variable 'y'"),
            (lambda: e.eval([1.0, 2.0]), TypeError, "mapping or a pandas DataFrame"),
            (lambda: e.eval({}, {}), TypeError, "at most one positional"),
            (lambda: e.eval(x=1.0, y=1.0, errors="ignore"), ValueError, "'return', 'nan' or")]:
        with pytest.raises(error, match=message):
            bad()


def test_dataframe_columns_give_series_on_its_index():
    pd = pytest.importorskip("pandas")
    e = oxel.Expression("ln(x) * y")
    frame = pd.DataFrame({"x": [1.0, 0.0, 2.0], "y": [2, 3, 4], "z": ["ignored"] * 3},
                         index=["a", "b", "c"])
    values, codes = e.eval(frame)
    want = e.eval(x=frame["x"].to_numpy(), y=frame["y"].to_numpy())
    assert isinstance(values, pd.Series) and list(values.index) == ["a", "b", "c"]
    assert np.array_equal(bits(values), bits(want[0])) and list(codes) == list(want[1])
    assert np.isnan(e.eval(frame, errors="nan")["b"])
    assert e.eval(frame[["x"]], y=1.0, errors="nan")["c"] == math.log(2.0)  # keywords beside it


def test_out_arrays_are_filled_in_place():
    e = oxel.Expression("sqrt(x) - y")
    x = np.linspace(-1, 3, 9)
    want = e.eval(x=x, y=0.5)
    out, codes = np.full(9, 7.0), np.full(9, 7, dtype=np.int32)  # codes_out need not be zero
    got = e.eval(x=x, y=0.5, out=out, codes_out=codes)
    assert got[0] is out and got[1] is codes
    assert np.array_equal(bits(out), bits(want[0])) and np.array_equal(codes, want[1])
    only = np.empty(9)
    assert e.eval(x=x, y=0.5, out=only, errors="nan") is only
    point = np.empty(())
    assert e.eval(x=4.0, y=1.0, out=point)[0] is point and point == 1.0
    g = e.gradient(["x"])
    gout = np.empty((2, 9))
    assert g.eval(x=x, y=0.5, out=gout)[0] is gout
    for bad in (np.empty(8), np.empty(9, np.float32), np.empty(18)[::2], np.empty(9).reshape(9, 1)):
        with pytest.raises(ValueError, match="out must be a writeable C-contiguous"):
            e.eval(x=x, y=0.5, out=bad)
    readonly = np.empty(9)
    readonly.flags.writeable = False
    with pytest.raises(ValueError):
        e.eval(x=x, y=0.5, out=readonly)


@pytest.mark.parametrize("dtype", [np.float32, np.float16, np.int8, np.int64, np.uint16, bool])
def test_other_dtypes_compute_in_double(dtype):
    e = oxel.Expression("x / 3 + sin(x)")
    a = (np.arange(-4, 5) % 3 if dtype is bool else np.arange(-4, 5)).astype(dtype)
    if np.dtype(dtype).kind == "u":
        a = np.arange(9).astype(dtype)
    want = e.eval(x=a.astype(np.float64))
    got = e.eval(x=a)
    assert got[0].dtype == np.float64 and np.array_equal(bits(got[0]), bits(want[0]))


@pytest.mark.parametrize("zero_d", [np.array(2.0), np.float32(2.0), np.array(2, np.int16)])
def test_zero_d_inputs_give_what_a_number_gives(zero_d):
    e = oxel.Expression("x * y")
    got, want = e.eval(x=zero_d, y=3.0), e.eval(x=2.0, y=3.0)
    assert got == want and type(got[0]) is float and type(got[1]) is type(want[1])
    assert type(e.eval(x=zero_d, y=3.0, errors="nan")) is float


# ------------------------------------------------------------------ errors= and oxel.Error

def test_error_enum_follows_the_library_table():
    assert oxel.Error.NONE == 0 and oxel.Error.DIVISION_BY_ZERO == 8
    for member in oxel.Error:
        assert isinstance(member, int)
        if member:
            assert member.message == oxel.error_message(member) != "Unknown"
    _, code = oxel.Expression("ln(x)").eval(x=0.0)
    assert code is oxel.Error.ILLEGAL_LOG and code == 11
    assert oxel.error_message(code) == "Illegal log argument"
    assert oxel.error_message(123456) == "Unknown"


def test_errors_policies():
    e = oxel.Expression("ln(x) + 1/y")
    x = np.array([[1.0, 0.0, 2.0], [1.0, 1.0, -1.0]])
    y = np.array([[1.0, 1.0, 1.0], [0.0, 1.0, 1.0]])
    values, codes = e.eval(x=x, y=y)
    nan = e.eval(x=x, y=y, errors="nan")
    assert np.array_equal(np.isnan(nan), codes != 0) and np.array_equal(nan[codes == 0],
                                                                        values[codes == 0])
    with pytest.raises(oxel.EvaluationError) as info:
        e.eval(x=x, y=y, errors="raise")
    err = info.value
    assert (err.code, err.index, err.output) == (oxel.Error.ILLEGAL_LOG, (0, 1), None)
    assert isinstance(err, ArithmeticError) and "row (0, 1)" in str(err) \
        and err.message == "Illegal log argument"
    with pytest.raises(oxel.EvaluationError, match="at row 1: code 8"):
        e.eval(x=np.ones(3), y=np.array([1.0, 0.0, 0.0]), errors="raise")
    with pytest.raises(oxel.EvaluationError) as info:
        e.eval(x=1.0, y=0.0, errors="raise")
    assert (info.value.code, info.value.index) == (oxel.Error.DIVISION_BY_ZERO, None)
    assert e.eval(x=1.0, y=2.0, errors="raise") == 0.5 and math.isnan(e.eval(x=0.0, y=1.0,
                                                                               errors="nan"))
    g = e.gradient(XY)
    with pytest.raises(oxel.EvaluationError) as info:
        g.eval(x=np.ones(2), y=np.array([1.0, 1e-300]), errors="raise")
    # d/dy = -1/(y*y): y*y underflows to 0 at 1e-300
    assert (info.value.output, info.value.index, info.value.code) == \
        (2, 1, oxel.Error.DIVISION_BY_ZERO)


# ------------------------------------------------------------------ the gradient's shapes

def test_split_gives_value_gradient_and_full_hessian():
    e = oxel.Expression("x*x*y + exp(x*z) - y*z")
    names = ["x", "y", "z"]
    g2, g1 = e.gradient(names, 2), e.gradient(names)
    point = {"x": 0.5, "y": -2.0, "z": 1.5}
    value, grad, hess = g2.split(g2.eval(point, errors="raise"))
    assert value.shape == () and grad.shape == (3,) and hess.shape == (3, 3)
    assert value == e.eval(point)[0]
    assert grad.tolist() == [e.derivative(n).eval(point)[0] for n in names]
    assert hess.tolist() == [[e.derivative(a).derivative(b).eval(point)[0] for b in names]
                             for a in names]
    assert g1.split(g1.eval(point)[0])[2] is None
    rows = {"x": np.linspace(0, 1, 4).reshape(2, 2), "y": 2.0, "z": np.ones((2, 2))}
    value, grad, hess = g2.split(g2.eval(rows, errors="raise"))
    assert value.shape == (2, 2) and grad.shape == (3, 2, 2) and hess.shape == (3, 3, 2, 2)
    assert np.array_equal(hess, hess.transpose(1, 0, 2, 3))
    assert np.array_equal(hess[0, 2], e.derivative("x").derivative("z").eval(rows)[0])
    with pytest.raises(ValueError, match="takes the 10 outputs"):
        g2.split(np.zeros(4))


def test_scipy_minimize_with_jac_and_hess():
    optimize = pytest.importorskip("scipy.optimize")
    names = ["x%d" % i for i in range(5)]
    f = oxel.Expression(" + ".join("100*(x%d - x%d*x%d)*(x%d - x%d*x%d) + (1 - x%d)*(1 - x%d)"
                                   % ((i + 1, i, i) * 2 + (i, i)) for i in range(4)),
                        variables=names)
    g = f.gradient(names, order=2)

    def parts(x):
        return g.split(g.eval(dict(zip(names, x)), errors="raise"))

    x0 = np.array([1.3, 0.7, 0.8, 1.9, 1.2])  # scipy's own example's start
    result = optimize.minimize(lambda x: parts(x)[0], x0, method="trust-exact",
                               jac=lambda x: parts(x)[1], hess=lambda x: parts(x)[2])
    assert result.success and np.allclose(result.x, 1.0, atol=1e-6)
    # The same iterates as with scipy's own Rosenbrock derivatives.
    own = optimize.minimize(optimize.rosen, x0, method="trust-exact", jac=optimize.rosen_der,
                            hess=optimize.rosen_hess)
    assert result.nit == own.nit and np.allclose(result.x, own.x, rtol=0, atol=1e-12)


def test_readme_example_runs():
    # The README's Rosenbrock is written with pow(), as users write it.
    pytest.importorskip("scipy.optimize")
    readme = open(os.path.join(HERE, "..", "..", "README.md")).read()
    block = re.search(r"```python\n(# scipy.optimize.*?)```", readme, re.S).group(1)
    scope = {}
    exec(block, scope)
    assert np.allclose(scope["result"].x, 1.0, atol=1e-6)


# ------------------------------------------------------------------ what the module shows

def test_repr_reads_back():
    for e in (oxel.Expression("x * 2 + 1"),
              oxel.Expression("s/y", variables=XY, aliases={"s": "x"}),
              oxel.Expression("sin(x)*y").derivative("x")):
        copy = eval(repr(e), {"oxel": oxel})
        xs = np.linspace(-2, 2, 7)
        assert copy.variables == e.variables and copy.aliases == e.aliases
        values = {"x": xs, "y": 0.5}
        assert np.array_equal(bits(copy.eval(values)[0]), bits(e.eval(values)[0]))
    assert repr(oxel.Expression("x * 2 + 1")) == "oxel.Expression('x * 2 + 1', variables=['x'])"
    g = oxel.Expression("x*y").gradient(["y"], 2)
    assert repr(eval(repr(g), {"oxel": oxel})) == repr(g)


def test_docstrings_teach_by_examples_that_run():
    for cls in (oxel.Expression, oxel.Gradient):
        for name in [n for n in dir(cls) if not n.startswith("_")] + ["__init__"]:
            doc = getattr(cls, name).__doc__ if name != "__init__" else cls.__doc__
            assert doc and len(doc) > 20, (cls, name)
            if callable(getattr(cls, name)):
                assert ">>>" in doc, (cls, name)
    finder, runner = doctest.DocTestFinder(), doctest.DocTestRunner()
    for obj in (oxel.Expression, oxel.Gradient, oxel.set_num_threads, oxel.error_message):
        for test in finder.find(obj, globs={"oxel": oxel, "np": np}):
            runner.run(test)
    oxel.set_num_threads(0)
    assert runner.summarize(verbose=False).failed == 0


def test_version_threads_and_stubs():
    cmake = open(os.path.join(HERE, "..", "..", "CMakeLists.txt")).read()
    assert oxel.__version__ == re.search(r"project\(oxel VERSION ([0-9.]+)", cmake).group(1)
    e = oxel.Expression("sin(x)*cos(x) + sqrt(x)")
    x = np.linspace(-1, 5, 400_001)
    results = []
    for n in (1, 3, 0):
        oxel.set_num_threads(n)
        results.append(e.eval(x=x))
    assert oxel.get_num_threads() >= 1
    for values, codes in results[1:]:
        assert np.array_equal(bits(values), bits(results[0][0])) and np.array_equal(codes,
                                                                                   results[0][1])
    with pytest.raises(ValueError):
        oxel.set_num_threads(-1)
    stub = ast.parse(open(os.path.join(os.path.dirname(oxel.__file__), "_oxel.pyi")).read())
    declared = {n.name: n for n in stub.body if isinstance(n, (ast.ClassDef, ast.FunctionDef))}
    assert set(oxel.__all__) - {"__version__"} == set(declared)
    for cls in (oxel.Expression, oxel.Gradient):
        members = {n.name for n in declared[cls.__name__].body if isinstance(n, ast.FunctionDef)}
        assert {n for n in dir(cls) if not n.startswith("__")} <= members
    assert [m.name for m in oxel.Error] == [t.targets[0].id for t in declared["Error"].body
                                            if isinstance(t, ast.Assign)]


# ------------------------------------------------------------------ messages

# (text, the hint's words): the module passes the library's hint on (tests/hints_test.cpp has
# every kind); the declared names include the aliases given here.
HINTS = [
    ("x + q", "unknown name 'q' (declared: x, y, speed)"),
    ("x**2", "powers are written pow(a, b); ^ is exclusive or"),
    ("sin(x", "found the end of the formula"),
]


@pytest.mark.parametrize("text,hint", HINTS)
def test_parse_errors_carry_a_hint(text, hint):
    with pytest.raises(oxel.ParseError) as info:
        oxel.Expression(text, variables=XY, aliases={"speed": "y"})
    err = info.value
    assert err.hint.startswith(hint) and ("hint: " + err.hint) in str(err)
    assert str(err).startswith(err.message) and "$end" not in err.hint
