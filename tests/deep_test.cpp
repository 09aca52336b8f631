// Tests of huge and deeply nested formulas, long statements and names, and kept fuzz findings.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <oxel/oxel.h>

#include "node_probe.h"

namespace {

const long kMax = OXEL_MAX_DEPTH;
// Terms of a generated sum (no nesting at all): a million, a tenth of that under the
// sanitizers (build.sh sets OXEL_TEST_SANITIZED), still far past what a recursion would survive.
const long kFlat = std::getenv("OXEL_TEST_SANITIZED") ? 100000 : 1000000;
const double kNone = std::nan("");  // no derivative exists
const std::string kTooDeep =
    "expression nested too deeply (more than " + std::to_string(kMax) + " levels)";

// Parses text, declaring x if nothing is declared.
int parse(OxelExpression& e, const std::string& text)
{
    return parseXyz(e, text, e.numVars() == 0 ? 1 : 0);
}

// n nested sines at x, or the chain rule's slope there: d/dx sin(f) = cos(f) f'.
double sines(int n, double x, bool slope)
{
    double d = 1.0;
    for (int i = 0; i < n; ++i) {
        d *= std::cos(x);
        x = std::sin(x);
    }
    return slope ? d : x;
}

bool near(double a, double b) { return std::fabs(a - b) <= 1e-9 * (1 + std::fabs(b)); }

// Uses every operation that the library starts on a whole tree: eval (point and batch), print,
// formula text, simplify, destroy; the node interface's own recursions (dup, ==, count), which a
// host calls on its own stack, only where that stack surely holds them. Copies of assignments
// only read the slots, so their simplified values and node counts go unchecked.
void useFully(OxelExpression& e, double x, double expected, bool assigns)
{
    int err = 0;
    EXPECT_TRUE(near(evalAt(e, {x}, err), expected)) << evalAt(e, {x}, err);
    EXPECT_EQ(err, 0);
    std::vector<double> rows(2 * static_cast<size_t>(e.numVars()), 0.0), results(2);
    rows[0] = x;
    rows[static_cast<size_t>(e.numVars())] = x;
    std::vector<int> errors(2);
    ASSERT_EQ(e.evalBatch(rows.data(), 2, e.numVars(), results.data(), errors.data()), 0);
    EXPECT_TRUE(assigns || (near(results[1], expected) && errors[1] == 0)) << results[1];
    Oxel* root = e.root();
    const std::string text = oxelToString(root);
    const long nodes = oxelNodeCount(root);
    EXPECT_GE(nodes, oxelDepth(root));
    const KxString formula = e.toFormula();
    EXPECT_GT(formula.length(), 0);
    if (oxelDepth(root) <= 1000) {
        EXPECT_LE(root->count(), static_cast<int>(text.size()));  // never more than print
        Oxel* copy = root->dup();
        EXPECT_EQ(oxelToString(copy), text);
        EXPECT_TRUE(assigns || oxelNodeCount(copy) == nodes);
        (void)(*copy == *root);  // must terminate; equality of copies depends on the classes
        oxelDestroy(copy);
    }
    OxelExpression* simple = e.simplified();
    ASSERT_NE(simple, nullptr);
    double sv = evalAt(*simple, {x}, err);
    EXPECT_TRUE(assigns || near(sv, expected)) << sv;
    EXPECT_FALSE(oxelToString(simple->root()).empty());
    delete simple;
}

// A right-leaning sum x + (x + (... + x)) of n terms, built by hand: text cannot nest it that far.
Oxel* rightSum(long n)
{
    Oxel* tree = new OxVar(0, "x");
    for (long i = 1; i < n; ++i)
        tree = new OxPlus(new OxVar(0, "x"), tree);
    return tree;
}

}  // namespace

