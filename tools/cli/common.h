// Shared pieces of the oxel program: exit codes, usage errors, names, numbers, options.
#ifndef OXEL_CLI_COMMON_H
#define OXEL_CLI_COMMON_H

#include <string>
#include <utility>
#include <vector>

#include <oxel/oxel.h>

namespace oxcli {

enum ExitCode { kOk = 0, kUsage = 1, kParse = 2, kEval = 3, kNoDerivative = 4, kWrite = 5 };

// A usage error: the message goes to standard error with a pointer to --help.
struct UsageError {
    std::string message;
};

[[noreturn]] void usage(const std::string& message);

// Fewest significant digits that read back to the same double (number_text.h).
std::string formatNumber(double v);

// Standard output could not be written (a full disk, a closed pipe): errno of the failure.
struct WriteError {
    int error;
};

// Writes n bytes to standard output; throws WriteError when they do not all get there.
void writeOut(const char* p, size_t n);

// A field as messages show it: control characters escaped (\x1b), and cut after about 60
// bytes, saying how long it was, so that a huge field or a terminal escape cannot flood or
// steer the terminal. quoted() adds the quotes.
std::string shown(const std::string& field);
std::string quoted(const std::string& field);

// A name that formula text can use as a variable (oxelIsVariableName), or a usage error.
std::string checkedName(const std::string& name, const std::string& arg);

enum NumberStatus { kNumber, kNotANumber, kTooLarge };

// Whole-string number; strtod alone would accept "2abc".
NumberStatus parseNumber(const std::string& text, double& out);
std::string numberProblem(NumberStatus status);
double checkedNumber(const std::string& text, const std::string& arg);

std::string trim(const std::string& s);
std::vector<std::string> splitFields(const std::string& line, char sep);

// Command line split into its parts; which parts a command accepts is checked later.
struct Args {
    std::string command;
    std::vector<std::string> positional;
    std::vector<std::pair<std::string, std::string>> aliases;  // alias, variable
    std::vector<std::string> vars;                             // from --var
    std::string file;                                          // from --file
    bool hasFile = false;
    bool simplify = false, once = false, csv = false, tree = false, value = false;
    bool hessian = false;
    std::vector<std::string> grad;  // from --grad: table adds these partial derivatives
    bool passes = false;
    bool shared = false;   // diff: the derivative as statements over its shared parts
    std::string format;    // from --format: formula, c or latex
    std::string function;  // from --function: the name of a C function to write
};

std::pair<std::string, std::string> splitAssignment(const std::string& arg, const char* what,
                                                    const char* form = "name=value");
Args parseArgs(int argc, char** argv);

// The offset of the first name of the formula written like a function call, name(...), and
// that name; -1 when there is none. The language's functions are words of their own, and no
// variable may stand before '(', so such a name is a function that the language lacks.
int unknownCall(const std::string& formula, std::string& name);

// The formula and where to show a parse failure in it: the line around the offset, and a
// caret under the offset.
void showWhere(const std::string& text, int offset);

// The formula, from the command line or from --file, and where the arguments behind it start.
struct Formula {
    std::string text;
    size_t firstArg;
};

Formula formulaOf(const Args& a);

// Which options a command accepts besides --alias, --var and --file.
enum Accepts { kSimplify = 1, kOnce = 2, kCsv = 4, kTree = 8, kValue = 16, kHessian = 32,
               kGrad = 64, kFormat = 128, kPasses = 256, kShared = 512 };

void rejectOptions(const Args& a, int accepted);

// The exit status for an evaluation's code: kOk for 0; otherwise kEval, after the code and its
// message on standard error (behind whatever standard output holds).
int evalStatus(int err);

// A result tree as a formula that reads back, or as the library prints it.
void printResult(Oxel* tree, bool asTree);

// forms.cpp: the simplified expression that the options ask for (the normal form, unless
// --once, --passes or --tree ask for the library's simplification pass), and the result
// printed as --format says, or as printResult does.
OxelExpression* simplifiedAs(const Args& a, const OxelExpression& e);
void printAs(const Args& a, const OxelExpression& e, Oxel* tree, bool asTree);

// The commands, one source file each.
int runEval(const Args& a);
int runDiff(const Args& a);
int runSimplify(const Args& a);
int runPrint(const Args& a);
int runNames(const Args& a);
int runTable(const Args& a);
int runGrad(const Args& a);

// Column or line labels of a value with its derivatives by names, in OxelGradient's order:
// value, d/dx, ..., then d2/dxdy for the upper triangle when order is 2.
std::vector<std::string> gradientLabels(const std::vector<std::string>& names, int order);
int showVersion();

}  // namespace oxcli

#endif
