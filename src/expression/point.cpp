// The single-point program behind eval(): the lowered steps as register instructions whose
// operands (register, caller's slot or constant) are encoded in the instruction itself, run
// by a threaded interpreter with the hot operators inlined per operand combination.
#include "expression/program.h"

#include <algorithm>
#include <cstdint>

#include <oxel/nodes.h>

namespace {

using oxp::Operand;

const int kMaxRegs = 64;  // wider programs keep the tree walk

// Operators inlined for every combination of operand modes (register, slot, constant).
#define OXP_HOT(X)     \
    X(OxPlus)          \
    X(OxMinus)         \
    X(OxMal)           \
    X(OxDurch)         \
    X(OxLess)          \
    X(OxGreater)       \
    X(OxLessEqual)     \
    X(OxGreaterEqual)  \
    X(OxEqual)         \
    X(OxAnd)           \
    X(OxOr)            \
    X(OxMax)           \
    X(OxMin)

// Modes in the order of Operand::Mode: R register, V caller's slot, K constant.
#define OXP_MODES(X, Cls) \
    X(Cls, R, R) X(Cls, R, V) X(Cls, R, K) X(Cls, V, R) X(Cls, V, V) X(Cls, V, K) X(Cls, K, R) X(Cls, K, V)

#define OXP_ENUM_MODE(Cls, A, B) Op_##Cls##_##A##B,
#define OXP_ENUM(Cls) OXP_MODES(OXP_ENUM_MODE, Cls) Op_##Cls##_KK,
enum Op : uint16_t { OXP_HOT(OXP_ENUM) OpUnary, OpBinary, OpRaise, OpMove, OpStore, OpReturn };
#undef OXP_ENUM
#undef OXP_ENUM_MODE

struct Insn {
    uint16_t op;
    uint8_t ma, mb;  // operand modes, for the generic instructions
    int32_t out;     // register written (OpStore: slot written)
    int32_t a, b;    // register or slot of each operand
    double ka, kb;   // constant operands
    oxk::UnFn un;
    oxk::BinFn bin;
};

// Base opcode of a hot kind, or -1.
int hotBase(oxk::Kind k)
{
    switch (k) {
#define OXP_BASE(Cls)      \
    case oxk::Kind::Cls: \
        return Op_##Cls##_RR;
        OXP_HOT(OXP_BASE)
#undef OXP_BASE
    default:
        return -1;
    }
}

inline double fetch(uint8_t mode, int32_t i, double k, const double* r, const double* vars)
{
    return mode == Operand::Reg ? r[i] : (mode == Operand::Input ? vars[i] : k);
}

}  // namespace

class OxelPointProgram {
public:
    std::vector<Insn> code;
    bool overwrites = false;
};

