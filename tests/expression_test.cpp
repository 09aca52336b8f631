// Tests of OxelExpression: registry, aliases, parsing lifecycle, derivatives, copies, batches.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include <oxel/oxel.h>

namespace {

// Evaluates with the given leading values and zeroed slots behind them.
double evalWith(OxelExpression& e, std::vector<double> values, int err = 0)
{
    values.resize(8, 0.0);
    KxDArray<double> v;
    v.setLength(8);
    for (int i = 0; i < 8; ++i)
        v[i] = values[static_cast<size_t>(i)];
    return e.eval(v, err);
}

}  // namespace

TEST(ExpressionRegistry, NamesAliasesAndInternals)
{
    OxelExpression e;
    EXPECT_EQ(0, e.addVar("x"));
    EXPECT_EQ(0, e.addVar("x"));  // no duplicate
    EXPECT_TRUE(e.addVar("") == -1 && e.addVar(nullptr) == -1);
    e.addVarAlias("x", "t");
    EXPECT_EQ(0, e.addVar("t"));  // declared through its alias
    EXPECT_EQ(1, e.numVars());
    e.addVarAlias("u", "w");  // alias of an undeclared variable
    EXPECT_TRUE(e.varIndex("w") == -1 && e.varIndex("u") == -1);
    EXPECT_EQ(1, e.addVar("b"));
    e.addVarAlias("b", "x");  // an alias wins over a declared name
    EXPECT_EQ(1, e.varIndex("x"));
    EXPECT_EQ(nullptr, e.varName(2));

    ASSERT_EQ(1, e.initFromString("k = t * 2; k + 1"));  // t is x, though x is an alias too
    EXPECT_TRUE(e.numVars() == 3 && e.numInternalVars() == 1);
    EXPECT_STREQ("k", e.varName(2));
    EXPECT_EQ(-1, e.varIndex("k"));  // internal names are not looked up
    EXPECT_EQ(19, evalWith(e, {9, 3}));  // one level of aliases only
    EXPECT_EQ(2, e.addVar("y"));  // a declared variable goes in front of the internal ones
    EXPECT_STREQ("k", e.varName(3));
    ASSERT_EQ(1, e.initFromString("x + y"));
    EXPECT_TRUE(e.numVars() == 3 && e.numInternalVars() == 0);
    const struct { const char* name; int needed; } rows[] = {
        {"b", 1}, {"y", 1}, {"x", 0}, {"", 0}, {nullptr, 0},  // x is written as itself
    };
    for (const auto& row : rows)
        EXPECT_EQ(row.needed, e.isVarNeeded(row.name)) << (row.name ? row.name : "null");
    e.setDefaultExpression();
    EXPECT_EQ(0, e.isVarNeeded("b"));
}

// Past a handful of names, the registry and the parser look names up in a hash: each name
// still resolves as a scan in declaration order would, aliases one level deep.
TEST(ExpressionRegistry, ManyNamesResolveAsAScanWould)
{
    for (int n : {5, 1000}) {  // below and above the count where lookups stop scanning
        OxelExpression e;
        std::string sum;
        double want = 1000;  // from t below
        for (int i = 0; i < n; ++i) {
            const std::string v = "v" + std::to_string(i), a = "a" + std::to_string(i);
            ASSERT_EQ(i, e.addVar(v.c_str()));
            e.addVarAlias(v.c_str(), a.c_str());
            sum += " + " + std::to_string(i % 7) + "*" + (i % 2 ? a : v);
            want += (i % 7) * i;
        }
        // w aliases an undeclared name, so declaring it twice gives two slots; once the alias
        // names w itself, w is the first of them.
        e.addVarAlias("missing", "w");
        EXPECT_EQ(n, e.addVar("w"));
        EXPECT_EQ(n + 1, e.addVar("w"));
        e.addVarAlias("w", "w");
        EXPECT_TRUE(e.varIndex("w") == n && e.addVar("w") == n);
        for (int i = 0; i < n; i += 7) {
            EXPECT_EQ(i, e.varIndex(("v" + std::to_string(i)).c_str()));
            EXPECT_EQ(i, e.varIndex(("a" + std::to_string(i)).c_str()));
        }
        EXPECT_EQ(-1, e.varIndex(("v" + std::to_string(n)).c_str()));

        ASSERT_EQ(1, e.initFromString(("t = w*1000; t" + sum).c_str()));
        EXPECT_EQ(-1, e.varIndex("t"));  // internal
        std::vector<double> values(static_cast<size_t>(e.numVars()));
        for (int i = 0; i < n; ++i)
            values[static_cast<size_t>(i)] = i;
        values[static_cast<size_t>(n)] = 1;  // the w the formula reads
        values[static_cast<size_t>(n) + 1] = 2;
        int err = 0;
        EXPECT_EQ(want, e.eval(values.data(), e.numVars(), err));
        EXPECT_EQ(0, err);

        // Derived copies declare the internal names too; a copy of the names keeps the order of
        // the declared ones and their aliases only, replaces what was there and leaves the
        // formula the default; a copy from itself changes nothing.
        std::unique_ptr<OxelExpression> d(e.simplified());
        ASSERT_TRUE(d != nullptr);
        EXPECT_EQ(want, d->eval(values.data(), d->numVars(), err));
        EXPECT_TRUE(d->varIndex("w") == n && d->varIndex("t") == n + 2);
        OxelExpression c;
        c.addVar("old");
        ASSERT_EQ(1, c.initFromString("old * 3"));
        c.copyVarNames(e);
        c.copyVarNames(c);
        EXPECT_TRUE(c.varIndex("w") == n && c.varIndex("a3") == 3 && c.varIndex("t") == -1);
        EXPECT_TRUE(c.numVars() == n + 2 && c.numInternalVars() == 0 && c.varIndex("old") == -1);
        EXPECT_EQ(0.0, c.eval(values.data(), c.numVars(), err));
    }
}

