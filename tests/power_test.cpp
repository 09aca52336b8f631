// Tests of the power kernel: the bits and error codes of the powl rule on random and edge inputs,
// through the kernel and a prepared exponent or base (batch_test runs the programs that use
// them against the tree walk).
#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <cstring>
#include <random>
#include <string>

#include <oxel/oxel.h>

#include "nodes/kernels.h"
#if defined(__x86_64__) && defined(__GNUC__)
#include "nodes/vector_power.h"
#define OXEL_TEST_POW4 1
#endif

namespace {

#ifndef __has_feature  // GCC before 14 knows only its own macro
#define __has_feature(x) 0
#endif
#if defined(__SANITIZE_ADDRESS__) || __has_feature(address_sanitizer)
const int kSamples = 100000;  // the instrumented build is ten times slower
#else
const int kSamples = 1000000;
#endif

bool sameBits(double a, double b) { return std::memcmp(&a, &b, sizeof a) == 0; }

// The power node's rule, written out with powl.
double rule(double a, double b, int& err)
{
    if (a < 0 && b != std::ceil(b)) {
        err = err ? err : OX_ERR_RADICAND_NEGATIVE;
        b = std::ceil(b);
    } else if (a == 0.0 && b < 0) {
        err = err ? err : OX_ERR_DIVISION_BY_ZERO;
        return 0.0;
    }
    if (b > 1.0 && !(powl(static_cast<long double>(DBL_MAX), static_cast<long double>(1.0 / b)) > a)) {
        err = err ? err : OX_ERR_OVERFLOW;
        return 1.0;
    }
    if (b == 2.0)  // glibc's powl squares in extended precision
        return static_cast<double>(static_cast<long double>(a) * static_cast<long double>(a));
    return static_cast<double>(powl(static_cast<long double>(a), static_cast<long double>(b)));
}

const double kSpecial[] = {0.0, -0.0, 1.0, -1.0, 2.0, -2.0, 0.5, 3.0, -3.0, 10.0, 0.1, INFINITY,
                           -INFINITY, NAN, -NAN, DBL_MAX, -DBL_MAX, DBL_MIN, -DBL_MIN, 4.9e-324,
                           -1e-310, 1e300, 1e-300, -1e300, 1.0000000000000002, 0.9999999999999999,
                           1024.0, -1075.0, 1e17, 2.5, -0.5, 1e-20};

struct Inputs {
    std::mt19937_64 gen{20261123};
    double uniform(double lo, double hi) { return std::uniform_real_distribution<double>(lo, hi)(gen); }
    int pick(int n) { return static_cast<int>(gen() % static_cast<uint64_t>(n)); }
    double special() { return kSpecial[pick(sizeof kSpecial / sizeof kSpecial[0])]; }

    double base()
    {
        double sign = pick(3) == 0 ? -1.0 : 1.0;
        switch (pick(6)) {
        case 0: return special();
        case 1: return sign * (1.0 + uniform(-1e-9, 1e-9));
        case 2: return sign * uniform(0.5, 2.5);
        default: return sign * std::pow(10.0, uniform(-300, 300));
        }
    }

    double exponent(double a)
    {
        double l = std::fabs(std::log2(std::fabs(a)));
        double sign = pick(2) ? -1.0 : 1.0;
        switch (pick(10)) {
        case 0: return special();
        case 1: return static_cast<double>(pick(25) - 12);                  // small integers
        case 2: return sign * std::floor(std::pow(2.0, uniform(4, 62)));     // large integers
        case 3: return static_cast<double>(pick(41) - 20) + 0.5;            // half-integers
        case 4: return sign * std::pow(10.0, uniform(-300, -3));            // tiny
        case 5: return sign * std::pow(10.0, uniform(3, 300));              // large
        case 6: return l > 0 ? 1024.0 / l * (1.0 + uniform(-1e-13, 1e-13)) : 5.0;  // overflow edge
        default: return l > 0 ? uniform(-1000, 1000) / l : uniform(-50, 50);       // in range
        }
    }
};

std::string check(double a, double b, double got, int err)
{
    int want = 0;
    double r = rule(a, b, want);
    if (sameBits(r, got) && want == err)
        return "";
    char buf[160];
    std::snprintf(buf, sizeof buf, "a=%a b=%a: rule %a (%d), got %a (%d)", a, b, r, want, got, err);
    return buf;
}

}  // namespace

// The four-lane power of the batch columns on four inputs (n: the integral exponent's form,
// 0 for the general one): every lane it serves has the kernel's bits (the kernel's results in
// want); returns the number served.
int fourLanesAgree(const double* a, const double* b, const double* want, int n = 0)
{
#ifdef OXEL_TEST_POW4
    if (!__builtin_cpu_supports("avx2") || !__builtin_cpu_supports("fma"))
        return 0;
    double r[4];
    const int left = n ? oxk::pw::powInt4(a, n, r) : oxk::pw::pow4(a, b, r);
    int served = 0;
    for (int l = 0; l < 4; ++l) {
        if (left >> l & 1)
            continue;
        ++served;
        EXPECT_TRUE(sameBits(r[l], want[l])) << std::hexfloat << a[l] << " ^ " << b[l] << ": "
                                             << r[l] << ", kernel " << want[l];
    }
    return served;
#else
    (void)a, (void)b, (void)want, (void)n;
    return 0;
#endif
}

