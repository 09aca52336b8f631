// oxel: command-line front end of liboxel (evaluate, differentiate, simplify, print, tabulate).
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <oxel/oxel.h>

#include "caret.h"
#include "number_text.h"

namespace {

enum ExitCode { kOk = 0, kUsage = 1, kParse = 2, kEval = 3, kNoDerivative = 4 };

// More points than this in one table is almost certainly a typo in a range.
const double kMaxTablePoints = 10e6;

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
    "      The derivative is printed unsimplified unless --simplify is given.\n"
    "  simplify FORMULA [name | name=value]...\n"
    "      Print FORMULA simplified, as a formula that reads back (--tree: as the\n"
    "      library prints its tree): the simplification pass is repeated until\n"
    "      the text stops changing (--once: a single pass).\n"
    "  print FORMULA [name | name=value]...\n"
    "      Print the formula as the library prints its tree.\n"
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
    "\n"
    "Options:\n"
    "  --file FILE         read the formula from FILE instead of the command line\n"
    "  --alias ALIAS=NAME  ALIAS may be written for the variable NAME (which is\n"
    "                      declared by this)\n"
    "  --var NAME          declare a variable without a value (diff, simplify,\n"
    "                      print)\n"
    "  --simplify          diff: simplify the derivative until its text stops\n"
    "                      changing\n"
    "  --once              simplify: one simplification pass only\n"
    "  --tree              diff, simplify, print: the library's own print of the\n"
    "                      tree instead of a formula\n"
    "  --value             eval: print the value even when evaluation fails\n"
    "  --csv               table: read the rows from standard input\n"
    "  --                  end of options\n"
    "  -h, --help          show this help\n"
    "  -V, --version       show the version and the library's build record\n"
    "\n"
    "Formula language: + - * / and % (remainder, binds like +), comparisons\n"
    "< > <= >= == !=, logic && || !, bitwise | & ^ << >> (they bind tighter than\n"
    "*; ^ is exclusive or, not a power: write powers as pow(a, b)), unary minus,\n"
    "functions such as sin cos tan exp ln sqrt abs atan2 hypot min max, assignments\n"
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
    "  3  evaluation error (eval)\n"
    "  4  no derivative can be formed (diff)\n";

// A usage error: the message goes to standard error with a pointer to --help.
struct UsageError {
    std::string message;
};

[[noreturn]] void usage(const std::string& message)
{
    throw UsageError{message};
}

// Fewest significant digits that read back to the same double (number_text.h).
std::string formatNumber(double v)
{
    char buf[numtext::kMaxText];
    return std::string(buf, static_cast<size_t>(numtext::format(v, buf)));
}

bool isName(const std::string& s)
{
    if (s.empty() || !(std::isalpha(static_cast<unsigned char>(s[0])) || s[0] == '_'))
        return false;
    for (char c : s)
        if (!(std::isalnum(static_cast<unsigned char>(c)) || c == '_'))
            return false;
    return true;
}

std::string checkedName(const std::string& name, const std::string& arg)
{
    if (!isName(name))
        usage("'" + name + "' in '" + arg +
              "' is not a variable name (letters, digits and _, not starting with a digit)");
    return name;
}

enum NumberStatus { kNumber, kNotANumber, kTooLarge };

// Whole-string number; strtod alone would accept "2abc".
NumberStatus parseNumber(const std::string& text, double& out)
{
    // from_chars reads what strtod reads, to the same double, but no '+', no hexadecimal and no
    // out-of-range values: those go the slow way.
    auto fast = std::from_chars(text.data(), text.data() + text.size(), out);
    if (fast.ec == std::errc() && fast.ptr == text.data() + text.size())
        return kNumber;
    if (text.empty() || std::isspace(static_cast<unsigned char>(text[0])))
        return kNotANumber;
    char* end = nullptr;
    errno = 0;
    out = std::strtod(text.c_str(), &end);
    if (!end || *end != '\0')
        return kNotANumber;
    // Underflow to a tiny or zero value is fine; overflow would silently become inf.
    return errno == ERANGE && std::isinf(out) ? kTooLarge : kNumber;
}

std::string numberProblem(NumberStatus status)
{
    return status == kTooLarge ? "is too large for a double" : "is not a number";
}

double checkedNumber(const std::string& text, const std::string& arg)
{
    double v;
    NumberStatus status = parseNumber(text, v);
    if (status != kNumber)
        usage("'" + text + "' in '" + arg + "' " + numberProblem(status));
    return v;
}

std::string trim(const std::string& s)
{
    size_t b = s.find_first_not_of(" \t\r\n");
    if (b == std::string::npos)
        return "";
    size_t e = s.find_last_not_of(" \t\r\n");
    return s.substr(b, e - b + 1);
}

std::vector<std::string> splitFields(const std::string& line, char sep)
{
    std::vector<std::string> out;
    size_t start = 0;
    for (;;) {
        size_t pos = line.find(sep, start);
        out.push_back(trim(line.substr(start, pos == std::string::npos ? std::string::npos
                                                                        : pos - start)));
        if (pos == std::string::npos)
            return out;
        start = pos + 1;
    }
}

struct Range {
    std::string name;
    double start = 0, step = 1;
    long points = 1;
};

Range parseRange(const std::string& name, const std::string& bounds, const std::string& arg)
{
    std::vector<std::string> parts = splitFields(bounds, ':');
    if (parts.size() < 2 || parts.size() > 3)
        usage("range '" + arg + "' must be name=start:stop or name=start:stop:step");
    Range r;
    r.name = name;
    r.start = checkedNumber(parts[0], arg);
    double stop = checkedNumber(parts[1], arg);
    if (parts.size() == 3)
        r.step = checkedNumber(parts[2], arg);
    if (!std::isfinite(r.start) || !std::isfinite(stop) || !std::isfinite(r.step))
        usage("range '" + arg + "' needs finite numbers");
    if (r.step == 0)
        usage("range '" + arg + "' has step 0");
    double span = (stop - r.start) / r.step;
    if (span < 0)
        usage("range '" + arg + "' never reaches its stop: the step has the wrong sign");
    // A small allowance so that 0:1:0.1 ends at 1 despite rounding in the division.
    span = std::floor(span + 1e-9);
    if (!(span + 1 <= kMaxTablePoints))
        usage("range '" + arg + "' has more than 10000000 points");
    r.points = static_cast<long>(span) + 1;
    return r;
}

// Command line split into its parts; which parts a command accepts is checked later.
struct Args {
    std::string command;
    std::vector<std::string> positional;
    std::vector<std::pair<std::string, std::string>> aliases;  // alias, variable
    std::vector<std::string> vars;                             // from --var
    std::string file;                                          // from --file
    bool hasFile = false;
    bool simplify = false, once = false, csv = false, tree = false, value = false;
};

std::pair<std::string, std::string> splitAssignment(const std::string& arg, const char* what,
                                                    const char* form = "name=value")
{
    size_t eq = arg.find('=');
    if (eq == std::string::npos || eq == 0 || eq + 1 == arg.size())
        usage(std::string(what) + " '" + arg + "' must have the form " + form);
    return {checkedName(arg.substr(0, eq), arg), arg.substr(eq + 1)};
}

Args parseArgs(int argc, char** argv)
{
    Args a;
    a.command = argv[1];
    bool optionsEnded = false;
    for (int i = 2; i < argc; ++i) {
        std::string arg = argv[i];
        // Formulas may start with '-' ("-x*2"); only "--..." words are options ("--" is
        // never valid formula text anyway).
        if (optionsEnded || arg.size() < 2 || arg.compare(0, 2, "--") != 0) {
            a.positional.push_back(arg);
            continue;
        }
        std::string value;
        bool hasValue = false;
        size_t eq = arg.find('=');
        std::string opt = arg.substr(0, eq);
        if (eq != std::string::npos) {
            value = arg.substr(eq + 1);
            hasValue = true;
        }
        auto takeValue = [&]() {
            if (hasValue)
                return value;
            if (i + 1 >= argc)
                usage("option " + opt + " needs a value");
            return std::string(argv[++i]);
        };
        if (arg == "--") {
            optionsEnded = true;
        } else if (opt == "--alias") {
            std::string v = takeValue();
            auto pair = splitAssignment(v, "alias", "ALIAS=NAME");
            checkedName(pair.second, v);
            if (pair.first == pair.second)
                usage("alias '" + v + "' names the variable itself");
            for (const auto& seen : a.aliases)
                if (seen.first == pair.first && seen.second != pair.second)
                    usage("alias '" + pair.first + "' stands for both '" + seen.second +
                          "' and '" + pair.second + "'");
            a.aliases.push_back(pair);
        } else if (opt == "--var") {
            std::string v = takeValue();
            a.vars.push_back(checkedName(v, v));
        } else if (opt == "--file") {
            if (a.hasFile)
                usage("--file is given more than once");
            a.file = takeValue();
            a.hasFile = true;
        } else if (arg == "--simplify") {
            a.simplify = true;
        } else if (arg == "--once") {
            a.once = true;
        } else if (arg == "--csv") {
            a.csv = true;
        } else if (arg == "--tree") {
            a.tree = true;
        } else if (arg == "--value") {
            a.value = true;
        } else {
            usage("unknown option '" + arg + "'");
        }
    }
    return a;
}

// The formula and where to show a parse failure in it (caret.h).
void showWhere(const std::string& text, int offset)
{
    OxelCaret c;
    if (oxelCaretLines(text, offset, c))
        std::fprintf(stderr, "%s%s%s%s\n%s^\n", c.lead.c_str(), c.before.c_str(), c.line.c_str(),
                     c.after.c_str(), c.caret.c_str());
}

// The variable registry as the command line fills it: values by variable index.
class Session {
public:
    explicit Session(const Args& args)
    {
        // An alias is only useful with its variable declared, so declare that first.
        for (const auto& alias : args.aliases) {
            expr_.addVar(alias.second.c_str());
            expr_.addVarAlias(alias.second.c_str(), alias.first.c_str());
        }
        for (const std::string& name : args.vars)
            declare(name);
    }

