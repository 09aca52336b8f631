// Derivatives written as statements over shared parts: read back against the trees and the
// gradient, the normal form part by part, fresh names, refusals.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <oxel/oxel.h>

#include "node_probe.h"

namespace {

using Expr = std::unique_ptr<OxelExpression>;

// Random points, ones that fail (logs of negatives, overflow) among them, and special values.
std::vector<std::pair<double, double>> points()
{
    std::mt19937 rng(11);
    std::uniform_real_distribution<double> u(-3.0, 3.0);
    std::vector<std::pair<double, double>> p;
    for (int i = 0; i < 30; ++i)
        p.push_back({ u(rng), u(rng) });
    for (double s : { 0.0, -0.0, 1.0, -1.0, 5.0, 1e308, -1e-308, double(INFINITY), double(NAN) })
        p.push_back({ s, 0.5 });
    return p;
}

// A value and its code at (x, y), the code starting at 0.
using Reference = std::function<double(double, double, int&)>;

Reference byTree(const OxelExpression& e)
{
    return [&e](double x, double y, int& code) { return evalAt(e, { x, y }, code); };
}

// Text parsed with the same declarations gives want's bits and codes at every point; with a
// tolerance, values within it (relative, with an absolute floor) where neither fails.
std::string readsBack(const std::string& text, const Reference& want, double tolerance = 0)
{
    OxelExpression r;
    declareXyw(r);
    if (r.initFromString(text.c_str()) != 1)
        return "does not parse: " + std::string(r.lastError());
    int compared = 0;
    for (const auto& p : points()) {
        int wantCode = 0, got = 0;
        const double w = want(p.first, p.second, wantCode);
        const double g = evalAt(r, { p.first, p.second }, got);
        // The normal form may overflow where the tree does not (x+1 times the rest, for 1e308).
        if (tolerance > 0 && (wantCode != 0 || got != 0 || !std::isfinite(w)))
            continue;
        ++compared;
        const bool same = tolerance > 0 ? std::fabs(g - w) <= tolerance * std::fabs(w) + 1e-12
                                        : bitsEqual(w, g) && wantCode == got;
        if (!same)
            return "at (" + std::to_string(p.first) + ", " + std::to_string(p.second) +
                   "): want " + std::to_string(w) + " code " + std::to_string(wantCode) +
                   ", got " + std::to_string(g) + " code " + std::to_string(got);
    }
    return compared > 0 ? "" : "no point to compare";
}

// Chains and sums of every kind, by x and by y (through its alias).
std::vector<std::string> formulas(int depth)
{
    std::vector<std::string> f;
    for (const char* open : { "exp(", "sin(", "y*exp(x*", "pow(x, y*", "pow(", "y/(x+",
                              "ln(1+", "sqrt(y+x*" })
        f.push_back(nest(open, "x", std::string(open) == "pow(" ? depth / 10 : depth));
    // For x > 4 the first factor's derivative fails with one code, the shared parts of the
    // second (named first in the text) with another: the tree's order must decide.
    if (depth < 20)
        f.push_back("acos(x / 4) * exp(exp(ln(2 - x)))");
    f.push_back("0");  // a sum of many terms that share nothing but x
    for (int i = 1; i <= depth; ++i)
        f.back() += "+sin(x*" + std::to_string(i) + ")*cos(y)";
    return f;
}

}  // namespace

// Where the trees fit, the statements read back to derivative()'s and partial()'s bits and
// codes; so they do past a node budget that refuses the trees, against the trees formed
// beforehand and against the gradient, whose derivatives come from the shared graph there.
TEST(Statements, ReadBackToTheTreesAndTheGradient)
{
    for (int depth : { 12, 150 }) {
        for (const std::string& text : formulas(depth)) {
            OxelExpression e;
            declareXyw(e);
            ASSERT_EQ(e.initFromString(text.c_str()), 1) << text;
            for (const char* var : { "x", "w" }) {
                const Expr plain(e.derivative(var)), part(e.partial(var));
                ASSERT_TRUE(plain && part) << text;
                const long treeNodes = oxelNodeCount(plain->root());
                // The sum shares nothing: its tree is as small as its parts.
                const bool chain = text[0] != '0' && depth > 12;
                const Budget small(depth == 12 || !chain ? oxelNodeBudget() : treeNodes / 2);
                const std::string d = e.derivativeStatements(var).c_str();
                const std::string p = e.partialStatements(var).c_str();
                EXPECT_EQ(readsBack(d, byTree(*plain)), "") << text << " by " << var << "\n" << d;
                EXPECT_EQ(readsBack(p, byTree(*part)), "") << text << " by " << var << "\n" << p;
                if (depth == 12 || !chain)
                    continue;
                EXPECT_FALSE(Expr(e.derivative(var))) << text;  // past the budget indeed
                EXPECT_LT(d.size(), static_cast<size_t>(treeNodes) * 4) << text;
                const auto g = e.gradient({ var }, 1);
                ASSERT_TRUE(g) << text;
                const Reference gradient = [&g](double x, double y, int& code) {
                    const double values[] = { x, y };
                    double out[2];
                    int codes[2];
                    g->eval(values, out, codes);
                    code = codes[1];
                    return out[1];
                };
                EXPECT_EQ(readsBack(p, gradient), "") << text << " by " << var;
            }
        }
    }
}

