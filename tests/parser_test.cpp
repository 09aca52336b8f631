// Tests of the formula language: tokens, precedence, trees, errors, names and the parser entry.
#include <gtest/gtest.h>

#include <clocale>
#include <cmath>
#include <string>
#include <vector>

#include <oxel/oxel.h>

namespace {

// Declared variables a, b, c, x at indices 0..3, with values 2, 3, 5, 0.5.
struct Names {
    KxDArray<KxString> list;
    Names()
    {
        for (const char* n : {"a", "b", "c", "x"})
            list.append(KxString(n));
    }
};

struct Result {
    Oxel* tree = nullptr;
    std::string err;  // what the entry printed to stderr
};

Result parse(std::string text, KxDArray<KxString>& names,
             KxHashTable<KxString, KxString>* aliases = nullptr, int nDep = 0,
             OxDepVarnode** dep = nullptr)
{
    Result r;
    testing::internal::CaptureStderr();
    r.tree = OxConverter::strToOxel(&text[0], names, aliases, nDep, dep);
    r.err = testing::internal::GetCapturedStderr();
    return r;
}

std::string printed(const char* text)
{
    Names n;
    Result r = parse(text, n.list);
    std::string s = r.tree ? oxelToString(r.tree) : "null: " + r.err;
    oxelDestroy(r.tree);
    return s;
}

double valueOf(const char* text, int* errOut = nullptr)
{
    Names n;
    Result r = parse(text, n.list);
    if (!r.tree) {
        ADD_FAILURE() << text << ": " << r.err;
        return NAN;
    }
    std::vector<double> vars{2, 3, 5, 0.5};
    vars.resize(static_cast<size_t>(n.list.length()), 0.0);
    int err = 0;
    double v = r.tree->value(vars.data(), err);
    if (errOut)
        *errOut = err;
    oxelDestroy(r.tree);
    return v;
}

std::string failure(const char* text)
{
    Names n;
    Result r = parse(text, n.list);
    EXPECT_EQ(nullptr, r.tree) << text;
    oxelDestroy(r.tree);
    return r.err;
}

std::string repeat(const std::string& s, int n)
{
    std::string out;
    for (int i = 0; i < n; ++i)
        out += s;
    return out;
}

}  // namespace

TEST(ParserErrors, ClassicVerboseMessages)
{
    struct Row {
        const char* text;
        const char* message;
    } rows[] = {
        {"1 )", "syntax error, unexpected ')', expecting $end near >)<"},
        {"sin 1", "syntax error, unexpected NUM, expecting '(' near >1<"},
        {"gauss(1", "syntax error, unexpected NUM, expecting ')' near >1<"},
        {"q", "syntax error, unexpected $end, expecting '=' near ><"},  // unknown name
        {"1 +", "syntax error, unexpected $end near ><"},               // too many expected
        {"", "syntax error, unexpected $end near ><"},
        {"   ", "syntax error, unexpected $end near ><"},
        {"diff(x, 2)", "syntax error, unexpected NUM, expecting VAR near >2<"},
        {"max(1)", "syntax error, unexpected ')' near >)<"},
        {"a < b < c", "syntax error, unexpected '<' near ><<"},  // non-associative level
        {"a < b == c", "syntax error, unexpected EQ near >==<"},
        {"a--b", "syntax error, unexpected MM, expecting $end near >--<"},  // "--" is one token
        {"+1", "syntax error, unexpected '+' near >+<"},                      // no unary plus
        {"2x", "syntax error, unexpected VAR, expecting $end near >x<"},      // no juxtaposition
        {"a += 1", "syntax error, unexpected PG, expecting $end near >+=<"},
        {"gamma(1)", "syntax error, unexpected KW_GAMMA near >gamma<"},  // keyword without rule
        {"0xFF + 1", "syntax error, unexpected '+' near >+<"},           // hex literal vanishes
        {"0XFF", "syntax error, unexpected ID, expecting $end near >XFF<"},
        {"3..4", "syntax error, unexpected NUM, expecting $end near >.4<"},
        {"1.2.3", "syntax error, unexpected NUM, expecting $end near >.3<"},
        {"1e", "syntax error, unexpected ID, expecting $end near >e<"},  // 'e' without digits
        {"{a{b}c}", "syntax error, unexpected COMPILED_EXPR near >a{b}c<"},
        {"}", "syntax error, unexpected $undefined near >}<"},  // '}' is in no rule
    };
    for (const Row& row : rows) {
        EXPECT_EQ(std::string("Parsing OxError: ") + row.message + "\n", failure(row.text))
            << row.text;
        EXPECT_STREQ(row.message, OxConverter::lastError().c_str()) << row.text;
    }
    // A long token text is kept whole in the message.
    std::string name(300, 'q');
    EXPECT_EQ("Parsing OxError: syntax error, unexpected ID, expecting $end near >" + name +
                  "<\n",
              failure(("1 " + name).c_str()));
    EXPECT_EQ(1, valueOf("1"));
    EXPECT_STREQ("", OxConverter::lastError().c_str());
}

