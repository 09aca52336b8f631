// Tests of what embedding hosts rely on: the message handler, error offsets, formulas that read
// back and the names of a text.
#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <oxel/oxel.h>

#include "node_probe.h"

namespace {

using Expr = std::unique_ptr<OxelExpression>;

// What a piece of code wrote to the file descriptors 1 and 2.
struct Output {
    std::string out, err;
};

Output captured(const std::function<void()>& code)
{
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    code();
    std::string out = testing::internal::GetCapturedStdout();
    return {out, testing::internal::GetCapturedStderr()};
}

Expr declared(const char* names = "xyz")
{
    Expr e(new OxelExpression);
    for (const char* n = names; *n; ++n)
        e->addVar(std::string(1, *n).c_str());
    return e;
}

struct Message {
    int kind;
    std::string text;
};

void record(int kind, const char* text, void* userData)
{
    static_cast<std::vector<Message>*>(userData)->push_back({kind, text});
}

// Collects the library's messages while it lives, whatever way the test leaves.
struct Collecting {
    std::vector<Message> messages;
    Collecting() { oxelSetMessageHandler(record, &messages); }
    ~Collecting() { oxelSetMessageHandler(nullptr, nullptr); }
};

}  // namespace

// Each message, once through a handler and once the default way: the handler gets the kind
// and the text, the streams stay silent, and the default output is exactly what it was.
TEST(MessageHandler, TakesEveryMessageAndRestoresTheDefaultOutput)
{
    const struct { const char* text; const char* diffBy; int kind; const char *message, *out, *err; } rows[] = {
        {"1 )", nullptr, OXEL_MESSAGE_PARSE_ERROR,
         "syntax error, unexpected ')', expecting $end near >)<", "",
         "Parsing OxError: syntax error, unexpected ')', expecting $end near >)<\n"},
        {"x @+ 1", nullptr, OXEL_MESSAGE_IGNORED_CHARACTER, "ignored character '@' at offset 2", "@", ""},
        {"x;\x01y", nullptr, OXEL_MESSAGE_IGNORED_CHARACTER, "ignored character '\\x01' at offset 2", "\x01", ""},
        {"x < 1", "x", OXEL_MESSAGE_NO_DERIVATIVE_RULE, "diff: Not yet implemented in OXEL.",
         "diff: Not yet implemented in OXEL.\n", ""},
    };
    for (const auto& row : rows) {
        auto act = [&] {
            Expr e = declared();
            e->initFromString(row.text);
            if (row.diffBy)
                delete e->derivative(row.diffBy);
        };
        std::vector<Message> got;
        {
            Collecting handler;
            Output quiet = captured(act);
            EXPECT_EQ(quiet.out + quiet.err, "") << row.text;
            got = handler.messages;
        }
        ASSERT_EQ(got.size(), 1u) << row.text;
        EXPECT_EQ(got[0].kind, row.kind);
        EXPECT_EQ(got[0].text, row.message);
        Output loud = captured(act);
        EXPECT_EQ(loud.out, row.out) << row.text;
        EXPECT_EQ(loud.err, row.err) << row.text;
    }
}

// A handler may use the library: a parse hands its messages over after releasing its lock.
TEST(MessageHandler, MayParseFromTheHandler)
{
    std::vector<int> kinds;
    oxelSetMessageHandler(
        [](int kind, const char*, void* data) {
            OxelExpression inner;
            inner.addVar("x");
            if (inner.initFromString("x + 1"))
                static_cast<std::vector<int>*>(data)->push_back(kind);
        },
        &kinds);
    Expr e = declared();
    e->initFromString("x @ 1 )");
    oxelSetMessageHandler(nullptr, nullptr);
    EXPECT_EQ(kinds, (std::vector<int>{OXEL_MESSAGE_IGNORED_CHARACTER, OXEL_MESSAGE_PARSE_ERROR}));
}

// The offset points at the token that the message quotes ("near >token<"), or at the end.
TEST(ErrorOffsets, PointAtTheTokenTheParseStoppedAt)
{
    const std::string longSum = [] {  // 9001 characters
        std::string s = "x";
        for (int i = 0; i < 4500; ++i)
            s += "+1";
        return s;
    }();
    const struct { std::string text; int offset; } rows[] = {
        {"1 )", 2}, {"sin 1", 4}, {"x + ", 4}, {"", 0}, {"q", 1}, {"x @ )", 4},
        {"x\n )", 3}, {"diff(x % 2, x)", 13}, {"max(1)", 5}, {"{a}", 1},
        {"a = 1; b = a +* 2", 14}, {"x; y; 1 )", 8}, {"x;;y", 2}, {"x; +", 3}, {"x;y;z;w", 7},
        {longSum + " )", 9002}, {longSum + "; y )", 9005},  // past the 8192 of one refill
    };
    for (const auto& row : rows) {
        Expr e = declared();
        std::string label = row.text.substr(0, 30);
        captured([&] { EXPECT_EQ(e->initFromString(row.text.c_str()), 0) << label; });
        EXPECT_EQ(e->lastErrorOffset(), row.offset) << label;
        std::string msg = e->lastError();
        size_t near = msg.rfind(" near >");
        ASSERT_EQ(near == std::string::npos, row.text.empty()) << msg;
        std::string token = row.text.empty() ? "" : msg.substr(near + 7, msg.size() - near - 8);
        EXPECT_EQ(row.text.compare(static_cast<size_t>(row.offset), token.size(), token), 0)
            << label << ": " << msg;
        ASSERT_EQ(e->initFromString("x"), 1);
        EXPECT_EQ(e->lastErrorOffset(), -1);
    }
}

