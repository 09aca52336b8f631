// Tests of the formula language: tokens, precedence, trees, errors, names and the parser entry.
#include <gtest/gtest.h>

#include <clocale>
#include <cmath>
#include <string>

#include <oxel/oxel.h>

namespace {

struct Result {
    Oxel* tree;
    std::string err;  // what the entry printed to stderr
};

// Parses a writable copy of text; the names default to a, b, c, x (indices 0..3).
Result parse(std::string text, KxDArray<KxString>* names = nullptr,
             KxHashTable<KxString, KxString>* aliases = nullptr, int nDep = 0,
             OxDepVarnode** dep = nullptr)
{
    KxDArray<KxString> abcx;
    for (const char* n : {"a", "b", "c", "x"})
        abcx.append(KxString(n));
    testing::internal::CaptureStderr();
    Oxel* tree = OxConverter::strToOxel(&text[0], names ? *names : abcx, aliases, nDep, dep);
    return {tree, testing::internal::GetCapturedStderr()};
}

// The tree printed back, or the entry's message when the text fails.
std::string printed(const std::string& text)
{
    Result r = parse(text);
    std::string s = r.tree ? oxelToString(r.tree) : r.err;
    oxelDestroy(r.tree);
    return s;
}

// The value at a = 2, b = 3, c = 5, x = 0.5, with zeroed slots for assigned names.
double valueOf(const std::string& text)
{
    Result r = parse(text);
    double vars[16] = {2, 3, 5, 0.5};
    int err = 0;
    double v = r.tree ? r.tree->value(vars, err) : NAN;
    EXPECT_NE(nullptr, r.tree) << text << ": " << r.err;
    oxelDestroy(r.tree);
    return v;
}

const std::string kLong(300, 'q');

// Component c at arguments (u, v) is 100 c + 10 u + v; with data, there is no v.
double depCallback(const void* data, int component, int, const int*, const double* args)
{
    return 100.0 * component + 10.0 * args[0] + (data ? 0 : args[1]);
}

}  // namespace

TEST(ParserErrors, ClassicVerboseMessages)
{
    struct Row {
        std::string text, message;
    } rows[] = {
        {"1 )", "syntax error, unexpected ')', expecting $end near >)<"},
        {"sin 1", "syntax error, unexpected NUM, expecting '(' near >1<"},
        {"gauss(1", "syntax error, unexpected NUM, expecting ')' near >1<"},
        {"q", "syntax error, unexpected $end, expecting '=' near ><"},  // unknown name
        {"1 +", "syntax error, unexpected $end near ><"},               // five or more expected
        {"", "syntax error, unexpected $end near ><"},
        {" \t\n", "syntax error, unexpected $end near ><"},  // blanks and line feeds skipped
        {"a;;b", "syntax error, unexpected $end near ><"},  // empty statement
        {"diff(x, 2)", "syntax error, unexpected NUM, expecting VAR near >2<"},
        {"diff(x % 2, x)", "no sufficient differentiability near >)<"},
        {"max(1)", "syntax error, unexpected ')' near >)<"},
        {"a < b < c", "syntax error, unexpected '<' near ><<"},  // non-associative level
        {"a < b == c", "syntax error, unexpected EQ near >==<"},
        {"a--b", "syntax error, unexpected MM, expecting $end near >--<"},  // "--" is one token
        {"a += 1", "syntax error, unexpected PG, expecting $end near >+=<"},
        {"+1", "syntax error, unexpected '+' near >+<"},                    // no unary plus
        {"2x", "syntax error, unexpected VAR, expecting $end near >x<"},    // no juxtaposition
        {"gamma(1)", "syntax error, unexpected KW_GAMMA near >gamma<"},     // keywords without rule
        {"log1p(1)", "syntax error, unexpected KW_LOG1P near >log1p<"},
        {"logb(1)", "syntax error, unexpected KW_LOGB near >logb<"},
        {"0xFF + 1", "syntax error, unexpected '+' near >+<"},  // a hex literal vanishes
        {"0XFF", "syntax error, unexpected ID, expecting $end near >XFF<"},
        {"0x", "syntax error, unexpected VAR, expecting $end near >x<"},
        {"3..4", "syntax error, unexpected NUM, expecting $end near >.4<"},
        {"1.2.3", "syntax error, unexpected NUM, expecting $end near >.3<"},
        {"1e", "syntax error, unexpected ID, expecting $end near >e<"},  // no exponent digits
        {"{a{b}c}", "syntax error, unexpected COMPILED_EXPR near >a{b}c<"},
        {"}", "syntax error, unexpected $undefined near >}<"},  // '}' is in no rule
        {"1 " + kLong, "syntax error, unexpected ID, expecting $end near >" + kLong + "<"},
        // Order matters below: an open brace block carries into the next parse.
        {"{abc", "syntax error, unexpected $end near ><"},
        {"x}", "syntax error, unexpected COMPILED_EXPR near >x<"},
    };
    for (const Row& row : rows) {
        EXPECT_EQ("Parsing OxError: " + row.message + "\n", printed(row.text)) << row.text;
        EXPECT_EQ(row.message, OxConverter::lastError().c_str()) << row.text;
    }
    EXPECT_EQ(3, valueOf("b"));
    EXPECT_STREQ("", OxConverter::lastError().c_str());
    // Names that merely resemble keywords need an assignment like any unknown name.
    for (const char* name : {"sinx", "sin2", "Sin", "SIN", "log", "pi", "e", "_", "a_1", "A9"})
        EXPECT_EQ("Parsing OxError: syntax error, unexpected $end, expecting '=' near ><\n",
                  printed(name)) << name;
}

