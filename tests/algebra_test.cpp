// Tests of simplification and symbolic derivatives on hand-built trees.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <oxel/expression.h>
#include <oxel/nodes.h>

namespace {

using Tree = std::unique_ptr<Oxel>;
using Build = std::function<Oxel*()>;

// Variables x, y, z live in slots 0, 1, 2.
Oxel* X() { return new OxVar(0, "x"); }
Oxel* Y() { return new OxVar(1, "y"); }
Oxel* Z() { return new OxVar(2, "z"); }
Oxel* N(double c) { return new OxZahl(c); }
Oxel* Add(Oxel* a, Oxel* b) { return new OxPlus(a, b); }
Oxel* Sub(Oxel* a, Oxel* b) { return new OxMinus(a, b); }
Oxel* Mul(Oxel* a, Oxel* b) { return new OxMal(a, b); }
Oxel* Div(Oxel* a, Oxel* b) { return new OxDurch(a, b); }
Oxel* Pow(Oxel* a, Oxel* b) { return new OxHoch(a, b); }
Oxel* Mod(Oxel* a, Oxel* b) { return new OxModulo(a, b); }

std::string text(Oxel* t) { return t ? oxelToString(t) : std::string("<null>"); }

// Value of a tree at x (y = 0.75, z = -1.5), with the error code it raised.
double at(Oxel* t, double x, int* err = nullptr)
{
    double vars[4] = {x, 0.75, -1.5, 0.0};
    int e = 0;
    double v = t->value(vars, e);
    if (err)
        *err = e;
    return v;
}

double centralDifference(Oxel* t, double x)
{
    const double h = 1e-5;
    return (at(t, x + h) - at(t, x - h)) / (2 * h);
}

// ---------------------------------------------------------------- derivative trees

struct TreeRow {
    const char* what;
    Build build;
    const char* var;
    const char* expected;  // nullptr: no derivative
};

void checkTrees(const std::vector<TreeRow>& rows)
{
    for (const TreeRow& r : rows) {
        Tree t(r.build());
        std::string before = text(t.get());
        Tree d(t->diff(r.var));
        if (r.expected == nullptr)
            EXPECT_EQ(nullptr, d.get()) << r.what << " gave " << text(d.get());
        else
            EXPECT_EQ(std::string(r.expected), text(d.get())) << r.what;
        EXPECT_EQ(before, text(t.get())) << r.what << ": receiver changed";
    }
}

TEST(Derivative, LeavesAndOperators)
{
    checkTrees({
        {"3", [] { return N(3); }, "x", "0"},
        {"x", [] { return X(); }, "x", "1"},
        {"y", [] { return Y(); }, "x", "0"},
        {"names are case-sensitive", [] { return X(); }, "X", "0"},
        {"x+y: only the dependent side", [] { return Add(X(), Y()); }, "x", "1"},
        {"y+x", [] { return Add(Y(), X()); }, "x", "1"},
        {"x+x", [] { return Add(X(), X()); }, "x", "1+1"},
        {"y-x: zero minus v'", [] { return Sub(Y(), X()); }, "x", "0-1"},
        {"x-y", [] { return Sub(X(), Y()); }, "x", "1"},
        {"x-x", [] { return Sub(X(), X()); }, "x", "1-1"},
        {"y-z: both independent takes the first column", [] { return Sub(Y(), Z()); }, "x",
         "0-0"},
        {"x*x: product rule, unsimplified", [] { return Mul(X(), X()); }, "x", "1*x+x*1"},
        {"x*y by y", [] { return Mul(X(), Y()); }, "y", "x*1"},
        {"x*y by x", [] { return Mul(X(), Y()); }, "x", "1*y"},
        {"2/x", [] { return Div(N(2), X()); }, "x", "((-1)*(2*1))/(x*x)"},
        {"x/y", [] { return Div(X(), Y()); }, "x", "1/y"},
        {"x/x: quotient rule", [] { return Div(X(), X()); }, "x", "(1*x-x*1)/(x*x)"},
        {"rand(): a copy of itself", [] { return new OxRand(); }, "x", "rand()"},
        {"x%2", [] { return Mod(X(), N(2)); }, "x", nullptr},
        {"y%2 refuses whatever the variable", [] { return Mod(Y(), N(2)); }, "x", nullptr},
        {"x + y%2: the independent remainder is never asked", [] {
             return Add(X(), Mod(Y(), N(2)));
         }, "x", "1"},
        {"x&1", [] { return new OxBitAnd(X(), N(1)); }, "x", nullptr},
        {"x|1", [] { return new OxBitOr(X(), N(1)); }, "x", nullptr},
        {"x^1 as xor", [] { return new OxBitXOr(X(), N(1)); }, "x", nullptr},
        {"x<<1", [] { return new OxShiftLeft(X(), N(1)); }, "x", nullptr},
        {"x>>1", [] { return new OxShiftRight(X(), N(1)); }, "x", nullptr},
        {"branch", [] { return new OxBranch(X(), Y()); }, "x", nullptr},
        {"branch independent of var", [] { return new OxBranch(Y(), N(1)); }, "x", nullptr},
    });
}

TEST(Derivative, AssignedVariableDifferentiatesToOne)
{
    // a = x*x: the rule does not go through the bound expression
    Tree a(new OxVar(3, "a", Mul(X(), X())));
    Tree dx(a->diff("x"));
    EXPECT_EQ("1", text(dx.get()));
    Tree da(a->diff("a"));
    EXPECT_EQ("1", text(da.get()));
    Tree dy(a->diff("y"));
    EXPECT_EQ("0", text(dy.get()));
    EXPECT_EQ(1, a->getNumChildren()) << "receiver lost its assignment";
}

TEST(Derivative, PowerCases)
{
    checkTrees({
        {"x^3: factor u' = 1 left out", [] { return Pow(X(), N(3)); }, "x", "3*x^2"},
        {"x^1: no factor at all", [] { return Pow(X(), N(1)); }, "x", "x^0"},
        {"x^(1+2): numeric exponent is evaluated", [] { return Pow(X(), Add(N(1), N(2))); }, "x",
         "(1+2)*x^2"},
        {"x^0.5", [] { return Pow(X(), N(0.5)); }, "x", "0.5*x^(-0.5)"},
        {"x^y: symbolic exponent", [] { return Pow(X(), Y()); }, "x", "y*x^(y-1)"},
        {"(2*x)^3: u' = 2*1 is not one", [] { return Pow(Mul(N(2), X()), N(3)); }, "x",
         "(2*1)*(3*(2*x)^2)"},
        {"2^x", [] { return Pow(N(2), X()); }, "x", "2^x*OxLn(2)"},
        {"y^x", [] { return Pow(Y(), X()); }, "x", "y^x*OxLn(y)"},
        {"2^(3*x)", [] { return Pow(N(2), Mul(N(3), X())); }, "x", "2^(3*x)*(OxLn(2)*(3*1))"},
        {"y^2: both independent, still the exponential rule", [] { return Pow(Y(), N(2)); },
         "x", "y^2*(OxLn(y)*0)"},
        {"x^x", [] { return Pow(X(), X()); }, "x", "x^x*OxLn(x)+x*x^(x-1)"},
        {"x^(2*x)", [] { return Pow(X(), Mul(N(2), X())); }, "x",
         "x^(2*x)*(OxLn(x)*(2*1))+(2*x)*x^(2*x-1)"},
        {"x^(x%2): exponent refuses", [] { return Pow(X(), Mod(X(), N(2))); }, "x", nullptr},
        {"(x%2)^2: base refuses", [] { return Pow(Mod(X(), N(2)), N(2)); }, "x", nullptr},
        {"2^(x%2)", [] { return Pow(N(2), Mod(X(), N(2))); }, "x", nullptr},
    });
}

// A refusing operand makes the whole derivative null; derivatives already built are released
// (the leak checkers watch this test).
TEST(Derivative, NullPropagatesThroughOperators)
{
    auto rem = [] { return Mod(X(), N(2)); };
    checkTrees({
        {"(x%2)+x", [&] { return Add(rem(), X()); }, "x", nullptr},
        {"x+(x%2)", [&] { return Add(X(), rem()); }, "x", nullptr},
        {"x-(x%2)", [&] { return Sub(X(), rem()); }, "x", nullptr},
        {"(x%2)-x", [&] { return Sub(rem(), X()); }, "x", nullptr},
        {"y-(x%2)", [&] { return Sub(Y(), rem()); }, "x", nullptr},
        {"x*(x%2)", [&] { return Mul(X(), rem()); }, "x", nullptr},
        {"(x%2)*y", [&] { return Mul(rem(), Y()); }, "x", nullptr},
        {"2*(x%2)", [&] { return Mul(N(2), rem()); }, "x", nullptr},
        {"x/(x%2)", [&] { return Div(X(), rem()); }, "x", nullptr},
        {"(x%2)/y", [&] { return Div(rem(), Y()); }, "x", nullptr},
        {"2/(x%2)", [&] { return Div(N(2), rem()); }, "x", nullptr},
        {"sin(x%2)", [&] { return new OxSinus(rem()); }, "x", nullptr},
        {"hypot(x, x%2)", [&] { return new OxHypot(X(), rem()); }, "x", nullptr},
        {"max(x, x%2)", [&] { return new OxMax(X(), rem()); }, "x", nullptr},
        {"min(x%2, x)", [&] { return new OxMin(rem(), X()); }, "x", nullptr},
        {"atan2(x, x%2)", [&] { return new OxArctan2(X(), rem()); }, "x", nullptr},
        {"atan2(x%2, 2)", [&] { return new OxArctan2(rem(), N(2)); }, "x", nullptr},
        {"atan2(2, x%2)", [&] { return new OxArctan2(N(2), rem()); }, "x", nullptr},
        {"jn(2, x%2)", [&] { return new OxJn(N(2), rem()); }, "x", nullptr},
        {"ceil(x%2) never looks at its argument", [&] { return new OxCeil(rem()); }, "x", "0"},
    });
}

TEST(Derivative, OneArgumentFunctionTrees)
{
    auto f = [](Oxel* (*make)(Oxel*)) { return [make] { return make(X()); }; };
#define FN(Cls) f([](Oxel* u) -> Oxel* { return new Cls(u); })
    checkTrees({
        {"sin", FN(OxSinus), "x", "cos(x)*1"},
        {"sin(2): no independence test", [] { return new OxSinus(N(2)); }, "x", "cos(2)*0"},
        {"cos", FN(OxCosinus), "x", "((-1)*sin(x))*1"},
        {"tan", FN(OxTangens), "x", "(1/(cos(x))^2)*1"},
        {"exp: a copy of the node", FN(OxExp), "x", "exp(x)*1"},
        {"ln", FN(OxLn), "x", "1/x"},
        {"log10: ln 10 to ten decimals", FN(OxLog10), "x", "(1/(2.302585093*x))*1"},
        {"sqr", FN(OxSqroot), "x", "1/(2*sqr(x))"},
        {"cbrt", FN(OxCbroot), "x", "(1/(3*cbrt(x^2)))*1"},
        {"abs: u' first", FN(OxBetrag), "x", "1*(abs(x)/x)"},
        {"erf: 2/sqrt(pi)", FN(OxErf), "x", "1.1283791671*(exp((-1)*(x*x))*1)"},
        {"erfc: -2/sqrt(pi)", FN(OxErfc), "x", "(-1.1283791671)*(exp((-1)*(x*x))*1)"},
        {"asin", FN(OxArcsin), "x", "1/sqr(1-x*x)"},
        {"acos", FN(OxArccos), "x", "((-1)*1)/sqr(1-x*x)"},
        {"atan over 1-u*u", FN(OxArctan), "x", "1/(1-x*x)"},
        {"sinh", FN(OxSinh), "x", "cosh(x)*1"},
        {"cosh", FN(OxCosh), "x", "sinh(x)*1"},
        {"tanh", FN(OxTanh), "x", "1/(cosh(x))^2"},
        {"asinh", FN(OxArcsinh), "x", "(1/sqr(x*x+1))*1"},
        {"acosh", FN(OxArccosh), "x", "(1/sqr(x*x-1))*1"},
        {"atanh", FN(OxArctanh), "x", "(1/(1-x^2))*1"},
        {"expm1: (e^u-1)*u' + u'", FN(OxExpm1), "x", "expm1(x)*1+1"},
        {"j0", FN(OxJ0), "x", "((-1)*j1(x))*1"},
        {"y0", FN(OxY0), "x", "((-1)*y1(x))*1"},
        {"j1", FN(OxJ1), "x", "(0.5*(j0(x)-2jnx))*1"},
        {"y1", FN(OxY1), "x", "(0.5*(y0(x)-2ynx))*1"},
        {"sgn", FN(OxSgn), "x", "0"},
        {"ceil", FN(OxCeil), "x", "0"},
        {"floor", FN(OxFloor), "x", nullptr},
        {"rint", FN(OxRint), "x", nullptr},
        {"trunc", FN(OxTrunc), "x", nullptr},
        {"sin of a product: chain factor kept whole", [] { return new OxSinus(Mul(N(3), X())); },
         "x", "cos(3*x)*(3*1)"},
    });
#undef FN
}

TEST(Derivative, TwoArgumentFunctionTrees)
{
    checkTrees({
        {"jn(2, x)", [] { return new OxJn(N(2), X()); }, "x", "(0.5*((2-1)jnx-(2+1)jnx))*1"},
        {"jn(y, x): order free of x", [] { return new OxJn(Y(), X()); }, "x",
         "(0.5*((y-1)jnx-(y+1)jnx))*1"},
        {"jn(x, 2): order depends on x", [] { return new OxJn(X(), N(2)); }, "x", nullptr},
        {"yn(2, x)", [] { return new OxYn(N(2), X()); }, "x", "(0.5*((2-1)ynx-(2+1)ynx))*1"},
        {"yn(x, 2)", [] { return new OxYn(X(), N(2)); }, "x", nullptr},
        {"hypot(x, y)", [] { return new OxHypot(X(), Y()); }, "x", "(x*1+y*0)/xhypoty"},
        {"max(x, 2): indicator products", [] { return new OxMax(X(), N(2)); }, "x",
         "(xmax2)OXEL(x)*1+(xmax2)OXEL(2)*0"},
        {"min(x, y)", [] { return new OxMin(X(), Y()); }, "x",
         "(xminy)OXEL(x)*1+(xminy)OXEL(y)*0"},
        {"atan2(x, 2): b independent", [] { return new OxArctan2(X(), N(2)); }, "x",
         "1/(2+x^2/2)"},
        {"atan2(2, x): a independent", [] { return new OxArctan2(N(2), X()); }, "x",
         "((-1)*(2*1))/(2^2+x^2)"},
        {"atan2(x, x): extra a'*b' factor", [] { return new OxArctan2(X(), X()); }, "x",
         "((1*x-x*1)*(1*1))/(x^2+x^2)"},
        {"atan2(y, z): b independent is tested first", [] { return new OxArctan2(Y(), Z()); },
         "x", "0/(z+y^2/z)"},
        {"copysign", [] { return new OxCopysign(X(), N(1)); }, "x", nullptr},
        {"drem", [] { return new OxDrem(X(), N(1)); }, "x", nullptr},
        {"fmod", [] { return new OxFmod(X(), N(1)); }, "x", nullptr},
        {"fmod refuses whatever the variable", [] { return new OxFmod(Y(), N(1)); }, "x",
         nullptr},
    });
}

// Nodes without a rule of their own announce it and hand back a copy.
TEST(Derivative, BaseRuleAnnouncesAndCopies)
{
    struct Row {
        Build build;
        const char* printed;
        const char* copy;
    } rows[] = {
        {[] { return new OxLess(X(), Y()); }, "diff: Not yet implemented in OXEL.\n",
         "(x)OXEL(y)"},
        {[] { return new OxEqual(X(), N(1)); }, "diff: Not yet implemented in OXEL.\n",
         "(x)OXEL(1)"},
        {[] { return new OxAnd(X(), Y()); }, "diff: Not yet implemented in OXEL.\n",
         "(x)OXEL(y)"},
        {[] { return new OxNot(X()); }, "diff: Not yet implemented in OXEL.\n", "OXEL(x)"},
        {[] { return new OxGauss(); }, "diff: Not yet implemented in gauss.\n", ""},
    };
    for (const Row& r : rows) {
        Tree t(r.build());
        testing::internal::CaptureStdout();
        Tree d(t->diff("x"));
        std::string out = testing::internal::GetCapturedStdout();
        EXPECT_EQ(r.printed, out);
        ASSERT_NE(nullptr, d.get());
        EXPECT_NE(t.get(), d.get());
        EXPECT_EQ(t->identify(), d->identify());
        EXPECT_EQ(r.copy, text(d.get()));
    }
    // a comparison inside a sum is only asked when it depends on var
    Tree sum(Add(X(), new OxLess(Y(), N(1))));
    testing::internal::CaptureStdout();
    Tree d(sum->diff("x"));
    EXPECT_EQ("", testing::internal::GetCapturedStdout());
    EXPECT_EQ("1", text(d.get()));
}

// The derivative owns all its nodes: it outlives the receiver and vice versa.
TEST(Derivative, SharesNoNodeWithReceiver)
{
    Tree t(Add(Mul(new OxSinus(X()), Pow(X(), Y())), new OxHypot(X(), Div(N(1), X()))));
    Tree d(t->diff("x"));
    ASSERT_NE(nullptr, d.get());
    double expected = at(d.get(), 0.7);
    t.reset();
    EXPECT_DOUBLE_EQ(expected, at(d.get(), 0.7));
}

// ---------------------------------------------------------------- derivative values

// The inner argument 0.5*x + 0.25 makes every row exercise the chain factor as well.
Oxel* inner() { return Add(Mul(N(0.5), X()), N(0.25)); }

struct SlopeRow {
    const char* what;
    std::function<Oxel*(Oxel*)> make;  // builds f over the given argument tree
    std::vector<double> xs;
};

void checkSlopes(const std::vector<SlopeRow>& rows, std::function<Oxel*()> arg)
{
    for (const SlopeRow& r : rows) {
        Tree t(r.make(arg()));
        Tree d(t->diff("x"));
        ASSERT_NE(nullptr, d.get()) << r.what;
        for (double x : r.xs) {
            int err = 0;
            double got = at(d.get(), x, &err);
            double want = centralDifference(t.get(), x);
            EXPECT_EQ(0, err) << r.what << " at " << x;
            EXPECT_NEAR(want, got, 1e-6 * (1 + std::fabs(want))) << r.what << " at " << x;
        }
    }
}

TEST(DerivativeValue, OneArgumentFunctionsMatchFiniteDifferences)
{
#define F1(Cls) [](Oxel* u) -> Oxel* { return new Cls(u); }
    // u = 0.5x + 0.25: u in (-1, 1) for x in (-2.5, 1.5); u > 1 for x > 1.5
    checkSlopes(
        {
            {"sin", F1(OxSinus), {-2.0, 0.1, 1.3, 4.0}},
            {"cos", F1(OxCosinus), {-2.0, 0.1, 1.3, 4.0}},
            {"tan", F1(OxTangens), {-2.0, 0.1, 1.3}},
            {"exp", F1(OxExp), {-3.0, 0.0, 2.5}},
            {"ln", F1(OxLn), {0.1, 1.0, 7.0}},
            {"log10", F1(OxLog10), {0.1, 1.0, 7.0}},
            {"sqr", F1(OxSqroot), {0.1, 1.0, 7.0}},
            {"cbrt", F1(OxCbroot), {-3.0, 0.2, 7.0}},
            {"abs", F1(OxBetrag), {-3.0, 0.2, 7.0}},
            {"erf", F1(OxErf), {-3.0, -0.5, 0.2, 2.0}},
            {"erfc", F1(OxErfc), {-3.0, -0.5, 0.2, 2.0}},
            {"asin", F1(OxArcsin), {-2.0, -0.5, 0.3, 1.2}},
            {"acos", F1(OxArccos), {-2.0, -0.5, 0.3, 1.2}},
            {"sinh", F1(OxSinh), {-3.0, 0.0, 2.0}},
            {"cosh", F1(OxCosh), {-3.0, 0.0, 2.0}},
            {"tanh", F1(OxTanh), {-3.0, 0.0, 2.0}},
            {"asinh", F1(OxArcsinh), {-3.0, 0.0, 2.0}},
            {"acosh", F1(OxArccosh), {2.0, 3.5, 9.0}},
            {"atanh", F1(OxArctanh), {-2.0, -0.5, 0.3, 1.2}},
            {"expm1", F1(OxExpm1), {-3.0, -0.5, 0.0, 2.0}},
            {"j0", F1(OxJ0), {-3.0, 0.5, 4.0, 11.0}},
            {"j1", F1(OxJ1), {-3.0, 0.5, 4.0, 11.0}},
            {"y0", F1(OxY0), {0.5, 4.0, 11.0}},
            {"y1", F1(OxY1), {0.5, 4.0, 11.0}},
            {"sgn", F1(OxSgn), {-3.0, 2.0}},
            {"ceil", F1(OxCeil), {-3.3, 2.1}},
        },
        inner);
#undef F1
}

TEST(DerivativeValue, TwoArgumentFunctionsMatchFiniteDifferences)
{
    // y = 0.75 in every evaluation
    checkSlopes(
        {
            {"jn(3, u)", [](Oxel* u) -> Oxel* { return new OxJn(N(3), u); }, {-3.0, 1.0, 6.0}},
            {"jn(y, u)", [](Oxel* u) -> Oxel* { return new OxJn(Y(), u); }, {-3.0, 1.0, 6.0}},
            {"yn(2, u)", [](Oxel* u) -> Oxel* { return new OxYn(N(2), u); }, {1.0, 6.0}},
            // at x = 1 sin x is the larger, at -2 and 2 the smaller
            {"max(u, sin x)", [](Oxel* u) -> Oxel* { return new OxMax(u, new OxSinus(X())); },
             {-2.0, 1.0, 2.0}},
            {"min(u, sin x)", [](Oxel* u) -> Oxel* { return new OxMin(u, new OxSinus(X())); },
             {-2.0, 1.0, 2.0}},
            {"atan2(u, y)", [](Oxel* u) -> Oxel* { return new OxArctan2(u, Y()); },
             {-2.0, 0.0, 2.0}},
            {"atan2(y, u)", [](Oxel* u) -> Oxel* { return new OxArctan2(Y(), u); },
             {-2.0, 0.0, 2.0}},
        },
        inner);
}

// hypot works in single precision, too coarse for a difference quotient; the closed form
// (a a' + b b') / hypot(a, b) in double from the C library is the reference instead.
TEST(DerivativeValue, HypotMatchesClosedForm)
{
    struct Row {
        const char* what;
        Build build;
        std::function<double(double)> expected;
    } rows[] = {
        {"hypot(x, x*x)", [] { return new OxHypot(X(), Mul(X(), X())); },
         [](double x) { return (x + x * x * 2 * x) / std::hypot(x, x * x); }},
        {"hypot(y, 3x)", [] { return new OxHypot(Y(), Mul(N(3), X())); },
         [](double x) { return 3 * x * 3 / std::hypot(0.75, 3 * x); }},
        {"hypot(sin x, 2)", [] { return new OxHypot(new OxSinus(X()), N(2)); },
         [](double x) { return std::sin(x) * std::cos(x) / std::hypot(std::sin(x), 2.0); }},
    };
    for (const Row& r : rows) {
        Tree t(r.build());
        Tree d(t->diff("x"));
        ASSERT_NE(nullptr, d.get()) << r.what;
        for (double x : {-2.0, 0.3, 3.0}) {
            double want = r.expected(x);
            EXPECT_NEAR(want, at(d.get(), x), 1e-6 * (1 + std::fabs(want))) << r.what << x;
        }
    }
}

TEST(DerivativeValue, OperatorsMatchFiniteDifferences)
{
    auto id = [](Oxel* u) { return u; };
    checkSlopes(
        {
            {"u + y", [](Oxel* u) -> Oxel* { return Add(u, Y()); }, {-1.0, 2.0}},
            {"u - x*x", [](Oxel* u) -> Oxel* { return Sub(u, Mul(X(), X())); }, {-1.0, 2.0}},
            {"y - u", [](Oxel* u) -> Oxel* { return Sub(Y(), u); }, {-1.0, 2.0}},
            {"u * sin x", [](Oxel* u) -> Oxel* { return Mul(u, new OxSinus(X())); },
             {-1.0, 2.0}},
            {"u / (x*x+1)", [](Oxel* u) -> Oxel* { return Div(u, Add(Mul(X(), X()), N(1))); },
             {-1.0, 2.0}},
            {"y / u", [](Oxel* u) -> Oxel* { return Div(Y(), u); }, {-1.0, 2.0}},
            {"u / y", [](Oxel* u) -> Oxel* { return Div(u, Y()); }, {-1.0, 2.0}},
            {"u ^ 3", [](Oxel* u) -> Oxel* { return Pow(u, N(3)); }, {-1.0, 2.0}},
            {"u ^ y", [](Oxel* u) -> Oxel* { return Pow(u, Y()); }, {0.5, 2.0}},
            {"u ^ 1", [](Oxel* u) -> Oxel* { return Pow(u, N(1)); }, {0.5, 2.0}},
            {"2 ^ u", [](Oxel* u) -> Oxel* { return Pow(N(2), u); }, {-1.0, 2.0}},
            {"u ^ u", [](Oxel* u) -> Oxel* { return Pow(u, X()); }, {0.5, 2.0}},
            {"u ^ (x*x)", [](Oxel* u) -> Oxel* { return Pow(u, Mul(X(), X())); }, {0.5, 2.0}},
            {"u + y%2", [](Oxel* u) -> Oxel* { return Add(u, Mod(Y(), N(2))); }, {0.5, 2.0}},
            {"identity", id, {0.5}},
        },
        inner);
}

// Rules whose values differ from the textbook ones; the expected values are computed here.
TEST(DerivativeValue, DeliberateRules)
{
    struct Row {
        const char* what;
        Build build;
        double x;
        double expected;
    } rows[] = {
        {"atan at 0.5 over 1 - u*u", [] { return new OxArctan(X()); }, 0.5, 1.0 / (1.0 - 0.25)},
        {"atan at 2", [] { return new OxArctan(X()); }, 2.0, 1.0 / (1.0 - 4.0)},
        {"erf at 0 is 2/sqrt(pi)", [] { return new OxErf(X()); }, 0.0, 1.1283791670955126},
        {"log10 at 10", [] { return new OxLog10(X()); }, 10.0, 1.0 / (2.302585092994046 * 10)},
        {"max(x, 2) at 3: 1*1 + 0*0", [] { return new OxMax(X(), N(2)); }, 3.0, 1.0},
        {"max(x, 2) at 1", [] { return new OxMax(X(), N(2)); }, 1.0, 0.0},
        {"max(x, x): both indicators hold", [] { return new OxMax(X(), X()); }, 1.7, 2.0},
        {"min(x, x)", [] { return new OxMin(X(), X()); }, -0.3, 2.0},
        {"max(x, 2) at the tie", [] { return new OxMax(X(), N(2)); }, 2.0, 1.0},
        {"min(2*x, x) at 0: 2 + 1", [] { return new OxMin(Mul(N(2), X()), X()); }, 0.0, 3.0},
        {"atan2(x, x) at 1.3", [] { return new OxArctan2(X(), X()); }, 1.3, 0.0},
        {"atan2(x, x) at -4", [] { return new OxArctan2(X(), X()); }, -4.0, 0.0},
        {"atan2(x, 2) at 0", [] { return new OxArctan2(X(), N(2)); }, 0.0, 0.5},
        // (a'b - a b') * a'b' / (a^2 + b^2) with a = 3x, b = x*x at x = 1: (3-6)*6/10
        {"atan2(3x, x*x) carries a'*b'", [] { return new OxArctan2(Mul(N(3), X()), Mul(X(), X())); },
         1.0, -1.8},
        {"y^2 by x is 0 even so", [] { return Pow(Y(), N(2)); }, 1.0, 0.0},
        {"sin(x) agrees with cos from the C library", [] { return new OxSinus(X()); }, 0.9,
         std::cos(0.9)},
        {"cbrt at 8 agrees with 1/(3*4)", [] { return new OxCbroot(X()); }, 8.0, 1.0 / 12.0},
    };
    for (const Row& r : rows) {
        Tree t(r.build());
        Tree d(t->diff("x"));
        ASSERT_NE(nullptr, d.get()) << r.what;
        EXPECT_NEAR(r.expected, at(d.get(), r.x), 1e-12) << r.what;
    }
}

// ---------------------------------------------------------------- dependent variables

// f(a, b) = sin(a) * b^2, with every mixed partial the callback is asked for.
double sinTimesSquare(const void* /*user*/, int component, int nDiff, const int* dims,
                      const double* args)
{
    int da = 0, db = 0;
    for (int j = 0; j < nDiff; ++j)
        (dims[j] == 0 ? da : db)++;
    double a = args[0], b = args[1];
    double s[4] = {std::sin(a), std::cos(a), -std::sin(a), -std::cos(a)};
    double q[3] = {b * b, 2 * b, 2};
    double scale = component == 0 ? 1.0 : 10.0;
    return db > 2 ? 0.0 : scale * s[da % 4] * q[db];
}

class DepVarDiff : public testing::Test {
protected:
    DepVarDiff() : src_("f", sinTimesSquare, nullptr), three_("g", sinTimesSquare, nullptr)
    {
        src_.setUp(2, 2, 2, nullptr, nullptr);
        three_.setUp(3, 1, 3, nullptr, nullptr);
    }
    Oxel* f(Oxel* a, Oxel* b, int component = 0)
    {
        Oxel* args[2] = {a, b};
        return new OxDepVar(&src_, component, 0, nullptr, args);
    }
    static OxDepVar* asDep(Oxel* t) { return dynamic_cast<OxDepVar*>(t); }