TEST(FormulaNames, InOrderOfFirstAppearance)
{
    const struct { const char *text, *names; } rows[] = {  // "=": first appearance assigns
        {"x*y", "x y"}, {"a = x*2; a + 1", "a= x"}, {"sin(x) + sinx + pow(y, x)", "x sinx y"},
        {"t + (t = 1)", "t"}, {"u = (v = 1) + u", "u= v="}, {"x == y", "x y"},
        {"{brace x} + z", "z"}, {"0xAB = 4", "B="}, {"q @ r", "q r"}, {"a; b;; c +", "a b c"},
        {"diff(w, k)", "w k"}, {"", ""}, {"1 + 2", ""},
    };
    for (const auto& row : rows) {
        KxDArray<KxString> names;
        KxDArray<int> assigned;
        int n = -1;
        Output o = captured([&] { n = oxelFormulaNames(row.text, names, &assigned); });
        EXPECT_EQ(o.out + o.err, "") << row.text;
        std::string joined;
        for (int i = 0; i < names.length(); ++i)
            joined += (i ? " " : "") + std::string(names[i].c_str()) + (assigned[i] ? "=" : "");
        EXPECT_EQ(joined, row.names) << row.text;
        EXPECT_EQ(n, names.length());
    }
    // Listing names after a text that left a brace block open starts outside the block.
    KxDArray<KxString> vars, after;
    std::string open = "{abc";
    Output o = captured([&] { oxelDestroy(OxConverter::strToOxel(&open[0], vars, 0, nullptr)); });
    EXPECT_NE(o.err, "");
    EXPECT_EQ(oxelFormulaNames("y + z}", after), 2);
}

// A name is a variable name exactly when the lexer reads it back as that one name; an empty
// or null text gives the same message whatever the host.
TEST(FormulaNames, VariableNamesAreWhatTheLexerReadsAsOneName)
{
    const struct { const char* name; bool valid; } rows[] = {
        {"x", true}, {"_", true}, {"a_1", true}, {"A9", true}, {"sinx", true}, {"Sin", true},
        {"log", true}, {"pi", true},                                     // no words of the language
        {"sin", false}, {"pow", false}, {"diff", false}, {"rand", false}, {"gamma", false},
        {"logb", false}, {"", false}, {"a b", false}, {"1x", false}, {"x+y", false},
        {"x;", false}, {"x{", false}, {"x\xc3\xa9", false}, {"0x1", false},
    };
    for (const auto& row : rows) {
        KxDArray<KxString> names;
        bool lexed = oxelFormulaNames(row.name, names) == 1 &&
                     std::string(names[0].c_str()) == row.name;
        EXPECT_EQ(oxelIsVariableName(row.name), row.valid) << row.name;
        EXPECT_EQ(lexed, row.valid) << row.name;
    }
    EXPECT_FALSE(oxelIsVariableName(nullptr));
    for (const char* empty : {"", static_cast<const char*>(nullptr)}) {
        OxelExpression e;
        EXPECT_EQ(e.initFromString(empty), 0);
        EXPECT_STREQ(e.lastError(), "the formula is empty");
        EXPECT_EQ(e.lastErrorOffset(), 0);
    }
}

// Constants without a literal and trees the language cannot hold.
TEST(Formula, ChoicesForWhatHasNoLiteral)
{
    auto x = [] { return new OxVar(0, "x"); };
    const struct { Oxel* tree; const char* formula; } rows[] = {
        {new OxZahl(-2.5), "-2.5"}, {new OxZahl(-0.0), "-0"}, {new OxZahl(INFINITY), "1e999"},
        {new OxZahl(-INFINITY), "-1e999"}, {new OxZahl(-NAN), "copysign(0 * 1e999, -1)"},
        {new OxZahl(NAN), "copysign(0 * 1e999, 1)"}, {new OxZahl(1.0 / 3), "0.3333333333333333"},
        {new OxHoch(x(), new OxZahl(3)), "pow(x, 3)"}, {new OxBitXOr(x(), new OxZahl(3)), "x ^ 3"},
        {new OxSqroot(new OxLn(x())), "sqrt(ln(x))"}, {new OxArctan2(x(), x()), "atan2(x, x)"},
        {new OxMal(new OxZahl(-1), new OxMal(new OxZahl(-1), x())), "- -x"},
        {new OxBranch(new OxBranch(x(), x()), new OxBranch(x(), x())), "x; x; x; x"},
        {new OxSinus(new OxBranch(x(), x())), ""},       // a sequence below the top
        {new OxVar(0, "sin"), ""}, {new OxVar(0, "a b"), ""},  // not names of the language
    };
    for (const auto& row : rows) {
        EXPECT_EQ(std::string(oxelToFormula(row.tree).c_str()), row.formula) << oxelToString(row.tree);
        oxelDestroy(row.tree);
    }
}

