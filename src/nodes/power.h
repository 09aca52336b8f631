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

// Relative error of the double-double approximation Y of |a|^b (derived next to each step;
// `power_check model` measured log2 2^-72.3, the whole 2^-78.0 for ordinary results and at
// most 0.15 of this bound anywhere):
//   log2|a|      rel. <= 2^-70         -> P = b log2|a|: abs. <= 2^-70 |P|
//   2^P          rel. <= 2^-78 + ln2 * (abs. error of P)
// so |Y - |a|^b| <= (2^-76 + 2^-69 |P|) |a|^b.
constexpr double kModelErr = 0x1p-76;
constexpr double kModelErrPerP = 0x1p-69;

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

struct DD {
    double h, l;
};

// s + e == a + b exactly when |a| >= |b| (or a == 0).
inline DD fastTwoSum(double a, double b)
{
    double s = a + b;
    return {s, b - (s - a)};
}

// s + e == a + b exactly.
inline DD twoSum(double a, double b)
{
    double s = a + b;
    double bb = s - a;
    return {s, (a - (s - bb)) + (b - bb)};
}

// p + e == a * b exactly (no overflow: every operand here is below 2^70 in magnitude). Fma
// says the code is compiled for a processor with fused multiply-add.
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

// ---------------------------------------------------------------- log2

// log2(x) for a positive normal x, as hi + lo with relative error <= 2^-70.
template <bool Fma>
inline DD log2dd(double x)
{
    const double nearOne = 1.0 / (1 << kLogBits);
    double r, k, lch, lcl;
    if (std::fabs(x - 1.0) < nearOne) {
        // Near 1 the table would cancel against k: take r = x - 1 (exact by Sterbenz) so that
        // the relative error stays that of the series below even for b up to 2^60.
        r = x - 1.0;
        k = 0.0;
        lch = lcl = 0.0;
    } else {
        uint64_t ix = bitsOf(x);
        k = static_cast<double>(static_cast<int>(ix >> 52) - 1023);
        const LogEntry& t = kLog[(ix >> (52 - kLogBits)) & ((1u << kLogBits) - 1)];
        double m = fromBits((ix & 0x000FFFFFFFFFFFFFULL) | 0x3FF0000000000000ULL);
        // r = m * invc - 1 exactly: invc has kLogBits + 1 = 11 significant bits, so mh (42
        // bits) * invc and ml (11 bits) * invc are exact products, mh * invc - 1 is exact by
        // Sterbenz, and the sum r is a multiple of 2^-63 of at most 2^-10, which a double holds.
        double mh = fromBits(bitsOf(m) & ~((1ULL << (kLogBits + 1)) - 1));
        double ml = m - mh;
        r = (mh * t.invc - 1.0) + ml * t.invc;
        lch = t.logcHi;
        lcl = t.logcLo;
    }
    // ln(1+r) = r - r^2/2 + r^3 c(r), |r| <= 2^-10: r^2 exact in double-double, c to r^5/8
    // (truncation r^9/9 < 2^-83 |r|). r^3 c(r) is below 2^-21.5 |r|: its roundings (relative
    // 6 * 2^-53 at most) cost 2^-72 |r|, the two sums below another 2^-73 |r|.
    DD rr = twoProd<Fma>(r, r);
    double c = (1.0 / 3 - r * (1.0 / 4)) +
               rr.h * ((1.0 / 5 - r * (1.0 / 6)) + rr.h * (1.0 / 7 - r * (1.0 / 8)));
    double cubic = c * (r * rr.h);
    DD s = fastTwoSum(r, -0.5 * rr.h);  // |r| >= r^2/2
    double lo = (s.l - 0.5 * rr.l) + cubic;
    // ln(1+r) = s.h + lo within 2^-71 relative; times 1/ln2 in double-double (2^-102).
    DD q = twoProd<Fma>(s.h, kInvLn2Hi);
    q.l += s.h * kInvLn2Lo + lo * kInvLn2Hi;
    // log2 x = k + log2(1/invc) + log2(1+r). Outside the near-1 case |log2 x| >= log2(1 + 2^-10)
    // >= |q|, so the series' error stays below 2^-71 |log2 x|; the table (2^-106) and the sums
    // (2^-104 |log2 x|) add little: relative error <= 2^-70.
    DD a = fastTwoSum(k, lch);  // k is 0 or at least 1 in magnitude, |lch| <= 1
    DD b = twoSum(a.h, q.h);
    return fastTwoSum(b.h, ((a.l + lcl) + q.l) + b.l);
}

// ---------------------------------------------------------------- exp2 and the rounding test

