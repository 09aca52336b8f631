// The normal form (canonical, idempotent, value-preserving) and the C and LaTeX printers.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include <oxel/oxel.h>

#include "node_probe.h"

namespace {

using Expr = std::unique_ptr<OxelExpression>;

// text over x, y, z, or over the names of like (internal ones included: a derivative reads
// an assigned name without assigning it).
Expr parsed(const std::string& text, OxelExpression* like = nullptr)
{
    Expr e(new OxelExpression);
    static const char* const xyz[] = {"x", "y", "z"};
    for (int i = 0; i < (like ? like->numVars() : 3); ++i)
        e->addVar(like ? like->varName(static_cast<unsigned>(i)) : xyz[i]);
    return Expr(e->initFromString(text.c_str()) ? e.release() : nullptr);
}

std::string normal(const std::string& text)
{
    Expr e = parsed(text);
    Expr n(e ? e->normalized() : nullptr);
    return n ? n->toFormula().c_str() : "(does not parse)";
}

// Formulas whose value may jump when rounding moves an operand by an ulp.
bool jumps(const std::string& text)
{
    for (const char* w : {"%", "|", "&", "^", "<", ">", "=", "!", "floor", "ceil", "rint", "trunc",
                          "sgn", "fmod", "drem", "copysign", "max", "min", "jn", "yn", "1e308"})
        if (text.find(w) != std::string::npos)
            return true;
    return false;
}

}  // namespace

// Rows that must normalize to the same text, each with the identity it rests on.
TEST(Normal, EqualFormsPrintTheSame)
{
    const struct { const char *a, *b; } rows[] = {
        {"x*y", "y*x"},                      // commutative, canonical order
        {"2*x + x", "3*x"},                  // like terms
        {"x*1 + 0", "x"},                    // neutral elements
        {"pow(x, 1)", "x"},
        {"- -x", "x"},                       // double negation
        {"0 - x", "-x"},
        {"x/1", "x"},
        {"2*x/(2*y)", "x/y"},                // numeric content cancels
        {"(x - y)/(y - x)", "-1"},           // sign of a sum as content
        {"pow(x + 1, 0.5)", "sqrt(x + 1)"},
        {"pow(x, -2)", "1/(x*x)"},           // negative powers as quotients
        {"x*x*x", "pow(x, 3)"},              // equal factors as powers
        {"sqrt(x)*sqrt(x)", "x"},
        {"cbrt(x)*cbrt(x)", "cbrt(x*x)"},
        {"sin(0) + exp(0)*x", "x"},          // whole-valued functions of numbers fold
        {"x/3 + x/3", "2*x/3"},              // p/q coefficients read back to the same double
        {"(x + y)*z - z*y", "x*z"},          // a product with one sum is multiplied out in sums
        {"2*(x + y)", "2*x + 2*y"},          // a number is distributed over a sum
        {"pow(x*y, 2)", "x*x*y*y"},          // whole powers distribute over products
        {"ln(x)*ln(x) + sin(y + x)", "sin(x + y) + pow(ln(x), 2)"},
        {"x/(x*x/0)", "0/x"},                // 1/0 kept apart, then cancelled: 0 either way
    };
    for (const auto& r : rows)
        EXPECT_EQ(normal(r.a), normal(r.b)) << r.a << " versus " << r.b;
    // Two draws are two values, and an assignment keeps its place before the reading term.
    EXPECT_EQ(normal("rand() + rand()"), "rand() + rand()");
    EXPECT_EQ(normal("(t = x) + t*0 + t"), "(t = x) + t");
    // Operands of opaque nodes are normalized where they stand.
    EXPECT_EQ(normal("(x*1 < 0 + y) + floor(x + x)"), normal("(x < y) + floor(2*x)"));
}

