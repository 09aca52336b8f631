// Behaviour of the oxel program: runs the built binary and checks output and exit status.
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <oxel/oxel.h>

namespace {

struct Result {
    int status = -1;
    std::string out, err;
};

std::string shellQuote(const std::string& s)
{
    std::string q = "'";
    for (char c : s) {
        if (c == '\'')
            q += "'\\''";
        else
            q += c;
    }
    return q + "'";
}

std::string readFile(const std::string& path)
{
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

std::string tempPath(const char* what)
{
    const char* dir = std::getenv("TMPDIR");
    std::string templ = std::string(dir && *dir ? dir : "/tmp") + "/oxel-cli-" + what + "-XXXXXX";
    std::vector<char> buf(templ.begin(), templ.end());
    buf.push_back('\0');
    int fd = mkstemp(buf.data());
    if (fd >= 0)
        close(fd);
    return buf.data();
}

// Runs oxel with the arguments (no shell interpretation of them) and the given standard input.
Result runOxel(const std::vector<std::string>& args, const std::string& input = "")
{
    std::string inPath = tempPath("in"), errPath = tempPath("err");
    {
        std::ofstream in(inPath);
        in << input;
    }
    std::string cmd = shellQuote(OXEL_CLI_PATH);
    for (const std::string& a : args)
        cmd += " " + shellQuote(a);
    cmd += " <" + shellQuote(inPath) + " 2>" + shellQuote(errPath);

    Result r;
    FILE* p = popen(cmd.c_str(), "r");
    if (!p) {
        ADD_FAILURE() << "cannot start " << cmd;
        return r;
    }
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0)
        r.out.append(buf, n);
    int raw = pclose(p);
    r.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    r.err = readFile(errPath);
    std::remove(inPath.c_str());
    std::remove(errPath.c_str());
    return r;
}

std::vector<std::string> lines(const std::string& text)
{
    std::vector<std::string> out;
    std::stringstream ss(text);
    std::string line;
    while (std::getline(ss, line))
        out.push_back(line);
    return out;
}

std::vector<std::string> fields(const std::string& line)
{
    std::vector<std::string> out;
    std::stringstream ss(line);
    std::string f;
    while (std::getline(ss, f, ','))
        out.push_back(f);
    return out;
}

// The whole text must be one number.
double number(const std::string& text)
{
    char* end = nullptr;
    double v = std::strtod(text.c_str(), &end);
    EXPECT_TRUE(end && *end == '\0' && !text.empty()) << "not a number: '" << text << "'";
    return v;
}

// What the library itself prints for a formula, a derivative or a simplification.
std::string libraryText(const std::string& formula, const std::vector<std::string>& vars,
                        const char* diffVar, bool simplify)
{
    OxelExpression e;
    for (const std::string& v : vars)
        e.addVar(v.c_str());
    std::vector<char> text(formula.begin(), formula.end());
    text.push_back('\0');
    EXPECT_EQ(e.initFromString(text.data()), 1) << formula;
    std::unique_ptr<OxelExpression> d(diffVar ? e.derivative(diffVar) : nullptr);
    OxelExpression* source = diffVar ? d.get() : &e;
    if (!source)
        return "<no derivative>";
    std::unique_ptr<OxelExpression> s(simplify ? source->simplifiedFully() : nullptr);
    return oxelToString((s ? s.get() : source)->root());
}

TEST(OxelProgram, EvalAgreesWithTheCMathLibrary)
{
    struct Case {
        std::vector<std::string> args;
        double expected;
    } cases[] = {
        {{"sin(x)*y + 1", "x=0.5", "y=2"}, std::sin(0.5) * 2 + 1},
        {{"exp(-x/4)*sin(x)", "x=2.25"}, std::exp(-2.25 / 4) * std::sin(2.25)},
        {{"hypot(a, b)", "a=3", "b=4"}, 5.0},
        {{"pow(x,3) - 2*x", "x=1.5"}, 1.5 * 1.5 * 1.5 - 3.0},
        // A formula that starts with '-' is a formula, not an option.
        {{"-x * 3", "x=2"}, -6.0},
        // Values may be negative and in exponent form.
        {{"x + y", "x=-1.5e3", "y=.25"}, -1499.75},
        // ^ is exclusive or; powers are pow().
        {{"2^3"}, 1.0},
        {{"pow(2,3)"}, 8.0},
        // % binds like +, bitwise operators tighter than *.
        {{"1 + 7 % 4"}, 0.0},
        {{"2 * 3 | 4"}, 14.0},
        // Assignments create internal variables; the last statement gives the value.
        {{"a = x*2; a + 1", "x=0.75"}, 2.5},
        {{"a = 1; b = a + 1; a + b"}, 3.0},
        // An alias stands for its variable.
        {{"t * 2", "--alias", "t=x", "x=1.25"}, 2.5},
        {{"t * 2", "x=1.25", "--alias=t=x"}, 2.5},
        {{"t + x", "t=4", "--alias", "t=x"}, 8.0},
    };
    for (const Case& c : cases) {
        std::vector<std::string> args = {"eval"};
        args.insert(args.end(), c.args.begin(), c.args.end());
        Result r = runOxel(args);
        SCOPED_TRACE(c.args[0]);
        EXPECT_EQ(r.status, 0) << r.err;
        std::vector<std::string> out = lines(r.out);
        ASSERT_EQ(out.size(), 1u) << r.out;
        EXPECT_EQ(number(out[0]), c.expected);
    }
}

TEST(OxelProgram, EvalPrintsTheShortestTextThatReadsBack)
{
    struct Case {
        const char* formula;
        const char* text;
    } cases[] = {
        {"0.5*3", "1.5"},
        {"1/4", "0.25"},
        {"1e20*10", "1e+21"},
        {"1/3", "0.3333333333333333"},  // 16 digits suffice, 15 do not
        {"0.1+0.2", "0.30000000000000004"},  // needs all 17
    };
    for (const Case& c : cases) {
        Result r = runOxel({"eval", c.formula});
        EXPECT_EQ(r.status, 0) << c.formula << r.err;
        EXPECT_EQ(r.out, std::string(c.text) + "\n") << c.formula;
    }
}

TEST(OxelProgram, EvalErrorsGiveValueCodeAndMessage)
{
    struct Case {
        const char* formula;
        const char* value;
        int code;
        const char* message;
    } cases[] = {
        {"1/x", "x=0", 8, "Division by zero"},
        {"ln(x)", "x=-1", 11, "Illegal log argument"},
        {"sqrt(x)", "x=-4", 12, "Radicand negativ"},
        {"asin(x)", "x=2", 14, "Arcus range"},
        {"fmod(x, 0)", "x=1", 666, "Illegal argument"},
    };
    for (const Case& c : cases) {
        Result r = runOxel({"eval", c.formula, c.value});
        SCOPED_TRACE(c.formula);
        EXPECT_EQ(r.status, 3);
        std::vector<std::string> out = lines(r.out);
        ASSERT_EQ(out.size(), 1u) << r.out;
        number(out[0]);
        EXPECT_NE(r.err.find("evaluation error " + std::to_string(c.code) + ": " + c.message),
                  std::string::npos)
            << r.err;
        EXPECT_STREQ(vOxError(c.code), c.message);
    }
}

TEST(OxelProgram, ParseErrorsExitWithTwo)
{
    struct Case {
        std::vector<std::string> args;
        const char* message;  // the parser's own text, after "oxel: parse error: "
    } cases[] = {
        {{"eval", "1 )"}, "syntax error, unexpected ')', expecting $end near >)<"},
        {{"eval", "sin 1"}, "syntax error, unexpected NUM, expecting '(' near >1<"},
        // y is not declared: a lone unknown name can only start an assignment.
        {{"eval", "x + y", "x=1"}, "syntax error, unexpected $end, expecting '=' near ><"},
        {{"print", "x +", "x"}, "syntax error, unexpected $end near ><"},
        {{"diff", "max(x)", "x"}, "syntax error, unexpected ')'"},
        {{"table", "x +* 2", "x=0:1"}, "syntax error"},
    };
    for (const Case& c : cases) {
        Result r = runOxel(c.args);
        SCOPED_TRACE(c.args[1]);
        EXPECT_EQ(r.status, 2);
        EXPECT_NE(r.err.find(std::string("oxel: parse error: ") + c.message), std::string::npos)
            << r.err;
        EXPECT_EQ(r.out, "");
    }
    Result hint = runOxel({"eval", "x + y", "x=1"});
    EXPECT_NE(hint.err.find("hint: declare every variable"), std::string::npos) << hint.err;
}

TEST(OxelProgram, UsageErrorsExitWithOneAndPointToHelp)
{
    const std::vector<std::vector<std::string>> cases = {
        {},
        {"frobnicate", "x"},
        {"eval"},
        {"eval", ""},
        {"eval", "   "},
        {"eval", "x", "x=abc"},
        {"eval", "x", "x=1x"},
        {"eval", "x", "x="},
        {"eval", "x", "=1"},
        {"eval", "x", "x=1e999"},
        {"eval", "x", "x"},  // eval needs values
        {"eval", "x", "x=1", "x=2"},
        {"eval", "x", "1x=2"},
        {"eval", "x", "x=1", "--bogus"},
        {"eval", "x", "x=1", "--alias"},
        {"eval", "x", "x=1", "--alias", "t"},
        {"eval", "x", "--var", "y", "x=1"},  // y has no value
        {"eval", "x", "x=1", "--simplify"},
        {"eval", "x", "x=1", "--csv"},
        {"diff", "x"},
        {"diff", "x", "1x"},
        {"print", "x", "x", "--once"},
        {"table", "x"},
        {"table", "x", "x"},
        {"table", "x", "x=0:1:0"},
        {"table", "x", "x=0:1:-0.5"},
        {"table", "x", "x=1:0"},
        {"table", "x", "x=0:1:2:3"},
        {"table", "x", "x=0"},  // a fixed value only, no range
        {"table", "x", "x=a:1"},
        {"table", "x", "x=0:inf:1"},
        {"table", "x", "x=0:1:nan"},
        {"table", "x", "x=0:1e8"},
        {"table", "x*y", "x=0:5000", "y=0:5000"},
        {"table", "x", "x=0:1", "x=0:2"},
        {"table", "x", "x=0:1", "--csv"},
        {"table", "x+y", "x=0:1", "--var", "y"},
    };
    for (const auto& args : cases) {
        Result r = runOxel(args);
        std::string joined;
        for (const std::string& a : args)
            joined += "[" + a + "]";
        SCOPED_TRACE(joined);
        EXPECT_EQ(r.status, 1) << r.err;
        EXPECT_EQ(r.err.rfind("oxel: ", 0), 0u) << r.err;
        EXPECT_NE(r.err.find("--help"), std::string::npos) << r.err;
        EXPECT_EQ(r.out, "");
    }
}

TEST(OxelProgram, HelpExplainsEveryCommandAndExitStatus)
{
    for (const char* flag : {"--help", "-h"}) {
        Result r = runOxel({flag});
        EXPECT_EQ(r.status, 0);
        for (const char* word : {"eval", "diff", "simplify", "print", "table", "--csv",
                                 "--alias", "--simplify", "--version", "pow(a, b)"})
            EXPECT_NE(r.out.find(word), std::string::npos) << word;
        for (const char* status : {"0  success", "1  usage error", "2  the formula does not parse",
                                   "3  evaluation error", "4  no derivative"})
            EXPECT_NE(r.out.find(status), std::string::npos) << status;
    }
    // --help after a command still shows the help instead of running it.
    EXPECT_EQ(runOxel({"eval", "x", "--help"}).status, 0);
}

TEST(OxelProgram, VersionShowsTheBuildRecord)
{
    Result r = runOxel({"--version"});
    EXPECT_EQ(r.status, 0);
    std::vector<std::string> recordFields;
    {
        std::stringstream ss(orvexpackage_oxel());
        std::string f;
        while (std::getline(ss, f, '|'))
            recordFields.push_back(f);
    }
    ASSERT_EQ(recordFields.size(), 33u);  // leading empty field, 16 keys and their values
    std::string version = "oxel " + recordFields[6] + "." + recordFields[8] + "." + recordFields[10];
    EXPECT_EQ(r.out.rfind(version, 0), 0u) << r.out;
    for (size_t i = 1; i + 1 < recordFields.size(); i += 2) {
        std::string line = recordFields[i] + ":";
        line.resize(std::max<size_t>(line.size(), 14), ' ');
        line = "  " + line + " " + recordFields[i + 1] + "\n";
        EXPECT_NE(r.out.find(line), std::string::npos) << recordFields[i];
    }
}

TEST(OxelProgram, DiffPrintsTheLibraryDerivative)
{
    struct Case {
        std::vector<std::string> args;  // formula, variable, further declarations
        std::vector<std::string> vars;  // the same variables, for the library
        bool simplify;
    } cases[] = {
        {{"pow(x,3)*y", "x", "y"}, {"x", "y"}, false},
        {{"pow(x,3)*y", "x", "y"}, {"x", "y"}, true},
        {{"x*y", "y", "x=2"}, {"y", "x"}, false},
        {{"sin(x)*exp(-x/4)", "x"}, {"x"}, true},
        {{"x*y + ln(x)", "x", "--var", "y"}, {"x", "y"}, true},
    };
    for (const Case& c : cases) {
        std::vector<std::string> args = {"diff"};
        args.insert(args.end(), c.args.begin(), c.args.end());
        if (c.simplify)
            args.push_back("--simplify");
        SCOPED_TRACE(c.args[0] + (c.simplify ? " simplified" : ""));
        Result r = runOxel(args);
        EXPECT_EQ(r.status, 0) << r.err;
        EXPECT_EQ(r.out, libraryText(c.args[0], c.vars, c.args[1].c_str(), c.simplify) + "\n");
    }
    // Differentiating by an alias is differentiating by its variable.
    Result alias = runOxel({"diff", "t*y", "t", "y", "--alias", "t=x"});
    EXPECT_EQ(alias.status, 0) << alias.err;
    EXPECT_EQ(alias.out, libraryText("x*y", {"x", "y"}, "x", false) + "\n");
}

TEST(OxelProgram, DiffWithoutDerivativeExitsWithFour)
{
    // The remainder has no derivative.
    Result r = runOxel({"diff", "x % 2", "x"});
    EXPECT_EQ(r.status, 4);
    EXPECT_EQ(r.out, "");
    EXPECT_NE(r.err.find("no derivative"), std::string::npos) << r.err;
}

TEST(OxelProgram, PrintAndSimplifyShowTheTreeText)
{
    // Operands of equal priority are bracketed on both sides; a lower-priority child is bracketed.
    struct Case {
        const char* formula;
        const char* text;
    } printed[] = {
        {"(a-b)-c", "(a-b)-c"},
        {"a-(b-c)", "a-(b-c)"},
        {"a*b+c", "a*b+c"},
        {"(a+b)*c", "(a+b)*c"},
    };
    for (const Case& c : printed) {
        Result r = runOxel({"print", c.formula, "a", "b", "c"});
        EXPECT_EQ(r.status, 0) << r.err;
        EXPECT_EQ(r.out, std::string(c.text) + "\n");
    }
    Result folded = runOxel({"simplify", "2*3"});
    EXPECT_EQ(folded.status, 0) << folded.err;
    EXPECT_EQ(number(lines(folded.out).at(0)), 6.0);

    for (const char* formula : {"2+3*x*1", "x*1 + 0*y", "(x+0)*(1*y)"}) {
        Result r = runOxel({"simplify", formula, "x", "y=4"});
        EXPECT_EQ(r.status, 0) << r.err;
        EXPECT_EQ(r.out, libraryText(formula, {"x", "y"}, nullptr, true) + "\n") << formula;
        Result once = runOxel({"simplify", formula, "x", "y", "--once"});
        OxelExpression e;
        e.addVar("x");
        e.addVar("y");
        std::string text = formula;
        ASSERT_EQ(e.initFromString(&text[0]), 1);
        std::unique_ptr<OxelExpression> s(e.simplified());
        ASSERT_TRUE(s);
        EXPECT_EQ(once.out, oxelToString(s->root()) + "\n") << formula;
    }
}

TEST(OxelProgram, TableOfOneRange)
{
    Result r = runOxel({"table", "sin(x)*exp(-x/4)", "x=0:10:0.5"});
    EXPECT_EQ(r.status, 0) << r.err;
    std::vector<std::string> out = lines(r.out);
    ASSERT_EQ(out.size(), 22u);
    EXPECT_EQ(out[0], "x,value,error");
    for (int i = 0; i <= 20; ++i) {
        std::vector<std::string> f = fields(out[i + 1]);
        ASSERT_EQ(f.size(), 3u) << out[i + 1];
        double x = i * 0.5;
        EXPECT_EQ(number(f[0]), x);
        EXPECT_EQ(number(f[1]), std::sin(x) * std::exp(-x / 4));
        EXPECT_EQ(f[2], "0");
    }
}

TEST(OxelProgram, TableRangeEndpoints)
{
    struct Case {
        const char* range;
        double start, step;
        int points;
    } cases[] = {
        {"x=0:1:0.1", 0, 0.1, 11},   // the stop is reached despite 0.1 being inexact
        {"x=0:1:0.3", 0, 0.3, 4},    // the stop is not a grid point
        {"x=0:0.3:0.1", 0, 0.1, 4},  // 0.3/0.1 falls just short of 3 in doubles
        {"x=1:0:-0.25", 1, -0.25, 5},
        {"x=2:2:-1", 2, -1, 1},      // a single point takes either sign
        {"x=-3:3", -3, 1, 7},        // the step defaults to 1
    };
    for (const Case& c : cases) {
        Result r = runOxel({"table", "x", c.range});
        SCOPED_TRACE(c.range);
        EXPECT_EQ(r.status, 0) << r.err;
        std::vector<std::string> out = lines(r.out);
        ASSERT_EQ(out.size(), static_cast<size_t>(c.points) + 1);
        for (int i = 0; i < c.points; ++i) {
            std::vector<std::string> f = fields(out[i + 1]);
            ASSERT_EQ(f.size(), 3u);
            EXPECT_EQ(number(f[0]), c.start + i * c.step);
            EXPECT_EQ(f[1], f[0]);
        }
    }
}

TEST(OxelProgram, TableNestsRangesAndKeepsFixedValues)
{
    Result r = runOxel({"table", "x*10 + y + c", "x=1:2", "c=100", "y=0:1:0.5"});
    EXPECT_EQ(r.status, 0) << r.err;
    std::vector<std::string> out = lines(r.out);
    ASSERT_EQ(out.size(), 7u);
    EXPECT_EQ(out[0], "x,y,value,error");
    int row = 1;
    for (double x : {1.0, 2.0})
        for (double y : {0.0, 0.5, 1.0}) {
            std::vector<std::string> f = fields(out[row++]);
            ASSERT_EQ(f.size(), 4u);
            EXPECT_EQ(number(f[0]), x);
            EXPECT_EQ(number(f[1]), y);
            EXPECT_EQ(number(f[2]), x * 10 + y + 100);
        }
}

TEST(OxelProgram, TableReportsErrorsPerRow)
{
    Result r = runOxel({"table", "1/x", "x=-1:1"});
    EXPECT_EQ(r.status, 0) << r.err;
    std::vector<std::string> out = lines(r.out);
    ASSERT_EQ(out.size(), 4u);
    EXPECT_EQ(fields(out[1]).at(2), "0");
    EXPECT_EQ(fields(out[2]).at(2), "8");  // division by zero at x = 0
    EXPECT_EQ(fields(out[3]).at(2), "0");
    EXPECT_EQ(number(fields(out[1]).at(1)), -1.0);
}

TEST(OxelProgram, TableEvaluatesAssignmentsInEveryRow)
{
    Result r = runOxel({"table", "a = x*2; a + 1", "x=0:2"});
    EXPECT_EQ(r.status, 0) << r.err;
    std::vector<std::string> out = lines(r.out);
    ASSERT_EQ(out.size(), 4u);
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(number(fields(out[i + 1]).at(1)), 2.0 * i + 1);
}

TEST(OxelProgram, TableFromCsvInput)
{
    Result r = runOxel({"table", "x*y + c", "--csv", "c=0.5"}, " x , y\n1,2\n\n3,-4\r\n1e3,0.25\n");
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "x,y,value,error\n1,2,2.5,0\n3,-4,-11.5,0\n1000,0.25,250.5,0\n");

    Result errors = runOxel({"table", "ln(x)", "--csv"}, "x\n1\n-1\n");
    EXPECT_EQ(errors.status, 0) << errors.err;
    EXPECT_EQ(lines(errors.out).at(2).substr(lines(errors.out).at(2).rfind(',')), ",11");

    struct Bad {
        const char* input;
        std::vector<std::string> extra;
    } bad[] = {
        {"", {}},                    // no header
        {"x,y\n1\n", {}},            // too few fields
        {"x,y\n1,2,3\n", {}},        // too many fields
        {"x,y\n1,abc\n", {}},        // not a number
        {"x,1y\n1,2\n", {}},         // not a name
        {"x,x\n1,2\n", {}},          // a name twice
        {"x,y\n1,2\n", {"y=3"}},     // column and argument
        {"x\n1\n", {"--var", "y"}},  // y gets no value
    };
    for (const Bad& b : bad) {
        std::vector<std::string> args = {"table", "x+y", "--csv"};
        args.insert(args.end(), b.extra.begin(), b.extra.end());
        Result e = runOxel(args, b.input);
        EXPECT_EQ(e.status, 1) << b.input << e.err;
        EXPECT_NE(e.err.find("--help"), std::string::npos) << b.input;
    }
}

}  // namespace
