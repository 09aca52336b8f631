// Tests of batch evaluation: every row must give eval()'s value bits and error code.
#include <gtest/gtest.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include <oxel/oxel.h>

#include "node_probe.h"
#include "program/native/native.h"
#include "program/native/wide.h"
#include "program/program.h"

namespace {

// Every program of this test binary runs as native code from its first call (where the build
// has the generator), so the differential tests check the generated code; the suite's
// OXEL_JIT=0 entry runs the same tests in the interpreter.
const bool kNativeAtOnce = (oxelNativeHotCalls(0), true);

// Values where guards switch and special values propagate.
const double kPoints[] = {0.0, -0.0, 1.0, -1.0, 0.5, 2.0, -2.5, 3.0, 1e308, -1e308, 1e-308, -1e-308,
                          INFINITY, -INFINITY, NAN, -NAN, 709.72, 710.0, 1e10, 0.1, -7.0, DBL_MAX,
                          1e-320, 2147483648.0, 31.0};
const int kNumPoints = sizeof kPoints / sizeof kPoints[0];

// Every operator and function, alone, nested, with errors in various orders, assignments
// and statement sequences.
const char* const kFormulas[] = {
    // arithmetic and its guards
    "x + y", "x - y", "x * y", "x / y", "x % y", "pow(x, y)", "-x", "- -x", "x + y * z",
    "x * y + z", "(x + y) * (x - z)", "x / y / z", "x % y % z", "x + 1e308", "x - 1e308",
    "x * 1e308", "x / 1e-300", "1e308 * x", "1 / x", "x / 0", "0 / x", "x % 0", "5 % x", "x % 2.5",
    "7 % x",
    // powers: constant and variable exponents, both guards, every kind of prepared constant
    "pow(x, 2)", "pow(x, 3)", "pow(x, 0.5)", "pow(x, -1)", "pow(x, -0.5)", "pow(x, 1)", "pow(x, 0)",
    "pow(x, 1e-3)", "pow(x, 2.5)", "pow(x, 400)", "pow(2, x)", "pow(-2, x)", "pow(0, x)",
    "pow(x, y * 2)", "pow(pow(x, y), z)", "pow(x, -2)", "pow(x, 10)", "pow(x, 3.5)", "pow(1.7, x)",
    "pow(10, x)",
    // bitwise and shifts
    "x | y", "x & y", "x ^ y", "x << y", "x >> y", "x << 31", "-x >> 1", "x | 0", "3e9 | x",
    "x & y | z", "x * y | z",
    // comparisons, equality, connectives, negation
    "x < y", "x > y", "x <= y", "x >= y", "x == y", "x != y", "x && y", "x || y", "!x", "!!x",
    "x && y || z", "!(x < y) && z", "x < 1/y", "1/x < y", "ln(x) < sqrt(y)", "sqrt(x) > ln(y)",
    "(x / 0) < (y / 0)", "x / 0 + (ln(y) < 1)", "(ln(y) < 1) + x / 0",
    "ln(x) + (sqrt(y) < asin(z))", "ln(x) == sqrt(y)", "ln(x) && sqrt(y)", "!ln(x)",
    "(x < y) + (y < z) * (z < x)", "(x >= y) == 0",
    // every function of the table alone comes from allFormulas(); Bessel orders are masked
    // small here, since their cost grows with the order
    "jn(x & 7, y)", "yn((y & 7) - 3, x)", "jn(2, x)", "yn(3, x)", "fmod(x, 0)",
    "atan2(0, x)", "max(x, 1)", "min(1, x)",
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
    // repeated subtrees, computed once; the divisor's ln(y) fails before the shared sqrt(x)
    "sqrt(x * x + y * y) / (1 + sqrt(x * x + y * y))", "ln(x) * ln(x) - ln(x) / ln(x)",
    "sqrt(x) / ln(y) * sqrt(x)", "a = x * y; x * y + a * (x * y)", "x * y + (x = 2) * (x * y)",
    "pow(x, y) + pow(x, y) * pow(x, 2) + pow(x, 2)", "-0 * x + 0 * x",
    "sin(x) * cos(x) + cos(y) / sin(y) * (x = y) - sin(x)",  // sine and cosine from one sincos
    // long mixed formula
    "sin(x) * cos(y) + exp(-z * z / 2) / sqrt(2) - atan2(y, x) * ln(abs(z) + 1)",
    "max(min(x, y), z) + (x > 0 && y > 0) * hypot(x, y) - (x << 2 | y & 7)",
};

// kFormulas and every function of the table over x (and y).
std::vector<std::string> allFormulas()
{
    std::vector<std::string> all(std::begin(kFormulas), std::end(kFormulas));
    for (const std::string& f : functionNames(1))
        all.push_back(f + "(x)");
    for (const std::string& f : functionNames(2, {"jn", "yn"}))
        all.push_back(f + "(x, y)");
    return all;
}

}  // namespace