namespace {

// Outcomes of one operation on a parsed tree: a text, or a value at x = 0.25, y = 0.5;
// "refused" where the operation gives nothing.
std::string valueAt(OxelExpression* e)
{
    if (!e)
        return "refused";
    int err = 0;
    char buf[40];
    std::snprintf(buf, sizeof buf, "%.9g", evalAt(*e, {0.25, 0.5}, err));
    delete e;
    return err ? "error" : buf;
}

std::string orRefused(const KxString& text)
{
    return text.length() ? std::string(text.c_str()) : "refused";
}

struct Operation {
    const char* name;
    std::string (*run)(OxelExpression& e, const std::string& text);
};

const Operation kOperations[] = {
    {"print", [](OxelExpression& e, const std::string&) { return oxelToString(e.root()); }},
    {"formula", [](OxelExpression& e, const std::string&) { return orRefused(e.toFormula()); }},
    {"C", [](OxelExpression& e, const std::string&) { return orRefused(e.toC()); }},
    {"C function", [](OxelExpression& e, const std::string&) {  // its return statement
         std::string f = orRefused(e.toCFunction("f"));
         const std::string head = "double f(double x, double y)\n{\n    return ", tail = ";\n}\n";
         const bool framed = f.size() > head.size() + tail.size() && f.find(head) == 0 &&
                             f.compare(f.size() - tail.size(), tail.size(), tail) == 0;
         return framed ? f.substr(head.size(), f.size() - head.size() - tail.size()) : f;
     }},
    {"LaTeX", [](OxelExpression& e, const std::string&) { return orRefused(e.toLatex()); }},
    {"simplified", [](OxelExpression& e, const std::string&) { return valueAt(e.simplified()); }},
    {"fully", [](OxelExpression& e, const std::string&) { return valueAt(e.simplifiedFully()); }},
    {"normalized", [](OxelExpression& e, const std::string&) { return valueAt(e.normalized()); }},
    {"derivative",
     [](OxelExpression& e, const std::string&) { return valueAt(e.derivative("x")); }},
    {"gradient", [](OxelExpression& e, const std::string&) {
         std::unique_ptr<OxelGradient> g = e.gradient({"x", "y"}, 1);
         if (!g)
             return std::string("refused");
         double values[] = {0.25, 0.5}, out[3];
         int codes[3];
         g->eval(values, out, codes);
         char buf[80];
         std::snprintf(buf, sizeof buf, "%.9g %.9g %.9g", out[0], out[1], out[2]);
         return std::string(codes[0] || codes[1] || codes[2] ? "error" : buf);
     }},
    {"names", [](OxelExpression&, const std::string& text) {
         KxDArray<KxString> names;
         oxelFormulaNames(text.c_str(), names);
         std::string out;
         for (int i = 0; i < names.length(); ++i)
             out += std::string(i ? "," : "") + names[i].c_str();
         return out;
     }},
};

std::string fixed(double v)
{
    char buf[40];
    std::snprintf(buf, sizeof buf, "%.9g", v);
    return buf;
}

}  // namespace

