// Tests of the one-argument function nodes against the C mathematical library.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <string>
#include <typeinfo>
#include <vector>

#include "node_probe.h"

static const double kNaN = NAN, kInf = INFINITY, kInt64Min = -9223372036854775808.0;
// Keeps the compiler from folding cbrt(27) to the exact 3 that the library misses by an ulp.
static volatile double kTwentySeven = 27;

// Code, symbol and priority 3 of every one-argument function; inside its domain each one is
// exactly its library function (sgn has none to compare with).
TEST(Functions, TableAndLibraryAgreement)
{
    const struct { Make1 make; int id; const char* sym; double (*ref)(double); double lo, hi; }
    rows[] = {
        {op1<OxSinus>, 34054, "sin", sin, -10, 10}, {op1<OxCosinus>, 34055, "cos", cos, -10, 10},
        {op1<OxTangens>, 34056, "tan", tan, -1.5, 1.5}, {op1<OxSgn>, 34114, "sgn", nullptr, 0, 0},
        {op1<OxSqroot>, 34057, "sqr", sqrt, 0, 1e6},  // not "sqrt"
        {op1<OxLn>, 34058, "OxLn", log, 1e-9, 1e9},   // the class name, kept so
        {op1<OxBetrag>, 0, "abs", fabs, -1e3, 1e3},   // code 0 like the base
        {op1<OxArctan>, 34061, "atan", atan, -50, 50}, {op1<OxArcsin>, 34062, "asin", asin, -1, 1},
        {op1<OxArccos>, 34063, "acos", acos, -1, 1}, {op1<OxExp>, 34064, "exp", exp, -700, 709.7},
        {op1<OxErf>, 34065, "erf", erf, -4, 4}, {op1<OxErfc>, 34066, "erfc", erfc, -4, 10},
        {op1<OxArccosh>, 34085, "acosh", acosh, 1, 1e4}, {op1<OxY1>, 34110, "y1", y1, 1e-3, 30},
        {op1<OxArcsinh>, 34086, "asinh", asinh, -1e4, 1e4}, {op1<OxJ1>, 34100, "j1", j1, -30, 30},
        {op1<OxArctanh>, 34088, "atanh", atanh, -0.99, 0.99}, {op1<OxJ0>, 34099, "j0", j0, -30, 30},
        {op1<OxCbroot>, 34089, "cbrt", cbrt, 0, 1e6}, {op1<OxCeil>, 34090, "ceil", ceil, -1e6, 1e6},
        {op1<OxCosh>, 34092, "cosh", cosh, -700, 700}, {op1<OxExpm1>, 34094, "expm1", expm1, -5, 5},
        {op1<OxLog10>, 34102, "log10", log10, 1e-9, 1e9}, {op1<OxY0>, 34109, "y0", y0, 1e-3, 30},
        {op1<OxFloor>, 34095, "floor", floor, -1e6, 1e6},
        {op1<OxTanh>, 34107, "tanh", tanh, -20, 20},
        {op1<OxRint>, 34105, "rint", nearbyint, -1e15, 1e15},
        {op1<OxSinh>, 34106, "sinh", sinh, -700, 709.7},
        {op1<OxTrunc>, 34108, "trunc", trunc, -1e15, 1e15},
    };
    std::mt19937 gen(2024);
    for (const auto& r : rows) {
        Oxel* node = r.make(V("x"));
        EXPECT_EQ(r.id, node->identify()) << r.sym;
        EXPECT_EQ(3, node->priority()) << r.sym;
        EXPECT_STREQ(r.sym, node->symbol());
        Oxel* copy = node->dup();  // deep: same class, new argument
        EXPECT_EQ(typeid(*node), typeid(*copy)) << r.sym;
        EXPECT_NE(node->getChild(0), copy->getChild(0)) << r.sym;
        delete copy;
        delete node;
        std::uniform_real_distribution<double> dist(r.lo, r.hi);
        for (int i = 0; r.ref && i < 200; ++i) {
            double v = dist(gen);
            int err = 0;
            EXPECT_TRUE(sameBits(r.ref(v), evalTree(r.make(N(v)), err))) << r.sym << " " << v;
            EXPECT_EQ(0, err) << r.sym << "(" << v << ")";
        }
    }
}