namespace {

// Registers for step values, reused once a value is dead; false when more than kMaxRegs
// values are alive at once.
bool build(OxelPointProgram& p, const oxp::Lowered& l)
{
    const int numSteps = static_cast<int>(l.steps.size());
    const int kForever = numSteps + 1;
    std::vector<int> lastUse(static_cast<size_t>(numSteps), -1);
    auto use = [&](const Operand& o, int at) {
        if (o.mode == Operand::Reg)
            lastUse[static_cast<size_t>(o.index)] = std::max(lastUse[static_cast<size_t>(o.index)], at);
    };
    for (int i = 0; i < numSteps; ++i) {
        use(l.steps[static_cast<size_t>(i)].a, i);
        use(l.steps[static_cast<size_t>(i)].b, i);
    }
    use(l.result, kForever);
    for (const auto& as : l.assigned)
        use(as.second, kForever);

    std::vector<int> regOf(static_cast<size_t>(numSteps), -1);
    std::vector<int> freeRegs;
    int numRegs = 0;
    auto operand = [&](const Operand& o, uint8_t& mode, int32_t& index, double& k) {
        mode = o.mode;
        index = o.mode == Operand::Reg ? regOf[static_cast<size_t>(o.index)] : o.index;
        k = o.k;
    };
    auto release = [&](const Operand& o, int at) {
        if (o.mode == Operand::Reg && lastUse[static_cast<size_t>(o.index)] == at &&
            regOf[static_cast<size_t>(o.index)] >= 0) {
            freeRegs.push_back(regOf[static_cast<size_t>(o.index)]);
            regOf[static_cast<size_t>(o.index)] = -1;
        }
    };
    auto newReg = [&]() {
        if (!freeRegs.empty()) {
            int r = freeRegs.back();
            freeRegs.pop_back();
            return r;
        }
        return numRegs++;
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
        const oxk::KindRow& row = oxk::row(s.kind);
        operand(s.a, in.ma, in.a, in.ka);
        operand(s.b, in.mb, in.b, in.kb);
        in.un = row.un;
        in.bin = row.bin;
        const int base = hotBase(s.kind);
        if (base >= 0)
            in.op = static_cast<uint16_t>(base + 3 * in.ma + in.mb);
        else
            in.op = row.un ? OpUnary : OpBinary;
        // Operands die before the result takes a register: an instruction may overwrite its
        // own operand, since it reads both before it writes.
        release(s.a, i);
        if (!(s.b.mode == Operand::Reg && s.a.mode == Operand::Reg && s.b.index == s.a.index))
            release(s.b, i);
        const int r = newReg();
        regOf[static_cast<size_t>(i)] = r;
        in.out = r;
        if (lastUse[static_cast<size_t>(i)] < 0) {  // a value nobody reads
            freeRegs.push_back(r);
            regOf[static_cast<size_t>(i)] = -1;
        }
        p.code.push_back(in);
    }

    // Assigned slots are written back last, as the tree leaves them. A value that is itself
    // an unassigned read of a slot written here is taken into a register first, so that
    // the order of the writes cannot matter (t = x; x = y; y = t).
    std::vector<bool> written(l.inputRead.size(), false);
    for (const auto& as : l.assigned)
        written[static_cast<size_t>(as.first)] = true;
    auto stable = [&](Operand o) {
        if (o.mode != Operand::Input || !written[static_cast<size_t>(o.index)])
            return o;
        Insn mv{};
        mv.op = OpMove;
        operand(o, mv.ma, mv.a, mv.ka);
        mv.out = numRegs++;
        p.code.push_back(mv);
        regOf.push_back(mv.out);
        return Operand{Operand::Reg, 0.0, static_cast<int>(regOf.size()) - 1};
    };
    Operand result = stable(l.result);
    std::vector<Operand> values;
    for (const auto& as : l.assigned)
        values.push_back(stable(as.second));
    for (size_t i = 0; i < l.assigned.size(); ++i) {
        Insn st{};
        st.op = OpStore;
        st.out = l.assigned[i].first;
        operand(values[i], st.ma, st.a, st.ka);
        p.code.push_back(st);
    }
    Insn ret{};
    ret.op = OpReturn;
    operand(result, ret.ma, ret.a, ret.ka);
    p.code.push_back(ret);
    return numRegs <= kMaxRegs;
}

// The first failure in evaluation order lands in code (which starts at 0).
double run(const Insn* in, double* vars, int& code)
{
#define OXP_LABEL_MODE(Cls, A, B) &&L_##Cls##_##A##B,
#define OXP_LABELS(Cls) OXP_MODES(OXP_LABEL_MODE, Cls) &&L_binary,
    static const void* const labels[] = {OXP_HOT(OXP_LABELS) &&L_unary, &&L_binary, &&L_raise,
                                         &&L_move, &&L_store, &&L_return};
#undef OXP_LABELS
#undef OXP_LABEL_MODE
    double r[kMaxRegs];
#define OXP_NEXT goto* labels[(++in)->op]
#define OXP_R(f) r[in->f]
#define OXP_V(f) vars[in->f]
#define OXP_K(f) in->k##f
#define OXP_HANDLER_MODE(Cls, A, B)                                                      \
    L_##Cls##_##A##B : r[in->out] = oxk::call<&oxk::eval_##Cls>(OXP_##A(a), OXP_##B(b), code); \
    OXP_NEXT;
#define OXP_HANDLERS(Cls) OXP_MODES(OXP_HANDLER_MODE, Cls)

    goto* labels[in->op];
    OXP_HOT(OXP_HANDLERS)
L_unary:
    r[in->out] = in->un(fetch(in->ma, in->a, in->ka, r, vars), code);
    OXP_NEXT;
L_binary:
    r[in->out] = in->bin(fetch(in->ma, in->a, in->ka, r, vars), fetch(in->mb, in->b, in->kb, r, vars),
                         code);
    OXP_NEXT;
L_raise:
    oxk::raise(code, in->a);
    OXP_NEXT;
L_move:
    r[in->out] = fetch(in->ma, in->a, in->ka, r, vars);
    OXP_NEXT;
L_store:
    vars[in->out] = fetch(in->ma, in->a, in->ka, r, vars);
    OXP_NEXT;
L_return:
    return fetch(in->ma, in->a, in->ka, r, vars);
#undef OXP_HANDLERS
#undef OXP_HANDLER_MODE
#undef OXP_K
#undef OXP_V
#undef OXP_R
#undef OXP_NEXT
}

}  // namespace

OxelPointProgram* oxelPointCompile(Oxel* root, int numVars)
{
    oxp::Lowered l = oxp::lower(root, numVars);
    if (!l.ok)
        return nullptr;
    OxelPointProgram* p = new OxelPointProgram;
    p->overwrites = l.overwrites;
    if (!build(*p, l)) {
        delete p;
        return nullptr;
    }
    return p;
}

void oxelPointRelease(OxelPointProgram* p)
{
    delete p;
}

double oxelPointRun(const OxelPointProgram& p, Oxel* root, double* vars, int& err)
{
    // A comparison may overwrite a code that was already set when eval() began; only the
    // tree knows which, so such calls take it. Otherwise no node writes a nonzero code.
    if (err != 0 && p.overwrites)
        return root->value(vars, err);
    int code = 0;
    double v = run(p.code.data(), vars, code);
    if (err == 0)
        err = code;
    return v;
}