// Numbers are folded only where their folded value keeps the formula's: at each point the
// formula is finite without a code, and so must its normal form be, within rounding.
TEST(Normal, NoOverflowOrUnderflowFromFolding)
{
    const struct {
        const char* text;
        double x, y;
    } rows[] = {
        {"x*1e308 + x*1e308", 0.5, 0},  // 2e308 * x overflows for every x
        {"x*1e200*1e200*y", 1e-200, 1},  // so does 1e400
        {"x*1e308*2", 0.5, 0},
        {"1e200 * (1e200*x + y)", 1e-200, 1},  // distributing the factor
        {"x*1e-200*1e-200", 1e200, 0},  // 1e-400 is 0
        {"x*1e-160*1e-160", 1e160, 0},  // 1e-320 is subnormal
        {"x/1e-200/1e-200 + y", 1e-300, 1},
        {"x*1e308 + x*1e308 + y*x", 0.5, 1},  // like terms kept apart stay apart in print
    };
    for (const auto& r : rows) {
        Expr e = parsed(r.text);
        ASSERT_TRUE(e);
        Expr n(e->normalized());
        ASSERT_TRUE(n);
        int code;
        const double want = evalAt(*e, {r.x, r.y}, code);
        ASSERT_EQ(code, 0) << r.text;
        const double got = evalAt(*n, {r.x, r.y}, code);
        EXPECT_EQ(code, 0) << r.text << " -> " << n->toFormula().c_str();
        EXPECT_NEAR(got, want, std::fabs(want) * 1e-15) << r.text;
        Expr again(n->normalized());  // and normalizing again changes nothing
        EXPECT_STREQ(again->toFormula().c_str(), n->toFormula().c_str());
    }
}

// Random formulas over the whole language and their derivatives: the normal form reads back,
// normalizing it again changes nothing, and it evaluates to the same values within rounding
// wherever both evaluate without an error (formulas that jump at rounding are exempt there).
TEST(Normal, IdempotentAndValuePreserving)
{
    std::mt19937 rng(99);
    std::uniform_real_distribution<double> coord(-3, 3);
    int compared = 0;
    for (int i = 0; i < 600; ++i) {
        std::string text = randomFormula(rng, 1 + i % 4, false);
        Expr e = parsed(text);
        if (!e)
            continue;
        Expr d(i % 2 ? e->derivative("x") : nullptr);
        for (OxelExpression* f : {e.get(), d.get()}) {
            if (!f)
                continue;
            Expr n(f->normalized());
            std::string once = n->toFormula().c_str();
            ASSERT_NE(once, "") << text;
            Expr back = parsed(once, f);
            ASSERT_TRUE(back) << text << " -> " << once;
            Expr twice(back->normalized());
            EXPECT_EQ(once, twice->toFormula().c_str()) << text;
            for (int p = 0; p < 4; ++p) {
                double x = coord(rng), y = coord(rng), z = coord(rng);
                int ea, eb;
                double a = evalAt(*f, {x, y, z}, ea), b = evalAt(*n, {x, y, z}, eb);
                if (ea || eb || !std::isfinite(a) || !std::isfinite(b) || jumps(text))
                    continue;
                ++compared;
                EXPECT_LE(std::fabs(a - b), 1e-9 * (1 + std::fabs(a) + std::fabs(b)))
                    << text << "\nnormal: " << once << "\nat " << x << ", " << y << ", " << z;
            }
        }
    }
    EXPECT_GT(compared, 300);
}

namespace {

// Smooth formulas and the language's own operators, each written as C.
const char* const kCFormulas[] = {
    "sqrt(x*x + y*y)*(1 + exp(-x*y))", "pow(x, 3)*y - x/3", "sin(x)*cos(y)/(1 + x*x)",
    "ln(x*x + 1) + log10(y*y + 2) + atan2(x, y)", "tanh(x) + asinh(y) + cbrt(x - y)",
    "erf(x) + erfc(y) + expm1(x/4) + abs(x - y)", "sgn(x) + sgn(y - y) + ceil(x) + floor(y)",
    "x % 1.5 + (-7) % 3", "(x*8 | 3) + (x*8 & 6) + (x*8 ^ 5) + (3 << y*2) + (-64 >> 2)",
    "(x < y) + (x >= y)*2 + (x == x) + (x != y) + (x > 0 && y > 0) + (x > 0 || y > 0) + !x",
    "hypot(x, y) + max(x, y) - min(x, y) + fmod(x, 0.7) + drem(y, 0.7) + copysign(2, x)",
    "rint(x*3) + trunc(y*3) + j0(x) + y1(abs(y) + 1) + jn(2, x) + yn(1.4, abs(x) + 1)",
    "-x*-y - -3", "1/3 + x/7",
};

// Builds f.c and main.c with gcc -std=c99 -Wall -Werror, each by itself, runs the program and
// gives the numbers it printed a line each; on failure the files stay for a look.
std::vector<double> runC(const std::string& f, const std::string& main)
{
    char dir[] = "/tmp/oxel-c-XXXXXX";
    if (!mkdtemp(dir))
        return {};
    const std::string base = dir;
    std::ofstream(base + "/f.c") << f;
    std::ofstream(base + "/main.c") << main;
    const std::string build = "gcc -std=c99 -Wall -Werror -o " + base + "/f " + base + "/f.c " +
                              base + "/main.c -lm && " + base + "/f > " + base + "/out";
    std::vector<double> out;
    if (std::system(build.c_str()) != 0) {
        ADD_FAILURE() << "does not build or run: " << base;
        return out;
    }
    std::ifstream printed(base + "/out");
    for (std::string line; std::getline(printed, line);)
        out.push_back(std::strtod(line.c_str(), nullptr));
    std::system(("rm -rf " + base).c_str());
    return out;
}

}  // namespace

