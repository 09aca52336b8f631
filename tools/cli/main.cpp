// oxel: command-line front end of liboxel (evaluate, differentiate, simplify, print, tabulate).
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>

#include <oxel/oxel.h>

#include "common.h"

namespace oxcli {
namespace {

const char kHelp[] =
    "usage: oxel COMMAND FORMULA [ARGUMENTS] [OPTIONS]\n"
    "       oxel COMMAND --file FILE [ARGUMENTS] [OPTIONS]\n"
    "       oxel --help | --version\n"
    "\n"
    "Commands:\n"
    "  eval FORMULA name=value...\n"
    "      Evaluate FORMULA and print its value. Every variable that the formula\n"
    "      reads must be given a value (names it assigns first need none).\n"
    "  diff FORMULA VAR [name | name=value]...\n"
    "      Print the derivative of FORMULA with respect to VAR as a formula that\n"
    "      reads back (--tree: as the library prints its tree). The formula's\n"
    "      names are declared by themselves; values are accepted and ignored.\n"
    "      The derivative is printed unsimplified unless --simplify is given;\n"
    "      with it, parts independent of VAR differentiate to 0 first.\n"
    "      Where the derivative exceeds the node budget as a tree, it is printed\n"
    "      as statements over its shared parts ('t1 = exp(x);' a line each, then\n"
    "      the result), which read back to the same values.\n"
    "  grad FORMULA VAR... name=value... [--hessian]\n"
    "      Print the value and its derivatives by each VAR, one 'label number'\n"
    "      a line (value, d/dVAR...; --hessian adds d2/dVARdVAR for each pair),\n"
    "      computed together. A failing output prints 'label error CODE' and\n"
    "      exits with 3 after all lines; no derivative at all exits with 4.\n"
    "      A part of FORMULA that does not depend on VAR has the derivative 0\n"
    "      (a VAR that FORMULA does not read needs no value).\n"
    "  simplify FORMULA [name | name=value]...\n"
    "      Print FORMULA in its normal form (like terms and equal factors\n"
    "      collected, numbers folded, powers and quotients tidied), as a formula\n"
    "      that reads back and gives the same values within rounding. --passes:\n"
    "      the library's simplification pass, repeated until the text stops\n"
    "      changing (also with --tree: as the library prints its tree); --once: a\n"
    "      single pass.\n"
    "  print FORMULA [name | name=value]...\n"
    "      Print the formula as the library prints its tree (--format: as a\n"
    "      formula, C or LaTeX).\n"
    "  names FORMULA\n"
    "      Print the names that FORMULA reads or assigns, one a line, in order\n"
    "      of first appearance.\n"
    "  table FORMULA name=start:stop[:step]... [name=value]...\n"
    "      Evaluate FORMULA on a grid and write CSV: one column per range, then\n"
    "      'value' and 'error' (the error code, 0 when none). The step defaults\n"
    "      to 1; several ranges are nested loops, the first one outermost.\n"
    "      At most 10000000 points.\n"
    "  table FORMULA --csv [name=value]...\n"
    "      Read variable values from CSV on standard input: the header line\n"
    "      names the variables, every further line holds one row of values.\n"
    "      Each line is written back as it came, followed by 'value' and\n"
    "      'error'; blank lines are skipped.\n"
    "      --grad VAR[,VAR...] adds each derivative and its error code as columns\n"
    "      'd/dVAR' and 'd/dVAR error' after 'value' and 'error'.\n"
    "\n"
    "Options:\n"
    "  --file FILE         read the formula from FILE instead of the command line\n"
    "  --alias ALIAS=NAME  ALIAS may be written for the variable NAME (which is\n"
    "                      declared by this)\n"
    "  --var NAME          declare a variable without a value (diff, simplify,\n"
    "                      print)\n"
    "  --simplify          diff: print the derivative in its normal form, as\n"
    "                      simplify does\n"
    "  --shared            diff: the statements over shared parts at any size;\n"
    "                      with --simplify each part in its normal form\n"
    "  --passes            diff --simplify, simplify: the library's simplification\n"
    "                      pass until the text stops changing, not the normal form\n"
    "  --once              simplify: one simplification pass only\n"
    "  --format=FORM       diff, simplify, print: write the result as a formula\n"
    "                      (formula), a C99 expression over <math.h> (c; no\n"
    "                      evaluation guards) or math-mode LaTeX (latex)\n"
    "  --function NAME     diff, simplify, print: write the result as a complete C\n"
    "                      function double NAME(double x, ...) of the variables in\n"
    "                      their order; a variable whose name C reserves (int,\n"
    "                      log, INFINITY, ...) gets a trailing underscore\n"
    "  --tree              diff, simplify, print: the library's own print of the\n"
    "                      tree instead of a formula\n"
    "  --value             eval: print the value even when evaluation fails\n"
    "  --hessian           grad: add the second derivatives\n"
    "  --budget N          the most nodes that a derivative, a gradient or a normal\n"
    "                      form may build (default 1000000); beyond it they are\n"
    "                      refused (exit 4)\n"
    "  --grad VAR[,VAR]    table: add the derivatives by these variables\n"
    "  --csv               table: read the rows from standard input\n"
    "  --                  end of options\n"
    "  -h, --help          show this help\n"
    "  -V, --version       show the version and the library's build record\n"
    "\n"
    "Formula language: + - * / and % (remainder, binds like +), comparisons\n"
    "< > <= >= == !=, logic && || !, bitwise | & ^ << >> (they bind tighter than\n"
    "*; ^ is exclusive or, not a power: write powers as pow(a, b)), unary minus,\n"
    "the functions listed at the end, pow(a, b), rand() and gauss(), assignments\n"
    "(t = x*2; t + 1) and statements separated by ';', whose value is that of\n"
    "the last one. diff(exp, VAR) differentiates inside a formula.\n"
    "\n"
    "Numbers are printed with the fewest digits that read back to the same\n"
    "double. Evaluation errors: eval prints the code and its message on\n"
    "standard error (and the substitute value only with --value); table reports\n"
    "them per row in the error column and still exits with 0. When the formula\n"
    "does not parse, the parser's message is followed by the formula with a\n"
    "caret under the place where it stopped.\n"
    "\n"
    "Exit status:\n"
    "  0  success\n"
    "  1  usage error (unknown option, malformed argument, bad range or CSV)\n"
    "  2  the formula does not parse\n"
    "  3  evaluation error (eval, grad)\n"
    "  4  no derivative can be formed (diff, grad, table --grad)\n"
    "  5  the output could not be written\n";

// The help, then the library's functions by argument count, wrapped like the text above.
void printHelp()
{
    std::fputs(kHelp, stdout);
    for (int arity : {1, 2}) {
        std::string line = arity == 1 ? "\nFunctions of one argument:\n " : "Functions of two arguments:\n ";
        size_t start = line.size() - 1;
        for (const char* const* f = oxelFunctionNames(arity); *f; ++f) {
            if (line.size() - start + std::strlen(*f) >= 76) {
                line += "\n ";
                start = line.size() - 1;
            }
            (line += ' ') += *f;
        }
        std::printf("%s\n", line.c_str());
    }
}

int run(int argc, char** argv)
{
    if (argc < 2)
        usage("no command given");
    std::string first = argv[1];
    if (first == "-h" || first == "--help" || first == "help") {
        printHelp();
        return kOk;
    }
    if (first == "-V" || first == "--version" || first == "version")
        return showVersion();
    for (int i = 2; i < argc; ++i) {
        if (std::strcmp(argv[i], "--") == 0)
            break;
        if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0) {
            printHelp();
            return kOk;
        }
    }
    Args a = parseArgs(argc, argv);
    if (a.command == "eval")
        return runEval(a);
    if (a.command == "diff")
        return runDiff(a);
    if (a.command == "grad")
        return runGrad(a);
    if (a.command == "simplify")
        return runSimplify(a);
    if (a.command == "print")
        return runPrint(a);
    if (a.command == "table")
        return runTable(a);
    if (a.command == "names")
        return runNames(a);
    usage("unknown command " + quoted(a.command));
}

}  // namespace
}  // namespace oxcli