TEST(ParserTrees, PrintedShapes)
{
    struct Row {
        const char* text;
        const char* tree;
    } rows[] = {
        {"a + b % c", "(a+b)%c"},      // '%' binds like '+'
        {"a * b % c", "(a*b)%c"},
        {"a * b | c", "a*(b|c)"},      // bitwise binds tighter than '*'
        {"a << b + c", "(a<<b)+c"},
        {"a | b & c", "(a|b)&c"},      // one shared bitwise level, left associative
        {"-a * b", "((-1)*a)*b"},      // prefix minus is a product with -1
        {"-a | b", "(-1)*a|b"},
        {"-2^3", "(-1)*2^3"},          // '^' is exclusive or: (-2) xor 3
        {"!a + b", "OXEL(a)+b"},
        {"!-a", "OXEL((-1)*a)"},
        {"- - 3", "(-1)*((-1)*3)"},
        {"a != b", "OXEL((a)OXEL(b))"},  // not over equality
        {"a < b", "(a)OXEL(b)"},
        {"a - b - c", "(a-b)-c"},
        {"a - (b - c)", "a-(b-c)"},
        {"1 + a = 2 * 3", "1+a"},      // the assignment prints its name only
        {"sin(a = 1)", "sin(a)"},
        {"(a = 1) + 2", "a+2"},
        {"pow(a, 2)", "a^2"},
        {"atan2(a, b)", "aatan2b"},    // two-argument functions print infix
        {"sqrt(a) + ln(b)", "sqr(a)+OxLn(b)"},
        {"abs(-2)", "abs((-1)*2)"},
        {"gauss() + rand()", "+rand()"},  // gauss prints as empty text
        {"0xAB = 4", "B"},                // 0xA vanishes, B is a new name
        {"2.50 + .5", "2.5+0.5"},
        {"a;", "a"},                      // a trailing ';' adds no statement
        {"a; b; c", "(aBb)Bc"},
    };
    for (const Row& row : rows)
        EXPECT_EQ(row.tree, printed(row.text)) << row.text;
}

