// Shared pieces of the oxel program: usage errors, names, numbers, fields, options, results.
#include "common.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "caret.h"
#include "number_text.h"

namespace oxcli {

[[noreturn]] void usage(const std::string& message)
{
    throw UsageError{message};
}

std::string formatNumber(double v)
{
    char buf[numtext::kMaxText];
    return std::string(buf, static_cast<size_t>(numtext::format(v, buf)));
}

void writeOut(const char* p, size_t n)
{
    if (n > 0 && std::fwrite(p, 1, n, stdout) != n)
        throw WriteError{errno};
}

namespace {

// The first ~60 bytes of field with control characters escaped, and what follows the quote:
// nothing, or how long the whole field is when it was cut.
std::pair<std::string, std::string> shownParts(const std::string& field)
{
    const size_t kShown = 60;
    size_t cut = field.size() <= kShown + 20 ? field.size() : kShown;
    // Never in the middle of a UTF-8 sequence.
    while (cut < field.size() && cut > 0 && (static_cast<unsigned char>(field[cut]) & 0xc0) == 0x80)
        --cut;
    std::string head;
    for (size_t i = 0; i < cut; ++i) {
        unsigned char c = static_cast<unsigned char>(field[i]);
        if (c >= 0x20 && c != 0x7f) {
            head += static_cast<char>(c);
            continue;
        }
        char code[8];
        std::snprintf(code, sizeof code, "\\x%02x", c);
        head += code;
    }
    std::string tail;
    if (cut < field.size())
        tail = "... (" + std::to_string(field.size()) + " bytes)";
    return {head, tail};
}

}  // namespace

std::string shown(const std::string& field)
{
    auto parts = shownParts(field);
    return parts.first + parts.second;
}

std::string quoted(const std::string& field)
{
    auto parts = shownParts(field);
    return "'" + parts.first + "'" + parts.second;
}

std::string checkedName(const std::string& name, const std::string& arg)
{
    if (!oxelIsVariableName(name.c_str()) || name.find('\0') != std::string::npos)
        usage(quoted(name) + " in " + quoted(arg) +
              " is not a variable name (letters, digits and _, not starting with a digit, "
              "and no function name or keyword)");
    return name;
}

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
        usage(quoted(text) + " in " + quoted(arg) + " " + numberProblem(status));
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

std::pair<std::string, std::string> splitAssignment(const std::string& arg, const char* what,
                                                    const char* form)
{
    size_t eq = arg.find('=');
    if (eq == std::string::npos || eq == 0 || eq + 1 == arg.size())
        usage(std::string(what) + " " + quoted(arg) + " must have the form " + form);
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
                usage("alias " + quoted(v) + " names the variable itself");
            for (const auto& seen : a.aliases)
                if (seen.first == pair.first && seen.second != pair.second)
                    usage("alias " + quoted(pair.first) + " stands for both " +
                          quoted(seen.second) + " and " + quoted(pair.second));
            a.aliases.push_back(pair);
        } else if (opt == "--var") {
            std::string v = takeValue();
            a.vars.push_back(checkedName(v, v));
        } else if (opt == "--file") {
            if (a.hasFile)
                usage("--file is given more than once");
            a.file = takeValue();
            a.hasFile = true;
        } else if (opt == "--budget") {
            std::string v = takeValue();
            char* end = nullptr;
            long n = std::strtol(v.c_str(), &end, 10);
            if (v.empty() || *end != '\0' || n <= 0)
                usage("--budget must be a positive number of nodes");
            oxelSetNodeBudget(n);
        } else if (arg == "--simplify") {
            a.simplify = true;
        } else if (opt == "--format") {
            a.format = takeValue();
            if (a.format != "formula" && a.format != "c" && a.format != "latex")
                usage("--format must be formula, c or latex");
        } else if (opt == "--function") {
            a.function = takeValue();
            checkedName(a.function, a.function);
        } else if (arg == "--passes") {
            a.passes = true;
        } else if (arg == "--shared") {
            a.shared = true;
        } else if (arg == "--once") {
            a.once = true;
        } else if (arg == "--csv") {
            a.csv = true;
        } else if (arg == "--tree") {
            a.tree = true;
        } else if (arg == "--value") {
            a.value = true;
        } else if (arg == "--hessian") {
            a.hessian = true;
        } else if (opt == "--grad") {
            std::string v = takeValue();
            for (const std::string& name : splitFields(v, ','))
                a.grad.push_back(checkedName(trim(name), v));
        } else {
            usage("unknown option " + quoted(arg));
        }
    }
    return a;
}

std::vector<std::string> gradientLabels(const std::vector<std::string>& names, int order)
{
    std::vector<std::string> labels{"value"};
    for (const std::string& n : names)
        labels.push_back("d/d" + n);
    for (size_t i = 0; order == 2 && i < names.size(); ++i)
        for (size_t j = i; j < names.size(); ++j)
            labels.push_back("d2/d" + names[i] + "d" + names[j]);
    return labels;
}