// An expression against its own tree walk, each pass after reset(): eval() row by row (value,
// code and the slots it leaves, assignments included), then evalBatch() over all rows. Describes
// the first row whose value bits, code or slots differ, or a write past the last row; "" when
// all agree.
std::string exprMismatch(OxelExpression& e, const std::vector<double>& rows, int stride,
                         void (*reset)())
{
    const int nv = e.numVars();
    const size_t n = rows.size() / static_cast<size_t>(stride), w = static_cast<size_t>(nv);
    std::ostringstream out;
    for (int batch = 0; batch < 2 && out.str().empty(); ++batch) {
        // eval() starts some rows from a code the host did not reset (comparisons may overwrite
        // it); the batch starts every row from 0.
        auto start = [&](size_t r) { return !batch && r % 7 == 3 ? 5 : 0; };
        std::vector<double> walked(n * w), value(n), got(n + 1, 42.0);
        std::vector<int> code(n), err(n + 1, 42);
        reset();
        for (size_t r = 0; r < n; ++r) {
            std::copy_n(&rows[r * static_cast<size_t>(stride)], nv, &walked[r * w]);
            code[r] = start(r);
            value[r] = e.root()->value(&walked[r * w], code[r]);
        }
        reset();
        if (batch && e.evalBatch(rows.data(), static_cast<int>(n), stride, got.data(), err.data()))
            return "evalBatch refused";
        if (got[n] != 42.0 || err[n] != 42)
            return "written past the last row";
        for (size_t r = 0; r < n && out.str().empty(); ++r) {
            const double* row = &rows[r * static_cast<size_t>(stride)];
            std::vector<double> vals(row, row + nv);
            if (!batch) {
                err[r] = start(r);
                got[r] = e.eval(vals.data(), nv, err[r]);
            }
            if (!bitsEqual(value[r], got[r]) || code[r] != err[r] ||
                (!batch && nv > 0 && std::memcmp(&walked[r * w], vals.data(), sizeof(double) * w)))
                out << (batch ? "batch" : "eval") << ", row " << r << ": tree " << value[r]
                    << " code " << code[r] << ", program " << got[r] << " code " << err[r];
        }
    }
    return out.str();
}