// Each part in its normal form: the partial derivative's values where it succeeds. The normal
// form reorders and refolds sums and products (a few roundings per term) and cancels nothing
// across parts, so at these depths (4) the values agree to a relative 1e-9, with an absolute
// floor for sums that cancel to about zero.
TEST(Statements, NormalFormsPartByPart)
{
    for (const std::string& text : formulas(4)) {
        OxelExpression e;
        declareXyw(e);
        ASSERT_EQ(e.initFromString(text.c_str()), 1);
        const Expr part(e.partial("x"));
        std::string why;
        const std::string s = e.partialStatements("x", true, &why).c_str();
        EXPECT_EQ(readsBack(s, byTree(*part), 1e-9), "") << text << ": " << why << "\n" << s;
    }
}

// Names like the generated ones (declared, an alias) are skipped; refusals say why; formulas
// the graph does not hold are written as their trees.
TEST(Statements, FreshNamesAndRefusals)
{
    OxelExpression e;
    for (const char* name : { "x", "t1", "t2" })
        e.addVar(name);
    e.addVarAlias("t2", "t3");
    ASSERT_EQ(e.initFromString("exp(exp(exp(x*t1)))*t3 + exp(x*t1)"), 1);
    const Expr d(e.derivative("x"));
    OxelExpression r;
    for (const char* name : { "x", "t1", "t2" })
        r.addVar(name);
    r.addVarAlias("t2", "t3");
    const std::string text = e.derivativeStatements("x").c_str();
    ASSERT_EQ(r.initFromString(text.c_str()), 1) << text;
    for (const char* taken : { "t1 =", "t2 =", "t3 =" })
        EXPECT_EQ(text.find(taken), std::string::npos) << text;
    for (double x : { -1.0, 0.25, 2.0 }) {
        double values[16] = { x, 0.5, 3.0 }, copy[16] = { x, 0.5, 3.0 };
        int want = 0, got = 0;
        ASSERT_LE(r.numVars(), 16);
        EXPECT_TRUE(bitsEqual(d->eval(values, 3, want), r.eval(copy, r.numVars(), got)));
        EXPECT_EQ(want, got);
    }

    const struct {
        const char* formula;
        const char* var;
        const char* why;  // empty: written, as the tree's text
    } rows[] = {
        { "x % 2", "x", "without one" },  // no rule
        { "x * y", "z", "unknown variable 'z'" },
        { "rand() * x", "x", "" },  // a random source: the tree
        { "exp(exp(exp(x)))", "x", "node budget" },  // past even the shared parts' budget
    };
    for (const auto& row : rows) {
        OxelExpression f;
        declareXyw(f);
        ASSERT_EQ(f.initFromString(row.formula), 1);
        const Budget small(std::string(row.why) == "node budget" ? 3 : 1000000);
        std::string why;
        const std::string got = f.partialStatements(row.var, false, &why).c_str();
        const std::string plain = f.derivativeStatements(row.var, &why).c_str();
        if (!*row.why) {
            EXPECT_EQ(got, Expr(f.partial(row.var))->toFormula().c_str());
            EXPECT_EQ(plain, Expr(f.derivative(row.var))->toFormula().c_str());
            continue;
        }
        EXPECT_TRUE(got.empty() && plain.empty()) << row.formula;
        EXPECT_NE(why.find(row.why), std::string::npos) << row.formula << ": " << why;
    }
}
