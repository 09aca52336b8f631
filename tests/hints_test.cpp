// The readable explanations of parse failures (lastErrorHint, oxelParseHint).
#include <gtest/gtest.h>

#include <string>

#include <oxel/oxel.h>

namespace {

struct HintCase {
    const char* text;
    const char* hint;  // what the hint starts with; "" for none
};

// Declared: x, y and the alias speed.
const HintCase kHints[] = {
    {"x + q", "unknown name 'q' (declared: x, y, speed)"},
    {"a = 2; a * x + b", "unknown name 'b'"},  // an assigned name is known
    {"ln(x) + log(y)", "no function log: ln is the natural logarithm, log10 base 10"},
    {"x**2", "powers are written pow(a, b); ^ is exclusive or"},
    {"x^2 +", "powers are written pow(a, b)"},
    {"gamma(x)", "'gamma' is a reserved word with no function"},
    {"log1p(x)", "'log1p' is a reserved word"},
    {"logb(x)", "'logb' is a reserved word"},
    {"x +", "found the end of the formula where it cannot stand"},
    {"x = ", "found the end of the formula where"},
    {"(x y)", "found a name where"},
    {"x 2", "found a number where"},
    {"1 )", "found ')' where the end of the formula was expected"},
    {"speed * {log}", "found a {...} block"},  // words inside braces are not read
};

TEST(ParseHints, ExplainTheFailureInWords)
{
    for (const HintCase& c : kHints) {
        OxelExpression e;
        e.addVar("x");
        e.addVar("y");
        e.addVarAlias("y", "speed");
        ASSERT_EQ(e.initFromString(c.text), 0) << c.text;
        std::string hint = e.lastErrorHint();
        EXPECT_EQ(hint.compare(0, std::string(c.hint).size(), c.hint), 0) << c.text << ": " << hint;
        EXPECT_EQ(hint.find('$'), std::string::npos) << hint;  // no grammar symbols
        EXPECT_EQ(hint.find("KW_"), std::string::npos) << hint;
    }
    OxelExpression ok;
    ok.addVar("x");
    ASSERT_EQ(ok.initFromString("x +"), 0);
    ASSERT_EQ(ok.initFromString("x + 1"), 1);
    EXPECT_STREQ(ok.lastErrorHint(), "");  // cleared by a success
}

// A host's variable named log is no misspelt function, and a hint names at most 20 of the
// declared names however many there are.
TEST(ParseHints, StayTrueAndShortForTheHostsNames)
{
    OxelExpression e;
    ASSERT_GE(e.addVar("log"), 0);
    std::string want = "unknown name 'q' (declared: log";
    for (int i = 0; i < 100; ++i) {
        const std::string name = "v" + std::to_string(i);
        e.addVar(name.c_str());
        if (i < 19)
            want += ", " + name;
    }
    ASSERT_EQ(e.initFromString("log + q"), 0);
    EXPECT_EQ(std::string(e.lastErrorHint()), want + " and 81 more)");
}

}  // namespace
