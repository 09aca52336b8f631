// Tests of OxelGradient: every output and code against eval() of the separate partial
// derivative expressions, at single points and over columns.
#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <oxel/oxel.h>
#include <oxel/oxel_c.h>

#include "algebra/dag.h"
#include "node_probe.h"

namespace {

// Special values, and the edges of the shared program's fast path: inputs up to 2^64 and
// no NaN or larger magnitude does.
const double kSpecial[] = { 0.0, -0.0, 1.0, -1.0, 0.5, 2.0, -2.5, 3.0, 1e308, -1e308, 1e-308,
    1e-320, INFINITY, -INFINITY, NAN, 710.0, DBL_MAX, 0.1, -7.0, 1e10, 709.7, 0x1p64, -0x1p64,
    0x1.0000000000001p64, 5e-324, std::numeric_limits<double>::signaling_NaN() };
const int kNumSpecial = sizeof kSpecial / sizeof kSpecial[0];

// The separate expressions in output order: the value, the first derivatives, then the upper
// triangle of second derivatives; empty when any of them is null.
std::vector<std::unique_ptr<OxelExpression>> separate(
    OxelExpression& e, const std::vector<std::string>& names, int order)
{
    std::vector<std::unique_ptr<OxelExpression>> out;
    out.emplace_back(nullptr);  // the value: e itself
    for (const std::string& n : names)
        out.emplace_back(e.partial(n.c_str()));
    for (size_t i = 0; order == 2 && i < names.size(); ++i)
        for (size_t j = i; j < names.size(); ++j)
            out.emplace_back(out[1 + i] ? out[1 + i]->partial(names[j].c_str()) : nullptr);
    for (size_t k = 1; k < out.size(); ++k)
        if (!out[k])
            return {};
    return out;
}

// Describes the first output whose bits or code differ from the separate expressions at the
// given rows (row-major, numVars values each), at points and over columns (each column a
// vector of its own); "" when all agree.
std::string compare(OxelExpression& e, const OxelGradient& g,
    const std::vector<std::unique_ptr<OxelExpression>>& sep, const std::vector<double>& rows)
{
    const size_t nv = static_cast<size_t>(e.numVars()), n = static_cast<size_t>(g.numOutputs());
    const size_t numRows = rows.size() / nv;
    if (n != sep.size())
        return "output count " + std::to_string(n);
    std::vector<std::vector<double>> cols(nv, std::vector<double>(numRows));
    std::vector<std::vector<double>> outs(n, std::vector<double>(numRows, -5.0));
    std::vector<std::vector<int>> codes(n, std::vector<int>(numRows, -5));
    std::vector<const double*> colp;
    std::vector<double*> outp;
    std::vector<int*> codep;
    for (size_t v = 0; v < nv; ++v) {
        for (size_t r = 0; r < numRows; ++r)
            cols[v][r] = rows[r * nv + v];
        colp.push_back(cols[v].data());
    }
    for (size_t k = 0; k < n; ++k) {
        outp.push_back(outs[k].data());
        codep.push_back(codes[k].data());
    }
    if (g.evalBatchColumns(colp.data(), static_cast<int>(numRows), outp.data(), codep.data()))
        return "columns refused";
    std::vector<double> point(n);
    std::vector<int> pointCodes(n);
    for (size_t r = 0; r < numRows; ++r) {
        const double* at = &rows[r * nv];
        g.eval(at, point.data(), pointCodes.data());
        for (size_t k = 0; k < n; ++k) {
            std::vector<double> vals(at, at + nv);
            int code = 0;
            const double want = (k ? *sep[k] : e).eval(vals.data(), static_cast<int>(nv), code);
            if (!bitsEqual(point[k], want) || pointCodes[k] != code
                || !bitsEqual(outs[k][r], want) || codes[k][r] != code)
                return "row " + std::to_string(r) + " output " + std::to_string(k) + ": want "
                    + std::to_string(want) + " code " + std::to_string(code) + ", point "
                    + std::to_string(point[k]) + " code " + std::to_string(pointCodes[k])
                    + ", column " + std::to_string(outs[k][r]) + " code "
                    + std::to_string(codes[k][r]);
        }
    }
    return "";
}

// While one lives, gradients build their derivatives in the shared graph even where the trees
// fit, so that the differential tests compare the two on formulas of any size.
struct SharingFirst {
    explicit SharingFirst(bool on = true) { oxd::setSharingFirst(on); }
    ~SharingFirst() { oxd::setSharingFirst(false); }
};

void declare(OxelExpression& e)
{
    declareXyw(e);
    e.addVar("z");
}

// Random points plus every pair of special values in x and y.
std::vector<double> points(std::mt19937& rng, int nv)
{
    std::vector<double> rows;
    std::uniform_real_distribution<double> u(-3.0, 3.0);
    for (int r = 0; r < 40; ++r)
        for (int v = 0; v < nv; ++v)
            rows.push_back(u(rng));
    for (int i = 0; i < kNumSpecial; ++i)
        for (int j = 0; j < kNumSpecial; j += 3)
            for (int v = 0; v < nv; ++v)
                rows.push_back(v == 0 ? kSpecial[i] : v == 1 ? kSpecial[j] : 0.75);
    return rows;
}

}  // namespace

