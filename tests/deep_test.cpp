// Tests of huge and deeply nested formulas, long statements and names, and kept fuzz findings.
#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <oxel/oxel.h>

namespace {

std::string repeat(const std::string& s, long n)
{
    std::string out;
    out.reserve(s.size() * static_cast<size_t>(n));
    for (long i = 0; i < n; ++i)
        out += s;
    return out;
}

// Parses a private writable copy (the parser writes into its text).
int parse(OxelExpression& e, const std::string& text)
{
    std::vector<char> buf(text.begin(), text.end());
    buf.push_back('\0');
    return e.initFromString(buf.data());
}

double evalWith(OxelExpression& e, double x, int& err)
{
    KxDArray<double> v;
    v.setLength(e.numVars() > 0 ? e.numVars() : 1);
    v[0] = x;
    err = 0;
    return e.eval(v, err);
}

bool contains(const std::string& hay, const char* needle)
{
    return hay.find(needle) != std::string::npos;
}

// Uses every operation a host has on a parsed tree; deep trees must survive them all.
// Returns the printed text for further checks.
// With assignments, copies lose their bound expressions (they only read the slots), so
// node counts and values of copies are checked only for trees without them.
std::string useFully(OxelExpression& e, double x, double expected, bool assigns = false)
{
    int err = 0;
    EXPECT_EQ(evalWith(e, x, err), expected);
    EXPECT_EQ(err, 0);

    Oxel* root = e.root();
    std::string text = oxelToString(root);
    EXPECT_FALSE(text.empty());
    long nodes = oxelNodeCount(root);
    long depth = oxelDepth(root);
    EXPECT_LE(depth, OXEL_MAX_DEPTH);
    EXPECT_GE(nodes, depth);
    // count() brackets two characters fewer per equal-priority child; never more than print.
    EXPECT_LE(root->count(), static_cast<int>(text.size()));

    Oxel* copy = root->dup();
    if (!assigns) {
        EXPECT_EQ(oxelNodeCount(copy), nodes);
    }
    EXPECT_EQ(oxelToString(copy), text);
    (void)(*copy == *root);  // must terminate; equality of copies depends on the node classes
    oxelDestroy(copy);

    Oxel* simple = root->simplify();
    EXPECT_NE(simple, nullptr);
    if (simple) {
        std::vector<double> v(static_cast<size_t>(e.numVars() > 0 ? e.numVars() : 1), 0.0);
        v[0] = x;
        int serr = 0;
        double sv = simple->value(v.data(), serr);
        if (!assigns) {
            EXPECT_NEAR(sv, expected, 1e-9 * (1 + std::fabs(expected)));
        }
        (void)oxelToString(simple);
        oxelDestroy(simple);
    }
    return text;
}

const char* const kTooDeep = "nested too deeply";
const char* const kStackFull = "memory exhausted";

}  // namespace

// The deepest tree the parser accepts is usable in every way, its derivative included.
TEST(DeepTrees, SumChainAtTheDepthLimit)
{
    // n terms of a left-associative sum nest n deep, counting the leaf.
    const long n = OXEL_MAX_DEPTH;
    OxelExpression e;
    e.addVar("x");
    ASSERT_EQ(parse(e, "x" + repeat("+x", n - 1)), 1) << e.lastError();
    EXPECT_EQ(oxelDepth(e.root()), n);
    useFully(e, 0.5, 0.5 * n);

    OxelExpression* d = e.derivative("x");
    ASSERT_NE(d, nullptr);
    useFully(*d, 0.5, static_cast<double>(n));  // 1+1+...+1
    delete d;
}

// One level more is refused with a message, not a crash or a silently truncated tree.
TEST(DeepTrees, SumChainBeyondTheDepthLimitIsRefused)
{
    OxelExpression e;
    e.addVar("x");
    EXPECT_EQ(parse(e, "x" + repeat("+x", OXEL_MAX_DEPTH)), 0);
    EXPECT_TRUE(contains(e.lastError(), kTooDeep)) << e.lastError();
    EXPECT_EQ(e.numInternalVars(), 0);
    int err = 0;
    EXPECT_EQ(evalWith(e, 3.0, err), 0.0);  // the default expression
}