    int declare(const std::string& name)
    {
        int index = expr_.addVar(name.c_str());
        if (index >= static_cast<int>(given_.size())) {
            given_.resize(index + 1, false);
            values_.resize(index + 1, 0.0);
        }
        return index;
    }

    void setValue(const std::string& name, double v, const std::string& arg)
    {
        int index = declare(name);
        if (given_[index])
            usage("variable '" + name + "' is given more than once ('" + arg + "')");
        given_[index] = true;
        values_[index] = v;
    }

    // A variable whose values come from elsewhere (a CSV column).
    void markGiven(int index) { given_[index] = true; }

    bool hasValue(int index) const
    {
        return index >= 0 && index < static_cast<int>(given_.size()) && given_[index];
    }

    // Every declared variable must have a value before evaluating.
    void requireAllValues()
    {
        int declared = expr_.numVars() - expr_.numInternalVars();
        for (int i = 0; i < declared; ++i)
            if (!hasValue(i))
                usage(std::string("no value for variable '") + expr_.varName(i) + "'");
    }

    // So does every name the formula reads before assigning it.
    void requireValuesFor(const std::string& formula)
    {
        KxDArray<KxString> names;
        KxDArray<int> assigned;
        oxelFormulaNames(formula.c_str(), names, &assigned);
        for (int i = 0; i < names.length(); ++i)
            if (!assigned[i] && !hasValue(expr_.varIndex(names[i].c_str())))
                usage(std::string("no value for variable '") + names[i].c_str() + "'");
    }