// Flat texts of any length and trees of any depth are usable in every way, and so are their
// derivatives where those stay within the derivative's size bound; parentheses add no node.
// The widest and the deepest formulas that parse go through every operation on a whole tree,
// which works or refuses: nothing recurses on the caller's stack. Expected texts follow from
// how the formulas are built, values from the sums and the chain rule they stand for.
TEST(DeepTrees, FlatAndNestedFullyUsable)
{
    struct Row {
        std::string text;  // empty: the hand-built right-leaning sum
        long depth;
        double x, value, slope;  // at (x, 0); kNone: refused (with expected texts: unused)
        std::vector<std::string> expected;  // at (0.25, 0.5), per operation in kOperations' order
    };
    const long t = kMax, pairs = kFlat / 2;
    const double m = kFlat, s1 = sines(1000, 0.9, false), d1 = sines(1000, 0.9, true);
    const double sk = sines(kMax, 0.9, false), sum = 0.75 * pairs, s = sines(kMax, 0.25, false);
    const std::string spaced = "x + y" + repeat(" + x + y", pairs - 1), sins = nest("sin(", "x", t);
    const Row rows[] = {
        // x+y+x+y...: a sum of 10^6 terms leaning left, a million levels deep
        {"x+y" + repeat("+x+y", pairs - 1), kFlat, 0.5, 0.25 * m, double(pairs),
         {repeat("(", 2 * pairs - 2) + "x+y" + repeat(")+x)+y", pairs - 1), spaced, spaced,
          spaced, spaced, fixed(sum), fixed(sum), fixed(sum), fixed(pairs),
          fixed(sum) + " " + fixed(pairs) + " " + fixed(pairs), "x,y"}},
        {"", kFlat, 0.5, 0.5 * m, m, {}},  // x + (x + ...) leaning right
        {"x*x" + repeat("+x*x", t - 1), t + 1, 0.5, 0.25 * t, double(t), {}},  // 2x per term
        {"x" + repeat(";x", kMax - 1), kMax, 0.75, 0.75, kNone, {}},  // statements chain as deep
        {repeat("x = x + 1; ", 4000) + "x", 4000 + 3, 0.0, 4000, kNone, {}},  // each sees the last
        {nest("(", "x", kMax), 1, 2.5, 2.5, 1.0, {}},  // parser stack only, no nodes
        {nest("sin(", "x", 1000), 1001, 0.9, s1, d1, {}},  // chain rule: half a million nodes
        // sin(sin(...(x))) as deep as the parser goes: the derivative is too large to build as a
        // tree, the gradient's shares its sub-trees: the chain rule's product of cosines
        {sins, kMax + 1, 0.9, sk, kNone,
         {sins, sins, sins, sins, repeat("\\sin\\left(", t) + "x" + repeat("\\right)", t),
          fixed(s), fixed(s), fixed(s), "refused",
          fixed(s) + " " + fixed(sines(t, 0.25, true)) + " 0", "x"}},
        {repeat("- ", kMax) + "x", kMax + 1, 1.75, 1.75, 1.0, {}},  // one product per sign
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(r.text.substr(0, 40));
        OxelExpression e;
        e.addVar("x");
        e.addVar("y");
        if (r.text.empty())
            e.setRoot(rightSum(r.depth));
        else
            ASSERT_EQ(parse(e, r.text), 1) << e.lastError();
        EXPECT_EQ(oxelDepth(e.root()), r.depth);
        EXPECT_EQ(e.isVarNeeded("x"), 1);
        useFully(e, r.x, r.value, r.text.find('=') != std::string::npos);
        if (!r.expected.empty()) {  // the derivative among the operations
            ASSERT_EQ(r.expected.size(), std::size(kOperations));
            for (size_t k = 0; k < r.expected.size(); ++k) {
                std::string got = kOperations[k].run(e, r.text);
                EXPECT_TRUE(got == r.expected[k]) << kOperations[k].name << ": "
                                                  << got.substr(0, 80) << " / "
                                                  << r.expected[k].substr(0, 80);
            }
            continue;
        }
        OxelExpression* d = e.derivative("x");
        EXPECT_EQ(d == nullptr, std::isnan(r.slope));
        if (d) {
            int err = 0;
            EXPECT_TRUE(near(evalAt(*d, {r.x}, err), r.slope)) << evalAt(*d, {r.x}, err);
            EXPECT_FALSE(oxelToString(d->root()).empty());
        }
        delete d;
    }
}

// Nesting beyond the parser's bound is refused with its message, not a crash or a truncated
// tree, and the expression keeps its default. A level of parentheses takes one parser stack
// entry and a call two, so the bound shows only far beyond the limit.
TEST(DeepTrees, NestingBeyondTheLimitRefused)
{
    const std::pair<std::string, std::string> rows[] = {
        {nest("(", "x", 16 * kMax + 16), kTooDeep + " near >(<"},
        {nest("sin(", "x", 8 * kMax + 8), kTooDeep + " near >sin<"},
    };
    for (const auto& r : rows) {
        OxelExpression e;
        EXPECT_EQ(parse(e, r.first), 0) << r.first.substr(0, 40);
        EXPECT_EQ(e.lastError(), r.second) << r.first.substr(0, 40);
        EXPECT_EQ(e.numInternalVars(), 0);
        int err = 0;
        EXPECT_EQ(evalAt(e, {3.0}, err), 0.0);
    }
}

