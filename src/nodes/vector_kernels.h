// Two-lane SSE2 forms of the hottest kernels, for the batch evaluator's column loops.
//
// Each computes exactly what the matching scalar kernel in kernels.h computes: the same IEEE
// operation where the guard holds and the kernel's fallback where it fails; ok receives the
// lanes whose guard held, so that the rare failing rows can ask the scalar kernel for their
// code. SSE2 is part of x86-64.
#ifndef OXEL_NODES_VECTOR_KERNELS_H
#define OXEL_NODES_VECTOR_KERNELS_H

#include <cfloat>

#include <emmintrin.h>

namespace oxv {

using VecKernel = __m128d (*)(__m128d, __m128d, __m128d&);

inline __m128d max() { return _mm_set1_pd(DBL_MAX); }
inline __m128d one() { return _mm_set1_pd(1.0); }
inline __m128d allOnes() { return _mm_castsi128_pd(_mm_set1_epi32(-1)); }
inline __m128d abs(__m128d v) { return _mm_andnot_pd(_mm_set1_pd(-0.0), v); }

inline __m128d select(__m128d mask, __m128d yes, __m128d no)
{
    return _mm_or_pd(_mm_and_pd(mask, yes), _mm_andnot_pd(mask, no));
}

// Both operands below 2^1022 in magnitude pass the sum's and the difference's guards (see
// the scalar kernels): one test instead of the sign-dependent masks.
inline bool moderate(__m128d a, __m128d b)
{
    const __m128d limit = _mm_set1_pd(0x1p1022);
    return _mm_movemask_pd(_mm_and_pd(_mm_cmplt_pd(abs(a), limit), _mm_cmplt_pd(abs(b), limit))) == 3;
}

inline __m128d vec_OxPlus(__m128d a, __m128d b, __m128d& ok)
{
    if (moderate(a, b)) {
        ok = allOnes();
        return _mm_add_pd(a, b);
    }
    __m128d pos = _mm_cmpgt_pd(a, _mm_setzero_pd());
    __m128d up = _mm_cmpgt_pd(_mm_sub_pd(max(), a), b);                   // DBL_MAX - a > b
    __m128d down = _mm_cmpgt_pd(b, _mm_sub_pd(_mm_set1_pd(-DBL_MAX), a));  // b > -DBL_MAX - a
    ok = select(pos, up, down);
    return select(ok, _mm_add_pd(a, b), one());
}

inline __m128d vec_OxMinus(__m128d a, __m128d b, __m128d& ok)
{
    if (moderate(a, b)) {
        ok = allOnes();
        return _mm_sub_pd(a, b);
    }
    __m128d pos = _mm_cmpgt_pd(b, _mm_setzero_pd());
    __m128d down = _mm_cmpgt_pd(a, _mm_sub_pd(b, max()));  // a > b - DBL_MAX
    __m128d up = _mm_cmpgt_pd(_mm_add_pd(b, max()), a);    // b + DBL_MAX > a
    ok = select(pos, down, up);
    return select(ok, _mm_sub_pd(a, b), one());
}

inline __m128d vec_OxMal(__m128d a, __m128d b, __m128d& ok)
{
    // Both factors below 2^511 pass the guard (see the scalar kernel): skip the division.
    const __m128d half = _mm_set1_pd(0x1p511);
    __m128d fast = _mm_and_pd(_mm_cmplt_pd(abs(a), half), _mm_cmplt_pd(abs(b), half));
    if (_mm_movemask_pd(fast) == 3) {
        ok = allOnes();
        return _mm_mul_pd(a, b);
    }
    __m128d fa = abs(a);
    __m128d small = _mm_cmpngt_pd(fa, one());  // not |a| > 1, NaN included
    ok = _mm_or_pd(small, _mm_cmpgt_pd(_mm_div_pd(max(), fa), abs(b)));
    // a's own NaN wins, as in the scalar kernel, whatever operand order the compiler picks.
    __m128d prod = select(_mm_cmpunord_pd(a, a), _mm_add_pd(a, a), _mm_mul_pd(a, b));
    return select(ok, prod, one());
}

inline __m128d vec_OxDurch(__m128d a, __m128d b, __m128d& ok)
{
    __m128d fb = abs(b);
    __m128d nonzero = _mm_cmpneq_pd(b, _mm_setzero_pd());  // NaN counts as nonzero
    __m128d safe = _mm_or_pd(_mm_cmpge_pd(fb, one()), _mm_cmpunord_pd(b, b));
    safe = _mm_or_pd(safe, _mm_cmpgt_pd(_mm_mul_pd(fb, max()), abs(a)));
    ok = _mm_and_pd(nonzero, safe);
    return select(ok, _mm_div_pd(a, b), one());
}

// Truth values and selections: pure mask arithmetic, exact by construction.
#define OXV_TRUTH(Cls, expr)                                    \
    inline __m128d vec_##Cls(__m128d a, __m128d b, __m128d& ok) \
    {                                                           \
        ok = allOnes();                                         \
        return _mm_and_pd(expr, one());                         \
    }
OXV_TRUTH(OxLess, _mm_cmplt_pd(a, b))
OXV_TRUTH(OxGreater, _mm_cmpgt_pd(a, b))
OXV_TRUTH(OxLessEqual, _mm_cmple_pd(a, b))
OXV_TRUTH(OxGreaterEqual, _mm_cmpge_pd(a, b))
OXV_TRUTH(OxEqual, _mm_cmpeq_pd(a, b))
OXV_TRUTH(OxAnd, _mm_and_pd(_mm_cmpgt_pd(a, _mm_set1_pd(1e-8)), _mm_cmpgt_pd(b, _mm_set1_pd(1e-8))))
OXV_TRUTH(OxOr, _mm_or_pd(_mm_cmpgt_pd(a, _mm_set1_pd(1e-8)), _mm_cmpgt_pd(b, _mm_set1_pd(1e-8))))
#undef OXV_TRUTH

inline __m128d vec_OxMax(__m128d a, __m128d b, __m128d& ok)
{
    ok = allOnes();
    return select(_mm_cmpgt_pd(a, b), a, b);
}

inline __m128d vec_OxMin(__m128d a, __m128d b, __m128d& ok)
{
    ok = allOnes();
    return select(_mm_cmplt_pd(a, b), a, b);
}

}  // namespace oxv

#endif