TEST(ExpressionLifecycle, DefaultsFailuresAndReset)
{
    OxelExpression e;
    KxDArray<double> none;
    int err = 7;
    EXPECT_TRUE(e.numVars() == 0 && e.eval(none, err) == 0.0);
    EXPECT_EQ(7, err);  // eval never resets the code
    e.addVar("x");
    for (const char* text : {"", static_cast<const char*>(nullptr)}) {
        ASSERT_EQ(1, e.initFromString("x"));
        EXPECT_EQ(0, e.initFromString(text));
        EXPECT_TRUE(e.numVars() == 1 && evalWith(e, {4}) == 0.0);
    }
    testing::internal::CaptureStderr();
    EXPECT_EQ(0, e.initFromString("q = 1; +; 1"));  // a literal: the caller's text is never written
    testing::internal::GetCapturedStderr();
    EXPECT_TRUE(e.numVars() == 1 && e.numInternalVars() == 0);  // the appended name is dropped
    EXPECT_STREQ("syntax error, unexpected '+' near >+<", e.lastError());
    EXPECT_EQ(0.0, evalWith(e, {4}));
    EXPECT_EQ(1, e.initFromString("a = 2; a * 5 + x"));  // a literal: not written on success
    EXPECT_EQ(14, evalWith(e, {4}));
    e.setDefaultExpression();
    EXPECT_TRUE(e.numVars() == 1 && evalWith(e, {4}) == 0.0);  // internal names go, declared stay
    e.addVarAlias("x", "t");
    e.clear();
    EXPECT_TRUE(e.numVars() == 0 && e.varIndex("t") == -1);
}

TEST(ExpressionDerivative, NamesAliasesAndLifetime)
{
    auto e = std::make_unique<OxelExpression>();
    e->addVar("x");
    e->addVar("y");
    e->addVarAlias("y", "v");
    ASSERT_EQ(1, e->initFromString("(k = 2) * x * y"));
    std::unique_ptr<OxelExpression> byY(e->derivative("y")), byAlias(e->derivative("v")),
        byOther(e->derivative("q"));
    ASSERT_TRUE(byY && byAlias && byOther);
    ASSERT_EQ(3, byY->numVars());  // every name, position by position
    EXPECT_STREQ("k", byY->varName(2));
    EXPECT_TRUE(byY->numInternalVars() == 0 && byY->varIndex("v") == 1);
    e.reset();  // derivatives are independent of their source
    EXPECT_EQ(2 * 3, evalWith(*byY, {3, 5, 2}));
    EXPECT_EQ(2 * 3, evalWith(*byAlias, {3, 5, 2}));
    EXPECT_EQ(0, evalWith(*byOther, {3, 5, 2}));

    OxelExpression m;
    m.addVar("x");
    ASSERT_EQ(1, m.initFromString("x % 2"));
    EXPECT_TRUE(!m.derivative("x") && !m.derivative("nothing"));  // refused whatever the variable
    ASSERT_EQ(1, m.initFromString("k = 2; k * x"));  // statement sequences have none either
    EXPECT_EQ(nullptr, m.derivative("x"));
}

