// The normal form's algebra: canonical sums, products and powers over opaque operands.
#ifndef OXEL_ALGEBRA_NORMAL_H
#define OXEL_ALGEBRA_NORMAL_H

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <oxel/core.h>

namespace oxnf {

struct Term;
using E = std::shared_ptr<const Term>;

// Num: a number. Sum: constant + coefficient * term, terms monic (no numeric factor).
// Prod: coefficient * base^exponent, bases distinct. Call: any other node (a variable, a
// function, an operator without algebra of its own) over normalized operands.
enum class Kind { Num, Sum, Prod, Call };

struct Term {
    Kind kind = Kind::Num;
    double num = 0;                          // Num: value; Sum: constant; Prod: coefficient
    std::vector<std::pair<E, double>> terms; // Sum
    std::vector<std::pair<E, E>> factors;    // Prod: base, exponent
    Oxel* node = nullptr;                    // Call: the node read, children ignored
    std::vector<E> args;                     // Call: its operands normalized (none: kept whole)
    std::string key;                         // equal keys, equal terms; the canonical order
    bool ordered = false;  // evaluation order matters (assignments, random draws): not sorted
};

E number(double v);
E add(const std::vector<std::pair<E, double>>& parts);
// The product of num divided by the product of den; numeric factors fold as N / D, so that
// a coefficient written p / q reads back to the same double.
E mul(const std::vector<E>& num, const std::vector<E>& den = {});
E power(const E& base, const E& exponent);

// Terms refer to the nodes of the tree they were read from, which must outlive them.
// The factors that the terms at members share: bases with a numeric exponent of one sign in
// each, at the exponent nearest zero. A sum to the first power is left inside (a product with
// one such sum is multiplied out again within sums).
std::vector<std::pair<E, E>> commonFactors(const std::vector<std::pair<E, double>>& terms,
                                           const std::vector<size_t>& members);
// The terms at members divided by common, with their coefficients: a new sum.
E reducedSum(const std::vector<std::pair<E, double>>& terms, const std::vector<size_t>& members,
             const std::vector<std::pair<E, E>>& common);

E fromTree(Oxel* tree);
Oxel* toTree(const E& e);

bool isNum(const E& e, double* v = nullptr);

// Whether two terms have one key: like terms whose coefficients do not add up to a number
// (mul and add keep the value: 1e308*x + 1e308*x is no 2e308*x).
bool keptApart(const std::vector<std::pair<E, double>>& terms);

// k is n/3 for a whole, moderate n that 3 does not divide (up to the rounding that summing
// thirds leaves): such a power is written as a cube root.
bool thirds(double k);

}  // namespace oxnf

#endif
