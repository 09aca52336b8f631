// Four-lane AVX2 column loops for the batch program, where the processor has AVX2 and native
// code is switched on; the two-lane SSE2 loops of batch.cpp serve otherwise.
#ifndef OXEL_PROGRAM_NATIVE_WIDE_H
#define OXEL_PROGRAM_NATIVE_WIDE_H

#include "program/batch.h"

namespace oxn {

// The loop for the step, or null when it has no four-lane form here.
oxb::Runner wideRunner(const oxp::Step& s);

// exp, ln or log10 over a column (values, codes of failing rows raised, rows), where the four-lane
// form serves it; null otherwise.
using MathColumn = void (*)(const double* x, double* r, int* err, int n);
OXEL_API MathColumn mathColumn(oxk::Kind kind);  // exported for the tests

}  // namespace oxn

#endif