// evalBatchColumns() over the rows (numVars values each, in columns of exactly that length)
// against eval() row by row: value bits and codes, nothing written past the last row; with
// zeroed codes promised, only the failing rows' codes written. "" when all agree.
std::string columnsMismatch(OxelExpression& e, const std::vector<double>& rows)
{
    const size_t nv = static_cast<size_t>(e.numVars()), n = rows.size() / nv;
    std::vector<std::vector<double>> cols(nv, std::vector<double>(n));
    std::vector<const double*> ptrs;
    for (size_t v = 0; v < nv; ++v) {
        for (size_t r = 0; r < n; ++r)
            cols[v][r] = rows[r * nv + v];
        ptrs.push_back(cols[v].data());
    }
    std::vector<double> got(n + 1, 42.0), again(n);
    std::vector<int> err(n + 1, 42), marked(n);
    if (e.evalBatchColumns(ptrs.data(), static_cast<int>(n), got.data(), err.data()) != 0)
        return "evalBatchColumns refused";
    if (got[n] != 42.0 || err[n] != 42)
        return "written past the last row";
    for (size_t r = 0; r < n; ++r)
        marked[r] = err[r] ? 0 : 7;  // 7: not to be written
    e.evalBatchColumns(ptrs.data(), static_cast<int>(n), again.data(), marked.data(), true);
    for (size_t r = 0; r < n; ++r) {
        std::vector<double> vals(&rows[r * nv], &rows[r * nv] + nv);
        int code = 0;
        const double want = e.eval(vals.data(), static_cast<int>(nv), code);
        if (!bitsEqual(want, got[r]) || code != err[r] || marked[r] != (code ? code : 7))
            return "row " + std::to_string(r) + ": eval " + std::to_string(want) + " code " +
                   std::to_string(code) + ", columns " + std::to_string(got[r]) + " code " +
                   std::to_string(err[r]) + ", zeroed codes " + std::to_string(marked[r]);
    }
    return "";
}

// Random formulas of the whole language (every operator and function, assignments, several
// statements) and the seed corpus of the expression fuzz target, at ordinary and special
// points: the program and the batch must give the tree walk's bits, codes and slots.
std::string randomFormula(std::mt19937& rng, int depth, bool assigned, const std::string* shared)
{
    static const std::vector<std::string> unary = [] {
        std::vector<std::string> names = functionNames(1);
        names.insert(names.end(), {"-", "!"});
        return names;
    }();
    static const std::vector<std::string> binary = [] {
        std::vector<std::string> names = functionNames(2, {"jn", "yn"});
        names.push_back("pow");
        return names;
    }();
    static const char* const infix[] = {"+", "-", "*", "/", "%", "|", "&", "^", "<<", ">>", "<",
                                        ">", "<=", ">=", "==", "!=", "&&", "||"};
    static const char* const leaves[] = {"x", "y", "z", "0", "1", "2.5", "1e308", "1e-300",
                                         "0.5", "710", "3", "a"};
    auto pick = [&](auto& table) { return table[rng() % std::size(table)]; };
    if (shared && rng() % 3 == 0)  // a subtree that occurs again and again
        return "(" + *shared + ")";
    if (depth == 0 || rng() % 5 == 0)  // "a" is read only once it has been assigned
        return leaves[rng() % (sizeof leaves / sizeof leaves[0] - (assigned ? 0 : 1))];
    // Each draw in a statement of its own: the operands of + are unsequenced, and compilers
    // that order them differently would test different formulas.
    switch (rng() % 5) {
    case 0: {
        std::string f = pick(unary);
        return f + "(" + randomFormula(rng, depth - 1, assigned, shared) + ")";
    }
    case 1: {
        std::string f = pick(binary);
        std::string l = randomFormula(rng, depth - 1, assigned, shared);
        return f + "(" + l + ", " + randomFormula(rng, depth - 1, assigned, shared) + ")";
    }
    case 2:
        return "(a = " + randomFormula(rng, depth - 1, assigned, shared) + ")";
    default: {
        std::string l = randomFormula(rng, depth - 1, assigned, shared);
        std::string r = randomFormula(rng, depth - 1, assigned, shared);
        std::string op = pick(infix);
        return "(" + l + " " + op + " " + r + ")";
    }
    }
}

