// Tests of the arithmetic, bitwise, comparison and logic operators and the statement sequence.
#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <cstdint>
#include <random>

#include "node_probe.h"

namespace {

typedef Oxel* (*Make2)(Oxel*, Oxel*);

template <class Cls>
Oxel* make2(Oxel* a, Oxel* b)
{
    return new Cls(a, b);
}

struct Row {
    const char* what;
    Make2 make;
    double a, b;
    double value;
    int err;
};

void runRows(const Row* rows, size_t n)
{
    for (size_t i = 0; i < n; ++i) {
        const Row& r = rows[i];
        int err = 0;
        double v = evalTree(r.make(new OxZahl(r.a), new OxZahl(r.b)), err);
        if (std::isnan(r.value))
            EXPECT_TRUE(std::isnan(v)) << r.what;
        else
            EXPECT_DOUBLE_EQ(r.value, v) << r.what;
        EXPECT_EQ(r.err, err) << r.what;
    }
}

const double kInf = INFINITY;
const double kNaN = NAN;

}  // namespace

TEST(Arithmetic, GuardsAndFallbacks)
{
    const Row rows[] = {
        {"1/0", make2<OxDurch>, 1, 0, 1.0, 8},
        {"0/0", make2<OxDurch>, 0, 0, 1.0, 8},
        {"1e300/1e-10 leaves the range", make2<OxDurch>, 1e300, 1e-10, 1.0, 9},
        {"5%0 falls back to 0", make2<OxModulo>, 5, 0, 0.0, 8},
        {"0^-1", make2<OxHoch>, 0, -1, 0.0, 8},
        {"0^0", make2<OxHoch>, 0, 0, 1.0, 0},
        {"DBL_MAX+0, strict guard", make2<OxPlus>, DBL_MAX, 0, 1.0, 9},
        {"DBL_MAX+(-1)", make2<OxPlus>, DBL_MAX, -1, DBL_MAX, 0},
        {"-DBL_MAX-1 is underflow", make2<OxMinus>, -DBL_MAX, 1, 1.0, 10},
        {"DBL_MAX-(-DBL_MAX)", make2<OxMinus>, DBL_MAX, -DBL_MAX, 1.0, 9},
        {"NaN+1 takes the non-positive side", make2<OxPlus>, kNaN, 1, 1.0, 10},
        {"1+NaN", make2<OxPlus>, 1, kNaN, 1.0, 9},
        {"1e200^2", make2<OxHoch>, 1e200, 2, 1.0, 9},
        {"(-1e200)^2: signed base passes", make2<OxHoch>, -1e200, 2, kInf, 0},
        {"1e-300^-2 unchecked", make2<OxHoch>, 1e-300, -2, kInf, 0},
        {"(-8)^(1/3) uses exponent 1", make2<OxHoch>, -8, 1.0 / 3, -8, 12},
        {"(-8)^2", make2<OxHoch>, -8, 2, 64, 0},
        {"(-8)^-0.5 uses exponent -0", make2<OxHoch>, -8, -0.5, 1.0, 12},
        {"7.5%2", make2<OxModulo>, 7.5, 2, 1.5, 0},
        {"-7%3 keeps the dividend's sign", make2<OxModulo>, -7, 3, -1, 0},
        {"7%-3", make2<OxModulo>, 7, -3, 1, 0},
        {"quotient beyond 32 bits is INT32_MIN", make2<OxModulo>, 1e10, 1e-10,
         1e10 + 2147483648.0 * 1e-10, 0},
        {"0.5*inf: small left factor unchecked", make2<OxMal>, 0.5, kInf, kInf, 0},
        {"inf*0.5", make2<OxMal>, kInf, 0.5, 1.0, 9},
        {"1e200*1e200", make2<OxMal>, 1e200, 1e200, 1.0, 9},
    };
    runRows(rows, sizeof rows / sizeof rows[0]);
}

// Away from the guards every operator is the plain C arithmetic.
TEST(Arithmetic, MatchesCArithmeticInRange)
{
    std::mt19937 gen(12345);
    std::uniform_real_distribution<double> dist(-1e6, 1e6);
    for (int i = 0; i < 2000; ++i) {
        double a = dist(gen), b = dist(gen);
        int err = 0;
        EXPECT_EQ(a + b, evalTree(new OxPlus(new OxZahl(a), new OxZahl(b)), err));
        EXPECT_EQ(a - b, evalTree(new OxMinus(new OxZahl(a), new OxZahl(b)), err));
        EXPECT_EQ(a * b, evalTree(new OxMal(new OxZahl(a), new OxZahl(b)), err));
        EXPECT_EQ(a / b, evalTree(new OxDurch(new OxZahl(a), new OxZahl(b)), err));
        EXPECT_EQ(a - std::trunc(a / b) * b,
                  evalTree(new OxModulo(new OxZahl(a), new OxZahl(b)), err));
        double base = std::fabs(a) / 1e5, ex = b / 2e5;
        EXPECT_DOUBLE_EQ(std::pow(base, ex),
                         evalTree(new OxHoch(new OxZahl(base), new OxZahl(ex)), err));
        EXPECT_EQ(0, err);
    }
}