// A product inside every term makes the derivative deeper than the parsed tree.
TEST(DeepTrees, DerivativeDeeperThanItsTree)
{
    const long terms = OXEL_MAX_DEPTH - 2;
    OxelExpression e;
    e.addVar("x");
    ASSERT_EQ(parse(e, "x*x" + repeat("+x*x", terms - 1)), 1) << e.lastError();
    useFully(e, 0.5, 0.25 * terms);

    OxelExpression* d = e.derivative("x");
    ASSERT_NE(d, nullptr);
    EXPECT_GT(oxelDepth(d->root()), oxelDepth(e.root()));
    int err = 0;
    EXPECT_EQ(evalWith(*d, 0.5, err), static_cast<double>(terms));  // 2x per term
    EXPECT_FALSE(oxelToString(d->root()).empty());
    Oxel* ds = d->root()->simplify();
    ASSERT_NE(ds, nullptr);
    std::vector<double> v{0.5};
    EXPECT_EQ(ds->value(v.data(), err), static_cast<double>(terms));
    oxelDestroy(ds);
    delete d;
}

// Two megabytes of "1+1+...": a million terms nest a million deep and must be refused.
TEST(DeepTrees, MillionTermSumIsRefused)
{
    OxelExpression e;
    EXPECT_EQ(parse(e, "1" + repeat("+1", 999999)), 0);
    EXPECT_TRUE(contains(e.lastError(), kTooDeep)) << e.lastError();
}

// A million statements chain a million sequence nodes: refused like any too deep tree.
TEST(DeepTrees, MillionStatementsAreRefused)
{
    OxelExpression e;
    EXPECT_EQ(parse(e, "1" + repeat(";1", 999999)), 0);
    EXPECT_TRUE(contains(e.lastError(), kTooDeep)) << e.lastError();
}

// Just below the limit a long statement sequence is usable in every way.
TEST(DeepTrees, StatementSequenceAtTheDepthLimit)
{
    OxelExpression e;
    e.addVar("x");
    ASSERT_EQ(parse(e, "x" + repeat(";x", OXEL_MAX_DEPTH - 1)), 1) << e.lastError();
    useFully(e, 0.75, 0.75);
}

// Thousands of statements within the limit run in order, each seeing the previous one's
// assignment.
TEST(DeepTrees, ThousandsOfAssignmentStatements)
{
    const int n = 4000;
    OxelExpression e;
    e.addVar("x");
    ASSERT_EQ(parse(e, repeat("x = x + 1; ", n) + "x"), 1) << e.lastError();
    useFully(e, 0.0, static_cast<double>(n), true);
    EXPECT_EQ(e.derivative("x"), nullptr);  // a statement sequence has no derivative
}

// Parentheses add no node but use parser stack. Within one 8192-character chunk at most 4095
// pairs fit; a longer text re-reads its opening run, which then overflows the stack.
TEST(DeepTrees, NestedParentheses)
{
    OxelExpression e;
    e.addVar("x");
    ASSERT_EQ(parse(e, repeat("(", 4095) + "x" + repeat(")", 4095)), 1) << e.lastError();
    useFully(e, 2.5, 2.5);

    EXPECT_EQ(parse(e, repeat("(", 10000) + "x" + repeat(")", 10000)), 0);
    EXPECT_TRUE(contains(e.lastError(), kStackFull)) << e.lastError();
}

