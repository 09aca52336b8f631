// Four-lane a^b for the batch program's power columns, the power kernel's own bits.
#ifndef OXEL_NODES_VECTOR_POWER_H
#define OXEL_NODES_VECTOR_POWER_H

#include <oxel/export.h>

namespace oxk {
namespace pw {

// r[i] = a[i]^b[i] for four lanes through the power kernel's logarithm and exponential in
// double-double and its rounding test (power.h): a lane the test proves is (double)powl(a, b),
// which is what the kernel gives there. Returns the mask of lanes left to the kernel (their
// r[i] is meaningless): a not a positive normal number, b not finite, |b| >= 2^60 or b == 2,
// |b ln a| near or past the ends of the normal range, or not proved. Needs AVX2 and FMA, and
// rounding to nearest without flush to zero.
OXEL_API int pow4(const double* a, const double* b, double* r);

// r[i] = a[i]^n for a constant integer 1 <= |n| <= 64 through the kernel's binary powering in
// double-double (and its reciprocal for n < 0) with the same rounding test; the mask of lanes
// left to the kernel: a not a normal number, a power that may leave [2^-960, 2^960], or not
// proved.
OXEL_API int powInt4(const double* a, int n, double* r);

}  // namespace pw
}  // namespace oxk

#endif
