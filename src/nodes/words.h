// The words of the formula language: the function names of the node tables and the keywords
// of the grammar's other tokens, looked up by spelling for the lexer, the grammar and printing.
#ifndef OXEL_NODES_WORDS_H
#define OXEL_NODES_WORDS_H

#include <cstddef>

#include <oxel/nodes.h>

namespace oxw {

// Keywords that build no function node: diff, the random sources and pow have rules of their
// own; gamma, log1p and logb are reserved words that no rule accepts.
#define OXEL_OTHER_KEYWORDS(X) \
    X("diff", KW_DIFF)         \
    X("gauss", KW_GAUSS)       \
    X("rand", KW_RAND)         \
    X("pow", KW_POW)           \
    X("gamma", KW_GAMMA)       \
    X("log1p", KW_LOG1P)       \
    X("logb", KW_LOGB)

// Every word, in this order: one-argument functions, two-argument functions, other keywords.
// Expanding the same three tables in this order gives an array parallel to kWords (the
// lexer's token codes).
#define OXEL_WORDS(FUNCTION1, FUNCTION2, KEYWORD) \
    OXEL_UNARY_FUNCTIONS(FUNCTION1) OXEL_BINARY_FUNCTIONS(FUNCTION2) OXEL_OTHER_KEYWORDS(KEYWORD)

struct Word {
    const char* name;              // as the language spells it
    int arity;                     // 0 for the keywords that are no function
    Oxel* (*make1)(Oxel*);         // builds the node of a one-argument function
    Oxel* (*make2)(Oxel*, Oxel*);  // ... of a two-argument function
};

#define OXW_COUNT(...) +1
constexpr int kNumWords = 0 OXEL_WORDS(OXW_COUNT, OXW_COUNT, OXW_COUNT);
#undef OXW_COUNT

extern const Word kWords[kNumWords];

// The index in kWords of the word spelled by the n characters at text, or -1.
int find(const char* text, size_t n);

// Whether the lexer reads name as exactly this one name: letters, digits and '_', not
// starting with a digit, and no word of the language.
bool isPlainName(const char* name);

}  // namespace oxw

#endif
