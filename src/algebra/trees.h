// Short builders for the trees that derivative rules assemble.
#ifndef OXEL_ALGEBRA_TREES_H
#define OXEL_ALGEBRA_TREES_H

#include <oxel/nodes.h>

#include "core/derivative.h"

namespace oxd {

// Nodes that the derivative being built may still copy. Rules that copy a derivative
// (expm1, atan2) or several operands (min, max) make the result grow exponentially with
// nesting, so a short text could exhaust memory; bounded derivatives start from a budget,
// and once it is spent every further derivative request answers "none", which the null
// protocol unwinds without leaking. Unbounded (the default) outside boundedDiff().
extern thread_local long budget;
const long kUnbounded = -1;

// Every operand that enters a derivative is a fresh copy, so results never share a node.
inline Oxel* C(Oxel* node)
{
    Oxel* copy = node->dup();
    if (budget != kUnbounded) {
        long size = oxelNodeCount(copy);
        budget = budget > size ? budget - size : 0;
    }
    return copy;
}

// The derivative of one operand, or null once the budget is spent.
inline Oxel* D(Oxel* node, const char* var)
{
    if (budget == 0)
        return nullptr;
    Oxel* d = node->diff(var);
    if (budget == 0 && d) {  // spent while building it: the caller would copy it further
        oxelDestroy(d);
        return nullptr;
    }
    return d;
}

inline Oxel* N(double c) { return new OxZahl(c); }
inline Oxel* Plus(Oxel* a, Oxel* b) { return new OxPlus(a, b); }
inline Oxel* Minus(Oxel* a, Oxel* b) { return new OxMinus(a, b); }
inline Oxel* Mal(Oxel* a, Oxel* b) { return new OxMal(a, b); }
inline Oxel* Durch(Oxel* a, Oxel* b) { return new OxDurch(a, b); }
inline Oxel* Hoch(Oxel* a, Oxel* b) { return new OxHoch(a, b); }

// Derivatives of two operands in the fixed order: left first, and nothing survives a failure.
// Returns false when either is missing; *da and *db are then null.
inline bool diffBoth(Oxel* a, Oxel* b, const char* var, Oxel** da, Oxel** db)
{
    *db = nullptr;
    *da = D(a, var);
    if (!*da)
        return false;
    *db = D(b, var);
    if (!*db) {
        delete *da;
        *da = nullptr;
        return false;
    }
    return true;
}

}  // namespace oxd

#endif