// Random formulas of the whole language by variables and an alias, to first and second order,
// from trees and from the shared graph: null exactly where a separate derivative is null,
// otherwise the separate bits and codes.
TEST(Gradient, RandomFormulasMatchSeparateDerivatives)
{
    std::mt19937 rng(77);
    int compared = 0;
    for (int i = 0; i < 300; ++i) {
        std::string text = randomFormula(rng, 4, false, nullptr);
        if (text.find("jn") != std::string::npos || text.find("yn") != std::string::npos)
            continue;  // Bessel orders cost time in proportion
        if (i % 5 == 0)  // a subtree that occurs again and again
            text = "(" + text + ") * sin(" + text + ") + x*y";
        OxelExpression e;
        declare(e);
        ASSERT_EQ(e.initFromString(text.c_str()), 1) << text;
        const std::vector<std::string> names = i % 2 ? std::vector<std::string> { "x", "w" }
                                                     : std::vector<std::string> { "z", "x", "y" };
        for (int order = 1; order <= 2; ++order) {
            const auto sep = separate(e, names, order);
            for (bool shared : { false, true }) {
                const SharingFirst sharing(shared);
                const std::unique_ptr<OxelGradient> g = e.gradient(names, order);
                ASSERT_EQ(sep.empty(), g == nullptr) << text;
                if (!g)
                    continue;
                EXPECT_EQ(compare(e, *g, sep, points(rng, e.numVars())), "")
                    << text << " order " << order << (shared ? " shared" : "");
                ++compared;
            }
        }
    }
    EXPECT_GT(compared, 300);
}

// A failure in one partial only: the other outputs keep code 0, at points and in columns
// (whose other rows take the shared program).
TEST(Gradient, FailureInOnePartialOnly)
{
    const SharingFirst sharing;
    const char* const formulas[] = {
        "sqrt(x) * y",  // d/dx divides by 2*sqrt(0): only d/dx fails at x = 0
        "x * ln(y)",  // d/dy is x / y: fails at y = 0 with the value
        "y / x + x*x",  // every output divides by x
        "atan2(x, y) + 1e308 * x * y",  // overflow in the value and d/dy, not in d/dx
        "exp(x) * y + x*x*x*x*y",  // exp(x)*1 near the overflow limit, x^4 up to 2^256
        "pow(x, 2) * y + pow(y, 2)",  // the derivatives' x^1 and y^1 are x and y, -0 included
    };
    for (const char* text : formulas) {
        OxelExpression e;
        declare(e);
        ASSERT_EQ(e.initFromString(text), 1);
        const std::vector<std::string> names { "x", "y" };
        for (int order = 1; order <= 2; ++order) {
            const auto sep = separate(e, names, order);
            const auto g = e.gradient(names, order);
            ASSERT_TRUE(g);
            std::vector<double> rows;
            for (double x : { 0.0, -0.0, 5e-324, 1.0, -2.0, 2.0, 1e300, 709.7, 0x1p64 })
                for (double y : { 0.0, -0.0, 3.0, -0x1p64,
                                  std::numeric_limits<double>::signaling_NaN() })
                    rows.insert(rows.end(), { x, y, 0.0 });
            EXPECT_EQ(compare(e, *g, sep, rows), "") << text;
            if (text == formulas[0]) {  // at (0, 2): the value and d/dy succeed, d/dx fails
                const double at[] = { 0.0, 2.0, 0.0 };
                double out[6];
                int codes[6];
                g->eval(at, out, codes);
                EXPECT_TRUE(codes[0] == 0 && codes[1] != 0 && codes[2] == 0) << order;
            }
        }
    }
}

