// Fused block programs for the column batch: one x86-64 loop per program that takes four rows
// at a time through every step in ymm registers, marking the rows it cannot vouch for.
#include "program/native/block_math.h"
#include "program/native/generator.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>

namespace oxn {
namespace {

// The steps the loop computes: both generators' inline kinds; floor and ceil, which vroundpd
// rounds exactly as the C library does (signed zeros, infinities and NaN included); x^2; and
// exp where the four-lane exp serves (block_math.h).
bool blockStep(const oxp::Step& s)
{
    return cheapKind(s.kind) || s.kind == Kind::OxFloor || s.kind == Kind::OxCeil ||
           oxp::squareStep(s) || (s.kind == Kind::OxExp && blockExp());
}

// ymm0..ymm10 hold values; ymm11, ymm12 and ymm15 the result test's sums, ymm13 and ymm14
// scratch.
const int kValues = 11;

// Bounds on magnitudes, infinite where unknown (NaN possible). A value below kSafe needs no
// test: + - * / then give the kernel's own result (it leaves their fast range only at 2^1022).
// A tested value that passes is below kTested; a checked input below kInput.
const double kSafe = 0x1p1000, kTested = 0x1p512, kInput = 0x1p64;

// The bound of an inline step's value from its operands' bounds, and whether it is tested.
double stepBound(Kind k, double a, double b, const Operand& right, bool& tested)
{
    tested = false;
    double r;
    switch (k) {
    case Kind::OxPlus:
    case Kind::OxMinus:
        r = a + b;
        break;
    case Kind::OxMal:
        r = a * b;
        break;
    case Kind::OxHoch:  // x^2
        r = a * a;
        break;
    case Kind::OxDurch:  // a constant divisor of at least 1 cannot raise the magnitude
        r = right.mode == Operand::Const && std::fabs(right.k) >= 1.0 ? a : __builtin_inf();
        break;
    case Kind::OxSqroot:  // a negative radicand
        tested = true;
        return std::min(std::sqrt(a), kTested);
    case Kind::OxMin:
    case Kind::OxMax:
        return std::max(a, b);
    case Kind::OxBetrag:
        return a;
    case Kind::OxFloor:
    case Kind::OxCeil:
        return a + 1.0;
    case Kind::OxExp:  // lanes from 512 on are marked
        return std::exp(std::min(a, 512.0));
    default:  // comparisons and connectives
        return 1.0;
    }
    if (r < kSafe)
        return r;
    tested = true;
    return kTested;
}

// A power of two whose reciprocal is a normal number: dividing by it and multiplying by the
// reciprocal round the same exact quotient, so they give the same bits, zeros' signs and NaN.
bool exactReciprocal(double b)
{
    int e;
    return std::fabs(std::frexp(b, &e)) == 0.5 && std::isnormal(1.0 / b);
}

const int kMaxSlots = 1024;  // a frame of 32 KiB at most

// Comparison predicates of vcmppd (ordered, quiet: NaN compares false, as in the kernels).
const uint8_t kEqOq = 0x00, kNeqOq = 0x0C, kNltUq = 0x15, kLtOq = 0x11, kLeOq = 0x12,
              kGeOq = 0x1D, kGtOq = 0x1E;

// Registers: rbx the input column pointers, rbp the results, r15 the codes, r12 the group's
// mark byte, r13 the group's first row, r14d all marks so far.
class BlockGenerator : public Xbyak::CodeGenerator {
public:
    BlockGenerator(const oxp::Program& l, const std::vector<int>& column, void* buf, size_t size)
        : Xbyak::CodeGenerator(size, buf), l_(l), column_(column)
    {
    }

    void run();

private:
    const oxp::Program& l_;
    const std::vector<int>& column_;  // input column of each variable slot
    std::vector<int> reg_;
    std::vector<bool> mem_;
    int holder_[kValues];
    int step_ = 0;
    ConstantPool pool_;
    int endOff_ = 0, stackOff_ = 0;
    const Xbyak::Ymm t0{13}, t1{14};
    const Xbyak::Ymm sums_[3] = {Xbyak::Ymm(11), Xbyak::Ymm(12), Xbyak::Ymm(15)};
    int nextSum_ = 0;
    std::vector<double> bound_;  // per step
    double inputBound_ = __builtin_inf();  // kInput where the inputs are checked

