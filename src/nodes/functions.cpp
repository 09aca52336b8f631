// One- and two-argument function nodes over the guarded kernels.
#include <oxel/nodes.h>

#include "nodes/kernels.h"

// The argument's own failure stays in err; the kernel adds its guard code only if err is 0.
#define OXEL_UNARY_FUNCTION(Cls, code, prio, sym)           \
    double Cls::value(double* vars, int& err) const         \
    {                                                       \
        double v = arg_->value(vars, err);                  \
        return oxk::eval_##Cls(v, err);                     \
    }                                                       \
    Oxel* Cls::dup() { return new Cls(arg_->dup()); }       \
    Cls::~Cls() {}                                          \
    const char* Cls::symbol() { return sym; }

// Same frame as the arithmetic operators: the first argument's failure wins.
#define OXEL_BINARY_FUNCTION(Cls, code, prio, sym)          \
    double Cls::value(double* vars, int& err) const         \
    {                                                       \
        int e2 = 0;                                         \
        double a = left_->value(vars, err);                 \
        double b = right_->value(vars, e2);                 \
        if (err == 0)                                       \
            err = e2;                                       \
        return oxk::eval_##Cls(a, b, err);                  \
    }                                                       \
    Oxel* Cls::dup()                                        \
    {                                                       \
        Oxel* a = left_->dup();                             \
        Oxel* b = right_->dup();                            \
        return new Cls(a, b);                               \
    }                                                       \
    Cls::~Cls() {}                                          \
    const char* Cls::symbol() { return sym; }

OXEL_UNARY_FUNCTIONS(OXEL_UNARY_FUNCTION)
OXEL_BINARY_FUNCTIONS(OXEL_BINARY_FUNCTION)
