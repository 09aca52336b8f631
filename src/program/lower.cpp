// Lowering: a tree into the intermediate program, with constants folded and repeated
// subexpressions computed once (why that keeps the tree's bits and codes: ir.h).
#include "program/ir.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <unordered_map>

#include <oxel/nodes.h>

#include "core/shared.h"

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

// What the fused programs of lowerSeveral know about a value on the fast path, where no step
// failed and every input fits (inputFits): an upper bound of its magnitude when it is a
// number, and whether it may be a signalling NaN (a call's result, or a constant).
struct Facts {
    double bound;
    bool mayBeSignalling;
};

// The bound a step's value keeps where its kernel did not fail, from its operands' bounds.
double stepBound(oxk::Kind kind, double a, double b)
{
    const double up = 1.0 + 0x1p-40;  // room for the rounding of the bound itself
    switch (kind) {
    case oxk::Kind::OxPlus:
    case oxk::Kind::OxMinus:
        return (a + b) * up;
    case oxk::Kind::OxMal:
        return a * b * up;
    case oxk::Kind::OxExp:
        return std::exp(oxk::kExpLimit) * up;  // larger arguments fail
    case oxk::Kind::OxSqroot:
        return std::sqrt(a) * up;
    case oxk::Kind::OxLn:
    case oxk::Kind::OxLog10:
        return 745.0;  // the logarithm of the least subnormal
    case oxk::Kind::OxBetrag:
        return a;
    case oxk::Kind::OxSinus:
    case oxk::Kind::OxCosinus:
    case oxk::Kind::OxTanh:
    case oxk::Kind::OxErf:
    case oxk::Kind::OxSgn:
    case oxk::Kind::OxNot:
#define OXP_TRUTH(Cls) case oxk::Kind::Cls:
        OXEL_LOGIC_OPERATORS(OXP_TRUTH)
#undef OXP_TRUTH
        return 1.0;
    case oxk::Kind::OxErfc:
    case oxk::Kind::OxArctan:
        return 2.0;
    case oxk::Kind::OxArcsin:
    case oxk::Kind::OxArccos:
    case oxk::Kind::OxArctan2:
        return 4.0;
    default:
        return INFINITY;
    }
}

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
    bool mergeCalls = false;
    bool fastPath = false;     // lowerSeveral: drop the identities that its fast path allows
    std::vector<Facts> facts;  // per step, when fastPath

    Facts factsOf(const Operand& o) const
    {
        switch (o.mode) {
        case Operand::Const:
            return Facts{std::isnan(o.k) ? INFINITY : std::fabs(o.k), isSignallingNaN(o.k)};
        case Operand::Input:
            return Facts{kInputBound, false};
        case Operand::Reg:
            break;
        }
        return facts[static_cast<size_t>(o.index)];
    }

    // Records what is known of the step just pushed.
    void noteStep(const Facts& f)
    {
        if (fastPath)
            facts.resize(out.steps.size(), f);
    }

    static bool isOne(const Operand& o)
    {
        return o.mode == Operand::Const && sameOperand(o, constant(1.0));
    }

    // The operand that kind(a, b) leaves unchanged on the fast path, or null. 1*u and u/1 give
    // u's bits for every u but a signalling NaN (which they quieten); u*1 also fails for |u|
    // near DBL_MAX, hence the bound. u^1 is powl's u^1, u itself, for every number, which an
    // input there is (derivatives of squares written as powers have it).
    const Operand* identity(oxk::Kind kind, const Operand& a, const Operand& b) const
    {
        if (!fastPath)
            return nullptr;
        if (kind == oxk::Kind::OxHoch && a.mode == Operand::Input && isOne(b))
            return &a;
        if (kind == oxk::Kind::OxMal && isOne(a) && !factsOf(b).mayBeSignalling)
            return &b;
        if ((kind == oxk::Kind::OxMal || kind == oxk::Kind::OxDurch) && isOne(b)) {
            const Facts f = factsOf(a);
            if (!f.mayBeSignalling && (kind == oxk::Kind::OxDurch || f.bound <= 0x1p1023))
                return &a;
        }
        return nullptr;
    }

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
        noteStep(Facts{INFINITY, true});
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
        if (earlier >= 0)
            return reg(earlier);
        out.steps.push_back(s);
        if (fastPath) {
            const Facts fa = factsOf(a), fb = factsOf(b);
            noteStep(Facts{stepBound(kind, fa.bound, fb.bound),
                           fa.mayBeSignalling || (!oxk::row(kind).un && fb.mayBeSignalling)});
        }
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
        if (const Operand* same = identity(kind, a, b))
            return *same;
        return emit(kind, a, b);
    }

    // A random source or a dependent variable, its argument values on top of vals: the call,
    // which is never shared, unless mergeCalls (see lowerSeveral).
    __attribute__((noinline)) Operand call(oxk::Kind kind, Oxel* node, const Operand* values, int n)
    {
        if (mergeCalls && kind == oxk::Kind::OxDepVar) {
            const int earlier = sameCall(static_cast<const OxDepVar*>(node), values, n);
            if (earlier >= 0)
                return reg(earlier);
        }
        const int first = static_cast<int>(out.args.size());
        out.args.insert(out.args.end(), values, values + n);
        out.calls.push_back(Call{kind, node, first, n});
        out.steps.push_back(Step{kind, false, constant(0.0), constant(0.0), 0,
                                 static_cast<int>(out.calls.size()) - 1});
        noteStep(Facts{INFINITY, true});
        return reg(static_cast<int>(out.steps.size()) - 1);
    }

    // The step of an earlier call of the same dependent variable, component and derivative
    // marks (in the same order) at the same argument values, or -1.
    int sameCall(const OxDepVar* d, const Operand* values, int n) const
    {
        for (size_t i = 0; i < out.steps.size(); ++i) {
            const Step& s = out.steps[i];
            if (s.kind != oxk::Kind::OxDepVar)
                continue;
            const Call& c = out.calls[static_cast<size_t>(s.call)];
            const OxDepVar* e = static_cast<const OxDepVar*>(c.node);
            if (e->node() != d->node() || e->component() != d->component() ||
                e->nDiff() != d->nDiff() || c.count != n ||
                !std::equal(d->diffDims(), d->diffDims() + d->nDiff(), e->diffDims()))
                continue;
            bool same = true;
            for (int a = 0; a < c.count && same; ++a)
                same = sameOperand(out.args[static_cast<size_t>(c.first + a)], values[a]);
            if (same)
                return static_cast<int>(i);
        }
        return -1;
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
    // The value of each node that stand-ins (OxShared) have read in the current tree: the
    // whole tree a stand-in spells out would give the same steps again, all of them equal to
    // earlier ones (and no second raise: a failed fold there has already set errorCertain).
    std::unordered_map<const Oxel*, Operand> standValues;

    // Child i of f in evaluation order (the divisor first).
    static Oxel* childAt(const Frame& f, int i)
    {
        if (f.kind == oxk::Kind::Unknown)  // a stand-in: the node it stands for
            return OxShared::target(f.node);
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
                if (Oxel* target = OxShared::target(node)) {
                    auto known = standValues.find(target);
                    if (known == standValues.end()) {
                        frames.push_back(Frame{node, kind, 0, 1, vals.size()});
                        return;
                    }
                    vals.push_back(known->second);
                    return;
                }
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
        if (f.kind == oxk::Kind::Unknown) {
            r = standValues[OxShared::target(f.node)] = v[0];
            vals.resize(f.base);
            vals.push_back(r);
            return;
        }
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

Program lowerSeveral(const std::vector<Oxel*>& roots, int numVars, bool mergeCalls)
{
    Program out;
    numVars = numVars > 0 ? numVars : 0;
    out.inputRead.assign(static_cast<size_t>(numVars) + roots.size(), false);
    out.ok = !roots.empty();
    out.several = true;
    Lowerer l(numVars, out);
    l.mergeCalls = mergeCalls;
    l.fastPath = true;
    for (size_t k = 0; k < roots.size() && out.ok; ++k) {
        // Each tree starts from the caller's values, as its own evaluation would.
        std::fill(l.slotSet.begin(), l.slotSet.end(), false);
        l.errorCertain = false;
        l.standValues.clear();
        const Operand r = roots[k] ? l.lower(roots[k]) : l.fail();
        if (k == 0)
            out.result = r;
        out.assigned.emplace_back(numVars + static_cast<int>(k), r);
    }
    if (out.ok)
        allocate(out);
    return out;
}

}  // namespace oxp
