// The four-lane functions against the C library bit for bit, their self-check, and the batch
// program's columns of them against eval.
#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include <oxel/oxel.h>

#include "node_probe.h"

#if defined(__x86_64__) && defined(__GLIBC__)
#include <gnu/libc-version.h>

#include "nodes/vector_math.h"

namespace {

using oxm::Fn;

bool hasAvx2Fma()
{
    return __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma");
}

bool isGlibc236()
{
    return std::strcmp(gnu_get_libc_version(), "2.36") == 0;
}

double fromBits(uint64_t b)
{
    double v;
    std::memcpy(&v, &b, sizeof v);
    return v;
}

// Per function: the thresholds of its branches, random ranges (two uniform, one of the exponent
// with lo[2], hi[2] its powers of two), and where the C library leaves its common path, so that
// the four-lane form must hand the lane back (mayGo: it may).
struct Family {
    std::vector<double> thresholds;
    double lo[3], hi[3];
    bool positive;  // random inputs above zero only
    bool (*mustGo)(double x, double want);
    bool (*mayGo)(double x, double want);
};

bool never(double, double)
{
    return false;
}

const Family& family(Fn fn)
{
    static auto logGoes = [](double x, double) { return !(x >= DBL_MIN && x < INFINITY); };
    static auto atLeast22 = [](double x, double) { return !(std::fabs(x) < 22.0); };
    static const Family exps = {
        {0x1p-54, 512.0, 1024.0, 709.782712893384, 708.3964185322641, 745.1332191019411,
         744.4400719213812, 0x1.62e42fefa39efp-8},
        {-10.0, -745.2, -60.0}, {10.0, 709.8, 10.0}, false,
        [](double x, double want) { return !(std::fabs(x) < 1024.0) || want < 0x1p-1022; },
        [](double, double want) { return want == 0x1p-1022; }};
    static const Family logs = {
        {1.0 - 0x1p-4, 1.0 + 0x1.09p-4, 0x1p-1022, 0x1.6p-1, 0x1.6p0, 0x1.6p-600, 0x1.6p700, 1.0,
         2.0, 0.5, 10.0, 1e-300, 1e300},
        {0.0, 0.9, -1074.0}, {10.0, 1.1, 1024.0}, true, logGoes, never};
    // expm1's ranges of k: 0.5 ln2 and 1.5 ln2 (the words compared), 20 ln2, 57 ln2.
    static const Family expm1s = {
        {0x1p-54, 0x1.62e43p-2, 0x1.0a2b2p0, 0x1.bb9d3beb8c86bp3, 0x1.3c1ed2f1f5p5, 0x1.43687ap5,
         512.0, 709.72},
        {-1.1, -60.0, -60.0}, {1.1, 600.0, 10.0}, false,
        [](double x, double) { return !(x < 512.0); }, never};
    static const Family tanhs = {{0x1p-55, 1.0, 22.0, 0x1p-1022},      {-1.5, -25.0, -60.0},
                                 {1.5, 25.0, 6.0}, false,
                                 [](double x, double) { return std::isnan(x); }, never};
    static const Family sinhs = {{0x1p-28, 1.0, 22.0},         {-1.5, -25.0, -60.0},
                                 {1.5, 25.0, 6.0}, false, atLeast22, never};
    static const Family coshs = {{0x1p-55, 0x1.62e43p-2, 22.0}, {-0.4, -25.0, -60.0},
                                 {0.4, 25.0, 6.0}, false, atLeast22, never};
    // Inputs whose log1p argument is about 2^m - 1 (asinh 0.75, acosh 1.25, atanh 1/3, 0.6,
    // 7/9) take log1p's branch for a leading word of zero.
    static const Family asinhs = {{0x1p-28, 2.0, 0x1.00001p1, 0x1p28, 0.75}, {-2.5, -1e5, -40.0},
                                  {2.5, 1e5, 30.0}, false,
                                  [](double x, double) { return !(std::fabs(x) <= 0x1p28); },
                                  never};
    static const Family acoshs = {{1.0, 2.0, 0x1p28, 1.25}, {1.0, 1.0, 0.0}, {2.5, 1e5, 30.0}, true,
                                  [](double x, double) { return !(x > 1.0 && x < 0x1p28); },
                                  never};
    static const Family atanhs = {
        {0x1p-28, 0.5, 1.0, 1.0 / 3, 1.0 / 3 + 0x1p-24, 0.6, 7.0 / 9}, {-0.6, -1.0, -60.0},
        {0.6, 1.0, 0.0}, false,
        [](double x, double) { return !(std::fabs(x) < 1.0); },
        [](double x, double) { return std::fabs(x) >= 0x1.fffffffffffffp-1; }};
    // erf's ranges by leading word: 2^-1015, 2^-28, 0.84375, 1.25, 1/0.35 (erfc's a word
    // lower), 6; erfc also splits at 1/4 and 2^-56, and hands back from 22.
    static const Family erfs = {{0x1p-1015, 0x1p-28, 0.84375, 1.25, 0x1.6db6ep1, 6.0},
                                {-1.3, -7.0, -40.0}, {1.3, 7.0, 3.0}, false,
                                [](double x, double) { return std::isnan(x); }, never};
    static const Family erfcs = {{0x1p-56, 0.25, 0.84375, 1.25, 0x1.6db6dp1, 6.0, 22.0},
                                 {-1.3, -7.0, -40.0}, {1.3, 23.0, 4.0}, false,
                                 [](double x, double) { return !(x < 22.0); }, never};
    switch (fn) {
    case Fn::Erf:
        return erfs;
    case Fn::Erfc:
        return erfcs;
    case Fn::Asinh:
        return asinhs;
    case Fn::Acosh:
        return acoshs;
    case Fn::Atanh:
        return atanhs;
    case Fn::Exp:
        return exps;
    case Fn::Log:
    case Fn::Log10:
        return logs;
    case Fn::Expm1:
        return expm1s;
    case Fn::Tanh:
        return tanhs;
    case Fn::Sinh:
        return sinhs;
    case Fn::Cosh:
        break;
    }
    return coshs;
}

// Special values and a few ulps either side of every branch's threshold, then random inputs:
// uniform on the common ranges, uniform in the exponent, and raw bit patterns.
std::vector<double> inputs(Fn fn, int randomCount)
{
    const Family& f = family(fn);
    std::vector<double> xs = {0.0, -0.0, INFINITY, -INFINITY, NAN, -NAN, 1.0, -1.0, DBL_MAX,
                              -DBL_MAX, DBL_MIN, -DBL_MIN, DBL_TRUE_MIN, -DBL_TRUE_MIN};
    for (double t : f.thresholds) {
        for (double s : {t, -t}) {
            double lo = s, hi = s;
            for (int i = 0; i < 8; ++i) {
                xs.push_back(lo = std::nextafter(lo, -INFINITY));
                xs.push_back(hi = std::nextafter(hi, INFINITY));
            }
            xs.push_back(s);
        }
    }
    std::mt19937_64 rng(31 + static_cast<int>(fn));
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    for (int i = 0; i < randomCount; ++i) {
        const int kind = i % 4;
        if (kind == 3) {
            xs.push_back(fromBits(rng()));
        } else if (kind == 2) {
            const double m = std::ldexp(
                1.0 + unit(rng), static_cast<int>(f.lo[2] + unit(rng) * (f.hi[2] - f.lo[2])));
            xs.push_back(!f.positive && rng() % 2 ? -m : m);
        } else {
            xs.push_back(f.lo[kind] + unit(rng) * (f.hi[kind] - f.lo[kind]));
        }
    }
    while (xs.size() % 4)
        xs.push_back(1.0);
    return xs;
}

TEST(VectorMath, KernelsGiveTheCLibraryBits)
{
    if (!hasAvx2Fma() || !isGlibc236())
        GTEST_SKIP() << "the kernels follow glibc 2.36's FMA build";
    for (Fn fn : oxm::kFunctions) {
        const Family& f = family(fn);
        const std::vector<double> xs = inputs(fn, 1000000);
        int served = 0, wrong = 0, wronglyAway = 0;
        for (size_t i = 0; i < xs.size(); i += 4) {
            double r[4];
            const int away = oxm::apply4(fn, &xs[i], r);
            for (int l = 0; l < 4; ++l) {
                const double x = xs[i + static_cast<size_t>(l)];
                const double want = oxm::reference(fn, x);
                const bool mustGo = f.mustGo(x, want);
                if (away >> l & 1) {
                    wronglyAway += !mustGo && !f.mayGo(x, want);
                } else {
                    ++served;
                    wronglyAway += mustGo;
                    if (!bitsEqual(r[l], want) && wrong++ < 5)
                        ADD_FAILURE() << oxm::name(fn) << "(" << std::hexfloat << x
                                      << ") = " << r[l] << ", C library " << want;
                }
            }
        }
        EXPECT_EQ(wrong, 0) << oxm::name(fn);
        EXPECT_EQ(wronglyAway, 0) << oxm::name(fn);
        EXPECT_GT(served, static_cast<int>(xs.size()) * 7 / 10) << oxm::name(fn);
    }
}

// expm1 for |x| < 0.5 ln2 (k = 0) as a build without fused operations computes it, the
// C library's build for processors without FMA.
double expm1Unfused(double x)
{
    const double q1 = -0x1.11111111110f4p-5, q2 = 0x1.a01a019fe5585p-10,
                 q3 = -0x1.4ce199eaadbb7p-14, q4 = 0x1.0cfca86e65239p-18,
                 q5 = -0x1.afdb76e09c32dp-23;
    const double hfx = 0.5 * x, hxs = x * hfx, h2 = hxs * hxs;
    const double r1 = (1 + hxs * q1) + h2 * (q2 + hxs * q3) + h2 * h2 * (q4 + hxs * q5);
    const double t = 3 - r1 * hfx, e = hxs * ((r1 - t) / (6 - x * t));
    return x - (x * e - hxs);
}

// References that differ from the C library on one branch only, or on one input in 64
// anywhere (as a build that rounds some products differently would): each is refused.
TEST(VectorMath, SelfCheckRefusesAnotherVariant)
{
    if (!hasAvx2Fma())
        GTEST_SKIP() << "no AVX2 and FMA";
    auto off = [](double v) { return std::nextafter(v, INFINITY); };
    auto rare = [](double x) {
        uint64_t b;
        std::memcpy(&b, &x, sizeof b);
        return (b * 0x9e3779b97f4a7c15ull) >> 58 == 0;
    };
    static double (*const exps[])(double) = {
        [](double x) { return 0 < x && x < 1e-20 ? std::nextafter(std::exp(x), 0.) : std::exp(x); },
        [](double x) { return x >= 512 ? std::nextafter(std::exp(x), INFINITY) : std::exp(x); },
        [](double x) { return x <= -512 ? std::nextafter(std::exp(x), INFINITY) : std::exp(x); },
        [](double x) { return x > 2 && x < 5 ? std::nextafter(std::exp(x), 0.0) : std::exp(x); },
    };
    static double (*const logs[])(double) = {
        [](double x) { return x > 1 && x < 1.05 ? std::nextafter(std::log(x), 0.0) : std::log(x); },
        [](double x) { return x > 3 ? std::nextafter(std::log(x), INFINITY) : std::log(x); },
        [](double x) { return x < 1e-300 ? std::nextafter(std::log(x), 0.0) : std::log(x); },
    };
    // log10 whose last product is fused into its sum, as a build with contraction would.
    static double (*const log10s[])(double) = {
        [](double x) {
            int e;
            const double m = std::frexp(x, &e);  // x = m 2^e, m in [1/2, 1)
            const double y = e > 0 ? e - 1 : e;  // x = x' 2^y, x' in [1/2, 2)
            if (!(x >= DBL_MIN && x < INFINITY) || y == 0.0)
                return std::log10(x);
            const double xm = e > 0 ? 2 * m : m;
            const double z =
                std::fma(0x1.bcb7b1526e50ep-2, std::log(xm), y * 0x1.9fef311f12b36p-42);
            return z + y * 0x1.34413509f6p-2;
        },
        [](double x) { return x > 1e5 ? std::nextafter(std::log10(x), 0.0) : std::log10(x); },
    };
    for (auto* f : exps)
        EXPECT_FALSE(oxm::selfCheck(Fn::Exp, f));
    for (auto* f : log10s)
        EXPECT_FALSE(oxm::selfCheck(Fn::Log10, f));
    for (auto* f : logs)
        EXPECT_FALSE(oxm::selfCheck(Fn::Log, f));
    static bool (*rareInput)(double) = rare;
    static double (*offBy)(double) = off;
    static Fn current;
    for (Fn fn : oxm::kFunctions) {
        current = fn;
        if (isGlibc236()) {
            EXPECT_TRUE(oxm::selfCheck(fn, [](double x) { return oxm::reference(current, x); }))
                << oxm::name(fn);
        }
        EXPECT_FALSE(oxm::selfCheck(fn, [](double x) {
            const double v = oxm::reference(current, x);
            return rareInput(x) ? offBy(v) : v;
        })) << oxm::name(fn);
    }
    // expm1 without fused operations where k = 0, and tanh, sinh and cosh over it there.
    static double (*const unfused[])(double) = {
        [](double x) {
            const double ax = std::fabs(x);
            return ax >= 0x1p-54 && ax < 0x1.62e43p-2 ? expm1Unfused(x) : std::expm1(x);
        },
        [](double x) {
            const double ax = std::fabs(x), t = expm1Unfused(-2 * ax);
            return ax >= 0x1p-55 && ax < 0x1.62e43p-3 ? std::copysign(-t / (t + 2), x)
                                                      : std::tanh(x);
        },
        [](double x) {
            const double ax = std::fabs(x), t = expm1Unfused(ax);
            return ax >= 0x1p-28 && ax < 0x1.62e43p-2
                       ? std::copysign(0.5, x) * (2 * t - t * t / (t + 1))
                       : std::sinh(x);
        },
        [](double x) {
            const double ax = std::fabs(x), t = expm1Unfused(ax), w = 1 + t;
            return ax >= 0x1p-55 && ax < 0x1.62e43p-2 ? 1 + t * t / (w + w) : std::cosh(x);
        },
    };
    const Fn overExpm1[] = {Fn::Expm1, Fn::Tanh, Fn::Sinh, Fn::Cosh};
    for (size_t i = 0; i < std::size(unfused); ++i)
        EXPECT_FALSE(oxm::selfCheck(overExpm1[i], unfused[i])) << oxm::name(overExpm1[i]);
}

// The vector forms serve on this kind of host unless switched off; the ctest entries that run
// under OXEL_VECTOR_MATH=0 or with the C library's FMA build disabled set
// OXEL_EXPECT_SCALAR_MATH, and there they must not.
TEST(VectorMath, ServesWhereExpected)
{
    const bool expected = !std::getenv("OXEL_EXPECT_SCALAR_MATH") && hasAvx2Fma() && isGlibc236();
    for (Fn fn : oxm::kFunctions)
        EXPECT_EQ(oxm::serves(fn), expected) << oxm::name(fn);
}

}  // namespace

