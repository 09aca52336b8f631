// Parser entry: statement splitting and chaining, name lookup, assignments and the error sink.
#include "parser/converter.h"

#include <climits>
#include <cstdio>
#include <cstring>


#include "support/fork.h"
#include "support/messages.h"
#include "support/name_index.h"

KxMutex strToOxelMutex(false);

KxDArray<KxString>* OxConverter_yyVarNames = nullptr;
KxHashTable<KxString, KxString>* OxConverter_yyVarAlias = nullptr;
OxDepVarnode** OxConverter_yyDepVarnodes = nullptr;
int OxConverter_yyNumDepVars = 0;

std::string yyFehler;

namespace {

// What a text nested beyond OXEL_MAX_DEPTH gets.
const std::string depthMessage =
    "expression nested too deeply (more than " + std::to_string(OXEL_MAX_DEPTH) + " levels)";

// Message of the last failed parse, for OxConverter::lastError().
std::string lastFailure;

class ParseLock {
public:
    ParseLock() { strToOxelMutex.lock(); }
    ~ParseLock() { strToOxelMutex.unlock(); }
    ParseLock(const ParseLock&) = delete;
    ParseLock& operator=(const ParseLock&) = delete;
};

// A fork waits for a parse under way, so that a child inherits neither a held lock nor a
// half-run parse's state.
const bool parseForkSafe = oxelForkLock(kForkParse, strToOxelMutex);

// Up to this many names a scan is cheaper than building an index.
const int kScannedNames = 16;

// The running parse's index of OxConverter_yyVarNames[0, indexedNames): the parse only
// appends to the names, so the index catches up on the next lookup.
std::vector<int> nameSlots;
int indexedNames = 0;

void forgetNameIndex()
{
    std::vector<int>().swap(nameSlots);  // a large one is not kept after its parse
    indexedNames = 0;
}

}  // namespace

int OxConverter_getVarIndex(const char* name)
{
    if (OxConverter_yyVarAlias && OxConverter_yyVarAlias->count() > 0) {
        if (KxString* target = OxConverter_yyVarAlias->lookup(KxString(name)))
            name = target->c_str();
    }
    KxDArray<KxString>* names = OxConverter_yyVarNames;
    if (!names || names->length() == 0)
        return -1;
    if (names->length() <= kScannedNames) {
        for (int i = 0; i < names->length(); ++i)
            if (std::strcmp((*names)[i].c_str(), name) == 0)
                return i;
        return -1;
    }
    for (; indexedNames < names->length(); ++indexedNames)
        oxs::nameAdd(nameSlots, *names, indexedNames);
    return oxs::nameFind(nameSlots, *names, name);
}

OxDepVarnode* OxConverter_getdepvar(const char* name)
{
    if (!OxConverter_yyDepVarnodes || OxConverter_yyNumDepVars < 1)
        return nullptr;
    for (int i = 0; i < OxConverter_yyNumDepVars; ++i) {
        OxDepVarnode* node = OxConverter_yyDepVarnodes[i];
        if (node && std::strcmp(node->getName(), name) == 0)
            return node;
    }
    return nullptr;
}

Oxel* ASSIGNMENT(int index, Oxel* exp)
{
    return new OxVar(index, (*OxConverter_yyVarNames)[index].c_str(), exp);
}

Oxel* NEW_ASSIGNMENT(char* name, Oxel* exp)
{
    // An inner assignment of the same statement may have created the name meanwhile.
    int index = OxConverter_getVarIndex(name);
    if (index < 0) {
        index = OxConverter_yyVarNames->length();
        OxConverter_yyVarNames->append(KxString(name));
    }
    return new OxVar(index, name, exp);
}

int OxConverter_component(double v)
{
    if (v >= 2147483647.0)
        return INT_MAX;
    if (v <= -2147483648.0)
        return INT_MIN;
    return static_cast<int>(v);
}

static std::string formatted(const char* format, const char* name, int number)
{
    int n = std::snprintf(nullptr, 0, format, name, number);
    std::string out(n > 0 ? static_cast<size_t>(n) : 0, '\0');
    std::snprintf(&out[0], out.size() + 1, format, name, number);
    return out;
}

Oxel* DEPVAR_CHECK_RETURN_OR_ERROR(int dims, OxDepVarnode* node, double component, Oxel** args)
{
    int c = OxConverter_component(component);
    if (node->getNDims() == dims && c >= 0 && c < node->getNDataVar())
        return new OxDepVar(node, c, 0, nullptr, args);
    // The trailing line feeds are part of the messages.
    std::string msg;
    if (node->getNDims() != dims)
        msg = formatted("dependant variable %s requires %d dimensions\n", node->getName(),
                        node->getNDims());
    else if (c < 0)
        msg = formatted("index must be >= 0 for dependant variable %s.\n", node->getName(), 0);
    else
        msg = formatted("Dependant variable %s has only %d components.\n", node->getName(),
                        node->getNDataVar());
    OxConverter_yyerror(msg.c_str());
    // The parser does not release the symbols of a rule whose action aborts.
    for (int i = 0; args && i < dims; ++i)
        oxelDestroy(args[i]);
    return nullptr;
}