TEST(Functions, GuardsAndSpecialArguments)
{
    const struct { Make1 make; double v, value; int err; } rows[] = {
        {op1<OxLn>, 0, 0, 11}, {op1<OxLn>, kNaN, 0, 11},  // only v > 0 passes
        {op1<OxSqroot>, -4, 0, 12}, {op1<OxSqroot>, -0.0, -0.0, 0},  // only v < 0 fires
        {op1<OxSqroot>, kNaN, kNaN, 0}, {op1<OxArcsin>, 1.0000001, 0, 14},
        {op1<OxArccos>, -2, 0, 14}, {op1<OxArcsin>, kNaN, 0, 14},
        {op1<OxExp>, 709.72, 1, 9},  // below log(DBL_MAX), kept so
        {op1<OxExp>, 709.71, std::exp(709.71), 0}, {op1<OxExp>, kNaN, kNaN, 0},
        {op1<OxBetrag>, -0.0, 0.0, 0},  // the sign bit is cleared
        {op1<OxSgn>, 2.5, 1, 0}, {op1<OxSgn>, -2, -1, 0},
        {op1<OxSgn>, -0.0, 0, 0}, {op1<OxSgn>, kNaN, 0, 0},  // plain zero for either sign
        {op1<OxTrunc>, 1e19, kInt64Min, 0},  // beyond int64
        {op1<OxRint>, 2.5, 2, 0}, {op1<OxRint>, 3.5, 4, 0},  // ties to even
        {op1<OxRint>, kNaN, kInt64Min, 0},
        {op1<OxCbroot>, -27, -::cbrt(kTwentySeven), 0},  // the magnitude's root, sign restored
        {op1<OxArccosh>, 0.5, 0, 14}, {op1<OxArccosh>, 1, 0, 0},
        {op1<OxArccosh>, kNaN, kNaN, 0},  // NaN passes here
        {op1<OxArctanh>, 1, 0, 14}, {op1<OxArctanh>, -1, 0, 14},
        {op1<OxLog10>, 0, 0, 11}, {op1<OxLog10>, kNaN, 0, 11},
        {op1<OxSinh>, 710, 1, 9}, {op1<OxExpm1>, 710, 1, 9},
        {op1<OxCosh>, 711, kInf, 0},  // no guard on cosh
        {op1<OxNot>, 1e-9, 1, 0}, {op1<OxNot>, 1e-8, 0, 0},  // the threshold is strict
        {op1<OxNot>, kNaN, 0, 0},  // false for the connectives, yet negated to 0
    };
    for (const auto& r : rows) {
        int err = 0;
        EXPECT_TRUE(sameBits(r.value, evalTree(r.make(N(r.v)), err))) << "row " << &r - rows;
        EXPECT_EQ(r.err, err) << "row " << &r - rows;
    }
}

// Every function of the table, by the name the library lists: it parses with its argument
// count and no other, writes back as it was read, is no variable name, and its derivative
// (where it has one) agrees with a central difference in each argument.
TEST(Functions, EveryTableFunctionReadsWritesAndDifferentiates)
{
    const double h = 1e-5;
    for (int arity : {1, 2}) {
        // atan's derivative is deliberately not the textbook one and hypot is too coarse for
        // a difference quotient; both have rows of their own in algebra_test.cpp.
        for (const std::string& f : functionNames(arity, {"atan", "hypot"})) {
            const std::string wrong = f + (arity == 1 ? "(x, y)" : "(x)");
            KxDArray<KxString> names;
            names.append(KxString("x"));
            names.append(KxString("y"));
            std::vector<char> text(wrong.begin(), wrong.end());
            text.push_back('\0');
            EXPECT_EQ(nullptr, OxConverter::strToOxel(text.data(), names, 0, nullptr)) << wrong;
            KxDArray<KxString> found;  // the longest match makes a longer word a name
            EXPECT_EQ(1, oxelFormulaNames((f + "x").c_str(), found)) << f;
            OxVar named(0, f.c_str());
            EXPECT_STREQ("", oxelToFormula(&named).c_str()) << f;
            for (const char* form : {"(x, 1.3)", "(1.3, x)", "(x)"}) {
                std::string formula = f + form;
                if (std::count(formula.begin(), formula.end(), ',') != arity - 1)
                    continue;
                text.assign(formula.begin(), formula.end());
                text.push_back('\0');
                Oxel* tree = OxConverter::strToOxel(text.data(), names, 0, nullptr);
                ASSERT_NE(nullptr, tree) << formula;
                EXPECT_EQ(std::string(oxelToFormula(tree).c_str()), formula);
                Oxel* d = tree->diff("x");  // null for the functions that refuse
                for (double x : {0.35, 0.8, 1.7, 2.6}) {
                    double lo[] = {x - h, 0}, hi[] = {x + h, 0}, at[] = {x, 0};
                    int err = 0;
                    double slope = (tree->value(hi, err) - tree->value(lo, err)) / (2 * h);
                    double got = d ? d->value(at, err) : 0;
                    if (d && err == 0) {
                        EXPECT_NEAR(slope, got, 1e-6 * (1 + std::fabs(slope)))
                            << formula << " at " << x;
                    }
                }
                delete d;
                delete tree;
            }
        }
    }
}