// Nested chains, whose separate derivative trees repeat every inner level (at these depths
// they still fit the node budget), where the gradient shares its sub-trees, and a wide sum:
// the separate trees' bits and codes, at points that fail too (each output then runs by
// itself), and the same refusals.
TEST(Gradient, DeepChainsMatchSeparateDerivatives)
{
    struct Chain {
        const char* open;
        int depth;
    };
    const Chain chains[] = {
        { "exp(", 40 },
        { "sin(", 40 },
        { "y*exp(x*", 25 },  // products with both variables at every level
        { "pow(x, y*", 12 },  // variable exponents: the power rule's sum of both terms
        { "pow(", 12 },  // pow(pow(... x, 2), 2): a constant exponent, u' folded out when 1
        { "expm1(y+", 6 },  // copies its operand's derivative
        { "atan2(y, x*", 6 },  // copies both operands' derivatives
        { "y/(x+", 30 },  // quotients: the divisor first
        { "max(x, y*", 8 },  // comparisons, which refuse the second derivative
    };
    std::vector<std::string> texts;
    for (const Chain& c : chains)
        texts.push_back(nest(c.open, "x", c.depth));
    // The 5000 products, which the derivatives read again, stay alive: a program that wide
    // runs its points by the step interpreter.
    texts.push_back("0");
    for (int i = 1; i <= 5000; ++i)
        texts.back() += "+sin(x*" + std::to_string(i) + ")";
    std::mt19937 rng(5);
    const SharingFirst sharing;
    for (const std::string& text : texts) {
        OxelExpression e;
        declare(e);
        ASSERT_EQ(e.initFromString(text.c_str()), 1) << text;
        const std::vector<std::string> names { "x", "w" };
        for (int order = 1; order <= 2; ++order) {
            const auto sep = separate(e, names, order);
            const auto g = e.gradient(names, order);
            ASSERT_EQ(sep.empty(), g == nullptr) << text;
            ASSERT_TRUE(g || order == 2) << text;
            if (g) {
                EXPECT_EQ(compare(e, *g, sep, points(rng, e.numVars())), "")
                    << text << " order " << order;
            }
        }
    }
}

// A Hessian whose derivative trees exceed the node budget many times over (the first
// derivative alone holds about depth^2/2 nodes) is formed from shared sub-trees: sin nested
// 3000 deep against the chain rule's recurrence s' = cos(u) u', s'' = cos(u) u'' - sin(u) u'^2;
// exp nested as deep overflows from its fifth level on, in every output.
TEST(Gradient, HessianOfChainPastTheTreeBudget)
{
    const int depth = 3000;
    for (const char* f : { "sin(", "exp(" }) {
        OxelExpression e;
        e.addVar("x");
        ASSERT_EQ(e.initFromString(nest(f, "x", depth).c_str()), 1);
        EXPECT_FALSE(std::unique_ptr<OxelExpression>(e.partial("x"))) << f;
        const auto g = e.gradient({ "x" }, 2);
        ASSERT_TRUE(g) << f;
        double u = 0.5, du = 1.0, ddu = 0.0;
        for (int i = 0; i < depth; ++i) {
            ddu = std::cos(u) * ddu - std::sin(u) * du * du;
            du = std::cos(u) * du;
            u = std::sin(u);
        }
        double out[3];
        int codes[3];
        const double at[] = { 0.5 };
        g->eval(at, out, codes);
        if (f[0] == 'e') {
            for (int code : codes)
                EXPECT_EQ(code, OX_ERR_OVERFLOW);
            continue;
        }
        const double want[] = { u, du, ddu };
        for (int k = 0; k < 3; ++k) {
            EXPECT_EQ(codes[k], 0);
            EXPECT_NEAR(out[k], want[k], 1e-9 * std::fabs(want[k])) << k;
        }
    }
}

