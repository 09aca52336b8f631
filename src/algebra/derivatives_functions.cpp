// Derivatives of the one- and two-argument function nodes.
#include <cmath>

#include <oxel/nodes.h>

#include "algebra/trees.h"

using namespace oxd;

namespace {

// Builds a piece of a derivative from fresh copies of the argument u.
typedef Oxel* (*Piece)(Oxel* u);

// Mal(f'(u), u'). The argument is differentiated first and is never tested for independence,
// so sin(2) still yields cos(2)*0.
Oxel* chain(Oxel* u, const char* var, Piece outer)
{
    Oxel* du = oxd::D(u, var);
    if (!du)
        return nullptr;
    return Mal(outer(u), du);
}

// Durch(u', g(u)): the rules whose derivative reads best as a quotient.
Oxel* quotient(Oxel* u, const char* var, Piece denominator)
{
    Oxel* du = oxd::D(u, var);
    if (!du)
        return nullptr;
    return Durch(du, denominator(u));
}

// 1 - u*u, the radicand of asin and acos. atan is built over it too (1 - u*u, not 1 + u*u);
// existing hosts rely on that tree, so it stays.
Oxel* oneMinusSquare(Oxel* u) { return Minus(N(1.0), Mal(C(u), C(u))); }

// Gaussian kernel factor of erf and erfc: K * (exp(-u*u) * u').
Oxel* gaussChain(Oxel* u, const char* var, double k)
{
    Oxel* du = oxd::D(u, var);
    if (!du)
        return nullptr;
    return Mal(N(k), Mal(new OxExp(Mal(N(-1.0), Mal(C(u), C(u)))), du));
}

const double kSqrtPi = 1.7724538509055159;

}  // namespace

// ---------------------------------------------------------------- f'(u) * u'
// One row per function: class and the outer derivative f'(u), written over copies of u.

#define OXEL_CHAIN_RULES(X)                                                                   \
    X(OxSinus, new OxCosinus(C(u)))                                                           \
    X(OxCosinus, Mal(N(-1.0), new OxSinus(C(u))))                                             \
    X(OxTangens, Durch(N(1.0), Hoch(new OxCosinus(C(u)), N(2.0))))                            \
    X(OxLog10, Durch(N(1.0), Mal(N(std::log(10.0)), C(u))))                                   \
    X(OxCbroot, Durch(N(1.0), Mal(N(3.0), new OxCbroot(Hoch(C(u), N(2.0))))))                 \
    X(OxSinh, new OxCosh(C(u)))                                                               \
    X(OxCosh, new OxSinh(C(u)))                                                               \
    X(OxArcsinh, Durch(N(1.0), new OxSqroot(Plus(Mal(C(u), C(u)), N(1.0)))))                  \
    X(OxArccosh, Durch(N(1.0), new OxSqroot(Minus(Mal(C(u), C(u)), N(1.0)))))                 \
    X(OxArctanh, Durch(N(1.0), Minus(N(1.0), Hoch(C(u), N(2.0)))))                            \
    X(OxJ0, Mal(N(-1.0), new OxJ1(C(u))))                                                     \
    X(OxY0, Mal(N(-1.0), new OxY1(C(u))))                                                     \
    X(OxJ1, Mal(N(0.5), Minus(new OxJ0(C(u)), new OxJn(N(2.0), C(u)))))                       \
    X(OxY1, Mal(N(0.5), Minus(new OxY0(C(u)), new OxYn(N(2.0), C(u)))))

#define OXEL_DEFINE_CHAIN(Cls, outer)                                          \
    Oxel* Cls::diff(const char* var)                                           \
    {                                                                          \
        return chain(arg_, var, [](Oxel* u) -> Oxel* { return outer; });       \
    }
OXEL_CHAIN_RULES(OXEL_DEFINE_CHAIN)
#undef OXEL_DEFINE_CHAIN

// ---------------------------------------------------------------- u' / g(u)

#define OXEL_QUOTIENT_RULES(X)                                         \
    X(OxLn, C(u))                                                      \
    X(OxSqroot, Mal(N(2.0), new OxSqroot(C(u))))                       \
    X(OxArcsin, new OxSqroot(oneMinusSquare(u)))                       \
    X(OxArctan, oneMinusSquare(u))                                     \
    X(OxTanh, Hoch(new OxCosh(C(u)), N(2.0)))

#define OXEL_DEFINE_QUOTIENT(Cls, denominator)                                     \
    Oxel* Cls::diff(const char* var)                                               \
    {                                                                              \
        return quotient(arg_, var, [](Oxel* u) -> Oxel* { return denominator; });  \
    }
OXEL_QUOTIENT_RULES(OXEL_DEFINE_QUOTIENT)
#undef OXEL_DEFINE_QUOTIENT

// ---------------------------------------------------------------- shapes of their own

Oxel* OxExp::diff(const char* var)
{
    Oxel* du = oxd::D(arg_, var);
    return du ? Mal(C(this), du) : nullptr;
}

