// Evaluation kernels: the guarded arithmetic of every operator and function, shared by the
// tree walk and the compiled batch evaluator so that both compute the very same bits.
#ifndef OXEL_NODES_KERNELS_H
#define OXEL_NODES_KERNELS_H

#include <cfloat>
#include <cmath>
#include <cstdint>

#include <oxel/core.h>

#include "power.h"

namespace oxk {

// A node records its own failure only when nothing failed before it.
inline void raise(int& err, int code)
{
    if (err == 0)
        err = code;
}

// The x86-64 truncating conversions yield the "integer indefinite" value for anything out of
// range (NaN and infinities included); C++ leaves that undefined, so spell it out.
inline int32_t toInt32(double v)
{
    if (v > -2147483649.0 && v < 2147483648.0)
        return static_cast<int32_t>(v);
    return INT32_MIN;
}

inline int64_t toInt64(double v)
{
    if (v >= -9223372036854775808.0 && v < 9223372036854775808.0)
        return static_cast<int64_t>(v);
    return INT64_MIN;
}

inline bool truth(double v) { return v > 1e-8; }

// A kernel that can fail takes the error code; one that cannot has no such parameter, so
// whether a node can raise is read off its kernel's signature and cannot be forgotten.
template <class F>
struct Kernel;
template <>
struct Kernel<double (*)(double)> {
    static constexpr int arity = 1;
    static constexpr bool raises = false;
};
template <>
struct Kernel<double (*)(double, int&)> {
    static constexpr int arity = 1;
    static constexpr bool raises = true;
};
template <>
struct Kernel<double (*)(double, double)> {
    static constexpr int arity = 2;
    static constexpr bool raises = false;
};
template <>
struct Kernel<double (*)(double, double, int&)> {
    static constexpr int arity = 2;
    static constexpr bool raises = true;
};

// Calls any kernel in the uniform shape (operands, then the error code).
template <auto F>
inline double call(double v, [[maybe_unused]] int& err)
{
    if constexpr (Kernel<decltype(F)>::raises)
        return F(v, err);
    else
        return F(v);
}

template <auto F>
inline double call(double a, double b, [[maybe_unused]] int& err)
{
    if constexpr (Kernel<decltype(F)>::raises)
        return F(a, b, err);
    else
        return F(a, b);
}

constexpr double kExpLimit = 709.72;  // a little below log(DBL_MAX), kept so

// ---------------------------------------------------------------- arithmetic

// The guards below are exact, and so are their fast paths: where both operands are of
// moderate size the guard provably holds (the bounds leave a factor of two against DBL_MAX
// before and after rounding), and one well-predicted test replaces a sign- or
// magnitude-dependent branch that random data mispredicts half of the time. NaN operands fail
// every fast test and take the full guard.
const double kHalfExp = 0x1p511;   // products and quotients of such operands stay finite
const double kSumLimit = 0x1p1022;  // sums and differences of such operands stay finite

inline double eval_OxPlus(double a, double b, int& err)
{
    if (std::fabs(a) < kSumLimit && std::fabs(b) < kSumLimit)
        return a + b;
    if (a > 0) {
        if (DBL_MAX - a > b)
            return a + b;
        raise(err, OX_ERR_OVERFLOW);
        return 1.0;
    }
    if (b > -DBL_MAX - a)
        return a + b;
    raise(err, OX_ERR_UNDERFLOW);
    return 1.0;
}

inline double eval_OxMinus(double a, double b, int& err)
{
    if (std::fabs(a) < kSumLimit && std::fabs(b) < kSumLimit)
        return a - b;
    if (b > 0) {
        if (a > b - DBL_MAX)
            return a - b;
        raise(err, OX_ERR_UNDERFLOW);
        return 1.0;
    }
    if (b + DBL_MAX > a)
        return a - b;
    raise(err, OX_ERR_OVERFLOW);
    return 1.0;
}

inline double eval_OxMal(double a, double b, int& err)
{
    // |a| <= 1 needs no check, and |a| > 1 passes DBL_MAX / |a| > 2^512 > |b|.
    if (std::fabs(a) < kHalfExp && std::fabs(b) < kHalfExp)
        return a * b;
    if (std::fabs(a) > 1.0) {
        if (DBL_MAX / std::fabs(a) > std::fabs(b))
            return a * b;
        raise(err, OX_ERR_OVERFLOW);
        return 1.0;
    }
    // With two NaN operands x86 returns the first one, and the compiler may swap the operands
    // of a commutative product: pin the answer to a's NaN so that every evaluator agrees.
    if (std::isnan(a))
        return a + a;
    return a * b;
}

inline double eval_OxDurch(double a, double b, int& err)
{
    // A divisor of at least 2^-511 is not zero, and |b| * DBL_MAX > 2^512 > |a|.
    if (std::fabs(b) >= 1.0 / kHalfExp && std::fabs(a) < kHalfExp)
        return a / b;
    if (b == 0.0) {
        raise(err, OX_ERR_DIVISION_BY_ZERO);
        return 1.0;
    }
    if (std::fabs(b) >= 1.0 || std::isnan(b))
        return a / b;
    if (std::fabs(b) * DBL_MAX > std::fabs(a))
        return a / b;
    raise(err, OX_ERR_OVERFLOW);
    return 1.0;
}

inline double eval_OxModulo(double a, double b, int& err)
{
    if (b == 0.0) {
        raise(err, OX_ERR_DIVISION_BY_ZERO);
        return 0.0;
    }
    int32_t k = toInt32(a / b);
    return a - static_cast<double>(k) * b;
}

// ---------------------------------------------------------------- powers
//
// The rule: powl(a, b) rounded to double, guarded for b > 1 by powl(DBL_MAX, 1/b) > a, and the
// exponent 2 as the extended-precision product a * a (what glibc's powl computes for it).
// powl costs hundreds of nanoseconds, so power.h computes the same bits in double-double where
// it can prove them; the functions named ...Powl below are the rule itself, taken otherwise.

inline long double powLimit(double b)
{
    return powl(static_cast<long double>(DBL_MAX), static_cast<long double>(1.0 / b));
}

inline long double squareLimit()
{
    static const long double limit = powLimit(2.0);
    return limit;
}

inline double squareOf(double a)
{
    return static_cast<double>(static_cast<long double>(a) * static_cast<long double>(a));
}

// Out of line: the fast path's callers stay small.
[[gnu::noinline]] inline double powerOfPowl(double a, double b)
{
    if (b == 2.0)
        return squareOf(a);
    return static_cast<double>(powl(static_cast<long double>(a), static_cast<long double>(b)));
}

// The guard and the power by powl, after the negative-base substitution.
[[gnu::noinline]] inline double powGuardedPowl(double a, double b, int& err)
{
    if (b > 1.0) {
        if (powLimit(b) > a)
            return powerOfPowl(a, b);
        raise(err, OX_ERR_OVERFLOW);
        return 1.0;
    }
    return powerOfPowl(a, b);
}

// (double)powl(a, b), or the extended square for b == 2, without the guard.
template <bool Fma>
inline double powerOfWith(double a, double b)
{
    if (b == 2.0)
        return squareOf(a);
    double r;
    if (pw::fastPowWith<pw::kNoGuard, Fma>(a, b, r) == pw::kValue)
        return r;
    return powerOfPowl(a, b);
}

// The four-lane squares take the product a*a, whose one rounding can differ from the two
// above only where the exact square lies near a midpoint of doubles. With lo = fma(a, a, -a*a)
// (exact for |a*a| >= kSquareTiny) and E the binade of a*a - 2|lo| (the exact square's, where
// it matters: below a product that is a power of two it is the binade below), they hand the
// kernel every lane with |lo| > E * kSquareTieBand (within 2^-11 ulp of a midpoint), a
// product below kSquareTiny with a != 0, and a product not below 2^1022 or NaN.
constexpr double kSquareTieBand = 0x1p-53 - 0x1p-63;
constexpr double kSquareTiny = 0x1p-960;

// a^2 with its guard: the whole rule for the exponent 2, whatever the base.
inline double squareGuarded(double a, int& err)
{
    if (squareLimit() > a)
        return squareOf(a);
    raise(err, OX_ERR_OVERFLOW);
    return 1.0;
}

// The guard and the power after the negative-base substitution.
template <bool Fma>
inline double powGuardedWith(double a, double b, int& err)
{
    if (b == 2.0)
        return squareGuarded(a, err);
    double r;
    switch (pw::fastPowWith<pw::kLogGuard, Fma>(a, b, r)) {
    case pw::kValue:
        return r;
    case pw::kOverflow:
        raise(err, OX_ERR_OVERFLOW);
        return 1.0;
    case pw::kGuarded:
        return powerOfPowl(a, b);
    case pw::kUnknown:
        break;
    }
    return powGuardedPowl(a, b, err);
}

template <bool Fma>
inline double hochWith(double a, double b, int& err)
{
    if (a < 0 && b != std::ceil(b)) {
        raise(err, OX_ERR_RADICAND_NEGATIVE);
        b = std::ceil(b);  // the power is still taken, with the exponent rounded up
    } else if (a == 0.0 && b < 0) {
        raise(err, OX_ERR_DIVISION_BY_ZERO);
        return 0.0;
    }
    return powGuardedWith<Fma>(a, b, err);
}

// Each entry point below twice, out of line: once for any x86-64 and once compiled for fused
// multiply-add, taken where the processor has it (both give the same bits: the rounding test
// holds for either approximation). The kernel inside is inlined whole, so the fast path makes
// no further call.
#if !defined(__FP_FAST_FMA) && defined(__x86_64__) && defined(__GNUC__)
#define OXK_POW_ENTRY(name, With, ret, params, args)                                     \
    [[gnu::noinline]] inline ret name##Plain params { return With<false> args; }          \
    [[gnu::noinline, gnu::target("fma"), gnu::flatten]] inline ret name##Fma params       \
    {                                                                                     \
        return With<true> args;                                                           \
    }                                                                                     \
    inline ret name params { return pw::haveFma ? name##Fma args : name##Plain args; }
#define OXK_POW_PICK(name) (pw::haveFma ? &name##Fma : &name##Plain)
#else
#define OXK_POW_ENTRY(name, With, ret, params, args) \
    inline ret name params { return With<pw::kFmaBuild> args; }
#define OXK_POW_PICK(name) (&name)
#endif

OXK_POW_ENTRY(eval_OxHoch, hochWith, double, (double a, double b, int& err), (a, b, err))
OXK_POW_ENTRY(powerOf, powerOfWith, double, (double a, double b), (a, b))

// A power with a constant operand, prepared once per program; powPlanned(plan, x, err) gives
// the bits of eval_OxHoch with x as the other operand.
//  - A constant exponent: its ceiling (for negative bases) is taken once. The overflow guard is
//    decided as in eval_OxHoch: the exact limits cost two powl calls, more than the
//    logarithmic test saves, so preparing them would only slow compiling down.
//  - A constant base above 0 (2^x, 10^x, 1.5^t): its logarithm is taken once, so a power is
//    one product and the exponential; anything unusual takes eval_OxHoch.
// The plan holds its entry point, chosen for the processor when it is made.
struct PowPlan;
using PowFn = double (*)(const PowPlan&, double, int&);

struct PowPlan {
    PowFn fn;
    double b, bc;  // the exponent and its ceiling
    bool integral;
    bool square;  // the exponent 2: the extended square, inlined by powPlanned
    double a;     // the base
    pw::DD lnA;   // ln a when fastBase
    bool fastBase;

    explicit PowPlan(double exponent);
    struct Base {};
    PowPlan(Base, double base);
};

template <bool Fma>
inline double powPlannedWith(const PowPlan& p, double a, int& err)
{
    if (a < 0 && !p.integral) {
        raise(err, OX_ERR_RADICAND_NEGATIVE);
        return powGuardedWith<Fma>(a, p.bc, err);
    }
    if (a == 0.0 && p.b < 0) {
        raise(err, OX_ERR_DIVISION_BY_ZERO);
        return 0.0;
    }
    return powGuardedWith<Fma>(a, p.b, err);
}

// For a > 0 normal and b finite, not 2, below 2^60: eval_OxHoch takes the power alone (a >= 1
// with b > 1 passes the guard wherever |b ln a| < kLnNormal) and tries the same rounding test.
template <bool Fma>
inline double powBaseWith(const PowPlan& p, double b, int& err)
{
    if (p.fastBase && std::fabs(b) < 0x1p60 && b != 2.0) {
        pw::DD l = pw::lnTimes<Fma>(p.lnA, b);
        if (std::fabs(l.h) < pw::kLnNormal) {
            double r;
            if (pw::expRound<Fma>(l, b == std::floor(b), false, r))
                return r;
            return powerOfPowl(p.a, b);
        }
    }
    return hochWith<Fma>(p.a, b, err);
}

OXK_POW_ENTRY(powExponent, powPlannedWith, double, (const PowPlan& p, double a, int& err),
              (p, a, err))
OXK_POW_ENTRY(powBase, powBaseWith, double, (const PowPlan& p, double b, int& err), (p, b, err))

inline PowPlan::PowPlan(double exponent)
    : fn(OXK_POW_PICK(powExponent)), b(exponent), bc(std::ceil(exponent)),
      integral(!(exponent != bc)), square(exponent == 2.0), a(0.0), lnA{0.0, 0.0},
      fastBase(false)
{
}

inline PowPlan::PowPlan(Base, double base)
    : fn(OXK_POW_PICK(powBase)), b(0.0), bc(0.0), integral(false), square(false), a(base),
      lnA{0.0, 0.0}, fastBase(base >= DBL_MIN && base <= DBL_MAX)
{
    if (fastBase)
        lnA = pw::logdd<false>(base);  // either approximation of ln a is within the bound
}

inline double powPlanned(const PowPlan& p, double x, int& err)
{
    if (p.square)  // x^2 costs less than the call
        return squareGuarded(x, err);
    return p.fn(p, x, err);
}
#undef OXK_POW_ENTRY
#undef OXK_POW_PICK

// ---------------------------------------------------------------- bitwise and shifts

inline double eval_OxBitOr(double a, double b)
{
    return static_cast<double>(toInt32(a) | toInt32(b));
}

inline double eval_OxBitAnd(double a, double b)
{
    return static_cast<double>(toInt32(a) & toInt32(b));
}

inline double eval_OxBitXOr(double a, double b)
{
    return static_cast<double>(toInt32(a) ^ toInt32(b));
}

inline double eval_OxShiftLeft(double a, double b)
{
    uint32_t bits = static_cast<uint32_t>(toInt32(a)) << (toInt32(b) & 31);
    return static_cast<double>(static_cast<int32_t>(bits));
}

inline double eval_OxShiftRight(double a, double b)
{
    return static_cast<double>(toInt32(a) >> (toInt32(b) & 31));
}

// ---------------------------------------------------------------- comparisons and logic

inline double eval_OxLess(double a, double b) { return a < b ? 1.0 : 0.0; }
inline double eval_OxGreater(double a, double b) { return a > b ? 1.0 : 0.0; }
inline double eval_OxLessEqual(double a, double b) { return a <= b ? 1.0 : 0.0; }
inline double eval_OxGreaterEqual(double a, double b) { return a >= b ? 1.0 : 0.0; }
inline double eval_OxEqual(double a, double b) { return a == b ? 1.0 : 0.0; }
inline double eval_OxAnd(double a, double b) { return truth(a) && truth(b) ? 1.0 : 0.0; }
inline double eval_OxOr(double a, double b) { return truth(a) || truth(b) ? 1.0 : 0.0; }
// NaN is false for the connectives but its negation is 0 as well: kept so.
inline double eval_OxNot(double v) { return v < 1e-8 ? 1.0 : 0.0; }

// ---------------------------------------------------------------- one-argument functions

inline double eval_OxSinus(double v) { return std::sin(v); }
inline double eval_OxCosinus(double v) { return std::cos(v); }
inline double eval_OxTangens(double v) { return std::tan(v); }

inline double eval_OxSqroot(double v, int& err)
{
    if (v < 0) {
        raise(err, OX_ERR_RADICAND_NEGATIVE);
        return 0.0;
    }
    return std::sqrt(v);
}

inline double eval_OxLn(double v, int& err)
{
    if (!(v > 0)) {
        raise(err, OX_ERR_ILLEGAL_LOG);
        return 0.0;
    }
    return std::log(v);
}

inline double eval_OxArctan(double v) { return std::atan(v); }

inline double eval_OxArcsin(double v, int& err)
{
    if (v < -1.0 || v > 1.0 || std::isnan(v)) {
        raise(err, OX_ERR_ARCUS_RANGE);
        return 0.0;
    }
    return std::asin(v);
}

inline double eval_OxArccos(double v, int& err)
{
    if (v < -1.0 || v > 1.0 || std::isnan(v)) {
        raise(err, OX_ERR_ARCUS_RANGE);
        return 0.0;
    }
    return std::acos(v);
}

inline double eval_OxExp(double v, int& err)
{
    if (v >= kExpLimit) {
        raise(err, OX_ERR_OVERFLOW);
        return 1.0;
    }
    return std::exp(v);
}

inline double eval_OxErf(double v) { return std::erf(v); }
inline double eval_OxErfc(double v) { return std::erfc(v); }
inline double eval_OxBetrag(double v) { return std::fabs(v); }

inline double eval_OxArccosh(double v, int& err)
{
    if (v < 1.0) {
        raise(err, OX_ERR_ARCUS_RANGE);
        return 0.0;
    }
    return std::acosh(v);
}

inline double eval_OxArcsinh(double v) { return std::asinh(v); }

inline double eval_OxArctanh(double v, int& err)
{
    if (v <= -1.0 || v >= 1.0) {
        raise(err, OX_ERR_ARCUS_RANGE);
        return 0.0;
    }
    return std::atanh(v);
}

inline double eval_OxCbroot(double v) { return v < 0 ? -std::cbrt(-v) : std::cbrt(v); }
inline double eval_OxCeil(double v) { return std::ceil(v); }
inline double eval_OxCosh(double v) { return std::cosh(v); }

inline double eval_OxExpm1(double v, int& err)
{
    if (v >= kExpLimit) {
        raise(err, OX_ERR_OVERFLOW);
        return 1.0;
    }
    return std::expm1(v);
}

inline double eval_OxFloor(double v) { return std::floor(v); }
inline double eval_OxJ0(double v) { return ::j0(v); }
inline double eval_OxJ1(double v) { return ::j1(v); }

inline double eval_OxLog10(double v, int& err)
{
    if (!(v > 0)) {
        raise(err, OX_ERR_ILLEGAL_LOG);
        return 0.0;
    }
    return std::log10(v);
}

// Rounds to nearest (ties to even) through a 64-bit integer, like the x86-64 conversion.
inline double eval_OxRint(double v)
{
    return static_cast<double>(toInt64(std::nearbyint(v)));
}

inline double eval_OxSinh(double v, int& err)
{
    if (v >= kExpLimit) {
        raise(err, OX_ERR_OVERFLOW);
        return 1.0;
    }
    return std::sinh(v);
}

inline double eval_OxTanh(double v) { return std::tanh(v); }
inline double eval_OxTrunc(double v) { return static_cast<double>(toInt64(v)); }
inline double eval_OxY0(double v) { return ::y0(v); }
inline double eval_OxY1(double v) { return ::y1(v); }

inline double eval_OxSgn(double v)
{
    if (v > 0)
        return 1.0;
    if (v < 0)
        return -1.0;
    return 0.0;
}

// ---------------------------------------------------------------- two-argument functions

inline double eval_OxArctan2(double a, double b, int& err)
{
    if (a == 0 && b == 0) {
        raise(err, OX_ERR_ILLEGAL_ARGUMENT);
        return 0.0;
    }
    return std::atan2(a, b);
}

inline double eval_OxCopysign(double a, double b) { return std::copysign(a, b); }

inline double eval_OxDrem(double a, double b, int& err)
{
    if (b == 0) {
        raise(err, OX_ERR_ILLEGAL_ARGUMENT);
        return 0.0;
    }
    return std::remainder(a, b);
}

inline double eval_OxFmod(double a, double b, int& err)
{
    if (b == 0) {
        raise(err, OX_ERR_ILLEGAL_ARGUMENT);
        return 0.0;
    }
    return std::fmod(a, b);
}

// Single precision in and out, deliberately.
inline double eval_OxHypot(double a, double b)
{
    return static_cast<double>(std::hypot(static_cast<float>(a), static_cast<float>(b)));
}

inline int besselOrder(double a) { return toInt32(std::nearbyint(a)); }
inline double eval_OxJn(double a, double b) { return ::jn(besselOrder(a), b); }
inline double eval_OxYn(double a, double b) { return ::yn(besselOrder(a), b); }
inline double eval_OxMax(double a, double b) { return a > b ? a : b; }
inline double eval_OxMin(double a, double b) { return a < b ? a : b; }

}  // namespace oxk

#endif
