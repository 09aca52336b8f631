// Shared derivative parts written as statements, in the order the tree evaluates them.
#include "algebra/statements.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <typeinfo>
#include <unordered_map>
#include <vector>

#include <oxel/formula.h>
#include <oxel/nodes.h>
#include <oxel/printing.h>

#include "algebra/dag.h"
#include "nodes/kinds.h"

namespace oxd {
namespace {

// Levels a part is written inline before it gets a name: every statement stays shallow
// enough to read, to normalize and to parse back, whatever the depth of the graph.
const long kInlineLevels = 48;

// t in its normal form where asked (t consumed): null where that exceeds the node budget.
Oxel* normalForm(Oxel* t, bool normalized)
{
    if (!normalized)
        return t;
    Oxel* n = oxelNormalized(t);
    oxelDestroy(t);
    return n;
}

// The result expression, after the statements (t consumed): false where it has no text.
bool result(Oxel* t, bool normalized, std::string* out)
{
    t = normalForm(t, normalized);
    if (!t)
        return false;
    const KxString s = oxelToFormula(t);
    oxelDestroy(t);
    out->append(s.c_str(), static_cast<size_t>(s.length()));
    return s.length() > 0;
}

Cell* cellOf(Oxel* n)
{
    return OxShared::target(n) ? static_cast<OxShared*>(n)->cell() : nullptr;
}

// The operand that node evaluates k-th: a quotient evaluates its divisor first.
int evaluated(Oxel* node, int k)
{
    const bool divisorFirst = oxk::row(oxk::kindOf(node)).shape == oxk::Shape::DivisorFirst;
    return divisorFirst ? node->getNumChildren() - 1 - k : k;
}

struct Part {
    Cell* same = nullptr; // the first cell of its class, operator and operands: its stand-in
    int uses = 0;         // operand places that read it
    int walked = 0;       // the last walk that reached it
    Cell* by = nullptr;   // where the walks reach it first: that cell's operand `at`
    int at = -1;
    bool named = false;
    bool emits = false;   // a statement is written while it is evaluated first
    long levels = 0;      // levels written inline
    Oxel* tree = nullptr; // written inline: its tree, until its user takes it
    std::string name;
};

class Writer {
public:
    Writer(const std::function<std::string()>& fresh, bool normalized)
        : fresh_(fresh), normalized_(normalized)
    {
    }
    ~Writer()
    {
        for (auto& p : parts_)
            oxelDestroy(p.second.tree);
    }

    bool write(Cell* root, std::string* text)
    {
        root_ = root;
        walk(1, [this](Cell* c) { equate(c); });
        root_ = same(root_);
        walk(2, [this](Cell* c) { count(c); });
        walk(3, [this](Cell* c) { decide(c); });
        walk(4, [this](Cell* c) { build(c); });
        if (!ok_)
            return false;
        Part& r = parts_[root_];
        const bool last = result(r.tree, normalized_, &out_);
        r.tree = nullptr;
        if (last)
            *text = std::move(out_);
        return last;
    }

private:
    // Each cell once, operands first in the order the tree evaluates them, on an explicit
    // stack (graphs nest as deeply as their formulas).
    template <class Finish>
    void walk(int pass, Finish finish)
    {
        struct Frame {
            Cell* cell;
            int next;
        };
        std::vector<Frame> stack{{root_, 0}};
        parts_[root_].walked = pass;
        while (!stack.empty()) {
            Cell* c = stack.back().cell;
            const int k = stack.back().next++;
            if (k < c->node->getNumChildren()) {
                const int i = evaluated(c->node, k);
                Cell* operand = operandOf(c, i, pass > 1);
                if (operand && parts_[operand].walked != pass) {
                    Part& p = parts_[operand];
                    p.walked = pass;
                    p.by = c;
                    p.at = i;
                    stack.push_back({operand, 0});
                }
                continue;
            }
            stack.pop_back();
            finish(c);
        }
    }

    Cell* same(Cell* c)
    {
        Cell* s = parts_[c].same;
        return s ? s : c;
    }

    // Operand i of c, as a cell (null for a leaf), or the cell that stands for all equal ones.
    Cell* operandOf(Cell* c, int i, bool merged)
    {
        Cell* operand = cellOf(c->node->getChild(i));
        return operand && merged ? same(operand) : operand;
    }