TEST(Arithmetic, ErrorPrecedence)
{
    int err = 0;
    // The left operand's failure wins, and the guard does not overwrite it.
    EXPECT_EQ(1.0, evalTree(new OxPlus(new Probe(DBL_MAX, 11), new OxZahl(DBL_MAX)), err));
    EXPECT_EQ(11, err);
    err = 0;
    EXPECT_EQ(3.0, evalTree(new OxPlus(new Probe(1, 11), new Probe(2, 8)), err));
    EXPECT_EQ(11, err);
    // The divisor is evaluated first, so its failure wins.
    err = 0;
    EXPECT_EQ(0.5, evalTree(new OxDurch(new Probe(1, 11), new Probe(2, 8)), err));
    EXPECT_EQ(8, err);
}

TEST(Bitwise, TruncatesToInt32)
{
    const Row rows[] = {
        {"6|3", make2<OxBitOr>, 6, 3, 7, 0},
        {"6&3", make2<OxBitAnd>, 6, 3, 2, 0},
        {"6 xor 3", make2<OxBitXOr>, 6, 3, 5, 0},
        {"1<<31 changes sign", make2<OxShiftLeft>, 1, 31, -2147483648.0, 0},
        {"1<<32 shifts by 0", make2<OxShiftLeft>, 1, 32, 1, 0},
        {"1<<-1 shifts by 31", make2<OxShiftLeft>, 1, -1, -2147483648.0, 0},
        {"-8>>1 is arithmetic", make2<OxShiftRight>, -8, 1, -4, 0},
        {"-1>>31", make2<OxShiftRight>, -1, 31, -1, 0},
        {"5.9&3.2 truncates", make2<OxBitAnd>, 5.9, 3.2, 1, 0},
        {"3e9 is out of range", make2<OxBitOr>, 3e9, 0, -2147483648.0, 0},
        {"-2.5 truncates toward zero", make2<OxBitOr>, -2.5, 0, -2, 0},
        {"NaN converts to INT32_MIN", make2<OxBitXOr>, kNaN, 0, -2147483648.0, 0},
    };
    runRows(rows, sizeof rows / sizeof rows[0]);
}

TEST(Bitwise, MatchesIntegerReference)
{
    std::mt19937 gen(99);
    std::uniform_int_distribution<int32_t> dist(INT32_MIN, INT32_MAX);
    for (int i = 0; i < 1000; ++i) {
        int32_t a = dist(gen), b = dist(gen);
        int s = b & 31;
        int err = 0;
        auto run = [&](Make2 m) { return evalTree(m(new OxZahl(a), new OxZahl(b)), err); };
        EXPECT_EQ(a | b, run(make2<OxBitOr>));
        EXPECT_EQ(a & b, run(make2<OxBitAnd>));
        EXPECT_EQ(a ^ b, run(make2<OxBitXOr>));
        EXPECT_EQ(static_cast<int32_t>(static_cast<uint64_t>(static_cast<uint32_t>(a)) << s),
                  run(make2<OxShiftLeft>));
        EXPECT_EQ(std::floor(a / std::ldexp(1.0, s)), run(make2<OxShiftRight>));
    }
}

TEST(Logic, TruthValues)
{
    const Row rows[] = {
        {"2<3", make2<OxLess>, 2, 3, 1, 0},
        {"3<3", make2<OxLess>, 3, 3, 0, 0},
        {"3<=3", make2<OxLessEqual>, 3, 3, 1, 0},
        {"4>3", make2<OxGreater>, 4, 3, 1, 0},
        {"3>=4", make2<OxGreaterEqual>, 3, 4, 0, 0},
        {"NaN<1", make2<OxLess>, kNaN, 1, 0, 0},
        {"NaN>=NaN", make2<OxGreaterEqual>, kNaN, kNaN, 0, 0},
        {"NaN<=1", make2<OxLessEqual>, kNaN, 1, 0, 0},
        {"0.1+0.2==0.3 is exact", make2<OxEqual>, 0.1 + 0.2, 0.3, 0, 0},
        {"NaN==NaN", make2<OxEqual>, kNaN, kNaN, 0, 0},
        {"-1 and 1: -1 is false", make2<OxAnd>, -1, 1, 0, 0},
        {"2 and 3", make2<OxAnd>, 2, 3, 1, 0},
        {"1e-8 or 0: threshold is strict", make2<OxOr>, 1e-8, 0, 0, 0},
        {"2e-8 or 0", make2<OxOr>, 2e-8, 0, 1, 0},
        {"NaN or 0", make2<OxOr>, kNaN, 0, 0, 0},
    };
    runRows(rows, sizeof rows / sizeof rows[0]);

    struct NotRow {
        double v, expected;
    } nots[] = {
        {1e-9, 1},  // below the threshold
        {1e-8, 0},
        {-5, 1},
        {kNaN, 0},  // NaN is false for the connectives, yet its negation is 0 too
    };
    for (const NotRow& r : nots) {
        int err = 0;
        EXPECT_EQ(r.expected, evalTree(new OxNot(new OxZahl(r.v)), err)) << r.v;
    }
    int err = 0;
    EXPECT_EQ(1.0, evalTree(new OxNot(nullptr), err));
    EXPECT_EQ(1.0, evalTree(new OxEqual(nullptr, nullptr), err));  // missing sides are 0
}

