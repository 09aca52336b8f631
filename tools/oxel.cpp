// oxel: command-line front end of liboxel (evaluate, differentiate, simplify, print, tabulate).
#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <oxel/oxel.h>

namespace {

enum ExitCode { kOk = 0, kUsage = 1, kParse = 2, kEval = 3, kNoDerivative = 4 };

// More points than this in one table is almost certainly a typo in a range.
const double kMaxTablePoints = 10e6;

const char kHelp[] =
    "usage: oxel COMMAND FORMULA [ARGUMENTS] [OPTIONS]\n"
    "       oxel --help | --version\n"
    "\n"
    "Commands:\n"
    "  eval FORMULA name=value...\n"
    "      Evaluate FORMULA and print its value. Every variable that the formula\n"
    "      uses must be given a value.\n"
    "  diff FORMULA VAR [name | name=value]...\n"
    "      Print the derivative of FORMULA with respect to VAR. VAR is declared\n"
    "      as a variable; declare every other variable of the formula by name\n"
    "      (values are accepted and ignored). The derivative is printed\n"
    "      unsimplified unless --simplify is given.\n"
    "  simplify FORMULA [name | name=value]...\n"
    "      Print FORMULA simplified: the simplification pass is repeated until\n"
    "      the text stops changing (--once: a single pass).\n"
    "  print FORMULA [name | name=value]...\n"
    "      Print the formula as the library prints its tree.\n"
    "  table FORMULA name=start:stop[:step]... [name=value]...\n"
    "      Evaluate FORMULA on a grid and write CSV: one column per range, then\n"
    "      'value' and 'error' (the error code, 0 when none). The step defaults\n"
    "      to 1; several ranges are nested loops, the first one outermost.\n"
    "      At most 10000000 points.\n"
    "  table FORMULA --csv [name=value]...\n"
    "      Read variable values from CSV on standard input: the header line\n"
    "      names the variables, every further line holds one row of values.\n"
    "      Each row is written back followed by 'value' and 'error'.\n"
    "\n"
    "Options:\n"
    "  --alias ALIAS=NAME  ALIAS may be written for the variable NAME (which is\n"
    "                      declared by this)\n"
    "  --var NAME          declare a variable without a value (diff, simplify,\n"
    "                      print)\n"
    "  --simplify          diff: simplify the derivative until its text stops\n"
    "                      changing\n"
    "  --once              simplify: one simplification pass only\n"
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
    "double. Evaluation errors: eval prints the value and, on standard error,\n"
    "the code and its message; table reports them per row in the error column\n"
    "and still exits with 0.\n"
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

// Fewest significant digits that read back to the same double; 15 digits
// always round-trip through decimal, so at most three attempts are needed.
std::string formatNumber(double v)
{
    if (std::isnan(v))
        return "nan";
    if (std::isinf(v))
        return v < 0 ? "-inf" : "inf";
    char buf[40];
    for (int digits = 15; digits <= 17; ++digits) {
        std::snprintf(buf, sizeof buf, "%.*g", digits, v);
        if (std::strtod(buf, nullptr) == v)
            break;
    }
    return buf;
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
    size_t b = s.find_first_not_of(" \t\r");
    if (b == std::string::npos)
        return "";
    size_t e = s.find_last_not_of(" \t\r");
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
    bool simplify = false, once = false, csv = false;
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
        } else if (arg == "--simplify") {
            a.simplify = true;
        } else if (arg == "--once") {
            a.once = true;
        } else if (arg == "--csv") {
            a.csv = true;
        } else {
            usage("unknown option '" + arg + "'");
        }
    }
    return a;
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

    bool hasValue(int index) const { return index < static_cast<int>(given_.size()) && given_[index]; }

    // Every declared variable must have a value before evaluating.
    void requireAllValues()
    {
        int declared = expr_.numVars() - expr_.numInternalVars();
        for (int i = 0; i < declared; ++i)
            if (!hasValue(i))
                usage(std::string("no value for variable '") + expr_.varName(i) + "'");
    }

    // Parses the formula; on failure adds a line to the parser's own message (which the
    // library has already written to standard error) and returns false.
    bool parse(const std::string& formula)
    {
        if (expr_.initFromString(formula.c_str()))
            return true;
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

const std::string& formulaOf(const Args& a)
{
    if (a.positional.empty())
        usage(a.command + " needs a formula");
    if (trim(a.positional[0]).empty())
        usage("the formula is empty");
    return a.positional[0];
}

void rejectOptions(const Args& a, bool simplifyOk, bool onceOk, bool csvOk)
{
    if (a.simplify && !simplifyOk)
        usage("--simplify applies to diff only");
    if (a.once && !onceOk)
        usage("--once applies to simplify only");
    if (a.csv && !csvOk)
        usage("--csv applies to table only");
}

int runEval(const Args& a)
{
    rejectOptions(a, false, false, false);
    const std::string& formula = formulaOf(a);
    Session s(a);
    declareArguments(s, a.positional, 1, false);
    s.requireAllValues();
    if (!s.parse(formula))
        return kParse;
    int err = 0;
    double v = s.eval(err);
    std::printf("%s\n", formatNumber(v).c_str());
    if (err != 0) {
        std::fflush(stdout);
        std::fprintf(stderr, "oxel: evaluation error %d: %s\n", err, vOxError(err));
        return kEval;
    }
    return kOk;
}

int runDiff(const Args& a)
{
    rejectOptions(a, true, false, false);
    const std::string& formula = formulaOf(a);
    if (a.positional.size() < 2)
        usage("diff needs the variable to differentiate by");
    const std::string& var = checkedName(a.positional[1], a.positional[1]);
    Session s(a);
    s.declare(var);
    declareArguments(s, a.positional, 2, true);
    if (!s.parse(formula))
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
    std::printf("%s\n", oxelToString(d->root()).c_str());
    return kOk;
}

// print and simplify differ only in what they do to the parsed tree before printing it.
int printTree(const Args& a, bool simplifyIt)
{
    rejectOptions(a, false, simplifyIt, false);
    const std::string& formula = formulaOf(a);
    Session s(a);
    declareArguments(s, a.positional, 1, true);
    if (!s.parse(formula))
        return kParse;
    std::unique_ptr<OxelExpression> simple;
    if (simplifyIt)
        simple.reset(a.once ? s.expression().simplified() : s.expression().simplifiedFully());
    Oxel* tree = simple ? simple->root() : s.expression().root();
    std::printf("%s\n", oxelToString(tree).c_str());
    return kOk;
}

int runSimplify(const Args& a) { return printTree(a, true); }
int runPrint(const Args& a) { return printTree(a, false); }

// Collects table rows and evaluates them a block at a time with evalBatch, which gives
// what eval would give row by row; each block is written as soon as it is evaluated.
class TableWriter {
public:
    TableWriter(Session& s, const std::vector<int>& slots)
        : expr_(s.expression()), slots_(slots), base_(s.baseRow()), stride_(base_.size()),
          // Formulas with thousands of assigned names get shorter blocks (at most 8 MB of values).
          block_(std::max<size_t>(1, std::min<size_t>(4096, (size_t(1) << 20) / stride_)))
    {
        rows_.reserve(block_ * stride_);
        columns_.reserve(block_ * slots_.size());
    }

    void add(const std::vector<double>& columns)
    {
        rows_.insert(rows_.end(), base_.begin(), base_.end());
        double* row = &rows_[rows_.size() - stride_];
        for (size_t k = 0; k < slots_.size(); ++k)
            row[slots_[k]] = columns[k];
        columns_.insert(columns_.end(), columns.begin(), columns.end());
        if (rows_.size() == block_ * stride_)
            flush();
    }

    void flush()
    {
        int n = static_cast<int>(columns_.size() / slots_.size());
        if (n == 0)
            return;
        std::vector<double> results(n);
        std::vector<int> errors(n, 0);
        if (expr_.evalBatch(rows_.data(), n, static_cast<int>(stride_), results.data(),
                            errors.data()) != 0)
            throw std::logic_error("evalBatch rejected the table rows");
        std::string text;
        for (int r = 0; r < n; ++r) {
            for (size_t k = 0; k < slots_.size(); ++k) {
                text += formatNumber(columns_[r * slots_.size() + k]);
                text += ',';
            }
            text += formatNumber(results[r]);
            text += ',';
            text += std::to_string(errors[r]);
            text += '\n';
        }
        std::fwrite(text.data(), 1, text.size(), stdout);
        rows_.clear();
        columns_.clear();
    }

private:
    OxelExpression& expr_;
    std::vector<int> slots_;
    std::vector<double> base_;
    size_t stride_, block_;
    std::vector<double> rows_, columns_;
};

int runGridTable(Session& s, const std::vector<Range>& ranges, const std::vector<int>& slots)
{
    std::string header;
    for (const Range& r : ranges)
        header += r.name + ",";
    std::printf("%svalue,error\n", header.c_str());

    // Odometer over the ranges, the last one turning fastest.
    TableWriter out(s, slots);
    std::vector<long> at(ranges.size(), 0);
    std::vector<double> columns(ranges.size());
    for (;;) {
        // start + i*step rather than repeated addition, so the error does not accumulate.
        for (size_t k = 0; k < ranges.size(); ++k)
            columns[k] = ranges[k].start + static_cast<double>(at[k]) * ranges[k].step;
        out.add(columns);
        size_t k = ranges.size();
        while (k > 0 && ++at[k - 1] == ranges[k - 1].points)
            at[--k] = 0;
        if (k == 0) {
            out.flush();
            return kOk;
        }
    }
}

int runCsvTable(Session& s, const std::string& formula, const std::vector<std::string>& names,
                const std::string& headerLine)
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
    int declared = s.expression().numVars() - s.expression().numInternalVars();
    for (int i = 0; i < declared; ++i) {
        bool covered = s.hasValue(i);
        for (int slot : slots)
            covered = covered || slot == i;
        if (!covered)
            usage(std::string("no value for variable '") + s.expression().varName(i) + "'");
    }
    if (!s.parse(formula))
        return kParse;
    std::printf("%s,value,error\n", headerLine.c_str());

    TableWriter out(s, slots);
    std::string line;
    std::vector<double> columns(names.size());
    long lineNo = 1;
    while (std::getline(std::cin, line)) {
        ++lineNo;
        if (trim(line).empty())
            continue;
        std::vector<std::string> fields = splitFields(line, ',');
        std::string problem;
        if (fields.size() != names.size())
            problem = " has " + std::to_string(fields.size()) + " fields, the header has " +
                      std::to_string(names.size());
        for (size_t k = 0; problem.empty() && k < fields.size(); ++k) {
            NumberStatus status = parseNumber(fields[k], columns[k]);
            if (status != kNumber)
                problem = ": '" + fields[k] + "' " + numberProblem(status);
        }
        if (!problem.empty()) {
            // The rows before the bad one are still written.
            out.flush();
            usage("CSV line " + std::to_string(lineNo) + problem);
        }
        out.add(columns);
    }
    out.flush();
    return kOk;
}

int runTable(const Args& a)
{
    rejectOptions(a, false, false, true);
    const std::string& formula = formulaOf(a);
    Session s(a);
    std::vector<Range> ranges;
    std::vector<int> slots;
    double points = 1;
    for (size_t i = 1; i < a.positional.size(); ++i) {
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
        std::string header;
        if (!std::getline(std::cin, header) || trim(header).empty())
            usage("--csv expects a header line naming the variables on standard input");
        std::vector<std::string> names = splitFields(header, ',');
        std::string joined;
        for (const std::string& n : names) {
            checkedName(n, header);
            joined += (joined.empty() ? "" : ",") + n;
        }
        return runCsvTable(s, formula, names, joined);
    }
    if (ranges.empty())
        usage("table needs a range name=start:stop[:step] or --csv");
    s.requireAllValues();
    if (!s.parse(formula))
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
    usage("unknown command '" + a.command + "'");
}

}  // namespace

int main(int argc, char** argv)
{
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
