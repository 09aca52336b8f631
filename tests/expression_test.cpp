// Tests of OxelExpression: registry, aliases, parsing lifecycle, derivatives, copies, batches.
#include <gtest/gtest.h>

#include <clocale>
#include <cmath>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <oxel/oxel.h>

namespace {

// Parses quietly; the parser prints its reason to stderr.
int quietInit(OxelExpression& e, const char* text)
{
    testing::internal::CaptureStderr();
    int ok = e.initFromString(text);
    testing::internal::GetCapturedStderr();
    return ok;
}

double evalWith(OxelExpression& e, std::vector<double> values, int* errOut = nullptr)
{
    KxDArray<double> v;
    for (double d : values)
        v.append(d);
    v.setLength(e.numVars() > v.length() ? e.numVars() : v.length());
    int err = 0;
    double r = e.eval(v, err);
    if (errOut)
        *errOut = err;
    return r;
}

}  // namespace

TEST(ExpressionRegistry, NamesAndAliases)
{
    OxelExpression e;
    EXPECT_EQ(0, e.addVar("x"));
    EXPECT_EQ(0, e.addVar("x"));  // no duplicate
    EXPECT_EQ(1, e.numVars());
    EXPECT_EQ(-1, e.addVar(""));
    EXPECT_EQ(-1, e.addVar(nullptr));
    e.addVarAlias("x", "t");
    EXPECT_EQ(0, e.varIndex("t"));
    EXPECT_EQ(0, e.addVar("t"));  // declared through its alias
    EXPECT_EQ(1, e.numVars());
    e.addVarAlias("u", "w");      // alias of an undeclared variable
    EXPECT_EQ(-1, e.varIndex("w"));
    EXPECT_EQ(-1, e.varIndex("u"));
    EXPECT_EQ(1, e.addVar("b"));
    e.addVarAlias("b", "x");      // an alias wins over a declared name
    EXPECT_EQ(1, e.varIndex("x"));
    EXPECT_EQ(nullptr, e.varName(static_cast<unsigned>(e.numVars())));
    EXPECT_STREQ("b", e.varName(1));
}

TEST(ExpressionRegistry, InternalVariables)
{
    OxelExpression e;
    e.addVar("x");
    ASSERT_EQ(1, e.initFromString("k = x * 2; k + 1"));
    EXPECT_EQ(2, e.numVars());
    EXPECT_EQ(1, e.numInternalVars());
    EXPECT_STREQ("k", e.varName(1));
    EXPECT_EQ(-1, e.varIndex("k"));  // internal names are not looked up
    EXPECT_EQ(7, evalWith(e, {3}));
    // A declared variable goes in front of the internal ones.
    EXPECT_EQ(1, e.addVar("y"));
    EXPECT_STREQ("k", e.varName(2));
    ASSERT_EQ(1, e.initFromString("x + y"));
    EXPECT_EQ(2, e.numVars());
    EXPECT_EQ(0, e.numInternalVars());
}

TEST(ExpressionRegistry, IsVarNeeded)
{
    OxelExpression e;
    e.addVar("x");
    e.addVar("y");
    e.addVar("z");
    EXPECT_EQ(0, e.isVarNeeded("x"));  // default expression
    ASSERT_EQ(1, e.initFromString("x * y"));
    struct Row {
        const char* name;
        int needed;
    } rows[] = {{"x", 1}, {"y", 1}, {"z", 0}, {"", 0}, {nullptr, 0}};
    for (const Row& row : rows)
        EXPECT_EQ(row.needed, e.isVarNeeded(row.name)) << (row.name ? row.name : "null");
}