namespace {

// Every bit and error code of a against b over the rows (x, y, z); internal slots start at 0.
std::string disagreement(OxelExpression& a, OxelExpression& b, const std::vector<double>& rows)
{
    KxDArray<double> va, vb;
    va.setLength(a.numVars());
    vb.setLength(b.numVars());
    for (size_t r = 0; r < rows.size(); r += 3) {
        for (int i = 0; i < a.numVars(); ++i)
            va[i] = i < 3 ? rows[r + static_cast<size_t>(i)] : 0.0;
        for (int i = 0; i < b.numVars(); ++i)
            vb[i] = i < 3 ? rows[r + static_cast<size_t>(i)] : 0.0;
        int ea = 0, eb = 0;
        double ra = a.eval(va, ea), rb = b.eval(vb, eb);
        if (!bitsEqual(ra, rb) || ea != eb) {
            char buf[200];
            std::snprintf(buf, sizeof buf, "at (%g, %g, %g): %.17g code %d, read back %.17g code %d",
                          rows[r], rows[r + 1], rows[r + 2], ra, ea, rb, eb);
            return buf;
        }
    }
    return "";
}

}  // namespace

// Random formulas (batch_test.cpp's, with diff() and Bessel calls of small order), their
// derivatives and simplified forms, written, read back with the same names and evaluated at
// ordinary and special points: the same bits and error codes.
TEST(Formula, ReadsBackToTheSameBitsAndErrorCodes)
{
    const double special[] = {0.0, -0.0, 1.0, -1.0, 0.5, 2.0, -2.5, 3.0, 1e308, -1e308, 1e-310,
                              INFINITY, -INFINITY, NAN, -NAN, 709.72, 710.0, 0.1, -7.0, DBL_MAX,
                              2147483648.0, 31.0};
    std::mt19937 gen(7);
    std::vector<double> rows;
    for (int r = 0; r < 3 * 200; ++r)
        rows.push_back(r % 2 ? special[gen() % (sizeof special / sizeof *special)]
                             : std::uniform_real_distribution<double>(-4, 4)(gen));
    int formulas = 0, trees = 0;
    Collecting quiet;  // texts whose diff() fails, derivatives of comparisons
    for (int attempt = 0; attempt < 3000 && formulas < 1000; ++attempt) {
        const int depth = 1 + attempt % 5;
        std::string text = randomFormula(gen, depth, attempt % 4 == 0);
        if (attempt % 3 == 0)
            text = "diff(" + randomFormula(gen, depth - 1, attempt % 4 == 0) + ", x) - " + text;
        if (attempt % 7 == 0)
            text = "jn((" + text + ") & 7, " + randomFormula(gen, 1, attempt % 4 == 0) + ")";
        if (attempt % 4 == 0)
            text = "a = " + randomFormula(gen, depth, false) + "; " + text;
        Expr e = declared();
        if (!e->initFromString(text.c_str()))  // a diff() without a derivative, say
            continue;
        ++formulas;
        Expr d(e->derivative("x"));
        Expr forms[] = {Expr(e->simplified()), Expr(e->simplifiedFully()),
                        Expr(d ? d->simplifiedFully() : nullptr), std::move(d), std::move(e)};
        for (Expr& f : forms) {
            if (!f)
                continue;
            ++trees;
            std::string formula = f->toFormula().c_str();
            ASSERT_NE(formula, "") << text << " -> " << oxelToString(f->root());
            Expr back(new OxelExpression);  // simplifying keeps reads of assigned names
            for (int i = 0; i < f->numVars(); ++i)
                back->addVar(f->varName(static_cast<unsigned>(i)));
            ASSERT_EQ(back->initFromString(formula.c_str()), 1) << formula << ": " << back->lastError();
            EXPECT_EQ(disagreement(*f, *back, rows), "") << text << "\nwritten: " << formula;
            EXPECT_EQ(formula, back->toFormula().c_str());
        }
    }
    EXPECT_GE(formulas, 900);
    EXPECT_GE(trees, 3000);
}