int OxConverter_yyerror(const char* msg)
{
    yyFehler = msg;
    yyFehler += " near >";
    yyFehler += OxConverter_yytext ? OxConverter_yytext : "";
    yyFehler += "<";
    return 1;
}

Oxel* OxConverter_parse(const char* text, KxDArray<KxString>& varNames,
                        KxHashTable<KxString, KxString>* aliases, int numDepVars,
                        OxDepVarnode** depVars, std::string* error, int* errorOffset,
                        bool wholeStatements)
{
    OxelMessageQueue messages;  // handed over after the lock is released
    ParseLock lock;
    OxConverter_wholeStatements = wholeStatements;
    OxConverter_yyrestart(nullptr);
    OxConverter_startText();
    OxConverter_forgetLongNames();
    OxConverter_yyVarNames = &varNames;
    struct IndexScope {
        ~IndexScope() { forgetNameIndex(); }
    } indexScope;
    OxConverter_yyVarAlias = aliases;
    OxConverter_yyDepVarnodes = depVars;
    OxConverter_yyNumDepVars = numDepVars;

    // The caller's text is cut at each ';' in place, and the ';' put back afterwards.
    char* start = const_cast<char*>(text);
    Oxel* result = nullptr;
    for (;;) {
        char* semicolon = std::strchr(start, ';');
        if (semicolon)
            *semicolon = '\0';
        OxConverter_setText(start);
        OxConverter_yyBase = static_cast<int>(start - text);
        OxConverter_resetOffsets();
        // A statement that ended inside braces leaves appended text behind; continuing to
        // scan from it misses the end of the buffer, so each statement gets a fresh buffer.
        OxConverter_yyrestart(nullptr);
        yyFehler.clear();
        yyOxel = nullptr;
        // Only nesting fills the parser's stacks: a long flat text reduces as it goes.
        if (OxConverter_yyparse() == 2)
            OxConverter_yyerror(depthMessage.c_str());

        if (yyFehler.empty()) {
            result = result ? new OxBranch(result, yyOxel) : yyOxel;
            yyOxel = nullptr;
        }
        if (!yyFehler.empty()) {
            // The NUL written over the ';' of the failing statement stays, as callers expect.
            if (!oxelMessage(OXEL_MESSAGE_PARSE_ERROR, yyFehler.c_str()))
                std::fprintf(stderr, "Parsing OxError: %s\n", yyFehler.c_str());
            lastFailure = yyFehler;
            if (error)
                *error = yyFehler;
            if (errorOffset) {
                // A re-read statement scans past its end; the end is where it stopped then.
                int length = static_cast<int>(std::strlen(start));
                int at = OxConverter_tokenStart < length ? OxConverter_tokenStart : length;
                *errorOffset = OxConverter_yyBase + at;
            }
            // A tree can be complete before the error shows (e.g. "1 )"); nobody owns it.
            oxelDestroy(yyOxel);
            yyOxel = nullptr;
            oxelDestroy(result);
            return nullptr;
        }

        if (!semicolon)
            break;
        *semicolon = ';';
        start = semicolon + 1;
        if (*start == '\0')
            break;
    }
    lastFailure.clear();
    if (error)
        error->clear();
    if (errorOffset)
        *errorOffset = -1;
    return result;
}

Oxel* OxConverter::strToOxel(const char* text, KxDArray<KxString>& varNames,
                             KxHashTable<KxString, KxString>* aliases, int numDepVars,
                             OxDepVarnode** depVars)
{
    return OxConverter_parse(text, varNames, aliases, numDepVars, depVars, nullptr);
}

Oxel* OxConverter::strToOxel(const char* text, KxDArray<KxString>& varNames, int numDepVars,
                             OxDepVarnode** depVars)
{
    return OxConverter_parse(text, varNames, nullptr, numDepVars, depVars, nullptr);
}

int oxelFormulaNames(const char* text, KxDArray<KxString>& names, KxDArray<int>* assignedFirst)
{
    names.setLength(0);
    if (assignedFirst)
        assignedFirst->setLength(0);
    if (!text)
        return 0;
    std::vector<std::pair<std::string, bool>> found;
    {
        ParseLock lock;
        OxConverter_scanNames(text, found);
    }
    for (const auto& entry : found) {
        names.append(KxString(entry.first.c_str()));
        if (assignedFirst)
            assignedFirst->append(entry.second ? 1 : 0);
    }
    return names.length();
}

KxString OxConverter::lastError()
{
    ParseLock lock;
    return KxString(lastFailure.c_str());
}
