// Lowering: a tree into the intermediate program, with constants folded and repeated
// subexpressions computed once (why that keeps the tree's bits and codes: ir.h).
#include "program/ir.h"

#include <cstring>

#include <oxel/nodes.h>

namespace oxp {
namespace {

bool sameOperand(const Operand& x, const Operand& y)
{
    if (x.mode != y.mode)
        return false;
    if (x.mode == Operand::Const)
        return std::memcmp(&x.k, &y.k, sizeof x.k) == 0;  // -0 is not 0, NaNs by payload
    return x.index == y.index;
}

uint64_t operandHash(const Operand& o)
{
    uint64_t bits = static_cast<uint64_t>(o.index);
    if (o.mode == Operand::Const)
        std::memcpy(&bits, &o.k, sizeof bits);
    return (bits * 0x9E3779B97F4A7C15ull) ^ (static_cast<uint64_t>(o.mode) << 61);
}

// Open-addressed set of step numbers keyed by (kind, a, b): the earlier step that computes
// the same value.
class StepTable {
public:
    explicit StepTable(const std::vector<Step>& steps) : steps_(steps), cells_(64, -1) {}

    // The earlier equal step, or -1 after remembering candidate (the next step's number).
    int findOrAdd(const Step& s, int candidate)
    {
        if (2 * (count_ + 1) > static_cast<int>(cells_.size()))
            grow();
        size_t i = hash(s) & (cells_.size() - 1);
        for (; cells_[i] >= 0; i = (i + 1) & (cells_.size() - 1)) {
            const Step& t = steps_[static_cast<size_t>(cells_[i])];
            if (t.kind == s.kind && sameOperand(t.a, s.a) && sameOperand(t.b, s.b))
                return cells_[i];
        }
        cells_[i] = candidate;
        ++count_;
        return -1;
    }

private:
    static size_t hash(const Step& s)
    {
        uint64_t h = operandHash(s.a) * 31 + operandHash(s.b) + static_cast<uint64_t>(s.kind);
        return static_cast<size_t>(h ^ (h >> 29));
    }

    void grow()
    {
        std::vector<int> old;
        old.swap(cells_);
        cells_.assign(old.size() * 2, -1);
        for (int step : old) {
            if (step < 0)
                continue;
            size_t i = hash(steps_[static_cast<size_t>(step)]) & (cells_.size() - 1);
            while (cells_[i] >= 0)
                i = (i + 1) & (cells_.size() - 1);
            cells_[i] = step;
        }
    }

    const std::vector<Step>& steps_;
    std::vector<int> cells_;
    int count_ = 0;
};

struct Lowerer {
    Lowerer(int n, Program& program)
        : numVars(n), out(program), slot(static_cast<size_t>(n), constant(0.0)),
          slotSet(static_cast<size_t>(n), false)
    {
    }

    int numVars;
    Program& out;
    StepTable shared{out.steps};
    std::vector<Operand> slot;  // current value of each variable slot (renaming)
    std::vector<bool> slotSet;
    bool errorCertain = false;  // an unconditional raise happened: later codes cannot win

    static Operand constant(double v) { return Operand{Operand::Const, v, -1}; }

    static Operand reg(int step) { return Operand{Operand::Reg, 0.0, step}; }

    Operand fail()
    {
        out.ok = false;
        return constant(0.0);
    }

    void raise(int code)
    {
        if (code == 0 || errorCertain)
            return;
        out.steps.push_back(
            Step{oxk::Kind::Unknown, false, constant(0.0), constant(0.0), code, -1});
        errorCertain = true;
    }

    __attribute__((noinline)) Operand readVar(int index)
    {
        if (index < 0 || index >= numVars)
            return fail();
        if (slotSet[static_cast<size_t>(index)])
            return slot[static_cast<size_t>(index)];
        out.inputRead[static_cast<size_t>(index)] = true;
        return Operand{Operand::Input, 0.0, index};
    }

    // Out of line, as are the other helpers of lower(): its frame is paid once per level of
    // nesting, so it must stay small.
    __attribute__((noinline)) Operand emit(oxk::Kind kind, const Operand& a, const Operand& b)
    {
        Step s{kind, oxk::row(kind).raises && !errorCertain, a, b, 0, -1};
        const int next = static_cast<int>(out.steps.size());
        const int earlier = shared.findOrAdd(s, next);
        if (earlier >= 0) {
            ++out.merged;
            return reg(earlier);
        }
        out.steps.push_back(s);
        return reg(next);
    }

    __attribute__((noinline)) Operand unary(oxk::Kind kind, const Operand& v)
    {
        if (v.mode == Operand::Const) {
            int e = 0;
            double r = oxk::row(kind).un(v.k, e);
            raise(e);
            return constant(r);
        }
        return emit(kind, v, constant(0.0));
    }

    __attribute__((noinline)) Operand binary(oxk::Kind kind, const Operand& a, const Operand& b)
    {
        if (a.mode == Operand::Const && b.mode == Operand::Const) {
            int e = 0;
            double r = oxk::row(kind).bin(a.k, b.k, e);
            raise(e);
            return constant(r);
        }
        return emit(kind, a, b);
    }

