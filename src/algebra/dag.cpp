// The shared derivative graph: cells, their stand-ins, and the rules run one cell at a time.
#include "algebra/dag.h"

#include <algorithm>
#include <atomic>
#include <cstring>

#include <oxel/nodes.h>

#include "algebra/trees.h"
#include "core/deep.h"
#include "nodes/kernels.h"
#include "nodes/kinds.h"

namespace oxd {
namespace {

// Leaves stay real nodes in the graph: the rules test them by class and value.
bool isLeaf(Oxel* n)
{
    const oxk::Kind k = oxk::kindOf(n);
    return k == oxk::Kind::OxZahl || (k == oxk::Kind::OxVar && !static_cast<OxVar*>(n)->bound());
}

Cell* cellOf(Oxel* n)
{
    return OxShared::target(n) ? static_cast<OxShared*>(n)->cell() : nullptr;
}

}  // namespace

Graph::Graph(const std::vector<std::string>& vars) : vars_(vars) {}

Graph::~Graph()
{
    for (const std::unique_ptr<Cell>& c : cells_) {
        delete c->node;  // one level: its compound operands are stand-ins
        for (const std::pair<int, Oxel*>& d : c->diffs)
            delete d.second;
    }
}

bool Graph::represents(Oxel* tree)
{
    std::vector<Oxel*> stack{tree};
    while (!stack.empty()) {
        Oxel* n = stack.back();
        stack.pop_back();
        switch (oxk::row(oxk::kindOf(n)).shape) {
        case oxk::Shape::Sequence:
        case oxk::Shape::Opaque:
            return false;
        case oxk::Shape::Variable:
            if (static_cast<OxVar*>(n)->bound())
                return false;
            break;
        default:
            break;
        }
        for (int i = 0; i < n->getNumChildren(); ++i)
            if (Oxel* c = n->getChild(i))
                stack.push_back(c);
    }
    return true;
}

int Graph::indexOf(const char* var) const
{
    if (current_ < static_cast<int>(vars_.size()) && std::strcmp(var, name(current_)) == 0)
        return current_;
    for (size_t v = 0; v < vars_.size(); ++v)
        if (vars_[v] == var)
            return static_cast<int>(v);
    return -1;
}

Cell* Graph::newCell(Oxel* node)
{
    std::unique_ptr<Cell> c(new Cell{this, node, 0, 0.0, 0, 1, 0, 0, {}});
    for (int i = 0; i < node->getNumChildren(); ++i)
        if (Cell* operand = cellOf(node->getChild(i)))
            c->depth = std::max(c->depth, operand->depth + 1);
    c->vconst = node->vconstant();
    if (c->vconst)
        c->value = node->value(nullptr, c->code);
    cells_.push_back(std::move(c));
    return cells_.back().get();
}

// Answers for one variable at a time, remembered until another is asked about: the rules ask
// about the variable they differentiate by. The cells below are answered first, on an
// explicit stack, so that the node's own pconstant() reads their answers.
int Graph::pconstant(Cell* c, int var)
{
    if (var != askedVar_) {
        askedVar_ = var;
        ++question_;
    }
    std::vector<std::pair<Cell*, int>> stack;  // cell and its next operand
    if (c->asked != question_)
        stack.push_back({c, 0});
    while (!stack.empty()) {
        Cell* top = stack.back().first;
        const int i = stack.back().second++;
        if (i < top->node->getNumChildren()) {
            Cell* operand = cellOf(top->node->getChild(i));
            if (operand && operand->asked != question_)
                stack.push_back({operand, 0});
            continue;
        }
        top->pconst = top->node->pconstant(name(var));
        top->asked = question_;
        stack.pop_back();
    }
    return c->pconst;
}

// Every compound node of the tree becomes a cell, operands first, and its place a stand-in;
// on an explicit stack, since a formula may nest deeply.
Oxel* Graph::take(Oxel* tree)
{
    if (isLeaf(tree) || cellOf(tree))
        return tree;
    struct Frame {
        Oxel* node;
        int next;
    };
    std::vector<Frame> stack{{tree, 0}};
    for (;;) {
        Frame& f = stack.back();
        if (f.next < f.node->getNumChildren()) {
            Oxel* c = f.node->getChild(f.next++);
            if (c && !isLeaf(c) && !cellOf(c))
                stack.push_back({c, 0});
            continue;
        }
        Oxel* stand = new OxShared(newCell(f.node));
        stack.pop_back();
        if (stack.empty())
            return stand;
        stack.back().node->setChild(stack.back().next - 1, stand);
    }
}

Oxel* Graph::derivative(Cell* c, int var)
{
    for (const std::pair<int, Oxel*>& known : c->diffs)
        if (known.first == var)
            return known.second->dup();
    const int asked = current_;
    current_ = var;
    Oxel* rule = c->node->diff(name(var));
    current_ = asked;
    if (!rule)
        return nullptr;
    if (budget == 0) {
        oxelDestroy(rule);
        return nullptr;
    }
    c->diffs.emplace_back(var, take(rule));
    return c->diffs.back().second->dup();
}

Oxel* Graph::partial(Oxel* of, int var, long* nodes, bool partialMode)
{
    Oxel* d = nullptr;
    bool refused = false;
    const Cell* c = cellOf(of);
    // The rules' recursion goes down one level of the graph at a time.
    oxs::withStackFor((c ? c->depth : 1) + 16, [&] {
        Bounded state(*nodes, partialMode);
        current_ = var;
        d = D(of, name(var));
        refused = budget == 0 || missingRule;
        *nodes = budget;
    });
    if (refused && d) {
        oxelDestroy(d);
        d = nullptr;
    }
    return d;
}

namespace {
std::atomic<bool> graphFirst{false};
}  // namespace

void setSharingFirst(bool on) { graphFirst.store(on, std::memory_order_relaxed); }
bool sharingFirst() { return graphFirst.load(std::memory_order_relaxed); }

}  // namespace oxd

// ---------------------------------------------------------------- the stand-in

Oxel* OxShared::node() const { return cell_->node; }

double OxShared::value(double* vars, int& err) const
{
    if (!cell_->vconst)
        return cell_->node->value(vars, err);
    oxk::raise(err, cell_->code);
    return cell_->value;
}

Oxel* OxShared::diff(const char* var)
{
    const int v = cell_->graph->indexOf(var);
    return v < 0 ? nullptr : cell_->graph->derivative(cell_, v);
}

Oxel* OxShared::dup() { return new OxShared(cell_); }

int OxShared::vconstant() { return cell_->vconst; }

int OxShared::pconstant(const char* var)
{
    const int v = cell_->graph->indexOf(var);
    return v < 0 ? cell_->node->pconstant(var) : cell_->graph->pconstant(cell_, v);
}