// The column program takes the sine and the cosine of one argument from one sincos: the same
// bits as the C library's sin and cos (which the separate expressions call), at special values,
// bit patterns of every magnitude, multiples of pi/4 and the benchmark's range.
TEST(Gradient, SineAndCosineFromOnePass)
{
    std::vector<double> args(kSpecial, kSpecial + kNumSpecial);
    std::mt19937_64 rng(11);
    for (int i = 0; i < 10000; ++i) {
        const uint64_t bits = rng();
        double v;
        std::memcpy(&v, &bits, sizeof v);
        args.push_back(v);
        args.push_back(std::ldexp(static_cast<double>(bits >> 11), -53) * 16.0 - 8.0);
    }
    for (int i = -400; i <= 400; ++i)
        args.push_back(i * 0.78539816339744830962);
    // Through pointers the compiler cannot see through, lest it fuse these into sincos too.
    double (*volatile sinFn)(double) = ::sin;
    double (*volatile cosFn)(double) = ::cos;
    for (double a : args) {
        double sn, cs;
        ::sincos(a, &sn, &cs);
        ASSERT_TRUE(sameBits(sn, sinFn(a)) && sameBits(cs, cosFn(a))) << a;
    }
    std::vector<double> rows;
    for (double a : args)
        rows.insert(rows.end(), { a, 0.5, 0.0 });
    for (const char* text : { "sin(x)", "cos(x)" }) {  // d/dx: cos(x) * 1, -sin(x) * 1
        OxelExpression e;
        declare(e);
        ASSERT_EQ(e.initFromString(text), 1);
        const auto g = e.gradient({ "x" });
        ASSERT_TRUE(g);
        EXPECT_EQ(compare(e, *g, separate(e, { "x" }, 1), rows), "") << text;
    }
}

// A Hessian too wide for the single-point program (more than its 64 registers): points take
// one row of the column program.
TEST(Gradient, WideProgramAtPoints)
{
    OxelExpression e;
    declare(e);
    ASSERT_EQ(e.initFromString("sin(x*y)*cos(y*z)*exp(x*z)*tanh(x+y+z)/(1+x*x+y*y+z*z)*"
                               "atan2(x,y)*hypot(x,z)"),
        1);
    const std::vector<std::string> names { "x", "y", "z" };
    const auto g = e.gradient(names, 2);
    ASSERT_TRUE(g);
    std::vector<double> rows;
    for (double x : { 0.0, 0.5, -1.5, 800.0 })
        for (double y : { 0.0, 2.0 })
            rows.insert(rows.end(), { x, y, 0.25 });
    EXPECT_EQ(compare(e, *g, separate(e, names, 2), rows), "");
}