TEST(ParserTrees, PrintedShapes)
{
    struct Row {
        const char* text;
        const char* tree;
    } rows[] = {
        {"a + b % c", "(a+b)%c"},  // '%' binds like '+'
        {"a * b % c", "(a*b)%c"},
        {"a * b | c", "a*(b|c)"},  // bitwise binds tighter than '*'
        {"a << b + c", "(a<<b)+c"},
        {"a | b & c", "(a|b)&c"},  // one shared bitwise level, left associative
        {"-a * b", "((-1)*a)*b"},  // prefix minus is a product with -1
        {"-a | b", "(-1)*a|b"},
        {"-2^3", "(-1)*2^3"},  // '^' is exclusive or: (-2) xor 3
        {"!a + b", "OXEL(a)+b"},
        {"!-a", "OXEL((-1)*a)"},
        {"- - 3", "(-1)*((-1)*3)"},
        {"a != b", "OXEL((a)OXEL(b))"},  // not over equality
        {"a - b - c", "(a-b)-c"},
        {"1 + a = 2 * 3", "1+a"},  // the assignment prints its name only
        {"sin(a = 1)", "sin(a)"},
        {"gauss() + rand()", "+rand()"},  // gauss prints as empty text
        {"0xAB = 4", "B"},                // 0xA vanishes, B is a new name
        {"a;", "a"},  // a trailing ';' adds no statement
        {"a; b; c", "(aBb)Bc"},
    };
    for (const Row& row : rows)
        EXPECT_EQ(row.tree, printed(row.text)) << row.text;
}