    // Declares every name of the formula, for commands that need no values.
    void declareNamesOf(const std::string& formula)
    {
        KxDArray<KxString> names;
        oxelFormulaNames(formula.c_str(), names);
        for (int i = 0; i < names.length(); ++i)
            declare(names[i].c_str());
    }

    // Parses the formula; on failure shows where it stopped below the parser's own message
    // (already written by the message handler) and returns false.
    bool parse(const std::string& formula)
    {
        if (expr_.initFromString(formula.c_str()))
            return true;
        showWhere(formula, expr_.lastErrorOffset());
        std::fprintf(stderr, "oxel: the formula does not parse\n");
        // A lone unknown name parses as the start of an assignment.
        if (std::strstr(expr_.lastError(), "expecting '='"))
            std::fprintf(stderr, "oxel: hint: declare every variable of the formula "
                                 "(name=value, or a bare name where values are not needed)\n");
        return false;
    }

    // Values for one evaluation of the parsed formula: the given values, 0 elsewhere.
    // Internal (assigned) slots start from 0 for every row so that rows are independent.
    std::vector<double> baseRow()
    {
        std::vector<double> row(expr_.numVars(), 0.0);
        for (size_t i = 0; i < row.size() && i < values_.size(); ++i)
            row[i] = values_[i];
        return row;
    }

