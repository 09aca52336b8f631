// The suite's formulas as plain C++ loops over the columns, and the batch's table against them.
#include "suite.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "nodes/kernels.h"

namespace oxbench {
namespace {

// What a programmer writes for the formula: no guards, no codes, the C library's functions;
// at -O3 the compiler vectorises the arithmetic ones.
#define PLAIN(expr)                                                                          \
    [](const double* const* c, int n, double* res) {                                         \
        const double *X = c[0], *Y = c[1], *Z = c[2], *W = c[3];                             \
        const double *U = c[4], *V = c[5], *S = c[6], *T = c[7];                             \
        for (int i = 0; i < n; ++i) {                                                        \
            [[maybe_unused]] const double x = X[i], y = Y[i], z = Z[i], w = W[i];            \
            [[maybe_unused]] const double u = U[i], v = V[i], s = S[i], t = T[i];            \
            res[i] = (expr);                                                                 \
        }                                                                                    \
    }

struct Row {
    const char* family;
    PlainLoop loop;
};

using std::pow;

double truncatedModulo(double a, double b)
{
    return a - static_cast<double>(static_cast<int32_t>(a / b)) * b;
}

const Row kPlain[] = {
    {"add", PLAIN(x + y)},
    {"mul-add", PLAIN(x * y + z)},
    {"rational", PLAIN((x + y) * (x - y) / (z + 1))},
    {"modulo", PLAIN(truncatedModulo(x, y) + z)},
    {"pow const 2", PLAIN(pow(x, 2.0))},
    {"pow const 3.5", PLAIN(pow(x, 3.5))},
    {"pow var", PLAIN(pow(x, y))},
    {"pow const base", PLAIN(pow(2.5, x))},
    {"pow int 3", PLAIN(pow(x, 3.0))},
    {"pow int -2", PLAIN(pow(x, -2.0))},
    {"pow int 10", PLAIN(pow(x, 10.0))},
    {"pow base 1.7", PLAIN(pow(1.7, x))},
    {"sqrt", PLAIN(std::sqrt(x * x + y * y))},
    {"trig", PLAIN(std::sin(x) * std::cos(y))},
    {"gauss bell", PLAIN(std::exp(-x * x / 2))},
    {"logs", PLAIN(std::log(x) + std::log10(y))},
    {"atan2", PLAIN(std::atan2(y, x) + std::atan(z))},
    {"hyperbolic", PLAIN(std::sinh(x) + std::cosh(y) - std::tanh(z))},
    {"inverse trig", PLAIN(std::asin(x / 3) + std::acos(y / 4))},
    {"inverse hyperbolic", PLAIN(std::asinh(x) + std::acosh(y + 1) + std::atanh(z / 3))},
    {"error function", PLAIN(std::erf(x) + std::erfc(y))},
    {"rounding", PLAIN(std::floor(x * 3) + std::ceil(y) + std::fabs(z - 1))},
    {"hypot cbrt", PLAIN(std::hypot(x, y) + std::cbrt(z))},
    {"min max", PLAIN(std::max(x, y) - std::min(y, z))},
    {"logic", PLAIN(((x < y && y < z) || x > 1.5) ? 1.0 : 0.0)},
    {"comparisons", PLAIN(double(x >= y) + double(x <= z) * 2 + double(x == w))},
    {"bitwise", PLAIN(oxk::eval_OxBitAnd(
                    oxk::eval_OxBitOr(oxk::eval_OxShiftLeft(x * 100, 3), y * 100), 255))},
    {"assignments", PLAIN((x * y) * (x * y + z) - (x * y) / (x * y + z + 1))},
    {"many variables", PLAIN(x * y + z * w + u * v + s * t - x / t)},
    {"polynomial", PLAIN(x * x * x - 3 * x * x * y + 2 * x * y * y - y * y * y + z * z - w)},
    {"horner", PLAIN(((((0.5 * x - 1.5) * x + 2.25) * x - 3) * x + 1) * x - 7)},
    {"constant parts", PLAIN(x * (2.0 / 3) + y * (1.0 / 7) - std::sqrt(2.0) * z + 4 * 0.25)},
    {"shared root", PLAIN(std::sqrt(x * x + y * y) / (1 + std::sqrt(x * x + y * y)))},
    {"shared wave",
     PLAIN(std::exp(-x * x) * std::sin(x * y) + std::exp(-x * x) * std::cos(x * y))},
    {"long", PLAIN(std::sin(x) * std::cos(y) + std::exp(-z * z / 2) / std::sqrt(2 * w) -
                   std::atan(y / x) * std::log(std::fabs(z) + 1) + pow(u, 2) -
                   v * s / (t + 1))},
};

}  // namespace

PlainLoop plainLoop(int f)
{
    for (const Row& r : kPlain)
        if (std::strcmp(r.family, kSuite[f].family) == 0)
            return r.loop;
    return nullptr;
}

void printPlainSummary(double (*perPoint)(const char* kind, int f))
{
    std::printf("\n| formula | columns, 1 thread | plain C++ loop | columns/plain |\n"
                "|---|---:|---:|---:|\n");
    std::vector<double> ratios;
    for (int f = 0; f < kNumFormulas; ++f) {
        const double co = perPoint("columns", f), pl = perPoint("plain", f);
        if (ratio(co, pl) > 0)
            ratios.push_back(ratio(co, pl));
        std::printf("| %s | %s | %s | %s |\n", kSuite[f].family, cell(co, "%.2f").c_str(),
                    cell(pl, "%.2f").c_str(), cell(ratio(co, pl), "%.2f").c_str());
    }
    std::printf("\nmedian columns/plain loop %.2f\n", median(ratios));
}

}  // namespace oxbench