TEST(ParserTrees, Values)
{
    using namespace std;  // the C library's functions are the independent answers
    const double x = 0.5;
    struct Row {
        const char* text;
        double expected;
    } rows[] = {
        {"a + b * c", 2 + 3 * 5},
        {"1 || 1 && 0", 0},  // (1||1)&&0
        {"a > b || b >= 3 && c <= 5", 1},
        {"1 + a = 2 * 3", 7},
        {"a = b = 4; a + b", 8},  // declared names are assigned in their own slots
        {"y = 2; y * 3", 6},
        {"diff(sin(x), x)", cos(x)},  // the derivative itself, not a node
        {"diff(a * x, x) + diff(b, x)", 2},
        {"sin(x) + 2 * cos(x) + 4 * tan(x)", sin(x) + 2 * cos(x) + 4 * tan(x)},
        {"acos(x) + 2 * asin(x) + 4 * atan(x)", acos(x) + 2 * asin(x) + 4 * atan(x)},
        {"acosh(b) + 2 * asinh(x) + 4 * atanh(x)", acosh(3) + 2 * asinh(x) + 4 * atanh(x)},
        {"sinh(x) + 2 * cosh(x) + 4 * tanh(x)", sinh(x) + 2 * cosh(x) + 4 * tanh(x)},
        {"exp(x) + 2 * expm1(x) + 4 * log10(c)", exp(x) + 2 * expm1(x) + 4 * log10(5)},
        {"erf(x) + 2 * erfc(x) + 4 * ln(b)", erf(x) + 2 * erfc(x) + 4 * log(3)},
        {"sqrt(c) + 2 * cbrt(c) + 4 * abs(-a)", sqrt(5) + 2 * cbrt(5) + 4 * 2},
        {"floor(-x) + 2 * ceil(x) + 4 * trunc(-2.7) + 8 * rint(2.5)", -1 + 2 - 4 * 2 + 8 * 2},
        {"j0(x) + 2 * j1(x) + 4 * jn(2, x)", j0(x) + 2 * j1(x) + 4 * jn(2, x)},
        {"y0(x) + 2 * y1(x) + 4 * yn(2, x)", y0(x) + 2 * y1(x) + 4 * yn(2, x)},
        {"pow(a, b) + 2 * atan2(a, b) + 4 * hypot(b, 4)", 8 + 2 * atan2(2, 3) + 4 * 5},
        {"fmod(c, b) + 2 * drem(c, b) + 4 * copysign(a, -1)", 2 + 2 * -1 + 4 * -2},
        {"max(a, b) + 2 * min(a, b) + 4 * sgn(-c)", 3 + 2 * 2 + 4 * -1},
        {"1e5 + 1.E-5 + 2E+7 + 007 + 5. + 1.5e-3", 1e5 + 1e-5 + 2e7 + 7 + 5 + 1.5e-3},
    };
    for (const Row& row : rows)
        EXPECT_DOUBLE_EQ(row.expected, valueOf(row.text)) << row.text;
}

TEST(ParserLexer, UnknownCharactersAreEchoedAndSkipped)
{
    testing::internal::CaptureStdout();
    std::string tree = printed("a $+#\"? 1");
    EXPECT_EQ("$#\"?", testing::internal::GetCapturedStdout());
    EXPECT_EQ("a+1", tree);
}

TEST(ParserLexer, NumbersIgnoreHostLocale)
{
    std::string saved = std::setlocale(LC_ALL, nullptr);
    if (!std::setlocale(LC_ALL, "de_DE.UTF-8"))
        GTEST_SKIP() << "de_DE.UTF-8 locale not installed";
    double v = valueOf("1.5 + 2.25e1");
    std::setlocale(LC_ALL, saved.c_str());
    EXPECT_EQ(24.0, v);
}

TEST(ParserNames, AssignmentsAppendNames)
{
    std::string ring, ringNames;  // 150 new names wrap the name ring more than once
    for (int i = 0; i < 150; ++i) {
        ring += "name_number_" + std::to_string(i) + " = 1;";
        ringNames += "name_number_" + std::to_string(i) + ",";
    }
    struct Row {
        std::string text, names;  // the caller's names after the parse, in order
    } rows[] = {
        {"x = 2; x * 3", "x,"},
        {"y = 1; +", "y,"},           // names added before a failing statement stay
        {"u = (v = 1) + 1", "v,u,"},  // the inner assignment is built first
        {"v = v = 1", "v,"},          // the outer one finds the name the inner one added
        {ring, ringNames},
    };
    for (const Row& row : rows) {
        KxDArray<KxString> names;
        oxelDestroy(parse(row.text, &names).tree);
        std::string joined;
        for (int i = 0; i < names.length(); ++i)
            joined += std::string(names[i].c_str()) + ",";
        EXPECT_EQ(row.names, joined) << row.text.substr(0, 20);
    }
}

TEST(ParserNames, Aliases)
{
    KxDArray<KxString> names;
    for (const char* n : {"p", "q", "r", "v"})
        names.append(KxString(n));
    KxHashTable<KxString, KxString> aliases(KxString(""));
    aliases.insert(KxString("speed"), KxString("v"));
    aliases.insert(KxString("ghost"), KxString("nothing"));
    Result r = parse("speed = 5; speed * 2; ghost = 1", &names, &aliases);
    ASSERT_NE(nullptr, r.tree);
    EXPECT_EQ("(vBv*2)Bghost", oxelToString(r.tree));  // assigned under the target's name
    double vars[5] = {0, 0, 0, 0, 0};
    int err = 0;
    r.tree->value(vars, err);
    EXPECT_EQ(5, vars[3]);
    EXPECT_EQ(1, vars[4]);  // a missing target leaves the alias an unknown, appended name
    ASSERT_EQ(5, names.length());
    EXPECT_STREQ("ghost", names[4].c_str());
    oxelDestroy(r.tree);
}