TEST(BatchEval, RandomFormulasAndFuzzCorpus)
{
    std::vector<std::string> texts;
    std::mt19937 rng(2024);
    for (int i = 0; i < 400; ++i)
        texts.push_back("a = " + randomFormula(rng, 2, false) + "; " + randomFormula(rng, 4, true));
    for (int i = 0; i < 200; ++i) {  // repeated subtrees, also across an assignment of "a"
        const std::string shared = randomFormula(rng, 2, i % 2 == 1);
        texts.push_back("a = " + randomFormula(rng, 2, false, &shared) + "; " +
                        randomFormula(rng, 4, true, &shared));
    }
    for (const std::string& text : fuzzTexts("corpus/expression_fuzz/"))
        texts.push_back(text);
    ASSERT_GT(texts.size(), 800u) << "no expression_fuzz corpus";
    int compared = 0;
    for (const std::string& text : texts) {
        // Skipped: Bessel orders cost time in proportion, random draws need reseeding (their
        // own test).
        if (text.find("jn") != std::string::npos || text.find("yn") != std::string::npos ||
            text.find("rand") != std::string::npos || text.find("gauss") != std::string::npos)
            continue;
        OxelExpression e;
        if (parseXyz(e, text) != 1)
            continue;
        const int nv = e.numVars(), stride = nv + 1;
        std::vector<double> rows;
        for (int r = 0; r < 3 * kNumPoints; ++r)
            for (int d = 0; d < stride; ++d)
                rows.push_back(kPoints[(r * (d + 1) + d * 7) % kNumPoints]);
        EXPECT_EQ(exprMismatch(e, rows, stride), "") << text;
        ++compared;
    }
    EXPECT_GT(compared, 700);
}

// Every combination of kPoints for x, y and z; internal variables get a value from the row, and
// one unused column widens the stride.
TEST(BatchEval, EveryFormulaMatchesEvalBitsAndErrors)
{
    for (const std::string& formula : allFormulas()) {
        OxelExpression e;
        ASSERT_EQ(parseXyz(e, formula), 1) << formula;
        const int nv = e.numVars(), stride = nv + 1;
        std::vector<double> rows;
        for (int r = 0; r < kNumPoints * kNumPoints * kNumPoints; ++r)
            for (int d = 0, k = r; d < stride; ++d, k /= kNumPoints)
                rows.push_back(d < 3 ? kPoints[k % kNumPoints] : d < nv ? 0.25 * (d + r % 5) : -1);
        EXPECT_EQ(exprMismatch(e, rows, stride), "") << formula;
    }
}

// Shared subexpressions are computed once (which failure wins is in kFormulas' rows).
TEST(BatchEval, SharedSubexpressions)
{
    const struct {
        const char* text;
        int steps;  // after sharing
    } programs[] = {
        {"sqrt(x * x + y * y) / (1 + sqrt(x * x + y * y))", 6},  // x*x y*y + sqrt 1+ /
        {"ln(x) * ln(x) + ln(x)", 3},
        {"a = x + 1; x = 2 * a; x + 1 + (a = x + 1)", 4},  // the new x: another x + 1, once
        {"rand() + rand()", 3},  // draws are never shared
    };
    for (const auto& p : programs) {
        OxelExpression e;
        ASSERT_EQ(parseXyz(e, p.text, 2), 1) << p.text;
        EXPECT_EQ(oxelProgramSteps(e.root(), e.numVars()), p.steps) << p.text;
    }
}

// Row counts around the block size, and a stride wider than the variables.
TEST(BatchEval, RowCountsAndStride)
{
    OxelExpression e;
    ASSERT_EQ(parseXyz(e, "a = x * y - 1; ln(a) + a", 2), 1);
    ASSERT_EQ(e.numVars(), 3);
    const int stride = 3 + 4;
    for (int numRows : {1, 2, 255, 256, 257, 1000, 4099}) {
        std::vector<double> rows;
        for (int r = 0; r < numRows; ++r)
            for (int i = 0; i < stride; ++i)
                rows.push_back(std::sin(r * 0.37 + i) * (r % 7));
        EXPECT_EQ(exprMismatch(e, rows, stride), "") << numRows << " rows";
        // Column-major input gives the row-major results; the null column reads as 0.0.
        std::vector<std::vector<double>> cols(3, std::vector<double>(numRows));
        for (int r = 0; r < numRows; ++r)
            for (int i = 0; i < 3; ++i)
                cols[i][r] = i < 2 ? rows[r * stride + i] : 0.0;
        for (int r = 0; r < numRows; ++r)
            rows[r * stride + 2] = 0.0;
        const double* ptrs[] = {cols[0].data(), cols[1].data(), nullptr};
        std::vector<double> byRow(numRows), byCol(numRows);
        std::vector<int> errRow(numRows), errCol(numRows);
        ASSERT_EQ(e.evalBatch(rows.data(), numRows, stride, byRow.data(), errRow.data()), 0);
        ASSERT_EQ(e.evalBatchColumns(ptrs, numRows, byCol.data(), errCol.data()), 0);
        EXPECT_EQ(std::memcmp(byRow.data(), byCol.data(), numRows * sizeof(double)), 0);
        EXPECT_EQ(errRow, errCol);
    }
}