void showWhere(const std::string& text, int offset)
{
    OxelCaret c;
    if (!oxelCaretLines(text, offset, c))
        return;
    // Control characters are shown escaped, the caret moved along with them.
    size_t at = c.caret.size() - c.lead.size() - c.before.size();
    std::string line, caret = c.caret.substr(0, c.lead.size() + c.before.size());
    for (size_t i = 0; i < c.line.size(); ++i) {
        std::string one = c.line[i] == '\t' ? "\t" : shown(c.line.substr(i, 1));
        line += one;
        if (i < at)
            caret += c.line[i] == '\t' ? "\t" : std::string(one.size(), ' ');
    }
    std::fprintf(stderr, "%s%s%s%s\n%s^\n", c.lead.c_str(), c.before.c_str(), line.c_str(),
                 c.after.c_str(), caret.c_str());
}

int unknownCall(const std::string& formula, std::string& name)
{
    KxDArray<KxString> names;
    if (oxelFormulaNames(formula.c_str(), names) == 0)
        return -1;
    auto isDigit = [](char c) { return std::isdigit(static_cast<unsigned char>(c)) != 0; };
    auto isWord = [](char c) { return std::isalnum(static_cast<unsigned char>(c)) || c == '_'; };
    // The lexer's hexadecimal digits (upper case A and F only).
    auto isHex = [](char c) { return c != '\0' && std::strchr("0123456789abcdefAF_", c) != nullptr; };
    const std::string& t = formula;
    const size_t n = t.size();
    // Numbers and {...} texts are passed over as the lexer reads them, so that neither the 'e'
    // of an exponent nor a word inside braces counts as a name.
    for (size_t i = 0; i < n;) {
        if (t[i] == '{') {
            int depth = 1;
            for (++i; i < n && depth > 0; ++i)
                depth += t[i] == '{' ? 1 : t[i] == '}' ? -1 : 0;
        } else if (t.compare(i, 2, "0x") == 0 && i + 2 < n && isHex(t[i + 2])) {
            for (i += 2; i < n && isHex(t[i]); ++i) {
            }
        } else if (isDigit(t[i]) || (t[i] == '.' && i + 1 < n && isDigit(t[i + 1]))) {
            while (i < n && isDigit(t[i]))
                ++i;
            if (i < n && t[i] == '.')
                ++i;
            while (i < n && isDigit(t[i]))
                ++i;
            size_t e = i + 1;
            if (e < n && (t[e] == '+' || t[e] == '-'))
                ++e;
            if (i < n && (t[i] == 'e' || t[i] == 'E') && e < n && isDigit(t[e]))
                for (i = e; i < n && isDigit(t[i]); ++i) {
                }
        } else if (std::isalpha(static_cast<unsigned char>(t[i])) || t[i] == '_') {
            size_t start = i;
            while (i < n && isWord(t[i]))
                ++i;
            size_t next = t.find_first_not_of(" \t\r\n", i);
            if (next == std::string::npos || t[next] != '(')
                continue;
            std::string word = t.substr(start, i - start);
            for (int k = 0; k < names.length(); ++k)
                if (word == names[k].c_str()) {
                    name = word;
                    return static_cast<int>(start);
                }
        } else {
            ++i;
        }
    }
    return -1;
}

Formula formulaOf(const Args& a)
{
    Formula f{"", 1};
    if (a.hasFile) {
        // stdio tells an empty file from one that cannot be read (a directory, say).
        std::string content;
        FILE* file = std::fopen(a.file.c_str(), "rb");
        char chunk[65536];
        for (size_t n; file && (n = std::fread(chunk, 1, sizeof chunk, file)) > 0;)
            content.append(chunk, n);
        bool failed = !file || std::ferror(file);
        if (file)
            std::fclose(file);
        if (failed)
            usage("cannot read the formula file " + quoted(a.file));
        // The library reads text up to its first NUL: what follows would silently vanish.
        size_t nul = content.find('\0');
        if (nul != std::string::npos)
            usage("the formula file " + quoted(a.file) + " holds a NUL byte at offset " +
                  std::to_string(nul));
        f = {content, 0};
    } else if (a.positional.empty()) {
        usage(a.command + " needs a formula");
    } else {
        f.text = a.positional[0];
    }
    if (trim(f.text).empty())
        usage("the formula is empty");
    return f;
}

void rejectOptions(const Args& a, int accepted)
{
    const struct { bool given; int flag; const char* message; } options[] = {
        {a.simplify, kSimplify, "--simplify applies to diff only"},
        {a.once, kOnce, "--once applies to simplify only"},
        {a.csv, kCsv, "--csv applies to table only"},
        {a.tree, kTree, "--tree applies to diff, simplify and print only"},
        {a.value, kValue, "--value applies to eval only"},
        {a.hessian, kHessian, "--hessian applies to grad only"},
        {!a.grad.empty(), kGrad, "--grad applies to table only"},
        {!a.format.empty(), kFormat, "--format applies to diff, simplify and print only"},
        {!a.function.empty(), kFormat, "--function applies to diff, simplify and print only"},
        {a.passes, kPasses, "--passes applies to diff and simplify only"},
        {a.shared, kShared, "--shared applies to diff only"},
    };
    for (const auto& o : options)
        if (o.given && !(accepted & o.flag))
            usage(o.message);
}

int evalStatus(int err)
{
    if (err == 0)
        return kOk;
    std::fflush(stdout);
    std::fprintf(stderr, "oxel: evaluation error %d: %s\n", err, vOxError(err));
    return kEval;
}

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

}  // namespace oxcli