TEST(ParserTrees, Values)
{
    struct Row {
        const char* text;
        double expected;
    } rows[] = {
        {"a + b * c", 2 + 3 * 5},
        {"a - b - c", (2 - 3) - 5},
        {"a + b % c", 0},                 // (2+3)%5, not 2+(3%5)
        {"a * b | c", 2 * (3 | 5)},
        {"a << b + c", (2 << 3) + 5},
        {"a | b & c", (2 | 3) & 5},
        {"1 || 1 && 0", 0},               // (1||1)&&0
        {"0 && 0 || 1", 1},               // (0&&0)||1
        {"!0 + 1", 2},
        {"1 + a = 2 * 3", 7},
        {"a = b = 4; a + b", 8},
        {"y = 2; y * 3", 6},
        {"pow(-2, 3)", std::pow(-2.0, 3.0)},
        {"hypot(b, 4)", std::hypot(3.0, 4.0)},
        {"max(a, b) - min(a, b)", 1},
        {"fmod(c, b) + copysign(a, -1)", std::fmod(5.0, 3.0) - 2},
        {"sin(x) + cos(x) * tan(x)", std::sin(0.5) + std::cos(0.5) * std::tan(0.5)},
        {"atan2(a, b) + sqrt(16)", std::atan2(2.0, 3.0) + 4},
        {"exp(x) + erf(x) + erfc(x) + cbrt(27)", std::exp(0.5) + 1 + 3},
        {"floor(-x) + ceil(x) + trunc(2.7)", -1 + 1 + 2},
        {"1e5 + 1.E-5 + 2E+7 + 007 + 5.", 1e5 + 1e-5 + 2e7 + 7 + 5},
        {"12.5e+10 + 1.5e-3", 12.5e10 + 1.5e-3},
        {"a > b || b >= 3 && c <= 5", 1},
    };
    for (const Row& row : rows)
        EXPECT_DOUBLE_EQ(row.expected, valueOf(row.text)) << row.text;
    // "0x" without hex digits is the number 0 followed by the name x.
    EXPECT_EQ("Parsing OxError: syntax error, unexpected VAR, expecting $end near >x<\n",
              failure("0x"));
}

TEST(ParserLexer, KeywordsNeedWholeNames)
{
    // Names that merely resemble keywords are identifiers and need an assignment.
    for (const char* name : {"sinx", "sin2", "Sin", "SIN", "log", "pi", "e", "_", "a_1", "A9"})
        EXPECT_EQ(std::string("Parsing OxError: syntax error, unexpected $end, expecting '=' "
                              "near ><\n"),
                  failure(name))
            << name;
    EXPECT_EQ(std::sinh(0.5), valueOf("sinh(x)"));
}

TEST(ParserLexer, UnknownCharactersAreEchoedAndSkipped)
{
    Names n;
    testing::internal::CaptureStdout();
    Result r = parse("a $+#\"? 1", n.list);
    EXPECT_EQ("$#\"?", testing::internal::GetCapturedStdout());
    ASSERT_NE(nullptr, r.tree);
    EXPECT_EQ("a+1", oxelToString(r.tree));
    oxelDestroy(r.tree);
}

TEST(ParserLexer, OpenBraceBlockCarriesIntoNextParse)
{
    EXPECT_EQ("Parsing OxError: syntax error, unexpected $end near ><\n", failure("{abc"));
    // The scanner is still collecting a brace block: "x}" closes it.
    EXPECT_EQ("Parsing OxError: syntax error, unexpected COMPILED_EXPR near >x<\n",
              failure("x}"));
    EXPECT_EQ(3, valueOf("b"));
}

TEST(ParserLexer, LongStatementRereadsItsBeginning)
{
    // 8192 characters of "1+" then "100": the refill after 8192 characters copies from the
    // start again, so the last three characters read as "1+1".
    std::string text = repeat("1+", 4096) + "100";
    double v = valueOf(text.c_str());
    EXPECT_EQ(4096 + 1 + 1, v);
    std::string shorter = repeat("1+", 4000) + "100";
    EXPECT_EQ(4100, valueOf(shorter.c_str()));
}

TEST(ParserLexer, NumbersIgnoreHostLocale)
{
    const char* old = std::setlocale(LC_ALL, nullptr);
    std::string saved = old ? old : "C";
    if (!std::setlocale(LC_ALL, "de_DE.UTF-8"))
        GTEST_SKIP() << "de_DE.UTF-8 locale not installed";
    double v = valueOf("1.5 + 2.25e1");
    std::setlocale(LC_ALL, saved.c_str());
    EXPECT_EQ(24.0, v);
}

TEST(ParserNames, AssignmentsAppendNames)
{
    KxDArray<KxString> names;
    Result r = parse("x = 2; x * 3", names);
    ASSERT_NE(nullptr, r.tree);
    EXPECT_EQ("xBx*3", oxelToString(r.tree));
    ASSERT_EQ(1, names.length());
    EXPECT_STREQ("x", names[0].c_str());
    double slot = 0;
    int err = 0;
    EXPECT_EQ(6, r.tree->value(&slot, err));
    EXPECT_EQ(2, slot);
    oxelDestroy(r.tree);

    // Names added before a failing statement stay in the caller's array.
    Result bad = parse("y = 1; +", names);
    EXPECT_EQ(nullptr, bad.tree);
    EXPECT_EQ(2, names.length());
}

