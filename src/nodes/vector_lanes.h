// What the four-lane AVX2 code shares: a broadcast constant, the bit views of a vector, the
// mask of its lanes, and the rounding mode it assumes.
#ifndef OXEL_NODES_VECTOR_LANES_H
#define OXEL_NODES_VECTOR_LANES_H

#include <immintrin.h>

#define OXM_AVX2 [[gnu::target("avx2,fma"), gnu::always_inline]] inline

namespace oxm {

OXM_AVX2 __m256d k(double v)
{
    return _mm256_set1_pd(v);
}

OXM_AVX2 __m256d bits(__m256i v)
{
    return _mm256_castsi256_pd(v);
}

OXM_AVX2 __m256i ints(__m256d v)
{
    return _mm256_castpd_si256(v);
}

// Bit i set for each lane i whose sign bit is set (a compare's true).
OXM_AVX2 int lanes(__m256d mask)
{
    return _mm256_movemask_pd(mask);
}

// The four-lane paths (and the block code's tests) assume rounding to nearest, no flush to
// zero and no denormals-are-zero: MXCSR bits 13-14, 15 and 6 clear. A host may change them at
// any time, so each use reads them.
constexpr unsigned kRoundingBits = 0xe040u;

inline bool plainRounding()
{
    return (_mm_getcsr() & kRoundingBits) == 0;
}

}  // namespace oxm

#endif
