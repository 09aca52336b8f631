#!/usr/bin/env python3
# Writes the seed inputs of the fuzz targets into fuzz/corpus/<target>/ (rerun after editing).
import os
import random
import re

HERE = os.path.dirname(os.path.abspath(__file__))


def functions(table):
    """The spelled names of one function table of include/oxel/nodes.h, in row order."""
    with open(os.path.join(HERE, "..", "include", "oxel", "nodes.h")) as fh:
        text = fh.read()
    block = re.search(r"#define %s\(X\)(.*?)\n\n" % table, text, re.S).group(1)
    return re.findall(r'X\(\w+, \d+, \d+, "[^"]*", "([^"]*)", \w+, "[^"]*"\)', block)

UNARY = functions("OXEL_UNARY_FUNCTIONS")
BINARY = ["pow"] + functions("OXEL_BINARY_FUNCTIONS")
NO_RULE = ["gamma", "log1p", "logb", "log"]
INFIX = ["+", "-", "*", "/", "%", "<", ">", "<=", ">=", "==", "!=", "&&", "||", "|", "&", "^",
         "<<", ">>", "+=", "-=", "*=", "/=", "++", "--"]

def texts():
    out = []
    for f in UNARY:
        out.append(f"{f}(x*0.5+y)")
        out.append(f"diff({f}(x*y), x)")
    for f in BINARY:
        out.append(f"{f}(x, y+1)")
        out.append(f"diff({f}(x*x, y-x), x)")
    for f in NO_RULE:
        out.append(f"{f}(x)")
    for op in INFIX:
        out.append(f"x {op} y")
        out.append(f"(x{op}2){op}(z{op}speed)")
    out += [
        "-x", "- - 3", "--3", "!x", "!-x", "-x*y", "!x+y", "a != b", "x < y < z",
        "1 + a = 2 * 3", "a = b = 1", "sin(a = 1)", "(a = 1) + 2", "speed = 4; speed * x",
        "x = 2; x * 3", "t = x; u = t * t; diff(u, x)", "a;", ";a", "a;;b", "1;+", "+;1",
        "", " ", ";", "q", "1 )", "sin 1", "gauss(1", "max(1)", "diff(x, 2)", "diff(sin(x), x)",
        "gauss()", "rand()", "gauss() + rand() * x", "diff(rand(), x)", "diff(gauss(), x)",
        "{a{b}c}", "1 + {x", "{;}", "}", "0x1F", "0x1F+2", "0xFF + 1", "0xAB", "0XFF", "0x",
        "0x_aF_9", "1e5", "1.e5", "1.E-5", "2E+7", ".5", "3..4", "1.2.3", "1e", "1.5E", "007",
        "1e308 * 10", "-1e308 - 1e308", "1e400", "1e-400", "123456789012345678901234567890.5",
        "x / 0", "x % 0", "pow(-8, 1/3)", "sqrt(-1)", "ln(0)", "asin(2)", "acosh(0)",
        "atanh(1)", "fmod(1, 0)", "drem(1, 0)", "atan2(0, 0)", "exp(1000)", "sinh(1000)",
        "expm1(1000)", "1 << 40", "-1 >> 3", "7 & 3 | 8 ^ 1", "1e20 | 1", "jn(2, x)", "yn(-1, 0)",
        "a ? b : c", "x $ y", "x # y", "x @ y", "x \\ y", "x ` y", "x ~ y", "x ' y", "x \" y",
        "x\ty\n+z", "x\x01+\x7f y\xff\xc3\xa9", "x1 + _ + a_1 + A9 + 9a", "sinx + sin2 + Sin",
        "pi * e", "x = x + 1; x = x * 2; x",
        "max(min(x, y), z) * sgn(x - y) + abs(z)",
        "(x - y) - z + x - (y - z)", "x * y + z", "(x + y) * z", "pow(x, sin(y))",
    ]
    # Long names: beyond the 999-character name ring of the lexer.
    out.append("a" * 1200 + " = 1")
    out.append("x + " + "b" * 1500)
    out.append("; ".join(f"{c * 400} = {i}" for i, c in enumerate("pqrst")) + "; p")
    # Deep nesting, near and beyond the parser's stack limit.
    for d in (50, 1000, 4990, 5010, 9000):
        out.append("(" * d + "x" + ")" * d)
    out.append("sin(" * 1000 + "x" + ")" * 1000)
    out.append("sin(" * 3000 + "x" + ")" * 3000)
    out.append("- " * 3000 + "x")
    out.append("!" * 6000 + "x")
    out.append("x" + "+x" * 4000)
    out.append("x" + "*x" * 300)
    out.append("exp(" * 200 + "x" + ")" * 200)
    # Statements longer than the 8192-character input chunk.
    out.append("1" + "+1" * 4600)
    out.append("x" + "+y*2" * 2100)
    out.append("12345" + "+12345" * 1400)
    out.append("a = 1" + "+a" * 4200 + "; a")
    out.append(";".join(["x"] * 3000))
    return out

def depvar_texts():
    return [
        "f", "f[1]", "f[2] + f", "f[3]", "f[0]()", "f[0](x, y)", "f[1](x*y, sin(y))",
        "f[0](x)", "f[0](x, y, z)", "g", "g[0](x * x)", "g[1](x)", "h", "h[0]", "h[1](x, y, z)",
        "h[2](x, y, z)", "h[0](x)", "u", "u = 2; u", "f[x]", "f[1+1]", "f(x)",
        "f[0](1,2,3,4,5,6,7)", "diff(f[0](x*y, y), x)", "diff(diff(f[1](x, y), x), y)",
        "diff(diff(diff(f[0](x, y), x), x), x)", "diff(g[0](sin(x)), x)",
        "h[1](x, diff(diff(g[0](x), x), x), y)", "diff(h[1](x, y, x*x), x)",
        "speed * f[2](speed, z)", "f[0](f[1](x, y), g[0](z))", "x = f; x",
    ]

def write(target, items):
    d = os.path.join(HERE, "corpus", target)
    os.makedirs(d, exist_ok=True)
    for old in os.listdir(d):
        os.remove(os.path.join(d, old))
    for i, t in enumerate(items):
        data = t if isinstance(t, bytes) else t.encode("latin-1")
        with open(os.path.join(d, f"seed-{i:03d}"), "wb") as fh:
            fh.write(data)

def main():
    common = texts()
    write("expression_fuzz", common)
    write("converter_fuzz", common + depvar_texts())
    rng = random.Random(7)
    tables = [bytes(rng.randrange(256) for _ in range(n)) for n in (8, 64, 256, 1024, 4096)]
    tables.append(bytes([0, 2, 0x61] * 40 + [12]))          # many inserts of short keys, check
    tables.append(bytes([0, 3, 0, 1, 1, 1, 255, 1, 12, 6, 8, 13]))  # long keys, copies, assign
    write("hashtable_fuzz", tables)

if __name__ == "__main__":
    main()
