// Derivatives of leaves and operators.
#include <oxel/nodes.h>

// Until the derivative tables land every class answers with the base rule.
#define OXEL_BASE_DIFF(Cls, ...) \
    Oxel* Cls::diff(const char* var) { return Oxel::diff(var); }
OXEL_ARITHMETIC_OPERATORS(OXEL_BASE_DIFF)
OXEL_BITWISE_OPERATORS(OXEL_BASE_DIFF)
OXEL_BASE_DIFF(OxZahl)
OXEL_BASE_DIFF(OxVar)
OXEL_BASE_DIFF(OxRand)
OXEL_BASE_DIFF(OxBranch)
OXEL_BASE_DIFF(OxDepVar)
