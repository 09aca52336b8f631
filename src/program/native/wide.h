// Four-lane AVX2 column loops for the batch program, where the processor has AVX2 and native
// code is switched on; the two-lane SSE2 loops of batch.cpp serve otherwise.
#ifndef OXEL_PROGRAM_NATIVE_WIDE_H
#define OXEL_PROGRAM_NATIVE_WIDE_H

#include "program/batch.h"

namespace oxn {

// The loop for the step, or null when it has no four-lane form here.
oxb::Runner wideRunner(const oxp::Step& s);

}  // namespace oxn

#endif
