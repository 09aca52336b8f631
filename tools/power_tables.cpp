// Generator of src/nodes/power_tables.h, the tables of the fast power kernel, with MPFR.
// Run: g++ -O2 tools/power_tables.cpp -lmpfr -lgmp -o /tmp/power_tables &&
//      /tmp/power_tables > src/nodes/power_tables.h
#include <mpfr.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <initializer_list>

namespace {

const int kLogBits = 10;  // 1024 intervals of the mantissa
const int kExpBits = 7;  // 128 steps of 2^(j/128)

// x as hi + lo with |lo| <= ulp(hi)/2 (round to nearest twice).
void split(mpfr_t x, double& hi, double& lo)
{
    mpfr_t t;
    mpfr_init2(t, 400);
    hi = mpfr_get_d(x, MPFR_RNDN);
    mpfr_sub_d(t, x, hi, MPFR_RNDN);
    lo = mpfr_get_d(t, MPFR_RNDN);
    mpfr_clear(t);
}

// x as hi + lo with hi a multiple of 2^-bits (so that small integer multiples of hi and sums
// with other such numbers are exact) and lo the rest rounded to nearest.
void splitAt(mpfr_t x, int bits, double& hi, double& lo)
{
    mpfr_t t;
    mpfr_init2(t, 400);
    mpfr_mul_2si(t, x, bits, MPFR_RNDN);
    mpfr_rint(t, t, MPFR_RNDN);
    mpfr_div_2si(t, t, bits, MPFR_RNDN);
    hi = mpfr_get_d(t, MPFR_RNDN);  // exact: at most 53 significant bits by the callers' sizes
    mpfr_sub(t, x, t, MPFR_RNDN);
    lo = mpfr_get_d(t, MPFR_RNDN);
    mpfr_clear(t);
}

// ln 2 / 2^shift as hi + lo, hi a multiple of 2^-bits.
void ln2Constant(const char* name, int shift, int bits)
{
    mpfr_t x;
    mpfr_init2(x, 400);
    mpfr_const_log2(x, MPFR_RNDN);
    mpfr_div_2si(x, x, shift, MPFR_RNDN);
    double hi, lo;
    splitAt(x, bits, hi, lo);
    std::printf("constexpr double %sHi = %a, %sLo = %a;\n", name, hi, name, lo);
    mpfr_clear(x);
}

}  // namespace

int main()
{
    mpfr_t x;
    mpfr_init2(x, 400);
    std::printf("// Tables of the fast power kernel, written by tools/power_tables.cpp (MPFR, 400 bits).\n");
    std::printf("#ifndef OXEL_NODES_POWER_TABLES_H\n#define OXEL_NODES_POWER_TABLES_H\n\n");
    std::printf("namespace oxk {\nnamespace pw {\n\n");
    std::printf("constexpr int kLogBits = %d;\nconstexpr int kExpBits = %d;\n", kLogBits, kExpBits);
    // k * kLn2Hi is exact for |k| < 2^11 (42 bits); kd * kLn2NHi for |kd| < 2^17 (36 bits).
    ln2Constant("kLn2", 0, 42);
    ln2Constant("kLn2N", kExpBits, kExpBits + 36);
    mpfr_const_log2(x, MPFR_RNDN);
    mpfr_ui_div(x, 1 << kExpBits, x, MPFR_RNDN);
    std::printf("constexpr double kInvLn2N = %a;  // 2^%d / ln 2\n", mpfr_get_d(x, MPFR_RNDN),
                kExpBits);

    // Interval i of the mantissa m in [1, 2) is [1 + i/N, 1 + (i+1)/N). invc is 1/centre rounded
    // to a multiple of 2^-(kLogBits+1), so r = m*invc - 1 is a multiple of 2^-(52+kLogBits+1)
    // below 2^-kLogBits in magnitude: at most 53 significant bits, fma computes it exactly.
    const int n = 1 << kLogBits;
    const double scale = std::ldexp(1.0, kLogBits + 1);
    // -ln(invc) = logcHi + logcLo with logcHi a multiple of 2^-42 like kLn2Hi, so that
    // k * kLn2Hi + logcHi is exact. The kernel adds r to that sum with fastTwoSum, so the sum must
    // be 0 or at least |r|: checked below for the exponents 0 and -1; every other exponent puts
    // the sum above ln 2.
    double ln2Hi, ln2Lo;
    mpfr_const_log2(x, MPFR_RNDN);
    splitAt(x, 42, ln2Hi, ln2Lo);
    std::printf("\n// {invc, -ln(invc) hi, lo} per mantissa interval.\n");
    std::printf("struct LogEntry {\n    double invc, logcHi, logcLo;\n};\n");
    std::printf("inline constexpr LogEntry kLog[%d] = {\n", n);
    for (int i = 0; i < n; ++i) {
        double c = 1.0 + (i + 0.5) / n;
        double invc = std::nearbyint(scale / c) / scale;
        // The intervals around 1 (the first, and the last one halved) take c = 1 exactly: there
        // r is x - 1, k ln 2 + log c is 0 and the series keeps the relative error of ln x.
        if (i == 0)
            invc = 1.0;
        if (i == n - 1)
            invc = 0.5;
        for (double m : {1.0 + static_cast<double>(i) / n, 1.0 + static_cast<double>(i + 1) / n}) {
            if (std::fabs(m * invc - 1.0) > std::ldexp(1.0, -kLogBits)) {
                std::fprintf(stderr, "interval %d: |r| too large\n", i);
                return 1;
            }
        }
        mpfr_set_d(x, invc, MPFR_RNDN);
        mpfr_log(x, x, MPFR_RNDN);
        mpfr_neg(x, x, MPFR_RNDN);
        double hi, lo;
        splitAt(x, 42, hi, lo);
        if (i == n - 1) {  // -ln(1/2) exactly as ln 2 is split, so that -k ln 2 + ln 2 is 0
            hi = ln2Hi;
            lo = ln2Lo;
        }
        double m0 = 1.0 + static_cast<double>(i) / n, m1 = 1.0 + static_cast<double>(i + 1) / n;
        double rmax = std::fmax(std::fabs(m0 * invc - 1.0), std::fabs(m1 * invc - 1.0));
        for (int k : {0, -1}) {
            double t1 = k * ln2Hi + hi;
            if (t1 != 0.0 && std::fabs(t1) < rmax) {
                std::fprintf(stderr, "interval %d, exponent %d: |k ln2 + log c| < |r|\n", i, k);
                return 1;
            }
        }
        std::printf("    {%a, %a, %a},\n", invc, hi, lo);
    }
    std::printf("};\n");

    const int m = 1 << kExpBits;
    std::printf("\n// {2^(j/%d) hi, lo}.\n", m);
    std::printf("struct ExpEntry {\n    double hi, lo;\n};\n");
    std::printf("inline constexpr ExpEntry kExp2[%d] = {\n", m);
    for (int j = 0; j < m; ++j) {
        mpfr_set_si(x, j, MPFR_RNDN);
        mpfr_div_si(x, x, m, MPFR_RNDN);
        mpfr_exp2(x, x, MPFR_RNDN);
        double hi, lo;
        split(x, hi, lo);
        std::printf("    {%a, %a},\n", hi, lo);
    }
    std::printf("};\n\n}  // namespace pw\n}  // namespace oxk\n\n#endif\n");
    mpfr_clear(x);
    return 0;
}
