// Tests of batch evaluation: every row must give eval()'s value bits and error code.
#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include <oxel/oxel.h>

#include "expression/program.h"

namespace {

const double kInf = std::numeric_limits<double>::infinity();
const double kNaN = std::numeric_limits<double>::quiet_NaN();

// Values where guards switch and special values propagate.
const double kPoints[] = {0.0,   -0.0,   1.0,    -1.0,     0.5,     2.0,     -2.5,     3.0,
                          1e308, -1e308, 1e-308, -1e-308, kInf,    -kInf,   kNaN,     709.72,
                          710.0, 1e10,   0.1,    -7.0,     DBL_MAX, 1e-320,  2147483648.0, 31.0, -kNaN};

// Bit equality: NaN payloads and signs included.
bool sameBits(double a, double b)
{
    return std::memcmp(&a, &b, sizeof a) == 0;
}

// Rows of stride numVars + 1 (one unused column), every combination of the first three
// variables over kPoints; further slots (internal variables) get a value derived from the row.
std::vector<double> makeRows(int numVars, int stride, int& numRows)
{
    const int np = static_cast<int>(sizeof kPoints / sizeof kPoints[0]);
    const int dims = numVars < 3 ? numVars : 3;
    numRows = 1;
    for (int d = 0; d < dims; ++d)
        numRows *= np;
    std::vector<double> rows(static_cast<size_t>(numRows) * static_cast<size_t>(stride), -123.0);
    for (int r = 0; r < numRows; ++r) {
        int rest = r;
        for (int d = 0; d < numVars; ++d) {
            double v;
            if (d < dims) {
                v = kPoints[rest % np];
                rest /= np;
            } else {
                v = 0.25 * (d + r % 5);
            }
            rows[static_cast<size_t>(r) * stride + d] = v;
        }
    }
    return rows;
}

// Runs evalBatch and eval() row by row on the same data; returns how many rows disagree.
int compareBatchWithEval(OxelExpression& e, const std::string& formula)
{
    const int nv = e.numVars();
    const int stride = nv + 1;
    int numRows = 0;
    std::vector<double> rows = makeRows(nv, stride, numRows);
    std::vector<double> results(static_cast<size_t>(numRows), -999.0);
    std::vector<int> errors(static_cast<size_t>(numRows), -1);
    EXPECT_EQ(e.evalBatch(rows.data(), numRows, stride, results.data(), errors.data()), 0);

    KxDArray<double> vals;
    vals.setLength(nv);
    int mismatches = 0;
    for (int r = 0; r < numRows; ++r) {
        for (int i = 0; i < nv; ++i)
            vals[i] = rows[static_cast<size_t>(r) * stride + i];
        int err = 0;
        double v = e.eval(vals, err);
        if (!sameBits(v, results[static_cast<size_t>(r)]) || err != errors[static_cast<size_t>(r)]) {
            if (++mismatches <= 3) {
                ADD_FAILURE() << formula << " row " << r << ": eval " << v << " err " << err
                              << ", batch " << results[static_cast<size_t>(r)] << " err "
                              << errors[static_cast<size_t>(r)];
            }
        }
    }
    return mismatches;
}

// Every operator and function, alone, nested, with errors in various orders, assignments
// and statement sequences.
const char* const kFormulas[] = {
    // arithmetic and its guards
    "x + y", "x - y", "x * y", "x / y", "x % y", "pow(x, y)", "-x", "- -x", "x + y * z",
    "x * y + z", "(x + y) * (x - z)", "x / y / z", "x % y % z", "x + 1e308", "x - 1e308",
    "x * 1e308", "x / 1e-300", "1e308 * x", "1 / x", "x / 0", "0 / x", "x % 0", "5 % x",
    "x % 2.5", "7 % x",
    // powers: constant and variable exponents, both guards
    "pow(x, 2)", "pow(x, 3)", "pow(x, 0.5)", "pow(x, -1)", "pow(x, -0.5)", "pow(x, 1)",
    "pow(x, 0)", "pow(x, 1e-3)", "pow(x, 2.5)", "pow(x, 400)", "pow(2, x)", "pow(-2, x)",
    "pow(0, x)", "pow(x, y * 2)", "pow(pow(x, y), z)",
    // bitwise and shifts
    "x | y", "x & y", "x ^ y", "x << y", "x >> y", "x << 31", "-x >> 1", "x | 0", "3e9 | x",
    "x & y | z", "x * y | z",
    // comparisons, equality, connectives, negation
    "x < y", "x > y", "x <= y", "x >= y", "x == y", "x != y", "x && y", "x || y", "!x", "!!x",
    "x && y || z", "!(x < y) && z", "x < 1/y", "1/x < y", "ln(x) < sqrt(y)",
    "sqrt(x) > ln(y)", "(x / 0) < (y / 0)", "x / 0 + (ln(y) < 1)", "(ln(y) < 1) + x / 0",
    "ln(x) + (sqrt(y) < asin(z))", "ln(x) == sqrt(y)", "ln(x) && sqrt(y)", "!ln(x)",
    "(x < y) + (y < z) * (z < x)", "(x >= y) == 0",
    // one-argument functions
    "sin(x)", "cos(x)", "tan(x)", "sqrt(x)", "ln(x)", "atan(x)", "asin(x)", "acos(x)", "exp(x)",
    "erf(x)", "erfc(x)", "abs(x)", "acosh(x)", "asinh(x)", "atanh(x)", "cbrt(x)", "ceil(x)",
    "cosh(x)", "expm1(x)", "floor(x)", "j0(x)", "j1(x)", "log10(x)", "rint(x)", "sinh(x)",
    "tanh(x)", "trunc(x)", "y0(x)", "y1(x)", "sgn(x)",
    // two-argument functions (Bessel orders masked small: their cost grows with the order)
    "atan2(x, y)", "copysign(x, y)", "drem(x, y)", "fmod(x, y)", "hypot(x, y)", "jn(x & 7, y)",
    "yn((y & 7) - 3, x)", "max(x, y)", "min(x, y)", "jn(2, x)", "yn(3, x)", "fmod(x, 0)", "atan2(0, x)",
    "max(x, 1)", "min(1, x)",
    // errors from several places: the first in evaluation order wins
    "ln(x) + sqrt(y)", "sqrt(y) + ln(x)", "ln(x) / sqrt(y)", "sqrt(x) / ln(y)",
    "asin(x) * acos(y) - exp(z)", "exp(x) - ln(y) * sqrt(z)", "ln(ln(x))", "sqrt(ln(x) - 5)",
    "fmod(ln(x), sqrt(y))", "atan2(ln(x), y / 0)", "ln(-1) + x", "x + ln(-1)", "ln(-1) + sqrt(-1)",
    "sqrt(-1) * 0 + x / y", "x / y + sqrt(-1)", "y / (x / 0)", "(x / 0) / y", "ln(0) / (1 / x)",
    // constants folded with and without errors
    "1 + 2 * 3", "ln(0)", "sqrt(-4) + x", "x + 1 / 0", "2 * 3 + x * (4 - 1)", "exp(710)",
    "pow(-8, 1 / 3) * x",
    // assignments and statement sequences
    "a = x + y", "a = x * 2; a + y", "a = ln(x); b = sqrt(y); a + b", "a = x; a = a * a; a",
    "a = 1; x + a", "a = 2; b = a * 3; b", "1 + (a = 2 * x)", "(a = x) / (a = y)",
    "a = b = x; a + b", "sin(a = y) + a", "x; y", "x / 0; y", "ln(x); sqrt(y)", "a = ln(x); a",
    "a = x / 0; b = a + 1; ln(b)", "x = y + 1; x * 2", "y = x; x = y * 2; x + y",
    "a = sqrt(x); a < 0",
    // long mixed formula
    "sin(x) * cos(y) + exp(-z * z / 2) / sqrt(2) - atan2(y, x) * ln(abs(z) + 1)",
    "max(min(x, y), z) + (x > 0 && y > 0) * hypot(x, y) - (x << 2 | y & 7)",
};

TEST(BatchEval, EveryFormulaMatchesEvalBitsAndErrors)
{
    for (const char* formula : kFormulas) {
        OxelExpression e;
        e.addVar("x");
        e.addVar("y");
        e.addVar("z");
        std::vector<char> text(formula, formula + std::strlen(formula) + 1);
        if (e.initFromString(text.data()) != 1) {
            ADD_FAILURE() << "does not parse: " << formula;
            continue;
        }
        EXPECT_EQ(compareBatchWithEval(e, formula), 0) << formula;
    }
}

// The batch must report errors, not just compute values: spot-check with known answers.
TEST(BatchEval, KnownErrorCodesPerRow)
{
    OxelExpression e;
    e.addVar("x");
    char text[] = "ln(x) + 1 / x";
    ASSERT_EQ(e.initFromString(text), 1);
    const double rows[] = {1.0, 0.0, -1.0, 2.0};
    double res[4];
    int err[4];
    ASSERT_EQ(e.evalBatch(rows, 4, 1, res, err), 0);
    // {row, value, code}: ln(0) fails first, 1/0 second; -1 fails only in ln
    EXPECT_EQ(err[0], 0);
    EXPECT_EQ(res[0], 1.0);
    EXPECT_EQ(err[1], 11);  // ln(0): Illegal log argument wins over the later 1/0
    EXPECT_EQ(res[1], 1.0);  // 0 + fallback 1.0
    EXPECT_EQ(err[2], 11);
    EXPECT_EQ(res[2], -1.0);
    EXPECT_EQ(err[3], 0);
    EXPECT_EQ(res[3], std::log(2.0) + 0.5);
}

// Row counts around the block size, and a stride wider than the variables.
TEST(BatchEval, RowCountsAndStride)
{
    OxelExpression e;
    e.addVar("x");
    e.addVar("y");
    char text[] = "a = x * y - 1; ln(a) + a";
    ASSERT_EQ(e.initFromString(text), 1);
    const int nv = e.numVars();
    ASSERT_EQ(nv, 3);
    for (int numRows : {1, 2, 255, 256, 257, 1000, 4099}) {
        const int stride = nv + 4;
        std::vector<double> rows(static_cast<size_t>(numRows) * stride);
        for (int r = 0; r < numRows; ++r)
            for (int i = 0; i < stride; ++i)
                rows[static_cast<size_t>(r) * stride + i] = std::sin(r * 0.37 + i) * (r % 7);
        std::vector<double> res(static_cast<size_t>(numRows) + 1, 42.0);
        std::vector<int> err(static_cast<size_t>(numRows) + 1, 42);
        ASSERT_EQ(e.evalBatch(rows.data(), numRows, stride, res.data(), err.data()), 0);
        // nothing written past the last row
        EXPECT_EQ(res[static_cast<size_t>(numRows)], 42.0);
        EXPECT_EQ(err[static_cast<size_t>(numRows)], 42);
        KxDArray<double> vals;
        vals.setLength(nv);
        for (int r = 0; r < numRows; ++r) {
            for (int i = 0; i < nv; ++i)
                vals[i] = rows[static_cast<size_t>(r) * stride + i];
            int ev = 0;
            double v = e.eval(vals, ev);
            ASSERT_TRUE(sameBits(v, res[static_cast<size_t>(r)])) << numRows << " row " << r;
            ASSERT_EQ(ev, err[static_cast<size_t>(r)]) << numRows << " row " << r;
        }
    }
}

// Random sources walk the tree row by row, so the draws come in row order: reseeding
// both generators gives the very same sequence as eval().
TEST(BatchEval, RandomSourcesDrawInRowOrder)
{
    for (const char* formula : {"x + rand()", "gauss() * x", "a = rand(); a * a + gauss()"}) {
        OxelExpression e;
        e.addVar("x");
        std::vector<char> text(formula, formula + std::strlen(formula) + 1);
        ASSERT_EQ(e.initFromString(text.data()), 1) << formula;
        const int nv = e.numVars();
        const int numRows = 600;  // even: gauss() hands out its deviates in pairs
        std::vector<double> rows(static_cast<size_t>(numRows) * nv, 0.0);
        for (int r = 0; r < numRows; ++r)
            rows[static_cast<size_t>(r) * nv] = r * 0.5;

        std::srand(77);
        idum = -5;
        KxDArray<double> vals;
        vals.setLength(nv);
        std::vector<double> expect;
        for (int r = 0; r < numRows; ++r) {
            for (int i = 0; i < nv; ++i)
                vals[i] = rows[static_cast<size_t>(r) * nv + i];
            int err = 0;
            expect.push_back(e.eval(vals, err));
        }
        std::srand(77);
        idum = -5;
        std::vector<double> res(static_cast<size_t>(numRows));
        std::vector<int> err(static_cast<size_t>(numRows));
        ASSERT_EQ(e.evalBatch(rows.data(), numRows, nv, res.data(), err.data()), 0);
        for (int r = 0; r < numRows; ++r)
            ASSERT_TRUE(sameBits(expect[static_cast<size_t>(r)], res[static_cast<size_t>(r)]))
                << formula << " row " << r;
    }
}

// Trees the parser never builds: null children, dependent variables, a very deep chain.
double depvarCallback(const void*, int component, int nDiff, const int*, const double* args)
{
    return args[0] * 10.0 + component + nDiff;
}

void expectProgramMatchesTree(Oxel* root, int numVars)
{
    const int numRows = 300;
    std::vector<double> rows(static_cast<size_t>(numRows) * numVars);
    for (size_t i = 0; i < rows.size(); ++i)
        rows[i] = kPoints[i % (sizeof kPoints / sizeof kPoints[0])];
    OxelProgram* p = oxelProgramCompile(root, numVars);
    std::vector<double> res(numRows);
    std::vector<int> err(numRows);
    oxelProgramRun(p, rows.data(), numRows, numVars, res.data(), err.data());
    std::vector<double> slots(static_cast<size_t>(numVars));
    for (int r = 0; r < numRows; ++r) {
        std::memcpy(slots.data(), &rows[static_cast<size_t>(r) * numVars],
                    sizeof(double) * static_cast<size_t>(numVars));
        int e = 0;
        double v = root->value(slots.data(), e);
        ASSERT_TRUE(sameBits(v, res[static_cast<size_t>(r)])) << "row " << r;
        ASSERT_EQ(e, err[static_cast<size_t>(r)]) << "row " << r;
    }
    oxelProgramRelease(p);
}

TEST(BatchEval, HandBuiltTrees)
{
    // {tree, reason}
    Oxel* empty = new OxBranch(nullptr, nullptr);  // value 0
    expectProgramMatchesTree(empty, 1);
    delete empty;

    Oxel* firstOnly = new OxBranch(new OxLn(new OxVar(0, "x")), nullptr);  // value of first
    expectProgramMatchesTree(firstOnly, 1);
    delete firstOnly;

    Oxel* halfEqual = new OxEqual(new OxVar(0, "x"), nullptr);  // missing side counts 0
    expectProgramMatchesTree(halfEqual, 1);
    delete halfEqual;

    Oxel* bareNot = new OxNot(nullptr);  // 1.0
    expectProgramMatchesTree(bareNot, 1);
    delete bareNot;

    OxDepVarnode node("d", depvarCallback, nullptr);
    node.setUp(1, 2, 1, nullptr, nullptr);
    Oxel* args[] = {new OxSqroot(new OxVar(1, "y"))};
    Oxel* dep = new OxPlus(new OxVar(0, "x"), new OxDepVar(&node, 1, 0, nullptr, args));
    expectProgramMatchesTree(dep, 2);
    delete dep;

    // Deeper than the compiler goes: the tree walks each row instead.
    Oxel* chain = new OxVar(0, "x");
    for (int i = 0; i < 6000; ++i)
        chain = new OxPlus(chain, new OxZahl(i % 3 ? 1e-3 : -2.0));
    expectProgramMatchesTree(chain, 1);
    oxelDestroy(chain);
}

}  // namespace
