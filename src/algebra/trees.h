// Short builders for the trees that derivative rules assemble.
#ifndef OXEL_ALGEBRA_TREES_H
#define OXEL_ALGEBRA_TREES_H

#include <oxel/nodes.h>

namespace oxd {

// Every operand that enters a derivative is a fresh copy, so results never share a node.
inline Oxel* C(Oxel* node) { return node->dup(); }
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
    *da = a->diff(var);
    if (!*da)
        return false;
    *db = b->diff(var);
    if (!*db) {
        delete *da;
        *da = nullptr;
        return false;
    }
    return true;
}

}  // namespace oxd

#endif