// sin(sin(...)) of 1600 levels fits in one chunk and parses; 6000 levels overflow the stack.
TEST(DeepTrees, UnaryFunctionChains)
{
    const int n = 1600;
    OxelExpression e;
    e.addVar("x");
    ASSERT_EQ(parse(e, repeat("sin(", n) + "x" + repeat(")", n)), 1) << e.lastError();
    EXPECT_EQ(oxelDepth(e.root()), n + 1);
    double expected = 0.9;
    for (int i = 0; i < n; ++i)
        expected = std::sin(expected);
    useFully(e, 0.9, expected);

    EXPECT_EQ(parse(e, repeat("sin(", 6000) + "x" + repeat(")", 6000)), 0);
    EXPECT_TRUE(contains(e.lastError(), kStackFull)) << e.lastError();
}

// The chain rule over 1000 nested sines (a derivative of about half a million nodes).
TEST(DeepTrees, DerivativeOfAUnaryChain)
{
    const int n = 1000;
    OxelExpression e;
    e.addVar("x");
    ASSERT_EQ(parse(e, repeat("sin(", n) + "x" + repeat(")", n)), 1) << e.lastError();
    OxelExpression* d = e.derivative("x");
    ASSERT_NE(d, nullptr);
    double s = 0.9, slope = 1.0;  // d/dx sin(f) = cos(f) f'
    for (int i = 0; i < n; ++i) {
        slope *= std::cos(s);
        s = std::sin(s);
    }
    int err = 0;
    EXPECT_NEAR(evalWith(*d, 0.9, err), slope, 1e-10 * std::fabs(slope));
    EXPECT_FALSE(oxelToString(d->root()).empty());
    delete d;
}

// Prefix minus nests one product per sign; the derivative keeps the same shape.
TEST(DeepTrees, NegationChain)
{
    const int n = 4000;  // even: the signs cancel
    OxelExpression e;
    e.addVar("x");
    ASSERT_EQ(parse(e, repeat("- ", n) + "x"), 1) << e.lastError();
    useFully(e, 1.75, 1.75);
    OxelExpression* d = e.derivative("x");
    ASSERT_NE(d, nullptr);
    useFully(*d, 1.75, 1.0);
    delete d;
}

// A statement longer than the lexer's 8192-character chunk is read as its first chunk again
// and again, never advancing; the tokens are those of that stream, cut at chunk borders.
TEST(LongStatements, RereadFromTheStartPastEachChunk)
{
    const std::string text = "7" + repeat("+1", 4999);  // 9999 characters
    ASSERT_GT(text.size(), 8192u);
    std::string stream;
    for (size_t pos = 0; pos < text.size();) {
        size_t k = std::min<size_t>(8192, text.size() - pos);
        stream += text.substr(0, k);
        pos += k;
    }
    double expected = 0;  // the stream is "7+1+...+1+7+1+...+1": sum its terms
    std::stringstream terms(stream);
    for (std::string term; std::getline(terms, term, '+');)
        expected += std::atof(term.c_str());
    ASSERT_NE(expected, 7.0 + 4999);  // the test would prove nothing otherwise

    OxelExpression e;
    ASSERT_EQ(parse(e, text), 1) << e.lastError();
    int err = 0;
    EXPECT_EQ(evalWith(e, 0, err), expected);
}

// A periodic text whose period divides the chunk reads the same tokens as its own.
TEST(LongStatements, PeriodicTextKeepsItsValue)
{
    OxelExpression e;
    e.addVar("x");
    ASSERT_EQ(parse(e, "x" + repeat("+x", 8999)), 1) << e.lastError();
    int err = 0;
    EXPECT_EQ(evalWith(e, 0.25, err), 0.25 * 9000);
}

// Names beyond the lexer's 1000-character name ring: parsed whole or refused, never an overrun.
TEST(LongNames, AssignmentToAVeryLongName)
{
    const std::string name = repeat("a", 1500);
    OxelExpression e;
    e.addVar("x");
    int ok = parse(e, name + " = 2 * x; " + name + " + 1");
    if (ok) {
        ASSERT_EQ(e.numVars(), 2);
        EXPECT_EQ(std::string(e.varName(1)), name);
        int err = 0;
        EXPECT_EQ(evalWith(e, 3.0, err), 7.0);
    } else {
        EXPECT_STRNE(e.lastError(), "");
    }
}

