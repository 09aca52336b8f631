// Tests of huge and deeply nested formulas, long statements and names, and kept fuzz findings.
#include <cmath>
#include <cstring>
#include <dirent.h>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <oxel/oxel.h>

namespace {

const long kMax = OXEL_MAX_DEPTH;
const double kNone = std::nan("");  // no derivative exists
const char* const kTooDeep = "expression nested too deeply (more than 10000 levels)";

std::string repeat(const std::string& s, long n)
{
    std::string out;
    for (long i = 0; i < n; ++i)
        out += s;
    return out;
}

// n opening texts, the inner text, and n closing parentheses.
std::string nest(const std::string& open, const char* inner, long n)
{
    return repeat(open, n) + inner + repeat(")", n);
}

// Parses a private writable copy (the parser writes into its text), declaring x if nothing is.
int parse(OxelExpression& e, const std::string& text)
{
    if (e.numVars() == 0)
        e.addVar("x");
    std::vector<char> buf(text.begin(), text.end());
    buf.push_back('\0');
    return e.initFromString(buf.data());
}

double evalWith(OxelExpression& e, double x, int& err)
{
    KxDArray<double> v;
    v.setLength(e.numVars());
    v[0] = x;
    err = 0;
    return e.eval(v, err);
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

// Uses every operation a host has on a tree: eval, print, count, dup, ==, simplify, destroy.
// Copies of assignments only read the slots, so their values and node counts go unchecked.
void useFully(OxelExpression& e, double x, double expected, bool assigns)
{
    int err = 0;
    EXPECT_NEAR(evalWith(e, x, err), expected, 1e-10 * std::fabs(expected));
    EXPECT_EQ(err, 0);
    Oxel* root = e.root();
    const std::string text = oxelToString(root);
    const long nodes = oxelNodeCount(root);
    EXPECT_GE(nodes, oxelDepth(root));
    EXPECT_LE(root->count(), static_cast<int>(text.size()));  // never more than print
    Oxel* copy = root->dup();
    EXPECT_EQ(oxelToString(copy), text);
    EXPECT_TRUE(assigns || oxelNodeCount(copy) == nodes);
    (void)(*copy == *root);  // must terminate; equality of copies depends on the node classes
    oxelDestroy(copy);
    Oxel* simple = root->simplify();
    ASSERT_NE(simple, nullptr);
    std::vector<double> v(static_cast<size_t>(e.numVars()), 0.0);
    v[0] = x;
    double sv = simple->value(v.data(), err);
    EXPECT_TRUE(assigns || std::fabs(sv - expected) <= 1e-9 * (1 + std::fabs(expected))) << sv;
    EXPECT_FALSE(oxelToString(simple).empty());
    oxelDestroy(simple);
}

}  // namespace

// Trees up to the depth limit, and their derivatives even where those grow deeper, are usable in
// every way. Parentheses add no node but parser stack: 4095 pairs fit one 8192-character chunk.
TEST(DeepTrees, UpToTheLimitFullyUsable)
{
    struct Row {
        std::string text;
        long depth;
        double x, value, slope;  // slope kNone: the derivative is refused
    };
    const long t = kMax - 2;  // x*x terms: the derivative's products nest one level deeper
    const double m = kMax, s1 = sines(1000, 0.9, false), d1 = sines(1000, 0.9, true);
    const Row rows[] = {
        {"x" + repeat("+x", kMax - 1), kMax, 0.5, 0.5 * m, m},  // a sum at the limit
        {"x*x" + repeat("+x*x", t - 1), t + 1, 0.5, 0.25 * t, double(t)},  // 2x per term
        {"x" + repeat(";x", kMax - 1), kMax, 0.75, 0.75, kNone},  // statements at the limit
        {repeat("x = x + 1; ", 4000) + "x", 4000 + 3, 0.0, 4000, kNone},  // each sees the last
        {nest("(", "x", 4095), 1, 2.5, 2.5, 1.0},  // parser stack only, no nodes
        {nest("sin(", "x", 1000), 1001, 0.9, s1, d1},  // chain rule: half a million nodes
        {repeat("- ", 4000) + "x", 4001, 1.75, 1.75, 1.0},  // one product per sign
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(r.text.substr(0, 40));
        OxelExpression e;
        ASSERT_EQ(parse(e, r.text), 1) << e.lastError();
        EXPECT_EQ(oxelDepth(e.root()), r.depth);
        useFully(e, r.x, r.value, r.text.find('=') != std::string::npos);
        OxelExpression* d = e.derivative("x");
        EXPECT_EQ(d == nullptr, std::isnan(r.slope));
        if (d)
            useFully(*d, r.x, r.slope, false);
        delete d;
    }
}

// Beyond the limits a text is refused with its message, not a crash or a truncated tree, and
// the expression keeps its default.
TEST(DeepTrees, BeyondTheLimitsRefused)
{
    const std::pair<std::string, const char*> rows[] = {
        {"x" + repeat("+x", kMax), kTooDeep},  // one level more than the limit
        {"1" + repeat("+1", 999999), kTooDeep},  // two megabytes, a million levels
        {"1" + repeat(";1", 999999), kTooDeep},  // a million statements chain as deep
        {nest("(", "x", 10000), "memory exhausted near >(<"},  // the re-read run fills the stack
        {nest("sin(", "x", 6000), "memory exhausted near >sin<"},  // so do function calls
    };
    for (const auto& r : rows) {
        OxelExpression e;
        EXPECT_EQ(parse(e, r.first), 0) << r.first.substr(0, 40);
        EXPECT_STREQ(e.lastError(), r.second) << r.first.substr(0, 40);
        EXPECT_EQ(e.numInternalVars(), 0);
        int err = 0;
        EXPECT_EQ(evalWith(e, 3.0, err), 0.0);
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
        EXPECT_EQ(evalWith(e, 0.25, err), r.whole) << r.text.substr(0, 40);
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
        EXPECT_EQ(evalWith(e, 3.0, err), 7.0);
    } else {
        EXPECT_STRNE(e.lastError(), "");
    }
    ASSERT_EQ(d.addVar(declared.c_str()), 0);
    ASSERT_EQ(parse(d, declared + " * 2 + " + declared), 1) << d.lastError();
    EXPECT_EQ(evalWith(d, 1.5, err), 4.5);
    EXPECT_NE(oxelToString(d.root()).find(declared), std::string::npos);
}

// Numbers of huge magnitude print every integral digit and read back to the same value.
TEST(HugeNumbers, PrintAndReadBack)
{
    for (const char* text : {"1e308 + x", "x - 1.7976931348623157e308", "x * 1234e300", "1e400"}) {
        OxelExpression e, back;
        ASSERT_EQ(parse(e, text), 1) << text;
        int err = 0;
        double v = evalWith(e, 2.0, err);
        std::string printed = oxelToString(e.root());
        EXPECT_EQ(std::isinf(v), std::strcmp(text, "1e400") == 0) << text;
        if (std::isinf(v))
            continue;  // printed however the library likes
        EXPECT_GT(printed.size(), 295u) << text;
        ASSERT_EQ(parse(back, printed), 1) << printed;
        EXPECT_EQ(evalWith(back, 2.0, err), v) << text;
    }
}

// Inputs that once crashed a fuzz target: each parses and is used fully, or fails cleanly.
TEST(FuzzRegressions, ReplayKeptTexts)
{
    const std::string here = __FILE__;
    const std::string kept = here.substr(0, here.find_last_of('/') + 1) + "../fuzz/regressions/";
    int replayed = 0;
    for (const std::string target : {"expression_fuzz/", "converter_fuzz/"}) {
        DIR* dir = opendir((kept + target).c_str());
        while (dirent* ent = dir ? readdir(dir) : nullptr) {
            std::ifstream in(kept + target + ent->d_name, std::ios::binary);
            std::stringstream raw;
            if (ent->d_name[0] == '.' || !(raw << in.rdbuf()))
                continue;
            const std::string text = raw.str().c_str();  // the targets read up to the first NUL
            ++replayed;
            OxelExpression e, closer, after;
            e.addVar("x");
            e.addVar("y");
            e.addVar("z");
            e.addVarAlias("x", "speed");
            const bool parsed = parse(e, text);
            // A text ending inside a brace block leaves the next parse in brace mode: once that is
            // closed, the parser must be as good as new.
            parse(closer, repeat("}", 1000));
            EXPECT_EQ(parse(after, "x + 1"), 1) << after.lastError() << " after " << text;
            if (!parsed) {
                EXPECT_STRNE(e.lastError(), "") << text.substr(0, 200);
                continue;
            }
            int err = 0;
            (void)evalWith(e, 1.0, err);
            const std::string printed = oxelToString(e.root());
            EXPECT_EQ(printed.size(), std::strlen(printed.c_str())) << text;  // no NUL inside
            oxelDestroy(e.root()->simplify());
            for (const char* var : {"x", "y", "z", "speed"})
                delete e.derivative(var);
        }
        if (dir)
            closedir(dir);
    }
    EXPECT_GT(replayed, 0) << "no kept inputs under " << kept;
}