TEST(ParserEntry, FailedStatementKeepsItsCut)
{
    KxDArray<KxString> names;
    struct Row {
        std::string text, after;
    } rows[] = {
        {"+;1", "+"},    // the NUL over the failing statement's ';' stays
        {"1;+", "1;+"},  // restored before the second statement
        {"1;2", "1;2"},
    };
    for (Row& row : rows) {
        testing::internal::CaptureStderr();
        oxelDestroy(OxConverter::strToOxel(&row.text[0], names, 0, nullptr));
        testing::internal::GetCapturedStderr();
        EXPECT_EQ(row.after, row.text.c_str());
    }
}

TEST(ParserDepVars, ReferencesAndChecks)
{
    int mark = 0;  // any user data marks the one-dimensional source
    OxDepVarnode d("d", depCallback, nullptr), unset("u", depCallback, nullptr),
        empty("e", depCallback, nullptr), shadow("a", depCallback, nullptr),
        oneDim("f", depCallback, &mark), bare("g", depCallback, nullptr);
    char nameA[] = "a", nameB[] = "b";
    char* defaults[] = {nameA, nameB};
    int indices[] = {0, 1};
    d.setUp(2, 3, 1, defaults, indices);
    empty.setUp(2, 0, 1, defaults, indices);
    shadow.setUp(2, 3, 1, defaults, indices);
    oneDim.setUp(1, 1, 1, defaults, indices);
    bare.setUp(2, 3, 1, nullptr, nullptr);  // no default arguments
    OxDepVarnode* nodes[] = {&unset, &d, &empty, &shadow, &oneDim, &bare};
    const char* few =
        "dependant variable doesn't have enough components or has no default arguments near ><";
    const char* noData = "dependant variable has no data or has no default arguments near ><";
    struct Row {
        const char* text;
        double value;         // when message is empty
        const char* message;  // the parse error otherwise
    } rows[] = {
        {"d", 0 + 20 + 3, ""},  // component 0 at the defaults a, b
        {"d[2]", 200 + 20 + 3, ""},
        {"d[1](c, 7)", 100 + 50 + 7, ""},
        {"d[1.9](1, 2)", 100 + 10 + 2, ""},  // the index truncates
        {"g[2](1, 2)", 200 + 10 + 2, ""},    // explicit arguments need no defaults
        {"a + 1", 3, ""},                    // a variable hides a descriptor
        {"f[0]()", 20, ""},                  // "()" counts as one dimension
        {"d[3]", 0, few},
        {"g[0]", 0, few},
        {"d[3](1, 2)", 0, "Dependant variable d has only 3 components.\n near >)<"},
        {"d[9]()", 0, "dependant variable d requires 2 dimensions\n near >)<"},  // dimensions first
        {"e", 0, noData},
        {"g", 0, noData},
        {"d[x]", 0, "syntax error, unexpected VAR, expecting NUM near >x<"},
        {"d(1, 2)", 0, "syntax error, unexpected '(', expecting $end near >(<"},
        {"d[0](1, 2, 3, 4, 5, 6, 7)", 0, "syntax error, unexpected ',' near >,<"},  // six at most
        {"u", 0, "syntax error, unexpected $end, expecting '=' near ><"},  // not set up: a name
    };
    for (const Row& row : rows) {
        Result r = parse(row.text, nullptr, nullptr, 6, nodes);
        EXPECT_EQ(*row.message ? "Parsing OxError: " + std::string(row.message) + "\n" : "", r.err)
            << row.text;
        double vars[4] = {2, 3, 5, 0.5};
        int err = 0;
        EXPECT_EQ(row.value, r.tree ? r.tree->value(vars, err) : 0) << row.text;
        oxelDestroy(r.tree);
    }
}