// 2^(p.h + p.l) = y * 2^e with y in [0.99, 2.01] within 2^-78 + ln2 * (error of p), relative;
// |p.h| < 2^40.
template <bool Fma>
inline DD exp2dd(DD p, int& e)
{
    // p = k/128 + t, |t| <= 2^-8 (+ 2^-43 from p.l). kd is p.h*128 rounded to an integer; the
    // subtraction is exact as both are multiples of ulp(p.h) and the difference is small.
    const double shift = 0x1.8p52;
    double kd = (p.h * 128.0 + shift) - shift;
    int64_t ki = static_cast<int64_t>(kd);
    DD t = twoSum(p.h - kd * (1.0 / 128), p.l);
    // u = t ln2, |u| <= 2^-8.5, relative error <= 2^-102.
    DD u = twoProd<Fma>(t.h, kLn2Hi);
    u.l += t.h * kLn2Lo + t.l * kLn2Hi;
    // e^u = 1 + u + u^2/2 + u^3 * q(u); q to u^5/8! (truncation u^9/9! < 2^-95). The cubic
    // part is below 2^-28: its double rounding costs at most 2^-79.
    DD uu = twoProd<Fma>(u.h, u.h);
    uu.l += 2.0 * u.h * u.l;
    double cubic = (1.0 / 6 + u.h * (1.0 / 24)) +
                   uu.h * ((1.0 / 120 + u.h * (1.0 / 720)) + uu.h * (1.0 / 5040 + u.h * (1.0 / 40320)));
    cubic *= u.h * uu.h;
    DD e1 = fastTwoSum(1.0, u.h);
    DD e2 = fastTwoSum(e1.h, 0.5 * uu.h);
    double elo = ((u.l + 0.5 * uu.l) + (e1.l + e2.l)) + cubic;  // below 2^-27: <= 2^-80
    // e^u = e2.h + elo within 2^-78 relative; times 2^(j/128) (table 2^-106, product 2^-104).
    const ExpEntry& tj = kExp2[ki & 127];
    DD y = twoProd<Fma>(tj.hi, e2.h);
    y.l += tj.hi * elo + tj.lo * e2.h;
    e = static_cast<int>(ki >> 7);
    return y;
}

// sign * y rounded to double in out when every value within relErr of y (relative) rounds
// alike, y normal and far from overflow. Rounding is monotone, so it suffices that both ends of
// [y - eps, y + eps] round to the same double; eps covers relErr with room for the rounding of
// y.l -/+ eps itself (below 2^-100 relative).
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

// sign * 2^(p.h + p.l) rounded to double in out when the rounding is provably that of every
// value within relErr of the true power; -1020 < p.h < 1022 so the result is normal. False when
// the approximation is too close to a midpoint between two doubles.
template <bool Fma>
inline bool exp2Round(DD p, double relErr, bool negative, double& out)
{
    int e;
    DD y = exp2dd<Fma>(p, e);
    // y lies in [0.99, 2.01]: round it there, then scale.
    if (!roundDD(y, relErr, negative, out))
        return false;
    out *= fromBits(static_cast<uint64_t>(e + 1023) << 52);  // exact: the result is normal
    return true;
}

// ---------------------------------------------------------------- small integral exponents

// x^n for 1 <= n <= 64 by left-to-right binary powering in double-double. Each square or
// product is exact but for the low-part terms (2^-102 relative); a relative error e in the
// running power becomes 2e on squaring, so the result is within (n + 12) 2^-102 < 2^-95.
template <bool Fma>
inline DD powIntDD(double x, unsigned n)
{
    DD r = {x, 0.0};
    for (int i = 30 - __builtin_clz(n); i >= 0; --i) {
        DD sq = twoProd<Fma>(r.h, r.h);
        sq.l += 2.0 * r.h * r.l;
        r = fastTwoSum(sq.h, sq.l);
        if ((n >> i) & 1) {
            DD p = twoProd<Fma>(r.h, x);
            p.l += r.l * x;
            r = fastTwoSum(p.h, p.l);
        }
    }
    return r;
}

// 1/d in double-double: q = 1/d.h, one Newton step on the exact residual (2^-100 relative).
template <bool Fma>
inline DD reciprocalDD(DD d)
{
    double q = 1.0 / d.h;
    DD p = twoProd<Fma>(q, d.h);
    double e = ((1.0 - p.h) - p.l) - q * d.l;  // 1 - p.h is exact: p.h is within 2^-52 of 1
    return fastTwoSum(q, q * e);
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
    kLogGuard,    // decide powl(DBL_MAX, 1/b) > a from log2 a where provable
};

