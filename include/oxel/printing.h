// Trees in a normal form, and trees written as C and as LaTeX.
#ifndef OXEL_PRINTING_H
#define OXEL_PRINTING_H

#include <oxel/core.h>
#include <oxel/support.h>

/// An equal tree in a normal form (new, owned by the caller; null for null): sums and products
/// flattened and ordered canonically, numbers folded, like terms and equal factors collected
/// into multiples and powers, x*1, x+0, pow(x,1), --x, 0-x and x/1 gone, numeric content of
/// quotients cancelled, pow(u, 0.5) as sqrt(u), negative powers as quotients. It is the same
/// function mathematically, not bit for bit: folding and collecting round differently, and
/// cancelled factors (x/x) drop the points where they were undefined. Assignments, random
/// sources, dependent variables, comparisons and the other operators stay where they are, with
/// their operands normalized; normalizing the result again changes nothing. Numbers whose
/// folded value would overflow, be NaN or turn subnormal where theirs are not stay apart
/// (x*1e200*1e200 is 1e200 * x * 1e200), so the form never fails where the tree does not.
/// Null also when it would make more terms than the tree's nodes plus the node budget.
OXEL_API Oxel* oxelNormalized(Oxel* tree);

/// tree as a C99 expression over <math.h> (variables by their names, numbers with 17 digits):
/// what the language has beyond C (sgn, logic, comparisons giving 1.0 and 0.0, its remainder,
/// bitwise operators on 32-bit integers, single-precision hypot) is written out in plain C.
/// The evaluation guards (overflow, domain errors) are not reproduced; an operand that such a
/// rewrite uses twice is written twice. jn, yn, j0, j1, y0 and y1 need _XOPEN_SOURCE. Statements
/// become comma expressions; internal variables must be declared by the caller. Empty for what
/// C cannot express: gauss(), dependent variables, an assignment inside an expression (C
/// leaves its order to other operands open), a class of the host's own. A variable whose name
/// C reserves (a keyword, a name or macro of <math.h> such as log, y0 or INFINITY, rand,
/// RAND_MAX) is written with a trailing underscore (more, where that name is taken too).
OXEL_API KxString oxelToC(Oxel* tree);

/// tree as a complete C99 function "double name(double p1, ...) { ... }" over <math.h>, with
/// the numParams names of params as its parameters in that order ("void" for none), renamed as
/// oxelToC renames them: a statement per top-level statement, assigned variables that are no
/// parameter declared first (as 0.0), the last statement's value returned. Empty where oxelToC
/// is, for a name that is no C identifier or is reserved, and where the tree reads a variable
/// that is neither a parameter nor assigned.
OXEL_API KxString oxelToCFunction(Oxel* tree, const char* name, const char* const* params,
                                  int numParams);

/// tree as math-mode LaTeX (no surrounding $): \frac, \sqrt, \sin, e^{...}, \left( \right).
/// Empty for a null tree or a class of the host's own.
OXEL_API KxString oxelToLatex(Oxel* tree);

#endif
