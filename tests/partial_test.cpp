// Partial derivatives for numerical clients: exact zeros where a sub-tree does not depend on the
// variable, derivative()'s values and codes where it does, the refusals and the node budget.
#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <random>
#include <string>

#include <oxel/oxel.h>
#include <oxel/oxel_c.h>

#include "node_probe.h"

namespace {

using Expr = std::unique_ptr<OxelExpression>;

int calls = 0;

// f(a, b) = a * b: f_a = b, f_b = a.
double product(const void*, int, int nDiff, const int* dims, const double* args)
{
    ++calls;
    if (nDiff == 0)
        return args[0] * args[1];
    return nDiff == 1 ? args[1 - dims[0]] : (dims[0] != dims[1] ? 1.0 : 0.0);
}

}  // namespace

// By y at points where only a part independent of y makes derivative() fail: there the
// partial derivative is the mathematical one, without a code. Rows with kSame keep
// derivative()'s value and code (a part that depends on y).
TEST(Partial, IndependentPartsGiveExactZero)
{
    const double kSame = 1e300;
    const struct {
        const char* formula;
        double x, y, want;
    } rows[] = {
        { "pow(x, 2)", -1, 2, 0 },  // not pow(x, 2) * (ln(x) * 0): no log of -1
        { "sqrt(x) * ln(x)", -1, 2, 0 },  // independent product, not even evaluated
        { "hypot(y, sqrt(x))", 0, 3, 1 },  // sqrt's derivative 0 / (2 * sqrt(0)) is not built
        { "hypot(y, 2 * sqrt(x))", 0, 3, 1 },  // nor inside a product of independent factors
        { "max(y, pow(x, 3))", -1, 2, 1 },  // (max == y) * 1 + (max == x^3) * 0
        { "hypot(y, acos(x))", 1, 0.5, 1 },  // functions of an independent argument
        { "max(cbrt(x), y)", 0, 1, 1 },
        { "ln(x) * y", -1, 2, kSame },  // the partial is ln(x) itself: code 11 stays
        { "y * sqrt(x)", -4, 2, kSame },
        { "hypot(x, (a = pow(y, 2)))", 3, 4, kSame },  // an assigned name depending on y
    };
    for (const auto& row : rows) {
        OxelExpression e;
        declareXyw(e);
        ASSERT_EQ(e.initFromString(row.formula), 1) << row.formula;
        Expr d(e.derivative("y")), p(e.partial("w"));
        ASSERT_TRUE(d && p) << row.formula;
        int dcode, pcode;
        const double dv = evalAt(*d, { row.x, row.y }, dcode);
        const double pv = evalAt(*p, { row.x, row.y }, pcode);
        if (row.want == kSame) {
            EXPECT_TRUE(sameBits(dv, pv)) << row.formula;
            EXPECT_EQ(dcode, pcode) << row.formula;
            continue;
        }
        EXPECT_NE(dcode, 0) << row.formula << ": the row tests nothing";
        EXPECT_EQ(pcode, 0) << row.formula;
        EXPECT_DOUBLE_EQ(pv, row.want) << row.formula;
    }
    // A whole formula independent of y is the number +0 itself.
    OxelExpression e;
    declareXyw(e);
    ASSERT_EQ(e.initFromString("pow(x, 2) * sqrt(x)"), 1);
    Expr p(e.partial("y"));
    EXPECT_EQ(oxelToString(p->root()), "0");
}

// f(y, sqrt(x)) by y: the argument sqrt(x) does not depend on y, so f_b is not called for
// that output; f(sqrt(x), x) by y is 0 without any call.
TEST(Partial, DependentVariables)
{
    OxDepVarnode f("f", product, nullptr);
    f.setUp(2, 1, 2, nullptr, nullptr);
    OxelExpression e;
    declareXyw(e);
    Oxel* args[] = { new OxVar(1, "y"), new OxSqroot(new OxVar(0, "x")) };
    Oxel* fixed[] = { new OxSqroot(new OxVar(0, "x")), new OxVar(0, "x") };
    e.setRoot(new OxPlus(new OxDepVar(&f, 0, 0, nullptr, args),
                         new OxDepVar(&f, 0, 0, nullptr, fixed)));
    Expr d(e.derivative("y")), p(e.partial("y"));
    int dcode, pcode;
    evalAt(*d, { 0.0, 3.0 }, dcode);
    EXPECT_EQ(dcode, OX_ERR_DIVISION_BY_ZERO);  // f_b * (0 / (2 * sqrt(0))) and f(sqrt, x)'s
    calls = 0;
    EXPECT_EQ(evalAt(*p, { 4.0, 3.0 }, pcode), 2.0);  // f_a(y, sqrt(x)) * 1 + f_b * 0 = sqrt(4)
    EXPECT_EQ(pcode, 0);
    EXPECT_EQ(calls, 2);
    evalAt(*p, { 0.0, 3.0 }, pcode);
    EXPECT_EQ(pcode, 0);
}