TEST(ExpressionLifecycle, DefaultsAndFailures)
{
    OxelExpression e;
    EXPECT_EQ(0, e.numVars());
    KxDArray<double> none;
    int err = 7;
    EXPECT_EQ(0.0, e.eval(none, err));
    EXPECT_EQ(7, err);  // eval never resets the code

    e.addVar("x");
    EXPECT_EQ(0, e.initFromString(""));
    EXPECT_EQ(0, e.initFromString(nullptr));
    EXPECT_EQ(1, e.numVars());
    EXPECT_EQ(0.0, evalWith(e, {4}));

    // The failure drops the name the first statement had appended.
    EXPECT_EQ(0, quietInit(e, "q = 1; +"));
    EXPECT_EQ(0, e.numInternalVars());
    EXPECT_EQ(1, e.numVars());
    EXPECT_STREQ("syntax error, unexpected '+' near >+<", e.lastError());
    EXPECT_EQ(0.0, evalWith(e, {4}));

    EXPECT_EQ(1, e.initFromString("x + 1"));
    EXPECT_STREQ("", e.lastError());
    EXPECT_EQ(5, evalWith(e, {4}));

    e.setDefaultExpression();
    EXPECT_EQ(0.0, evalWith(e, {4}));
    EXPECT_EQ(1, e.numVars());
    e.addVarAlias("x", "t");
    e.clear();
    EXPECT_EQ(0, e.numVars());
    EXPECT_EQ(-1, e.varIndex("t"));
}

TEST(ExpressionLifecycle, TextIsCopiedBeforeParsing)
{
    OxelExpression e;
    // A literal is read-only memory: cutting it at ';' in place would crash.
    EXPECT_EQ(1, e.initFromString("a = 2; a * 5"));
    EXPECT_EQ(10, evalWith(e, {}));
    char text[] = "+;1";
    EXPECT_EQ(0, quietInit(e, text));
    EXPECT_STREQ("+;1", text);
}

TEST(ExpressionLifecycle, CopyVarNames)
{
    OxelExpression src;
    src.addVar("x");
    src.addVar("y");
    src.addVarAlias("y", "speed");
    ASSERT_EQ(1, src.initFromString("k = x; k + y"));
    ASSERT_EQ(1, src.numInternalVars());

    OxelExpression dst;
    dst.addVar("old");
    ASSERT_EQ(1, dst.initFromString("old * 3"));
    dst.copyVarNames(src);
    ASSERT_EQ(2, dst.numVars());
    EXPECT_STREQ("x", dst.varName(0));
    EXPECT_STREQ("y", dst.varName(1));
    EXPECT_EQ(1, dst.varIndex("speed"));
    EXPECT_EQ(0, dst.numInternalVars());
    EXPECT_EQ(0.0, evalWith(dst, {1, 2}));

    dst.copyVarNames(dst);  // itself: nothing changes
    EXPECT_EQ(2, dst.numVars());
    EXPECT_EQ(1, dst.varIndex("speed"));
}

TEST(ExpressionDerivative, NamesAliasesAndLifetime)
{
    auto e = std::make_unique<OxelExpression>();
    e->addVar("x");
    e->addVar("y");
    e->addVarAlias("y", "v");
    ASSERT_EQ(1, e->initFromString("x * y"));

    std::unique_ptr<OxelExpression> byY(e->derivative("y"));
    std::unique_ptr<OxelExpression> byAlias(e->derivative("v"));
    std::unique_ptr<OxelExpression> byOther(e->derivative("q"));
    ASSERT_TRUE(byY && byAlias && byOther);
    ASSERT_EQ(2, byY->numVars());
    EXPECT_STREQ("x", byY->varName(0));
    EXPECT_STREQ("y", byY->varName(1));
    EXPECT_EQ(1, byY->varIndex("v"));
    e.reset();  // derivatives are independent of their source
    EXPECT_EQ(3, evalWith(*byY, {3, 5}));
    EXPECT_EQ(3, evalWith(*byAlias, {3, 5}));
    EXPECT_EQ(0, evalWith(*byOther, {3, 5}));
}

