// Comparisons, connectives and negation: truth values 1.0 and 0.0.
#include <oxel/nodes.h>

#include "nodes/kernels.h"

// Ordering comparisons hand on a positive child code even over an earlier error.
#define OXEL_ORDERING_VALUE(Cls)                            \
    double Cls::value(double* vars, int& err) const         \
    {                                                       \
        int e1 = 0;                                         \
        int e2 = 0;                                         \
        double a = left_->value(vars, e1);                  \
        double b = right_->value(vars, e2);                 \
        if (e1 > 0)                                         \
            err = e1;                                       \
        else if (e2 > 0)                                    \
            err = e2;                                       \
        return oxk::eval_##Cls(a, b);                       \
    }

// Equality and the connectives evaluate both sides (no short circuit); a missing side is 0.
#define OXEL_TOLERANT_VALUE(Cls)                            \
    double Cls::value(double* vars, int& err) const         \
    {                                                       \
        double a = left_ ? left_->value(vars, err) : 0.0;   \
        double b = 0.0;                                     \
        if (right_) {                                       \
            int e2 = 0;                                     \
            b = right_->value(vars, e2);                    \
            if (err == 0)                                   \
                err = e2;                                   \
        }                                                   \
        return oxk::eval_##Cls(a, b);                       \
    }

#define OXEL_LOGIC_COMMON(Cls)                              \
    Oxel* Cls::dup()                                        \
    {                                                       \
        Oxel* a = left_ ? left_->dup() : nullptr;           \
        Oxel* b = right_ ? right_->dup() : nullptr;         \
        return new Cls(a, b);                               \
    }                                                       \
    Cls::~Cls() {}

OXEL_LOGIC_OPERATORS(OXEL_LOGIC_COMMON)

OXEL_ORDERING_VALUE(OxLess)
OXEL_ORDERING_VALUE(OxGreater)
OXEL_ORDERING_VALUE(OxLessEqual)
OXEL_ORDERING_VALUE(OxGreaterEqual)
OXEL_TOLERANT_VALUE(OxEqual)
OXEL_TOLERANT_VALUE(OxAnd)
OXEL_TOLERANT_VALUE(OxOr)

double OxNot::value(double* vars, int& err) const
{
    if (!arg_)
        return 1.0;
    return oxk::eval_OxNot(arg_->value(vars, err));
}

Oxel* OxNot::dup() { return new OxNot(arg_ ? arg_->dup() : nullptr); }
OxNot::~OxNot() {}
