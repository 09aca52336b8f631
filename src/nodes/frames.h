// Evaluation frame and copy of the two-operand nodes, shared by operators and functions.
#ifndef OXEL_NODES_FRAMES_H
#define OXEL_NODES_FRAMES_H

#include "nodes/kernels.h"

// The first operand reports into the caller's code, the second into a scratch code that is
// kept only when nothing failed before; the kernel's guard runs in any case.
#define OXEL_BINARY_VALUE(Cls)                              \
    double Cls::value(double* vars, int& err) const         \
    {                                                       \
        int e2 = 0;                                         \
        double a = left_->value(vars, err);                 \
        double b = right_->value(vars, e2);                 \
        if (err == 0)                                       \
            err = e2;                                       \
        return oxk::call<oxk::eval_##Cls>(a, b, err);                  \
    }

// Left copy first, then right: argument evaluation order is unspecified otherwise.
#define OXEL_BINARY_COMMON(Cls)                             \
    Oxel* Cls::dup()                                        \
    {                                                       \
        Oxel* a = left_->dup();                             \
        Oxel* b = right_->dup();                            \
        return new Cls(a, b);                               \
    }                                                       \
    Cls::~Cls() {}

#endif
