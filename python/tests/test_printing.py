"""The normal form, C and LaTeX from Python; LaTeX rendered by matplotlib where it is installed."""
import math

import pytest

import oxel

XY = ["x", "y"]


@pytest.mark.parametrize("a, b", [("x*y + y*x", "2*y*x"), ("pow(x, 1)*3 - x", "2*x")])
def test_normalized_is_canonical_and_keeps_values(a, b):
    na, nb = (oxel.Expression(t, variables=XY).normalized() for t in (a, b))
    assert na.to_formula() == nb.to_formula()
    for x, y in [(0.5, -2.0), (3.0, 1.25)]:
        assert math.isclose(na.eval(x=x, y=y)[0], oxel.Expression(a, variables=XY).eval(x=x, y=y)[0])


def test_to_c_and_latex():
    e = oxel.Expression("sqrt(x)/2 + sgn(y)", variables=XY)
    assert e.to_c() == "sqrt(x) / 2.0 + (y > 0 ? 1.0 : y < 0 ? -1.0 : 0.0)"
    assert e._repr_latex_() == "$" + e.to_latex() + "$"
    assert oxel.Expression("gauss()", variables=XY).to_c() == ""


# Derivatives of the language's functions and operators, typeset and rendered by mathtext.
@pytest.mark.parametrize("text", [
    "sqrt(x*x + y*y)*(1 + exp(-x*y))", "ln(x)/log10(y) - pow(x, y)", "abs(x) + ceil(y) + floor(x)",
    "cbrt(x) % 2 + (x < y) + (x != y) + !(x && y || x)", "(x | 3) & (y ^ 2) << 1 >> 2",
    "erf(x)*asinh(y)*j0(x)*atan2(x, y)*max(x, y)", "1e-20*x + 1e300 + t = x; t*2"])
def test_latex_renders_in_mathtext(text):
    mathtext = pytest.importorskip("matplotlib.mathtext")
    from matplotlib.font_manager import FontProperties
    parser = mathtext.MathTextParser("path")
    e = oxel.Expression(text, variables=XY)
    for form in (e, e.derivative("x").normalized() if e.derivative("x") else e):
        latex = form._repr_latex_()
        parser.parse(latex, prop=FontProperties())  # raises on what mathtext cannot set


def test_huge_formulas_work_in_every_operation():
    """A sum of 10^6 terms and 10^5 nested calls: deeper than any stack, printed or refused."""
    n = 500_000
    flat = oxel.Expression("+".join(["x", "y"] * n), variables=XY)
    spaced = " + ".join(["x", "y"] * n)
    assert flat.to_formula() == flat.to_c() == flat.to_latex() == spaced
    for form in (flat.normalized(), flat.simplified(), flat.derivative("y")):
        assert form.eval(x=0.25, y=0.5)[0] in (0.75 * n, n)
    assert list(flat.gradient(XY).eval(x=0.25, y=0.5)[0]) == [0.75 * n, n, n]
    levels = 100_000
    deep = oxel.Expression("sin(" * levels + "x" + ")" * levels, variables=XY)
    assert deep.to_c() == deep.to_formula() == "sin(" * levels + "x" + ")" * levels
    assert deep.to_latex() == "\\sin\\left(" * levels + "x" + "\\right)" * levels
    assert deep.normalized().to_formula() == deep.to_formula()
    assert deep.derivative("x") is None  # too large a tree; the gradient's derivatives share
    out, err = deep.gradient(XY).eval(x=0.25, y=0.5)
    s, slope = 0.25, 1.0
    for _ in range(levels):
        s, slope = math.sin(s), slope * math.cos(s)
    assert not err.any() and list(out) == pytest.approx([s, slope, 0.0], rel=1e-9)
