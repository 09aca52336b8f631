// The four-lane functions (see vector_math.h); compiled with -ffp-contract=off:
// every fused multiply-add below is written out, and no other product may be fused.
#include "nodes/vector_math.h"

#include <array>
#include <cstdint>
#include <iterator>
#include <type_traits>
#include <utility>

#include <immintrin.h>

#include "nodes/kernels.h"
#include "nodes/kinds.h"
#include "nodes/vector_lanes.h"
#include "nodes/vector_math_tables.h"

namespace oxm {
namespace {

using namespace tables;

OXM_AVX2 __m256d fma(__m256d a, __m256d b, __m256d c)
{
    return _mm256_fmadd_pd(a, b, c);
}

// Four pairs {t[2j], t[2j+1]} of the table, j from the lanes of index: first and second
// members. Plain loads of 16 bytes beat the gather instruction here.
OXM_AVX2 void pairs(const double* t, __m256i index, __m256d& first, __m256d& second)
{
    alignas(32) int64_t j[4];
    _mm256_store_si256(reinterpret_cast<__m256i*>(j), index);
    const __m256d p02 = _mm256_set_m128d(_mm_load_pd(t + 2 * j[2]), _mm_load_pd(t + 2 * j[0]));
    const __m256d p13 = _mm256_set_m128d(_mm_load_pd(t + 2 * j[3]), _mm_load_pd(t + 2 * j[1]));
    first = _mm256_unpacklo_pd(p02, p13);
    second = _mm256_unpackhi_pd(p02, p13);
}

// exp(x) = 2^(k/N) exp(r) with x = k ln2/N + r, |r| <= ln2/2N; 2^(k/N) from the table as
// scale (1 + tail); exp(r) - 1 by a polynomial: y = scale + scale * tmp.
struct ExpParts {
    __m256i scaleBits;
    __m256d tmp;
};

OXM_AVX2 ExpParts expParts(__m256d x)
{
    __m256d kd = fma(x, k(kInvLn2N), k(kShift));
    const __m256i ki = ints(kd);
    kd = _mm256_sub_pd(kd, k(kShift));
    __m256d r = fma(kd, k(kNegLn2HiN), x);
    r = fma(kd, k(kNegLn2LoN), r);
    __m256d tail, scaleBits;
    pairs(reinterpret_cast<const double*>(kExpTable), _mm256_and_si256(ki, _mm256_set1_epi64x(127)),
          tail, scaleBits);
    const __m256i sbits = _mm256_add_epi64(ints(scaleBits), _mm256_slli_epi64(ki, 45));
    const __m256d p23 = fma(r, k(kExpC3), k(kExpC2));
    const __m256d tr = _mm256_add_pd(tail, r);
    const __m256d r2 = _mm256_mul_pd(r, r);
    const __m256d p45 = fma(r, k(kExpC5), k(kExpC4));
    const __m256d lowTerms = fma(p23, r2, tr);
    const __m256d r4 = _mm256_mul_pd(r2, r2);
    return {sbits, fma(r4, p45, lowTerms)};
}

// Lanes with |x| outside [2^-54, 512), NaN included: one integer test, off the values' chain,
// so that the common case pays no blends.
OXM_AVX2 bool expUncommon(__m256d x)
{
    const int64_t tiny = 0x3c90000000000000ll;  // 2^-54
    const __m256i a =
        _mm256_sub_epi64(ints(_mm256_andnot_pd(k(-0.0), x)), _mm256_set1_epi64x(tiny));
    const __m256i above =
        _mm256_cmpgt_epi64(a, _mm256_set1_epi64x(0x4080000000000000ll - tiny - 1));
    return lanes(bits(_mm256_or_si256(a, above))) != 0;
}

OXM_AVX2 __m256d expCommon(__m256d x)
{
    const ExpParts p = expParts(x);
    const __m256d scale = bits(p.scaleBits);
    return fma(scale, p.tmp, scale);
}

// Any lanes: |x| in [512, 1024) rescales to keep scale a normal number; |x| < 2^-54 gives
// 1 + x. Lanes in *away take the scalar function.
[[gnu::target("avx2,fma"), gnu::noinline, gnu::cold]] __m256d expAnyLanes(__m256d x, int& away)
{
    const __m256d ax = _mm256_andnot_pd(k(-0.0), x);
    const __m256d outside = _mm256_cmp_pd(ax, k(1024.0), _CMP_NLT_UQ);  // NaN included
    const __m256d tiny = _mm256_cmp_pd(ax, k(0x1p-54), _CMP_LT_OQ);
    const __m256d large = _mm256_cmp_pd(ax, k(512.0), _CMP_GE_OQ);
    // Lanes of another path compute on zero: subnormal arithmetic in dead lanes is slow.
    const __m256d xs = _mm256_andnot_pd(_mm256_or_pd(outside, tiny), x);
    const ExpParts p = expParts(xs);
    const __m256d scale = bits(p.scaleBits);
    __m256d y = fma(scale, p.tmp, scale);

    int awayMask = lanes(outside);
    const __m256d big = _mm256_andnot_pd(outside, large);
    if (lanes(big)) {
        // k > 0: the scale's exponent may have overflowed; take 2^1009 out of it.
        const __m256d up = bits(_mm256_sub_epi64(p.scaleBits, _mm256_set1_epi64x(1009ll << 52)));
        const __m256d yUp = _mm256_mul_pd(fma(up, p.tmp, up), k(0x1p1009));
        // k < 0: 2^-1022 out of it; results below 2^-1022 are subnormal (scalar lanes).
        const __m256d down = bits(_mm256_add_epi64(p.scaleBits, _mm256_set1_epi64x(1022ll << 52)));
        const __m256d sum = _mm256_add_pd(down, _mm256_mul_pd(down, p.tmp));
        const __m256d yDown = _mm256_mul_pd(sum, k(0x1p-1022));
        const __m256d negative = _mm256_cmp_pd(x, k(0.0), _CMP_LT_OQ);
        y = _mm256_blendv_pd(y, _mm256_blendv_pd(yUp, yDown, negative), big);
        awayMask |= lanes(_mm256_and_pd(_mm256_and_pd(big, negative),
                                        _mm256_cmp_pd(sum, k(1.0), _CMP_LT_OQ)));
    }
    y = _mm256_blendv_pd(y, _mm256_add_pd(k(1.0), x), tiny);
    away = awayMask;
    return y;
}

OXM_AVX2 __m256d exp4(__m256d x, int& away)
{
    if (__builtin_expect(expUncommon(x), 0))
        return expAnyLanes(x, away);
    away = 0;
    return expCommon(x);
}

// log(x) near 1 (x in [1 - 2^-4, 1 + 0x1.09p-4)): r = x - 1 and a polynomial, with r split
// so that r - r^2/2 is exact.
OXM_AVX2 __m256d logNearOne(__m256d x)
{
    const __m256d r = _mm256_sub_pd(x, k(1.0));
    const __m256d r2 = _mm256_mul_pd(r, r);
    const __m256d r3 = _mm256_mul_pd(r, r2);
    const __m256d p12 = fma(r2, k(kLogB3), fma(r, k(kLogB2), k(kLogB1)));
    const __m256d p45 = fma(r2, k(kLogB6), fma(r, k(kLogB5), k(kLogB4)));
    __m256d p78 = fma(r2, k(kLogB9), fma(r, k(kLogB8), k(kLogB7)));
    p78 = fma(r3, k(kLogB10), p78);
    const __m256d p = fma(fma(p78, r3, p45), r3, p12);
    const __m256d w = fma(r, k(0x1p27), r);
    const __m256d rhi = _mm256_fnmadd_pd(k(0x1p27), r, w);
    const __m256d rlo = _mm256_sub_pd(r, rhi);
    const __m256d rhi2 = _mm256_mul_pd(rhi, rhi);
    const __m256d hi = fma(rhi2, k(kLogB0), r);
    __m256d lo = fma(rhi2, k(kLogB0), _mm256_sub_pd(r, hi));
    lo = fma(_mm256_mul_pd(k(kLogB0), rlo), _mm256_add_pd(rhi, r), lo);
    return _mm256_add_pd(hi, fma(p, r3, lo));
}

// log(x) = k ln2 + log(c) + log1p(z/c - 1), x = 2^k z with z in [0x1.6p-1, 0x1.6p0) and c near
// z from the table (its 1/c exact); log1p(r) - r by a polynomial.
OXM_AVX2 __m256d logMain(__m256d x)
{
    const __m256i ix = ints(x);
    const __m256i tmp = _mm256_sub_epi64(ix, _mm256_set1_epi64x(0x3fe6000000000000ll));
    const __m256i i = _mm256_and_si256(_mm256_srli_epi64(tmp, 45), _mm256_set1_epi64x(127));
    // k = tmp >> 52, arithmetic, which AVX2 lacks: (tmp + (0x3fe << 52)) >> 52 is k + 0x3fe
    // and not negative for normal x; it becomes a double as the low bits of 2^52.
    const __m256i biased =
        _mm256_srli_epi64(_mm256_add_epi64(tmp, _mm256_set1_epi64x(0x3fell << 52)), 52);
    const __m256d kd =
        _mm256_sub_pd(bits(_mm256_or_si256(biased, ints(k(0x1p52)))), k(0x1p52 + 0x3fe));
    const __m256i iz =
        _mm256_sub_epi64(ix, _mm256_and_si256(tmp, _mm256_set1_epi64x(0xfffll << 52)));
    __m256d invc, logc;
    pairs(kLogTable, i, invc, logc);
    const __m256d r = fma(bits(iz), invc, k(-1.0));
    const __m256d w = fma(kd, k(kLn2Hi), logc);
    const __m256d hi = _mm256_add_pd(r, w);
    const __m256d lo = fma(kd, k(kLn2Lo), _mm256_add_pd(_mm256_sub_pd(w, hi), r));
    const __m256d r2 = _mm256_mul_pd(r, r);
    const __m256d r3 = _mm256_mul_pd(r, r2);
    const __m256d q = fma(fma(r, k(kLogA4), k(kLogA3)), r2, fma(r, k(kLogA2), k(kLogA1)));
    return _mm256_add_pd(fma(r3, q, fma(r2, k(kLogA0), lo)), hi);
}

// Lanes whose bits, less base, fall outside [0, width) have the sign bit set: one integer test.
OXM_AVX2 __m256i bitsOutside(__m256i ix, int64_t base, int64_t width)
{
    const __m256i a = _mm256_sub_epi64(ix, _mm256_set1_epi64x(base));
    return _mm256_or_si256(a, _mm256_cmpgt_epi64(a, _mm256_set1_epi64x(width - 1)));
}

// Normal x > 0 below infinity: the logs' common path (sign bit clear).
OXM_AVX2 __m256i logNormal(__m256d x)
{
    return bitsOutside(ints(x), 0x0010000000000000ll, 0x7fe0000000000000ll);
}

// x outside [1 - 2^-4, 1 + 0x1.09p-4), where log takes logMain (sign bit set).
OXM_AVX2 __m256i logFar(__m256d x)
{
    return bitsOutside(ints(x), 0x3fee000000000000ll, 0x3ff1090000000000ll - 0x3fee000000000000ll);
}

// log10(x) = y log10(2) + log(x')/ln(10) with x = 2^y x', x' in [1/2, 2) (y = 0 for x in
// [1/2, 2)): 1/ln(10) rounded to nearest, log10(2) cut at 2^-41 as hi (40 bits, so y hi is
// exact) and the rest rounded as lo. Products and sums are rounded one by one: no fused
// operation here, as in the C library's build of it.
const double kInvLn10 = 0x1.bcb7b1526e50ep-2;
const double kLog10Of2Hi = 0x1.34413509f6p-2;
const double kLog10Of2Lo = 0x1.9fef311f12b36p-42;

// x' of x: its mantissa with the exponent of 1, or of 1/2 where x < 1.
OXM_AVX2 __m256d log10Reduced(__m256d x)
{
    const __m256i ix = ints(x);
    const __m256i below = _mm256_cmpgt_epi64(_mm256_set1_epi64x(0x3ff0000000000000ll), ix);
    const __m256i mantissa = _mm256_and_si256(ix, _mm256_set1_epi64x(0x000fffffffffffffll));
    return bits(_mm256_or_si256(mantissa, _mm256_add_epi64(_mm256_set1_epi64x(0x3ffll << 52),
                                                           _mm256_slli_epi64(below, 52))));
}

// log10(x) from l = log(x').
OXM_AVX2 __m256d log10Finished(__m256d x, __m256d l)
{
    const __m256i ix = ints(x);
    const __m256i biased = _mm256_or_si256(_mm256_srli_epi64(ix, 52), ints(k(0x1p52)));
    const __m256d e = _mm256_sub_pd(bits(biased), k(0x1p52 + 1023));
    const __m256d below = _mm256_cmp_pd(e, k(0.0), _CMP_LT_OQ);  // x < 1: x' in [1/2, 1)
    const __m256d y = _mm256_add_pd(e, _mm256_and_pd(below, k(1.0)));
    const __m256d z =
        _mm256_add_pd(_mm256_mul_pd(y, k(kLog10Of2Lo)), _mm256_mul_pd(k(kInvLn10), l));
    return _mm256_add_pd(z, _mm256_mul_pd(y, k(kLog10Of2Hi)));
}

// expm1(x) = 2^k (1 + expm1(r)) - 1 with x = k ln2 + r, r as hi - lo plus its rounding error c,
// and expm1(r) from a rational form in r^2/2 whose polynomial runs in two halves (the classic
// freely licensed algorithm, see THIRD_PARTY_NOTICES). Each fused operation, and the sum that
// finishes each range of k, is the C library's FMA build's. For finite x with |x| >= 2^-54
// below 709.78; x below -56 ln2 gives -1.
const double kEm1Ln2Hi = 0x1.62e42feep-1;
const double kEm1Ln2Lo = 0x1.a39ef35793c76p-33;
const double kEm1InvLn2 = 0x1.71547652b82fep0;
const double kEm1Q1 = -0x1.11111111110f4p-5;
const double kEm1Q2 = 0x1.a01a019fe5585p-10;
const double kEm1Q3 = -0x1.4ce199eaadbb7p-14;
const double kEm1Q4 = 0x1.0cfca86e65239p-18;
const double kEm1Q5 = -0x1.afdb76e09c32dp-23;

// Masks of lanes whose |x|'s bits lie at or above bound.
OXM_AVX2 __m256d atLeast(__m256i ax, int64_t bound)
{
    return bits(_mm256_cmpgt_epi64(ax, _mm256_set1_epi64x(bound - 1)));
}

OXM_AVX2 __m256d expm1Lanes(__m256d x)
{
    const __m256i ax = ints(_mm256_andnot_pd(k(-0.0), x));
    const __m256d negative = bits(_mm256_cmpgt_epi64(_mm256_setzero_si256(), ints(x)));
    const __m256d half = _mm256_or_pd(k(0.5), _mm256_and_pd(negative, k(-0.0)));
    // k = 0 to 0.5 ln2, +-1 to 1.5 ln2, else x/ln2 +- 1/2 truncated.
    const __m256d reduced = atLeast(ax, 0x3fd62e4300000000ll);
    const __m256d beyondOne = atLeast(ax, 0x3ff0a2b200000000ll);
    const __m256d kFar = _mm256_round_pd(_mm256_add_pd(_mm256_mul_pd(x, k(kEm1InvLn2)), half),
                                         _MM_FROUND_TO_ZERO | _MM_FROUND_NO_EXC);
    const __m256d kOne = _mm256_add_pd(half, half);
    const __m256d kd = _mm256_and_pd(reduced, _mm256_blendv_pd(kOne, kFar, beyondOne));
    const __m256d hi = _mm256_fnmadd_pd(kd, k(kEm1Ln2Hi), x);
    const __m256d lo = _mm256_mul_pd(kd, k(kEm1Ln2Lo));
    const __m256d r = _mm256_sub_pd(hi, lo);
    const __m256d c = _mm256_sub_pd(_mm256_sub_pd(hi, r), lo);

    const __m256d hfx = _mm256_mul_pd(r, k(0.5));
    const __m256d hxs = _mm256_mul_pd(r, hfx);
    const __m256d h2 = _mm256_mul_pd(hxs, hxs);
    const __m256d r1 = fma(_mm256_mul_pd(h2, h2), fma(hxs, k(kEm1Q5), k(kEm1Q4)),
                           fma(h2, fma(hxs, k(kEm1Q3), k(kEm1Q2)), fma(hxs, k(kEm1Q1), k(1.0))));
    const __m256d t = _mm256_fnmadd_pd(r1, hfx, k(3.0));
    const __m256d e = _mm256_mul_pd(
        _mm256_div_pd(_mm256_sub_pd(r1, t), _mm256_fnmadd_pd(r, t, k(6.0))), hxs);

    // k = 0: r - (r e - r^2/2); otherwise e corrected by c.
    const __m256d y0 = _mm256_sub_pd(r, _mm256_fmsub_pd(e, r, hxs));
    const __m256d ec = _mm256_sub_pd(_mm256_fmsub_pd(_mm256_sub_pd(e, c), r, c), hxs);
    const __m256d rMinusE = _mm256_sub_pd(r, ec);
    const __m256d eMinusR = _mm256_sub_pd(ec, r);
    // k = -1 and k = 1 (below r = -1/4 with another sum).
    const __m256d yDown = fma(rMinusE, k(0.5), k(-0.5));
    const __m256d yUp = _mm256_blendv_pd(
        fma(rMinusE, k(2.0), k(1.0)),
        _mm256_mul_pd(_mm256_sub_pd(ec, _mm256_add_pd(r, k(0.5))), k(-2.0)),
        _mm256_cmp_pd(r, k(-0.25), _CMP_LT_OQ));
    // Other k: y 2^k with y by range, 2^k put into y's exponent (y 2^k is normal).
    const __m256i ki = _mm256_sub_epi64(ints(_mm256_add_pd(kd, k(0x1p52 + 0x1p51))),
                                        ints(k(0x1p52 + 0x1p51)));
    const __m256d twoMinusK = bits(_mm256_sub_epi64(ints(k(1.0)), _mm256_slli_epi64(ki, 52)));
    const __m256d ySmall = _mm256_sub_pd(_mm256_sub_pd(k(1.0), twoMinusK), eMinusR);
    const __m256d yMid = _mm256_add_pd(_mm256_sub_pd(r, _mm256_add_pd(ec, twoMinusK)), k(1.0));
    const __m256d yFar = _mm256_sub_pd(k(1.0), eMinusR);
    const __m256d scaledRange = _mm256_and_pd(_mm256_cmp_pd(kd, k(1.5), _CMP_GT_OQ),
                                              _mm256_cmp_pd(kd, k(57.0), _CMP_LT_OQ));
    __m256d y = _mm256_blendv_pd(
        yFar, _mm256_blendv_pd(yMid, ySmall, _mm256_cmp_pd(kd, k(20.0), _CMP_LT_OQ)), scaledRange);
    y = bits(_mm256_add_epi64(ints(y), _mm256_slli_epi64(ki, 52)));
    y = _mm256_blendv_pd(_mm256_sub_pd(y, k(1.0)), y, scaledRange);
    y = _mm256_blendv_pd(y, yUp, _mm256_cmp_pd(kd, k(1.0), _CMP_EQ_OQ));
    y = _mm256_blendv_pd(y, yDown, _mm256_cmp_pd(kd, k(-1.0), _CMP_EQ_OQ));
    y = _mm256_blendv_pd(y, y0, _mm256_cmp_pd(kd, k(0.0), _CMP_EQ_OQ));
    // Below -56 ln2: -1.
    const __m256d minusOne = _mm256_and_pd(negative, atLeast(ax, 0x4043687a00000000ll));
    return _mm256_blendv_pd(y, k(-1.0), minusOne);
}

// Lanes of mask compute on zero: subnormal arithmetic in dead lanes is slow.
OXM_AVX2 __m256d zeroed(__m256d x, __m256d mask)
{
    return _mm256_andnot_pd(mask, x);
}

// expm1 for any lanes: x >= 512 and NaN away (the kernel raises from 709.72).
OXM_AVX2 __m256d expm1Any(__m256d x, int& away)
{
    const __m256d outside = _mm256_cmp_pd(x, k(512.0), _CMP_NLT_UQ);
    const __m256d tiny = _mm256_cmp_pd(_mm256_andnot_pd(k(-0.0), x), k(0x1p-54), _CMP_LT_OQ);
    away = lanes(outside);
    return _mm256_blendv_pd(expm1Lanes(zeroed(x, _mm256_or_pd(outside, tiny))), x, tiny);
}

// tanh: 1 - 2/(expm1(2|x|) + 2) from |x| = 1, else -t/(t + 2) with t = expm1(-2|x|), the sign
// of x; 1 from |x| = 22, x (1 + x) below 2^-55. NaN away.
OXM_AVX2 __m256d tanhAny(__m256d x, int& away)
{
    const __m256d ax = _mm256_andnot_pd(k(-0.0), x);
    const __m256i axi = ints(ax);
    const __m256d nan = _mm256_cmp_pd(x, x, _CMP_UNORD_Q);
    const __m256d big = atLeast(axi, 0x4036000000000000ll);
    const __m256d tiny = _mm256_cmp_pd(ax, k(0x1p-55), _CMP_LT_OQ);
    const __m256d fromOne = atLeast(axi, 0x3ff0000000000000ll);
    const __m256d twice = _mm256_add_pd(ax, ax);
    const __m256d a = _mm256_blendv_pd(_mm256_xor_pd(twice, k(-0.0)), twice, fromOne);
    const __m256d t = expm1Lanes(zeroed(a, _mm256_or_pd(big, tiny)));
    const __m256d q = _mm256_div_pd(_mm256_blendv_pd(_mm256_xor_pd(t, k(-0.0)), k(2.0), fromOne),
                                    _mm256_add_pd(t, k(2.0)));
    __m256d z = _mm256_blendv_pd(q, _mm256_sub_pd(k(1.0), q), fromOne);
    z = _mm256_or_pd(_mm256_blendv_pd(z, k(1.0), big), _mm256_and_pd(x, k(-0.0)));
    away = lanes(nan);
    return _mm256_blendv_pd(z, _mm256_mul_pd(x, _mm256_add_pd(k(1.0), x)), tiny);
}

// sinh: h (2t - t^2/(t + 1)) below |x| = 1, else h (t + t/(t + 1)), with t = expm1(|x|) and
// h = 1/2 with the sign of x; x below 2^-28. |x| >= 22 and NaN away.
OXM_AVX2 __m256d sinhAny(__m256d x, int& away)
{
    const __m256d ax = _mm256_andnot_pd(k(-0.0), x);
    const __m256d outside = _mm256_cmp_pd(ax, k(22.0), _CMP_NLT_UQ);
    const __m256d tiny = _mm256_cmp_pd(ax, k(0x1p-28), _CMP_LT_OQ);
    const __m256d belowOne = _mm256_cmp_pd(ax, k(1.0), _CMP_LT_OQ);
    const __m256d t = expm1Lanes(zeroed(ax, _mm256_or_pd(outside, tiny)));
    const __m256d q = _mm256_div_pd(_mm256_blendv_pd(t, _mm256_mul_pd(t, t), belowOne),
                                    _mm256_add_pd(t, k(1.0)));
    const __m256d v =
        _mm256_blendv_pd(_mm256_add_pd(q, t), _mm256_sub_pd(_mm256_add_pd(t, t), q), belowOne);
    const __m256d h = _mm256_or_pd(k(0.5), _mm256_and_pd(x, k(-0.0)));
    away = lanes(outside);
    return _mm256_blendv_pd(_mm256_mul_pd(v, h), x, tiny);
}

// cosh: 1 + t^2/(2 (1 + t)) with t = expm1(|x|) to 0.5 ln2 (1 below 2^-55), beyond
// e/2 + (1/2)/e with e = exp(|x|). |x| >= 22 and NaN away.
OXM_AVX2 __m256d coshAny(__m256d x, int& away)
{
    const __m256d ax = _mm256_andnot_pd(k(-0.0), x);
    const __m256d outside = _mm256_cmp_pd(ax, k(22.0), _CMP_NLT_UQ);
    const __m256d nearZero = _mm256_cmp_pd(ax, k(0x1.62e43p-2), _CMP_LT_OQ);
    const __m256d tiny = _mm256_cmp_pd(ax, k(0x1p-55), _CMP_LT_OQ);
    away = lanes(outside);
    const int near = lanes(nearZero);
    __m256d y = k(1.0);
    if (near != 15) {
        const __m256d e = expCommon(_mm256_blendv_pd(ax, k(1.0), _mm256_or_pd(outside, nearZero)));
        y = _mm256_add_pd(_mm256_mul_pd(e, k(0.5)), _mm256_div_pd(k(0.5), e));
    }
    if (near != 0) {
        const __m256d rest = _mm256_cmp_pd(ax, k(0x1.62e43p-2), _CMP_NLT_UQ);
        const __m256d t = expm1Lanes(zeroed(ax, _mm256_or_pd(tiny, rest)));
        const __m256d w = _mm256_add_pd(t, k(1.0));
        const __m256d small =
            _mm256_add_pd(k(1.0), _mm256_div_pd(_mm256_mul_pd(t, t), _mm256_add_pd(w, w)));
        y = _mm256_blendv_pd(y, _mm256_blendv_pd(small, k(1.0), tiny), nearZero);
    }
    return y;
}

// log1p(x) = k ln2 + log(1 + f) with 1 + x = 2^k (1 + f) (k = 0 where 1 + x lies within about
// [sqrt(2)/2, sqrt(2)), by the words compared) and c the rounding error of 1 + x;
// log(1 + f) = f - (f^2/2 - s (f^2/2 + R(s^2))) with s = f/(2 + f), or f - f^2/2 (1 - 2f/3)
// where f's leading word is zero (the classic freely licensed algorithm, see
// THIRD_PARTY_NOTICES), with the fused operations of the C library's FMA build. For x in
// (-1, 2^53) with |x| >= 2^-29.
const double kLp1 = 0x1.5555555555593p-1;
const double kLp2 = 0x1.999999997fa04p-2;
const double kLp3 = 0x1.2492494229359p-2;
const double kLp4 = 0x1.c71c51d8e78afp-3;
const double kLp5 = 0x1.7466496cb03dep-3;
const double kLp6 = 0x1.39a09d078c69fp-3;
const double kLp7 = 0x1.2f112df3e5244p-3;

OXM_AVX2 __m256d log1pLanes(__m256d x)
{
    const __m256i ix = ints(x);
    const __m256i ax = ints(_mm256_andnot_pd(k(-0.0), x));
    const __m256d negative = bits(_mm256_cmpgt_epi64(_mm256_setzero_si256(), ix));
    const __m256d kZero = _mm256_blendv_pd(
        bits(_mm256_cmpgt_epi64(_mm256_set1_epi64x(0x3fda827a00000000ll), ix)),
        bits(_mm256_cmpgt_epi64(_mm256_set1_epi64x(0x3fd2bec400000000ll), ax)), negative);
    const __m256d u = _mm256_add_pd(x, k(1.0));
    const __m256i iu = ints(u);
    const __m256d ku = _mm256_sub_pd(
        bits(_mm256_or_si256(_mm256_srli_epi64(iu, 52), ints(k(0x1p52)))), k(0x1p52 + 1023));
    const __m256d c = _mm256_div_pd(
        _mm256_blendv_pd(_mm256_sub_pd(x, _mm256_sub_pd(u, k(1.0))),
                         _mm256_sub_pd(k(1.0), _mm256_sub_pd(u, x)),
                         _mm256_cmp_pd(ku, k(0.0), _CMP_GT_OQ)),
        u);
    // 1 + x normalised to [sqrt(2)/2, sqrt(2)) by its leading word.
    const __m256i hu = _mm256_and_si256(_mm256_srli_epi64(iu, 32), _mm256_set1_epi64x(0xfffff));
    const __m256i half = _mm256_cmpgt_epi64(hu, _mm256_set1_epi64x(0x6a09d));
    const __m256i exponent =
        _mm256_sub_epi64(_mm256_set1_epi64x(0x3ff0000000000000ll),
                         _mm256_and_si256(half, _mm256_set1_epi64x(1ll << 52)));
    const __m256d un = bits(_mm256_or_si256(
        _mm256_and_si256(iu, _mm256_set1_epi64x(0x000fffffffffffffll)), exponent));
    const __m256d kd =
        _mm256_andnot_pd(kZero, _mm256_sub_pd(ku, bits(_mm256_and_si256(half, ints(k(-1.0))))));
    const __m256d f = _mm256_blendv_pd(_mm256_sub_pd(un, k(1.0)), x, kZero);
    // f's leading word zero: hu = 0 below sqrt(2), (2^20 - hu) / 4 = 0 above.
    const __m256d wordZero = _mm256_andnot_pd(
        kZero, bits(_mm256_blendv_epi8(_mm256_cmpeq_epi64(hu, _mm256_setzero_si256()),
                                       _mm256_cmpgt_epi64(hu, _mm256_set1_epi64x(0xffffc)), half)));
    const __m256d hfsq = _mm256_mul_pd(_mm256_mul_pd(f, k(0.5)), f);
    const __m256d s = _mm256_div_pd(f, _mm256_add_pd(f, k(2.0)));
    const __m256d z = _mm256_mul_pd(s, s);
    const __m256d z2 = _mm256_mul_pd(z, z);
    const __m256d z4 = _mm256_mul_pd(z2, z2);
    const __m256d rLow = fma(z, k(kLp1), _mm256_mul_pd(z2, fma(z, k(kLp3), k(kLp2))));
    const __m256d r = fma(_mm256_mul_pd(z2, z4), fma(z, k(kLp7), k(kLp6)),
                          fma(z4, fma(z, k(kLp5), k(kLp4)), rLow));
    const __m256d rShort =
        _mm256_mul_pd(_mm256_fnmadd_pd(f, k(0x1.5555555555555p-1), k(1.0)), hfsq);
    const __m256d kLow = fma(kd, k(kEm1Ln2Lo), c);
    // k = 0: f - (f^2/2 - s (f^2/2 + R)); else k ln2_hi - ((f^2/2 - (k ln2_lo + c + sR')) - f).
    const __m256d sr = _mm256_mul_pd(_mm256_add_pd(r, hfsq), s);
    __m256d y0 = _mm256_sub_pd(f, _mm256_sub_pd(hfsq, sr));
    __m256d w = _mm256_sub_pd(_mm256_sub_pd(hfsq, _mm256_add_pd(kLow, sr)), f);
    y0 = _mm256_blendv_pd(y0, _mm256_sub_pd(f, rShort), wordZero);
    w = _mm256_blendv_pd(w, _mm256_sub_pd(_mm256_sub_pd(rShort, kLow), f), wordZero);
    __m256d yk = _mm256_fmsub_pd(kd, k(kEm1Ln2Hi), w);
    // f = 0 exactly: k ln2_hi + (k ln2_lo + c).
    yk = _mm256_blendv_pd(yk, fma(kd, k(kEm1Ln2Hi), kLow),
                          _mm256_and_pd(wordZero, _mm256_cmp_pd(f, k(0.0), _CMP_EQ_OQ)));
    return _mm256_blendv_pd(yk, y0, _mm256_cmp_pd(kd, k(0.0), _CMP_EQ_OQ));
}

// atanh: log1p(2|x| + 2|x| |x|/(1 - |x|))/2 below |x| = 1/2, else log1p(2|x|/(1 - |x|))/2, with
// the sign of x; x below 2^-28. |x| >= 1 - 2^-53 and NaN away.
OXM_AVX2 __m256d atanhAny(__m256d x, int& away)
{
    const __m256d xa = _mm256_andnot_pd(k(-0.0), x);
    // From 1 - 2^-53 on, log1p's argument passes 2^53, where it takes another path.
    const __m256d outside = _mm256_cmp_pd(xa, k(0x1.fffffffffffffp-1), _CMP_NLT_UQ);
    const __m256d tiny = _mm256_cmp_pd(xa, k(0x1p-28), _CMP_LT_OQ);
    const __m256d belowHalf = _mm256_cmp_pd(xa, k(0.5), _CMP_LT_OQ);
    const __m256d xs = _mm256_blendv_pd(xa, k(0.25), _mm256_or_pd(outside, tiny));
    const __m256d t = _mm256_add_pd(xs, xs);
    const __m256d q = _mm256_div_pd(_mm256_blendv_pd(t, _mm256_mul_pd(xs, t), belowHalf),
                                    _mm256_sub_pd(k(1.0), xs));
    const __m256d l = log1pLanes(_mm256_blendv_pd(q, _mm256_add_pd(q, t), belowHalf));
    away = lanes(outside);
    return _mm256_blendv_pd(_mm256_or_pd(_mm256_mul_pd(k(0.5), l), _mm256_and_pd(x, k(-0.0))),
                            x, tiny);
}

// log(far) in the lanes of beyond (far >= 4 there), log1p(near) in the others: only the paths
// the lanes need.
OXM_AVX2 __m256d logOrLog1p(__m256d beyond, __m256d far, __m256d near)
{
    const int farLanes = lanes(beyond);
    if (farLanes == 15)
        return logMain(far);
    if (farLanes == 0)
        return log1pLanes(near);
    return _mm256_blendv_pd(log1pLanes(_mm256_blendv_pd(near, k(1.0), beyond)),
                            logMain(_mm256_blendv_pd(k(4.0), far, beyond)), beyond);
}

// asinh: log(2|x| + 1/(sqrt(x^2 + 1) + |x|)) beyond |x| = 2 (by the leading word), else
// log1p(|x| + x^2/(1 + sqrt(1 + x^2))), with the sign of x; x below 2^-28. |x| > 2^28 and NaN
// away.
OXM_AVX2 __m256d asinhAny(__m256d x, int& away)
{
    const __m256d ax = _mm256_andnot_pd(k(-0.0), x);
    const __m256d outside = _mm256_cmp_pd(ax, k(0x1p28), _CMP_NLE_UQ);
    const __m256d tiny = _mm256_cmp_pd(ax, k(0x1p-28), _CMP_LT_OQ);
    const __m256d xs = _mm256_blendv_pd(ax, k(1.0), _mm256_or_pd(outside, tiny));
    const __m256d beyondTwo = atLeast(ints(xs), 0x4000000100000000ll);
    const __m256d t = _mm256_mul_pd(xs, xs);
    const __m256d root = _mm256_sqrt_pd(_mm256_add_pd(t, k(1.0)));
    const __m256d q = _mm256_div_pd(_mm256_blendv_pd(t, k(1.0), beyondTwo),
                                    _mm256_add_pd(root, _mm256_blendv_pd(k(1.0), xs, beyondTwo)));
    const __m256d arg = _mm256_add_pd(q, _mm256_blendv_pd(xs, _mm256_add_pd(xs, xs), beyondTwo));
    const __m256d l = logOrLog1p(beyondTwo, arg, arg);
    away = lanes(outside);
    return _mm256_blendv_pd(_mm256_or_pd(l, _mm256_and_pd(x, k(-0.0))), x, tiny);
}

// acosh: log(2x - 1/(x + sqrt(x^2 - 1))) beyond x = 2, else log1p(t + sqrt(2t + t^2)) with
// t = x - 1. x <= 1, x >= 2^28 and NaN away.
OXM_AVX2 __m256d acoshAny(__m256d x, int& away)
{
    const __m256d inside = _mm256_and_pd(_mm256_cmp_pd(x, k(1.0), _CMP_GT_OQ),
                                         _mm256_cmp_pd(x, k(0x1p28), _CMP_LT_OQ));
    const __m256d xs = _mm256_blendv_pd(k(1.5), x, inside);
    const __m256d beyondTwo = _mm256_cmp_pd(xs, k(2.0), _CMP_GT_OQ);
    const __m256d t = _mm256_sub_pd(xs, k(1.0));
    const __m256d root = _mm256_sqrt_pd(
        _mm256_blendv_pd(_mm256_add_pd(_mm256_add_pd(t, t), _mm256_mul_pd(t, t)),
                         _mm256_sub_pd(_mm256_mul_pd(xs, xs), k(1.0)), beyondTwo));
    const __m256d far = _mm256_sub_pd(_mm256_add_pd(xs, xs),
                                      _mm256_div_pd(k(1.0), _mm256_add_pd(root, xs)));
    const __m256d near = _mm256_add_pd(t, root);
    away = lanes(_mm256_xor_pd(inside, bits(_mm256_set1_epi64x(-1))));
    return logOrLog1p(beyondTwo, far, near);
}

// erf and erfc by the classic freely licensed method (see THIRD_PARTY_NOTICES): a rational
// form in x^2 below |x| = 0.84375, one in |x| - 1 below 1.25, and beyond
// exp(-z^2 - 0.5625) exp((z - x)(z + x) + R/S) / |x| with z = |x| cut to its leading word and
// R/S rational in 1/x^2 (two sets, split at 1/0.35); the polynomials in the C library's
// grouping (pairs of terms summed by powers of the square), without fused operations.
const double kErx = 8.45062911510467529297e-01;
const double kEfx = 1.28379167095512586316e-01;
const double kPp[] = {1.28379167095512558561e-01, -3.25042107247001499370e-01,
                      -2.84817495755985104766e-02, -5.77027029648944159157e-03,
                      -2.37630166566501626084e-05};
const double kQq[] = {1.0,
                      3.97917223959155352819e-01,  6.50222499887672944485e-02,
                      5.08130628187576562776e-03,  1.32494738004321644526e-04,
                      -3.96022827877536812320e-06};
const double kPa[] = {-2.36211856075265944077e-03, 4.14856118683748331666e-01,
                      -3.72207876035701323847e-01, 3.18346619901161753674e-01,
                      -1.10894694282396677476e-01, 3.54783043256182359371e-02,
                      -2.16637559486879084300e-03};
const double kQa[] = {1.0,
                      1.06420880400844228286e-01, 5.40397917702171048937e-01,
                      7.18286544141962662868e-02, 1.26171219808761642112e-01,
                      1.36370839120290507362e-02, 1.19844998467991074170e-02};
// R and S below 1/0.35 (a) and beyond (b); b's missing top terms are zero, which adds zero to
// its sums and so leaves them as they are.
const double kRa[] = {-9.86494403484714822705e-03, -6.93858572707181764372e-01,
                      -1.05586262253232909814e+01, -6.23753324503260060396e+01,
                      -1.62396669462573470355e+02, -1.84605092906711035994e+02,
                      -8.12874355063065934246e+01, -9.81432934416914548592e+00};
const double kRb[] = {-9.86494292470009928597e-03, -7.99283237680523006574e-01,
                      -1.77579549177547519889e+01, -1.60636384855821916062e+02,
                      -6.37566443368389627722e+02, -1.02509513161107724954e+03,
                      -4.83519191608651397019e+02, 0.0};
const double kSa[] = {1.0,
                      1.96512716674392571292e+01,  1.37657754143519042600e+02,
                      4.34565877475229228821e+02,  6.45387271733267880336e+02,
                      4.29008140027567833386e+02,  1.08635005541779435134e+02,
                      6.57024977031928170135e+00,  -6.04244152148580987438e-02};
const double kSb[] = {1.0,
                      3.03380607434824582924e+01,  3.25792512996573918826e+02,
                      1.53672958608443695994e+03,  3.19985821950859553908e+03,
                      2.55305040643316442583e+03,  4.74528541206955367215e+02,
                      -2.24409524465858183362e+01, 0.0};

// Coefficients of one set, or of two chosen by lane.
struct OneSet {
    const double* c;
    OXM_AVX2 __m256d operator()(size_t i) const { return k(c[i]); }
};
struct TwoSets {
    const double* a;
    const double* b;
    __m256d useA;
    OXM_AVX2 __m256d operator()(size_t i) const { return _mm256_blendv_pd(k(b[i]), k(a[i]), useA); }
};

// (c0 + v c1) + v^2 (c2 + v c3) + v^4 (c4 + v c5) + ...: the pairs summed from the lowest;
// powers holds v^2, v^4, ...
template <size_t N, class Coefficients>
OXM_AVX2 __m256d pairSums(Coefficients c, __m256d v, const __m256d* powers)
{
    __m256d sum = _mm256_add_pd(c(0), _mm256_mul_pd(v, c(1)));
    for (size_t i = 2; i < N; i += 2) {
        const __m256d pair = i + 1 < N ? _mm256_add_pd(c(i), _mm256_mul_pd(v, c(i + 1))) : c(i);
        sum = _mm256_add_pd(sum, _mm256_mul_pd(powers[i / 2 - 1], pair));
    }
    return sum;
}

// r/s below |x| = 0.84375.
OXM_AVX2 __m256d erfNearZero(__m256d x)
{
    const __m256d z = _mm256_mul_pd(x, x);
    const __m256d z2 = _mm256_mul_pd(z, z);
    const __m256d powers[] = {z2, _mm256_mul_pd(z2, z2)};
    return _mm256_div_pd(pairSums<std::size(kPp)>(OneSet{kPp}, z, powers),
                         pairSums<std::size(kQq)>(OneSet{kQq}, z, powers));
}

// P/Q below |x| = 1.25, s = |x| - 1.
OXM_AVX2 __m256d erfNearOne(__m256d s)
{
    const __m256d s2 = _mm256_mul_pd(s, s);
    const __m256d s4 = _mm256_mul_pd(s2, s2);
    const __m256d powers[] = {s2, s4, _mm256_mul_pd(s4, s2)};
    return _mm256_div_pd(pairSums<std::size(kPa)>(OneSet{kPa}, s, powers),
                         pairSums<std::size(kQa)>(OneSet{kQa}, s, powers));
}

// exp(-z^2 - 0.5625) exp((z - x)(z + x) + R/S) for x = |x| in [1.25, 22), set a where useA.
OXM_AVX2 __m256d erfTail(__m256d x, __m256d useA)
{
    const __m256d s = _mm256_div_pd(k(1.0), _mm256_mul_pd(x, x));
    const __m256d s2 = _mm256_mul_pd(s, s);
    const __m256d s4 = _mm256_mul_pd(s2, s2);
    const __m256d powers[] = {s2, s4, _mm256_mul_pd(s4, s2), _mm256_mul_pd(s4, s4)};
    const __m256d r = pairSums<std::size(kRa)>(TwoSets{kRa, kRb, useA}, s, powers);
    const __m256d q = pairSums<std::size(kSa)>(TwoSets{kSa, kSb, useA}, s, powers);
    const __m256d z = bits(_mm256_and_si256(ints(x), _mm256_set1_epi64x(~0xffffffffll)));
    const __m256d e1 =
        expCommon(_mm256_sub_pd(_mm256_mul_pd(_mm256_xor_pd(z, k(-0.0)), z), k(0.5625)));
    const __m256d e2 = expCommon(_mm256_add_pd(
        _mm256_mul_pd(_mm256_sub_pd(z, x), _mm256_add_pd(z, x)), _mm256_div_pd(r, q)));
    return _mm256_mul_pd(e1, e2);
}

// The ranges of |x| by the leading word, as the C library tells them apart: below 0.84375,
// below 1.25, and from there the tail (below 6 for erf; erfc's runs on for positive x and
// stops at 22, where its exp would leave exp's common range).
struct ErfRanges {
    __m256d nearZero, nearOne, tail;
    OXM_AVX2 ErfRanges(__m256d x, bool complement)
    {
        const __m256d ax = _mm256_andnot_pd(k(-0.0), x);
        const __m256i ai = ints(ax);
        nearZero = bits(_mm256_cmpgt_epi64(_mm256_set1_epi64x(0x3feb000000000000ll), ai));
        const __m256d beyond =
            bits(_mm256_cmpgt_epi64(ai, _mm256_set1_epi64x(0x3ff3ffffffffffffll)));
        nearOne = bits(
            _mm256_cmpeq_epi64(_mm256_setzero_si256(), ints(_mm256_or_pd(nearZero, beyond))));
        tail = _mm256_and_pd(beyond, _mm256_cmp_pd(ax, k(6.0), _CMP_LT_OQ));
        if (complement) {
            const __m256d positive =
                _mm256_andnot_pd(_mm256_cmp_pd(x, k(0.0), _CMP_LT_OQ), beyond);
            tail = _mm256_and_pd(_mm256_cmp_pd(x, k(22.0), _CMP_LT_OQ),
                                 _mm256_or_pd(tail, positive));
        }
    }
};

// The three ranges' paths of erf and erfc, each for four lanes of its range.
template <Fn F>
struct ErfPaths {
    static constexpr bool kComplement = F == Fn::Erfc;