    double eval(int& err)
    {
        std::vector<double> row = baseRow();
        KxDArray<double> vector;
        vector.setLength(static_cast<int>(row.size()));
        for (size_t i = 0; i < row.size(); ++i)
            vector[static_cast<int>(i)] = row[i];
        err = 0;
        return expr_.eval(vector, err);
    }

    OxelExpression& expression() { return expr_; }

private:
    OxelExpression expr_;
    std::vector<bool> given_;
    std::vector<double> values_;
};

// Positional arguments behind the formula: name=value, or a bare name where allowed.
void declareArguments(Session& s, const std::vector<std::string>& args, size_t first,
                      bool bareNamesAllowed)
{
    for (size_t i = first; i < args.size(); ++i) {
        const std::string& arg = args[i];
        if (arg.find('=') == std::string::npos) {
            if (!bareNamesAllowed)
                usage("argument '" + arg + "' must have the form name=value");
            s.declare(checkedName(arg, arg));
            continue;
        }
        auto pair = splitAssignment(arg, "argument");
        s.setValue(pair.first, checkedNumber(pair.second, arg), arg);
    }
}

// The formula, from the command line or from --file, and where the arguments behind it start.
struct Formula {
    std::string text;
    size_t firstArg;
};

Formula formulaOf(const Args& a)
{
    Formula f{"", 1};
    if (a.hasFile) {
        std::ifstream file(a.file, std::ios::binary);
        std::stringstream content;
        if (!file || !(content << file.rdbuf()))
            usage("cannot read the formula file '" + a.file + "'");
        f = {content.str(), 0};
    } else if (a.positional.empty()) {
        usage(a.command + " needs a formula");
    } else {
        f.text = a.positional[0];
    }
    if (trim(f.text).empty())
        usage("the formula is empty");
    return f;
}

// Which options a command accepts besides --alias, --var and --file.
enum Accepts { kSimplify = 1, kOnce = 2, kCsv = 4, kTree = 8, kValue = 16 };

void rejectOptions(const Args& a, int accepted)
{
    const struct { bool given; int flag; const char* message; } options[] = {
        {a.simplify, kSimplify, "--simplify applies to diff only"},
        {a.once, kOnce, "--once applies to simplify only"},
        {a.csv, kCsv, "--csv applies to table only"},
        {a.tree, kTree, "--tree applies to diff, simplify and print only"},
        {a.value, kValue, "--value applies to eval only"},
    };
    for (const auto& o : options)
        if (o.given && !(accepted & o.flag))
            usage(o.message);
}

int runEval(const Args& a)
{
    rejectOptions(a, kValue);
    Formula f = formulaOf(a);
    Session s(a);
    declareArguments(s, a.positional, f.firstArg, false);
    s.requireAllValues();
    s.requireValuesFor(f.text);
    if (!s.parse(f.text))
        return kParse;
    int err = 0;
    double v = s.eval(err);
    // The number that a failing node substitutes means nothing unless asked for.
    if (err == 0 || a.value)
        std::printf("%s\n", formatNumber(v).c_str());
    if (err != 0) {
        std::fflush(stdout);
        std::fprintf(stderr, "oxel: evaluation error %d: %s\n", err, vOxError(err));
        return kEval;
    }
    return kOk;
}

// A result tree as a formula that reads back, or as the library prints it.
void printResult(Oxel* tree, bool asTree)
{
    if (!asTree) {
        KxString formula = oxelToFormula(tree);
        if (formula.length() > 0) {
            std::printf("%s\n", formula.c_str());
            return;
        }
        std::fprintf(stderr, "oxel: warning: the result cannot be written as a formula; "
                             "it is shown as the library prints it\n");
    }
    std::printf("%s\n", oxelToString(tree).c_str());
}

int runDiff(const Args& a)
{
    rejectOptions(a, kSimplify | kTree);
    Formula f = formulaOf(a);
    if (a.positional.size() < f.firstArg + 1)
        usage("diff needs the variable to differentiate by");
    const std::string& var = checkedName(a.positional[f.firstArg], a.positional[f.firstArg]);
    Session s(a);
    s.declare(var);
    declareArguments(s, a.positional, f.firstArg + 1, true);
    s.declareNamesOf(f.text);
    if (!s.parse(f.text))
        return kParse;
    std::unique_ptr<OxelExpression> d(s.expression().derivative(var.c_str()));
    if (!d) {
        std::fprintf(stderr, "oxel: no derivative with respect to %s can be formed\n", var.c_str());
        return kNoDerivative;
    }
    if (a.simplify) {
        std::unique_ptr<OxelExpression> simple(d->simplifiedFully());
        if (simple)
            d = std::move(simple);
    }
    printResult(d->root(), a.tree);
    return kOk;
}

// print and simplify differ only in what they do to the parsed tree before printing it, and
// in what they print by default.
int printTree(const Args& a, bool simplifyIt)
{
    rejectOptions(a, simplifyIt ? kOnce | kTree : kTree);
    Formula f = formulaOf(a);
    Session s(a);
    declareArguments(s, a.positional, f.firstArg, true);
    s.declareNamesOf(f.text);
    if (!s.parse(f.text))
        return kParse;
    std::unique_ptr<OxelExpression> simple;
    if (simplifyIt)
        simple.reset(a.once ? s.expression().simplified() : s.expression().simplifiedFully());
    Oxel* tree = simple ? simple->root() : s.expression().root();
    printResult(tree, a.tree || !simplifyIt);
    return kOk;
}

int runSimplify(const Args& a) { return printTree(a, true); }
int runPrint(const Args& a) { return printTree(a, false); }

int runNames(const Args& a)
{
    rejectOptions(a, 0);
    Formula f = formulaOf(a);
    if (a.positional.size() > f.firstArg)
        usage("names takes nothing but the formula");
    KxDArray<KxString> names;
    oxelFormulaNames(f.text.c_str(), names);
    for (int i = 0; i < names.length(); ++i)
        std::printf("%s\n", names[i].c_str());
    return kOk;
}

// Standard output through one large buffer.
class Output {
public:
    Output() : buf_(kSize + kSlack) {}
    ~Output() { flush(); }