// Threads share one gradient: each gets the separate expressions' bits and codes, at points and
// over columns large enough for the worker threads.
TEST(Gradient, ThreadsShareOneGradient)
{
    OxelExpression e;
    declare(e);
    ASSERT_EQ(e.initFromString("sqrt(x*x + y*y) / (1 + exp(-x*y)) + ln(z)"), 1);
    const std::vector<std::string> names { "x", "y", "z" };
    const auto g = e.gradient(names, 2);
    ASSERT_TRUE(g);
    const auto sep = separate(e, names, 2);
    std::vector<double> rows(3 * 70000);
    for (size_t i = 0; i < rows.size(); ++i)
        rows[i] = std::sin(static_cast<double>(i)) * 3.0;  // negative z fails in ln
    std::vector<std::string> got(4, "not run");
    std::vector<std::thread> threads;
    for (size_t t = 0; t < got.size(); ++t)
        threads.emplace_back([&, t] { got[t] = compare(e, *g, sep, rows); });
    for (std::thread& t : threads)
        t.join();
    EXPECT_EQ(got, std::vector<std::string>(4, ""));
}

// Null, with the reason, where a partial derivative is null or the request is bad; bad batch
// arguments are refused.
TEST(Gradient, NullCasesAndBadArguments)
{
    const std::string chain25 = nest("exp(", "x", 25);
    const struct {
        const char* formula;
        std::vector<std::string> names;
        int order;
        const char* why;  // a part of the reason
    } rows[] = {
        { "x % 2 + y", { "x" }, 1, "no derivative by 'x'" },  // the modulo refuses
        { "a = x; a * y", { "x" }, 1, "no derivative by 'x'" },  // several statements
        { "x * y", { "y", "q" }, 1, "unknown variable 'q'" },  // misspelt: no silent zero
        { "x * y", { "x" }, 3, "order" },
        { "x * y", { "x" }, 0, "order" },
        { "floor(x) + y", { "y", "x" }, 2, "by 'x'" },  // only the second derivative refuses
        { "y + (x < y)", { "x" }, 1, "'x < y' has no derivative" },  // no rule, nothing printed
        // Even shared, each level of the derivative copies its exp node (2 nodes with its
        // operand, which stays shared): 50 of them.
        { chain25.c_str(), { "x" }, 2, "node budget (40," },
    };
    int messages = 0;
    {
        const CountMessages counting(&messages);
        const Budget small(40);
        for (const auto& row : rows) {
            OxelExpression e;
            declare(e);
            ASSERT_EQ(e.initFromString(row.formula), 1);
            std::string why;
            EXPECT_FALSE(e.gradient(row.names, row.order, &why)) << row.formula;
            EXPECT_NE(why.find(row.why), std::string::npos) << row.formula << ": " << why;
        }
    }
    EXPECT_EQ(messages, 0);
    OxelExpression e;
    declare(e);
    ASSERT_EQ(e.initFromString("x * y"), 1);
    const auto g = e.gradient({ "x", "y" }, 2);
    ASSERT_TRUE(g);
    EXPECT_EQ(g->numOutputs(), 6);
    double col[1] = { 1.0 };
    const double* cols[] = { col, col, col };
    double o[6][1];
    int c[6][1];
    double* outs[] = { o[0], o[1], o[2], o[3], o[4], nullptr };
    int* codes[] = { c[0], c[1], c[2], c[3], c[4], c[5] };
    EXPECT_EQ(g->evalBatchColumns(cols, 1, outs, codes), -1);
    outs[5] = o[5];
    EXPECT_EQ(g->evalBatchColumns(cols, -1, outs, codes), -1);
    EXPECT_EQ(g->evalBatchColumns(nullptr, 1, outs, codes), -1);
    EXPECT_EQ(g->evalBatchColumns(cols, 1, outs, codes), 0);
    EXPECT_EQ(o[4][0], 1.0);  // d2/dxdy of x*y
}

namespace {

int calls = 0;

// f(a, b) = sin(a) * b^2 and its partial derivatives along the marks.
double field(const void*, int component, int nDiff, const int* dims, const double* args)
{
    ++calls;
    int da = 0, db = 0;
    for (int i = 0; i < nDiff; ++i)
        (dims[i] == 0 ? da : db)++;
    const double a = args[0], b = args[1];
    const double fa[] = { std::sin(a), std::cos(a), -std::sin(a) };
    const double fb[] = { b * b, 2 * b, 2.0, 0.0 };
    return (component + 1) * fa[da % 3] * fb[db];
}

}  // namespace