    // A random source or a dependent variable, its argument values on top of vals: the call,
    // which is never shared.
    __attribute__((noinline)) Operand call(oxk::Kind kind, Oxel* node, const Operand* values, int n)
    {
        const int first = static_cast<int>(out.args.size());
        out.args.insert(out.args.end(), values, values + n);
        out.calls.push_back(Call{kind, node, first, n});
        out.steps.push_back(Step{kind, false, constant(0.0), constant(0.0), 0,
                                 static_cast<int>(out.calls.size()) - 1});
        return reg(static_cast<int>(out.steps.size()) - 1);
    }

    // A node whose children are lowered first, in its evaluation order.
    struct Frame {
        Oxel* node;
        oxk::Kind kind;
        int next;      // the next child to lower, in evaluation order
        int count;     // children to lower
        size_t base;   // where this node's child values start in vals
    };
    std::vector<Frame> frames;
    std::vector<Operand> vals;

    // Child i of f in evaluation order (the divisor first).
    static Oxel* childAt(const Frame& f, int i)
    {
        switch (oxk::row(f.kind).shape) {
        case oxk::Shape::Variable:
            return static_cast<OxVar*>(f.node)->bound();
        case oxk::Shape::DivisorFirst:
            return f.node->getChild(1 - i);
        default:
            return f.node->getChild(i);
        }
    }

    // A node: a leaf's value goes to vals at once, anything else becomes a frame.
    void enter(Oxel* node)
    {
        const oxk::Kind kind = oxk::kindOf(node);
        const oxk::Shape shape = oxk::row(kind).shape;
        int count = 0;
        switch (shape) {
        case oxk::Shape::Number:
            vals.push_back(constant(static_cast<OxZahl*>(node)->number()));
            return;
        case oxk::Shape::Variable:
            if (!static_cast<OxVar*>(node)->bound()) {
                vals.push_back(readVar(static_cast<OxVar*>(node)->index()));
                return;
            }
            count = 1;
            break;
        case oxk::Shape::Opaque:
            if (kind == oxk::Kind::Unknown) {
                vals.push_back(fail());
                return;
            }
            count = node->getNumChildren() > 0 ? node->getNumChildren() : 0;
            break;
        case oxk::Shape::Not:
            if (!node->getChild(0)) {
                vals.push_back(constant(1.0));
                return;
            }
            count = 1;
            break;
        case oxk::Shape::Unary:
            count = 1;
            break;
        default:  // sequences and every two-operand shape
            count = 2;
            break;
        }
        frames.push_back(Frame{node, kind, 0, count, vals.size()});
    }

    // All children of the top frame are lowered: its own value replaces theirs.
    void finish()
    {
        const Frame f = frames.back();
        frames.pop_back();
        const Operand* v = vals.data() + f.base;
        const int n = static_cast<int>(vals.size() - f.base);
        Operand r = constant(0.0);
        switch (oxk::row(f.kind).shape) {
        case oxk::Shape::Variable: {
            const int index = static_cast<OxVar*>(f.node)->index();
            if (index < 0 || index >= numVars) {
                r = fail();
                break;
            }
            r = v[0];
            slot[static_cast<size_t>(index)] = r;
            slotSet[static_cast<size_t>(index)] = true;
            break;
        }
        case oxk::Shape::Sequence:  // the last statement's value; an empty sequence gives 0
            r = n > 0 ? v[n - 1] : constant(0.0);
            break;
        case oxk::Shape::Opaque:
            r = call(f.kind, f.node, v, n);
            break;
        case oxk::Shape::Unary:
        case oxk::Shape::Not:
            r = unary(f.kind, v[0]);
            break;
        case oxk::Shape::Ordering:
            out.overwrites = true;
            r = binary(f.kind, v[0], v[1]);
            break;
        case oxk::Shape::DivisorFirst:  // lowered as (divisor, dividend)
            r = binary(f.kind, v[1], v[0]);
            break;
        default:
            r = binary(f.kind, v[0], v[1]);
            break;
        }
        vals.resize(f.base);
        vals.push_back(r);
    }

    // The tree in evaluation order with explicit stacks, so that no depth is too deep.
    Operand lower(Oxel* root)
    {
        if (!root)
            return fail();
        enter(root);
        while (!frames.empty() && out.ok) {
            Frame& f = frames.back();
            if (f.next == f.count) {
                finish();
                continue;
            }
            const int i = f.next++;
            if (Oxel* c = childAt(f, i)) {
                enter(c);
                continue;
            }
            // A missing child: a sequence skips it, the tolerant operators read 0.
            const oxk::Shape shape = oxk::row(f.kind).shape;
            if (shape == oxk::Shape::Tolerant)
                vals.push_back(constant(0.0));
            else if (shape != oxk::Shape::Sequence)
                vals.push_back(fail());
        }
        return out.ok ? vals.back() : constant(0.0);
    }
};

}  // namespace

Program lower(Oxel* root, int numVars)
{
    Program out;
    numVars = numVars > 0 ? numVars : 0;
    out.inputRead.assign(static_cast<size_t>(numVars), false);
    if (!root)
        return out;
    out.ok = true;
    out.steps.reserve(32);
    Lowerer l(numVars, out);
    out.result = l.lower(root);
    for (int i = 0; i < numVars; ++i)
        if (l.slotSet[static_cast<size_t>(i)])
            out.assigned.emplace_back(i, l.slot[static_cast<size_t>(i)]);
    if (out.ok)
        allocate(out);
    return out;
}

}  // namespace oxp