    void append(const char* p, size_t n)
    {
        if (n_ + n > kSize)
            flush();
        if (n > kSize) {
            std::fwrite(p, 1, n, stdout);
            return;
        }
        std::memcpy(&buf_[n_], p, n);
        n_ += n;
    }
    void append(const std::string& s) { append(s.data(), s.size()); }

    // value and error columns closing a row; the slack leaves room for them.
    void endRow(double value, int error)
    {
        char* p = &buf_[n_];
        *p++ = ',';
        p += numtext::format(value, p);
        *p++ = ',';
        p = std::to_chars(p, p + 16, error).ptr;
        *p++ = '\n';
        n_ = static_cast<size_t>(p - buf_.data());
        if (n_ > kSize)
            flush();
    }

    void flush()
    {
        std::fwrite(buf_.data(), 1, n_, stdout);
        n_ = 0;
    }

private:
    static const size_t kSize = size_t(1) << 20, kSlack = 64;
    std::vector<char> buf_;
    size_t n_ = 0;
};

// Table rows collected a block at a time and evaluated with evalBatch, which gives what eval
// would give row by row. Each row is written as its leading text (the range values, or the
// CSV line as it came) followed by the value and the error code.
class Block {
public:
    explicit Block(Session& s)
        : expr_(s.expression()), base_(s.baseRow()), stride_(base_.size()),
          // Formulas with thousands of assigned names get shorter blocks (at most 8 MB of values).
          cap_(std::max<size_t>(1, std::min<size_t>(4096, (size_t(1) << 20) / std::max<size_t>(1, stride_)))),
          rows_(std::max<size_t>(1, cap_ * stride_)), results_(cap_), errors_(cap_), ends_(cap_)
    {
    }