    // Cells of one class whose operands are the same cells or equal leaves evaluate alike:
    // the rules' copies (exp(u) * u' copies exp(u) a level deep) become one part again.
    void equate(Cell* c)
    {
        Oxel* node = c->node;
        std::string key = typeid(*node).name();
        for (int i = 0; i < node->getNumChildren(); ++i) {
            Oxel* child = node->getChild(i);
            const oxk::Kind k = child ? oxk::kindOf(child) : oxk::Kind::OxZahl;
            if (!child) {
                key += "|-";
            } else if (Cell* operand = cellOf(child)) {
                key += "|c" + std::to_string(reinterpret_cast<uintptr_t>(same(operand)));
            } else if (k == oxk::Kind::OxZahl) {
                const double v = static_cast<OxZahl*>(child)->number();
                uint64_t bits;
                std::memcpy(&bits, &v, sizeof bits);
                key += "|n" + std::to_string(bits);
            } else if (k == oxk::Kind::OxVar) {
                OxVar* var = static_cast<OxVar*>(child);
                key += "|v" + std::to_string(var->index()) + ":" + var->name().c_str();
            } else {
                return;  // no leaf of the graph's kinds: kept apart
            }
        }
        parts_[c].same = classes_.emplace(std::move(key), c).first->second;
    }

    void count(Cell* c)
    {
        for (int i = 0; i < c->node->getNumChildren(); ++i)
            if (Cell* operand = operandOf(c, i, true))
                ++parts_[operand].uses;
    }

    // A part used twice is named; so is one written inline before an operand whose first
    // evaluation writes a statement (it would otherwise run after that statement, and its
    // error code come second), and one that would nest too deeply.
    void decide(Cell* c)
    {
        Part& p = parts_[c];
        p.named = p.uses > 1;
        bool later = false;
        long levels = 0;
        for (int k = c->node->getNumChildren() - 1; k >= 0; --k) {
            const int i = evaluated(c->node, k);
            Cell* operand = operandOf(c, i, true);
            if (!operand)
                continue;
            Part& q = parts_[operand];
            const bool first = q.by == c && q.at == i;
            if (first && !q.named && later)
                q.named = q.emits = true;
            later = later || (first && q.emits);
            if (!q.named)
                levels = std::max(levels, q.levels);
        }
        p.levels = levels + 1;
        if (c != root_ && p.levels > kInlineLevels)
            p.named = true;
        p.emits = p.named || later;
    }

    // The cell's node with its operands as names or inline trees: a statement, or kept for
    // its one user.
    void build(Cell* c)
    {
        if (!ok_)
            return;
        Oxel* t = c->node->dup();
        for (int i = 0; i < c->node->getNumChildren(); ++i) {
            Cell* operand = operandOf(c, i, true);
            if (!operand)
                continue;
            Part& q = parts_[operand];
            Oxel* now = q.named ? new OxVar(0, q.name.c_str()) : q.tree;
            q.tree = nullptr;
            oxelDestroy(t->getChild(i));
            t->setChild(i, now);
        }
        Part& p = parts_[c];
        if (!p.named) {
            p.tree = t;
            return;
        }
        p.name = fresh_();
        ok_ = statement(t, p.name) && ok_;
    }

    bool statement(Oxel* t, const std::string& name)
    {
        t = normalForm(t, normalized_);
        if (!t)
            return false;
        Oxel* assign = new OxVar(0, name.c_str(), t);
        const KxString s = oxelToFormula(assign);
        oxelDestroy(assign);
        out_.append(s.c_str(), static_cast<size_t>(s.length()));
        out_ += ";\n";
        return s.length() > 0;
    }

    const std::function<std::string()>& fresh_;
    const bool normalized_;
    Cell* root_ = nullptr;
    std::unordered_map<Cell*, Part> parts_;
    std::unordered_map<std::string, Cell*> classes_;
    std::string out_;
    bool ok_ = true;
};

}  // namespace

bool writeStatements(Oxel* root, const std::function<std::string()>& fresh, bool normalized,
                     std::string* text)
{
    if (Cell* c = cellOf(root))
        return Writer(fresh, normalized).write(c, text);
    text->clear();  // a number or a variable: nothing to share
    return result(root->dup(), normalized, text);
}

}  // namespace oxd