// A declared variable with a long name is found by the lexer and prints back whole.
TEST(LongNames, DeclaredLongName)
{
    const std::string name = repeat("v", 5000);
    OxelExpression e;
    ASSERT_EQ(e.addVar(name.c_str()), 0);
    ASSERT_EQ(parse(e, name + " * 2 + " + name), 1) << e.lastError();
    int err = 0;
    EXPECT_EQ(evalWith(e, 1.5, err), 4.5);
    EXPECT_TRUE(contains(oxelToString(e.root()), name.c_str()));
}

// Numbers of huge magnitude print all their digits and read back to the same value.
TEST(HugeNumbers, PrintAndReadBack)
{
    for (const char* text : {"1e308 + x", "x - 1.7976931348623157e308", "x * 123456789e290"}) {
        OxelExpression e;
        e.addVar("x");
        ASSERT_EQ(parse(e, text), 1) << text;
        int err = 0;
        double v = evalWith(e, 2.0, err);
        std::string printed = oxelToString(e.root());
        EXPECT_GT(printed.size(), 295u) << text;  // every integral digit
        OxelExpression back;
        back.addVar("x");
        ASSERT_EQ(parse(back, printed), 1) << printed;
        EXPECT_EQ(evalWith(back, 2.0, err), v) << text;
    }
    OxelExpression inf;
    ASSERT_EQ(parse(inf, "1e400"), 1);
    int err = 0;
    EXPECT_TRUE(std::isinf(evalWith(inf, 0, err)));
    EXPECT_FALSE(oxelToString(inf.root()).empty());
}

namespace {

// Directory of kept fuzz findings, found beside this source file.
std::string regressionDir(const char* target)
{
    std::string here = __FILE__;
    size_t slash = here.find_last_of('/');
    std::string root = slash == std::string::npos ? "." : here.substr(0, slash) + "/..";
    return root + "/fuzz/regressions/" + target;
}

std::vector<std::string> readAll(const std::string& dir)
{
    std::vector<std::string> out;
    if (DIR* d = opendir(dir.c_str())) {
        while (dirent* ent = readdir(d)) {
            if (ent->d_name[0] == '.')
                continue;
            std::ifstream in(dir + "/" + ent->d_name, std::ios::binary);
            std::stringstream ss;
            ss << in.rdbuf();
            out.push_back(ss.str());
        }
        closedir(d);
    }
    return out;
}

}  // namespace

// Inputs that once crashed a fuzz target: each parses and is used fully, or fails cleanly.
TEST(FuzzRegressions, ReplayKeptTexts)
{
    std::vector<std::string> inputs = readAll(regressionDir("expression_fuzz"));
    for (const std::string& s : readAll(regressionDir("converter_fuzz")))
        inputs.push_back(s);
    if (inputs.empty())
        GTEST_SKIP() << "no kept inputs";
    for (const std::string& raw : inputs) {
        std::string text(raw.c_str());  // the targets read up to the first NUL
        OxelExpression e;
        e.addVar("x");
        e.addVar("y");
        e.addVar("z");
        e.addVarAlias("x", "speed");
        if (!parse(e, text)) {
            EXPECT_STRNE(e.lastError(), "") << text.substr(0, 200);
            continue;
        }
        KxDArray<double> v;
        v.setLength(e.numVars());
        int err = 0;
        (void)e.eval(v, err);
        EXPECT_EQ(oxelToString(e.root()).size(), std::strlen(oxelToString(e.root()).c_str()));
        Oxel* s = e.root()->simplify();
        oxelDestroy(s);
        for (const char* var : {"x", "y", "z", "speed"})
            delete e.derivative(var);
    }
}