    // A new row: the base values, to be filled in by the caller.
    double* add(const char* lead, size_t n)
    {
        double* row = &rows_[n_ * stride_];
        std::copy(base_.begin(), base_.end(), row);
        text_.append(lead, n);
        ends_[n_++] = text_.size();
        return row;
    }

    void dropLast()
    {
        --n_;
        text_.resize(n_ ? ends_[n_ - 1] : 0);
    }

    bool full() const { return n_ == cap_; }

    void flush(Output& out)
    {
        if (n_ == 0)
            return;
        std::fill(errors_.begin(), errors_.begin() + static_cast<long>(n_), 0);
        if (expr_.evalBatch(rows_.data(), static_cast<int>(n_), static_cast<int>(stride_),
                            results_.data(), errors_.data()) != 0)
            throw std::logic_error("evalBatch rejected the table rows");
        size_t from = 0;
        for (size_t r = 0; r < n_; ++r) {
            out.append(text_.data() + from, ends_[r] - from);
            out.endRow(results_[r], errors_[r]);
            from = ends_[r];
        }
        n_ = 0;
        text_.clear();
    }

private:
    OxelExpression& expr_;
    std::vector<double> base_;
    size_t stride_, cap_;
    std::vector<double> rows_, results_;
    std::vector<int> errors_;
    std::vector<size_t> ends_;
    std::string text_;
    size_t n_ = 0;
};

int runGridTable(Session& s, const std::vector<Range>& ranges, const std::vector<int>& slots)
{
    Output out;
    for (const Range& r : ranges)
        out.append(r.name + ",");
    out.append("value,error\n");

    // Odometer over the ranges, the last one turning fastest.
    Block block(s);
    std::vector<long> at(ranges.size(), 0);
    std::vector<double> columns(ranges.size());
    std::string lead;
    for (;;) {
        lead.clear();
        // start + i*step rather than repeated addition, so the error does not accumulate.
        for (size_t k = 0; k < ranges.size(); ++k) {
            columns[k] = ranges[k].start + static_cast<double>(at[k]) * ranges[k].step;
            lead += (k ? "," : "") + formatNumber(columns[k]);
        }
        double* row = block.add(lead.data(), lead.size());
        for (size_t k = 0; k < ranges.size(); ++k)
            row[slots[k]] = columns[k];
        if (block.full())
            block.flush(out);
        size_t k = ranges.size();
        while (k > 0 && ++at[k - 1] == ranges[k - 1].points)
            at[--k] = 0;
        if (k == 0) {
            block.flush(out);
            return kOk;
        }
    }
}

// Standard input in large blocks, cut into lines without their line feeds.
class LineReader {
public:
    LineReader() : buf_(size_t(1) << 20) {}

    // The next line; it stays valid until the next call.
    bool next(const char*& line, size_t& length)
    {
        for (;;) {
            const char* start = buf_.data() + begin_;
            if (const void* nl = std::memchr(start, '\n', end_ - begin_)) {
                line = start;
                length = static_cast<size_t>(static_cast<const char*>(nl) - start);
                begin_ += length + 1;
                return true;
            }
            if (eof_) {
                if (begin_ == end_)
                    return false;
                line = start;
                length = end_ - begin_;
                begin_ = end_;
                return true;
            }
            std::memmove(buf_.data(), start, end_ - begin_);
            end_ -= begin_;
            begin_ = 0;
            if (end_ == buf_.size())  // one line longer than the buffer
                buf_.resize(buf_.size() * 2);
            ssize_t n = ::read(0, buf_.data() + end_, buf_.size() - end_);
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0)
                eof_ = true;
            else
                end_ += static_cast<size_t>(n);
        }
    }

private:
    std::vector<char> buf_;
    size_t begin_ = 0, end_ = 0;
    bool eof_ = false;
};