Oxel* OxArccos::diff(const char* var)
{
    Oxel* du = oxd::D(arg_, var);
    return du ? Durch(Mal(N(-1.0), du), new OxSqroot(oneMinusSquare(arg_))) : nullptr;
}

// |u|' = u' * |u|/u, undefined at 0 like the sign itself.
Oxel* OxBetrag::diff(const char* var)
{
    Oxel* du = oxd::D(arg_, var);
    return du ? Mal(du, Durch(new OxBetrag(C(arg_)), C(arg_))) : nullptr;
}

Oxel* OxErf::diff(const char* var) { return gaussChain(arg_, var, 2.0 / kSqrtPi); }
Oxel* OxErfc::diff(const char* var) { return gaussChain(arg_, var, -2.0 / kSqrtPi); }

// (e^u - 1)*u' + u' keeps expm1's accuracy near zero.
Oxel* OxExpm1::diff(const char* var)
{
    Oxel* du = oxd::D(arg_, var);
    if (!du)
        return nullptr;
    Oxel* again = C(du);
    return Plus(Mal(new OxExpm1(C(arg_)), du), again);
}

// Step functions: zero wherever they have a slope at all. The argument is not looked at.
Oxel* OxSgn::diff(const char* /*var*/) { return N(0.0); }
Oxel* OxCeil::diff(const char* /*var*/) { return N(0.0); }

// ---------------------------------------------------------------- refusals

#define OXEL_REFUSES(Cls) \
    Oxel* Cls::diff(const char* /*var*/) { return nullptr; }
OXEL_REFUSES(OxFloor)
OXEL_REFUSES(OxRint)
OXEL_REFUSES(OxTrunc)
OXEL_REFUSES(OxCopysign)
OXEL_REFUSES(OxDrem)
OXEL_REFUSES(OxFmod)
#undef OXEL_REFUSES

// ---------------------------------------------------------------- two arguments

namespace {

// Bessel recurrence: Z_n' = (Z_{n-1} - Z_{n+1}) / 2. Only an order independent of var.
template <class Bessel>
Oxel* besselDiff(Oxel* n, Oxel* u, const char* var)
{
    if (!n->pconstant(var))
        return nullptr;
    Oxel* du = oxd::D(u, var);
    if (!du)
        return nullptr;
    Oxel* lower = new Bessel(Minus(C(n), N(1.0)), C(u));
    Oxel* upper = new Bessel(Plus(C(n), N(1.0)), C(u));
    return Mal(Mal(N(0.5), Minus(lower, upper)), du);
}

// Each operand's slope counts where the extreme equals that operand; at a tie both count.
template <class Extreme>
Oxel* extremeDiff(Oxel* a, Oxel* b, const char* var)
{
    Oxel *da, *db;
    if (!diffBoth(a, b, var, &da, &db))
        return nullptr;
    Oxel* left = Mal(new OxEqual(new Extreme(C(a), C(b)), C(a)), da);
    Oxel* right = Mal(new OxEqual(new Extreme(C(a), C(b)), C(b)), db);
    return Plus(left, right);
}

Oxel* sumOfSquares(Oxel* a, Oxel* b) { return Plus(Hoch(C(a), N(2.0)), Hoch(C(b), N(2.0))); }

}  // namespace

Oxel* OxJn::diff(const char* var) { return besselDiff<OxJn>(left_, right_, var); }
Oxel* OxYn::diff(const char* var) { return besselDiff<OxYn>(left_, right_, var); }

Oxel* OxMax::diff(const char* var) { return extremeDiff<OxMax>(left_, right_, var); }
Oxel* OxMin::diff(const char* var) { return extremeDiff<OxMin>(left_, right_, var); }

Oxel* OxHypot::diff(const char* var)
{
    Oxel *da, *db;
    if (!diffBoth(left_, right_, var, &da, &db))
        return nullptr;
    return Durch(Plus(Mal(C(left_), da), Mal(C(right_), db)), C(this));
}

// atan2(a, b). The general case keeps the extra factor a'*b' in its numerator.
Oxel* OxArctan2::diff(const char* var)
{
    Oxel* a = left_;
    Oxel* b = right_;
    if (b->pconstant(var)) {
        Oxel* da = oxd::D(a, var);
        if (!da)
            return nullptr;
        return Durch(da, Plus(C(b), Durch(Hoch(C(a), N(2.0)), C(b))));
    }
    if (a->pconstant(var)) {
        Oxel* db = oxd::D(b, var);
        if (!db)
            return nullptr;
        return Durch(Mal(N(-1.0), Mal(C(a), db)), sumOfSquares(a, b));
    }
    Oxel *da, *db;
    if (!diffBoth(a, b, var, &da, &db))
        return nullptr;
    Oxel* extra = Mal(C(da), C(db));
    Oxel* numerator = Mal(Minus(Mal(da, C(b)), Mal(C(a), db)), extra);
    return Durch(numerator, sumOfSquares(a, b));
}
