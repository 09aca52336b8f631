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

/// Serialises every parse in the process; lexer and parser state is global.
extern OXEL_API KxMutex strToOxelMutex;

/// Trees deeper than this are refused by the parser, so that recursive walks stay on the stack.
const long OXEL_MAX_DEPTH = 10000;

#endif