// Random sources walk the tree row by row, so the draws come in row order: reseeding both
// generators gives the very same sequence as eval(). An even row count leaves no Gauss deviate
// pending, as they come in pairs.
TEST(BatchEval, RandomSourcesDrawInRowOrder)
{
    for (const char* formula : {"x + rand()", "gauss() * x", "a = rand(); a * a + gauss()",
                                "sin(rand()) - sin(rand()) + gauss() * gauss()"}) {
        OxelExpression e;
        ASSERT_EQ(parseXyz(e, formula, 1), 1) << formula;
        const int nv = e.numVars();
        std::vector<double> rows(600 * static_cast<size_t>(nv), 0.0);
        for (int r = 0; r < 600; ++r)
            rows[static_cast<size_t>(r * nv)] = r * 0.5;
        auto reseed = [] {
            std::srand(77);
            idum = -5;
        };
        EXPECT_EQ(exprMismatch(e, rows, nv, reseed), "") << formula;
    }
}

int depvarCalls = 0;

double depvarCallback(const void*, int component, int nDiff, const int*, const double* args)
{
    ++depvarCalls;
    return args[0] * 10.0 + component + nDiff;
}

// Trees the parser never builds: the compiled program must agree with the tree's own value.
TEST(BatchEval, HandBuiltTrees)
{
    OxDepVarnode node("d", depvarCallback, nullptr);
    node.setUp(1, 2, 1, nullptr, nullptr);
    Oxel* args[] = {new OxSqroot(new OxVar(1, "y"))};
    // The same call twice, its argument also read outside: sqrt(y) once, two callbacks.
    Oxel* twice[] = {new OxSqroot(new OxVar(1, "y"))};
    Oxel* again[] = {new OxSqroot(new OxVar(1, "y"))};
    Oxel* chain = new OxVar(0, "x");
    for (int i = 0; i < 6000; ++i)
        chain = new OxPlus(chain, new OxZahl(i % 3 ? 1e-3 : -2.0));
    const std::pair<Oxel*, int> trees[] = {  // {tree, number of variables}
        {new OxBranch(nullptr, nullptr), 1},  // empty sequence: 0
        {new OxBranch(new OxLn(new OxVar(0, "x")), nullptr), 1},  // the first statement's value
        {new OxEqual(new OxVar(0, "x"), nullptr), 1},  // a missing side counts as 0
        {new OxNot(nullptr), 1},  // 1
        {new OxPlus(new OxVar(0, "x"), new OxDepVar(&node, 1, 0, nullptr, args)), 2},  // callback
        {new OxMal(new OxDepVar(&node, 1, 0, nullptr, twice),
                   new OxPlus(new OxSqroot(new OxVar(1, "y")),
                              new OxDepVar(&node, 1, 0, nullptr, again))),
         2},
        {chain, 1},
    };
    for (const auto& t : trees) {
        std::vector<double> rows(300 * static_cast<size_t>(t.second));
        for (size_t i = 0; i < rows.size(); ++i)
            rows[i] = kPoints[i % kNumPoints];
        OxelExpression e;
        parseXyz(e, "0", t.second);
        e.setRoot(t.first);
        EXPECT_EQ(exprMismatch(e, rows, t.second), "") << oxelToString(t.first);
        // Callbacks come as often from eval() and evalBatch() as from the tree walk.
        const int numRows = static_cast<int>(rows.size()) / t.second;
        int calls[3];
        std::vector<double> res(static_cast<size_t>(numRows)), slots(rows);
        std::vector<int> err(static_cast<size_t>(numRows), 0);
        for (int pass = 0; pass < 3; ++pass) {
            depvarCalls = 0;
            for (int r = 0; r < numRows && pass < 2; ++r) {
                double* row = &slots[static_cast<size_t>(r * t.second)];
                pass == 0 ? e.root()->value(row, err[0]) : e.eval(row, t.second, err[0]);
            }
            if (pass == 2)
                e.evalBatch(rows.data(), numRows, t.second, res.data(), err.data());
            calls[pass] = depvarCalls;
        }
        EXPECT_EQ(calls[1], calls[0]) << oxelToString(t.first);
        EXPECT_EQ(calls[2], calls[0]) << oxelToString(t.first);
    }
}

