// Parser entry: formula text plus naming context in, expression tree out.
#ifndef OXEL_PARSER_H
#define OXEL_PARSER_H

#include <oxel/core.h>
#include <oxel/nodes.h>
#include <oxel/support.h>

class OXEL_API OxConverter {
public:
    /// Parses text (statements separated by ';', which are NUL-ed in place while each
    /// statement is parsed); returns the owned tree or null after printing the reason to stderr.
    static Oxel* strToOxel(const char* text, KxDArray<KxString>& varNames,
                           KxHashTable<KxString, KxString>* aliases, int numDepVars,
                           OxDepVarnode** depVars);
    static Oxel* strToOxel(const char* text, KxDArray<KxString>& varNames, int numDepVars,
                           OxDepVarnode** depVars);

    /// The message of the last failed parse in this process (empty after a success).
    static KxString lastError();
};

/// The names that text reads or assigns (across all its statements), in order of first
/// appearance, without any of them being declared: what a host must declare or assign before
/// the text parses. Function names are not names; text inside braces is skipped. When
/// assignedFirst is given, it receives 1 for each name whose first appearance is the target of
/// an assignment ("t = ..."), 0 otherwise. Returns the number of names. The text is not changed
/// and nothing is printed.
OXEL_API int oxelFormulaNames(const char* text, KxDArray<KxString>& names,
                              KxDArray<int>* assignedFirst = nullptr);

/// Whether formula text can use name as a variable: a letter or '_', then letters, digits and
/// '_', and not a word of the language (function names and the keywords diff, pow, rand, gauss,
/// gamma, log1p, logb). False for null. The check the C interface, the Python module and the
/// oxel program apply to declared names and aliases.
OXEL_API bool oxelIsVariableName(const char* name);

/// A readable explanation of a parse failure of text with message (the parser's): a function
/// the language spells otherwise (log, powers), a reserved word, the first name read that is
/// not among known (the declared variables and aliases), else the message in words ("a
/// number", "the end of the formula"). Empty where there is nothing to add.
OXEL_API KxString oxelParseHint(const char* text, const char* message,
                                const KxDArray<KxString>& known);

/// The function names of the formula language that take arity arguments (1 or 2), in the order
/// of the node tables, followed by a null pointer; any other arity gives just the null pointer.
OXEL_API const char* const* oxelFunctionNames(int arity);

/// Serialises every parse in the process; lexer and parser state is global.
extern OXEL_API KxMutex strToOxelMutex;

/// Texts nested deeper than this (parentheses, calls, prefix operators) are refused by the
/// parser; flat texts of any length and trees of any depth are fine.
const long OXEL_MAX_DEPTH = 100000;

#endif
