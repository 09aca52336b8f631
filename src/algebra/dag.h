// Partial derivatives as a graph of one-level nodes that share their operands (the gradient's).
#ifndef OXEL_ALGEBRA_DAG_H
#define OXEL_ALGEBRA_DAG_H

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <oxel/core.h>

#include "core/shared.h"

namespace oxd {

class Graph;

// One node of the graph: a node whose compound operands are stand-ins (OxShared) for other
// cells, with what the derivative rules ask of it remembered, so that no question walks a
// sub-tree again and no recursion is deeper than the graph. Nothing in it grows with the
// number of variables beyond the derivatives actually taken.
struct Cell {
    Graph* graph;
    Oxel* node;
    int vconst;      // node->vconstant(), found when the cell is made
    double value;    // node->value(), when vconst
    int code;        // its error code
    long depth;      // levels of the tree it stands for
    long asked;      // the Graph's question for which pconst holds, 0: none yet
    int pconst;      // node->pconstant() of that question's variable
    std::vector<std::pair<int, Oxel*>> diffs;  // variable and derivative (a leaf or stand-in)
};

// The partial derivatives by a few variables (resolved names) of one tree, and of those
// derivatives again, built by the derivative rules themselves, each rule applied to one cell
// with stand-ins for its operands: the derivative of an operand is taken once per variable and
// shared by everything that uses it. What a stand-in spells out is exactly the tree that
// OxelExpression::partial() builds, and lowering one gives that tree's steps (OxShared), in
// size linear in the formula for nested chains where the trees grow with its square.
class Graph {
public:
    explicit Graph(const std::vector<std::string>& vars);
    ~Graph();
    Graph(const Graph&) = delete;
    Graph& operator=(const Graph&) = delete;

    // Whether the graph represents tree: only numbers, unassigned variables, operators and
    // functions (no assignment, sequence, random source, dependent variable or outside class,
    // whose copies are not values).
    static bool represents(Oxel* tree);

    // The tree in cells (taking it over): a leaf stays itself, anything else is a stand-in.
    Oxel* take(Oxel* tree);

    // The partial derivative of what `of` spells out (a leaf or stand-in of this graph) by
    // variable var, within *nodes of the node budget (its copies are taken from it): a new
    // leaf or stand-in, or null where a rule refuses or the copies exceed the budget (the
    // trees then tell why). With partialMode false, the plain derivative instead
    // (OxelExpression::derivative()'s tree): every operand differentiated by its rule.
    Oxel* partial(Oxel* of, int var, long* nodes, bool partialMode = true);

    // Index of a variable name of the graph, -1 for others.
    int indexOf(const char* var) const;
    const char* name(int var) const { return vars_[static_cast<size_t>(var)].c_str(); }
    // What a stand-in for c answers: its derivative by var (taken once, a copy each time) or
    // null, and whether it is independent of var.
    Oxel* derivative(Cell* c, int var);
    int pconstant(Cell* c, int var);

private:
    Cell* newCell(Oxel* node);

    std::vector<std::string> vars_;
    std::vector<std::unique_ptr<Cell>> cells_;
    int current_ = 0;  // the variable being asked about, found first by indexOf
    int askedVar_ = -1;  // the variable of the remembered pconstant answers
    long question_ = 0;  // their number, new for each variable asked in turn
};

// Whether gradients build their derivatives in the graph first rather than where the trees
// exceed the node budget; for tests that compare the graph with the trees on formulas of any
// size (exported, though not part of the public headers). Process-wide, off by default.
OXEL_API void setSharingFirst(bool on);
bool sharingFirst();

}  // namespace oxd

#endif