    // erf: x + x r/s, below 2^-28 x + efx x (below 2^-1015 scaled by 16). erfc: below 2^-56
    // 1 - x; 1 - (x + x r/s) below x = 1/4; else 1/2 - (x r/s + (x - 1/2)).
    OXM_AVX2 static __m256d nearZero(__m256d x)
    {
        const __m256d ax = _mm256_andnot_pd(k(-0.0), x);
        const __m256d xy = _mm256_mul_pd(x, erfNearZero(x));
        if constexpr (kComplement) {
            const __m256d below = _mm256_blendv_pd(
                _mm256_sub_pd(k(0.5), _mm256_add_pd(xy, _mm256_sub_pd(x, k(0.5)))),
                _mm256_sub_pd(k(1.0), _mm256_add_pd(x, xy)), _mm256_cmp_pd(x, k(0.25), _CMP_LT_OQ));
            return _mm256_blendv_pd(below, _mm256_sub_pd(k(1.0), x),
                                    _mm256_cmp_pd(ax, k(0x1p-56), _CMP_LT_OQ));
        } else {
            const __m256d sixteen =
                _mm256_add_pd(_mm256_mul_pd(k(16.0), x), _mm256_mul_pd(k(16.0 * kEfx), x));
            const __m256d least =
                bits(_mm256_cmpgt_epi64(_mm256_set1_epi64x(0x0080000000000000ll), ints(ax)));
            const __m256d tiny = _mm256_blendv_pd(_mm256_add_pd(x, _mm256_mul_pd(k(kEfx), x)),
                                                  _mm256_mul_pd(k(0.0625), sixteen), least);
            return _mm256_blendv_pd(_mm256_add_pd(x, xy), tiny,
                                    _mm256_cmp_pd(ax, k(0x1p-28), _CMP_LT_OQ));
        }
    }

