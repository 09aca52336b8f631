// Tests of the two-operand nodes (operators and two-argument functions) and of error transfer.
#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <cstdint>
#include <random>

#include "node_probe.h"

static const double kInf = INFINITY, kNaN = NAN;

TEST(Operators, ValuesGuardsAndFallbacks)
{
    const struct { Make2 make; double a, b, value; int err; } rows[] = {
        {op2<OxDurch>, 1, 0, 1.0, 8},                // division by zero falls back to 1
        {op2<OxDurch>, 1e300, 1e-10, 1.0, 9},        // small divisor leaves the range
        {op2<OxDurch>, 1, kNaN, kNaN, 0},            // a NaN divisor is not zero
        {op2<OxModulo>, 5, 0, 0.0, 8},               // falls back to 0, not 1
        {op2<OxHoch>, 0, -1, 0.0, 8}, {op2<OxHoch>, 0, 0, 1.0, 0},
        {op2<OxPlus>, DBL_MAX, 0, 1.0, 9}, {op2<OxPlus>, DBL_MAX, -1, DBL_MAX, 0},  // strict guard
        {op2<OxMinus>, -DBL_MAX, 1, 1.0, 10},        // "underflow" is negative overflow
        {op2<OxMinus>, DBL_MAX, -DBL_MAX, 1.0, 9},
        {op2<OxPlus>, kNaN, 1, 1.0, 10}, {op2<OxPlus>, 1, kNaN, 1.0, 9},  // NaN: non-positive side
        {op2<OxHoch>, 1e200, 2, 1.0, 9},
        {op2<OxHoch>, -1e200, 2, kInf, 0},           // the limit compares the signed base
        {op2<OxHoch>, 1e-300, -2, kInf, 0},          // exponents up to 1 are unchecked
        {op2<OxHoch>, DBL_MAX, 1, DBL_MAX, 0},       // exponent 1 itself as well
        {op2<OxHoch>, kNaN, 2, 1.0, 9},              // NaN fails the limit
        {op2<OxHoch>, -8, 1.0 / 3, -8, 12},          // exponent rounded up to 1
        {op2<OxHoch>, -8, -0.5, 1.0, 12},            // exponent rounded up to -0
        {op2<OxHoch>, -8, 2, 64, 0},
        {op2<OxModulo>, 1e10, 1e-10, 1e10 + 2147483648.0 * 1e-10, 0},  // quotient -> INT32_MIN
        {op2<OxMal>, 0.5, kInf, kInf, 0},            // small left factor: unchecked
        {op2<OxMal>, kInf, 0.5, 1.0, 9},
        {op2<OxBitAnd>, 5.9, 3.2, 1, 0},             // truncated to 5 and 3
        {op2<OxBitOr>, 3e9, 0, -2147483648.0, 0},    // out of range
        {op2<OxBitOr>, -2.5, 0, -2, 0},              // toward zero
        {op2<OxBitXOr>, kNaN, 0, -2147483648.0, 0},
        {op2<OxLess>, 2, 3, 1, 0}, {op2<OxLess>, 3, 3, 0, 0}, {op2<OxLessEqual>, 3, 3, 1, 0},
        {op2<OxGreater>, 4, 3, 1, 0}, {op2<OxGreaterEqual>, 3, 4, 0, 0},
        {op2<OxLessEqual>, kNaN, 1, 0, 0}, {op2<OxGreaterEqual>, kNaN, kNaN, 0, 0},  // NaN: false
        {op2<OxEqual>, 0.1 + 0.2, 0.3, 0, 0}, {op2<OxEqual>, kNaN, kNaN, 0, 0},     // exact
        {op2<OxAnd>, -1, 1, 0, 0}, {op2<OxAnd>, 2, 3, 1, 0},           // negative is false
        {op2<OxOr>, 1e-8, 0, 0, 0}, {op2<OxOr>, 2e-8, 0, 1, 0},        // the threshold is strict
        {op2<OxOr>, kNaN, 0, 0, 0},
        {op2<OxFmod>, 5, 0, 0, 666}, {op2<OxDrem>, 5, 0, 0, 666},      // not division by zero
        {op2<OxFmod>, 5, 3, 2, 0}, {op2<OxDrem>, 5, 3, -1, 0},         // IEEE rounds the quotient
        {op2<OxArctan2>, 0, 0, 0, 666}, {op2<OxArctan2>, 0, -1, M_PI, 0},
        {op2<OxHypot>, 3, 4, 5, 0}, {op2<OxHypot>, 0.1, 0.2, 0.22360679507255554, 0},  // float
        {op2<OxCopysign>, 3, -0.0, -3, 0}, {op2<OxCopysign>, -2, 1, 2, 0},
        {op2<OxMax>, kNaN, 1, 1, 0}, {op2<OxMax>, 1, kNaN, kNaN, 0},  // a false test: the second
        {op2<OxMin>, 0.0, -0.0, -0.0, 0}, {op2<OxMax>, 2, 3, 3, 0}, {op2<OxMin>, 2, 3, 2, 0},
        {op2<OxJn>, 2.5, 1.7, jn(2, 1.7), 0}, {op2<OxJn>, 3.5, 1.7, jn(4, 1.7), 0},  // to even
        {op2<OxYn>, 1.4, 2.2, yn(1, 2.2), 0}, {op2<OxYn>, -0.5, 2.2, yn(0, 2.2), 0},
    };
    for (const auto& r : rows) {
        int err = 0;
        double v = evalTree(r.make(N(r.a), N(r.b)), err);
        EXPECT_TRUE(sameBits(r.value, v)) << "row " << &r - rows;
        EXPECT_EQ(r.err, err) << "row " << &r - rows;
    }
}