// Trees of any width run compiled: a right-leaning chain whose pending left operands outnumber
// the single-point registers (deep_test has the million-term chains), and whose columns make the
// batch's blocks shorter (so 130 rows take three). The expected value adds in the tree's order.
TEST(BatchEval, HugeTreesRunCompiled)
{
    double xs[] = {0.75, -1.0};  // the second fails in the first square root
    const int kWide = 20000;
    Oxel* right = new OxSqroot(new OxPlus(new OxVar(0, "x"), new OxZahl(kWide - 1)));
    double wide = std::sqrt(xs[0] + (kWide - 1));
    for (int i = kWide - 2; i >= 0; --i) {
        right = new OxPlus(new OxSqroot(new OxPlus(new OxVar(0, "x"), new OxZahl(i))), right);
        wide = std::sqrt(xs[0] + i) + wide;
    }
    {
        OxelExpression e;
        parseXyz(e, "0", 1);
        e.setRoot(right);
        int err = 0, other = 0;
        EXPECT_EQ(e.eval(xs, 1, err), wide);
        EXPECT_EQ(err, 0);
        const double failed = e.eval(&xs[1], 1, other);
        std::vector<double> rows, res(130);
        std::vector<int> errs(130);
        for (int r = 0; r < 130; ++r)
            rows.push_back(xs[r % 3 == 2]);
        ASSERT_EQ(e.evalBatch(rows.data(), 130, 1, res.data(), errs.data()), 0);
        for (int r = 0; r < 130; ++r)
            ASSERT_TRUE(r % 3 == 2 ? bitsEqual(res[r], failed) && errs[r] == other
                                   : res[r] == wide && errs[r] == 0) << r;
    }
    // Wide with failures and assignments: the tree walk's bits, codes and slots.
    std::string text = "a = x * 2; b = ", close;
    for (int i = 0; i < 100; ++i) {
        text += "ln(a - " + std::to_string(i) + ") + (";
        close += ")";
    }
    text += "y" + close + "; a = b";
    OxelExpression e;
    ASSERT_EQ(parseXyz(e, text, 2), 1);
    std::vector<double> rows;
    for (int r = 0; r < kNumPoints * kNumPoints; ++r)
        for (int d = 0; d < e.numVars(); ++d)
            rows.push_back(kPoints[(d == 0 ? r : r / kNumPoints) % kNumPoints]);
    EXPECT_EQ(exprMismatch(e, rows, e.numVars()), "");
}

