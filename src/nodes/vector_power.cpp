// Four-lane a^b (see vector_power.h): power.h's logdd, lnTimes, expdd and roundDD, lane by lane,
// with the fused operations of its FMA build; the rounding test makes the result independent of
// the approximation's last bits, so a proved lane has the kernel's bits whichever path the
// kernel itself takes.
#include "nodes/vector_power.h"

#include <cstdint>

#include <immintrin.h>

#include "nodes/power.h"
#include "nodes/vector_lanes.h"

namespace oxk {
namespace pw {
namespace {

using oxm::bits;
using oxm::ints;
using oxm::k;
using oxm::lanes;

struct DD4 {
    __m256d h, l;
};

OXM_AVX2 DD4 fastTwoSum(__m256d a, __m256d b)
{
    const __m256d s = _mm256_add_pd(a, b);
    return {s, _mm256_sub_pd(b, _mm256_sub_pd(s, a))};
}

OXM_AVX2 DD4 twoProd(__m256d a, __m256d b)
{
    const __m256d p = _mm256_mul_pd(a, b);
    return {p, _mm256_fmsub_pd(a, b, p)};
}

// logdd of four positive normal x.
OXM_AVX2 DD4 logdd4(__m256d x)
{
    const __m256i ix = ints(x);
    const __m256d kd = _mm256_sub_pd(
        bits(_mm256_or_si256(_mm256_srli_epi64(ix, 52), ints(k(0x1p52)))), k(0x1p52 + 1023));
    alignas(32) int64_t j[4];
    _mm256_store_si256(reinterpret_cast<__m256i*>(j),
                       _mm256_and_si256(_mm256_srli_epi64(ix, 52 - kLogBits),
                                        _mm256_set1_epi64x((1 << kLogBits) - 1)));
    const LogEntry &t0 = kLog[j[0]], &t1 = kLog[j[1]], &t2 = kLog[j[2]], &t3 = kLog[j[3]];
    const __m256d invc = _mm256_setr_pd(t0.invc, t1.invc, t2.invc, t3.invc);
    const __m256d logcHi = _mm256_setr_pd(t0.logcHi, t1.logcHi, t2.logcHi, t3.logcHi);
    const __m256d logcLo = _mm256_setr_pd(t0.logcLo, t1.logcLo, t2.logcLo, t3.logcLo);
    const __m256i mantissa = _mm256_and_si256(ix, _mm256_set1_epi64x(0x000FFFFFFFFFFFFFll));
    const __m256d m = bits(_mm256_or_si256(mantissa, ints(k(1.0))));
    const __m256d r = _mm256_fmsub_pd(m, invc, k(1.0));
    const __m256d hi1 = _mm256_fmadd_pd(kd, k(kLn2Hi), logcHi);
    const __m256d lo1 = _mm256_fmadd_pd(kd, k(kLn2Lo), logcLo);
    const DD4 s = fastTwoSum(hi1, r);
    const DD4 rr = twoProd(r, r);
    const DD4 h = fastTwoSum(s.h, _mm256_mul_pd(k(-0.5), rr.h));
    const __m256d c = _mm256_add_pd(
        _mm256_sub_pd(k(1.0 / 3), _mm256_mul_pd(r, k(1.0 / 4))),
        _mm256_mul_pd(rr.h, _mm256_add_pd(_mm256_sub_pd(k(1.0 / 5), _mm256_mul_pd(r, k(1.0 / 6))),
                                          _mm256_mul_pd(rr.h, k(1.0 / 7)))));
    const __m256d cubic = _mm256_mul_pd(_mm256_mul_pd(r, rr.h), c);
    const __m256d lo = _mm256_add_pd(
        _mm256_add_pd(_mm256_add_pd(s.l, h.l), _mm256_fnmadd_pd(k(0.5), rr.l, lo1)), cubic);
    return {h.h, lo};
}

// expdd: (y.h + y.l) 2^e.
OXM_AVX2 DD4 expdd4(DD4 p, __m256i& e)
{
    const __m256d shift = k(0x1.8p52);
    const __m256d shifted = _mm256_fmadd_pd(p.h, k(kInvLn2N), shift);
    const __m256d kd = _mm256_sub_pd(shifted, shift);
    const __m256i ki = _mm256_sub_epi64(ints(shifted), ints(shift));
    const __m256d t = _mm256_fnmadd_pd(kd, k(kLn2NHi), p.h);
    const __m256d tl = _mm256_fnmadd_pd(kd, k(kLn2NLo), p.l);
    const __m256d v = _mm256_add_pd(t, tl);
    const __m256d vv = _mm256_mul_pd(v, v);
    const __m256d low = _mm256_add_pd(
        k(0.5), _mm256_mul_pd(v, _mm256_add_pd(k(1.0 / 6), _mm256_mul_pd(v, k(1.0 / 24)))));
    const __m256d high = _mm256_mul_pd(
        _mm256_mul_pd(vv, v), _mm256_add_pd(k(1.0 / 120), _mm256_mul_pd(v, k(1.0 / 720))));
    const __m256d poly = _mm256_add_pd(low, high);
    const __m256d E = _mm256_fmadd_pd(vv, poly, tl);
    alignas(32) int64_t j[4];
    _mm256_store_si256(reinterpret_cast<__m256i*>(j),
                       _mm256_and_si256(ki, _mm256_set1_epi64x((1 << kExpBits) - 1)));
    const ExpEntry &t0 = kExp2[j[0]], &t1 = kExp2[j[1]], &t2 = kExp2[j[2]], &t3 = kExp2[j[3]];
    const __m256d thi = _mm256_setr_pd(t0.hi, t1.hi, t2.hi, t3.hi);
    const __m256d tlo = _mm256_setr_pd(t0.lo, t1.lo, t2.lo, t3.lo);
    const DD4 q = twoProd(thi, t);
    const DD4 s = fastTwoSum(thi, q.h);
    const __m256d yl = _mm256_fmadd_pd(
        tlo, t, _mm256_fmadd_pd(thi, E, _mm256_add_pd(tlo, _mm256_add_pd(s.l, q.l))));
    // ki >> kExpBits, arithmetic: |ki| < 2^17, so offset it to stay positive.
    const __m256i bias = _mm256_set1_epi64x(1ll << 40);
    e = _mm256_sub_epi64(_mm256_srli_epi64(_mm256_add_epi64(ki, bias), kExpBits),
                         _mm256_srli_epi64(bias, kExpBits));
    return {s.h, yl};
}

// The rounding test of roundDD: the mask of lanes where y within relErr rounds one way, and
// that rounding in r.
OXM_AVX2 __m256d roundDD4(DD4 y, __m256d relErr, __m256d& r)
{
    const __m256d eps = _mm256_mul_pd(_mm256_andnot_pd(k(-0.0), y.h), relErr);
    r = _mm256_add_pd(y.h, _mm256_sub_pd(y.l, eps));
    return _mm256_cmp_pd(r, _mm256_add_pd(y.h, _mm256_add_pd(y.l, eps)), _CMP_EQ_OQ);
}

// Lanes of positive normal a.
OXM_AVX2 __m256d positiveNormal(__m256d a)
{
    const __m256i rel = _mm256_sub_epi64(ints(a), ints(k(0x1p-1022)));
    const __m256i below = _mm256_cmpgt_epi64(_mm256_set1_epi64x(0x7FE0000000000000ll), rel);
    return bits(_mm256_and_si256(_mm256_cmpgt_epi64(rel, _mm256_set1_epi64x(-1)), below));
}

}  // namespace

[[gnu::target("avx2,fma")]] int powInt4(const double* ap, int n, double* out)
{
    const __m256d a = _mm256_loadu_pd(ap);
    const __m256d x0 = _mm256_andnot_pd(k(-0.0), a);
    const unsigned m = static_cast<unsigned>(n < 0 ? -n : n);
    // m (|e| + 1) <= 960 for the exponent e of |a|: every power on the way stays within
    // [2^-960, 2^960], so no low part underflows.
    const __m256d e = _mm256_sub_pd(
        bits(_mm256_or_si256(_mm256_srli_epi64(ints(x0), 52), ints(k(0x1p52)))), k(0x1p52 + 1023));
    const __m256d span = _mm256_add_pd(_mm256_andnot_pd(k(-0.0), e), k(1.0));
    const __m256d usual = _mm256_and_pd(
        positiveNormal(x0),
        _mm256_cmp_pd(span, k(static_cast<double>(960 / m)), _CMP_LE_OQ));
    const __m256d x = _mm256_blendv_pd(k(1.0), x0, usual);
    DD4 r = {x, k(0.0)};
    for (int i = 30 - __builtin_clz(m); i >= 0; --i) {
        const DD4 sq = twoProd(r.h, r.h);
        r = {sq.h, _mm256_fmadd_pd(_mm256_add_pd(r.h, r.h), r.l, sq.l)};
        if ((m >> i) & 1) {
            const DD4 p = twoProd(r.h, x);
            r = {p.h, _mm256_fmadd_pd(r.l, x, p.l)};
        }
    }
    if (n < 0) {
        const __m256d q = _mm256_div_pd(k(1.0), r.h);
        const DD4 p = twoProd(q, r.h);
        const __m256d t = _mm256_sub_pd(_mm256_sub_pd(_mm256_sub_pd(k(1.0), p.h), p.l),
                                        _mm256_mul_pd(q, r.l));
        r = {q, _mm256_mul_pd(q, t)};
    }
    __m256d y;
    const __m256d proved =
        _mm256_and_pd(usual, roundDD4(r, k((kPowlErrInt + kModelErrInt) * (1.0 + 0x1p-20)), y));
    // The sign of a for odd powers.
    _mm256_storeu_pd(out, m & 1 ? _mm256_or_pd(y, _mm256_and_pd(a, k(-0.0))) : y);
    return lanes(proved) ^ 15;
}

[[gnu::target("avx2,fma")]] int pow4(const double* ap, const double* bp, double* out)
{
    const __m256d a = _mm256_loadu_pd(ap);
    const __m256d b = _mm256_loadu_pd(bp);
    const __m256d ab = _mm256_andnot_pd(k(-0.0), b);
    // a in [DBL_MIN, DBL_MAX] (the sign bit excluded), |b| < 2^60 (NaN excluded), b != 2.
    const __m256d usual = _mm256_and_pd(
        _mm256_and_pd(positiveNormal(a), _mm256_cmp_pd(ab, k(0x1p60), _CMP_LT_OQ)),
        _mm256_cmp_pd(b, k(2.0), _CMP_NEQ_UQ));
    // Lanes of another path compute on 1^1.
    const __m256d as = _mm256_blendv_pd(k(1.0), a, usual);
    const __m256d bs = _mm256_blendv_pd(k(1.0), b, usual);
    const DD4 l = logdd4(as);
    DD4 p = twoProd(bs, l.h);
    p.l = _mm256_fmadd_pd(bs, l.l, p.l);
    const __m256d inRange = _mm256_cmp_pd(_mm256_andnot_pd(k(-0.0), p.h), k(kLnNormal), _CMP_LT_OQ);
    const DD4 ps = {_mm256_blendv_pd(k(0.0), p.h, inRange), _mm256_blendv_pd(k(0.0), p.l, inRange)};
    const double scale = 1.0 + 0x1p-20;
    const __m256d floor = _mm256_round_pd(bs, _MM_FROUND_TO_NEG_INF | _MM_FROUND_NO_EXC);
    const __m256d integral = _mm256_cmp_pd(bs, floor, _CMP_EQ_OQ);
    const __m256d relErr = _mm256_fmadd_pd(
        _mm256_andnot_pd(k(-0.0), ps.h), k(kModelErrPerP * scale),
        _mm256_blendv_pd(k((kPowlErrFrac + kModelErr) * scale),
                         k((kPowlErrInt + kModelErr) * scale), integral));
    __m256i e;
    const DD4 y = expdd4(ps, e);
    __m256d lo;
    const __m256d proved = _mm256_and_pd(_mm256_and_pd(usual, inRange), roundDD4(y, relErr, lo));
    const __m256d twoE = bits(_mm256_slli_epi64(_mm256_add_epi64(e, _mm256_set1_epi64x(1023)), 52));
    _mm256_storeu_pd(out, _mm256_mul_pd(lo, twoE));
    return lanes(proved) ^ 15;
}

}  // namespace pw
}  // namespace oxk