bool isBlank(const char* p, size_t n)
{
    for (size_t i = 0; i < n; ++i)
        if (p[i] != ' ' && p[i] != '\t' && p[i] != '\r')
            return false;
    return true;
}

// One CSV field as a number: blanks around it are allowed.
NumberStatus fieldNumber(const char* begin, const char* end, double& out, std::string& field)
{
    while (begin < end && (*begin == ' ' || *begin == '\t' || *begin == '\r'))
        ++begin;
    while (end > begin && (end[-1] == ' ' || end[-1] == '\t' || end[-1] == '\r'))
        --end;
    auto fast = std::from_chars(begin, end, out);
    if (fast.ec == std::errc() && fast.ptr == end && begin < end)
        return kNumber;
    field.assign(begin, end);
    return parseNumber(field, out);
}

int runCsvTable(Session& s, const std::string& formula, const std::vector<std::string>& names,
                const std::string& headerLine, LineReader& in)
{
    std::vector<int> slots;
    for (const std::string& n : names) {
        int index = s.declare(n);
        for (int seen : slots)
            if (seen == index)
                usage("CSV header names variable '" + n + "' twice");
        if (s.hasValue(index))
            usage("variable '" + n + "' is both a CSV column and an argument");
        slots.push_back(index);
    }
    for (int slot : slots)
        s.markGiven(slot);
    s.requireAllValues();
    s.requireValuesFor(formula);
    if (!s.parse(formula))
        return kParse;

    Output out;
    out.append(headerLine);
    out.append(",value,error\n");
    Block block(s);
    const char* line;
    size_t length;
    std::string field;
    for (long lineNo = 2; in.next(line, length); ++lineNo) {
        if (length > 0 && line[length - 1] == '\r')
            --length;
        if (isBlank(line, length))
            continue;
        const char* end = line + length;
        size_t fields = 1;
        for (const char* p = line; (p = static_cast<const char*>(std::memchr(p, ',', end - p))); ++p)
            ++fields;
        std::string problem;
        if (fields != names.size())
            problem = " has " + std::to_string(fields) + " fields, the header has " +
                      std::to_string(names.size());
        double* row = block.add(line, length);
        const char* p = line;
        for (size_t k = 0; problem.empty() && k < fields; ++k) {
            const char* comma = static_cast<const char*>(std::memchr(p, ',', end - p));
            if (!comma)
                comma = end;
            NumberStatus status = fieldNumber(p, comma, row[slots[k]], field);
            if (status != kNumber)
                problem = ": '" + field + "' " + numberProblem(status);
            p = comma + 1;
        }
        if (!problem.empty()) {
            // The rows before the bad one are still written.
            block.dropLast();
            block.flush(out);
            out.flush();
            usage("CSV line " + std::to_string(lineNo) + problem);
        }
        if (block.full())
            block.flush(out);
    }
    block.flush(out);
    return kOk;
}

