// Trees written back in the formula language, so that the text parses to an equivalent tree.
#ifndef OXEL_FORMULA_H
#define OXEL_FORMULA_H

#include <oxel/core.h>
#include <oxel/support.h>

// Writes tree as formula text: powers as pow(a, b), the language's function names, numbers
// with the fewest digits that read back to the same double, parentheses only where the
// operator levels need them, a sequence as "a; b". Parsed with the same variable names, the
// text gives a tree that evaluates to the same bits and error codes at every point.
// Constants the language has no literal for are written as expressions that give them
// without an error code: a negative number c as -|c| (a product with -1, exact), infinity as
// 1e999 (the reader overflows to it), NaN as copysign(0 * 1e999, +-1) (the sign is kept, a
// payload other than the default one is not). Returns an empty string when the tree holds
// something the language cannot express: a sequence below the top level, a differentiated
// dependent variable, a variable name that is no name of the language (or is a function
// name), a node class of the host's own, or a missing child.
OXEL_API KxString oxelToFormula(Oxel* tree);

#endif
