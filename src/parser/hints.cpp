// Readable explanations of parse failures: the likely cause, or the parser's message in words.
#include <oxel/parser.h>

#include <algorithm>
#include <cctype>
#include <string>
#include <unordered_set>
#include <vector>

namespace {

// The grammar's symbol names as a reader says them; a quoted character stays as it is.
struct SymbolWords {
    const char* symbol;
    const char* words;
};
const SymbolWords kSymbolWords[] = {
    { "$end", "the end of the formula" }, { "$undefined", "a character the language has not" },
    { "NUM", "a number" }, { "ID", "a name" }, { "VAR", "a name" }, { "DEPVAR", "a name" },
    { "COMPILED_EXPR", "a {...} block" }, { "PG", "'+='" }, { "MaG", "'*='" }, { "MiG", "'-='" },
    { "GG", "'/='" }, { "PP", "'++'" }, { "MM", "'--'" }, { "EQ", "'=='" }, { "LE", "'<='" },
    { "GE", "'>='" }, { "NE", "'!='" }, { "LAND", "'&&'" }, { "LOR", "'||'" },
    { "BIT_OR", "'|'" }, { "BIT_AND", "'&'" }, { "BIT_XOR", "'^'" }, { "SHIFT_LEFT", "'<<'" },
    { "SHIFT_RIGHT", "'>>'" }, { "NEG", "'-'" }, { "KW_FUNCTION1", "a function name" },
    { "KW_FUNCTION2", "a function name" },
};

std::string symbolWords(const std::string& symbol)
{
    for (const SymbolWords& s : kSymbolWords)
        if (symbol == s.symbol)
            return s.words;
    if (symbol.compare(0, 3, "KW_") == 0) {  // the token of one keyword: its spelling
        std::string word;
        for (size_t i = 3; i < symbol.size(); ++i)
            word += static_cast<char>(std::tolower(static_cast<unsigned char>(symbol[i])));
        return "'" + word + "'";
    }
    return symbol;
}

// "syntax error, unexpected A, expecting B or C" as "found A where B or C was expected".
std::string inWords(const std::string& message)
{
    const std::string lead = "syntax error, unexpected ";
    if (message.compare(0, lead.size(), lead) != 0)
        return "";
    std::string rest = message.substr(lead.size());
    size_t near = rest.rfind(" near >");  // the text at the failure, which the caret shows
    if (near != std::string::npos)
        rest.erase(near);
    std::string found = rest, expected;
    size_t at = rest.find(", expecting ");
    if (at != std::string::npos) {
        found = rest.substr(0, at);
        expected = rest.substr(at + 12);
    }
    std::string out = "found " + symbolWords(found);
    if (expected.empty())
        return out + " where it cannot stand";
    std::vector<std::string> words;
    for (size_t from = 0;;) {
        size_t to = expected.find(" or ", from);
        words.push_back(symbolWords(expected.substr(from, to - from)));
        if (to == std::string::npos)
            break;
        from = to + 4;
    }
    out += " where ";
    for (size_t i = 0; i < words.size(); ++i)
        out += (i == 0 ? "" : i + 1 == words.size() ? " or " : ", ") + words[i];
    return out + " was expected";
}

// A hint stays one line however many names the host declared.
const int kNamesShown = 20;

bool isNameChar(char c)
{
    return std::isalnum(static_cast<unsigned char>(c)) || c == '_';
}

}  // namespace

KxString oxelParseHint(const char* text, const char* message, const KxDArray<KxString>& known)
{
    if (!text || !message)
        return KxString();
    const std::string t = text;
    std::unordered_set<std::string> declared;
    for (int k = 0; k < known.length(); ++k)
        declared.insert(known[k].c_str());
    // Words of the text outside braces: a function the language spells otherwise, or a
    // reserved word that no rule accepts.
    for (size_t i = 0, depth = 0; i < t.size();) {
        if (t[i] == '{' || t[i] == '}') {
            if (t[i] == '{')
                ++depth;
            else if (depth > 0)
                --depth;
            ++i;
            continue;
        }
        if (!isNameChar(t[i]) || depth > 0) {
            ++i;
            continue;
        }
        size_t end = i;
        while (end < t.size() && isNameChar(t[end]))
            ++end;
        std::string word = t.substr(i, end - i);
        bool number = std::isdigit(static_cast<unsigned char>(word[0]));
        i = end;
        if (number)
            continue;
        size_t next = end;
        while (next < t.size() && std::isspace(static_cast<unsigned char>(t[next])))
            ++next;
        if (word == "log" && next < t.size() && t[next] == '(')  // a variable log is no call
            return KxString("no function log: ln is the natural logarithm, log10 base 10");
        if (word == "gamma" || word == "log1p" || word == "logb")
            return KxString(("'" + word + "' is a reserved word with no function in the formula "
                                          "language")
                                .c_str());
    }
    if (t.find("**") != std::string::npos || t.find('^') != std::string::npos)
        return KxString("powers are written pow(a, b); ^ is exclusive or");
    // The first name the text reads without a declaration or an assignment before it.
    KxDArray<KxString> names;
    KxDArray<int> assigned;
    oxelFormulaNames(text, names, &assigned);
    for (int i = 0; i < names.length(); ++i) {
        if (assigned[i])
            continue;
        if (declared.count(names[i].c_str()))
            continue;
        std::string hint = std::string("unknown name '") + names[i].c_str() + "' (declared: ";
        const int shown = std::min(known.length(), kNamesShown);
        for (int k = 0; k < shown; ++k)
            hint += (k ? ", " : "") + std::string(known[k].c_str());
        if (shown < known.length())
            hint += " and " + std::to_string(known.length() - shown) + " more";
        return KxString((hint + (known.length() ? ")" : "none)")).c_str());
    }
    return KxString(inWords(message).c_str());
}
