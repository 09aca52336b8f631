// The size-bounded derivative of a whole tree, for callers outside the algebra (the parser's
// diff()); the rules themselves live in src/algebra/.
#ifndef OXEL_CORE_DERIVATIVE_H
#define OXEL_CORE_DERIVATIVE_H

#include <string>

#include <oxel/core.h>

namespace oxd {

// Derivative of tree with at most maxNodes built nodes; *tooLarge tells a refusal for size
// from a tree that has no derivative.
Oxel* boundedDiff(Oxel* tree, const char* var, long maxNodes, bool* tooLarge);

// The partial derivative for numerical use (OxelExpression::partial): the rules' tree, except
// that a sub-tree independent of var differentiates to the number 0 without its rule, and a
// node without a rule that depends on var refuses. Takes what it builds from *budget; null
// with *why set (when given) on a refusal.
Oxel* partialDiff(Oxel* tree, const char* var, long* budget, std::string* why);

// Set on this thread while partialDiff runs: Oxel::diff's base rule then records its node in
// missingRule and answers null instead of writing its message and copying itself.
extern thread_local bool partial;
extern thread_local Oxel* missingRule;

// The budget of derivatives taken by the expression object and by diff() in formula text.
inline long maxDerivativeNodes() { return oxelNodeBudget(); }

}  // namespace oxd

#endif