// The fused block code: its rows that fail somewhere (division by zero, ln of a negative,
// overflow) and those past its last group of four run again; lengths around the group and the
// block. Columns of exactly numRows values: a read past them shows under the sanitizers.
TEST(BatchEval, BlockCodeRedoesFailingRows)
{
    const char* off = std::getenv("OXEL_BLOCK_JIT");
    const bool native = oxn::enabled() && __builtin_cpu_supports("avx2") &&
                        !(off && std::strcmp(off, "0") == 0);
    const bool tail = oxn::mathColumn(oxk::Kind::OxExp) && oxn::mathColumn(oxk::Kind::OxLn);
    const bool vexp = oxn::mathColumn(oxk::Kind::OxExp) != nullptr;
    std::string longSum = "x";  // past 256 steps: one group per round of the loop
    for (int i = 0; i < 90; ++i)
        longSum += " + x * " + std::to_string(i) + " - y / (z + " + std::to_string(i) + ")";
    const struct {
        const char* text;
        bool block;  // it has block code (with native code on)
    } formulas[] = {
        {"x / y - z", true}, {"sqrt(x) - y * 2", true}, {"x * 1e300 * y", true}, {"x / y", true},
        {"x * x * y - 3 * x * y * y + z * z * x - y / 4", true},  // inputs checked, no step tested
        {"a = x * y; b = sqrt(a - 1); a + b / z", true},  // assigned slots
        {"floor(x / y) * ceil(z - x) + (x < y && z > 0)", true},
        {"ceil(y - 2) / z", true},  // -0 from ceil
        // Divisors that are powers of two: subnormal quotients, signed zeros, overflows.
        {"x / 4 - y / -0.5 + z / 0.125 + x * 1e-308 / 1024 + x * 1e300 / 0.25", true},
        {"!(x < y) || y == z && !(z >= 2)", true},  // connectives of truth values
        {"max(x, y) - min(z, x) + abs(y) + !x - (x >= z) * (y == z) || x <= y", true},
        {"ln(x) - y * 2 + x % z", false},  // the column instructions alone
        {"x < y", false}, {"!x", false},  // a lone truth value: the column loop (unless streamed)
        // The last step over the block code's column: failing in it (ln of a negative,
        // exp overflowing) or before it (a division by zero).
        {"ln(x * y - z / 2)", tail}, {"exp(x / y - z * 3)", tail},
        {"exp(x * x * 400 - y)", tail}, {"ln(x * y - z)", false},  // two steps before it
        // exp in the block code: from 512 on (overflows among them), NaN, tiny and subnormal.
        {"exp(x * y) - exp(-z / x) * y", vexp}, {"exp(sqrt(x - 1)) * z", vexp},
        {"exp(x * 1e-310) + exp(-y * 1e-300) * exp(z - 1e-17)", vexp},
        {longSum.c_str(), true},
    };
    for (const auto& f : formulas) {
        const char* formula = f.text;
        OxelExpression e;
        ASSERT_EQ(parseXyz(e, formula), 1) << formula;
        EXPECT_EQ(oxelBlockCompile(e.root(), e.numVars()), native && f.block ? 1 : 0) << formula;
        const int nv = e.numVars();
        for (int numRows : {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 261, 1030}) {
            std::vector<double> rows;
            for (int r = 0; r < numRows; ++r) {
                const double x = r % 41 == 0   ? -1.5
                                 : r % 43 == 0 ? 800.0
                                 : r % 53 == 0 ? 1e200
                                               : 0.5 + r * 0.37;
                const double y = r % 37 == 0 ? 0.0 : 2.0 - r * 0.01;
                const double z = r % 47 == 0 ? 0.0 : 1.0 + r % 3;
                for (int v = 0; v < nv; ++v)
                    rows.push_back(v == 0 ? x : v == 1 ? y : z);
            }
            if (numRows > 0) {  // evalBatch refuses a null array
                EXPECT_EQ(exprMismatch(e, rows, nv), "") << formula << ", " << numRows << " rows";
            }
            EXPECT_EQ(columnsMismatch(e, rows), "") << formula << ", " << numRows << " rows";
        }
    }
    OxelExpression draws, raise;
    ASSERT_EQ(parseXyz(draws, "x + rand()"), 1);
    ASSERT_EQ(parseXyz(raise, "ln(-1) + x"), 1);
    EXPECT_EQ(oxelBlockCompile(draws.root(), draws.numVars()), 0);  // row by row
    EXPECT_EQ(oxelBlockCompile(raise.root(), raise.numVars()), 0);  // every row fails
}