    // erf: erx + P/Q with the sign of x. erfc: (1 - erx) - P/Q, or 1 + (erx + P/Q) below 0.
    OXM_AVX2 static __m256d nearOne(__m256d x)
    {
        const __m256d q = erfNearOne(_mm256_sub_pd(_mm256_andnot_pd(k(-0.0), x), k(1.0)));
        if constexpr (kComplement)
            return _mm256_blendv_pd(_mm256_sub_pd(k(1.0 - kErx), q),
                                    _mm256_add_pd(k(1.0), _mm256_add_pd(k(kErx), q)),
                                    _mm256_cmp_pd(x, k(0.0), _CMP_LT_OQ));
        return _mm256_or_pd(_mm256_add_pd(k(kErx), q), _mm256_and_pd(x, k(-0.0)));
    }

    // erf: 1 - tail/|x| with the sign of x. erfc: tail/|x|, or 2 - tail/|x| below 0.
    OXM_AVX2 static __m256d tail(__m256d x)
    {
        const __m256d ax = _mm256_andnot_pd(k(-0.0), x);
        const int64_t splitA = kComplement ? 0x4006db6d00000000ll : 0x4006db6e00000000ll;
        const __m256d useA = bits(_mm256_cmpgt_epi64(_mm256_set1_epi64x(splitA), ints(ax)));
        const __m256d q = _mm256_div_pd(erfTail(ax, useA), ax);
        if constexpr (kComplement)
            return _mm256_blendv_pd(q, _mm256_sub_pd(k(2.0), q),
                                    _mm256_cmp_pd(x, k(0.0), _CMP_LT_OQ));
        return _mm256_or_pd(_mm256_sub_pd(k(1.0), q), _mm256_and_pd(x, k(-0.0)));
    }

