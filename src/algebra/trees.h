// Short builders for the trees that derivative rules assemble.
#ifndef OXEL_ALGEBRA_TREES_H
#define OXEL_ALGEBRA_TREES_H

#include <oxel/nodes.h>

#include "core/derivative.h"

namespace oxd {

// Nodes that the derivative being built may still copy. Rules that copy a derivative
// (expm1, atan2) or several operands (min, max) make the result grow exponentially with
// nesting, and chains (exp(exp(...))) quadratically, so a short text could exhaust memory;
// the rest, a few fresh nodes per rule, grows with the formula alone. Bounded derivatives
// start from a budget, charged before each copy is made, and once it is
// spent every further derivative request answers "none", which the null protocol unwinds
// without leaking. Unbounded (the default) outside boundedDiff() and partialDiff().
extern thread_local long budget;
const long kUnbounded = -1;

// The derivative state of this thread for one bounded derivative, restored afterwards.
class Bounded {
public:
    Bounded(long maxNodes, bool partialMode)
        : budget_(budget), partial_(partial), missing_(missingRule)
    {
        budget = maxNodes > 0 ? maxNodes : 0;
        partial = partialMode;
        missingRule = nullptr;
    }
    ~Bounded()
    {
        budget = budget_;
        partial = partial_;
        missingRule = missing_;
    }

private:
    long budget_;
    bool partial_;
    Oxel* missing_;
};

// Every operand that enters a derivative is a fresh copy, so results never share a node.
// Once the budget cannot pay for a copy, a number stands in: the result is thrown away.
inline Oxel* C(Oxel* node)
{
    if (budget != kUnbounded) {
        const long size = oxelNodeCount(node);
        budget = budget > size ? budget - size : 0;
        if (budget == 0)
            return new OxZahl(0.0);
    }
    return node->dup();
}

// The derivative of one operand, or null once the budget is spent. Building a partial
// derivative, an operand independent of var is the number 0 whatever its rule.
inline Oxel* D(Oxel* node, const char* var)
{
    if (budget == 0)
        return nullptr;
    if (partial && node->pconstant(var))
        return new OxZahl(0.0);
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