    double boundOf(const Operand& o) const
    {
        switch (o.mode) {
        case Operand::Const:
            return std::isnan(o.k) ? __builtin_inf() : std::fabs(o.k);
        case Operand::Input:
            return inputBound_;
        case Operand::Reg:
            break;
        }
        return bound_[static_cast<size_t>(o.index)];
    }

    // Tests the inline steps need, with inputs of the given bound.
    int testsNeeded(double input)
    {
        inputBound_ = input;
        int tests = 0;
        for (size_t i = 0; i < l_.steps.size(); ++i) {
            const oxp::Step& s = l_.steps[i];
            bool tested = false;
            bound_[i] = blockStep(s)
                            ? stepBound(s.kind, boundOf(s.a), boundOf(s.b), s.b, tested)
                            : __builtin_inf();
            tests += tested;
        }
        return tests;
    }

    // The loop takes blockRound() groups of four rows per round, the steps written out for
    // each: half_ is the group.
    int half_ = 0;
    Xbyak::RegExp row(const Xbyak::Reg64& base) const { return base + r13 * 8 + 32 * half_; }

    Xbyak::Address constant(double v) { return yword[rip + pool_.of(v)]; }
    Xbyak::Address constantBits(uint64_t bits) { return yword[rip + pool_.of(bits)]; }
    Xbyak::Address home(int step) { return yword[rsp + 32 * l_.slot[static_cast<size_t>(step)]]; }

    // Registers hold step values (key: the step) and inputs (key: steps + variable slot), the
    // inputs from their first read in the group to their last, never stored.
    std::vector<int> inputLast_;  // per variable slot: the last step that reads it

    int lastUseOf(int key) const
    {
        const int n = static_cast<int>(l_.steps.size());
        return key < n ? l_.lastUse[static_cast<size_t>(key)]
                       : inputLast_[static_cast<size_t>(key - n)];
    }

    int keyOf(const Operand& o) const
    {
        return o.mode == Operand::Input ? static_cast<int>(l_.steps.size()) + o.index : o.index;
    }

    // Inputs are read from the caller's column through base, into a register not in avoid
    // where they are read again.
    Place place(const Operand& o, const Xbyak::Reg64& base, unsigned avoid = 0,
                 bool keep = false)
    {
        if (o.mode == Operand::Const)
            return Place{false, -1, constant(o.k)};
        const int key = keyOf(o);
        const int r = reg_[static_cast<size_t>(key)];
        if (r >= 0)
            return Place{true, r, yword[rsp]};
        if (o.mode == Operand::Reg)
            return Place{false, -1, home(o.index)};
        mov(base, qword[rbx + 8 * column_[static_cast<size_t>(o.index)]]);
        if (!keep || lastUseOf(key) <= step_)
            return Place{false, -1, yword[row(base)]};
        const int into = pick(avoid);
        vmovupd(Xbyak::Ymm(into), yword[row(base)]);
        holder_[into] = key;
        reg_[static_cast<size_t>(key)] = into;
        return Place{true, into, yword[rsp]};
    }

    void drop(int r)
    {
        reg_[static_cast<size_t>(holder_[r])] = -1;
        holder_[r] = -1;
    }

    void spill(int r)
    {
        const int v = holder_[r];
        if (v < static_cast<int>(l_.steps.size()) && !mem_[static_cast<size_t>(v)]) {
            vmovupd(home(v), Xbyak::Ymm(r));
            mem_[static_cast<size_t>(v)] = true;
        }
        drop(r);
    }

