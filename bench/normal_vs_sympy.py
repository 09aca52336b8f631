#!/usr/bin/env python3
"""Printed length of oxel's normalized derivatives against SymPy's automatic form.

For each formula of x and y: the first derivatives by x and y and the second derivatives
(xx, xy, yy), printed by oxel (normalize(derivative(...)), each order taken of the printed
form before it, as `oxel diff --simplify` run twice does) and by SymPy (`diff`, printed in
the formula language with pow() for powers). Lengths ignore whitespace. Every oxel result
must agree with SymPy's value within 1e-10 relative at a few points.

    PYTHONPATH=build/python python3 bench/normal_vs_sympy.py [--verbose]
"""
import math
import statistics
import sys

import sympy
from sympy.printing.str import StrPrinter

import oxel

FORMULAS = [
    "sqrt(x*x + y*y)*(1 + exp(-x*y))",
    "sin(x)*cos(y)",
    "exp(-x*x - y*y)",
    "x*y/(x + y)",
    "ln(x*x + y*y)",
    "pow(x, 3)*y - x*pow(y, 2)",
    "sin(x*y)/x",
    "exp(x)*sin(y) + cos(x*y)",
    "tanh(x - y)",
    "sqrt(1 + x*x)/y",
    "pow(x, y)",
    "x*exp(-y/x)",
    "cosh(x)*sinh(y)",
    "ln(1 + exp(x*y))",
    "(x*x - y*y)/(x*x + y*y)",
    "erf(x*y)",
    "asin(x/4)*y",
    "tan(x + y*y)",
    "1/sqrt(x*x + y*y + 1)",
    "x*ln(y) + y*ln(x)",
    "sin(x)*sin(x) + cos(y)*cos(y)",
    "exp(sin(x))*cos(y)",
    "log10(x*y)",
    "cbrt(x*x + y)",
    "pow(sin(x), 2)*exp(y)",
    "asinh(x*y)",
    "x/(1 + x*x + y*y)",
    "pow(x*x + y*y, 1.5)",
]

POINTS = [(0.7, 1.3), (1.9, 0.4), (2.5, 2.2)]

x, y = sympy.symbols("x y")
SYMPY_NAMES = {"ln": sympy.log, "log10": lambda u: sympy.log(u, 10), "sqrt": sympy.sqrt,
               "cbrt": lambda u: sympy.root(u, 3), "pow": sympy.Pow, "abs": sympy.Abs,
               "erf": sympy.erf, "asin": sympy.asin, "asinh": sympy.asinh, "x": x, "y": y}


class OxelLanguage(StrPrinter):
    """SymPy expressions in the formula language: pow() for powers, the language's names."""

    def _print_Pow(self, e, rational=False):
        b, p = e.as_base_exp()
        if p == sympy.S.Half:
            return "sqrt(%s)" % self._print(b)
        if p == -1:
            return "1/%s" % self.parenthesize(b, 60)
        if p == -sympy.S.Half:
            return "1/sqrt(%s)" % self._print(b)
        return "pow(%s, %s)" % (self._print(b), self._print(p))

    def _print_Function(self, e):
        names = {"log": "ln", "Abs": "abs", "sign": "sgn"}
        name = names.get(e.func.__name__, e.func.__name__)
        return "%s(%s)" % (name, ", ".join(self._print(a) for a in e.args))

    def _print_Exp1(self, e):
        return "exp(1)"

    def _print_Pi(self, e):
        return repr(math.pi)

    def _print_Float(self, e):
        return repr(float(e))


def printed_sympy(e):
    return OxelLanguage().doprint(e)


def length(text):
    return sum(1 for c in text if not c.isspace())


def to_sympy(text):
    return sympy.sympify(text.replace("pow(", "pow("), locals=SYMPY_NAMES)


def value(expr, px, py):
    return expr.eval(x=px, y=py)[0]


def main():
    verbose = "--verbose" in sys.argv
    ratios = {"first": [], "second": []}
    failures = []
    for text in FORMULAS:
        f = oxel.Expression(text, variables=["x", "y"])
        s = to_sympy(text)
        orders = [("first", ("x",)), ("first", ("y",)), ("second", ("x", "x")),
                  ("second", ("x", "y")), ("second", ("y", "y"))]
        for order, by in orders:
            ours = f
            for v in by:
                ours = oxel.Expression(ours.derivative(v).normalized().to_formula(),
                                       variables=["x", "y"])
            theirs = sympy.diff(s, *[sympy.Symbol(v) for v in by])
            ours_text = ours.to_formula()
            theirs_text = printed_sympy(theirs)
            # The printed SymPy form must itself be a formula of the language.
            check = oxel.Expression(theirs_text, variables=["x", "y"])
            for px, py in POINTS:
                want = float(theirs.subs({x: px, y: py}).evalf(30))
                got = value(ours, px, py)
                back = value(check, px, py)
                for name, v in (("oxel", got), ("sympy text", back)):
                    if not abs(v - want) <= 1e-10 * max(1.0, abs(want)):
                        failures.append("%s d/%s: %s %.17g, sympy %.17g" % (text, "".join(by), name, v, want))
            r = length(ours_text) / length(theirs_text)
            ratios[order].append((r, text, "".join(by)))
            if verbose:
                print("%-34s d%-2s %5.2f\n    oxel : %s\n    sympy: %s" % (text, "".join(by), r, ours_text, theirs_text))
    for order in ("first", "second"):
        rs = sorted(ratios[order])
        worst = rs[-1]
        print("%-6s derivatives: %3d, length ratio oxel/sympy median %.2f, worst %.2f (%s by %s)"
              % (order, len(rs), statistics.median(r for r, _, _ in rs), worst[0], worst[1], worst[2]))
    for f in failures:
        print("VALUE MISMATCH", f)
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