    // Any four lanes: each range's path where it has lanes (others on a value of its range);
    // erf 1 from 6 on, erfc 2 from -6 down, with the sign for erf. NaN and erfc from 22 away.
    OXM_AVX2 static __m256d any(__m256d x, int& away)
    {
        const ErfRanges g(x, kComplement);
        __m256d y = kComplement ? k(2.0) : _mm256_or_pd(k(1.0), _mm256_and_pd(x, k(-0.0)));
        if (lanes(g.tail))
            y = _mm256_blendv_pd(y, tail(_mm256_blendv_pd(k(2.0), x, g.tail)), g.tail);
        if (lanes(g.nearOne))
            y = _mm256_blendv_pd(y, nearOne(_mm256_blendv_pd(k(1.0), x, g.nearOne)), g.nearOne);
        if (lanes(g.nearZero))
            y = _mm256_blendv_pd(y, nearZero(_mm256_and_pd(x, g.nearZero)), g.nearZero);
        away = lanes(kComplement ? _mm256_cmp_pd(x, k(22.0), _CMP_NLT_UQ)
                                 : _mm256_cmp_pd(x, x, _CMP_UNORD_Q));
        return y;
    }
};

// The scalar kernel behind F's column, from the kind table: lanes away from the four-lane
// path and rows that raise run it, and it records their codes.
template <Fn F>
double kernel(double x, int& err)
{
    return oxk::row(kind(F)).un(x, err);
}

// One row per function: for the logs the argument of log and the result from log's value; for
// the others but exp the path for any four lanes.
template <Fn F>
struct Lanes {};
template <>
struct Lanes<Fn::Log> {
    OXM_AVX2 static __m256d reduced(__m256d x) { return x; }
    OXM_AVX2 static __m256d finished(__m256d, __m256d l) { return l; }
};
template <>
struct Lanes<Fn::Log10> {
    OXM_AVX2 static __m256d reduced(__m256d x) { return log10Reduced(x); }
    OXM_AVX2 static __m256d finished(__m256d x, __m256d l) { return log10Finished(x, l); }
};
template <__m256d (*Path)(__m256d, int&)>
struct AnyLanes {
    OXM_AVX2 static __m256d any(__m256d x, int& away) { return Path(x, away); }
};
template <> struct Lanes<Fn::Expm1> : AnyLanes<&expm1Any> {};
template <> struct Lanes<Fn::Tanh> : AnyLanes<&tanhAny> {};
template <> struct Lanes<Fn::Sinh> : AnyLanes<&sinhAny> {};
template <> struct Lanes<Fn::Cosh> : AnyLanes<&coshAny> {};
template <> struct Lanes<Fn::Asinh> : AnyLanes<&asinhAny> {};
template <> struct Lanes<Fn::Acosh> : AnyLanes<&acoshAny> {};
template <> struct Lanes<Fn::Atanh> : AnyLanes<&atanhAny> {};
template <> struct Lanes<Fn::Erf> : AnyLanes<&ErfPaths<Fn::Erf>::any> {};
template <> struct Lanes<Fn::Erfc> : AnyLanes<&ErfPaths<Fn::Erfc>::any> {};

constexpr bool isLog(Fn f)
{
    return f == Fn::Log || f == Fn::Log10;
}

// A log for any four lanes (the self-check's path): both of log's paths where the lanes differ.
template <Fn F>
OXM_AVX2 __m256d logs4(__m256d x, int& away)
{
    const __m256d reduced = Lanes<F>::reduced(x);
    const __m256d abnormal = bits(logNormal(x));
    const __m256d far = bits(logFar(reduced));
    away = lanes(abnormal);
    const int farLanes = lanes(far);
    if (away == 0 && farLanes == 15)
        return Lanes<F>::finished(x, logMain(reduced));
    if (away == 0 && farLanes == 0)
        return Lanes<F>::finished(x, logNearOne(reduced));
    // Lanes of another path compute on zero, as in exp.
    const __m256d zeroed = bits(_mm256_cmpgt_epi64(_mm256_setzero_si256(), ints(abnormal)));
    const __m256d xs = _mm256_andnot_pd(zeroed, reduced);
    return Lanes<F>::finished(x, _mm256_blendv_pd(logNearOne(xs), logMain(xs), far));
}

// Rows put off from groups whose lanes take different paths, gathered without a branch and
// run four at a time through Path after the column's other rows, rather than every path on
// every lane of such groups: the logs' rows near one (common in data about 1), erf's ranges.
template <__m256d (*Path)(__m256d)>
struct Deferred {
    static const int kRows = 256;
    alignas(16) int row[kRows + 4];
    int count = 0;