// What oxelToC and oxelToCFunction write compiles with gcc -std=c99 -Wall -Werror and computes
// eval's values: formulas at ordinary points, and functions of formulas whose variables C
// reserves (parameters in declaration order, assigned names local).
TEST(PrintC, CompilesAndAgreesWithEval)
{
    if (std::system("gcc --version >/dev/null 2>&1") != 0)
        GTEST_SKIP() << "gcc not found";
    std::vector<std::string> formulas(std::begin(kCFormulas), std::end(kCFormulas));
    std::mt19937 rng(5);
    for (int i = 0; i < 40; ++i) {  // the derivatives' normal forms, and random formulas
        Expr e = parsed(kCFormulas[i % 6]);  // the smooth ones
        Expr n(e->derivative(i % 2 ? "x" : "y"));
        Expr m(n->normalized());
        formulas.push_back(i < 8 ? m->toFormula().c_str() : randomFormula(rng, 3, false));
    }
    const struct {
        std::vector<const char*> vars;
        const char* text;
    } functions[] = {
        {{"fabs", "int", "log", "remainder", "log_"}, "abs(fabs) + int*log - remainder + log_"},
        {{"INFINITY", "NAN", "RAND_MAX", "sinf", "M_PI"},
         "INFINITY*2 + NAN - RAND_MAX/sinf + M_PI"},
        {{"x", "y"}, "t = x*2; u = t + y; u*t"},  // t and u are no parameters
        {{"double", "x"}, "x = x + double; x*3"},  // a parameter assigned
        {{"x"}, "q = x + 1"},                      // the last statement assigns
        {{}, "1 + 2"},                             // no parameter
    };
    const double points[][2] = {{0.7, 1.3}, {-1.9, 0.4}, {2.5, -2.2}};
    const double values[] = {1.5, -0.25, 2.0, 0.75, 3.0};
    std::ostringstream src, main;
    src << "#define _XOPEN_SOURCE 700\n#include <math.h>\n#include <stdlib.h>\n";
    main << "#include <stdio.h>\n";
    std::vector<Expr> exprs;
    for (size_t i = 0; i < formulas.size(); ++i) {
        exprs.push_back(parsed(formulas[i]));
        ASSERT_TRUE(exprs.back()) << formulas[i];
        std::string c = exprs.back()->toC().c_str();
        if (c.empty() && formulas[i].find("(a = ") != std::string::npos) {
            exprs.back() = parsed("a = 0; 0");  // an assignment inside an expression: none
            c = exprs.back()->toC().c_str();
        }
        ASSERT_NE(c, "") << formulas[i];
        src << "double f" << i << "(double x, double y, double z) { double a = 0; "
            << "(void)x; (void)y; (void)z; (void)a; return " << c << "; }\n";
        main << "double f" << i << "(double, double, double);\n";
    }
    std::vector<double> want;  // the functions' values
    for (size_t i = 0; i < std::size(functions); ++i) {
        OxelExpression e;
        for (const char* v : functions[i].vars)
            e.addVar(v);
        ASSERT_EQ(e.initFromString(functions[i].text), 1) << functions[i].text;
        const std::string name = "g" + std::to_string(i), f = e.toCFunction(name.c_str()).c_str();
        ASSERT_NE(f, "") << functions[i].text;
        src << f;
        std::string params, args;
        for (size_t k = 0; k < functions[i].vars.size(); ++k) {
            params += k ? ", double" : "double";
            args += (k ? ", " : "") + std::to_string(values[k]);
        }
        main << "double " << name << "(" << (params.empty() ? "void" : params) << ");\n"
             << "static double v" << i << "(void) { return " << name << "(" << args << "); }\n";
        int err = 0;
        want.push_back(evalAt(e, std::vector<double>(values, values + functions[i].vars.size()),
                              err));
        EXPECT_EQ(err, 0) << functions[i].text;
    }
    main << "int main(void) {\n  static const double p[][2] = {";
    for (const auto& p : points)
        main << "{" << p[0] << ", " << p[1] << "}, ";
    main << "};\n  for (int k = 0; k < " << std::size(points) << "; ++k) {\n";
    for (size_t i = 0; i < formulas.size(); ++i)
        main << "    printf(\"%.17g\\n\", f" << i << "(p[k][0], p[k][1], 0.5));\n";
    main << "  }\n";
    for (size_t i = 0; i < std::size(functions); ++i)
        main << "  printf(\"%.17g\\n\", v" << i << "());\n";
    main << "  return 0;\n}\n";
    const std::vector<double> out = runC(src.str(), main.str());
    const size_t n = std::size(points) * formulas.size();
    ASSERT_EQ(out.size(), n + std::size(functions));
    for (size_t k = 0; k < n; ++k) {
        const auto& p = points[k / formulas.size()];
        const size_t i = k % formulas.size();
        int err;
        const double want = evalAt(*exprs[i], {p[0], p[1], 0.5}, err), got = out[k];
        if (err || (std::isnan(want) && std::isnan(got)))
            continue;  // the guards are not reproduced
        EXPECT_LE(std::fabs(got - want), 1e-12 * (1 + std::fabs(want)))
            << formulas[i] << "\nC: " << exprs[i]->toC().c_str() << "\nat " << p[0] << ", " << p[1];
    }
    EXPECT_EQ(std::vector<double>(out.begin() + static_cast<long>(n), out.end()), want);
    // The expression form renames alike; a name that is no identifier or is reserved is refused.
    OxelExpression e;
    e.addVar("fabs");
    ASSERT_EQ(e.initFromString("abs(fabs)"), 1);
    EXPECT_STREQ(e.toC().c_str(), "fabs(fabs_)");
    for (const char* bad : {"int", "sin", "1f", ""})
        EXPECT_STREQ(e.toCFunction(bad).c_str(), "") << bad;
}