// Dependent variables: each distinct call once per point in the shared program, the results
// those of the separate expressions.
TEST(Gradient, DependentVariablesWithDerivatives)
{
    OxDepVarnode f("f", field, nullptr);
    f.setUp(2, 2, 3, nullptr, nullptr);
    OxelExpression e;
    declare(e);
    Oxel* args[]
        = { new OxMal(new OxVar(0, "x"), new OxVar(1, "y")), new OxSqroot(new OxVar(1, "y")) };
    Oxel* again[]
        = { new OxMal(new OxVar(0, "x"), new OxVar(1, "y")), new OxSqroot(new OxVar(1, "y")) };
    e.setRoot(new OxPlus(new OxDepVar(&f, 1, 0, nullptr, args),
        new OxMal(new OxVar(0, "x"), new OxDepVar(&f, 1, 0, nullptr, again))));
    const std::vector<std::string> names { "x", "w" };
    for (int order = 1; order <= 2; ++order) {
        const auto sep = separate(e, names, order);
        const auto g = e.gradient(names, order);
        ASSERT_TRUE(g);
        std::mt19937 rng(5);
        EXPECT_EQ(compare(e, *g, sep, points(rng, 3)), "") << order;
        const double at[] = { 0.5, 2.0, 0.0 };
        std::vector<double> out(static_cast<size_t>(g->numOutputs()));
        std::vector<int> codes(out.size());
        calls = 0;
        g->eval(at, out.data(), codes.data());
        // Distinct calls: f, f_a, f_b (order 1), and f_aa, f_ab, f_ba, f_bb (order 2; the
        // marks' order is kept apart).
        EXPECT_EQ(calls, order == 1 ? 3 : 7);
    }
}

// The C interface: the bits and codes of the C++ object (which the tests above check against
// the separate derivatives), at a point and over columns, and its refusals.
TEST(Gradient, CInterfaceRoundTrip)
{
    const char* text = "exp(x*y) / (1 + x)";
    oxel_expr* e = oxel_expr_new();
    oxel_expr_add_var(e, "x");
    oxel_expr_add_var(e, "y");
    ASSERT_EQ(oxel_expr_parse(e, text), 1);
    const char* names[] = { "x", "y" };
    EXPECT_EQ(oxel_expr_gradient(e, names, 2, 3), nullptr);
    EXPECT_EQ(oxel_expr_gradient(e, nullptr, 2, 1), nullptr);
    oxel_grad* g = oxel_expr_gradient(e, names, 2, 2);
    ASSERT_NE(g, nullptr);
    ASSERT_EQ(oxel_grad_outputs(g), 6);
    OxelExpression ref;
    declare(ref);
    ASSERT_EQ(ref.initFromString(text), 1);
    const double at[] = { 0.5, 2.0, 0.0 }, x[] = { 0.5 }, y[] = { 2.0 };
    const double* cols[] = { x, y };
    double out[6], colOut[6], want[6];
    int codes[6], colCodes[6], wantCodes[6];
    double* outs[6];
    int* codep[6];
    for (int k = 0; k < 6; ++k) {
        outs[k] = &colOut[k];
        codep[k] = &colCodes[k];
    }
    oxel_grad_eval(g, at, out, codes);
    ref.gradient({ "x", "y" }, 2)->eval(at, want, wantCodes);
    EXPECT_EQ(oxel_grad_eval_columns(g, cols, 1, outs, codep), 0);
    EXPECT_EQ(oxel_grad_eval_columns(g, nullptr, 1, outs, codep), -1);
    for (int k = 0; k < 6; ++k) {
        EXPECT_TRUE(bitsEqual(out[k], want[k]) && bitsEqual(colOut[k], want[k])) << k;
        EXPECT_TRUE(codes[k] == wantCodes[k] && colCodes[k] == wantCodes[k]) << k;
    }
    oxel_grad_free(g);
    oxel_expr_free(e);
}