    OXM_AVX2 void run(const double* x, double* r)
    {
        for (int i = count; i % 4; ++i)
            row[i] = row[count - 1];
        for (int i = 0; i < count; i += 4) {
            const int* j = row + i;
            const __m256d v = _mm256_setr_pd(x[j[0]], x[j[1]], x[j[2]], x[j[3]]);
            alignas(32) double y[4];
            _mm256_store_pd(y, Path(v));
            for (int l = 0; l < 4; ++l)
                r[j[l]] = y[l];
        }
        count = 0;
    }

    // The rows first + l for the lanes l of mask, in order.
    OXM_AVX2 void add(unsigned mask, int first, const double* x, double* r)
    {
        alignas(16) static const int kLanes[16][4] = {
            {0, 0, 0, 0}, {0, 0, 0, 0}, {1, 0, 0, 0}, {0, 1, 0, 0}, {2, 0, 0, 0}, {0, 2, 0, 0},
            {1, 2, 0, 0}, {0, 1, 2, 0}, {3, 0, 0, 0}, {0, 3, 0, 0}, {1, 3, 0, 0}, {0, 1, 3, 0},
            {2, 3, 0, 0}, {0, 2, 3, 0}, {1, 2, 3, 0}, {0, 1, 2, 3}};
        const __m128i lanes = _mm_load_si128(reinterpret_cast<const __m128i*>(kLanes[mask]));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(row + count),
                         _mm_add_epi32(_mm_set1_epi32(first), lanes));
        count += __builtin_popcount(mask);
        if (count > kRows)
            run(x, r);
    }
};

template <Fn F>
OXM_AVX2 __m256d logNearOnePath(__m256d v)
{
    return Lanes<F>::finished(v, logNearOne(Lanes<F>::reduced(v)));
}

// erf's and erfc's rows of mixed groups, by range.
template <Fn F>
struct ErfRows {
    Deferred<&ErfPaths<F>::nearZero> nearZero;
    Deferred<&ErfPaths<F>::nearOne> nearOne;
    Deferred<&ErfPaths<F>::tail> tail;
};

constexpr bool isErf(Fn f)
{
    return f == Fn::Erf || f == Fn::Erfc;
}

// The deferred rows of F's column, if it has any.
template <Fn F, class = void>
struct Put {
    using Off = char;
};
template <Fn F>
struct Put<F, std::enable_if_t<isLog(F)>> {
    using Off = Deferred<&logNearOnePath<F>>;
};
template <Fn F>
struct Put<F, std::enable_if_t<isErf(F)>> {
    using Off = ErfRows<F>;
};

// Four rows at a time; lanes away from the four-lane path, and the rows that raise, run the
// kernel (which also records their codes).
template <Fn F>
[[gnu::target("avx2,fma")]] void fourRows(const double* x, double* r, int* err, int n)
{
    [[maybe_unused]] typename Put<F>::Off off;
    for (int i = 0; i < n; i += 4) {
        const __m256d v = _mm256_loadu_pd(x + i);
        int away;
        if constexpr (F == Fn::Exp) {
            static_assert(oxk::kExpLimit >= 512, "rows that overflow take the rare path");
            if (!__builtin_expect(expUncommon(v), 0)) {
                _mm256_storeu_pd(r + i, expCommon(v));
                continue;
            }
            _mm256_storeu_pd(r + i, expAnyLanes(v, away));
            away |= lanes(_mm256_cmp_pd(v, k(oxk::kExpLimit), _CMP_GE_OQ));
        } else if constexpr (isErf(F)) {
            // A group in one range takes its path; mixed groups put their rows off by range,
            // and lanes outside the three ranges run the kernel.
            const ErfRanges g(v, F == Fn::Erfc);
            const int zero = lanes(g.nearZero), one = lanes(g.nearOne), tail = lanes(g.tail);
            if (zero == 15 || one == 15 || tail == 15) {
                _mm256_storeu_pd(r + i, zero == 15  ? ErfPaths<F>::nearZero(v)
                                        : one == 15 ? ErfPaths<F>::nearOne(v)
                                                    : ErfPaths<F>::tail(v));
                continue;
            }
            const int inside = n - i >= 4 ? 15 : (1 << (n - i)) - 1;
            off.nearZero.add(static_cast<unsigned>(zero & inside), i, x, r);
            off.nearOne.add(static_cast<unsigned>(one & inside), i, x, r);
            off.tail.add(static_cast<unsigned>(tail & inside), i, x, r);
            away = ~(zero | one | tail) & 15;
        } else if constexpr (!isLog(F)) {
            _mm256_storeu_pd(r + i, Lanes<F>::any(v, away));
        } else {
            const __m256d reduced = Lanes<F>::reduced(v);
            const __m256i abnormal = logNormal(v);
            const int farLanes = lanes(bits(logFar(reduced)));
            away = lanes(bits(abnormal));
            if (__builtin_expect(farLanes == 15 && away == 0, 1)) {
                _mm256_storeu_pd(r + i, Lanes<F>::finished(v, logMain(reduced)));
                continue;
            }
            if (farLanes == 0 && away == 0) {
                _mm256_storeu_pd(r + i, Lanes<F>::finished(v, logNearOne(reduced)));
                continue;
            }
            // Mixed groups: the main path for every lane (lanes of another path on zero, as in
            // exp), near-one lanes again later.
            const __m256d zeroed = bits(_mm256_cmpgt_epi64(_mm256_setzero_si256(), abnormal));
            const __m256d xs = _mm256_andnot_pd(zeroed, reduced);
            _mm256_storeu_pd(r + i, Lanes<F>::finished(v, logMain(xs)));
            const int inside = n - i >= 4 ? 15 : (1 << (n - i)) - 1;
            off.add(static_cast<unsigned>(~farLanes & ~away & inside), i, x, r);
        }
        for (; away; away &= away - 1) {
            const int j = i + __builtin_ctz(static_cast<unsigned>(away));
            if (j < n)
                r[j] = kernel<F>(x[j], err[j]);
        }
    }
    if constexpr (isLog(F))
        off.run(x, r);
    if constexpr (isErf(F)) {
        off.nearZero.run(x, r);
        off.nearOne.run(x, r);
        off.tail.run(x, r);
    }
}

template <Fn F>
void guarded(const double* x, double* r, int* err, int n)
{
    if (plainRounding()) {
        fourRows<F>(x, r, err, n);
        return;
    }
    for (int i = 0; i < n; ++i)
        r[i] = kernel<F>(x[i], err[i]);
}

template <Fn F>
[[gnu::target("avx2,fma")]] int four(const double* x, double* r)
{
    int away;
    const __m256d v = _mm256_loadu_pd(x);
    if constexpr (F == Fn::Exp)
        _mm256_storeu_pd(r, exp4(v, away));
    else if constexpr (isLog(F))
        _mm256_storeu_pd(r, logs4<F>(v, away));
    else
        _mm256_storeu_pd(r, Lanes<F>::any(v, away));
    return away;
}

// Per function, in the order of Fn.
struct Entry {
    int (*four)(const double*, double*);
    Column column;
};

template <size_t... I>
constexpr std::array<Entry, sizeof...(I)> entries(std::index_sequence<I...>)
{
    return {Entry{&four<kFunctions[I]>, &guarded<kFunctions[I]>}...};
}

constexpr auto kEntries = entries(std::make_index_sequence<std::size(kFunctions)>());

}  // namespace

int apply4(Fn fn, const double* x, double* r)
{
    return kEntries[static_cast<size_t>(fn)].four(x, r);
}

Column column(Fn fn)
{
    return kEntries[static_cast<size_t>(fn)].column;
}

}  // namespace oxm
