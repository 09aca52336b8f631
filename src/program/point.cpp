// The single-point program behind eval(): the lowered steps as register instructions whose
// operands (register, caller's slot, constant, or the previous instruction's result, which
// stays in a machine register) are encoded in the instruction itself, run by a threaded
// interpreter with the hot operators inlined per operand combination.
#include "program/program.h"

#include "core/deep.h"
#include "program/native/native.h"

#include <algorithm>
#include <cstdint>

#include <oxel/nodes.h>

namespace {

using oxp::Operand;

const int kMaxRegs = 64;  // wider programs run the plain step interpreter

// Operators inlined for every combination of operand modes: the kind table's cheap ones.
#define OXP_HOT(X) OXK_CHEAP_BINARY(X)

// Operand modes: the first three in the order of Operand::Mode (R register, V caller's slot,
// K constant), then A, the previous instruction's result. Every instruction also stores its
// result in its register, so A is only a shortcut that keeps chains out of memory.
const uint8_t kAcc = 3;
#define OXP_MODES(X, Cls)                                                                       \
    X(Cls, R, R) X(Cls, R, V) X(Cls, R, K) X(Cls, R, A) X(Cls, V, R) X(Cls, V, V) X(Cls, V, K)  \
    X(Cls, V, A) X(Cls, K, R) X(Cls, K, V) X(Cls, K, K) X(Cls, K, A) X(Cls, A, R) X(Cls, A, V)  \
    X(Cls, A, K) X(Cls, A, A)

// Every one-operand kind is inlined too, for an operand in a register, a slot or the
// accumulator (constants fold at compile time).
#define OXP_UNARY_KINDS(X) OXEL_UNARY_FUNCTIONS(X) X(OxNot)
#define OXP_UNARY_MODES(X, Cls) X(Cls, R) X(Cls, V) X(Cls, K) X(Cls, A)

#define OXP_ENUM_MODE(Cls, A, B) Op_##Cls##_##A##B,
#define OXP_ENUM(Cls) OXP_MODES(OXP_ENUM_MODE, Cls)
#define OXP_ENUM_UNARY_MODE(Cls, A) Op_##Cls##_##A,
#define OXP_ENUM_UNARY(Cls, ...) OXP_UNARY_MODES(OXP_ENUM_UNARY_MODE, Cls)
// A product that only feeds the sum or difference right after it runs in one instruction
// with it: P(product, c) with the product on the left (L) or right (R) of P.
#define OXP_FUSED_C(X, P, S, C)                                                                 \
    X(P, S, R, R, C) X(P, S, R, V, C) X(P, S, R, K, C) X(P, S, R, A, C) X(P, S, V, R, C)         \
    X(P, S, V, V, C) X(P, S, V, K, C) X(P, S, V, A, C) X(P, S, K, R, C) X(P, S, K, V, C)         \
    X(P, S, K, K, C) X(P, S, K, A, C) X(P, S, A, R, C) X(P, S, A, V, C) X(P, S, A, K, C)         \
    X(P, S, A, A, C)
#define OXP_FUSED_S(X, P, S) \
    OXP_FUSED_C(X, P, S, R) OXP_FUSED_C(X, P, S, V) OXP_FUSED_C(X, P, S, K) OXP_FUSED_C(X, P, S, A)
#define OXP_FUSED(X)                                                                    \
    OXP_FUSED_S(X, OxPlus, L) OXP_FUSED_S(X, OxPlus, R) OXP_FUSED_S(X, OxMinus, L) \
    OXP_FUSED_S(X, OxMinus, R)
#define OXP_ENUM_FUSED(P, S, A, B, C) Op_##P##S##_##A##B##C,

enum Op : uint16_t {
    OXP_HOT(OXP_ENUM) OXP_UNARY_KINDS(OXP_ENUM_UNARY) OXP_FUSED(OXP_ENUM_FUSED) Op_Pow_R,
    Op_Pow_V,
    Op_Pow_K,
    Op_Pow_A,
    OpBinary,
    OpCall,
    OpRaise,
    OpMove,
    OpStore,
    OpReturn
};
#undef OXP_ENUM_FUSED
#undef OXP_ENUM_UNARY
#undef OXP_ENUM_UNARY_MODE
#undef OXP_ENUM
#undef OXP_ENUM_MODE

struct Insn {
    uint16_t op;
    uint8_t ma, mb;  // operand modes, for the generic instructions
    int32_t out;     // register written (OpStore: slot written)
    int32_t a, b;    // register or slot of each operand
    double ka, kb;   // constant operands
    int32_t c;       // the third operand of a fused product and sum
    uint8_t mc;
    double kc;
    union {
        oxk::BinFn bin;            // the generic two-operand instruction's kernel
        const oxk::PowPlan* plan;  // a power with a constant operand, reading a
    };
};

// Base opcode of an inlined kind, or -1.
int hotBase(oxk::Kind k)
{
    switch (k) {
#define OXP_BASE(Cls)      \
    case oxk::Kind::Cls: \
        return Op_##Cls##_RR;
        OXP_HOT(OXP_BASE)
#undef OXP_BASE
#define OXP_BASE(Cls, ...) \
    case oxk::Kind::Cls: \
        return Op_##Cls##_R;
        OXP_UNARY_KINDS(OXP_BASE)
#undef OXP_BASE
    default:
        return -1;
    }
}

inline double fetch(uint8_t mode, int32_t i, double k, double acc, const double* r,
                    const double* vars)
{
    switch (mode) {
    case Operand::Reg:
        return r[i];
    case Operand::Input:
        return vars[i];
    case Operand::Const:
        return k;
    default:
        return acc;
    }
}

// Where a call's argument is read from (never the accumulator).
struct CallArg {
    uint8_t mode;
    int32_t index;
    double k;
};

}  // namespace