    // A free register, or the one whose value is read last goes to its slot.
    int pick(unsigned avoid)
    {
        int victim = -1;
        for (int r = 0; r < kValues; ++r) {
            if (avoid & (1u << r))
                continue;
            if (holder_[r] < 0)
                return r;
            if (victim < 0 || lastUseOf(holder_[r]) > lastUseOf(holder_[victim]))
                victim = r;
        }
        spill(victim);
        return victim;
    }

    void define(int r)
    {
        forEachOperand(l_, l_.steps[static_cast<size_t>(step_)], [&](const Operand& o) {
            if (o.mode == Operand::Const || lastUseOf(keyOf(o)) > step_)
                return;
            const int held = reg_[static_cast<size_t>(keyOf(o))];
            if (held >= 0)
                drop(held);
        });
        if (l_.lastUse[static_cast<size_t>(step_)] < 0)
            return;
        holder_[r] = step_;
        reg_[static_cast<size_t>(step_)] = r;
        mem_[static_cast<size_t>(step_)] = false;
    }

    // The result test: every tested value's square is added to one of three sums (three, so
    // that the additions do not wait for each other). A sum is infinite or NaN where some
    // value was NaN or of magnitude 2^512 or more, which covers every lane whose result
    // leaves the kernels' fast range (below 2^1022, see kResultLimitBits); larger values below
    // 2^1022 are merely redone.
    void testValue(const Xbyak::Ymm& v)
    {
        vfmadd231pd(sums_[nextSum_], v, v);
        nextSum_ = (nextSum_ + 1) % 3;
    }

    void clearSums()
    {
        for (const Xbyak::Ymm& y : sums_)
            vxorpd(y, y, y);
    }

    // The lanes whose sums failed, as bits in eax.
    void failedLanes(const Xbyak::Ymm& temp)
    {
        vaddpd(temp, sums_[0], sums_[1]);
        vaddpd(temp, temp, sums_[2]);
        vcmppd(temp, temp, constant(__builtin_inf()), kNltUq);
        vmovmskpd(eax, temp);
    }

    // Marks the lanes of a mask (all ones) as failed: NaN in a sum stays NaN.
    void markLanes(const Xbyak::Ymm& mask)
    {
        vorpd(sums_[nextSum_], sums_[nextSum_], mask);
        nextSum_ = (nextSum_ + 1) % 3;
    }

    // A step's value that is 0.0 or 1.0: a comparison's or a connective's.
    bool truth(const Operand& o) const
    {
        return o.mode == Operand::Reg &&
               oxk::truthValued(l_.steps[static_cast<size_t>(o.index)].kind);
    }