// a^b for b != 2 after the negative-base substitution (a < 0 implies b integral, infinite or
// NaN). With a guard, b > 1 checks the overflow limit first as the powl rule does.
template <Guard G, bool Fma>
inline Outcome fastPowWith(double a, double b, double& out)
{
    // Zero, subnormal, infinite and NaN bases, infinite, NaN and huge exponents go to powl.
    uint64_t ia = bitsOf(a) & 0x7FFFFFFFFFFFFFFFULL;
    if (ia - 0x0010000000000000ULL >= 0x7FE0000000000000ULL || !(std::fabs(b) < 0x1p60))
        return kUnknown;
    // Integral exponents up to 64 with a result between 2^-960 and 2^960 (every intermediate
    // power too, so no low part underflows): binary powering, no log. The overflow limit is
    // then far above a: a^b < 2^960 while powl(DBL_MAX, 1/b) > 2^(1023.9/b) > 2 a for b <= 64.
    double ab = std::fabs(b);
    if (ab >= 1.0 && ab <= 64.0 && ab == std::floor(ab)) {
        unsigned n = static_cast<unsigned>(ab);
        int e = static_cast<int>(ia >> 52) - 1023;
        if (static_cast<int>(n) * (e < 0 ? 1 - e : e + 1) <= 960) {
            DD y = powIntDD<Fma>(fromBits(ia), n);
            if (b < 0)
                y = reciprocalDD<Fma>(y);
            bool negative = a < 0 && (n & 1);
            return roundDD(y, (kPowlErrInt + 0x1p-90) * (1.0 + 0x1p-20), negative, out) ? kValue
                                                                                        : kGuarded;
        }
    }
    DD l = log2dd<Fma>(fromBits(ia));
    // P = b log2|a|: abs. error <= 2^-70 |P| (log) + 2^-104 |P| (product).
    DD p = twoProd<Fma>(b, l.h);
    p = fastTwoSum(p.h, p.l + b * l.l);
    if (G == kLogGuard && b > 1.0 && a >= 1.0) {
        // powl(DBL_MAX, r), r = 1/b rounded, has log2 = r log2(DBL_MAX) + d with |d| <= 2^-60
        // (measured 1.2 * 2^-64 relative). b r = 1 +- 2^-53 and log2(DBL_MAX) = 1024 - 2^-52.5,
        // p.h = b log2 a (1 +- 2^-52): so p.h < 1024 - 2^-38 - b 2^-60 proves the limit above a,
        // p.h > 1024 + the same proves it at most a; the margin below is wider still.
        double margin = 0x1p-36 + b * 0x1p-56;
        if (p.h > 1024.0 + margin)
            return kOverflow;
        if (!(p.h < 1024.0 - margin))
            return kUnknown;
    }
    if (!(p.h > -1020.0 && p.h < 1022.0))
        return kGuarded;  // subnormal, overflowing or nearly overflowing result
    bool integral = b == std::floor(b);
    if (a < 0 && !integral)
        return kGuarded;  // powl's NaN (only the powl rule without substitution gets here)
    bool negative = a < 0 && std::fabs(b) < 0x1p53 && (static_cast<int64_t>(b) & 1);
    double relErr = ((integral ? kPowlErrInt : kPowlErrFrac) + kModelErr +
                     kModelErrPerP * std::fabs(p.h)) * (1.0 + 0x1p-20);
    return exp2Round<Fma>(p, relErr, negative, out) ? kValue : kGuarded;
}

// The same compiled for fused multiply-add, chosen at run time where the processor has it. Both
// give the same answers: the rounding test holds for either approximation.
#if !defined(__FP_FAST_FMA) && defined(__x86_64__) && defined(__GNUC__)
template <Guard G>
[[gnu::target("fma"), gnu::flatten]] Outcome fastPowFma(double a, double b,
                                                        double& out)
{
    return fastPowWith<G, true>(a, b, out);
}

inline bool haveFma()
{
    static const bool yes = [] {
        __builtin_cpu_init();
        return __builtin_cpu_supports("fma") != 0;
    }();
    return yes;
}
#endif

template <Guard G>
inline Outcome fastPow(double a, double b, double& out)
{
#if defined(__FP_FAST_FMA)
    return fastPowWith<G, true>(a, b, out);
#elif defined(__x86_64__) && defined(__GNUC__)
    return haveFma() ? fastPowFma<G>(a, b, out) : fastPowWith<G, false>(a, b, out);
#else
    return fastPowWith<G, false>(a, b, out);
#endif
}

}  // namespace pw
}  // namespace oxk

#endif