int runTable(const Args& a)
{
    rejectOptions(a, kCsv);
    Formula f = formulaOf(a);
    Session s(a);
    std::vector<Range> ranges;
    std::vector<int> slots;
    double points = 1;
    for (size_t i = f.firstArg; i < a.positional.size(); ++i) {
        const std::string& arg = a.positional[i];
        auto pair = splitAssignment(arg, "argument");
        if (pair.second.find(':') == std::string::npos) {
            s.setValue(pair.first, checkedNumber(pair.second, arg), arg);
            continue;
        }
        if (a.csv)
            usage("ranges cannot be combined with --csv");
        Range r = parseRange(pair.first, pair.second, arg);
        points *= static_cast<double>(r.points);
        if (points > kMaxTablePoints)
            usage("the ranges together have more than 10000000 points");
        // Mark the variable as given so that duplicates and missing values are caught alike.
        s.setValue(r.name, 0.0, arg);
        slots.push_back(s.declare(r.name));
        ranges.push_back(r);
    }

    if (a.csv) {
        LineReader in;
        const char* line;
        size_t length;
        std::string header;
        if (in.next(line, length))
            header.assign(line, length);
        if (!header.empty() && header.back() == '\r')
            header.pop_back();
        if (trim(header).empty())
            usage("--csv expects a header line naming the variables on standard input");
        std::vector<std::string> names = splitFields(header, ',');
        for (const std::string& n : names)
            checkedName(n, header);
        return runCsvTable(s, f.text, names, header, in);
    }
    if (ranges.empty())
        usage("table needs a range name=start:stop[:step] or --csv");
    s.requireAllValues();
    s.requireValuesFor(f.text);
    if (!s.parse(f.text))
        return kParse;
    return runGridTable(s, ranges, slots);
}

// The build record is "|key|value|key|value..."; the version comes from there too.
int showVersion()
{
    const char* record = orvexpackage_oxel();
    std::vector<std::string> fields = splitFields(record ? record : "", '|');
    std::string major, minor, patch, tag;
    for (size_t i = 1; i + 1 < fields.size(); i += 2) {
        if (fields[i] == "version_major")
            major = fields[i + 1];
        else if (fields[i] == "version_minor")
            minor = fields[i + 1];
        else if (fields[i] == "version_patch")
            patch = fields[i + 1];
        else if (fields[i] == "version_tag")
            tag = fields[i + 1];
    }
    std::printf("oxel %s.%s.%s%s%s\n", major.c_str(), minor.c_str(), patch.c_str(),
                tag.empty() ? "" : " ", tag.c_str());
    std::printf("build record:\n");
    for (size_t i = 1; i + 1 < fields.size(); i += 2)
        std::printf("  %-14s %s\n", (fields[i] + ":").c_str(), fields[i + 1].c_str());
    return kOk;
}

int run(int argc, char** argv)
{
    if (argc < 2)
        usage("no command given");
    std::string first = argv[1];
    if (first == "-h" || first == "--help" || first == "help") {
        std::fputs(kHelp, stdout);
        return kOk;
    }
    if (first == "-V" || first == "--version" || first == "version")
        return showVersion();
    for (int i = 2; i < argc; ++i) {
        if (std::strcmp(argv[i], "--") == 0)
            break;
        if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0) {
            std::fputs(kHelp, stdout);
            return kOk;
        }
    }
    Args a = parseArgs(argc, argv);
    if (a.command == "eval")
        return runEval(a);
    if (a.command == "diff")
        return runDiff(a);
    if (a.command == "simplify")
        return runSimplify(a);
    if (a.command == "print")
        return runPrint(a);
    if (a.command == "table")
        return runTable(a);
    if (a.command == "names")
        return runNames(a);
    usage("unknown command '" + a.command + "'");
}

}  // namespace

// The library's messages become lines on standard error; its ignored characters must not end
// up in front of a table on standard output.
void onMessage(int kind, const char* text, void*)
{
    if (kind == OXEL_MESSAGE_PARSE_ERROR)
        std::fprintf(stderr, "Parsing OxError: %s\n", text);
    else
        std::fprintf(stderr, "oxel: warning: %s\n", text);
}

int main(int argc, char** argv)
{
    oxelSetMessageHandler(onMessage, nullptr);
    int status;
    try {
        status = run(argc, argv);
    } catch (const UsageError& e) {
        std::fflush(stdout);
        std::fprintf(stderr, "oxel: %s\n(try 'oxel --help')\n", e.message.c_str());
        status = kUsage;
    } catch (const std::exception& e) {
        std::fflush(stdout);
        std::fprintf(stderr, "oxel: %s\n", e.what());
        status = kEval;
    }
    std::fflush(stdout);
    return status;
}
