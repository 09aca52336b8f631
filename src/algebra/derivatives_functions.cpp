// Derivatives of the function nodes.
#include <oxel/nodes.h>

#define OXEL_BASE_DIFF(Cls, ...) \
    Oxel* Cls::diff(const char* var) { return Oxel::diff(var); }
OXEL_UNARY_FUNCTIONS(OXEL_BASE_DIFF)
OXEL_BINARY_FUNCTIONS(OXEL_BASE_DIFF)