class OxelPointProgram {
public:
    std::vector<Insn> code;
    std::vector<oxp::Call> calls;
    std::vector<CallArg> args;
    std::vector<oxk::PowPlan> plans;  // reserved up front: the instructions point into it
    bool walk = false;                // the tree walk or, with wide set, the step interpreter
    bool wide = false;                // serves eval
    bool overwrites = false;
    oxp::Program steps;               // the steps: for a wide program, and for native code
    oxn::PointTier native;            // machine code once the program is hot
};

namespace {

// A dependent variable's callback, its arguments gathered from registers, slots and
// constants; long argument lists (rare) take the heap.
double callWithArgs(const OxelPointProgram& p, const oxp::Call& c, double* args, const double* r,
                    const double* vars, int& code)
{
    for (int i = 0; i < c.count; ++i) {
        const CallArg& a = p.args[static_cast<size_t>(c.first + i)];
        args[i] = fetch(a.mode, a.index, a.k, 0.0, r, vars);
    }
    return oxp::runCall(c, args, code);
}

__attribute__((noinline)) double callLong(const OxelPointProgram& p, const oxp::Call& c,
                                          const double* r, const double* vars, int& code)
{
    std::vector<double> args(static_cast<size_t>(c.count));
    return callWithArgs(p, c, args.data(), r, vars, code);
}

inline double call(const OxelPointProgram& p, int index, const double* r, const double* vars,
                   int& code)
{
    const oxp::Call& c = p.calls[static_cast<size_t>(index)];
    double args[OxDepVar::kInlineArgs];
    if (c.count == 0)
        return oxp::runCall(c, args, code);
    if (c.count > OxDepVar::kInlineArgs)
        return callLong(p, c, r, vars, code);
    return callWithArgs(p, c, args, r, vars, code);
}

// Registers are the program's slots; write-backs that need a stable copy get registers after
// them. False when the program needs more than kMaxRegs.
bool build(OxelPointProgram& p, const oxp::Program& l)
{
    const int numSteps = static_cast<int>(l.steps.size());
    int numRegs = l.numSlots;
    int previous = -1;  // the step whose result is in the accumulator
    p.code.reserve(l.steps.size() + 2 * l.assigned.size() + 2);
    p.plans.reserve(
        static_cast<size_t>(std::count_if(l.steps.begin(), l.steps.end(), &oxp::plannedPower)));
    p.calls = l.calls;
    auto operand = [&](const Operand& o, uint8_t& mode, int32_t& index, double& k) {
        mode = o.mode;
        index = o.mode == Operand::Reg ? l.slot[static_cast<size_t>(o.index)] : o.index;
        k = o.k;
        if (o.mode == Operand::Reg && o.index == previous)
            mode = kAcc;
    };
    for (const Operand& o : l.args) {
        CallArg arg{};
        operand(o, arg.mode, arg.index, arg.k);
        arg.mode = o.mode;  // arguments are gathered from memory, never the accumulator
        p.args.push_back(arg);
    }

    // Step i, a product read only by step i + 1, a sum or difference: the operand of step i + 1
    // that is not the product, and whether the product is its left operand; null otherwise.
    auto fusable = [&](int i, bool& left) -> const Operand* {
        if (i + 1 >= numSteps || l.steps[static_cast<size_t>(i)].kind != oxk::Kind::OxMal ||
            l.lastUse[static_cast<size_t>(i)] != i + 1)
            return nullptr;
        const oxp::Step& t = l.steps[static_cast<size_t>(i) + 1];
        if (t.kind != oxk::Kind::OxPlus && t.kind != oxk::Kind::OxMinus)
            return nullptr;
        const bool inA = t.a.mode == Operand::Reg && t.a.index == i;
        const bool inB = t.b.mode == Operand::Reg && t.b.index == i;
        if (inA == inB)
            return nullptr;
        left = inA;
        return inA ? &t.b : &t.a;
    };

    for (int i = 0; i < numSteps; ++i) {
        const oxp::Step& s = l.steps[static_cast<size_t>(i)];
        Insn in{};
        if (s.kind == oxk::Kind::Unknown) {
            in.op = OpRaise;
            in.a = s.code;
            p.code.push_back(in);
            continue;
        }
        if (oxp::isCall(s)) {
            in.op = OpCall;
            in.a = s.call;
            in.out = l.slot[static_cast<size_t>(i)];
            previous = i;
            p.code.push_back(in);
            continue;
        }
        bool left = false;
        if (const Operand* other = fusable(i, left)) {
            const bool plus = l.steps[static_cast<size_t>(i) + 1].kind == oxk::Kind::OxPlus;
            operand(s.a, in.ma, in.a, in.ka);
            operand(s.b, in.mb, in.b, in.kb);
            operand(*other, in.mc, in.c, in.kc);
            const int variant = (plus ? 0 : 2) + (left ? 0 : 1);
            in.op = static_cast<uint16_t>(Op_OxPlusL_RRR + (variant * 4 + in.mc) * 16 + 4 * in.ma +
                                          in.mb);
            ++i;  // the sum's step is done too; the product's slot stays unwritten
            in.out = l.slot[static_cast<size_t>(i)];
            previous = i;
            p.code.push_back(in);
            continue;
        }
        const oxk::KindRow& row = oxk::row(s.kind);
        operand(s.a, in.ma, in.a, in.ka);
        operand(s.b, in.mb, in.b, in.kb);
        in.bin = row.bin;  // null for the one-operand kinds, which are all inlined
        const int base = hotBase(s.kind);
        if (oxp::plannedPower(s)) {
            p.plans.push_back(oxp::powerPlan(s));
            in.plan = &p.plans.back();
            operand(oxp::plannedOperand(s), in.ma, in.a, in.ka);
            in.op = static_cast<uint16_t>(Op_Pow_R + in.ma);
        } else if (base < 0) {
            in.op = OpBinary;
        } else {
            in.op = static_cast<uint16_t>(row.un ? base + in.ma : base + 4 * in.ma + in.mb);
        }
        previous = i;
        in.out = l.slot[static_cast<size_t>(i)];
        p.code.push_back(in);
    }

    // Assigned slots are written back last, as the tree leaves them. A value that is itself
    // an unassigned read of a slot written here is taken into a register first, so that
    // the order of the writes cannot matter (t = x; x = y; y = t).
    std::vector<bool> written(l.inputRead.size(), false);
    for (const auto& as : l.assigned)
        written[static_cast<size_t>(as.first)] = true;
    struct Value {
        uint8_t mode;
        int32_t index;
        double k;
    };
    auto stable = [&](const Operand& o) {
        Value v{};
        operand(o, v.mode, v.index, v.k);
        if (o.mode != Operand::Input || !written[static_cast<size_t>(o.index)])
            return v;
        Insn mv{};
        mv.op = OpMove;
        mv.ma = v.mode;
        mv.a = v.index;
        mv.out = numRegs++;
        p.code.push_back(mv);
        return Value{Operand::Reg, mv.out, 0.0};
    };
    previous = -1;  // every instruction also wrote its register: no need for the accumulator
    Value result = stable(l.result);
    std::vector<Value> values;
    for (const auto& as : l.assigned)
        values.push_back(stable(as.second));
    for (size_t i = 0; i < l.assigned.size(); ++i) {
        Insn st{};
        st.op = OpStore;
        st.out = l.assigned[i].first;
        st.ma = values[i].mode;
        st.a = values[i].index;
        st.ka = values[i].k;
        p.code.push_back(st);
    }
    Insn ret{};
    ret.op = OpReturn;
    ret.ma = result.mode;
    ret.a = result.index;
    ret.ka = result.k;
    p.code.push_back(ret);
    return numRegs <= kMaxRegs;
}

}  // namespace

