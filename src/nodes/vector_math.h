// Four-lane exp, log, log10, expm1, tanh, sinh, cosh, asinh, acosh, atanh, erf and erfc that
// give the C library's bits: the batch program's columns of these functions.
//
// exp and log follow the algorithm of the table-based exp and log that glibc 2.36 runs on
// x86-64 with AVX2 and FMA (its FMA build), operation for operation, with every fused
// multiply-add where that build has one (the file is compiled with -ffp-contract=off so that
// the compiler adds none). log10 is the classic reduction to log of [1/2, 2) with log10(2) in
// two parts, no fused operation, around that log. expm1 and log1p are the classic freely
// licensed algorithms with the fused operations of that library's FMA build; tanh, sinh, cosh,
// asinh, acosh, atanh, erf and erfc are the classic forms over them, exp, log and sqrt, without
// fused operations. Lanes outside the common path go to the scalar function (exp: NaN,
// infinities, |x| >= 1024, results that overflow or are subnormal; log and log10: x <= 0,
// subnormal x, infinity, NaN; expm1: x >= 512, NaN; tanh and erf: NaN; sinh and cosh:
// |x| >= 22, NaN; asinh: |x| > 2^28, NaN; acosh: x <= 1, x >= 2^28, NaN; atanh:
// |x| >= 1 - 2^-53, NaN; erfc: x >= 22, NaN). Whether they serve is decided once per process
// by a self-check against the running C library (see vector_math_check.cpp).
#ifndef OXEL_NODES_VECTOR_MATH_H
#define OXEL_NODES_VECTOR_MATH_H

#include <oxel/export.h>

#include "nodes/kinds.h"

namespace oxm {

enum class Fn { Exp, Log, Log10, Expm1, Tanh, Sinh, Cosh, Asinh, Acosh, Atanh, Erf, Erfc };
inline constexpr Fn kFunctions[] = {Fn::Exp,   Fn::Log,   Fn::Log10, Fn::Expm1,
                                    Fn::Tanh,  Fn::Sinh,  Fn::Cosh,  Fn::Asinh,
                                    Fn::Acosh, Fn::Atanh, Fn::Erf,   Fn::Erfc};

// The node class of each function: the kernel its column matches, the steps it serves.
constexpr oxk::Kind kind(Fn fn)
{
    switch (fn) {
    case Fn::Exp:
        return oxk::Kind::OxExp;
    case Fn::Log:
        return oxk::Kind::OxLn;
    case Fn::Log10:
        return oxk::Kind::OxLog10;
    case Fn::Expm1:
        return oxk::Kind::OxExpm1;
    case Fn::Tanh:
        return oxk::Kind::OxTanh;
    case Fn::Sinh:
        return oxk::Kind::OxSinh;
    case Fn::Cosh:
        return oxk::Kind::OxCosh;
    case Fn::Asinh:
        return oxk::Kind::OxArcsinh;
    case Fn::Acosh:
        return oxk::Kind::OxArccosh;
    case Fn::Atanh:
        return oxk::Kind::OxArctanh;
    case Fn::Erf:
        return oxk::Kind::OxErf;
    case Fn::Erfc:
        break;
    }
    return oxk::Kind::OxErfc;
}

OXEL_API const char* name(Fn fn);         // "exp", "log", "log10", ...
OXEL_API double reference(Fn fn, double x);  // the C library's function

// The four-lane form serves fn in this process: AVX2 and FMA, glibc 2.36, rounding to
// nearest, OXEL_VECTOR_MATH not "0" and the self-check passed. Decided at the first call.
OXEL_API bool serves(Fn fn);

// The self-check: the four-lane form against reference (the C library's function) on inputs
// that tell the C library's builds apart and on pseudo-random inputs of every branch; true
// when all agree bit for bit. Only where the processor has AVX2 and FMA.
OXEL_API bool selfCheck(Fn fn, double (*reference)(double));

// r[i] = fn(x[i]) for four lanes; the result has bit i set for each lane the four-lane path
// does not cover (its r[i] is then meaningless). Only where the processor has AVX2 and FMA.
OXEL_API int apply4(Fn fn, const double* x, double* r);

// The column of fn's kernel (eval_OxExp, eval_OxLn, ...) over n rows: values and codes as the
// kernel gives them row by row. Reads and writes n rounded up to four values (the columns
// of the batch program hold whole blocks). Only where serves(fn).
using Column = void (*)(const double* x, double* r, int* err, int n);
Column column(Fn fn);

}  // namespace oxm

#endif