TEST(ExpressionSimplify, SameValuesAndFixedPoint)
{
    OxelExpression e;
    e.addVar("x");
    e.addVar("y");
    ASSERT_EQ(1, e.initFromString("(x * 1 + 0) * (y + 2 * 3) - 0"));
    std::unique_ptr<OxelExpression> once(e.simplified()), full(e.simplifiedFully());
    ASSERT_TRUE(once && full);
    for (double x : {-1.5, 0.0, 2.0})
        EXPECT_TRUE(evalWith(*once, {x, 4}) == x * 10 && evalWith(*full, {x, 4}) == x * 10) << x;
    Oxel* again = full->root()->simplify();  // fully simplified: one more pass changes nothing
    EXPECT_EQ(oxelToString(full->root()), oxelToString(again));
    oxelDestroy(again);
}

TEST(ExpressionBatch, ArgumentsAndNewText)
{
    OxelExpression e;
    e.addVar("a");
    e.addVar("b");
    ASSERT_EQ(1, e.initFromString("a * b"));
    const double rows[] = {1, 2, 3, 4};
    double results[2];
    int errors[2];
    EXPECT_EQ(-1, e.evalBatch(rows, 2, 1, results, errors));  // stride below numVars
    EXPECT_TRUE(e.evalBatch(nullptr, 2, 2, results, errors) == -1 &&
                e.evalBatch(rows, 2, 2, nullptr, errors) == -1 &&
                e.evalBatch(rows, 2, 2, results, nullptr) == -1);  // missing arrays
    EXPECT_EQ(0, e.evalBatch(rows, 0, 2, results, errors));
    ASSERT_EQ(0, e.evalBatch(rows, 2, 2, results, errors));
    EXPECT_EQ(12, results[1]);
    ASSERT_EQ(1, e.initFromString("a - b"));  // a new text replaces the compiled program
    ASSERT_EQ(0, e.evalBatch(rows, 2, 2, results, errors));
    EXPECT_EQ(-1, results[1]);
    e.setRoot(new OxDurch(new OxVar(1, "b"), new OxVar(0, "a")));  // and so does a new tree
    ASSERT_EQ(0, e.evalBatch(rows, 2, 2, results, errors));
    EXPECT_EQ(4.0 / 3.0, results[1]);
    const double* cols[] = {rows, rows + 2};
    EXPECT_EQ(-1, e.evalBatchColumns(nullptr, 2, results, errors));
    ASSERT_EQ(0, e.evalBatchColumns(cols, 2, results, errors));
    EXPECT_EQ(4.0 / 2.0, results[1]);
    // Zeroed error codes promised: only failing rows are written (the 7 shows "not written").
    const double zero[] = {0, 2};
    const double* cols2[] = {zero, rows};
    int marked[2] = {0, 7};
    ASSERT_EQ(0, e.evalBatchColumns(cols2, 2, results, marked, true));
    EXPECT_EQ(OX_ERR_DIVISION_BY_ZERO, marked[0]);  // b / a with a = 0: the row that fails
    EXPECT_EQ(7, marked[1]);
}

// eval() never reads past a short vector: it reports "Illegal argument" and gives 0.
TEST(ExpressionEval, ShortVectorAndReplacedTree)
{
    OxelExpression e;
    e.addVar("x");
    ASSERT_EQ(1, e.initFromString("t = x * 2; t + 1"));
    KxDArray<double> v;
    int err = 0;
    EXPECT_EQ(0.0, e.eval(v, err));
    EXPECT_EQ(OX_ERR_ILLEGAL_ARGUMENT, err);
    err = 8;  // an earlier code stays
    v.setLength(1);
    e.eval(v, err);
    EXPECT_EQ(8, err);
    v.setLength(2);
    v[0] = 3;
    err = 0;
    EXPECT_EQ(7.0, e.eval(v, err));
    EXPECT_EQ(6.0, v[1]);  // the assignment leaves its value in its slot
    // The pointer form: the same checks on the count, the same write-back.
    double raw[2] = {5, 0};
    const OxelExpression& ce = e;
    for (int count : {1, -1}) {
        err = 0;
        EXPECT_EQ(0.0, ce.eval(raw, count, err));
        EXPECT_EQ(OX_ERR_ILLEGAL_ARGUMENT, err);
    }
    err = 0;
    EXPECT_EQ(0.0, ce.eval(nullptr, 2, err));
    EXPECT_EQ(OX_ERR_ILLEGAL_ARGUMENT, err);
    err = 0;
    EXPECT_EQ(11.0, ce.eval(raw, 2, err));
    EXPECT_EQ(0, err);
    EXPECT_EQ(10.0, raw[1]);
    e.setRoot(nullptr);    // the default expression
    EXPECT_EQ(0.0, e.eval(v, err));
    e.setRoot(new OxLn(new OxVar(0, "x")));
    v[0] = -1;
    EXPECT_EQ(0.0, e.eval(v, err));
    EXPECT_EQ(OX_ERR_ILLEGAL_LOG, err);
}