TEST(Logic, OrderingOverwritesWithChildCodes)
{
    int err = 8;
    evalTree(new OxLess(new Probe(1, 1), new OxZahl(2)), err);
    EXPECT_EQ(1, err);
    err = 8;
    evalTree(new OxGreater(new OxZahl(1), new Probe(2, 11)), err);
    EXPECT_EQ(11, err);
    err = 8;
    evalTree(new OxLessEqual(new OxZahl(1), new OxZahl(2)), err);
    EXPECT_EQ(8, err);
    err = 8;  // the connectives keep an earlier failure
    evalTree(new OxAnd(new Probe(1, 1), new OxZahl(2)), err);
    EXPECT_EQ(8, err);
}

TEST(OxBranch, ValueOfTheLastStatement)
{
    double vars[] = {0.0};
    int err = 0;
    Oxel* seq = new OxBranch(new OxVar(0, "a", new OxZahl(2)),
                             new OxMal(new OxVar(0, "a"), new OxZahl(3)));
    EXPECT_EQ(2, seq->getNumChildren());
    EXPECT_EQ(6.0, evalTree(seq, err, vars));
    EXPECT_EQ(0, err);

    OxBranch empty(nullptr, nullptr);
    EXPECT_EQ(0, empty.getNumChildren());
    EXPECT_EQ(0.0, empty.value(vars, err));

    EXPECT_EQ(4.0, evalTree(new OxBranch(new OxZahl(1), new Probe(4, 12)), err));
    EXPECT_EQ(12, err);
}

TEST(Equality, CommutativeOnlyForSumsProductsAndSequences)
{
    auto a = [] { return new OxVar(0, "a"); };
    auto b = [] { return new OxVar(1, "b"); };
    struct EqRow {
        const char* what;
        Oxel* l;
        Oxel* r;
        int equal;
    } rows[] = {
        {"a+b vs b+a", new OxPlus(a(), b()), new OxPlus(b(), a()), 1},
        {"a*b vs b*a", new OxMal(a(), b()), new OxMal(b(), a()), 1},
        {"a+b vs a*b", new OxPlus(a(), b()), new OxMal(a(), b()), 0},
        {"a+a vs a+b", new OxPlus(a(), a()), new OxPlus(a(), b()), 0},
        {"a-b twice: children by identity", new OxMinus(a(), b()), new OxMinus(a(), b()), 0},
        {"a;b vs b;a", new OxBranch(a(), b()), new OxBranch(b(), a()), 1},
    };
    for (EqRow& r : rows) {
        EXPECT_EQ(r.equal, *r.l == *r.r) << r.what;
        EXPECT_EQ(1, *r.l == *r.l) << r.what;
        delete r.l;
        delete r.r;
    }
}

TEST(Printing, BracketsByPriority)
{
    auto v = [](const char* n) { return new OxVar(0, n); };
    EXPECT_EQ("a-(b-c)", printed(new OxMinus(v("a"), new OxMinus(v("b"), v("c")))));
    EXPECT_EQ("a*b+c", printed(new OxPlus(new OxMal(v("a"), v("b")), v("c"))));
    EXPECT_EQ("(a+b)*c", printed(new OxMal(new OxPlus(v("a"), v("b")), v("c"))));
    EXPECT_EQ("x^(sin(y))", printed(new OxHoch(v("x"), new OxSinus(v("y")))));

    // count() brackets on strictly greater priority only: two short here.
    Oxel* t = new OxMinus(new OxMinus(v("a"), v("b")), v("c"));
    EXPECT_EQ("(a-b)-c", oxelToString(t));
    EXPECT_EQ(5, t->count());
    delete t;
}