    OxDepVarnode src_;
    OxDepVarnode three_;
};

TEST_F(DepVarDiff, ChainRuleOverArguments)
{
    Tree t(f(X(), Y(), 1));
    Tree d(t->diff("x"));
    ASSERT_NE(nullptr, d.get());
    EXPECT_EQ("f*1+f*0", text(d.get()));
    // Plus(Mal(f[0], x'), Mal(f[1], y'))
    OxDepVar* first = asDep(d->getChild(0)->getChild(0));
    OxDepVar* second = asDep(d->getChild(1)->getChild(0));
    ASSERT_NE(nullptr, first);
    ASSERT_NE(nullptr, second);
    EXPECT_EQ(1, first->nDiff());
    EXPECT_EQ(0, first->diffDims()[0]);
    EXPECT_EQ(1, second->nDiff());
    EXPECT_EQ(1, second->diffDims()[0]);
    EXPECT_EQ(1, first->component());
    EXPECT_EQ(&src_, first->node());
    EXPECT_EQ(0, asDep(t.get())->nDiff()) << "receiver changed";
}

TEST_F(DepVarDiff, SecondDerivativeRecordsDirectionsAndLevelsRunOut)
{
    Tree t(f(X(), N(2)));
    Tree d1(t->diff("x"));
    ASSERT_NE(nullptr, d1.get());
    EXPECT_EQ("f*1+f*0", text(d1.get()));
    OxDepVar* f0 = asDep(d1->getChild(0)->getChild(0));
    ASSERT_NE(nullptr, f0);
    Tree d2(f0->diff("x"));
    ASSERT_NE(nullptr, d2.get());
    OxDepVar* f00 = asDep(d2->getChild(0)->getChild(0));
    ASSERT_NE(nullptr, f00);
    ASSERT_EQ(2, f00->nDiff());
    EXPECT_EQ(0, f00->diffDims()[0]);
    EXPECT_EQ(0, f00->diffDims()[1]);
    // two levels are all the source offers
    Tree d3(f00->diff("x"));
    EXPECT_EQ(nullptr, d3.get());
}

TEST_F(DepVarDiff, ValueMatchesFiniteDifference)
{
    Tree t(f(Mul(X(), X()), Add(X(), N(1))));
    Tree d(t->diff("x"));
    ASSERT_NE(nullptr, d.get());
    for (double x : {-1.2, 0.4, 2.0}) {
        double want = centralDifference(t.get(), x);
        EXPECT_NEAR(want, at(d.get(), x), 1e-6 * (1 + std::fabs(want))) << x;
        // closed form: 2x cos(x^2) (x+1)^2 + sin(x^2) 2(x+1)
        double closed = 2 * x * std::cos(x * x) * (x + 1) * (x + 1) +
                        std::sin(x * x) * 2 * (x + 1);
        EXPECT_NEAR(closed, at(d.get(), x), 1e-12) << x;
    }
}

// An argument without a derivative empties the sum built so far; only later terms survive.
TEST_F(DepVarDiff, ArgumentWithoutDerivativeEmptiesTheSum)
{
    Tree first(f(Mod(X(), N(2)), X()));
    Tree d1(first->diff("x"));
    EXPECT_EQ(nullptr, d1.get()) << "the first argument decides at once";

    Tree last(f(X(), Mod(Y(), N(2))));
    Tree d2(last->diff("x"));
    EXPECT_EQ(nullptr, d2.get()) << "the sum is emptied by the last argument";

    Oxel* args[3] = {X(), Mod(Y(), N(2)), Mul(N(3), X())};
    Tree middle(new OxDepVar(&three_, 0, 0, nullptr, args));
    Tree d3(middle->diff("x"));
    ASSERT_NE(nullptr, d3.get());
    EXPECT_EQ("g*(3*1)", text(d3.get()));
    OxDepVar* g = asDep(d3->getChild(0));
    ASSERT_NE(nullptr, g);
    ASSERT_EQ(1, g->nDiff());
    EXPECT_EQ(2, g->diffDims()[0]);
}

// ---------------------------------------------------------------- simplification

struct SimplifyRow {
    const char* what;
    Build build;
    const char* expected;
};

void checkSimplified(const std::vector<SimplifyRow>& rows)
{
    for (const SimplifyRow& r : rows) {
        Tree t(r.build());
        std::string before = text(t.get());
        Tree s(t->simplify());
        ASSERT_NE(nullptr, s.get()) << r.what;
        EXPECT_NE(t.get(), s.get()) << r.what;
        EXPECT_EQ(std::string(r.expected), text(s.get())) << r.what;
        EXPECT_EQ(before, text(t.get())) << r.what << ": receiver changed";
    }
}

TEST(Simplify, ArithmeticRules)
{
    checkSimplified({
        {"0+x", [] { return Add(N(0), X()); }, "x"},
        {"x+0", [] { return Add(X(), N(0)); }, "x"},
        {"x+(-0): -0 equals 0", [] { return Add(X(), N(-0.0)); }, "x"},
        {"x+x: the number first", [] { return Add(X(), X()); }, "2*x"},
        {"x*y+y*x: products compare in either order", [] {
             return Add(Mul(X(), Y()), Mul(Y(), X()));
         }, "2*(x*y)"},
        {"x+y", [] { return Add(X(), Y()); }, "x+y"},
        {"x+x+x: one pass only", [] { return Add(Add(X(), X()), X()); }, "2*x+x"},
        {"x-0", [] { return Sub(X(), N(0)); }, "x"},
        {"0-x stays", [] { return Sub(N(0), X()); }, "0-x"},
        {"x-x", [] { return Sub(X(), X()); }, "0"},
        {"x-y", [] { return Sub(X(), Y()); }, "x-y"},
        {"0*x", [] { return Mul(N(0), X()); }, "0"},
        {"x*0", [] { return Mul(X(), N(0)); }, "0"},
        {"1*x", [] { return Mul(N(1), X()); }, "x"},
        {"x*1", [] { return Mul(X(), N(1)); }, "x"},
        {"(x*1)*1: children first", [] { return Mul(Mul(X(), N(1)), N(1)); }, "x"},
        {"x*x is not squared", [] { return Mul(X(), X()); }, "x*x"},
        {"x*2", [] { return Mul(X(), N(2)); }, "x*2"},
        {"0/x", [] { return Div(N(0), X()); }, "0"},
        {"x/1", [] { return Div(X(), N(1)); }, "x"},
        {"x/x", [] { return Div(X(), X()); }, "1"},
        {"(x*0)/(y*0): 0/0 gives 1", [] { return Div(Mul(X(), N(0)), Mul(Y(), N(0))); }, "1"},
        {"(x*0)/y", [] { return Div(Mul(X(), N(0)), Y()); }, "0"},
        {"x/y", [] { return Div(X(), Y()); }, "x/y"},
        {"x/(y*0) is left alone", [] { return Div(X(), Mul(Y(), N(0))); }, "x/0"},
        {"2+3*4 folds", [] { return Add(N(2), Mul(N(3), N(4))); }, "14"},
        {"sin(0) folds", [] { return new OxSinus(N(0)); }, "0"},
        {"x*(2+3)", [] { return Mul(X(), Add(N(2), N(3))); }, "x*5"},
        {"sin(x)+sin(x): functions compare children by identity", [] {
             return Add(new OxSinus(X()), new OxSinus(X()));
         }, "sin(x)+sin(x)"},
        {"sin(x*1): base rule simplifies children", [] { return new OxSinus(Mul(X(), N(1))); },
         "sin(x)"},
        {"x^(1+1)", [] { return Pow(X(), Add(N(1), N(1))); }, "x^2"},
        {"hypot(x+0, 0*y)", [] { return new OxHypot(Add(X(), N(0)), Mul(N(0), Y())); },
         "xhypot0"},
        {"x + (y - y)", [] { return Add(X(), Sub(Y(), Y())); }, "x"},
        {"(x-x)/(y-y)", [] { return Div(Sub(X(), X()), Sub(Y(), Y())); }, "1"},
        {"(x+0)-(0+x): equal variables", [] { return Sub(Add(X(), N(0)), Add(N(0), X())); },
         "0"},
        {"x*nan is kept: nan equals nothing", [] { return Mul(X(), N(std::nan(""))); },
         "x*nan"},
        {"1*rand()", [] { return Mul(N(1), new OxRand()); }, "rand()"},
        {"rand()*(2+3): never folded as a whole", [] {
             return Mul(new OxRand(), Add(N(2), N(3)));
         }, "rand()*5"},
        {"branch", [] { return new OxBranch(Mul(X(), N(1)), Add(Y(), N(0))); }, "xBy"},
    });
}

TEST(Simplify, ConstantsFoldToOneNumber)
{
    struct Row {
        const char* what;
        Build build;
    } rows[] = {
        {"gauss is constant", [] { return new OxGauss(); }},
        {"gauss+1", [] { return Add(new OxGauss(), N(1)); }},
        {"ln(-1): the domain error is dropped", [] { return new OxLn(N(-1)); }},
        {"1/0", [] { return Div(N(1), N(0)); }},
        {"constant branch", [] { return new OxBranch(N(1), N(2)); }},
    };
    for (const Row& r : rows) {
        Tree t(r.build());
        Tree s(t->simplify());
        ASSERT_NE(nullptr, s.get()) << r.what;
        EXPECT_EQ(13, s->identify()) << r.what;
        EXPECT_EQ(0, s->getNumChildren()) << r.what;
    }
    Tree sum(Add(N(2), Mul(N(3), N(4))));
    Tree s(sum->simplify());
    int err = 0;
    EXPECT_EQ(14.0, s->value(nullptr, err));
}

TEST(Simplify, AssignedVariableLosesItsExpression)
{
    Tree a(new OxVar(3, "a", Mul(X(), N(1))));
    Tree s(a->simplify());
    EXPECT_EQ("a", text(s.get()));
    EXPECT_EQ(0, s->getNumChildren());
    EXPECT_EQ(1, a->getNumChildren());
}

TEST_F(DepVarDiff, SimplifyKeepsArgumentsOrFolds)
{
    Tree t(f(Mul(X(), N(1)), Y()));
    Tree s(t->simplify());
    ASSERT_EQ(2, s->getNumChildren());
    EXPECT_EQ("x*1", text(s->getChild(0))) << "arguments are not simplified";

    Tree c(f(N(0.5), N(3)));
    Tree folded(c->simplify());
    ASSERT_EQ(13, folded->identify());
    int err = 0;
    EXPECT_DOUBLE_EQ(std::sin(0.5) * 9, folded->value(nullptr, err));
}

TEST(Simplify, BranchKeepsAbsentSlot)
{
    Tree b(new OxBranch(Add(X(), N(0)), nullptr));
    Tree s(b->simplify());
    EXPECT_EQ(21, s->identify());
    EXPECT_EQ(1, s->getNumChildren());
    EXPECT_EQ("x", text(s->getChild(0)));
    EXPECT_EQ(nullptr, s->getChild(1));
}

// Simplified derivatives read the way one would write them by hand; the values agree.
TEST(Simplify, DerivativesBecomeCompact)
{
    struct Row {
        const char* what;
        Build build;
        const char* expected;
    } rows[] = {
        {"x*x", [] { return Mul(X(), X()); }, "2*x"},
        {"x*y by x", [] { return Mul(X(), Y()); }, "y"},
        {"sin(x)", [] { return new OxSinus(X()); }, "cos(x)"},
        {"sin(2): cos(2)*0 folds to a negative zero", [] { return new OxSinus(N(2)); }, "-0"},
        {"3*x+y", [] { return Add(Mul(N(3), X()), Y()); }, "3"},
        {"x/x: numerator x-x becomes 0", [] { return Div(X(), X()); }, "0"},
    };
    for (const Row& r : rows) {
        Tree t(r.build());
        Tree d(t->diff("x"));
        ASSERT_NE(nullptr, d.get()) << r.what;
        Tree s(d->simplify());
        EXPECT_EQ(std::string(r.expected), text(s.get())) << r.what;
        for (double x : {-0.7, 1.9})
            EXPECT_DOUBLE_EQ(at(d.get(), x), at(s.get(), x)) << r.what;
    }
}

// ---------------------------------------------------------------- from formula text

// Parses text over the variables x and y; the expression owns the tree.
std::unique_ptr<OxelExpression> parse(const char* formula)
{
    std::unique_ptr<OxelExpression> e(new OxelExpression());
    e->addVar("x");
    e->addVar("y");
    std::string writable(formula);  // the parser writes into the text while it works
    EXPECT_EQ(1, e->initFromString(&writable[0])) << formula;
    return e;
}

TEST(FormulaDerivative, TreesFromText)
{
    struct Row {
        const char* formula;
        const char* var;
        const char* expected;  // nullptr: no derivative
    } rows[] = {
        {"x*x", "x", "1*x+x*1"},
        {"x*y", "y", "x*1"},
        {"2/x", "x", "((-1)*(2*1))/(x*x)"},
        {"pow(x,3)", "x", "3*x^2"},
        {"pow(x,1)", "x", "x^0"},
        {"pow(2,x)", "x", "2^x*OxLn(2)"},
        {"pow(x,x)", "x", "x^x*OxLn(x)+x*x^(x-1)"},
        {"sin(2)", "x", "cos(2)*0"},
        {"atan(x)", "x", "1/(1-x*x)"},
        {"a=x*x", "x", "1"},           // assigned variable: no chain rule through x*x
        {"a=x*x; a", "x", nullptr},     // a statement sequence has no derivative
        {"x%2", "x", nullptr},
        {"x%2", "nobody", nullptr},     // the remainder refuses whatever the variable
        {"x*y", "nobody", "x*0"},       // an unknown name: a tree that evaluates to zero
        {"x+(y%2)", "x", "1"},
        {"jn(x,2)", "x", nullptr},
        {"floor(x)", "x", nullptr},
        {"ceil(x%2)", "x", "0"},
    };
    for (const Row& r : rows) {
        auto e = parse(r.formula);
        std::unique_ptr<OxelExpression> d(e->derivative(r.var));
        if (!r.expected) {
            EXPECT_EQ(nullptr, d.get()) << r.formula;
            continue;
        }
        ASSERT_NE(nullptr, d.get()) << r.formula;
        EXPECT_EQ(std::string(r.expected), text(d->root())) << r.formula;
    }
}

TEST(FormulaDerivative, AliasResolvesToItsVariable)
{
    auto e = parse("x*y");
    e->addVarAlias("y", "w");
    std::unique_ptr<OxelExpression> byAlias(e->derivative("w"));
    std::unique_ptr<OxelExpression> byName(e->derivative("y"));
    ASSERT_NE(nullptr, byAlias.get());
    ASSERT_NE(nullptr, byName.get());
    EXPECT_EQ("x*1", text(byAlias->root()));
    EXPECT_EQ(text(byName->root()), text(byAlias->root()));
    e.reset();  // the derivative owns its own tree and names
    KxDArray<double> values;
    values.append(3.0);
    values.append(5.0);
    int err = 0;
    EXPECT_EQ(3.0, byAlias->eval(values, err));
}

// Whole formulas: the derivative's value against a difference quotient of the formula's value.
TEST(FormulaDerivative, ValuesMatchFiniteDifferences)
{
    const char* formulas[] = {
        "sin(x)*exp(-x*x)+x/(1+y*y)",
        "pow(x,y)*ln(x)-sqrt(x)",
        "pow(cos(x)+2, sin(x))",
        "erf(x/2)*cosh(x)-tanh(y*x)",
        "hypot(y, 2)+atan2(x, y)+asinh(x*x)",
        "max(x*x, 1.5)-min(cbrt(x), y)",
        "j1(x)+y0(x)*log10(x+1)",
    };
    for (const char* f : formulas) {
        auto e = parse(f);
        std::unique_ptr<OxelExpression> d(e->derivative("x"));
        ASSERT_NE(nullptr, d.get()) << f;
        for (double x : {0.4, 1.1, 2.7}) {
            auto eval = [&](OxelExpression& ex, double at) {
                KxDArray<double> v;
                v.append(at);
                v.append(0.75);
                int err = 0;
                double r = ex.eval(v, err);
                EXPECT_EQ(0, err) << f << " at " << at;
                return r;
            };
            const double h = 1e-5;
            double want = (eval(*e, x + h) - eval(*e, x - h)) / (2 * h);
            EXPECT_NEAR(want, eval(*d, x), 1e-6 * (1 + std::fabs(want))) << f << " at " << x;
        }
    }
}

TEST(FormulaSimplify, TextEdgeCases)
{
    struct Row {
        const char* formula;
        const char* expected;
    } rows[] = {
        {"0+x", "x"},
        {"x-x", "0"},
        {"0-x", "0-x"},
        {"x*1*1", "x"},
        {"x+x+x", "2*x+x"},              // a single pass
        {"x*0/(y*0)", "1"},             // 0/0 gives 1
        {"2+3*4", "14"},
        {"sin(x)+sin(x)", "sin(x)+sin(x)"},
        {"-x", "(-1)*x"},               // unary minus is a product with -1
    };
    for (const Row& r : rows) {
        auto e = parse(r.formula);
        Tree s(e->root()->simplify());
        EXPECT_EQ(std::string(r.expected), text(s.get())) << r.formula;
    }
}

}  // namespace