OxelPointProgram* oxelPointBuild(oxp::Program ir)
{
    OxelPointProgram* p = new OxelPointProgram;
    p->overwrites = ir.overwrites;
    if (!ir.ok || !build(*p, ir)) {
        p->code.clear();
        p->walk = true;
        p->wide = ir.ok;
    }
    p->steps = std::move(ir);
    return p;
}

OxelPointProgram* oxelPointCompile(Oxel* root, int numVars)
{
    return oxelPointBuild(oxp::lower(root, numVars));
}

void oxelPointRelease(OxelPointProgram* p)
{
    delete p;
}

namespace {

// The tree walk recurses per level: a deep tree gets a stack that holds it.
[[gnu::noinline]] double walk(Oxel* root, double* vars, int& err)
{
    double result = 0.0;
    try {
        oxs::withStackFor(oxelDepth(root), [&] { result = root->value(vars, err); });
    } catch (...) {
        oxk::raise(err, OX_ERR_OVERFLOW);  // no room for a stack that deep
    }
    return result;
}

}  // namespace

bool oxelPointBuilt(const OxelPointProgram& p)
{
    return !p.walk;
}

namespace {

[[gnu::noinline]] double interpret(const OxelPointProgram& p, double* vars, int& err)
{
#define OXP_LABEL_MODE(Cls, A, B) &&L_##Cls##_##A##B,
#define OXP_LABELS(Cls) OXP_MODES(OXP_LABEL_MODE, Cls)
#define OXP_LABEL_UNARY_MODE(Cls, A) &&L_##Cls##_##A,
#define OXP_LABELS_UNARY(Cls, ...) OXP_UNARY_MODES(OXP_LABEL_UNARY_MODE, Cls)
#define OXP_LABEL_FUSED(P, S, A, B, C) &&L_##P##S##_##A##B##C,
    static const void* const labels[] = {OXP_HOT(OXP_LABELS) OXP_UNARY_KINDS(OXP_LABELS_UNARY)
                                             OXP_FUSED(OXP_LABEL_FUSED) &&L_pow_R,
                                         &&L_pow_V, &&L_pow_K, &&L_pow_A, &&L_binary,
                                         &&L_call, &&L_raise, &&L_move, &&L_store, &&L_return};
#undef OXP_LABEL_FUSED
#undef OXP_LABELS_UNARY
#undef OXP_LABEL_UNARY_MODE
#undef OXP_LABELS
#undef OXP_LABEL_MODE
    int code = 0;  // the first failure in evaluation order lands here
    double r[kMaxRegs];
    double acc = 0.0;
    const Insn* in = p.code.data();
#define OXP_NEXT goto* labels[(++in)->op]
#define OXP_R(f) r[in->f]
#define OXP_V(f) vars[in->f]
#define OXP_K(f) in->k##f
#define OXP_A(f) acc
#define OXP_FETCH(m, f) fetch(in->m, in->f, in->k##f, acc, r, vars)
#define OXP_HANDLER_MODE(Cls, A, B)                                                 \
    L_##Cls##_##A##B : acc = oxk::call<&oxk::eval_##Cls>(OXP_##A(a), OXP_##B(b), code); \
    r[in->out] = acc;                                                               \
    OXP_NEXT;
#define OXP_HANDLERS(Cls) OXP_MODES(OXP_HANDLER_MODE, Cls)
#define OXP_UNARY_HANDLER_MODE(Cls, A)                               \
    L_##Cls##_##A : acc = oxk::call<&oxk::eval_##Cls>(OXP_##A(a), code); \
    r[in->out] = acc;                                                \
    OXP_NEXT;
#define OXP_UNARY_HANDLERS(Cls, ...) OXP_UNARY_MODES(OXP_UNARY_HANDLER_MODE, Cls)
#define OXP_SIDE_L(p, c) p, c
#define OXP_SIDE_R(p, c) c, p
#define OXP_FUSED_HANDLER(P, S, A, B, C)                                                  \
    L_##P##S##_##A##B##C : {                                                              \
        const double prod = oxk::call<&oxk::eval_OxMal>(OXP_##A(a), OXP_##B(b), code);    \
        acc = oxk::call<&oxk::eval_##P>(OXP_SIDE_##S(prod, OXP_##C(c)), code);            \
        r[in->out] = acc;                                                                 \
        OXP_NEXT;                                                                         \
    }

    goto* labels[in->op];
    OXP_HOT(OXP_HANDLERS)
    OXP_UNARY_KINDS(OXP_UNARY_HANDLERS)
    OXP_FUSED(OXP_FUSED_HANDLER)
#define OXP_POW_HANDLER(A)                                       \
    L_pow_##A : acc = oxk::powPlanned(*in->plan, OXP_##A(a), code); \
    r[in->out] = acc;                                            \
    OXP_NEXT;
    OXP_POW_HANDLER(R)
    OXP_POW_HANDLER(V)
    OXP_POW_HANDLER(K)
    OXP_POW_HANDLER(A)
#undef OXP_POW_HANDLER
L_binary:
    acc = in->bin(OXP_FETCH(ma, a), OXP_FETCH(mb, b), code);
    r[in->out] = acc;
    OXP_NEXT;
L_call:
    acc = call(p, in->a, r, vars, code);
    r[in->out] = acc;
    OXP_NEXT;
L_raise:
    oxk::raise(code, in->a);
    OXP_NEXT;
L_move:
    r[in->out] = OXP_FETCH(ma, a);
    OXP_NEXT;
L_store:
    vars[in->out] = OXP_FETCH(ma, a);
    OXP_NEXT;
L_return: {
    double v = OXP_FETCH(ma, a);
    if (err == 0)
        err = code;
    return v;
}
#undef OXP_FUSED_HANDLER
#undef OXP_SIDE_R
#undef OXP_SIDE_L
#undef OXP_UNARY_HANDLERS
#undef OXP_UNARY_HANDLER_MODE
#undef OXP_HANDLERS
#undef OXP_HANDLER_MODE
#undef OXP_FETCH
#undef OXP_A
#undef OXP_K
#undef OXP_V
#undef OXP_R
#undef OXP_NEXT
}

}  // namespace

// Kept small: the native code's calls do not pay for the interpreter's frame.
double oxelPointRun(const OxelPointProgram& p, Oxel* root, double* vars, int& err)
{
    // A comparison may overwrite a code that was already set when eval() began; only the
    // tree knows which, so such calls take it. Otherwise no node writes a nonzero code.
    if (p.walk || (err != 0 && p.overwrites))
        return p.wide && !(err != 0 && p.overwrites) ? oxp::runSteps(p.steps, vars, err)
                                                     : walk(root, vars, err);
    if (!p.steps.several)
        if (oxn::PointFn f = p.native.get(p.steps))
            return oxn::runPoint(f, vars, err);
    return interpret(p, vars, err);
}

oxn::PointFn oxelPointNative(const OxelPointProgram& p)
{
    return p.walk || p.steps.several ? nullptr : p.native.published();
}

OxelSeveralFn oxelPointSeveral(const OxelPointProgram& p)
{
    if (p.walk || !p.steps.several)
        return nullptr;
    // Through void (*)(): the code was generated for the three arguments.
    return reinterpret_cast<OxelSeveralFn>(
        reinterpret_cast<void (*)()>(p.native.get(p.steps)));
}
