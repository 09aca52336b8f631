// The benchmark's formula suite and the points it is evaluated on.
#include "suite.h"

#include <cmath>
#include <cstddef>
#include <cstdio>
#include <algorithm>

#include "nodes/kernels.h"

namespace oxbench {

// Hand-written evaluation: the same guarded kernels in the same order as the tree, inlined
// into the loop. This is the limit a formula compiler could reach.
template <class F>
inline void nativeLoop(F f, const double* rows, int stride, const double* const* columns, int n,
                       double* res, int* err)
{
    if (columns) {
        for (int r = 0; r < n; ++r) {
            double p[kDeclared];
            for (int i = 0; i < kDeclared; ++i)
                p[i] = columns[i][r];
            int e = 0;
            res[r] = f(p, e);
            err[r] = e;
        }
        return;
    }
    for (int r = 0; r < n; ++r) {
        int e = 0;
        res[r] = f(rows + static_cast<size_t>(r) * static_cast<size_t>(stride), e);
        err[r] = e;
    }
}

#define NATIVE_VALUES                                                                  \
    [[maybe_unused]] const double x = p[0], y = p[1], z = p[2], w = p[3];              \
    [[maybe_unused]] const double u = p[4], v = p[5], s = p[6], t = p[7];
#define NATIVE_LOOP(body)                                                                  \
    [](const double* rows, int stride, const double* const* cols, int n, double* res, int* err) { \
        nativeLoop(                                                                        \
            [](const double* p, int& e) -> double {                                        \
                NATIVE_VALUES                                                              \
                (void)e;                                                                   \
                body                                                                       \
            },                                                                             \
            rows, stride, cols, n, res, err);                                              \
    }
// The loop, then the same formula as a function of one point (Formula::point).
#define NATIVE(body)                                                                       \
    NATIVE_LOOP(body), [](const double* p, int* code) -> double {                          \
        NATIVE_VALUES                                                                      \
        [[maybe_unused]] int& e = *code;                                                   \
        body                                                                               \
    }

using namespace oxk;

// The C library's pow on the same points: what a power costs without the powl rule.
#define LIBM(body) NATIVE_LOOP(return body;)

const Formula kSuite[] = {
    {"add", "x + y", "x + y", "x+y", NATIVE(return eval_OxPlus(x, y, e);)},
    {"mul-add", "x * y + z", "x * y + z", "x*y+z",
     NATIVE(return eval_OxPlus(eval_OxMal(x, y, e), z, e);)},
    {"rational", "(x + y) * (x - y) / (z + 1)", "(x + y) * (x - y) / (z + 1)",
     "(x+y)*(x-y)/(z+1)", NATIVE(double d = eval_OxPlus(z, 1, e);
                                 double m = eval_OxMal(eval_OxPlus(x, y, e), eval_OxMinus(x, y, e), e);
                                 return eval_OxDurch(m, d, e);)},
    {"modulo", "x % y + z", nullptr, "x%y+z",
     NATIVE(return eval_OxPlus(eval_OxModulo(x, y, e), z, e);)},
    {"pow const 2", "pow(x, 2)", "x^2", "x^2", NATIVE(return eval_OxHoch(x, 2, e);),
     LIBM(std::pow(x, 2.0))},
    {"pow const 3.5", "pow(x, 3.5)", "x^3.5", "x^3.5", NATIVE(return eval_OxHoch(x, 3.5, e);),
     LIBM(std::pow(x, 3.5))},
    {"pow var", "pow(x, y)", "x^y", "x^y", NATIVE(return eval_OxHoch(x, y, e);),
     LIBM(std::pow(x, y))},
    {"pow const base", "pow(2.5, x)", "2.5^x", "2.5^x", NATIVE(return eval_OxHoch(2.5, x, e);),
     LIBM(std::pow(2.5, x))},
    {"pow int 3", "pow(x, 3)", "x^3", "x^3", NATIVE(return eval_OxHoch(x, 3, e);),
     LIBM(std::pow(x, 3.0))},
    {"pow int -2", "pow(x, -2)", "x^(-2)", "x^(-2)", NATIVE(return eval_OxHoch(x, -2, e);),
     LIBM(std::pow(x, -2.0))},
    {"pow int 10", "pow(x, 10)", "x^10", "x^10", NATIVE(return eval_OxHoch(x, 10, e);),
     LIBM(std::pow(x, 10.0))},
    {"pow base 1.7", "pow(1.7, x)", "1.7^x", "1.7^x", NATIVE(return eval_OxHoch(1.7, x, e);),
     LIBM(std::pow(1.7, x))},
    {"sqrt", "sqrt(x * x + y * y)", "sqrt(x * x + y * y)", "sqrt(x*x+y*y)",
     NATIVE(return eval_OxSqroot(eval_OxPlus(eval_OxMal(x, x, e), eval_OxMal(y, y, e), e), e);)},
    {"trig", "sin(x) * cos(y)", "sin(x) * cos(y)", "sin(x)*cos(y)",
     NATIVE(return eval_OxMal(eval_OxSinus(x), eval_OxCosinus(y), e);)},
    {"gauss bell", "exp(-x * x / 2)", "exp(-x * x / 2)", "exp(-x*x/2)",
     NATIVE(double q = eval_OxMal(eval_OxMal(-1.0, x, e), x, e);
            return eval_OxExp(eval_OxDurch(q, 2, e), e);)},
    {"logs", "ln(x) + log10(y)", "ln(x) + log10(y)", "log(x)+log10(y)",
     NATIVE(return eval_OxPlus(eval_OxLn(x, e), eval_OxLog10(y, e), e);)},
    {"atan2", "atan2(y, x) + atan(z)", "atan2(y, x) + atan(z)", "atan2(y,x)+atan(z)",
     NATIVE(return eval_OxPlus(eval_OxArctan2(y, x, e), eval_OxArctan(z), e);)},
    {"hyperbolic", "sinh(x) + cosh(y) - tanh(z)", "sinh(x) + cosh(y) - tanh(z)",
     "sinh(x)+cosh(y)-tanh(z)",
     NATIVE(double a = eval_OxPlus(eval_OxSinh(x, e), eval_OxCosh(y), e);
            return eval_OxMinus(a, eval_OxTanh(z), e);)},
    {"inverse trig", "asin(x / 3) + acos(y / 4)", "asin(x / 3) + acos(y / 4)",
     "asin(x/3)+acos(y/4)",
     NATIVE(return eval_OxPlus(eval_OxArcsin(eval_OxDurch(x, 3, e), e),
                               eval_OxArccos(eval_OxDurch(y, 4, e), e), e);)},
    {"inverse hyperbolic", "asinh(x) + acosh(y + 1) + atanh(z / 3)",
     "asinh(x) + acosh(y + 1) + atanh(z / 3)", "asinh(x)+acosh(y+1)+atanh(z/3)",
     NATIVE(double a = eval_OxPlus(eval_OxArcsinh(x), eval_OxArccosh(eval_OxPlus(y, 1, e), e), e);
            return eval_OxPlus(a, eval_OxArctanh(eval_OxDurch(z, 3, e), e), e);)},
    {"error function", "erf(x) + erfc(y)", nullptr, nullptr,
     NATIVE(return eval_OxPlus(eval_OxErf(x), eval_OxErfc(y), e);)},
    {"rounding", "floor(x * 3) + ceil(y) + abs(z - 1)", nullptr, "floor(x*3)+ceil(y)+abs(z-1)",
     NATIVE(double a = eval_OxPlus(eval_OxFloor(eval_OxMal(x, 3, e)), eval_OxCeil(y), e);
            return eval_OxPlus(a, eval_OxBetrag(eval_OxMinus(z, 1, e)), e);)},
    {"hypot cbrt", "hypot(x, y) + cbrt(z)", nullptr, "hypot(x,y)+cbrt(z)",
     NATIVE(return eval_OxPlus(eval_OxHypot(x, y), eval_OxCbroot(z), e);)},
    {"min max", "max(x, y) - min(y, z)", "max(x, y) - min(y, z)", "max(x,y)-min(y,z)",
     NATIVE(return eval_OxMinus(eval_OxMax(x, y), eval_OxMin(y, z), e);)},
    {"logic", "x < y && y < z || x > 1.5", "x < y && y < z || x > 1.5", "x<y & y<z | x>1.5",
     NATIVE(double a = eval_OxAnd(eval_OxLess(x, y), eval_OxLess(y, z));
            return eval_OxOr(a, eval_OxGreater(x, 1.5));)},
    {"comparisons", "(x >= y) + (x <= z) * 2 + (x == w)", "(x >= y) + (x <= z) * 2 + (x == w)",
     "(x>=y)+(x<=z)*2+(x=w)",
     NATIVE(double a = eval_OxPlus(eval_OxGreaterEqual(x, y),
                                   eval_OxMal(eval_OxLessEqual(x, z), 2, e), e);
            return eval_OxPlus(a, eval_OxEqual(x, w), e);)},
    {"bitwise", "((x * 100) << 3 | (y * 100)) & 255", nullptr, nullptr,
     NATIVE(double a = eval_OxShiftLeft(eval_OxMal(x, 100, e), 3);
            double b = eval_OxBitOr(a, eval_OxMal(y, 100, e));
            return eval_OxBitAnd(b, 255);)},
    {"assignments", "a = x * y; b = a + z; a * b - a / (b + 1)",
     "a = x * y, b = a + z, a * b - a / (b + 1)", "a := x*y; b := a+z; a*b - a/(b+1)",
     NATIVE(double a = eval_OxMal(x, y, e); int e2 = 0; double b = eval_OxPlus(a, z, e2);
            if (e == 0) e = e2; int e3 = 0; double m = eval_OxMal(a, b, e3);
            double d = eval_OxPlus(b, 1, e3); double q = eval_OxDurch(a, d, e3);
            double r = eval_OxMinus(m, q, e3); if (e == 0) e = e3; return r;)},
    {"many variables", "x * y + z * w + u * v + s * t - x / t", "x * y + z * w + u * v + s * t - x / t",
     "x*y+z*w+u*v+s*t-x/t",
     NATIVE(double a = eval_OxPlus(eval_OxMal(x, y, e), eval_OxMal(z, w, e), e);
            a = eval_OxPlus(a, eval_OxMal(u, v, e), e);
            a = eval_OxPlus(a, eval_OxMal(s, t, e), e);
            return eval_OxMinus(a, eval_OxDurch(x, t, e), e);)},
    {"polynomial", "x * x * x - 3 * x * x * y + 2 * x * y * y - y * y * y + z * z - w",
     "x * x * x - 3 * x * x * y + 2 * x * y * y - y * y * y + z * z - w",
     "x*x*x-3*x*x*y+2*x*y*y-y*y*y+z*z-w",
     NATIVE(double a = eval_OxMal(eval_OxMal(x, x, e), x, e);
            a = eval_OxMinus(a, eval_OxMal(eval_OxMal(eval_OxMal(3, x, e), x, e), y, e), e);
            a = eval_OxPlus(a, eval_OxMal(eval_OxMal(eval_OxMal(2, x, e), y, e), y, e), e);
            a = eval_OxMinus(a, eval_OxMal(eval_OxMal(y, y, e), y, e), e);
            a = eval_OxPlus(a, eval_OxMal(z, z, e), e);
            return eval_OxMinus(a, w, e);)},
    {"horner", "((((0.5 * x - 1.5) * x + 2.25) * x - 3) * x + 1) * x - 7",
     "((((0.5 * x - 1.5) * x + 2.25) * x - 3) * x + 1) * x - 7",
     "((((0.5*x-1.5)*x+2.25)*x-3)*x+1)*x-7",
     NATIVE(double a = eval_OxMinus(eval_OxMal(0.5, x, e), 1.5, e);
            a = eval_OxPlus(eval_OxMal(a, x, e), 2.25, e);
            a = eval_OxMinus(eval_OxMal(a, x, e), 3, e);
            a = eval_OxPlus(eval_OxMal(a, x, e), 1, e);
            return eval_OxMinus(eval_OxMal(a, x, e), 7, e);)},
    {"constant parts", "x * (2 / 3) + y * (1 / 7) - sqrt(2) * z + 4 * 0.25",
     "x * (2 / 3) + y * (1 / 7) - sqrt(2) * z + 4 * 0.25", "x*(2/3)+y*(1/7)-sqrt(2)*z+4*0.25",
     NATIVE(double a = eval_OxPlus(eval_OxMal(x, 2.0 / 3.0, e), eval_OxMal(y, 1.0 / 7.0, e), e);
            a = eval_OxMinus(a, eval_OxMal(std::sqrt(2.0), z, e), e);
            return eval_OxPlus(a, 1.0, e);)},
    // Repeated subexpressions: the program computes each once, as a compiler would.
    {"shared root", "sqrt(x * x + y * y) / (1 + sqrt(x * x + y * y))",
     "sqrt(x * x + y * y) / (1 + sqrt(x * x + y * y))", "sqrt(x*x+y*y)/(1+sqrt(x*x+y*y))",
     NATIVE(double r = eval_OxSqroot(eval_OxPlus(eval_OxMal(x, x, e), eval_OxMal(y, y, e), e), e);
            return eval_OxDurch(r, eval_OxPlus(1, r, e), e);)},
    {"shared wave", "exp(-x * x) * sin(x * y) + exp(-x * x) * cos(x * y)",
     "exp(-x * x) * sin(x * y) + exp(-x * x) * cos(x * y)",
     "exp(-x*x)*sin(x*y)+exp(-x*x)*cos(x*y)",
     NATIVE(double g = eval_OxExp(eval_OxMal(eval_OxMal(-1.0, x, e), x, e), e);
            double xy = eval_OxMal(x, y, e);
            return eval_OxPlus(eval_OxMal(g, eval_OxSinus(xy), e), eval_OxMal(g, eval_OxCosinus(xy), e),
                               e);)},
    {"long", "sin(x) * cos(y) + exp(-z * z / 2) / sqrt(2 * w) - atan(y / x) * ln(abs(z) + 1) + pow(u, 2) - v * s / (t + 1)",
     "sin(x) * cos(y) + exp(-z * z / 2) / sqrt(2 * w) - atan(y / x) * ln(abs(z) + 1) + u^2 - v * s / (t + 1)",
     "sin(x)*cos(y)+exp(-z*z/2)/sqrt(2*w)-atan(y/x)*log(abs(z)+1)+u^2-v*s/(t+1)",
     NATIVE(double a = eval_OxMal(eval_OxSinus(x), eval_OxCosinus(y), e);
            double den = eval_OxSqroot(eval_OxMal(2, w, e), e);
            double q = eval_OxMal(eval_OxMal(-1.0, z, e), z, e);
            double g = eval_OxExp(eval_OxDurch(q, 2, e), e);
            a = eval_OxPlus(a, eval_OxDurch(g, den, e), e);
            double at = eval_OxArctan(eval_OxDurch(y, x, e));
            double l = eval_OxLn(eval_OxPlus(eval_OxBetrag(z), 1, e), e);
            a = eval_OxMinus(a, eval_OxMal(at, l, e), e);
            a = eval_OxPlus(a, eval_OxHoch(u, 2, e), e);
            double d = eval_OxPlus(t, 1, e);
            return eval_OxMinus(a, eval_OxDurch(eval_OxMal(v, s, e), d, e), e);)},
};
const int kNumFormulas = static_cast<int>(sizeof kSuite / sizeof kSuite[0]);

const GradientFormula kGradientSuite[] = {
    {"soft radius", "sqrt(x*x + y*y) / (1 + exp(-x*y))", 2},
    {"trig", "sin(x) * cos(y)", 2},
    {"gauss bell", "exp(-(x*x + y*y) / 2)", 2},
    {"polynomial", "x*x*y + y*y*z - x*z", 3},
    {"rational", "(x + y) * (x - y) / (z + 1)", 3},
    {"powers", "pow(x, 3) * y + pow(y, 2)", 2},
    {"log tanh", "ln(1 + x*x) * tanh(y)", 2},
    {"exp sin", "x * exp(y) - y * sin(z)", 3},
    {"lorentz", "1 / (1 + x*x + y*y)", 2},
    {"hyperbolic", "sinh(x) * cosh(y) + z", 3},
    {"atan2 log", "atan2(y, x) + ln(x*x + y*y)", 2},
    {"rosenbrock", "(1 - x)*(1 - x) + 100*(y - x*x)*(y - x*x)", 2},
};
const int kNumGradientFormulas =
    static_cast<int>(sizeof kGradientSuite / sizeof kGradientSuite[0]);

namespace {

// Points in [0.5, 2.5): inside every domain of the suite, so no formula takes an error path.
std::vector<double> makeRows()
{
    std::vector<double> rows(static_cast<size_t>(kPoints) * kStride, 0.0);
    unsigned long long state = 88172645463325252ULL;
    for (int r = 0; r < kPoints; ++r) {
        for (int i = 0; i < kDeclared; ++i) {
            state ^= state << 13;
            state ^= state >> 7;
            state ^= state << 17;
            rows[static_cast<size_t>(r) * kStride + i] = 0.5 + 2.0 * static_cast<double>(state >> 11) / 9007199254740992.0;
        }
    }
    return rows;
}

}  // namespace

const std::vector<double>& rows()
{
    static const std::vector<double> data = makeRows();
    return data;
}

const double* const* columns()
{
    static const std::vector<std::vector<double>> data = [] {
        std::vector<std::vector<double>> c(kDeclared, std::vector<double>(kPoints));
        for (size_t r = 0; r < kPoints; ++r)
            for (size_t v = 0; v < kDeclared; ++v)
                c[v][r] = rows()[r * kStride + v];
        return c;
    }();
    static const std::vector<const double*> pointers = [] {
        std::vector<const double*> p;
        for (const auto& c : data)
            p.push_back(c.data());
        return p;
    }();
    return pointers.data();
}

double median(std::vector<double> v)
{
    if (v.empty())
        return -1.0;
    std::sort(v.begin(), v.end());
    size_t n = v.size();
    return n % 2 ? v[n / 2] : 0.5 * (v[n / 2 - 1] + v[n / 2]);
}

std::string cell(double v, const char* fmt)
{
    if (v < 0)
        return "-";
    char buf[32];
    std::snprintf(buf, sizeof buf, fmt, v);
    return buf;
}

double ratio(double a, double b) { return (a < 0 || b <= 0) ? -1.0 : a / b; }

}  // namespace oxbench
