// A tree of the shared derivative graph written as formula statements over its shared parts.
#ifndef OXEL_ALGEBRA_STATEMENTS_H
#define OXEL_ALGEBRA_STATEMENTS_H

#include <functional>
#include <string>

#include <oxel/core.h>

namespace oxd {

// What root (a leaf or stand-in of an oxd::Graph) spells out, as "name = part;" lines and
// then the result: every part used more than once gets a name (equal parts, the same
// operator over the same operands, count as one), and so does a part whose inlined text
// would nest too deeply. Parsed with the same variables, the text gives the
// tree's bits and error code: each part is assigned at the place where the tree evaluates
// it first, and a part written inline is named instead when a statement would otherwise
// run between it and its user. Names come from fresh(), which must never repeat one. With
// normalized, each statement is written in its normal form (oxelNormalized), the other
// parts' names standing as variables. False where a normal form exceeds the node budget or
// a part has no formula text.
bool writeStatements(Oxel* root, const std::function<std::string()>& fresh, bool normalized,
                     std::string* text);

}  // namespace oxd

#endif
