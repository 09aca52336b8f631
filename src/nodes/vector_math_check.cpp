// Whether the four-lane functions serve: the switch, the host's C library and processor,
// and the self-check against the running C library.
#include "nodes/vector_math.h"

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include <xmmintrin.h>
#if defined(__GLIBC__)
#include <gnu/libc-version.h>
#endif

#include "nodes/vector_lanes.h"

namespace oxm {
namespace {

// Inputs where a build of the same algorithm without fused multiply-adds (the C library's
// variant for processors without FMA) rounds differently: a check that passes them runs
// against the FMA build. Spread over the branches: exp on [-10, 10], [-700, 700], [512, 710),
// (-740, -512]; log near 1, on (0, 10], over all exponents, on [1/2, 2].
const double kExpSeparating[] = {
    -0x1.c2c0be93dfeap+0,   0x1.78381dd251dap+1,    -0x1.498cf4daabbcp-1,
    0x1.e29af9b84e4e4p+1,   -0x1.18696df7d9f84p+3,  0x1.571cb38bc75ap+0,
    -0x1.d35dbe338f258p+1,  0x1.6bba5fd68356p+2,    -0x1.888775d367dacp+2,
    0x1.39050efc19f0cp+3,   -0x1.4c9d1573081c6p+2,  0x1.3f6de26335752p+2,
    0x1.e4a7075100d6cp+8,   0x1.02a8ef0f0b2fap+8,   -0x1.b4c351b9c1da5p+8,
    0x1.11ac29fc21cfcp+7,   -0x1.56eb39cd704a8p+7,  0x1.430f742dfb976p+8,
    -0x1.355e53172aa4bp+8,  0x1.0502466047af6p+9,   0x1.1ca71550c7298p+9,
    0x1.30e72b50fa334p+7,   -0x1.a084a193f12fcp+8,  0x1.00a4be600a1a8p+6,
    0x1.37d2f17937ceap+9,   0x1.4d9c6cd21a344p+9,   0x1.4e0a4065880a9p+9,
    0x1.625f74c981555p+9,   0x1.3e2039002fa67p+9,   0x1.11852dd5d8934p+9,
    0x1.41e3bbb66b597p+9,   0x1.5cae793d79032p+9,   0x1.1129186217ffcp+9,
    0x1.5b133ac45e565p+9,   0x1.0150fa2c58f6bp+9,   0x1.601ca59ac0ba1p+9,
    -0x1.1b4ac96b395b1p+9,  -0x1.610bb18132889p+9,  -0x1.23d2764d06c7dp+9,
    -0x1.0dab3accf63dbp+9,  -0x1.5b3363bc3a1a3p+9,  -0x1.1ac5a60c2a706p+9,
    -0x1.41b065b366fadp+9,  -0x1.3f483bd3473e9p+9,  -0x1.60cf986b493efp+9,
    -0x1.2cdd5ea3f6647p+9,  -0x1.3d2ae66b8e9bep+9,  -0x1.2537d7267ec36p+9,
};
const double kLogSeparating[] = {
    0x1.f00fe3257751dp-1,  0x1.0cadafc35d311p+0,  0x1.0ed6358d75a3fp+0,
    0x1.084ad3b0b7336p+0,  0x1.e1d8bc332fdffp-1,  0x1.e9e21325e7b77p-1,
    0x1.0d738c52e99b8p+0,  0x1.e88791a3d57fp-1,   0x1.fa2efc4463238p-1,
    0x1.ec135ee54efffp-1,  0x1.07fb636559ac4p+0,  0x1.e3486dd571616p-1,
    0x1.38811d5c90702p+1,  0x1.856978dc7c23p+2,   0x1.6ac4eb6da49d7p+0,
    0x1.43f79fe6e79dep+2,  0x1.9b872db73df9bp+0,  0x1.40a88ad5b55dcp+0,
    0x1.147665d8e94b1p+0,  0x1.ae22357c5f07cp+1,  0x1.36ef27445767ep+0,
    0x1.b286083eca048p+2,  0x1.0cbf9bfdaaa21p+0,  0x1.f76692fd0d3fp+1,
    0x1.9c696ba65252dp+0,  0x1.b4093d00b572cp-1,  0x1.e7fc5a723cfeep+0,
    0x1.4082f0c76265dp+0,  0x1.4498bd3e76008p+0,  0x1.e33688ce258a9p-1,
    0x1.5c98d1627ab71p+0,  0x1.c9f621d697d5dp-1,  0x1.a2203cc1fad8cp-1,
    0x1.1d65001fdb00fp+0,  0x1.e08958304407ep-1,  0x1.399fb04cd59d3p+0,
    0x1.d8cee170ac53ap-1,  0x1.c53bd23921406p-1,  0x1.1ccb90f195dc6p+0,
    0x1.feccb0af64ccep+0,  0x1.e0c288d759c7p+0,   0x1.34974236257e7p+0,
    0x1.7883251876898p+0,  0x1.84182e6692458p-1,  0x1.1a0ddbe17390ap+0,
    0x1.153241cd9271ep+0,  0x1.ce48c6ffeb246p-1,  0x1.c6f28d8ce7f8ep-1,
};
// log10 runs log on [1/2, 2): the inputs above, and four where a build that fuses the last
// product into its sum rounds differently.
const double kLog10Separating[] = {
    0x1.93432598389a5p-5, 0x1.0c51787907b92p-264, 0x1.43b70640a48bp-106, 0x1.06850769e7dbep+1,
};

// Where expm1 without fused operations (the build for processors without FMA) rounds
// differently, over its ranges of k; for tanh, sinh and cosh, where that expm1 changes them.
const double kExpm1Separating[] = {
    -0x1.4b3481e1c48d5p-2, 0x1.5016b810298f8p-2,  0x1.62a9637f47d3ep-2,  0x1.8b806178d8a44p-2,
    0x1.0abd505772cap+0,   -0x1.629f3000e679p-2,  0x1.b07857063229p-2,   -0x1.b16dcf28e934cp+0,
    0x1.5dadd8c8e43d8p+4,  -0x1.0725ae706e3ep+0,  0x1.0ce05c9e36604p+5,  0x1.b36896e8a7574p+3,
};
const double kTanhSeparating[] = {
    0x1.2be6a9af99e68p-3,  0x1.3d75a4738608p-5,   0x1.cbdfc79d70efp-3,   0x1.060e71091626p-3,
    -0x1.de3edbd14428p-4,  -0x1.13539503cdeep-3,  -0x1.0147df23d9ccp-3,  -0x1.bb17a7193ab6p-3,
    0x1.edfe7afdf22p-4,    -0x1.cb8a10937508p-3,  0x1.54ec8b55e738p-3,   -0x1.0d04b3bf2bf2p-1,
};
const double kSinhSeparating[] = {
    0x1.e555cd21be7c4p-1,  -0x1.6eeda4c5eb7b8p-3, -0x1.c27fd2b0028c4p-2, 0x1.c9c77beb0b46cp-2,
    -0x1.12e8460360d2p-2,  -0x1.03fa5457be87ep+2, 0x1.dca380354d788p+1,  0x1.ba4c9b967461p+0,
    0x1.def421130be6p+1,   0x1.7bfc99f7c4fd8p+2,  -0x1.79ee6a802e1d8p+2, -0x1.b39d5e14bf04cp+3,
};
const double kCoshSeparating[] = {
    0x1.22cc175e2482fp-2,  0x1.7857e37d52fd8p-4,  -0x1.52bfa9ff003b2p-2, 0x1.586abb87a78b9p-2,
    0x1.367c152b1506p-2,   0x1.1d8f780c048p-2,    -0x1.221c8ff292e7p-2,  -0x1.6009016fa255p-2,
    -0x1.54335eab9f3cp-2,  -0x1.fc30482f5d9p-3,   -0x1.51b6aa7dcc4cp-2,  -0x1.129743019c08p-2,
};

// Where log1p without fused operations changes atanh, asinh and acosh.
const double kAtanhSeparating[] = {
    -0x1.738888441f79cp-3, -0x1.cf15abe0f6bap-4,  0x1.7e51db6e530cp-3,   0x1.e214628019dfcp-2,
    -0x1.5c2fe737349ep-3,  0x1.1cbc583aadc3p-2,   0x1.42bbf3d5c5de8p-3,  -0x1.59788b95a609p-3,
    0x1.fe8794bbfeaf7p-1,  0x1.d2f958f98cbf9p-1,  0x1.d624a504abe92p-1,  0x1.d4e30cd05de78p-1,
};
const double kAsinhSeparating[] = {
    -0x1.eff318b3abfa8p-2, 0x1.a280a676a178p-3,   -0x1.427cfa48d2acp-2,  -0x1.713493581142p-2,
    0x1.6df7149812c4p-2,   0x1.d361922779cp-3,    -0x1.19d739ce6823p+0,  0x1.11c2b1e3b33ep+0,
};
const double kAcoshSeparating[] = {
    0x1.0806a6b1e1791p+0,  0x1.bc929ae16c695p+0,  0x1.a79b43155cc61p+0,  0x1.0cfaa1bb3382bp+0,
    0x1.1b71666ccc98cp+0,  0x1.babf8b4b69f3cp+0,  0x1.12e84976f35cep+0,  0x1.923a9de58c953p+0,
};

// Where erf and erfc change with the C library's exp for processors without FMA.
const double kErfSeparating[] = {
    0x1.69bf02b45d16cp+0,  0x1.c4d44849671c8p+0,  0x1.77b71ecc782d6p+0,  -0x1.62d3a9ae3c0b2p+0,
    0x1.8a2be457b7b98p+0,  0x1.5a1abe2669a86p+0,  0x1.cedd8c90e341ap+0,  -0x1.52faabcdaaa7ap+0,
    -0x1.558f690efb10cp+0, 0x1.f0c9bd4f376bap+0,  -0x1.8409df7e49942p+0, -0x1.7fb162e76239cp+0,
};
const double kErfcSeparating[] = {
    0x1.bc9acbb12a432p+3,  0x1.55788807a48e8p+3,  0x1.89775123d7f2cp+0,  0x1.483105c1b2176p+3,
    0x1.aad37dffe449p+3,   0x1.03153cc05ea6ap+4,  0x1.160d2da3da4dcp+2,  0x1.8b1b9e8ea7e2ap+3,
    0x1.8a446cc5e0348p+0,  0x1.892ecd5c85eb8p+2,  0x1.15a579ce39622p+2,  0x1.70c4773867452p+2,
};

// Ranges [lo, hi) of every branch, random inputs from each; {0, 0}: random bit patterns (for
// log without the sign: every exponent alike).
struct Range {
    double lo, hi;
};
const Range kExpRanges[] = {{-0x1p-50, 0x1p-50}, {-1.0, 1.0},     {-10.0, 10.0},
                            {-708.0, 708.0},     {512.0, 709.7},  {-745.2, -512.0},
                            {0.0, 0.0}};
const Range kLogRanges[] = {{0.9375, 1.0647}, {0x1p-1022, 0x1p-1000}, {0.0, 10.0},
                            {0.5, 2.0},       {0.0, 0.0}};
const Range kLog10Ranges[] = {{0.5, 2.0}, {2.0, 1e6}, {0x1p-1022, 0.5}, {0.0, 0.0}};
const Range kExpm1Ranges[] = {{-0x1p-50, 0x1p-50}, {-0.35, 0.35}, {-1.04, 1.04}, {-40.0, 40.0},
                              {-700.0, 510.0},     {0.0, 0.0}};
const Range kTanhRanges[] = {{-0x1p-50, 0x1p-50}, {-1.0, 1.0}, {-22.0, 22.0}, {-40.0, 40.0},
                             {0.0, 0.0}};
const Range kSinhRanges[] = {{-1e-8, 1e-8}, {-1.0, 1.0}, {-22.0, 22.0}, {0.0, 0.0}};
const Range kCoshRanges[] = {{-0x1p-50, 0x1p-50}, {-0.35, 0.35}, {-3.0, 3.0}, {-22.0, 22.0},
                             {0.0, 0.0}};
const Range kAsinhRanges[] = {{-0x1p-27, 0x1p-27}, {-2.5, 2.5}, {-1e5, 1e5}, {0.0, 0.0}};
const Range kAcoshRanges[] = {{1.0, 2.0}, {1.0, 30.0}, {2.0, 1e8}, {0.0, 0.0}};
const Range kAtanhRanges[] = {{-0x1p-27, 0x1p-27}, {-0.5, 0.5}, {-1.0, 1.0}, {0.99, 1.0},
                              {0.0, 0.0}};
const Range kErfRanges[] = {{-0x1p-27, 0x1p-27}, {-0.9, 0.9}, {-1.3, 1.3}, {-6.5, 6.5},
                            {0.0, 0.0}};
const Range kErfcRanges[] = {{-0.9, 0.9}, {-1.3, 1.3}, {-7.0, 7.0}, {2.8, 23.0}, {0.0, 0.0}};
const int kPerRange = 256;

struct Rng {
    uint64_t s = 0x9e3779b97f4a7c15ull;
    uint64_t next()
    {
        s ^= s << 13;
        s ^= s >> 7;
        s ^= s << 17;
        return s;
    }
    double in(const Range& r, uint64_t signMask)
    {
        if (r.lo == r.hi) {
            const uint64_t b = next() & signMask;
            double v;
            std::memcpy(&v, &b, sizeof v);
            return v;
        }
        return r.lo + (r.hi - r.lo) * static_cast<double>(next() >> 11) * 0x1p-53;
    }
};

bool sameBits(double a, double b)
{
    return std::memcmp(&a, &b, sizeof a) == 0;
}

// Four inputs at once: every lane the four-lane path serves gives the reference's bits.
bool agree(Fn fn, double (*reference)(double), const double* x)
{
    double r[4];
    const int away = apply4(fn, x, r);
    for (int i = 0; i < 4; ++i)
        if (!(away >> i & 1) && !sameBits(r[i], reference(x[i])))
            return false;
    return true;
}

bool agreeAll(Fn fn, double (*reference)(double), const double* xs, size_t n)
{
    for (size_t i = 0; i + 4 <= n; i += 4)
        if (!agree(fn, reference, xs + i))
            return false;
    return true;
}

bool agreeRandom(Fn fn, double (*reference)(double), const Range* ranges, size_t n)
{
    Rng rng;
    for (const Range* range = ranges; range != ranges + n; ++range) {
        for (int i = 0; i < kPerRange; i += 4) {
            double x[4];
            for (double& v : x)
                v = rng.in(*range, fn == Fn::Log || fn == Fn::Log10 ? ~0ull >> 1 : ~0ull);
            if (!agree(fn, reference, x))
                return false;
        }
    }
    return true;
}

// One row per function: its name, the C library's function, and the check's inputs.
struct Row {
    Fn fn;
    const char* name;
    double (*c)(double);
    const double* separating[2];
    size_t separatingSize[2];
    const Range* ranges;
    size_t rangesSize;
};

template <size_t N>
constexpr size_t size(const double (&)[N])
{
    static_assert(N % 4 == 0, "four lanes at a time");
    return N;
}

double cExp(double x) { return std::exp(x); }
double cLog(double x) { return std::log(x); }
double cLog10(double x) { return std::log10(x); }
double cExpm1(double x) { return std::expm1(x); }
double cTanh(double x) { return std::tanh(x); }
double cSinh(double x) { return std::sinh(x); }
double cCosh(double x) { return std::cosh(x); }
double cAsinh(double x) { return std::asinh(x); }
double cAcosh(double x) { return std::acosh(x); }
double cAtanh(double x) { return std::atanh(x); }
double cErf(double x) { return std::erf(x); }
double cErfc(double x) { return std::erfc(x); }

constexpr Row kRows[] = {
    {Fn::Exp, "exp", &cExp, {kExpSeparating, nullptr}, {size(kExpSeparating), 0}, kExpRanges,
     std::size(kExpRanges)},
    {Fn::Log, "log", &cLog, {kLogSeparating, nullptr}, {size(kLogSeparating), 0}, kLogRanges,
     std::size(kLogRanges)},
    {Fn::Log10, "log10", &cLog10, {kLogSeparating, kLog10Separating},
     {size(kLogSeparating), size(kLog10Separating)}, kLog10Ranges, std::size(kLog10Ranges)},
    {Fn::Expm1, "expm1", &cExpm1, {kExpm1Separating, nullptr}, {size(kExpm1Separating), 0},
     kExpm1Ranges, std::size(kExpm1Ranges)},
    {Fn::Tanh, "tanh", &cTanh, {kTanhSeparating, nullptr}, {size(kTanhSeparating), 0},
     kTanhRanges, std::size(kTanhRanges)},
    {Fn::Sinh, "sinh", &cSinh, {kSinhSeparating, nullptr}, {size(kSinhSeparating), 0},
     kSinhRanges, std::size(kSinhRanges)},
    {Fn::Cosh, "cosh", &cCosh, {kCoshSeparating, nullptr}, {size(kCoshSeparating), 0},
     kCoshRanges, std::size(kCoshRanges)},
    {Fn::Asinh, "asinh", &cAsinh, {kAsinhSeparating, nullptr}, {size(kAsinhSeparating), 0},
     kAsinhRanges, std::size(kAsinhRanges)},
    {Fn::Acosh, "acosh", &cAcosh, {kAcoshSeparating, nullptr}, {size(kAcoshSeparating), 0},
     kAcoshRanges, std::size(kAcoshRanges)},
    {Fn::Atanh, "atanh", &cAtanh, {kAtanhSeparating, nullptr}, {size(kAtanhSeparating), 0},
     kAtanhRanges, std::size(kAtanhRanges)},
    {Fn::Erf, "erf", &cErf, {kErfSeparating, nullptr}, {size(kErfSeparating), 0}, kErfRanges,
     std::size(kErfRanges)},
    {Fn::Erfc, "erfc", &cErfc, {kErfcSeparating, nullptr}, {size(kErfcSeparating), 0},
     kErfcRanges, std::size(kErfcRanges)},
};

constexpr bool inOrder()
{
    for (size_t i = 0; i < std::size(kRows); ++i)
        if (kRows[i].fn != kFunctions[i])
            return false;
    return std::size(kRows) == std::size(kFunctions);
}
static_assert(inOrder(), "a row per function, in the order of Fn");

const Row& rowOf(Fn fn)
{
    return kRows[static_cast<size_t>(fn)];
}

bool hostFits()
{
#if defined(__x86_64__) && defined(__GLIBC__)
    if (!__builtin_cpu_supports("avx2") || !__builtin_cpu_supports("fma"))
        return false;
    if (std::strcmp(gnu_get_libc_version(), "2.36") != 0)
        return false;
    const char* v = std::getenv("OXEL_VECTOR_MATH");
    return !(v && std::strcmp(v, "0") == 0);
#else
    return false;
#endif
}

bool decide(Fn fn)
{
    if (!hostFits())
        return false;
    return selfCheck(fn, rowOf(fn).c);
}

}  // namespace

bool selfCheck(Fn fn, double (*reference)(double))
{
    // Rounding to nearest without flushing for the check, whatever the host has set; the
    // columns test it again on every use.
    const unsigned csr = _mm_getcsr();
    _mm_setcsr(csr & ~kRoundingBits);
    const Row& row = rowOf(fn);
    bool ok = agreeRandom(fn, reference, row.ranges, row.rangesSize);
    for (int i = 0; i < 2; ++i)
        ok = ok && agreeAll(fn, reference, row.separating[i], row.separatingSize[i]);
    _mm_setcsr(csr);
    return ok;
}

bool serves(Fn fn)
{
    struct Decided {
        bool on[std::size(kFunctions)];
        Decided()
        {
            for (Fn f : kFunctions)
                on[static_cast<size_t>(f)] = decide(f);
        }
    };
    static const Decided decided;
    return decided.on[static_cast<size_t>(fn)];
}

const char* name(Fn fn)
{
    return rowOf(fn).name;
}

double reference(Fn fn, double x)
{
    return rowOf(fn).c(x);
}

}  // namespace oxm