TEST(ParserNames, LongNamesAndRingWrap)
{
    KxDArray<KxString> names;
    std::string longName(1500, 'v');
    Result r = parse(longName + " = 3", names);
    ASSERT_NE(nullptr, r.tree);
    ASSERT_EQ(1, names.length());
    EXPECT_EQ(longName, names[0].c_str());
    oxelDestroy(r.tree);

    // Many new names cycle through the name ring without disturbing each other.
    std::string text;
    for (int i = 0; i < 150; ++i)
        text += "name_number_" + std::to_string(i) + " = " + std::to_string(i) + ";";
    r = parse(text, names);
    ASSERT_NE(nullptr, r.tree);
    ASSERT_EQ(151, names.length());
    for (int i = 0; i < 150; ++i)
        EXPECT_EQ("name_number_" + std::to_string(i), names[i + 1].c_str());
    oxelDestroy(r.tree);
}

TEST(ParserNames, Aliases)
{
    KxDArray<KxString> names;
    for (const char* n : {"p", "q", "r", "v"})
        names.append(KxString(n));
    KxHashTable<KxString, KxString> aliases(KxString(""));
    aliases.insert(KxString("speed"), KxString("v"));
    aliases.insert(KxString("ghost"), KxString("nothing"));

    Result r = parse("speed = 5; speed * 2", names, &aliases);
    ASSERT_NE(nullptr, r.tree);
    EXPECT_EQ("vBv*2", oxelToString(r.tree));  // assigned under the target's name
    double vars[4] = {0, 0, 0, 0};
    int err = 0;
    EXPECT_EQ(10, r.tree->value(vars, err));
    EXPECT_EQ(5, vars[3]);
    oxelDestroy(r.tree);
    EXPECT_EQ(4, names.length());

    // An alias whose target is missing leaves the name unknown: it is appended as written.
    r = parse("ghost = 1", names, &aliases);
    ASSERT_NE(nullptr, r.tree);
    EXPECT_STREQ("ghost", names[4].c_str());
    oxelDestroy(r.tree);
}

TEST(ParserEntry, StatementSplitting)
{
    Names n;
    std::string text = "+;1";
    testing::internal::CaptureStderr();
    EXPECT_EQ(nullptr, OxConverter::strToOxel(&text[0], n.list, 0, nullptr));
    testing::internal::GetCapturedStderr();
    EXPECT_STREQ("+", text.c_str());  // the NUL over the ';' stays after a failure

    text = "1;+";
    testing::internal::CaptureStderr();
    EXPECT_EQ(nullptr, OxConverter::strToOxel(&text[0], n.list, 0, nullptr));
    testing::internal::GetCapturedStderr();
    EXPECT_EQ("1;+", text);  // restored before the second statement

    for (const char* bad : {";a", "a;;b", ";"})
        EXPECT_EQ("Parsing OxError: syntax error, unexpected $end near ><\n", failure(bad))
            << bad;
}

TEST(ParserEntry, DepthLimit)
{
    const std::string deep = "Parsing OxError: expression nested too deeply (more than 10000 levels)\n";
    // 50000 terms, read with the refill quirk: still a left-leaning chain far past the limit.
    std::string sum = repeat("1+", 49999) + "1";
    EXPECT_EQ(deep, failure(sum.c_str()));
    std::string statements = repeat("1;", 19999) + "1";
    EXPECT_EQ(deep, failure(statements.c_str()));
    // Within the limit a long statement list is fine.
    std::string fine = repeat("a=a+1;", 5000) + "a";
    EXPECT_EQ(2 + 5000, valueOf(fine.c_str()));
    // The parser's own stack gives up first for deep nesting.
    std::string parens = repeat("(", 10000) + "1" + repeat(")", 10000);
    EXPECT_EQ("Parsing OxError: memory exhausted near >(<\n", failure(parens.c_str()));
    std::string fewer = repeat("(", 3000) + "1" + repeat(")", 3000);
    EXPECT_EQ(1, valueOf(fewer.c_str()));
}

