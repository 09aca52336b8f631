// Behaviour of the oxel program: runs the built binary and checks output and exit status.
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include <oxel/oxel.h>

#include "number_text.h"

namespace {

struct Result { int status = -1; std::string out, err; };

std::string quote(const std::string& s)
{
    std::string q = "'";
    for (char c : s)
        q += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return q + "'";
}

std::string slurp(const char* path)
{
    std::stringstream ss;
    ss << std::ifstream(path).rdbuf();
    return ss.str();
}

// Runs oxel with the arguments (no shell interpretation of them) and the given standard input;
// standard output goes to stdoutTo when given.
Result runOxel(const std::vector<std::string>& args, const std::string& input = "",
               const char* stdoutTo = nullptr)
{
    char in[] = "/tmp/oxel-cli-XXXXXX", out[] = "/tmp/oxel-cli-XXXXXX", err[] = "/tmp/oxel-cli-XXXXXX";
    for (char* path : {in, out, err})
        close(mkstemp(path));
    std::ofstream(in) << input;
    std::string cmd = quote(OXEL_CLI_PATH);
    for (const std::string& a : args)
        cmd += " " + quote(a);
    cmd += std::string(" <") + in + " >" + (stdoutTo ? stdoutTo : out) + " 2>" + err;
    int raw = std::system(cmd.c_str());
    Result r{WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, slurp(out), slurp(err)};
    for (char* path : {in, out, err})
        std::remove(path);
    return r;
}

bool endsWith(const std::string& s, const std::string& tail)
{
    return s.size() >= tail.size() && s.compare(s.size() - tail.size(), tail.size(), tail) == 0;
}

// out must end standard output ("" means no output at all); err must occur in standard
// error ("" means nothing there). Usage errors must also point to --help.
struct Case { std::vector<std::string> args; int status; const char *out, *err, *input = ""; };

const char kParseFail[] = "\noxel: the formula does not parse\n";
const char kTable[] = "x,y,value,error\n1,0,110,0\n1,0.5,110.5,0\n1,1,111,0\n2,0,120,0\n2,0.5,120.5,0\n2,1,121,0\n";

const Case kCases[] = {
    {{"eval", "sin(x)*y + 1", "x=0.5", "y=2"}, 0, "1.958851077208406\n", ""},
    {{"eval", "-x * 3", "x=2"}, 0, "-6\n", ""},  // a leading '-' is formula text, not an option
    {{"eval", "x + y", "x=-1.5e3", "y=.25"}, 0, "-1499.75\n", ""},
    {{"eval", "t * 2", "x=1.25", "--alias=t=x"}, 0, "2.5\n", ""},
    {{"eval", "t + x", "t=4", "--alias", "t=x", "--alias", "t=x"}, 0, "8\n", ""},
    {{"eval", "1/3"}, 0, "0.3333333333333333\n", ""},  // 16 digits suffice
    {{"eval", "0.1+0.2"}, 0, "0.30000000000000004\n", ""},
    {{"eval", "1e23"}, 0, "1e+23\n", ""},  // 15 digits suffice; 16 would show 9.999999999999999e+22
    {{"eval", "x", "x=nan"}, 0, "nan\n", ""},
    {{"eval", "x", "x=1e-999"}, 0, "0\n", ""},  // underflow is harmless
    {{"eval", "1/x", "x=0"}, 3, "", "oxel: evaluation error 8: Division by zero\n"},  // no fallback value
    {{"eval", "1/x", "x=0", "--value"}, 3, "1\n", "oxel: evaluation error 8: Division by zero\n"},
    {{"eval", "a = x*2; a + 1", "x=1"}, 0, "3\n", ""},  // an assigned name needs no value
    // The parser's message, then the formula with a caret under the place where it stopped.
    {{"eval", "1 )"}, 2, "", "Parsing OxError: syntax error, unexpected ')', expecting $end near >)<\n  1 )\n    ^\noxel: the formula does not parse\n"},
    {{"eval", "x + sin 1", "x=1"}, 2, "", "near >1<\n  x + sin 1\n          ^\noxel"},
    {{"eval", "x +", "x=1"}, 2, "", "near ><\n  x +\n     ^\noxel"},  // the end of the text
    {{"eval", "x + y", "x=1"}, 1, "", "no value for variable 'y'"},
    // A name before '(' is an unknown function, not a variable without a value; the 'e' of an
    // exponent is no name.
    {{"eval", "x + foo(1)", "x=1"}, 2, "", "  x + foo(1)\n      ^\noxel: unknown function 'foo'\n"},
    {{"eval", "2e3 (1)"}, 2, "", "unexpected '('"},
    {{"eval", "x**2", "x=1"}, 2, "", "oxel: hint: powers are written pow(a, b); ^ is exclusive or\n"},
    {{"eval", "log(x)", "x=1"}, 2, "", "'log'\noxel: hint: no function log: ln is the natural logarithm"},
    {{"table", "x @+ 1", "x=0:1"}, 0, "x,value,error\n0,1,0\n1,2,0\n", "oxel: warning: ignored character '@' at offset 2\n"},
    {{"diff", "x < 1", "x"}, 0, "x < 1\n", "oxel: warning: diff: Not yet implemented in OXEL.\n"},
    {{"names", "a = x*2; a + sinx + sin(x) + b"}, 0, "a\nx\nsinx\nb\n", ""},
    {{"names", "1 + 2"}, 0, "", ""},
    {{"eval", ";"}, 2, "", kParseFail}, {{"diff", "max(x)", "x"}, 2, "", kParseFail},
    {{"table", "x +* 2", "x=0:1"}, 2, "", kParseFail},
    {{"table", "x", "--csv"}, 1, "", "no value for variable 'x'", "y\n1\n"},
    {{"table", "x +* y", "--csv"}, 2, "", kParseFail, "y,x\n1,2\n"},
    {{"diff", "x % 2", "x"}, 4, "", "oxel: no derivative with respect to x can be formed"},
    {{"table", "x*10 + y + c", "x=1:2", "c=100", "y=0:1:0.5"}, 0, kTable, ""},
    {{"table", "x", "x=0:1:0.1"}, 0, "\n0.9,0.9,0\n1,1,0\n", ""},  // the stop survives rounding
    {{"table", "x", "x=0:0.3:0.1"}, 0, "\n0.30000000000000004,0.30000000000000004,0\n", ""},
    {{"table", "x", "x=1:0:-0.25"}, 0, "\n0.25,0.25,0\n0,0,0\n", ""},
    {{"table", "x", "x=2:2:-1"}, 0, "x,value,error\n2,2,0\n", ""},
    {{"table", "x", "x=-3:3"}, 0, "error\n-3,-3,0\n-2,-2,0\n-1,-1,0\n0,0,0\n1,1,0\n2,2,0\n3,3,0\n", ""},
    {{"table", "1/x", "x=-1:1"}, 0, "x,value,error\n-1,-1,0\n0,1,8\n1,1,0\n", ""},
    {{"table", "a = x*2; a + 1", "x=0:2"}, 0, "x,value,error\n0,1,0\n1,3,0\n2,5,0\n", ""},
    // Lines pass through as they came (without line ends); blank lines are skipped.
    {{"table", "x*y + c", "--csv", "c=0.5"}, 0, " x , y,value,error\n1,2,2.5,0\n3,-4,-11.5,0\n1e3, .25 ,250.5,0\n", "", " x , y\n1,2\n\n3,-4\r\n1e3, .25 \n"},
    {{"table", "x", "--csv"}, 0, "x,value,error\n+5,5,0\n0x10,16,0\n1e-999,0,0\n-nan,nan,0\n", "", "x\n+5\n0x10\n1e-999\n-nan"},
    {{"table", "x", "--csv"}, 1, "x,value,error\n", "CSV line 2: '1e999' is too large", "x\n1e999\n"},
    {{"table", "ln(x)", "--csv"}, 0, "x,value,error\n1,0,0\n-1,0,11\n", "", "x\n1\n-1\n"},
    {{"table", "x+y", "--csv"}, 1, "1,2,3,0\n", "CSV line 3 has 1 fields, the header has 2", "x,y\n1,2\n3\n"},
    {{"table", "x+y", "--csv"}, 1, "x,y,value,error\n", "CSV line 2: 'abc' is not a number", "x,y\n1,abc\n"},
    {{"table", "x+y", "--csv"}, 1, "", "expects a header line"},
    {{"table", "x+y", "--csv"}, 0, "x,y,value,error\n1,2,3,0\n", "", "\xEF\xBB\xBFx,y\n1,2\n"},  // byte-order mark
    {{"table", "x+y", "--csv"}, 1, "", "'1y' in 'x,1y' is not a variable name", "x,1y\n1,2\n"},
    {{"table", "x+y", "--csv"}, 1, "", "names variable 'x' twice", "x,x\n1,2\n"},
    {{"table", "x+y", "--csv", "y=3"}, 1, "", "'y' is both a CSV column and an argument", "x,y\n1,2\n"},
    {{"table", "x+y", "--csv", "--var", "y"}, 1, "", "no value for variable 'y'", "x\n1\n"},
    // grad: d/dx x*x*y = 2xy, d/dy = x*x; second derivatives 2y, 2x, 0.
    {{"grad", "x*x*y", "x", "y", "x=3", "y=2", "--hessian"}, 0, "value 18\nd/dx 12\nd/dy 9\nd2/dxdx 4\nd2/dxdy 6\nd2/dydy 0\n", ""},
    {{"grad", "t*y", "t", "y=2", "t=3", "--alias", "t=x"}, 0, "value 6\nd/dt 2\n", ""},
    {{"grad", "sqrt(x)*y", "x", "y", "x=0", "y=2"}, 3, "value 0\nd/dx error 8\nd/dy 0\n", "evaluation error 8: Division by zero"},
    {{"grad", "x%2", "x", "x=1"}, 4, "", "cannot be formed"},
    // Parts independent of a variable differentiate to 0: pow(x, 2) by y is no ln(x) * 0.
    {{"grad", "pow(x,2)+pow(y,2)", "x", "y", "x=0", "y=0", "--hessian"}, 0, "value 0\nd/dx 0\nd/dy 0\nd2/dxdx 2\nd2/dxdy 0\nd2/dydy 2\n", ""},
    {{"grad", "x*x", "y", "x=1"}, 0, "value 1\nd/dy 0\n", ""},  // y is not read: no value
    {{"grad", "x<y", "x", "x=1", "y=2"}, 4, "", "'x < y' has no derivative\n"},
    {{"grad", "exp(exp(exp(x)))", "x", "x=0", "--budget", "5"}, 4, "", "node budget (5,"},
    {{"diff", "pow(x, 2)", "y", "--simplify"}, 0, "0\n", ""},
    {{"diff", "exp(exp(x))", "x", "--budget=3"}, 4, "", "beyond the node budget"},
    // exp(x) is read twice, in exp(exp(x)) and as the inner factor of the chain rule.
    {{"diff", "exp(exp(x))", "x", "--shared"}, 0, "t1 = exp(x);\nexp(t1) * (t1 * 1)\n", ""},
    {{"diff", "x % 2", "x", "--shared"}, 4, "", "can be formed: "},
    {{"diff", "x", "x", "--shared", "--tree"}, 1, "", "--shared writes formula text"},
    {{"eval", "x", "x=1", "--shared"}, 1, "", "--shared applies to diff only"},
    {{"simplify", "x*1e200*1e200*y"}, 0, "1e+200 * x * y * 1e+200\n", ""},  // no overflow
    {{"grad", "x", "x=1"}, 1, "", "grad needs the variables to differentiate by"},
    {{"eval", "x", "x=1", "--hessian"}, 1, "", "--hessian applies to grad only"},
    {{"eval", "x", "x=1", "--grad", "x"}, 1, "", "--grad applies to table only"},
    {{"table", "x*y", "x=0:1", "y=3", "--grad", "x,y"}, 0, "x,value,error,d/dx,d/dx error,d/dy,d/dy error\n0,0,0,3,0,0,0\n1,3,0,3,0,1,0\n", ""},
    {{"table", "sqrt(x)*y", "--csv", "--grad=x"}, 0, "x,y,value,error,d/dx,d/dx error\n1,2,2,0,1,0\n0,1,0,0,1,8\n", "", "x,y\n1,2\n0,1\n"},
    {{"table", "x % 2", "x=0:1", "--grad", "x"}, 4, "", "cannot be formed"},
    {{}, 1, "", "no command given"}, {{"frobnicate", "x"}, 1, "", "unknown command 'frobnicate'"},
    {{"eval"}, 1, "", "eval needs a formula"}, {{"eval", "  "}, 1, "", "the formula is empty"},
    {{"eval", "x", "x=abc"}, 1, "", "'abc' in 'x=abc' is not a number"},
    {{"eval", "x", "x=1e999"}, 1, "", "'1e999' in 'x=1e999' is too large"},
    {{"eval", "x", "x"}, 1, "", "argument 'x' must have the form name=value"},
    {{"eval", "x", "1x=2"}, 1, "", "'1x' in '1x=2' is not a variable name"},
    // Names the formula could not use: function names and keywords.
    {{"eval", "x+1", "sin=2"}, 1, "", "'sin' in 'sin=2' is not a variable name"},
    {{"eval", "y", "y=1", "--alias", "sin=y"}, 1, "", "'sin' in 'sin=y' is not a variable name"},
    {{"diff", "x*x", "sin"}, 1, "", "'sin' in 'sin' is not a variable name"},
    {{"table", "x", "--csv"}, 1, "", "'pow' in 'x,pow' is not a variable name", "x,pow\n1,2\n"},
    {{"eval", "x", "x=1", "x=2"}, 1, "", "variable 'x' is given more than once"},
    {{"eval", "x", "x=1", "--bogus"}, 1, "", "unknown option '--bogus'"},
    {{"eval", "x", "x=1", "--alias"}, 1, "", "option --alias needs a value"},
    {{"eval", "x", "x=1", "--alias", "t"}, 1, "", "alias 't' must have the form ALIAS=NAME"},
    {{"eval", "x", "x=1", "--alias", "x=x"}, 1, "", "names the variable itself"},
    {{"eval", "t", "x=1", "--alias", "t=x", "--alias", "t=y"}, 1, "", "alias 't' stands for both 'x' and 'y'"},
    {{"eval", "x", "--var", "y", "x=1"}, 1, "", "no value for variable 'y'"},
    {{"print", "x", "x", "--once"}, 1, "", "--once applies to simplify only"},
    {{"eval", "x", "x=1", "--format=c"}, 1, "", "--format applies to diff, simplify and print only"},
    {{"print", "x", "--format=tex"}, 1, "", "--format must be formula, c or latex"},
    {{"print", "x", "--passes"}, 1, "", "--passes applies to diff and simplify only"},
    {{"diff", "x", "x", "--tree", "--format=c"}, 1, "", "--tree and --format exclude each other"},
    // --function: a C file; a variable that C reserves gets a trailing underscore
    {{"print", "abs(fabs)", "--function", "f"}, 0,
     "#include <math.h>\n#include <stdlib.h>\n\ndouble f(double fabs_)\n{\n    return fabs(fabs_);\n}\n",
     ""},
    {{"print", "x", "--function", "sin"}, 1, "", "'sin' in 'sin' is not a variable name"},
    {{"print", "x", "--function", "f", "--format=latex"}, 1, "", "--function writes C"},
    {{"eval", "x", "x=1", "--function=f"}, 1, "", "--function applies to diff, simplify and print"},
    {{"eval", "x", "x=1", "--tree"}, 1, "", "--tree applies to diff, simplify and print only"},
    {{"diff", "x", "x", "--value"}, 1, "", "--value applies to eval only"},
    {{"names", "x", "y"}, 1, "", "names takes nothing but the formula"},
    {{"eval", "--file", "/nonexistent/f"}, 1, "", "cannot read the formula file '/nonexistent/f'"},
    {{"diff", "x"}, 1, "", "diff needs the variable to differentiate by"},
    {{"table", "x", "x"}, 1, "", "argument 'x' must have the form name=value"},
    {{"table", "x", "x=0"}, 1, "", "table needs a range"}, {{"table", "x", "x=0:1:0"}, 1, "", "has step 0"},
    {{"table", "x", "x=0:1:-0.5"}, 1, "", "the step has the wrong sign"},
    {{"table", "x", "x=0:1:2:3"}, 1, "", "must be name=start:stop or name=start:stop:step"},
    {{"table", "x", "x=0:1:nan"}, 1, "", "needs finite numbers"},
    {{"table", "x", "x=0:1:1e-300"}, 1, "", "has more than 10000000 points"},
    {{"table", "x*y", "x=0:5000", "y=0:5000"}, 1, "", "the ranges together have more than"},
    {{"table", "x", "x=0:1", "x=0:2"}, 1, "", "variable 'x' is given more than once"},
    {{"table", "x", "x=0:1", "--csv"}, 1, "", "ranges cannot be combined with --csv"},
    {{"table", "x+y", "x=0:1", "--var", "y"}, 1, "", "no value for variable 'y'"},
};

TEST(OxelProgram, CommandsGiveTheirOutputAndExitStatus)
{
    for (const Case& c : kCases) {
        SCOPED_TRACE(testing::PrintToString(c.args));
        Result r = runOxel(c.args, c.input);
        EXPECT_EQ(r.status, c.status) << r.err;
        EXPECT_TRUE(*c.out ? endsWith(r.out, c.out) : r.out.empty()) << r.out;
        EXPECT_TRUE(*c.err ? r.err.find(c.err) != std::string::npos : r.err.empty()) << r.err;
        EXPECT_EQ(c.status == 1, endsWith(r.err, "(try 'oxel --help')\n")) << r.err;
    }
}

// Tables are evaluated in blocks; every row must come out, in order, with its own value.
TEST(OxelProgram, TableWritesEveryRowAcrossBlocks)
{
    std::string csv = "x\n";
    for (int i = 0; i < 9000; ++i)
        csv += std::to_string(i) + "\n";
    for (const Result& r : {runOxel({"table", "a = x*2; a + 1", "x=0:8999"}),
                            runOxel({"table", "a = x*2; a + 1", "--csv"}, csv)}) {
        EXPECT_EQ(r.status, 0) << r.err;
        std::stringstream lines(r.out);
        std::string line;
        std::getline(lines, line);
        EXPECT_EQ(line, "x,value,error");
        int i = 0;
        for (; std::getline(lines, line); ++i)
            ASSERT_EQ(line, std::to_string(i) + "," + std::to_string(2 * i + 1) + ",0");
        EXPECT_EQ(i, 9000);
    }
    // A bad line stops the table after every row before it has been written.
    Result bad = runOxel({"table", "x", "--csv"}, csv + "oops\n");
    EXPECT_EQ(bad.status, 1);
    EXPECT_TRUE(endsWith(bad.out, "\n8999,8999,0\n")) << bad.out.size();
}

// diff, simplify and print show exactly what the library makes of the formula over x and y
// after the steps: d the derivative by x, f simplification (the normal form, or with --tree or
// --passes the repeated simplification pass), o one simplification pass. diff and simplify
// write a formula that reads back, or with --tree the library's print.
TEST(OxelProgram, TreeCommandsPrintFormulasOrTheLibraryText)
{
    const struct { std::vector<std::string> args; const char *formula, *steps; } cases[] = {
        {{"print", "(x-y)-x", "x", "y"}, "(x-y)-x", ""},
        {{"print", "(x-y)-x"}, "(x-y)-x", ""},  // the formula's names are declared by themselves
        {{"diff", "pow(x,3)*y", "x", "y"}, "pow(x,3)*y", "d"},
        {{"diff", "x*y", "x"}, "x*y", "d"},
        {{"diff", "pow(x,3)*y", "x", "y", "--simplify"}, "pow(x,3)*y", "df"},
        {{"diff", "sin(x)*exp(-x/4) + x*y", "x", "--var", "y", "--simplify"}, "sin(x)*exp(-x/4) + x*y", "df"},
        {{"diff", "t*y", "t", "y", "--alias", "t=x"}, "x*y", "d"},
        {{"simplify", "2+3*x*1", "x", "y=4"}, "2+3*x*1", "f"},
        {{"simplify", "(x+0)*(1*y)", "--once"}, "(x+0)*(1*y)", "o"},
        {{"simplify", "x*y + y*x*1", "--passes"}, "x*y + y*x*1", "f"},
        {{"diff", "x*x*y", "x", "--simplify", "--passes"}, "x*x*y", "df"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.args[0] + " " + c.args[1]);
        bool passes = std::find(c.args.begin(), c.args.end(), "--passes") != c.args.end();
        std::vector<std::string> treeArgs = c.args;
        treeArgs.push_back("--tree");
        for (bool tree : {false, true}) {
            std::unique_ptr<OxelExpression> t(new OxelExpression);
            t->addVar("x");
            t->addVar("y");
            ASSERT_EQ(t->initFromString(c.formula), 1);
            for (const char* step = c.steps; *step; ++step) {
                t.reset(*step == 'd'                ? t->derivative("x")
                        : *step == 'o'              ? t->simplified()
                        : tree || passes            ? t->simplifiedFully()
                                                    : t->normalized());
                ASSERT_TRUE(t);
            }
            Result r = runOxel(tree ? treeArgs : c.args);
            EXPECT_EQ(r.status, 0) << r.err;
            bool formula = !tree && c.args[0] != "print";
            EXPECT_EQ(r.out, std::string(formula ? oxelToFormula(t->root()).c_str() : oxelToString(t->root())) + "\n");
            if (tree)
                continue;
            // --format: the same tree as C and as LaTeX (print: the parsed tree).
            for (const char* format : {"c", "latex"}) {
                std::vector<std::string> args = c.args;
                args.push_back(std::string("--format=") + format);
                Result f = runOxel(args);
                EXPECT_EQ(f.status, 0) << f.err;
                EXPECT_EQ(f.out, std::string(*format == 'c' ? t->toC().c_str() : t->toLatex().c_str()) + "\n");
            }
        }
    }
}

// Output that cannot be written: exit status 5 and one message.
TEST(OxelProgram, OutputThatCannotBeWritten)
{
    const std::vector<std::vector<std::string>> writing = {
        {"eval", "x+1", "x=1"}, {"table", "x", "x=0:1"}, {"table", "x", "x=0:300000"},
        {"diff", "x*x", "x"}, {"names", "x+y"}, {"--help"}, {"--version"}};
    for (const auto& args : writing) {
        Result r = runOxel(args, "", "/dev/full");
        EXPECT_EQ(r.status, 5) << args[0];
        EXPECT_EQ(r.err, "oxel: cannot write the output: No space left on device\n") << args[0];
    }
}

// --file: a formula over several lines, a caret under the failing place in its own line;
// formulas far deeper than any stack: a sum of 20,000 terms, 12,000 nested calls, a gradient of
// 300,000 products, the results following from how the formulas are built; NUL bytes, huge
// fields and terminal escapes in the file, the input or the arguments, each refused with a
// short, printable message.
TEST(OxelProgram, FormulasFromFile)
{
    std::string sum = "x", spaced = "x", nested, grad = "x*y";
    for (int i = 1; i < 20000; ++i) {
        sum += i % 2 ? "+y" : "+x";
        spaced += i % 2 ? " + y" : " + x";
    }
    for (int i = 0; i < 12000; ++i)
        nested += "sin(";
    nested += "x" + std::string(12000, ')');
    for (int i = 1; i < 300000; ++i)
        grad += "+x*y";
    const std::string huge(100000, '7'), esc = "\x1b[31m", kAny = "(any)";
    char path[] = "/tmp/oxel-cli-file-XXXXXX";
    close(mkstemp(path));
    const struct {
        std::string text;
        std::vector<std::string> args;  // "--file" and the file go after the command
        int status;  // -1: any failure
        std::string out;  // kAny: any
        std::string err, input = "";
    } rows[] = {
        {"a = pow(x,\n   3);\na + y\n", {"eval", "x=2", "y=1"}, 0, "9\n", ""},
        {"a = x;\n\ta + )\n", {"diff", "x"}, 2, "",
         "near >)<\n  line 2: \ta + )\n          \t    ^\n"},
        {sum, {"print", "--format=latex"}, 0, spaced + "\n", ""},
        {sum, {"print", "--format=c"}, 0, spaced + "\n", ""},
        {nested, {"simplify"}, 0, nested + "\n", ""},
        {grad, {"grad", "x", "y", "x=2", "y=3"}, 0,
         "value 1800000\nd/dx 900000\nd/dy 600000\n", ""},
        {"", {"eval"}, -1, kAny, "oxel: the formula is empty\n"},
        {std::string("x +\0 1", 6), {"eval", "x=1"}, -1, kAny, "holds a NUL byte at offset 3\n"},
        {"x", {"table", "--csv"}, -1, kAny, "oxel: CSV line 3: a NUL byte at offset 1\n",
         std::string("x\n1\n2\0\n", 7)},
        {"x", {"table", "--csv"}, -1, kAny, "oxel: CSV header: a NUL byte at offset 1\n",
         std::string("x\0\n1\n", 5)},
        // 60 bytes of a long field, and its length; escapes shown as text.
        {"x", {"table", "--csv"}, -1, kAny,
         "oxel: CSV line 2: '" + huge.substr(0, 60) + "'... (100001 bytes) is not a number",
         "x\n" + huge + "x\n"},
        {"x", {"eval", "x=" + esc}, -1, kAny, "'\\x1b[31m' in 'x=\\x1b[31m' is not a number"},
        {"x + {" + huge + esc + "}", {"eval", "x=1"}, -1, kAny,
         "COMPILED_EXPR near >" + huge.substr(0, 60) + "... (100005 bytes)<"},
        {"x +\x1b)", {"eval", "x=1"}, -1, kAny, "  x +\\x1b)\n         ^\n"},
    };
    for (const auto& r : rows) {
        std::ofstream(path, std::ios::binary) << r.text;
        std::vector<std::string> args = r.args;
        args.insert(args.begin() + 1, {"--file", path});
        Result got = runOxel(args, r.input);
        EXPECT_TRUE(r.status < 0 ? got.status != 0 : got.status == r.status)
            << r.args[0] << ": " << got.status << " " << got.err.substr(0, 300);
        EXPECT_TRUE(r.out == kAny || got.out == r.out) << r.args[0] << ": "
                                                       << got.out.substr(0, 80);
        EXPECT_NE(got.err.find(r.err), std::string::npos) << got.err.substr(0, 300);
        EXPECT_LT(got.err.size(), 600u);
        EXPECT_EQ(got.err.find('\x1b'), std::string::npos) << got.err.substr(0, 300);
    }
    // exp nested 3000 deep: its derivative's tree exceeds the node budget, the statements over
    // its shared parts do not (the ones of --simplify for the same reason).
    std::string chain;
    for (int i = 0; i < 3000; ++i)
        chain += "exp(";
    std::ofstream(path) << chain + "x" + std::string(3000, ')');
    for (const char* simplify : { "--shared", "--simplify" }) {
        Result got = runOxel({"diff", "--file", path, "x", simplify});
        EXPECT_EQ(got.status, 0) << got.err;
        EXPECT_EQ(got.out.compare(0, 27, "t1 = exp(x);\nt2 = exp(t1);\n"), 0)
            << got.out.substr(0, 80);
        EXPECT_GT(std::count(got.out.begin(), got.out.end(), '\n'), 3000);
    }
    std::remove(path);
}

// The program's number text is printf's %.15g, %.16g or %.17g, whichever reads back first.
TEST(OxelProgram, NumberTextIsTheShortestPrintfForm)
{
    std::mt19937_64 gen(11);
    std::vector<double> values = {0.0, -0.0, 1e23, 1e-5, 1e-4, 1e15, 1e16, 1e17, 0.1, 0.3,
                                  5e-324, DBL_MAX, DBL_MIN, 123456789012345678.0};
    for (int i = 0; i < 200000; ++i) {
        uint64_t bits = gen();
        double v;
        std::memcpy(&v, &bits, sizeof v);
        values.push_back(v);
        values.push_back(std::ldexp(1.0, static_cast<int>(gen() % 2098) - 1074));  // powers of two
        values.push_back(std::round(std::uniform_real_distribution<double>(-1e3, 1e3)(gen) * 1e6) / 1e6);
        values.push_back(values.back() * values[values.size() - 4] + 1);
    }
    for (double v : values) {
        if (std::isnan(v) || std::isinf(v))
            continue;
        char fast[numtext::kMaxText], slow[numtext::kMaxText];
        int n = numtext::format(v, fast), m = numtext::viaPrintf(v, slow);
        ASSERT_EQ(std::string(fast, n), std::string(slow, m)) << v;
    }
}

TEST(OxelProgram, HelpNamesEveryCommandAndExitStatus)
{
    // --help after a command still shows the help instead of running it.
    for (const Result& r : {runOxel({"--help"}), runOxel({"-h"}), runOxel({"eval", "x", "--help"})}) {
        EXPECT_EQ(r.status, 0);
        for (const char* word : {"eval FORMULA", "diff FORMULA", "simplify FORMULA", "print FORMULA",
                                 "table FORMULA", "names FORMULA", "--file", "--tree", "--value",
                                 "--csv", "--alias", "--var", "--simplify", "--once", "--passes", "--format",
                                 "--function",
                                 "--version", "0  success", "1  usage error", "2  the formula does not parse",
                                 "3  evaluation error", "4  no derivative"})
            EXPECT_NE(r.out.find(word), std::string::npos) << word;
        std::istringstream listed(r.out.substr(std::min(r.out.size(), r.out.find("Functions of"))));
        std::vector<std::string> words{std::istream_iterator<std::string>(listed), {}};
        for (int arity : {1, 2})  // the library's list, each name as a word of its own
            for (const char* const* f = oxelFunctionNames(arity); *f; ++f)
                EXPECT_NE(std::find(words.begin(), words.end(), *f), words.end()) << *f;
    }
}

TEST(OxelProgram, VersionShowsTheBuildRecord)
{
    Result r = runOxel({"--version"});
    EXPECT_EQ(r.status, 0);
    std::vector<std::string> f;
    std::stringstream record(orvexpackage_oxel());
    for (std::string field; std::getline(record, field, '|');)
        f.push_back(field);
    ASSERT_EQ(f.size(), 33u);  // leading empty field, then 16 keys and their values
    EXPECT_EQ(r.out.rfind("oxel " + f[6] + "." + f[8] + "." + f[10] + " " + f[12] + "\n", 0), 0u) << r.out;
    for (size_t i = 1; i + 1 < f.size(); i += 2) {
        std::string key = f[i] + ":";
        key.resize(std::max<size_t>(key.size(), 14), ' ');
        EXPECT_NE(r.out.find("  " + key + " " + f[i + 1] + "\n"), std::string::npos) << f[i];
    }
}

}  // namespace