TEST(ExpressionDerivative, InternalCountNotCarried)
{
    OxelExpression e;
    e.addVar("x");
    ASSERT_EQ(1, e.initFromString("(k = 2) * x"));
    std::unique_ptr<OxelExpression> d(e.derivative("x"));
    ASSERT_NE(nullptr, d);
    EXPECT_EQ(2, d->numVars());
    EXPECT_EQ(0, d->numInternalVars());
}

TEST(ExpressionDerivative, ModuloHasNone)
{
    OxelExpression e;
    e.addVar("x");
    ASSERT_EQ(1, e.initFromString("x % 2"));
    EXPECT_EQ(nullptr, e.derivative("x"));
    EXPECT_EQ(nullptr, e.derivative("nothing"));
    ASSERT_EQ(1, e.initFromString("k = 2; k * x"));  // statement sequences have none either
    EXPECT_EQ(nullptr, e.derivative("x"));
}

TEST(ExpressionSimplify, SameValuesAndFixedPoint)
{
    OxelExpression e;
    e.addVar("x");
    e.addVar("y");
    ASSERT_EQ(1, e.initFromString("(x * 1 + 0) * (y + 2 * 3) - 0"));
    std::unique_ptr<OxelExpression> once(e.simplified());
    std::unique_ptr<OxelExpression> full(e.simplifiedFully());
    ASSERT_TRUE(once && full);
    EXPECT_EQ(2, full->numVars());
    for (double x : {-1.5, 0.0, 2.0})
        EXPECT_DOUBLE_EQ(x * (4 + 6), evalWith(*full, {x, 4}));
    EXPECT_DOUBLE_EQ(2.0 * 10, evalWith(*once, {2, 4}));
    // Fully simplified means one more pass changes nothing.
    Oxel* again = full->root()->simplify();
    EXPECT_EQ(oxelToString(full->root()), oxelToString(again));
    oxelDestroy(again);
}

TEST(ExpressionBatch, MatchesEvalRowByRow)
{
    OxelExpression e;
    e.addVar("a");
    e.addVar("b");
    ASSERT_EQ(1, e.initFromString("a * b + ln(a)"));
    const double rows[] = {1, 2, 0, 0.5, 3, -1, -2, 4};  // 4 rows, stride 2
    double results[4];
    int errors[4];
    EXPECT_EQ(-1, e.evalBatch(rows, 4, 1, results, errors));  // stride below numVars
    EXPECT_EQ(-1, e.evalBatch(nullptr, 4, 2, results, errors));
    EXPECT_EQ(0, e.evalBatch(rows, 0, 2, results, errors));
    ASSERT_EQ(0, e.evalBatch(rows, 4, 2, results, errors));
    for (int r = 0; r < 4; ++r) {
        int err = 0;
        double v = evalWith(e, {rows[2 * r], rows[2 * r + 1]}, &err);
        EXPECT_EQ(err, errors[r]) << "row " << r;
        if (std::isnan(v))
            EXPECT_TRUE(std::isnan(results[r])) << "row " << r;
        else
            EXPECT_EQ(v, results[r]) << "row " << r;
    }
    // A new text replaces the compiled program.
    ASSERT_EQ(1, e.initFromString("a - b"));
    ASSERT_EQ(0, e.evalBatch(rows, 1, 2, results, errors));
    EXPECT_EQ(-1, results[0]);
}

TEST(ExpressionThreads, ParallelInitAndEval)
{
    std::vector<int> good(4, 0);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([t, &good] {
            OxelExpression e;
            e.addVar("x");
            for (int i = 0; i < 100; ++i) {
                std::string text = "k = x + " + std::to_string(i) + "; k * " + std::to_string(t);
                if (e.initFromString(text.c_str()) == 1 && evalWith(e, {1}) == (1 + i) * t)
                    ++good[static_cast<size_t>(t)];
            }
        });
    for (auto& th : threads)
        th.join();
    for (int t = 0; t < 4; ++t)
        EXPECT_EQ(100, good[static_cast<size_t>(t)]) << "thread " << t;
}
