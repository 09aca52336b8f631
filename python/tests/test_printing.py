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