#endif

namespace {

// The functions in the batch program (rows not a multiple of four, and more than a block;
// raising rows among served ones; logs near 1, of 2^k times a value near 1 for log10, beside
// others in a group of four) against the tree walk and eval: value bits, codes, slots.
TEST(VectorMath, BatchColumnsMatchEval)
{
    const double special[] = {0.0,     -0.0,    1.0,       -1.0,  709.72, 709.7199, 710.0,
                              -745.2,  -720.0,  600.0,     -600.0, 1e-20, NAN,      INFINITY,
                              -INFINITY, 1e-310, DBL_MAX,  0.97,  1.03,   2.0,      22.0,
                              -22.0,   0x1p-55, -0x1p-28,  0.35,  -1.04,  512.0,    40.0};
    std::mt19937_64 rng(7);
    std::uniform_real_distribution<double> wide(-750.0, 750.0), nearOne(0.9, 1.1);
    for (const char* text :
         {"exp(x)", "ln(x)", "log10(x)", "exp(x) - ln(y)", "ln(exp(x) + y) * log10(y)",
          "tanh(x) + expm1(y)", "sinh(x) - cosh(y)", "tanh(x * y + x / 3 - y)",
          "asinh(x) + acosh(y)", "atanh(x / 30) - atanh(y)", "erf(x / 300) + erfc(y / 200)",
          "erfc(x / 10) - erf(y)",
          "pow(x, y / 100)", "pow(y, 3.5) - pow(1.7, x / 50)", "pow(x, 3) + pow(y, -5)"}) {
        OxelExpression e;
        ASSERT_EQ(parseXyz(e, text, 2), 1) << text;
        for (int n : {3, 257, 1031}) {
            std::vector<double> rows(2 * static_cast<size_t>(n));
            for (size_t i = 0; i < rows.size(); ++i)
                rows[i] = i % 5 == 0   ? special[(i / 5) % std::size(special)]
                          : i % 5 == 1 ? std::ldexp(nearOne(rng), static_cast<int>(rng() % 5) - 2)
                                       : (i % 2 ? std::fabs(wide(rng)) / 50 : wide(rng));
            EXPECT_EQ(exprMismatch(e, rows, 2), "") << text << ", " << n << " rows";
        }
    }
}

}  // namespace