// The library's messages become lines on standard error; its ignored characters must not end
// up in front of a table on standard output.
// The token a parse message quotes ("... near >token<") may be a whole brace block: it is
// shown as any field is.
void onMessage(int kind, const char* text, void*)
{
    std::string message = text;
    size_t near = message.find(" near >");
    if (near != std::string::npos && message.back() == '<') {
        size_t from = near + 7;
        message = message.substr(0, from) +
                  oxcli::shown(message.substr(from, message.size() - 1 - from)) + "<";
    } else {
        message = oxcli::shown(message);
    }
    if (kind == OXEL_MESSAGE_PARSE_ERROR)
        std::fprintf(stderr, "Parsing OxError: %s\n", message.c_str());
    else
        std::fprintf(stderr, "oxel: warning: %s\n", message.c_str());
}

int main(int argc, char** argv)
{
    oxelSetMessageHandler(onMessage, nullptr);
    int status;
    try {
        status = oxcli::run(argc, argv);
    } catch (const oxcli::UsageError& e) {
        std::fflush(stdout);
        std::fprintf(stderr, "oxel: %s\n(try 'oxel --help')\n", e.message.c_str());
        status = oxcli::kUsage;
    } catch (const oxcli::WriteError& e) {
        errno = e.error;
        status = oxcli::kWrite;
    } catch (const std::exception& e) {
        std::fflush(stdout);
        std::fprintf(stderr, "oxel: %s\n", e.what());
        status = oxcli::kEval;
    }
    // Output that did not arrive is an error, whatever else happened.
    errno = status == oxcli::kWrite ? errno : 0;
    if (std::fflush(stdout) != 0 || std::ferror(stdout) || status == oxcli::kWrite) {
        std::fprintf(stderr, "oxel: cannot write the output%s%s\n", errno ? ": " : "",
                     errno ? std::strerror(errno) : "");
        if (status == oxcli::kOk)
            status = oxcli::kWrite;
    }
    return status;
}
