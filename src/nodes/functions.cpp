// One- and two-argument function nodes over the guarded kernels.
#include <oxel/nodes.h>

#include "nodes/frames.h"

// The argument's own failure stays in err; the kernel adds its guard code only if err is 0.
#define OXEL_UNARY_FUNCTION(Cls, code, prio, sym, ...)       \
    double Cls::value(double* vars, int& err) const         \
    {                                                       \
        double v = arg_->value(vars, err);                  \
        return oxk::call<oxk::eval_##Cls>(v, err);                     \
    }                                                       \
    Oxel* Cls::dup() { return new Cls(arg_->dup()); }       \
    Cls::~Cls() {}                                          \
    const char* Cls::symbol() { return sym; }

#define OXEL_BINARY_FUNCTION(Cls, code, prio, sym, ...) \
    OXEL_BINARY_VALUE(Cls)                         \
    OXEL_BINARY_COMMON(Cls)                        \
    const char* Cls::symbol() { return sym; }

OXEL_UNARY_FUNCTIONS(OXEL_UNARY_FUNCTION)
OXEL_BINARY_FUNCTIONS(OXEL_BINARY_FUNCTION)
