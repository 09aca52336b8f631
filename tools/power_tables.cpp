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

void constant(const char* name, void (*f)(mpfr_t, mpfr_rnd_t), bool invert)
{
    mpfr_t x;
    mpfr_init2(x, 400);
    f(x, MPFR_RNDN);
    if (invert)
        mpfr_ui_div(x, 1, x, MPFR_RNDN);
    double hi, lo;
    split(x, hi, lo);
    std::printf("constexpr double %sHi = %a, %sLo = %a;\n", name, hi, name, lo);
    mpfr_clear(x);
}

void ln2(mpfr_t x, mpfr_rnd_t r) { mpfr_const_log2(x, r); }
void third(mpfr_t x, mpfr_rnd_t r) { mpfr_set_ui(x, 3, r); }

}  // namespace

int main()
{
    mpfr_t x;
    mpfr_init2(x, 400);
    std::printf("// Tables of the fast power kernel, written by tools/power_tables.cpp (MPFR, 400 bits).\n");
    std::printf("#ifndef OXEL_NODES_POWER_TABLES_H\n#define OXEL_NODES_POWER_TABLES_H\n\n");
    std::printf("namespace oxk {\nnamespace pw {\n\n");
    std::printf("constexpr int kLogBits = %d;\nconstexpr int kExpBits = %d;\n", kLogBits, kExpBits);
    constant("kLn2", ln2, false);
    constant("kInvLn2", ln2, true);
    constant("kThird", third, true);

    // Interval i of the mantissa m in [1, 2) is [1 + i/N, 1 + (i+1)/N). invc is 1/centre rounded
    // to a multiple of 2^-(kLogBits+1), so r = m*invc - 1 is a multiple of 2^-(52+kLogBits+1)
    // below 2^-kLogBits in magnitude: at most 53 significant bits, fma computes it exactly.
    const int n = 1 << kLogBits;
    const double scale = std::ldexp(1.0, kLogBits + 1);
    std::printf("\n// {invc, -log2(invc) hi, lo} per mantissa interval.\n");
    std::printf("struct LogEntry {\n    double invc, logcHi, logcLo;\n};\n");
    std::printf("inline constexpr LogEntry kLog[%d] = {\n", n);
    for (int i = 0; i < n; ++i) {
        double c = 1.0 + (i + 0.5) / n;
        double invc = std::nearbyint(scale / c) / scale;
        for (double m : {1.0 + static_cast<double>(i) / n, 1.0 + static_cast<double>(i + 1) / n}) {
            if (std::fabs(m * invc - 1.0) > std::ldexp(1.0, -kLogBits)) {
                std::fprintf(stderr, "interval %d: |r| too large\n", i);
                return 1;
            }
        }
        mpfr_set_d(x, invc, MPFR_RNDN);
        mpfr_log2(x, x, MPFR_RNDN);
        mpfr_neg(x, x, MPFR_RNDN);
        double hi, lo;
        split(x, hi, lo);
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
