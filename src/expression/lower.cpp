// Lowering: a tree into the step list from which both compiled evaluators are built.
#include "expression/program.h"

#include <oxel/nodes.h>

namespace oxp {
namespace {

const int kMaxLowerDepth = 4000;  // lowering recurses; deeper trees keep the tree walk

struct Lowerer {
    int numVars;
    Lowered& out;
    std::vector<Operand> slot;  // current value of each variable slot (renaming)
    std::vector<bool> slotSet;
    bool errorCertain = false;  // an unconditional raise happened: later codes cannot win

    static Operand constant(double v) { return Operand{Operand::Const, v, -1}; }

    Operand fail()
    {
        out.ok = false;
        return constant(0.0);
    }

    void raise(int code)
    {
        if (code == 0 || errorCertain)
            return;
        out.steps.push_back(Step{oxk::Kind::Unknown, false, constant(0.0), constant(0.0), code});
        errorCertain = true;
    }

    Operand readVar(int index)
    {
        if (index < 0 || index >= numVars)
            return fail();
        if (slotSet[static_cast<size_t>(index)])
            return slot[static_cast<size_t>(index)];
        out.inputRead[static_cast<size_t>(index)] = true;
        return Operand{Operand::Input, 0.0, index};
    }

    Operand emit(oxk::Kind kind, const Operand& a, const Operand& b)
    {
        out.steps.push_back(Step{kind, oxk::row(kind).raises && !errorCertain, a, b, 0});
        return Operand{Operand::Reg, 0.0, static_cast<int>(out.steps.size()) - 1};
    }

    Operand unary(oxk::Kind kind, const Operand& v)
    {
        if (v.mode == Operand::Const) {
            int e = 0;
            double r = oxk::row(kind).un(v.k, e);
            raise(e);
            return constant(r);
        }
        return emit(kind, v, constant(0.0));
    }

    Operand binary(oxk::Kind kind, const Operand& a, const Operand& b)
    {
        if (a.mode == Operand::Const && b.mode == Operand::Const) {
            int e = 0;
            double r = oxk::row(kind).bin(a.k, b.k, e);
            raise(e);
            return constant(r);
        }
        return emit(kind, a, b);
    }

    Operand child(Oxel* node, int i) { return lower(node->getChild(i)); }

    int depth = 0;
    struct Level {
        int& d;
        explicit Level(int& depth) : d(depth) { ++d; }
        ~Level() { --d; }
    };

    Operand lower(Oxel* node)
    {
        Level level(depth);
        if (!out.ok || !node || depth > kMaxLowerDepth)
            return fail();
        const oxk::Kind kind = oxk::kindOf(node);
        switch (oxk::row(kind).shape) {
        case oxk::Shape::Number:
            return constant(static_cast<OxZahl*>(node)->number());
        case oxk::Shape::Variable: {
            OxVar* v = static_cast<OxVar*>(node);
            if (!v->bound())
                return readVar(v->index());
            Operand o = lower(v->bound());
            int index = v->index();
            if (index < 0 || index >= numVars)
                return fail();
            slot[static_cast<size_t>(index)] = o;
            slotSet[static_cast<size_t>(index)] = true;
            return o;
        }
        case oxk::Shape::Sequence: {
            Operand result = constant(0.0);
            if (Oxel* first = node->getChild(0))
                result = lower(first);
            if (Oxel* second = node->getChild(1))
                result = lower(second);
            return result;
        }
        case oxk::Shape::Opaque:
            return fail();
        case oxk::Shape::Unary:
            return unary(kind, child(node, 0));
        case oxk::Shape::Not:
            if (!node->getChild(0))
                return constant(1.0);
            return unary(kind, child(node, 0));
        case oxk::Shape::Ordering:
            out.overwrites = true;
            [[fallthrough]];
        case oxk::Shape::Binary: {
            Operand a = child(node, 0);
            Operand b = child(node, 1);
            return binary(kind, a, b);
        }
        case oxk::Shape::DivisorFirst: {
            Operand b = child(node, 1);
            Operand a = child(node, 0);
            return binary(kind, a, b);
        }
        case oxk::Shape::Tolerant: {
            Oxel* l = node->getChild(0);
            Oxel* r = node->getChild(1);
            Operand a = l ? lower(l) : constant(0.0);
            Operand b = r ? lower(r) : constant(0.0);
            return binary(kind, a, b);
        }
        }
        return fail();
    }
};

}  // namespace

Lowered lower(Oxel* root, int numVars)
{
    Lowered out;
    numVars = numVars > 0 ? numVars : 0;
    out.inputRead.assign(static_cast<size_t>(numVars), false);
    if (!root)
        return out;
    out.ok = true;
    out.steps.reserve(32);
    Lowerer l{numVars, out, {}, {}};
    l.slot.assign(static_cast<size_t>(numVars), Lowerer::constant(0.0));
    l.slotSet.assign(static_cast<size_t>(numVars), false);
    out.result = l.lower(root);
    for (int i = 0; i < numVars; ++i)
        if (l.slotSet[static_cast<size_t>(i)])
            out.assigned.emplace_back(i, l.slot[static_cast<size_t>(i)]);
    return out;
}

}  // namespace oxp
