// Parser-internal globals and name services shared by the lexer, the grammar and the entry.
#ifndef OXEL_PARSER_CONVERTER_H
#define OXEL_PARSER_CONVERTER_H

#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include <oxel/nodes.h>
#include <oxel/parser.h>

// Everything below is process-wide and only touched while strToOxelMutex is held.

// Naming context of the running parse (set by the entry, never cleared).
extern KxDArray<KxString>* OxConverter_yyVarNames;
extern KxHashTable<KxString, KxString>* OxConverter_yyVarAlias;
extern OxDepVarnode** OxConverter_yyDepVarnodes;
extern int OxConverter_yyNumDepVars;

// Lexer input: the statement text and how many characters the scanner has taken.
extern const char* OxConverter_yyBuf;
extern int OxConverter_yyPos;
// Starts the lexer on a statement text (its length measured once).
void OxConverter_setText(const char* text);

// Read statements longer than one refill whole instead of re-reading their start.
extern bool OxConverter_wholeStatements;
// Offset of the current statement in the whole text, and of the last token in the statement
// (the end of the statement once the scanner has reached it).
extern int OxConverter_yyBase;
extern int OxConverter_tokenStart;
void OxConverter_resetOffsets();
// Leaves brace mode: called once at the start of every text.
void OxConverter_startText();

// Lexer state: the brace depth (reset for every text) and the name ring (kept).
extern int klammerCnt;
extern char strbuf[1000];
extern size_t strbufpos;

// The composed error text of the current statement; growable so that a long token text
// never gets cut off or overruns.
extern std::string yyFehler;
// The tree of the statement just parsed.
extern Oxel* yyOxel;

// Drops the copies of over-long names made during the previous parse.
void OxConverter_forgetLongNames();

// Generated scanner and parser.
int OxConverter_yylex();
int OxConverter_yyparse();
void OxConverter_yyrestart(FILE* input);
extern char* OxConverter_yytext;

// Name services called from the lexer and the grammar.
int OxConverter_getVarIndex(const char* name);
OxDepVarnode* OxConverter_getdepvar(const char* name);
Oxel* ASSIGNMENT(int index, Oxel* exp);
Oxel* NEW_ASSIGNMENT(char* name, Oxel* exp);
Oxel* DEPVAR_CHECK_RETURN_OR_ERROR(int dims, OxDepVarnode* node, double component, Oxel** args);
int OxConverter_yyerror(const char* msg);

// Component index of a dependent-variable reference: truncated toward zero, saturated
// at the int range so that absurd literals cannot overflow the conversion.
int OxConverter_component(double v);

// strToOxel with the failure text and its byte offset in text handed back to the caller, so
// that a concurrent parse cannot replace them before the caller reads them. error and
// errorOffset may be null; the offset is -1 after a success. wholeStatements reads statements
// of any length whole.
Oxel* OxConverter_parse(const char* text, KxDArray<KxString>& varNames,
                        KxHashTable<KxString, KxString>* aliases, int numDepVars,
                        OxDepVarnode** depVars, std::string* error, int* errorOffset = nullptr,
                        bool wholeStatements = false);

// Every name of text (all statements) in order of first appearance, each with whether that
// first appearance is the target of an assignment. Caller holds strToOxelMutex.
void OxConverter_scanNames(const char* text, std::vector<std::pair<std::string, bool>>& out);

#endif