// Away from the guards the operators are plain C arithmetic on doubles or 32-bit integers
// (shift counts modulo 32, arithmetic right shift, remainder with the dividend's sign), and
// powers are powl.
TEST(Operators, MatchCArithmeticInRange)
{
    std::mt19937 gen(12345);
    std::uniform_real_distribution<double> dist(-1e6, 1e6);
    std::uniform_int_distribution<int32_t> bits(INT32_MIN, INT32_MAX);
    int err = 0;
    auto run = [&err](Make2 m, double a, double b) { return evalTree(m(N(a), N(b)), err); };
    for (int i = 0; i < 2000; ++i) {
        int32_t p = bits(gen), q = bits(gen), s = q & 31;
        EXPECT_EQ(p | q, run(op2<OxBitOr>, p, q));
        EXPECT_EQ(p & q, run(op2<OxBitAnd>, p, q));
        EXPECT_EQ(p ^ q, run(op2<OxBitXOr>, p, q));
        EXPECT_EQ(static_cast<int32_t>(uint32_t(p) << s), run(op2<OxShiftLeft>, p, q));
        EXPECT_EQ(std::floor(p / std::ldexp(1.0, s)), run(op2<OxShiftRight>, p, q));
        double a = dist(gen), b = dist(gen);
        double base = std::fabs(a) / 1e5, ex = i % 3 ? b / 2e5 : i % 7;  // integral exponents too
        EXPECT_EQ(a + b, run(op2<OxPlus>, a, b));
        EXPECT_EQ(a - b, run(op2<OxMinus>, a, b));
        EXPECT_EQ(a * b, run(op2<OxMal>, a, b));
        EXPECT_EQ(a / b, run(op2<OxDurch>, a, b));
        EXPECT_EQ(a - std::trunc(a / b) * b, run(op2<OxModulo>, a, b));
        EXPECT_TRUE(sameBits(static_cast<double>(powl(base, ex)), run(op2<OxHoch>, base, ex)));
    }
    EXPECT_EQ(0, err);
}

// Which code survives when children, guards and earlier failures meet.
TEST(Operators, ErrorTransfer)
{
    double vars[] = {7.0};
    OxVar assigned(0, "a", N(2));
    const struct { Oxel* tree; int errIn; double value; int errOut; } rows[] = {
        {new OxPlus(new Probe(DBL_MAX, 11), N(DBL_MAX)), 0, 1.0, 11},  // guard fires, code kept
        {new OxPlus(new Probe(1, 11), new Probe(2, 8)), 0, 3, 11},     // left operand wins
        {new OxDurch(new Probe(1, 11), new Probe(2, 8)), 0, 0.5, 8},   // divisor evaluated first
        {new OxBitOr(N(1), new Probe(2, 8)), 0, 3, 8},
        {new OxLess(new Probe(1, 1), N(2)), 8, 1, 1},      // comparisons overwrite with child codes
        {new OxGreater(N(1), new Probe(2, 11)), 8, 0, 11},
        {new OxLessEqual(N(1), N(2)), 8, 1, 8},             // nothing to hand on
        {new OxLess(new Probe(1, -3), N(2)), 0, 1, 0},     // only positive codes travel
        {new OxAnd(new Probe(1, 1), N(2)), 8, 1, 8},        // connectives keep an earlier failure
        {new OxEqual(N(1), new Probe(1, 8)), 0, 1, 8},
        {new OxEqual(nullptr, nullptr), 0, 1, 0},           // missing sides are 0
        {new OxOr(nullptr, new Probe(0, 9)), 0, 0, 9},
        {new OxNot(nullptr), 0, 1, 0}, {new OxNot(new Probe(0, 9)), 0, 1, 9},
        {new OxBranch(N(1), new Probe(4, 12)), 0, 4, 12},   // value of the last statement
        {new OxBranch(new Probe(1, 11), new Probe(4, 12)), 0, 4, 11},
        {new OxBranch(nullptr, nullptr), 0, 0, 0},          // an empty sequence is 0
        {assigned.dup(), 0, 7, 0},                          // a copy of an assignment only reads
        {new OxBranch(new OxVar(0, "a", N(2)), new OxMal(V("a"), N(3))), 0, 6, 0},  // a=2; a*3
        {new OxLn(new Probe(-1, 1)), 0, 0, 1},              // guard fires, argument code stays
        {new OxSinus(new Probe(2, 9)), 0, std::sin(2.0), 9},
        {new OxFmod(new Probe(1, 11), new Probe(0, 8)), 0, 0, 11},
        {new OxMin(N(1), new Probe(2, 8)), 0, 1, 8},
    };
    for (const auto& r : rows) {
        int err = r.errIn;
        EXPECT_EQ(r.value, evalTree(r.tree, err, vars)) << "row " << &r - rows;
        EXPECT_EQ(r.errOut, err) << "row " << &r - rows;
    }
}
