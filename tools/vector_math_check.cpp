// vector_math_check: the long check of the four-lane functions against the C library.
//
// Usage: vector_math_check [millions of inputs per function, default 100]. Inputs: uniform on
// the common ranges, uniform in the exponent, raw bit patterns, and a few ulps around random
// points of the branch thresholds. Prints the mismatches of served lanes and the share of
// lanes that went to the C library; exits 1 on any mismatch.
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>

#include "nodes/vector_math.h"

namespace {

double fromBits(uint64_t b)
{
    double v;
    std::memcpy(&v, &b, sizeof v);
    return v;
}

// Per function: a wide and a narrow uniform range, whether inputs take either sign, and the
// points of its branch thresholds.
struct Inputs {
    double wideLo, wideHi, narrowLo, narrowHi;
    bool signed_;
    double at[7];
};

const Inputs& inputsOf(oxm::Fn fn)
{
    static const Inputs exps = {-745.2, 709.8, -10.0, 10.0, true,
                                {0x1p-54, 512.0, -512.0, 1024.0, -708.39, -745.13, 709.78}};
    static const Inputs logs = {0.0, 10.0, 0.9, 1.1, false,
                                {1.0 - 0x1p-4, 1.0 + 0x1.09p-4, 0x1p-1022, 1.0, 0x1.6p-1, 10.0,
                                 2.0}};
    static const Inputs hyper = {-45.0, 45.0, -1.1, 1.1, true,
                                 {0x1p-55, 0x1p-28, 0x1.62e43p-2, 0x1.0a2b2p0, 1.0, 22.0,
                                  0x1.43687ap5}};
    static const Inputs inverse = {-3.0, 3.0, -1.0, 1.0, true,
                                   {0x1p-28, 0.5, 1.0, 2.0, 0x1.00001p1, 0x1p28, 1.0 - 0x1p-53}};
    static const Inputs acoshs = {1.0, 1e6, 1.0, 3.0, false,
                                  {1.0, 2.0, 0x1p28, 1.0 + 0x1p-20, 3.0, 4.0, 0x1.00001p1}};
    static const Inputs erfs = {-30.0, 30.0, -1.5, 1.5, true,
                                {0x1p-28, 0.84375, 1.25, 0x1.6db6ep1, 6.0, 22.0, 0x1p-56}};
    switch (fn) {
    case oxm::Fn::Erf:
    case oxm::Fn::Erfc:
        return erfs;
    case oxm::Fn::Acosh:
        return acoshs;
    case oxm::Fn::Asinh:
    case oxm::Fn::Atanh:
        return inverse;
    case oxm::Fn::Exp:
        return exps;
    case oxm::Fn::Log:
    case oxm::Fn::Log10:
        return logs;
    default:
        return hyper;
    }
}

double input(oxm::Fn fn, std::mt19937_64& rng, long i)
{
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    const Inputs& in = inputsOf(fn);
    const double sign = in.signed_ && rng() % 2 ? -1.0 : 1.0;
    switch (i % 5) {
    case 0:
        return in.wideLo + (in.wideHi - in.wideLo) * unit(rng);
    case 1:
        return in.narrowLo + (in.narrowHi - in.narrowLo) * unit(rng);
    case 2:
        return sign * std::ldexp(1.0 + unit(rng), static_cast<int>(rng() % 2100) - 1075);
    case 3:
        return fromBits(in.signed_ ? rng() : rng() >> 1);
    default: {  // near a threshold: a few hundred ulps either side
        uint64_t b;
        const double t = sign * in.at[rng() % 7];
        std::memcpy(&b, &t, sizeof b);
        return fromBits(b + (rng() % 512) - 256);
    }
    }
}

}  // namespace

int main(int argc, char** argv)
{
    const long millions = argc > 1 ? std::atol(argv[1]) : 100;
    if (millions <= 0 || !__builtin_cpu_supports("avx2") || !__builtin_cpu_supports("fma")) {
        std::fprintf(stderr, "usage: vector_math_check [millions > 0]; needs AVX2 and FMA\n");
        return 2;
    }
    int status = 0;
    for (oxm::Fn fn : oxm::kFunctions) {
        const char* name = oxm::name(fn);
        std::mt19937_64 rng(1 + static_cast<unsigned>(fn));
        long mismatches = 0, away = 0;
        const long n = millions * 1000000;
        for (long i = 0; i < n; i += 4) {
            double x[4], r[4];
            for (int l = 0; l < 4; ++l)
                x[l] = input(fn, rng, i + l);
            const int lanes = oxm::apply4(fn, x, r);
            for (int l = 0; l < 4; ++l) {
                if (lanes >> l & 1) {
                    ++away;
                    continue;
                }
                const double want = oxm::reference(fn, x[l]);
                if (std::memcmp(&want, &r[l], sizeof want) != 0 && mismatches++ < 10)
                    std::printf("%s(%a): %a, C library %a\n", name, x[l], r[l], want);
            }
        }
        std::printf("%s: %ld inputs, %ld mismatches, %.2f%% to the C library\n", name, n,
                    mismatches, 100.0 * static_cast<double>(away) / static_cast<double>(n));
        status |= mismatches != 0;
    }
    return status;
}
