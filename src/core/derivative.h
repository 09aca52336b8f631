// The size-bounded derivative of a whole tree, for callers outside the algebra (the parser's
// diff()); the rules themselves live in src/algebra/.
#ifndef OXEL_CORE_DERIVATIVE_H
#define OXEL_CORE_DERIVATIVE_H

#include <oxel/core.h>

namespace oxd {

// Derivative of tree with at most maxNodes copied nodes; *tooLarge tells a refusal for size
// from a tree that has no derivative.
Oxel* boundedDiff(Oxel* tree, const char* var, long maxNodes, bool* tooLarge);

// The budget of derivatives taken by the expression object and by diff() in formula text.
const long kMaxDerivativeNodes = 2000000;

}  // namespace oxd

#endif
