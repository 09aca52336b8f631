// Fast power kernel: a^b in double-double with a rounding test that proves the double result
// equals powl(a, b) rounded to double, and a plain powl call wherever it cannot prove it.
#ifndef OXEL_NODES_POWER_H
#define OXEL_NODES_POWER_H

#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstring>

#include "power_tables.h"

// Double-double arithmetic needs every product and sum rounded on its own.
#if defined(__FAST_MATH__)
#error "the power kernel needs IEEE arithmetic; do not build with -ffast-math"
#endif

namespace oxk {
namespace pw {

// ---------------------------------------------------------------- error budget
//
// powl's own error, measured on this machine (glibc x86-64, x87 powl) against MPFR at 256 bits
// with `power_check powl` (10^6 inputs per class) and a sweep of 10^7 integral exponents up to
// 10^6, relative, in units of 2^-64:
//   fractional exponents (ordinary, huge bases, tiny, near 1 with huge b, half-integers): 1.26
//   integral exponents, either sign of base (glibc multiplies for small ones):            4.75
//   powl(DBL_MAX, 1/b), the overflow limit:                                               1.20
// The bounds used are over three times those.
constexpr double kPowlErrFrac = 0x1p-62;  // 4 * 2^-64
constexpr double kPowlErrInt = 0x1p-60;   // 16 * 2^-64

// Relative error of the approximation Y of |a|^b through the logarithm (each step's share is
// derived next to it; u = 2^-53 is the unit roundoff):
//   ln|a|              rel. <= 2^-70.2      -> P = b ln|a|: abs. <= 2^-70.2 |P|
//   e^P                rel. <= 2^-66.8 + 2^-70.5 |P| + (abs. error of P) (1 + 2^-60)
//   the rounding test's own sums                 <= 2^-69.6 + 2^-72.5 |P|
// in all 2^-66.5 + 2^-69.2 |P|, so |Y - |a|^b| <= (2^-65 + 2^-69 |P|) |a|^b, with room to spare (`power_check model`
// measured at most 0.16 of it). Powers are only ever an
// approximation decided by the test below: a wider model error only sends more inputs to powl
// (at these sizes a few in a thousand more), never a different result.
constexpr double kModelErr = 0x1p-65;
constexpr double kModelErrPerP = 0x1p-69;
// The integral powering below (2^-88.4) and reciprocal (2^-91.5), and the test's sums (2^-99).
constexpr double kModelErrInt = 0x1p-86;

// ---------------------------------------------------------------- double-double helpers

inline uint64_t bitsOf(double x)
{
    uint64_t u;
    std::memcpy(&u, &x, sizeof u);
    return u;
}

inline double fromBits(uint64_t u)
{
    double x;
    std::memcpy(&x, &u, sizeof x);
    return x;
}

// A value h + l; l is not always normalized (|l| may exceed ulp(h)/2), each use says how far.
struct DD {
    double h, l;
};

// s + e == a + b exactly when |a| >= |b| (or a == 0).
inline DD fastTwoSum(double a, double b)
{
    double s = a + b;
    return {s, b - (s - a)};
}

// p + e == a * b exactly (no overflow or underflow of e: the callers keep products between
// 2^-960 and 2^960). Fma says the code is compiled for a processor with fused multiply-add.
template <bool Fma>
inline DD twoProd(double a, double b)
{
    double p = a * b;
#ifndef __FP_FAST_FMA
    if (!Fma) {
    // Dekker: split each factor into 26 + 27 bits so that the partial products are exact.
    const double split = 134217729.0;  // 2^27 + 1
    double ca = split * a, cb = split * b;
    double ah = ca - (ca - a), al = a - ah;
    double bh = cb - (cb - b), bl = b - bh;
    return {p, ((ah * bh - p) + ah * bl + al * bh) + al * bl};
    }
#endif
    return {p, std::fma(a, b, -p)};
}

// a * b + c with one rounding where the processor fuses it, two otherwise; the bounds below
// allow for two.
template <bool Fma>
inline double mulAdd(double a, double b, double c)
{
#ifndef __FP_FAST_FMA
    if (!Fma)
        return a * b + c;
#endif
    return std::fma(a, b, c);
}

// ---------------------------------------------------------------- ln

// ln x for a positive normal x as h + l, |l| <= 2^-20.5 |h|, relative error <= 2^-70.2.
template <bool Fma>
inline DD logdd(double x)
{
    uint64_t ix = bitsOf(x);
    double k = static_cast<double>(static_cast<int>(ix >> 52) - 1023);
    const LogEntry& t = kLog[(ix >> (52 - kLogBits)) & ((1u << kLogBits) - 1)];
    double m = fromBits((ix & 0x000FFFFFFFFFFFFFULL) | 0x3FF0000000000000ULL);
    // r = m * invc - 1 exactly: invc has kLogBits + 1 = 11 significant bits, so r is a multiple
    // of 2^-63 of at most 2^-10, which a double holds; fma computes it in one step.
    double r;
    if (Fma) {
        r = std::fma(m, t.invc, -1.0);
    } else {
        // Without fma: mh (42 bits) * invc and ml (11 bits) * invc are exact products and
        // mh * invc - 1 is exact by Sterbenz; their sum is r, exact as said.
        double mh = fromBits(bitsOf(m) & ~((1ULL << (kLogBits + 1)) - 1));
        r = (mh * t.invc - 1.0) + (m - mh) * t.invc;
    }
    // k kLn2Hi and logcHi are multiples of 2^-42 below 2^10: t1 is exact. lo1 holds the rest of
    // k ln 2 - ln invc within 2^-84 (|k| <= 1023 times 2^-96, two roundings at 2^-33 and below).
    // From 1 - 2^-11 to 1 + 2^-10 the table takes c = 1 (invc 1, or 1/2 against k = -1): t1 and
    // lo1 are 0, r is x - 1, and the relative error is that of the series below even for b up
    // to 2^60. Elsewhere |ln x| >= 2^-11 and |r| <= 2 |ln x|.
    double t1 = k * kLn2Hi + t.logcHi;
    double lo1 = k * kLn2Lo + t.logcLo;
    // ln(1+r) = r - r^2/2 + r^3 c(r), |r| <= 2^-10, c to r^4/7: truncation r^8/8 <= 2^-73 |r|.
    // r^3 c(r) is below 2^-21.5 |r| and computed within 5.5u of itself: 2^-72.1 |r|.
    DD s = fastTwoSum(t1, r);  // t1 == 0 or |t1| >= |r|: the table generator checks it
    DD rr = twoProd<Fma>(r, r);
    DD h = fastTwoSum(s.h, -0.5 * rr.h);  // s.h = r, or |s.h| >= |ln x| - 2^-21 > r^2/2
    double c = (1.0 / 3 - r * (1.0 / 4)) + rr.h * ((1.0 / 5 - r * (1.0 / 6)) + rr.h * (1.0 / 7));
    double cubic = (r * rr.h) * c;
    // The low terms are below 2^-20.5 |ln x| (lo1 <= (|k| + 1) 2^-43 against |ln x| >= 2^-11
    // and >= (|k| - 1) ln 2): the sums cost 2^-73.5 |ln x|. The absolute 2^-84 of lo1 is at most
    // 2^-73 |ln x|, the series' errors 2^-72.1 + 2^-73 of |r| <= 2 |ln x|: 2^-70.2 |ln x| in all.
    double lo = ((s.l + h.l) + (lo1 - 0.5 * rr.l)) + cubic;
    return {h.h, lo};
}

// ---------------------------------------------------------------- exp and the rounding test

// e^(p.h + p.l) = (y.h + y.l) 2^e with y in [0.99, 2.01], |y.l| <= 2^-16.6 + 2^-19.5 |P|, within
// 2^-66.8 + 2^-70.5 |P| relative plus the error of p; |p.h| < 710, |p.l| <= 2^-20.5 |P|.
template <bool Fma>
inline DD expdd(DD p, int& e)
{
    // p = kd ln2/128 + t, 128 = 2^kExpBits: kd is p.h 128/ln2 rounded to an integer (|kd| <
    // 2^17, |t| <= 2^-8.53); kd kLn2NHi is exact (36 bits), and so is t: for |p.h| < 2^-9 kd
    // is 0 and t is p.h, otherwise both terms are multiples of 2^-61 and |t| < 2^-8. The rest,
    // tl, is within 2^-81 + u |p.l| <= 2^-81 + 2^-73.5 |P|.
    const double shift = 0x1.8p52;
    double kd = (p.h * kInvLn2N + shift) - shift;
    int64_t ki = static_cast<int64_t>(kd);
    double t = p.h - kd * kLn2NHi;
    double tl = p.l - kd * kLn2NLo;
    // e^(t + tl) = 1 + t + E, E = tl + v^2 (1/2 + v/6 + ... + v^4/720) with v = t + tl
    // rounded (|v| <= 2^-8.33, off by 2^-61.3, which moves E by 2^-69.6); truncation v^7/5040
    // <= 2^-70.6; the square, the polynomial and the product within 3.01u of the square part:
    // 2^-69.1; the sum with tl 2^-70.6 + 2^-73.5 |P|. E is within 2^-67.8 + 2^-72.5 |P|.
    double v = t + tl;
    double vv = v * v;
    double poly = (0.5 + v * ((1.0 / 6) + v * (1.0 / 24))) +
                  (vv * v) * ((1.0 / 120) + v * (1.0 / 720));
    double E = mulAdd<Fma>(vv, poly, tl);
    // y = T (1 + t + E), T = 2^(j/128) as Thi + Tlo (2^-106). Thi t and Thi + (Thi t) exactly;
    // the low sums at 2^-52 and below cost 2^-104; Thi E and Tlo t at most three roundings of
    // 2^-69.6 + 2^-72.5 |P|, the dropped Tlo E 2^-70.6: with tl's and E's own errors, the exp
    // is within 2^-66.8 + 2^-70.5 |P| of y.
    const ExpEntry& tj = kExp2[ki & ((1 << kExpBits) - 1)];
    DD q = twoProd<Fma>(tj.hi, t);
    DD s = fastTwoSum(tj.hi, q.h);  // |Thi| >= 1 > |q.h|
    double yl = mulAdd<Fma>(tj.lo, t, mulAdd<Fma>(tj.hi, E, tj.lo + (s.l + q.l)));
    e = static_cast<int>(ki >> kExpBits);
    return {s.h, yl};
}

// sign * y rounded to double in out when every value within relErr of y (relative) rounds
// alike, y normal and far from overflow. Rounding is monotone, so it suffices that both ends of
// [y - eps, y + eps] round to the same double. The sums y.l -/+ eps round by at most u |y.l|,
// which relErr covers (the callers' model errors include it).
inline bool roundDD(DD y, double relErr, bool negative, double& out)
{
    double eps = std::fabs(y.h) * relErr;
    double lo = y.h + (y.l - eps);
    double hi = y.h + (y.l + eps);
    if (lo != hi)
        return false;
    out = negative ? -lo : lo;
    return true;
}

// ---------------------------------------------------------------- small integral exponents

// x^n for 1 <= n <= 64 by left-to-right binary powering, h + l kept unnormalized: squaring
// doubles the relative gap l/h (so |l| <= 2^-46 |h| after six squarings); each step's new low
// part is within two roundings of at most 2^-46 |h| u, 2^-98 in all, and a relative error e of
// the running power becomes 2e on squaring: within 12 * 64 * 2^-98 < 2^-88.4.
template <bool Fma>
inline DD powIntDD(double x, unsigned n)
{
    DD r = {x, 0.0};
    for (int i = 30 - __builtin_clz(n); i >= 0; --i) {
        DD sq = twoProd<Fma>(r.h, r.h);
        r = {sq.h, mulAdd<Fma>(2.0 * r.h, r.l, sq.l)};
        if ((n >> i) & 1) {
            DD p = twoProd<Fma>(r.h, x);
            r = {p.h, mulAdd<Fma>(r.l, x, p.l)};
        }
    }
    return r;
}

// 1/d in double-double, |d.l| <= 2^-46 |d.h|: q = 1/d.h, one Newton step on the residual e
// (|e| <= 2^-45.9, the dropped e^2 and the roundings 2^-91.5 relative).
template <bool Fma>
inline DD reciprocalDD(DD d)
{
    double q = 1.0 / d.h;
    DD p = twoProd<Fma>(q, d.h);
    double e = ((1.0 - p.h) - p.l) - q * d.l;  // 1 - p.h is exact: p.h is within 2^-52 of 1
    return {q, q * e};
}

// ---------------------------------------------------------------- b ln|a| and its power

// P = b ln|a| from l = ln|a|: b l.h exactly as two parts, b l.l within u 2^-20.5 |P|, the sum as
// much.
template <bool Fma>
inline DD lnTimes(DD l, double b)
{
    DD p = twoProd<Fma>(b, l.h);
    p.l = mulAdd<Fma>(b, l.l, p.l);
    return p;
}

// |P| below this: 2^e with -1021 <= e <= 1020 times y in [0.99, 2.01] is normal and finite, and
// the overflow limit is above a (b ln a < 1020 ln 2 + 2^-11 while b ln of the limit is above
// 1024 ln 2 - 2^-43 - b 2^-60 > 1023 ln 2 for b < 2^60, see fastPowWith).
constexpr double kLnNormal = 1020.0 * kLn2Hi;

// sign * e^P rounded to double in out when the rounding test proves it that of powl; |P| <
// kLnNormal. integral selects powl's error bound for integral exponents.
template <bool Fma>
inline bool expRound(DD p, bool integral, bool negative, double& out)
{
    const double scale = 1.0 + 0x1p-20;  // room for the error of the bound's own arithmetic
    double relErr = std::fabs(p.h) * (kModelErrPerP * scale) +
                    (integral ? (kPowlErrInt + kModelErr) * scale : (kPowlErrFrac + kModelErr) * scale);
    int e;
    DD y = expdd<Fma>(p, e);
    // y lies in [0.99, 2.01]: round it there, then scale (exact: the result is normal).
    if (!roundDD(y, relErr, negative, out))
        return false;
    out *= fromBits(static_cast<uint64_t>(e + 1023) << 52);
    return true;
}

// ---------------------------------------------------------------- the fast path

enum Outcome {
    kValue,     // out holds the power, bit for bit (double)powl(a, b)
    kOverflow,  // the overflow guard fails: powl(DBL_MAX, 1/b) <= a
    kGuarded,   // the guard passes (or does not apply), the power needs powl
    kUnknown,   // nothing decided, follow the powl rule from the start
};

enum Guard {
    kNoGuard,     // the power alone
    kLogGuard,    // decide powl(DBL_MAX, 1/b) > a from ln a where provable
};

// 1024 ln 2 within 2^-44: ln DBL_MAX is 2^-53 below it.
constexpr double kLnOverflow = 1024.0 * (kLn2Hi + kLn2Lo);

// a^b for b != 2 after the negative-base substitution (a < 0 implies b integral, infinite or
// NaN). With a guard, b > 1 checks the overflow limit first as the powl rule does.
template <Guard G, bool Fma>
inline Outcome fastPowWith(double a, double b, double& out)
{
    // Zero, subnormal, infinite and NaN bases, infinite, NaN and huge exponents go to powl.
    uint64_t ia = bitsOf(a) & 0x7FFFFFFFFFFFFFFFULL;
    double ab = std::fabs(b);
    if (ia - 0x0010000000000000ULL >= 0x7FE0000000000000ULL || !(ab < 0x1p60))
        return kUnknown;
    bool integral = b == std::floor(b);
    // Integral exponents up to 64 with a result between 2^-960 and 2^960 (every intermediate
    // power too, so no low part underflows): binary powering, no log. The overflow limit is
    // then far above a: a^b < 2^960 while powl(DBL_MAX, 1/b) > 2^(1023.9/b) > 2 a for b <= 64.
    if (integral && ab <= 64.0 && ab >= 1.0) {
        unsigned n = static_cast<unsigned>(ab);
        int e = static_cast<int>(ia >> 52) - 1023;
        if (static_cast<int>(n) * (e < 0 ? 1 - e : e + 1) <= 960) {
            DD y = powIntDD<Fma>(fromBits(ia), n);
            if (b < 0)
                y = reciprocalDD<Fma>(y);
            bool negative = a < 0 && (n & 1);
            return roundDD(y, (kPowlErrInt + kModelErrInt) * (1.0 + 0x1p-20), negative, out)
                       ? kValue
                       : kGuarded;
        }
    }
    bool negative = false;
    if (a < 0) {
        if (!integral)
            return kGuarded;  // powl's NaN (only the powl rule without substitution gets here)
        negative = ab < 0x1p53 && (static_cast<int64_t>(b) & 1);
    }
    DD p = lnTimes<Fma>(logdd<Fma>(fromBits(ia)), b);
    if (!(std::fabs(p.h) < kLnNormal)) {
        if (G == kLogGuard && b > 1.0 && a >= 1.0) {
            // powl(DBL_MAX, r), r = 1/b rounded, has ln = r ln(DBL_MAX) + d with |d| <= 2^-60
            // (measured 1.2 * 2^-64 relative). b r = 1 +- 2^-53 and ln(DBL_MAX) = 1024 ln 2 -
            // 2^-53, pg = b ln a within 2^-52 |P|: so pg below 1024 ln 2 - 2^-41 - b 2^-60
            // proves the limit above a, above 1024 ln 2 + the same proves it at most a; the
            // margin below is wider.
            double pg = p.h + p.l;  // p.l may be up to 2^-20.5 |P|: the guard needs the sum
            double margin = 0x1p-36 + b * 0x1p-56;
            if (pg > kLnOverflow + margin)
                return kOverflow;
            if (!(pg < kLnOverflow - margin))
                return kUnknown;
        }
        return kGuarded;  // subnormal, overflowing or nearly overflowing results
    }
    return expRound<Fma>(p, integral, negative, out) ? kValue : kGuarded;
}

// Whether the processor fuses multiply-add; the callers compile the kernel both ways and pick
// by this flag. Read before it is set (by another static initializer) it is false, which only
// takes the slower of two paths that give the same bits.
#if defined(__FP_FAST_FMA)
constexpr bool kFmaBuild = true;
#else
constexpr bool kFmaBuild = false;
#endif
#if !defined(__FP_FAST_FMA) && defined(__x86_64__) && defined(__GNUC__)
inline bool detectFma()
{
    __builtin_cpu_init();
    return __builtin_cpu_supports("fma") != 0;
}
inline const bool haveFma = detectFma();
#endif

}  // namespace pw
}  // namespace oxk

#endif