namespace {

// Component c at arguments (u, v) is 100 c + 10 u + v; each derivative adds 1000.
double depCallback(const void*, int component, int nDiff, const int*, const double* args)
{
    return 100.0 * component + 10.0 * args[0] + args[1] + 1000.0 * nDiff;
}

double oneDimCallback(const void*, int, int, const int*, const double* args)
{
    return -args[0];
}

}  // namespace

TEST(ParserDepVars, ReferencesAndChecks)
{
    Names n;
    OxDepVarnode d("d", depCallback, nullptr);
    OxDepVarnode unset("u", depCallback, nullptr);
    OxDepVarnode empty("e", depCallback, nullptr);
    OxDepVarnode shadow("a", depCallback, nullptr);
    OxDepVarnode oneDim("f", oneDimCallback, nullptr);
    char nameA[] = "a", nameB[] = "b";
    char* defaults[] = {nameA, nameB};
    int indices[] = {0, 1};
    d.setUp(2, 3, 1, defaults, indices);
    empty.setUp(2, 0, 1, defaults, indices);
    shadow.setUp(2, 3, 1, defaults, indices);
    oneDim.setUp(1, 1, 1, defaults, indices);
    OxDepVarnode* nodes[] = {&unset, &d, &empty, &shadow, &oneDim};

    struct Row {
        const char* text;
        double value;         // when message is empty
        const char* message;  // the parse error otherwise
    } rows[] = {
        {"d", 0 + 20 + 3, ""},                    // component 0 at the defaults a, b
        {"d[2]", 200 + 20 + 3, ""},
        {"d[1](c, 7)", 100 + 50 + 7, ""},
        {"d[1.9](1, 2)", 100 + 10 + 2, ""},       // the index truncates
        {"a + 1", 3, ""},                         // a variable hides a descriptor
        {"f[0]()", -2, ""},                       // "()" counts as one dimension
        {"d[3]", 0,
         "dependant variable doesn't have enough components or has no default arguments "
         "near ><"},
        {"d[3](1, 2)", 0, "Dependant variable d has only 3 components.\n near >)<"},
        {"d[0]()", 0, "dependant variable d requires 2 dimensions\n near >)<"},
        {"d[0](1)", 0, "dependant variable d requires 2 dimensions\n near >)<"},
        {"e", 0, "dependant variable has no data or has no default arguments near ><"},
        {"d[x]", 0, "syntax error, unexpected VAR, expecting NUM near >x<"},
        {"d(1, 2)", 0, "syntax error, unexpected '(', expecting $end near >(<"},
        {"u", 0, "syntax error, unexpected $end, expecting '=' near ><"},  // not set up: a name
    };
    for (const Row& row : rows) {
        Result r = parse(row.text, n.list, nullptr, 5, nodes);
        if (*row.message) {
            EXPECT_EQ(nullptr, r.tree) << row.text;
            EXPECT_EQ(std::string("Parsing OxError: ") + row.message + "\n", r.err) << row.text;
        } else if (r.tree) {
            double vars[4] = {2, 3, 5, 0.5};
            int err = 0;
            EXPECT_EQ(row.value, r.tree->value(vars, err)) << row.text;
        } else {
            ADD_FAILURE() << row.text << ": " << r.err;
        }
        oxelDestroy(r.tree);
    }
}

TEST(ParserDiff, DerivativeInsideText)
{
    // diff() in the text builds the derivative itself, not a node that differentiates.
    EXPECT_DOUBLE_EQ(std::cos(0.5), valueOf("diff(sin(x), x)"));
    EXPECT_DOUBLE_EQ(2.0, valueOf("diff(a * x, x) + diff(b, x)"));  // a + 0
    EXPECT_EQ("Parsing OxError: no sufficient differentiability near >)<\n",
              failure("diff(x % 2, x)"));
}