// LaTeX of random formulas and their normal forms: braces and \left/\right pair up; what C
// and LaTeX cannot express gives an empty text rather than a wrong one.
TEST(PrintLatex, BalancedAndEmptyWhereInexpressible)
{
    std::mt19937 rng(11);
    for (int i = 0; i < 300; ++i) {
        std::string text = randomFormula(rng, 1 + i % 4, false);
        Expr e = parsed(text);
        if (!e)
            continue;
        std::string t = e->toLatex().c_str();
        ASSERT_NE(t, "") << text;
        int depth = 0, lr = 0;
        for (size_t k = 0; k < t.size(); ++k) {
            if (t[k] == '\\' && k + 1 < t.size() && (t[k + 1] == '{' || t[k + 1] == '}')) {
                ++k;  // an escaped brace is text
                continue;
            }
            depth += t[k] == '{' ? 1 : t[k] == '}' ? -1 : 0;
            ASSERT_GE(depth, 0) << t;
            lr += t.compare(k, 5, "\\left") == 0 ? 1 : t.compare(k, 6, "\\right") == 0 ? -1 : 0;
        }
        EXPECT_EQ(depth, 0) << t;
        EXPECT_EQ(lr, 0) << t;
    }
    Expr g = parsed("gauss() + x");
    EXPECT_STREQ(g->toC().c_str(), "");
    EXPECT_STREQ(g->toLatex().c_str(), "\\mathrm{gauss}() + x");
    EXPECT_STREQ(parsed("sqrt(x)/2")->toLatex().c_str(), "\\frac{\\sqrt{x}}{2}");
}