// Random bases from 1e-300 to 1e300 of both signs against exponents of every kind; the
// four-lane power of the batch columns on the same inputs.
TEST(Power, MatchesPowlRuleOnRandomInputs)
{
    Inputs in;
    int failures = 0, served = 0;
    double ga[4], gb[4], gr[4];
    for (int i = 0; i < kSamples && failures < 10; ++i) {
        double a = in.base(), b = in.exponent(a);
        int err = 0;
        double got = oxk::eval_OxHoch(a, b, err);
        ga[i % 4] = a, gb[i % 4] = b, gr[i % 4] = got;
        if (i % 4 == 3)
            served += fourLanesAgree(ga, gb, gr);
        std::string m = check(a, b, got, err);
        // powerOf: the power alone, without substitution or guard.
        double ref = b == 2.0 ? static_cast<double>(static_cast<long double>(a) * a)
                              : static_cast<double>(powl(static_cast<long double>(a), static_cast<long double>(b)));
        if (!sameBits(ref, oxk::powerOf(a, b)))
            m += " powerOf differs";
        // The build without fused multiply-add (Dekker products), for processors without it.
        double plain;
        double bs = a < 0 && b != std::ceil(b) ? std::ceil(b) : b;
        if (bs != 2.0 && oxk::pw::fastPowWith<oxk::pw::kLogGuard, false>(a, bs, plain) ==
                             oxk::pw::kValue && !sameBits(plain, got))
            m += " the path without fma differs";
        EXPECT_EQ("", m);
        failures += !m.empty();
    }
#ifdef OXEL_TEST_POW4
    if (__builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma")) {
        EXPECT_GT(served, kSamples / 4);
    }
#endif
}

// The four-lane integral powers, 1 <= |n| <= 64, on random and special bases.
TEST(Power, FourLaneIntegralPowers)
{
    Inputs in;
    int served = 0, total = 0;
    for (int n = -64; n <= 64; ++n) {
        if (n == 0)
            continue;
        for (int i = 0; i < 4000; i += 4, total += 4) {
            double a[4], b[4], want[4];
            for (int l = 0; l < 4; ++l) {
                a[l] = i < 32 ? kSpecial[(i + l) % 32] : in.base();
                b[l] = n;
                int err = 0;
                want[l] = oxk::eval_OxHoch(a[l], b[l], err);
            }
            served += fourLanesAgree(a, b, want, n);
        }
    }
#ifdef OXEL_TEST_POW4
    if (__builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma")) {
        EXPECT_GT(served, total / 3);
    }
#endif
}

// Every pair of special values, and bases a few ulps around the overflow limit.
TEST(Power, SpecialValuesAndTheOverflowLimit)
{
    for (double a : kSpecial)
        for (double b : kSpecial) {
            int err = 0;
            double got = oxk::eval_OxHoch(a, b, err);
            EXPECT_EQ("", check(a, b, got, err));
        }
    const double exps[] = {1.0000001, 1.5, 2.0, 3.0, 7.0, 10.0, 32.0, 33.0, 100.5, 1e4, 1e15};
    for (double b : exps) {
        double a = static_cast<double>(powl(static_cast<long double>(DBL_MAX), static_cast<long double>(1.0 / b)));
        for (int k = 0; k < 5; ++k)
            a = std::nextafter(a, 0.0);
        for (int k = 0; k < 10; ++k, a = std::nextafter(a, INFINITY)) {
            int err = 0;
            double got = oxk::eval_OxHoch(a, b, err);
            EXPECT_EQ("", check(a, b, got, err));
        }
    }
}

// A prepared exponent or base gives eval_OxHoch's bits: each constant below serves in both roles,
// against random and special other operands.
TEST(Power, PreparedExponentOrBase)
{
    const double consts[] = {3.0, -2.0, 10.0, 3.5, -0.5, 0.5, 2.0, 1.0, 0.0, -0.0, 1.7, 2.5, 1e-5,
                             400.0, -1074.5, 1e20, 1e-300, DBL_MAX, DBL_MIN, 4.9e-324, -1.7,
                             INFINITY, -INFINITY, NAN, 1024.0 / 3};
    Inputs in;
    for (double k : consts) {
        oxk::PowPlan exponent(k), base(oxk::PowPlan::Base{}, k);
        for (int i = 0; i < 4000; ++i) {
            double a = i < 32 ? kSpecial[i % 32] : in.base();
            double b = i < 32 ? kSpecial[i % 32] : in.exponent(k);
            int err = 0, errBase = 0;
            double got = oxk::powPlanned(exponent, a, err);
            double gotBase = oxk::powPlanned(base, b, errBase);
            ASSERT_EQ("", check(a, k, got, err));
            ASSERT_EQ("", check(k, b, gotBase, errBase));
        }
    }
}