    void inlined(const oxp::Step& s);
    void square(const Xbyak::Ymm& d, const Place& a);
};

// x^2 into d: the product, marking the lanes whose kernel square may differ (see
// kSquareTieBand); overflows are the result test's.
void BlockGenerator::square(const Xbyak::Ymm& d, const Place& a)
{
    // The operand as a register: its own, or t1 reloaded from memory where needed.
    auto operand = [&]() -> Xbyak::Ymm {
        if (a.inReg)
            return Xbyak::Ymm(a.reg);
        vmovupd(t1, a.mem);
        return t1;
    };
    Xbyak::Ymm x = operand();
    vmulpd(d, x, x);
    vmovapd(t0, d);
    vfmsub231pd(t0, x, x);  // the product's error, exact
    vandpd(t0, t0, constantBits(0x7FFFFFFFFFFFFFFFull));
    vmovapd(t1, d);
    vfnmadd231pd(t1, t0, constant(2.0));  // the exact square's binade, where it matters
    vandpd(t1, t1, constantBits(0x7FF0000000000000ull));
    vmulpd(t1, t1, constant(oxk::kSquareTieBand));
    vcmppd(t1, t0, t1, kGtOq);
    markLanes(t1);
    x = operand();
    vcmppd(t0, x, constant(0.0), kNeqOq);
    vcmppd(t1, d, constant(oxk::kSquareTiny), kLtOq);
    vandpd(t1, t1, t0);
    markLanes(t1);
}

// A step in the registers. + - * / and sqrt mark the lanes whose result leaves the kernels'
// fast range (the point code's tests: see kResultLimitBits); the rest cannot fail.
void BlockGenerator::inlined(const oxp::Step& s)
{
    const Kind k = s.kind;
    const bool un = oxk::row(k).un != nullptr;
    const Place a = place(s.a, rax, 0, true);
    const Place b = un ? Place{} : place(s.b, r10, a.inReg ? 1u << a.reg : 0u, true);
    const unsigned ops = (a.inReg ? 1u << a.reg : 0u) | (b.inReg ? 1u << b.reg : 0u);
    const int dst = pick(ops);
    const Xbyak::Ymm d(dst), ya(a.inReg ? a.reg : 0), yb(b.inReg ? b.reg : 0);
    const Xbyak::Operand& aop = a.inReg ? static_cast<const Xbyak::Operand&>(ya) : a.mem;
    const Xbyak::Operand& bop = b.inReg ? static_cast<const Xbyak::Operand&>(yb) : b.mem;
    // The first source of a VEX operation is a register.
    auto first = [&]() -> Xbyak::Ymm {
        if (a.inReg)
            return ya;
        vmovupd(d, a.mem);
        return d;
    };
    bool tested = false;
    bound_[static_cast<size_t>(step_)] = stepBound(k, boundOf(s.a), boundOf(s.b), s.b, tested);
    switch (k) {
    case Kind::OxPlus:
    case Kind::OxMinus:
    case Kind::OxMal:
    case Kind::OxDurch: {
        const Xbyak::Ymm x = first();
        if (k == Kind::OxPlus)
            vaddpd(d, x, bop);
        else if (k == Kind::OxMinus)
            vsubpd(d, x, bop);
        else if (k == Kind::OxMal)
            vmulpd(d, x, bop);
        else if (s.b.mode == Operand::Const && exactReciprocal(s.b.k))
            vmulpd(d, x, constant(1.0 / s.b.k));  // the same rounding of the same quotient
        else
            vdivpd(d, x, bop);
        if (tested)
            testValue(d);
        break;
    }
    case Kind::OxSqroot:
        vsqrtpd(d, aop);
        testValue(d);  // NaN: a negative or NaN radicand
        break;
    case Kind::OxMin:
        vminpd(d, first(), bop);  // a < b ? a : b, NaN and signed zeros included
        break;
    case Kind::OxMax:
        vmaxpd(d, first(), bop);
        break;
    case Kind::OxLess: case Kind::OxGreater: case Kind::OxLessEqual:
    case Kind::OxGreaterEqual: case Kind::OxEqual: {
        const uint8_t pred = k == Kind::OxLess ? kLtOq
                             : k == Kind::OxGreater ? kGtOq
                             : k == Kind::OxLessEqual ? kLeOq
                             : k == Kind::OxGreaterEqual ? kGeOq
                                                        : kEqOq;
        vcmppd(d, first(), bop, pred);
        vandpd(d, d, constant(1.0));
        break;
    }
    case Kind::OxAnd:
    case Kind::OxOr:
        if (truth(s.a) && truth(s.b)) {  // 1.0 & 1.0 is 1.0, 1.0 | +0.0 is 1.0
            if (k == Kind::OxAnd)
                vandpd(d, first(), bop);
            else
                vorpd(d, first(), bop);
            break;
        }
        vmovupd(t0, constant(1e-8));
        vcmppd(t0, t0, aop, kLtOq);
        vmovupd(t1, constant(1e-8));
        vcmppd(t1, t1, bop, kLtOq);
        if (k == Kind::OxAnd)
            vandpd(d, t0, t1);
        else
            vorpd(d, t0, t1);
        vandpd(d, d, constant(1.0));
        break;
    case Kind::OxNot:
        if (truth(s.a)) {
            vxorpd(d, first(), constant(1.0));
            break;
        }
        vcmppd(d, first(), constant(1e-8), kLtOq);
        vandpd(d, d, constant(1.0));
        break;
    case Kind::OxHoch:
        square(d, a);
        if (tested)
            testValue(d);
        break;
    case Kind::OxFloor:
        vroundpd(d, aop, 9);  // toward -infinity, no inexact flag
        break;
    case Kind::OxCeil:
        vroundpd(d, aop, 10);  // toward +infinity
        break;
    case Kind::OxExp: {
        unsigned used = ops | 1u << dst;
        int extra[3];
        for (int& e : extra) {
            e = pick(used);
            used |= 1u << e;
        }
        emitExp(*this, pool_, aop,
                {d, t0, t1, Xbyak::Ymm(extra[0]), Xbyak::Ymm(extra[1]), Xbyak::Ymm(extra[2]),
                 yword[rsp + stackOff_ + 8 + 32 * half_]},  // the frame's scratch
                [this](const Xbyak::Ymm& m) { markLanes(m); });
        break;
    }
    default:  // OxBetrag
        vandpd(d, first(), constantBits(0x7FFFFFFFFFFFFFFFull));
        break;
    }
    define(dst);
}

// int fn(columns, results, errors, marks, groups, stream): see BlockFn.
void BlockGenerator::run()
{
    const size_t n = l_.steps.size();
    reg_.assign(n + column_.size(), -1);
    inputLast_.assign(column_.size(), -1);
    for (size_t i = 0; i < n; ++i)
        forEachOperand(l_, l_.steps[i], [&](const Operand& o) {
            if (o.mode == Operand::Input)
                inputLast_[static_cast<size_t>(o.index)] = static_cast<int>(i);
        });
    mem_.assign(n, false);
    for (int& h : holder_)
        h = -1;
    endOff_ = 32 * l_.numSlots;
    stackOff_ = endOff_ + 8;
    // Inputs are checked (two operations each) where that spares more tests than it costs.
    bound_.assign(n, __builtin_inf());
    const int unchecked = testsNeeded(__builtin_inf());
    const bool check = unchecked - testsNeeded(kInput) > static_cast<int>(column_.size());
    inputBound_ = check ? kInput : __builtin_inf();
    // Slots, the end, the caller's rsp, 32 bytes of scratch per group of the round (exp's
    // table offsets); aligned down to 32 below the pushes.
    const int frame = stackOff_ + 8 + 32 * blockRound(l_);

    push(rbx);
    push(rbp);
    push(r12);
    push(r13);
    push(r14);
    push(r15);
    mov(rax, rsp);
    // Touched every 2 KiB on the way down: the frame never jumps over a stack's guard page.
    for (int rest = frame; rest > 0; rest -= 2048) {
        sub(rsp, std::min(rest, 2048));
        or_(qword[rsp], 0);
    }
    and_(rsp, -32);
    mov(qword[rsp + stackOff_], rax);
    mov(rbx, rdi);
    mov(rbp, rsi);
    mov(r15, rdx);
    mov(r12, rcx);
    movsxd(rax, r8d);
    shl(rax, 2);
    mov(qword[rsp + endOff_], rax);
    xor_(r13d, r13d);
    xor_(r14d, r14d);
    Xbyak::Label loop, done;
    test(rax, rax);
    jle(done, T_NEAR);
    L(loop);
    clearSums();
    const int round = blockRound(l_);
    for (half_ = 0; half_ < round; ++half_) {
        std::fill(reg_.begin(), reg_.end(), -1);
        std::fill(mem_.begin(), mem_.end(), false);
        for (int& h : holder_)
            h = -1;
        // x^2 2^896 overflows from |x| = 2^64 on, and NaN stays NaN.
        for (size_t v = 0; check && v < column_.size(); ++v) {
            if (column_[v] < 0)
                continue;
            mov(rax, qword[rbx + 8 * column_[v]]);
            vmovupd(t0, yword[row(rax)]);
            vmulpd(t1, t0, constant(0x1p896));
            vfmadd231pd(sums_[nextSum_], t1, t0);
            nextSum_ = (nextSum_ + 1) % 3;
        }
        for (step_ = 0; step_ < static_cast<int>(n); ++step_)
            inlined(l_.steps[static_cast<size_t>(step_)]);
        const Place r = place(l_.result, rax);
        const Xbyak::Ymm value = r.inReg ? Xbyak::Ymm(r.reg) : t0;
        if (!r.inReg)
            vmovupd(t0, r.mem);
        // Streaming stores (16-byte aligned results) where the caller's results will not fit
        // any cache: no read of each line before it is written.
        Xbyak::Label cached, stored;
        test(r9d, r9d);
        jz(cached);
        vmovntpd(xword[row(rbp)], Xbyak::Xmm(value.getIdx()));
        vextractf128(Xbyak::Xmm(t1.getIdx()), value, 1);
        vmovntpd(xword[row(rbp) + 16], Xbyak::Xmm(t1.getIdx()));
        jmp(stored);
        L(cached);
        vmovupd(yword[row(rbp)], value);
        L(stored);
        const Xbyak::Xmm zero(t0.getIdx());
        vxorpd(zero, zero, zero);
        vmovupd(xword[r15 + r13 * 4 + 16 * half_], zero);
    }
    // One test for the round's groups: a lane that fails in any marks its row in all.
    failedLanes(t0);
    if (round == 1) {
        mov(byte[r12], al);
    } else {
        imul(ecx, eax, 0x01010101);
        mov(dword[r12], ecx);
    }
    or_(r14d, eax);
    add(r12, round);
    add(r13, 4 * round);
    cmp(r13, qword[rsp + endOff_]);
    jb(loop, T_NEAR);
    L(done);
    mov(eax, r14d);
    mov(rsp, qword[rsp + stackOff_]);
    vzeroupper();
    pop(r15);
    pop(r14);
    pop(r13);
    pop(r12);
    pop(rbp);
    pop(rbx);
    ret();
    pool_.place(*this, 4);
}

// AVX2 and FMA, and OXEL_BLOCK_JIT not "0": the column instructions alone then
// serve, as before the block code existed (for measurements and as a way out).
bool blockCodeOn()
{
    static const bool on = [] {
        const char* v = std::getenv("OXEL_BLOCK_JIT");
        return __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma") &&
               !(v && std::strcmp(v, "0") == 0);
    }();
    return on;
}

// Programs the loop serves: no calls (draws and callbacks keep their row order), no raise (it
// would mark every row), a value computed by a step, every step of a kind it computes.
bool fits(const oxp::Program& l)
{
    if (!l.ok || l.several || l.hasCalls() || l.result.mode != Operand::Reg || l.steps.empty() ||
        static_cast<int>(l.steps.size()) > kMaxSteps || l.numSlots > kMaxSlots)
        return false;
    for (const oxp::Step& s : l.steps)
        if (!blockStep(s))
            return false;
    return true;
}

}  // namespace

BlockFn compileBlock(const oxp::Program& ir, const std::vector<int>& inputVars, NativeCode& out)
{
    if (!enabled() || !blockCodeOn() || !fits(ir))
        return nullptr;
    std::vector<int> column(ir.inputRead.size(), -1);
    for (size_t c = 0; c < inputVars.size(); ++c)
        column[static_cast<size_t>(inputVars[c])] = static_cast<int>(c);
    // Bounds per step, with room to spare: an inline step with its loads and spills (at most
    // about 150 bytes; exp about 250) per group of the round, and two constants of 32 bytes;
    // a larger program would only fall back.
    const size_t size = 4096 + 320 * static_cast<size_t>(blockRound(ir)) * ir.steps.size() +
                        64 * ir.steps.size();
    std::vector<uint64_t> buf(size / 8 + 8);
    uint8_t* start = reinterpret_cast<uint8_t*>(buf.data());
    start += (64 - reinterpret_cast<uintptr_t>(start) % 64) % 64;
    try {
        BlockGenerator g(ir, column, start, size);
        g.run();
        if (!arenaPlace(g.getCode(), g.getSize(), out.block))
            return nullptr;
    } catch (const Xbyak::Error&) {
        return nullptr;
    }
    return reinterpret_cast<BlockFn>(out.block.exec);
}

}  // namespace oxn