// A statement longer than the lexer's 8192-character chunk is read as its first chunk again and
// again, cut at chunk borders; a text whose period divides the chunk keeps its own value.
TEST(LongStatements, ConverterRereadsExpressionReadsWhole)
{
    const struct { std::string text; double reread, whole; } rows[] = {
        // 9999 characters: "7", 4095 "+1" and "+", then the first 1807 again: "7" and 903 "+1"
        {"7" + repeat("+1", 4999), 7 + 4095 + 7 + 903, 7 + 4999},
        {"x" + repeat("+x", 8999), 0.25 * 9000, 0.25 * 9000},  // period 2
        {"x" + repeat("+1", 4999), 0.25 + 4095 + 0.25 + 903, 0.25 + 4999},
    };
    for (const auto& r : rows) {
        OxelExpression e;
        ASSERT_EQ(parse(e, r.text), 1) << e.lastError();
        int err = 0;
        EXPECT_EQ(evalAt(e, {0.25}, err), r.whole) << r.text.substr(0, 40);
        KxDArray<KxString> names;
        names.append(KxString("x"));
        std::vector<char> buf(r.text.begin(), r.text.end());
        buf.push_back('\0');
        Oxel* tree = OxConverter::strToOxel(buf.data(), names, 0, nullptr);
        ASSERT_NE(tree, nullptr);
        double x = 0.25;
        EXPECT_EQ(tree->value(&x, err), r.reread) << r.text.substr(0, 40);
        oxelDestroy(tree);
    }
}

// Names beyond the lexer's 1000-character ring are parsed whole or refused, never overrun; a
// declared long name is found and prints back whole.
TEST(LongNames, AssignedAndDeclared)
{
    const std::string name = repeat("a", 1500), declared = repeat("v", 5000);
    OxelExpression e, d;
    int err = 0;
    if (parse(e, name + " = 2 * x; " + name + " + 1")) {
        ASSERT_EQ(e.numVars(), 2);
        EXPECT_EQ(std::string(e.varName(1)), name);
        EXPECT_EQ(evalAt(e, {3.0}, err), 7.0);
    } else {
        EXPECT_STRNE(e.lastError(), "");
    }
    ASSERT_EQ(d.addVar(declared.c_str()), 0);
    ASSERT_EQ(parse(d, declared + " * 2 + " + declared), 1) << d.lastError();
    EXPECT_EQ(evalAt(d, {1.5}, err), 4.5);
    EXPECT_NE(oxelToString(d.root()).find(declared), std::string::npos);
}

// Numbers of huge magnitude print every integral digit and read back to the same value.
TEST(HugeNumbers, PrintAndReadBack)
{
    for (const char* text : {"1e308 + x", "x - 1.7976931348623157e308", "x * 1234e300", "1e400"}) {
        OxelExpression e, back;
        ASSERT_EQ(parse(e, text), 1) << text;
        int err = 0;
        double v = evalAt(e, {2.0}, err);
        std::string printed = oxelToString(e.root());
        EXPECT_EQ(std::isinf(v), std::strcmp(text, "1e400") == 0) << text;
        if (std::isinf(v))
            continue;  // printed however the library likes
        EXPECT_GT(printed.size(), 295u) << text;
        ASSERT_EQ(parse(back, printed), 1) << printed;
        EXPECT_EQ(evalAt(back, {2.0}, err), v) << text;
    }
}

// Inputs that once crashed a fuzz target: each parses and is used fully, or fails cleanly.
TEST(FuzzRegressions, ReplayKeptTexts)
{
    int replayed = 0;
    for (const char* target : {"regressions/expression_fuzz/", "regressions/converter_fuzz/"}) {
        for (const std::string& text : fuzzTexts(target)) {
            ++replayed;
            OxelExpression e, after;
            e.addVar("x");
            e.addVar("y");
            e.addVar("z");
            e.addVarAlias("x", "speed");
            const bool parsed = parse(e, text);
            // Whatever the text left open (a brace block, say), the next text parses afresh.
            EXPECT_EQ(parse(after, "x + 1"), 1) << after.lastError() << " after " << text;
            if (!parsed) {
                EXPECT_STRNE(e.lastError(), "") << text.substr(0, 200);
                continue;
            }
            int err = 0;
            (void)evalAt(e, {1.0}, err);
            const std::string printed = oxelToString(e.root());
            EXPECT_EQ(printed.size(), std::strlen(printed.c_str())) << text;  // no NUL inside
            oxelDestroy(e.root()->simplify());
            for (const char* var : {"x", "y", "z", "speed"})
                delete e.derivative(var);
        }
    }
    EXPECT_GT(replayed, 0) << "no kept inputs under fuzz/regressions";
}