// Random formulas by x at random finite points: wherever derivative() gives no code, the
// partial derivative gives the same value (zeros of either sign alike), and it fails only
// where derivative() fails too.
TEST(Partial, AgreesWithDerivativeWhereThatSucceeds)
{
    std::mt19937 rng(29);
    std::uniform_real_distribution<double> u(-2.0, 2.0);
    int compared = 0, messages = 0;
    // A node without a rule differentiates to a copy of itself there, to 0 here: left out.
    const CountMessages counting(&messages);
    for (int i = 0; i < 400; ++i) {
        const std::string text = randomFormula(rng, 4, false, nullptr);
        if (text.find("jn") != std::string::npos || text.find("yn") != std::string::npos)
            continue;  // Bessel orders cost time in proportion
        OxelExpression e;
        declareXyw(e);
        e.addVar("z");
        ASSERT_EQ(e.initFromString(text.c_str()), 1) << text;
        messages = 0;
        Expr d(e.derivative("x")), p(e.partial("x"));
        if (!d || !p || messages > 0)
            continue;
        for (int k = 0; k < 20; ++k) {
            const double x = k < 2 ? 0.0 : u(rng), y = k == 1 ? 0.0 : u(rng);
            int dcode, pcode;
            const double dv = evalAt(*d, { x, y }, dcode), pv = evalAt(*p, { x, y }, pcode);
            if (dcode == 0) {
                EXPECT_EQ(pcode, 0) << text << " at " << x << ", " << y;
                EXPECT_TRUE(dv == pv || (std::isnan(dv) && std::isnan(pv)))
                    << text << " at " << x << ", " << y << ": " << dv << " " << pv;
                ++compared;
            } else if (pcode != 0) {
                EXPECT_NE(dcode, 0) << text;
            }
        }
    }
    EXPECT_GT(compared, 1000);
}

// Refusals name their reason; a misspelt name is an error here (derivative() answers it with a
// zero tree, see expression_test.cpp).
TEST(Partial, RefusalsAndTheCInterface)
{
    OxelExpression e;
    declareXyw(e);
    ASSERT_EQ(e.initFromString("x * y"), 1);
    std::string why;
    EXPECT_FALSE(e.partial("q", &why));
    EXPECT_NE(why.find("unknown variable 'q'"), std::string::npos) << why;

    oxel_expr* c = oxel_expr_new();
    oxel_expr_add_var(c, "x");
    ASSERT_EQ(oxel_expr_parse(c, "x < 1"), 1);
    EXPECT_EQ(oxel_expr_partial(c, "q"), nullptr);
    EXPECT_NE(std::string(oxel_last_refusal()).find("'q'"), std::string::npos);
    EXPECT_EQ(oxel_expr_partial(c, "x"), nullptr);
    EXPECT_NE(std::string(oxel_last_refusal()).find("'x < 1' has no derivative"),
              std::string::npos);
    ASSERT_EQ(oxel_expr_parse(c, "x * x"), 1);
    oxel_expr* d = oxel_expr_partial(c, "x");
    EXPECT_NE(d, nullptr);
    EXPECT_STREQ(oxel_last_refusal(), "");
    oxel_expr_free(d);
    oxel_expr_free(c);
    oxel_set_node_budget(123);
    EXPECT_EQ(oxel_node_budget(), 123);
    oxel_set_node_budget(-1);
    EXPECT_EQ(oxelNodeBudget(), oxelDefaultNodeBudget);
}

// exp nested n deep: its derivative copies n + (n - 1) + ... + 1 nodes of the chain, so the
// budget decides between building it and refusing it, in derivative(), in the text's diff(),
// in partial() and in the normal form of a product with many sums. Rules that copy an operand's
// derivative (expm1, atan2) double it per level: 60 levels are refused quickly at the default.
TEST(Partial, NodeBudget)
{
    OxelExpression doubling;
    declareXyw(doubling);
    ASSERT_EQ(doubling.initFromString(nest("expm1(", "x", 60).c_str()), 1);
    EXPECT_FALSE(Expr(doubling.derivative("x")));
    const std::string chain = nest("exp(", "x", 30);  // its derivative copies about 31 * 32 / 2
    OxelExpression e;
    declareXyw(e);
    ASSERT_EQ(e.initFromString(chain.c_str()), 1);
    oxelSetNodeBudget(400);
    std::string why;
    EXPECT_FALSE(e.derivative("x"));
    EXPECT_FALSE(e.partial("x", &why));
    EXPECT_NE(why.find("node budget (400"), std::string::npos) << why;
    OxelExpression text;
    declareXyw(text);
    testing::internal::CaptureStderr();
    EXPECT_EQ(text.initFromString(("diff(" + chain + ", x)").c_str()), 0);
    testing::internal::GetCapturedStderr();
    EXPECT_STREQ(text.lastError(), "derivative larger than the node budget near >)<");
    // Multiplied out, a Horner scheme makes more terms than it has nodes.
    OxelExpression many;
    declareXyw(many);
    ASSERT_EQ(many.initFromString("x*(y*(x*(y+1)+2)+3)+4"), 1);
    oxelSetNodeBudget(1);
    EXPECT_FALSE(Expr(many.normalized()));
    oxelSetNodeBudget(1000);
    EXPECT_TRUE(Expr(e.derivative("x")));
    EXPECT_TRUE(Expr(e.partial("x")));
    oxelSetNodeBudget(0);
    EXPECT_TRUE(Expr(many.normalized()));
}