// pow(x, 2) in four lanes is the product a*a, while the kernel rounds the square twice (to the
// x87's 64 bits, then to double). Bases whose two roundings differ (found by search, one in
// about 8000), powers of two and their neighbours, tiny and huge bases: the column loop (pow
// alone) and the block code give the kernel's bits and codes.
TEST(BatchEval, SquaresRoundTwiceAsTheKernel)
{
    std::vector<double> xs = {0.0, -0.0, 1.0, -2.0, 0.5, 0x1p-480, -0x1p-481, 1e-300, 3e-162,
                              DBL_MIN, 1.3e154, -1.4e154, 2e154, 1e200, INFINITY, -INFINITY,
                              NAN, std::sqrt(2.0), std::nextafter(std::sqrt(2.0), 2.0),
                              std::nextafter(std::sqrt(8.0), 0.0), std::nextafter(1.0, 0.0)};
    std::mt19937_64 gen(11);
    for (int found = 0; found < 40;) {
        const double a = std::ldexp(std::uniform_real_distribution<double>(1.0, 2.0)(gen),
                                    static_cast<int>(gen() % 200) - 100);
        if (oxk::squareOf(a) != a * a) {
            xs.push_back(found % 2 ? a : -a);
            ++found;
        }
    }
    std::vector<double> rows;
    for (size_t i = 0; i < xs.size() * 3; ++i)  // shifted by one row each round
        rows.insert(rows.end(), {xs[(i + i / xs.size()) % xs.size()], 0.75});
    for (const char* formula : {"pow(x, 2)", "pow(x, 2) * y - y", "pow(x * y, 2) + y"}) {
        OxelExpression e;
        ASSERT_EQ(parseXyz(e, formula, 2), 1);
        EXPECT_EQ(exprMismatch(e, rows, 2), "") << formula;
        EXPECT_EQ(columnsMismatch(e, rows), "") << formula;
    }
}

// Batches of a million rows and more stream their results past the caches: the same values
// and codes as the same rows in small batches, unaligned results included.
TEST(BatchEval, StreamedResultsMatchSmallBatches)
{
    const int n = (1 << 20) + 7;
    std::vector<double> x(n), y(n), z(n);
    for (int r = 0; r < n; ++r) {
        x[r] = 0.5 + (r % 1000) * 0.01;
        y[r] = r % 997 == 0 ? 0.0 : 1.0 + (r % 13);
        z[r] = r % 1009 == 0 ? 1e300 : r * 1e-6;
    }
    const double* cols[] = {x.data(), y.data(), z.data()};
    std::vector<double> big(n + 1), small(n);
    std::vector<int> bigErr(n), smallErr(n);
    // A lone comparison has block code for streamed results only.
    for (const char* text : {"x / y - z * z + sqrt(x)", "x <= y"}) {
        OxelExpression e;
        ASSERT_EQ(parseXyz(e, text), 1);
        for (int offset : {0, 1}) {  // results 16-byte aligned, and not
            ASSERT_EQ(e.evalBatchColumns(cols, n, big.data() + offset, bigErr.data()), 0);
            for (int start = 0; start < n; start += 1000) {
                const double* part[] = {cols[0] + start, cols[1] + start, cols[2] + start};
                ASSERT_EQ(e.evalBatchColumns(part, std::min(1000, n - start),
                                             small.data() + start, smallErr.data() + start),
                          0);
            }
            for (int r = 0; r < n; ++r)
                ASSERT_TRUE(bitsEqual(big[r + offset], small[r]) && bigErr[r] == smallErr[r])
                    << text << ", row " << r;
        }
    }
}
