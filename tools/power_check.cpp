// Long-run checks of the fast power kernel: differential against the powl rule, and the errors
// of powl and of the kernel's approximation against MPFR.
//   power_check diff N [seed]   N random inputs: bits and error code of eval_OxHoch (and on
//                               every eighth powerOf and both kinds of powPlanned) against the rule
//                               written out with powl; the path without fused multiply-add too
//   power_check powl N          powl's worst relative error per input class
//   power_check model N         the approximation's worst relative error
// Built with -DOXEL_BUILD_POWER_CHECK=ON (needs MPFR); see docs/performance.md.
#include <mpfr.h>

#include <cfloat>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>

#include "nodes/kernels.h"

namespace {

std::mt19937_64 gen;

double uniform(double lo, double hi) { return std::uniform_real_distribution<double>(lo, hi)(gen); }
int pick(int n) { return static_cast<int>(gen() % static_cast<uint64_t>(n)); }

double bitsToDouble(uint64_t u)
{
    double d;
    std::memcpy(&d, &u, sizeof d);
    return d;
}

uint64_t doubleBits(double d)
{
    uint64_t u;
    std::memcpy(&u, &d, sizeof u);
    return u;
}

const double kSpecial[] = {0.0, -0.0, 1.0, -1.0, 2.0, 0.5, -2.0, INFINITY, -INFINITY, NAN, -NAN,
                           DBL_MAX, -DBL_MAX, DBL_MIN, 4.9e-324, -4.9e-324, 1e-310, 3.0, 10.0};

double specialValue()
{
    if (pick(4) == 0)  // a NaN with a payload
        return bitsToDouble(0x7FF8000000000000ULL | (gen() & 0x8007FFFFFFFFFFFFULL) | 1);
    return kSpecial[pick(sizeof kSpecial / sizeof kSpecial[0])];
}

double base()
{
    double sign = pick(3) == 0 ? -1.0 : 1.0;
    switch (pick(8)) {
    case 0: return specialValue();
    case 1: return sign * (1.0 + uniform(-1e-6, 1e-6));       // near 1
    case 2: return sign * (1.0 + uniform(-1e-14, 1e-14));     // very near 1
    case 3: return sign * std::floor(uniform(0, 20));          // small integers
    case 4: return sign * uniform(0.5, 2.5);                   // the benchmark's range
    default: return sign * std::pow(10.0, uniform(-300, 300));  // 1e-300 .. 1e300
    }
}

double exponent(double a)
{
    double la = std::fabs(std::log2(std::fabs(a)));
    double sign = pick(2) ? -1.0 : 1.0;
    switch (pick(12)) {
    case 0: return specialValue();
    case 1: return static_cast<double>(pick(21) - 10);                      // small integers
    case 2: return sign * std::floor(std::pow(2.0, uniform(4, 62)));         // large integers
    case 3: return static_cast<double>(pick(41) - 20) + 0.5;                // half-integers
    case 4: return sign * std::pow(10.0, uniform(-320, -3));                // tiny
    case 5: return sign * std::pow(10.0, uniform(3, 300));                  // large
    case 6: return uniform(-50, 50);                                        // ordinary
    case 7:                                                                 // near the overflow
        return la > 0 ? 1024.0 / la * (1.0 + uniform(-1e-12, 1e-12)) : 3.0;
    case 8: return la > 0 ? -1074.0 / la * (1.0 + uniform(-1e-3, 1e-3)) : -3.0;  // subnormal end
    default: return la > 0 ? uniform(-1, 1) * 1000.0 / la : uniform(-1e6, 1e6);  // result in range
    }
}

// The rule of the power node, written out with powl.
double rule(double a, double b, int& err)
{
    if (a < 0 && b != std::ceil(b)) {
        if (!err) err = OX_ERR_RADICAND_NEGATIVE;
        b = std::ceil(b);
    } else if (a == 0.0 && b < 0) {
        if (!err) err = OX_ERR_DIVISION_BY_ZERO;
        return 0.0;
    }
    if (b > 1.0) {
        long double limit = powl(static_cast<long double>(DBL_MAX), static_cast<long double>(1.0 / b));
        if (!(limit > a)) {
            if (!err) err = OX_ERR_OVERFLOW;
            return 1.0;
        }
    }
    if (b == 2.0)
        return static_cast<double>(static_cast<long double>(a) * static_cast<long double>(a));
    return static_cast<double>(powl(static_cast<long double>(a), static_cast<long double>(b)));
}

double powlOnly(double a, double b)
{
    if (b == 2.0)
        return static_cast<double>(static_cast<long double>(a) * static_cast<long double>(a));
    return static_cast<double>(powl(static_cast<long double>(a), static_cast<long double>(b)));
}

// Boundary cases of the guard: bases a few ulps around the limit itself.
void guardPair(double& a, double& b)
{
    b = pick(2) ? static_cast<double>(pick(40) + 2) : uniform(1.0, 1e4);
    long double limit = powl(static_cast<long double>(DBL_MAX), static_cast<long double>(1.0 / b));
    a = static_cast<double>(limit);
    for (int k = pick(7) - 3; k != 0; k += k > 0 ? -1 : 1)
        a = std::nextafter(a, k > 0 ? INFINITY : 0.0);
}

int diff(long long n)
{
    long long bad = 0, outcomes[4] = {0, 0, 0, 0};
    for (long long i = 0; i < n; ++i) {
        double a, b;
        if (i % 64 == 0)
            guardPair(a, b);
        else {
            a = base();
            b = exponent(a);
        }
        int e0 = 0, e1 = 0, e2 = 0;
        double want = rule(a, b, e0);
        double got = oxk::eval_OxHoch(a, b, e1);
        bool ok = doubleBits(want) == doubleBits(got) && e0 == e1;
        // A prepared exponent and the bare power on every eighth input: they cost three more
        // powl calls each.
        double planned = want, bare = 0.0, based = want;
        if (i % 8 == 0) {
            int e3 = 0;
            planned = oxk::powPlanned(oxk::PowPlan(b), a, e2);
            based = oxk::powPlanned(oxk::PowPlan(oxk::PowPlan::Base{}, a), b, e3);
            bare = oxk::powerOf(a, b);
            ok = ok && doubleBits(want) == doubleBits(planned) && e0 == e2 &&
                 doubleBits(want) == doubleBits(based) && e0 == e3 &&
                 doubleBits(bare) == doubleBits(powlOnly(a, b));
        }
        if ((i + 1) % 100000000 == 0) {
            std::printf("... %lld inputs, %lld mismatches\n", i + 1, bad);
            std::fflush(stdout);
        }
        if (!ok && ++bad <= 20)
            std::printf("MISMATCH a=%a b=%a: rule %a (%d), eval %a (%d), planned %a (%d), "
                        "based %a, bare %a\n", a, b, want, e0, got, e1, planned, e2, based, bare);
        // Which way the fast path went (the substituted exponent as eval_OxHoch uses it), and
        // the path without fused multiply-add, which processors without it take.
        double bs = a < 0 && b != std::ceil(b) ? std::ceil(b) : b;
        if (!(a == 0.0 && b < 0) && bs != 2.0) {
            double r, plain;
            ++outcomes[oxk::pw::fastPowWith<oxk::pw::kLogGuard, false>(a, bs, r)];
            if (oxk::pw::fastPowWith<oxk::pw::kLogGuard, false>(a, bs, plain) ==
                    oxk::pw::kValue && doubleBits(plain) != doubleBits(want) && ++bad <= 20)
                std::printf("MISMATCH without fma a=%a b=%a: rule %a, got %a\n", a, b, want, plain);
        }
    }
    long long decided = outcomes[0] + outcomes[1] + outcomes[2] + outcomes[3];
    std::printf("inputs %lld, mismatches %lld\n", n, bad);
    std::printf("fast value %lld, fast overflow %lld, powl for the power %lld, powl rule %lld "
                "(of %lld through the kernel)\n",
                outcomes[0], outcomes[1], outcomes[2], outcomes[3], decided);
    return bad ? 1 : 0;
}

// Relative error of v against the exact a^b, in units of 2^-64.
double relErr64(mpfr_t exact, long double v)
{
    mpfr_t d;
    mpfr_init2(d, 256);
    mpfr_set_ld(d, v, MPFR_RNDN);
    mpfr_sub(d, d, exact, MPFR_RNDN);
    mpfr_div(d, d, exact, MPFR_RNDN);
    double r = std::fabs(mpfr_get_d(d, MPFR_RNDN)) * 0x1p64;
    mpfr_clear(d);
    return r;
}

void exact(mpfr_t z, double a, double b)
{
    mpfr_t x, y;
    mpfr_inits2(256, x, y, static_cast<mpfr_ptr>(nullptr));
    mpfr_set_d(x, a, MPFR_RNDN);
    mpfr_set_d(y, b, MPFR_RNDN);
    mpfr_pow(z, x, y, MPFR_RNDN);
    mpfr_clears(x, y, static_cast<mpfr_ptr>(nullptr));
}

// An input with a finite, normal, nonzero result.
bool ordinaryInput(int cls, double& a, double& b)
{
    switch (cls) {
    case 0: a = std::pow(10.0, uniform(-300, 300)); b = uniform(-1, 1) * 1000 / std::fabs(std::log2(a)); break;
    case 1: a = uniform(0.01, 10); b = uniform(-30, 30); break;
    case 2: a = std::exp2(uniform(-60, 60)); b = static_cast<double>(pick(81) - 40); break;
    case 3: a = std::exp2(uniform(-60, 60)); b = static_cast<double>(pick(81) - 40) + 0.5; break;
    case 4: a = 1 + uniform(-1e-10, 1e-10); b = uniform(-1, 1) * 1e12; break;
    case 5: a = DBL_MAX; b = 1.0 / uniform(1.0000001, 1e6); break;  // the overflow limit
    case 6: a = -std::exp2(uniform(-60, 60)); b = static_cast<double>(pick(41) - 20); break;
    default: a = uniform(0.9, 1.1); b = static_cast<double>(pick(12001) - 6000); break;
    }
    double la = std::log2(std::fabs(a)) * b;
    return b != 0 && la > -1000 && la < 1000;
}

const char* const kClasses[] = {"wide", "ordinary", "integral", "half-integral", "near 1, huge b",
                                "limit powl(DBL_MAX, 1/b)", "negative base", "integral up to 6000"};

int powlError(long long n)
{
    mpfr_t z;
    mpfr_init2(z, 256);
    for (int cls = 0; cls < 8; ++cls) {
        double worst = 0, wa = 0, wb = 0;
        for (long long i = 0; i < n; ++i) {
            double a, b;
            if (!ordinaryInput(cls, a, b))
                continue;
            exact(z, a, b);
            double e = relErr64(z, powl(static_cast<long double>(a), static_cast<long double>(b)));
            if (e > worst) { worst = e; wa = a; wb = b; }
        }
        std::printf("%-26s powl max rel. error %.3f * 2^-64 (a=%a b=%a)\n", kClasses[cls], worst, wa, wb);
    }
    mpfr_clear(z);
    return 0;
}

int modelError(long long n)
{
    using namespace oxk::pw;
    mpfr_t z, y;
    mpfr_inits2(256, z, y, static_cast<mpfr_ptr>(nullptr));
    // ln alone: bases near 1 (the series without the table) and anywhere (bound 2^-70.2).
    for (double width : {0x1p-10, 1e3}) {
        double worstLog = 0;
        for (long long i = 0; i < n; ++i) {
            double x = width < 1 ? 1.0 + uniform(-width, width) : std::exp2(uniform(-1000, 1000));
            if (x == 1.0)
                continue;
            DD l = logdd<false>(x);
            mpfr_set_d(z, x, MPFR_RNDN);
            mpfr_log(z, z, MPFR_RNDN);
            mpfr_set_d(y, l.h, MPFR_RNDN);
            mpfr_add_d(y, y, l.l, MPFR_RNDN);
            mpfr_sub(y, y, z, MPFR_RNDN);
            mpfr_div(y, y, z, MPFR_RNDN);
            worstLog = std::fmax(worstLog, std::fabs(mpfr_get_d(y, MPFR_RNDN)));
        }
        std::printf("%-26s ln max rel. error 2^%.1f (bound 2^-70.2)\n",
                    width < 1 ? "ln within 2^-10 of 1" : "ln of 2^-1000..2^1000", std::log2(worstLog));
    }
    for (int cls = 0; cls < 8; ++cls) {
        double worst = 0, worstPerP = 0;
        for (long long i = 0; i < n; ++i) {
            double a, b;
            if (!ordinaryInput(cls, a, b))
                continue;
            DD l = logdd<false>(std::fabs(a));
            DD p = twoProd<false>(b, l.h);
            p.l += b * l.l;
            int e;
            DD v = expdd<false>(p, e);
            exact(z, std::fabs(a), b);
            mpfr_set_d(y, v.h, MPFR_RNDN);
            mpfr_add_d(y, y, v.l, MPFR_RNDN);
            mpfr_mul_2si(y, y, e, MPFR_RNDN);
            mpfr_sub(y, y, z, MPFR_RNDN);
            mpfr_div(y, y, z, MPFR_RNDN);
            double err = std::fabs(mpfr_get_d(y, MPFR_RNDN));
            double bound = kModelErr + kModelErrPerP * std::fabs(p.h);
            worst = std::fmax(worst, err);
            worstPerP = std::fmax(worstPerP, err / bound);
        }
        std::printf("%-26s model max rel. error 2^%.1f, at most %.4f of the bound\n", kClasses[cls],
                    std::log2(worst), worstPerP);
    }
    // Integral exponents up to 64 by binary powering (bound 2^-86 in the kernel).
    double worst = 0;
    for (long long i = 0; i < n; ++i) {
        unsigned k = static_cast<unsigned>(pick(64) + 1);
        double a = std::exp2(uniform(-900.0 / k, 900.0 / k));
        DD v = powIntDD<false>(a, k);
        bool inverse = pick(2);
        if (inverse)
            v = reciprocalDD<false>(v);
        exact(z, a, inverse ? -static_cast<double>(k) : static_cast<double>(k));
        mpfr_set_d(y, v.h, MPFR_RNDN);
        mpfr_add_d(y, y, v.l, MPFR_RNDN);
        mpfr_sub(y, y, z, MPFR_RNDN);
        mpfr_div(y, y, z, MPFR_RNDN);
        worst = std::fmax(worst, std::fabs(mpfr_get_d(y, MPFR_RNDN)));
    }
    std::printf("%-26s model max rel. error 2^%.1f (bound 2^-86)\n", "integral 1..64 powering",
                std::log2(worst));
    mpfr_clears(z, y, static_cast<mpfr_ptr>(nullptr));
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc < 3) {
        std::fprintf(stderr, "usage: power_check diff|powl|model N [seed]\n");
        return 2;
    }
    long long n = std::atoll(argv[2]);
    gen.seed(argc > 3 ? std::strtoull(argv[3], nullptr, 10) : 1);
    if (!std::strcmp(argv[1], "diff"))
        return diff(n);
    if (!std::strcmp(argv[1], "powl"))
        return powlError(n);
    if (!std::strcmp(argv[1], "model"))
        return modelError(n);
    std::fprintf(stderr, "power_check: unknown mode %s\n", argv[1]);
    return 2;
}
