// The x86-64 generator for single-point programs: values in xmm registers (linear scan over
// the shared liveness, spilled to the frame), the hot kinds inline with their kernels'
// guards, every other step and every failing guard a call of the interpreter's own kernel.
#include "program/native/native.h"

#include <cstring>
#include <deque>
#include <map>
#include <vector>

#include <xbyak/xbyak.h>

namespace oxn {

// What a compiled program keeps besides its code: the arguments of its calls.
struct Extras {
    std::vector<oxk::PowPlan> plans;
    std::vector<oxp::Call> calls;
};

namespace {

using oxk::Kind;
using oxp::Operand;

const int kAlloc = 14;  // xmm0..xmm13 hold values; xmm14 and xmm15 are scratch

// Results of + - * / below 2^1022 in magnitude are exactly the results for which the kernels
// give the IEEE operation without a code: their guards compare the operands against DBL_MAX
// with a margin of a rounding error (2^970), far above what such a result leaves. So the
// result alone is tested, and anything else (overflow, division by zero, NaN, infinities,
// huge operands) runs the kernel. The bound is held doubled, as the test shifts the sign out.
const uint64_t kResultLimitBits = 0x7FD0000000000000ull << 1;  // 2^1022

double runPlanned(const oxk::PowPlan* plan, double x, int* code)
{
    return oxk::powPlanned(*plan, x, *code);
}

double runCall(const oxp::Call* c, const double* args, int* code)
{
    return oxp::runCall(*c, args, *code);
}

// An operand's place at one point of the code: a register or memory.
struct Place {
    bool inReg = false;
    int reg = -1;
    Xbyak::Address mem = Xbyak::util::qword[Xbyak::util::rsp];
};

class Generator : public Xbyak::CodeGenerator {
public:
    Generator(const oxp::Program& l, Extras& extras, void* buf, size_t size)
        : Xbyak::CodeGenerator(size, buf), l_(l), x_(extras)
    {
    }

    void run();

private:
    // An out-of-line failing guard: the kernel called with the operands where they were, the
    // registers in use saved around it.
    struct Slow {
        Xbyak::Label entry, back;
        Kind kind;
        Place a, b;
        int dst;
        unsigned saved;
    };

    const oxp::Program& l_;
    Extras& x_;
    std::vector<int> reg_;    // register of each step's value, or -1
    std::vector<bool> mem_;   // the value is in its frame slot
    int holder_[kAlloc];      // step held by each register, or -1
    int step_ = 0;
    std::deque<Slow> slow_;
    std::map<uint64_t, Xbyak::Label> pool_;
    int saveOff_ = 0, tempOff_ = 0, argOff_ = 0, varsOff_ = 0, codeOff_ = 0, outsOff_ = 0;
    // A leaf program calls nothing on its main path: it keeps the value vector in rdi, the
    // code's address in rsi and (several trees) the outputs in rdx, and saves no register;
    // slow paths keep them in the frame.
    bool leaf_ = true;
    Xbyak::Reg64 vars_{Xbyak::Operand::RDI};
    Xbyak::Reg64 outs_{Xbyak::Operand::RDX};

    const Xbyak::Xmm s0{14}, s1{15};

    Xbyak::Address constant(double v)
    {
        uint64_t bits;
        std::memcpy(&bits, &v, sizeof bits);
        return qword[rip + pool_[bits]];
    }
    Xbyak::Address constantBits(uint64_t bits) { return qword[rip + pool_[bits]]; }
    Xbyak::Address home(int step) { return qword[rsp + 8 * l_.slot[static_cast<size_t>(step)]]; }
    Xbyak::Address saved(int r) { return qword[rsp + saveOff_ + 8 * r]; }

    Place place(const Operand& o)
    {
        switch (o.mode) {
        case Operand::Const:
            return Place{false, -1, constant(o.k)};
        case Operand::Input:
            return Place{false, -1, qword[vars_ + 8 * o.index]};
        case Operand::Reg:
            break;
        }
        const int r = reg_[static_cast<size_t>(o.index)];
        return r >= 0 ? Place{true, r, qword[rsp]} : Place{false, -1, home(o.index)};
    }

    void load(const Xbyak::Xmm& x, const Place& p)
    {
        if (!p.inReg)
            movsd(x, p.mem);
        else if (p.reg != x.getIdx())
            movapd(x, Xbyak::Xmm(p.reg));
    }

    template <class Op>
    void withSource(const Place& p, Op op)
    {
        if (p.inReg)
            op(Xbyak::Xmm(p.reg));
        else
            op(p.mem);
    }

    bool dies(const Operand& o) const
    {
        return o.mode == Operand::Reg && l_.lastUse[static_cast<size_t>(o.index)] <= step_;
    }

    void drop(int r)
    {
        reg_[static_cast<size_t>(holder_[r])] = -1;
        holder_[r] = -1;
    }

    void spill(int r)
    {
        const int v = holder_[r];
        if (!mem_[static_cast<size_t>(v)]) {
            movsd(home(v), Xbyak::Xmm(r));
            mem_[static_cast<size_t>(v)] = true;
        }
        drop(r);
    }

    // Registers in use, as a mask.
    unsigned busy() const
    {
        unsigned m = 0;
        for (int r = 0; r < kAlloc; ++r)
            if (holder_[r] >= 0)
                m |= 1u << r;
        return m;
    }

    // A register for the current step's value, not one of avoid: a free one, or the value
    // read last (the linear-scan choice) goes to its slot.
    int pick(unsigned avoid)
    {
        int victim = -1;
        for (int r = 0; r < kAlloc; ++r) {
            if (avoid & (1u << r))
                continue;
            if (holder_[r] < 0)
                return r;
            if (victim < 0 || l_.lastUse[static_cast<size_t>(holder_[r])] >
                                  l_.lastUse[static_cast<size_t>(holder_[victim])])
                victim = r;
        }
        spill(victim);
        return victim;
    }

    // Before a call: every value still read later goes to its slot; all registers are free
    // afterwards (the ABI saves none of them).
    void spillAll()
    {
        for (int r = 0; r < kAlloc; ++r) {
            if (holder_[r] < 0)
                continue;
            if (l_.lastUse[static_cast<size_t>(holder_[r])] > step_)
                spill(r);
            else
                drop(r);
        }
    }

    // The step's value is in register r; dead operands free theirs.
    void define(int r)
    {
        forEachOperand(l_, l_.steps[static_cast<size_t>(step_)], [&](const Operand& o) {
            if (dies(o) && reg_[static_cast<size_t>(o.index)] >= 0)
                drop(reg_[static_cast<size_t>(o.index)]);
        });
        if (l_.lastUse[static_cast<size_t>(step_)] < 0)
            return;  // nobody reads it
        holder_[r] = step_;
        reg_[static_cast<size_t>(step_)] = r;
        mem_[static_cast<size_t>(step_)] = false;
    }

    // The register for the value: a dying operand's, else a fresh one.
    int target(const oxp::Step& s, unsigned operands)
    {
        if (dies(s.a) && reg_[static_cast<size_t>(s.a.index)] >= 0)
            return reg_[static_cast<size_t>(s.a.index)];
        if (!oxk::row(s.kind).un && dies(s.b) && reg_[static_cast<size_t>(s.b.index)] >= 0)
            return reg_[static_cast<size_t>(s.b.index)];
        return pick(operands);
    }

    unsigned operandRegs(const Place& a, const Place& b) const
    {
        return (a.inReg ? 1u << a.reg : 0u) | (b.inReg ? 1u << b.reg : 0u);
    }

    // The error code's address: rsi stays intact on a leaf program's main path.
    const Xbyak::Reg64& codePointer() const { return leaf_ ? rsi : r12; }

    void callFn(const void* fn)
    {
        mov(rax, reinterpret_cast<uint64_t>(fn));
        call(rax);
    }

    // The kinds inlined() computes without a call on the main path.
    static bool inlinable(const oxp::Step& s)
    {
        switch (s.kind) {
        case Kind::OxPlus: case Kind::OxMinus: case Kind::OxMal: case Kind::OxDurch:
        case Kind::OxSqroot: case Kind::OxMin: case Kind::OxMax: case Kind::OxLess:
        case Kind::OxGreater: case Kind::OxLessEqual: case Kind::OxGreaterEqual:
        case Kind::OxEqual: case Kind::OxAnd: case Kind::OxOr: case Kind::OxNot:
        case Kind::OxBetrag:
            return true;
        default:
            return false;
        }
    }

    bool inlined(const oxp::Step& s);
    void kernelCall(const oxp::Step& s);
    void callStep(const oxp::Step& s);
    void raiseStep(int code);
    void writeBack();
    void slowPaths();
};

// The kinds computed inline. Guards are the fast tests of kernels.h; where they fail the
// kernel runs whole, so its own full guard decides value and code.
bool Generator::inlined(const oxp::Step& s)
{
    const Kind k = s.kind;
    const bool un = oxk::row(k).un != nullptr;
    const Place a = place(s.a);
    const Place b = un ? Place{false, -1, qword[rsp]} : place(s.b);
    const unsigned ops = operandRegs(a, b);
    switch (k) {
    case Kind::OxPlus:
    case Kind::OxMinus:
    case Kind::OxMal:
    case Kind::OxDurch:
    case Kind::OxSqroot: {
        // The register first (a spill must run on both paths), then the operation on a
        // scratch register and the test of its result: the slow path sees the operands
        // untouched.
        const int dst = target(s, ops);
        slow_.emplace_back();
        Slow& sl = slow_.back();
        load(s0, a);
        if (k == Kind::OxSqroot) {
            sqrtsd(s0, s0);
            ucomisd(s0, s0);
            jp(sl.entry, T_NEAR);  // NaN: a negative radicand (or a NaN one) takes the kernel
        } else {
            withSource(b, [&](const Xbyak::Operand& src) {
                if (k == Kind::OxPlus)
                    addsd(s0, src);
                else if (k == Kind::OxMinus)
                    subsd(s0, src);
                else if (k == Kind::OxMal)
                    mulsd(s0, src);
                else
                    divsd(s0, src);
            });
            // |r| < 2^1022 as integers (the sign shifted out; NaN and infinity compare above).
            movq(rax, s0);
            add(rax, rax);
            cmp(rax, constantBits(kResultLimitBits));
            jae(sl.entry, T_NEAR);
        }
        movapd(Xbyak::Xmm(dst), s0);
        L(sl.back);
        sl.kind = k;
        sl.a = a;
        sl.b = b;
        sl.dst = dst;
        sl.saved = busy() | ops;
        define(dst);
        return true;
    }
    case Kind::OxMin:
    case Kind::OxMax:
    case Kind::OxLess:
    case Kind::OxGreater:
    case Kind::OxLessEqual:
    case Kind::OxGreaterEqual:
    case Kind::OxEqual: {
        // minsd/maxsd give the second operand unless the first is strictly smaller/larger:
        // the kernels' a < b ? a : b exactly, NaN and signed zeros included. A comparison's
        // mask ANDed with 1.0 is its truth value.
        const bool swap = k == Kind::OxGreater || k == Kind::OxGreaterEqual;
        load(s0, swap ? b : a);
        withSource(swap ? a : b, [&](const Xbyak::Operand& src) {
            if (k == Kind::OxMin)
                minsd(s0, src);
            else if (k == Kind::OxMax)
                maxsd(s0, src);
            else if (k == Kind::OxLess || k == Kind::OxGreater)
                cmpltsd(s0, src);
            else if (k == Kind::OxEqual)
                cmpeqsd(s0, src);
            else
                cmplesd(s0, src);
        });
        if (k != Kind::OxMin && k != Kind::OxMax)
            andpd(s0, constant(1.0));
        break;
    }
    case Kind::OxAnd:
    case Kind::OxOr:
        movsd(s0, constant(1e-8));
        withSource(a, [&](const Xbyak::Operand& src) { cmpltsd(s0, src); });
        movsd(s1, constant(1e-8));
        withSource(b, [&](const Xbyak::Operand& src) { cmpltsd(s1, src); });
        if (k == Kind::OxAnd)
            andpd(s0, s1);
        else
            orpd(s0, s1);
        andpd(s0, constant(1.0));
        break;
    case Kind::OxNot:
        load(s0, a);
        cmpltsd(s0, constant(1e-8));
        andpd(s0, constant(1.0));
        break;
    case Kind::OxBetrag:
        load(s0, a);
        andpd(s0, constantBits(0x7FFFFFFFFFFFFFFFull));
        break;
    default:
        return false;
    }
    const int dst = target(s, ops);
    movapd(Xbyak::Xmm(dst), s0);
    define(dst);
    return true;
}

// Any other step: the very function the interpreter's kind table holds.
void Generator::kernelCall(const oxp::Step& s)
{
    const oxk::KindRow& row = oxk::row(s.kind);
    if (oxp::plannedPower(s)) {
        x_.plans.push_back(oxp::powerPlan(s));
        load(s0, place(oxp::plannedOperand(s)));
        spillAll();
        movapd(xmm0, s0);
        mov(rdi, reinterpret_cast<uint64_t>(&x_.plans.back()));
        mov(rsi, r12);
        callFn(reinterpret_cast<const void*>(&runPlanned));
    } else {
        load(s0, place(s.a));
        if (!row.un)
            load(s1, place(s.b));
        spillAll();
        movapd(xmm0, s0);
        if (!row.un)
            movapd(xmm1, s1);
        mov(rdi, r12);
        callFn(row.un ? reinterpret_cast<const void*>(row.un) : reinterpret_cast<const void*>(row.bin));
    }
    define(0);
}

// A random source or a dependent variable: arguments gathered in the frame, then the runtime.
void Generator::callStep(const oxp::Step& s)
{
    const oxp::Call& c = l_.calls[static_cast<size_t>(s.call)];
    for (int i = 0; i < c.count; ++i) {
        load(s0, place(l_.args[static_cast<size_t>(c.first + i)]));
        movsd(qword[rsp + argOff_ + 8 * i], s0);
    }
    spillAll();
    mov(rdi, reinterpret_cast<uint64_t>(&x_.calls[static_cast<size_t>(s.call)]));
    lea(rsi, qword[rsp + argOff_]);
    mov(rdx, r12);
    callFn(reinterpret_cast<const void*>(&runCall));
    define(0);
}

void Generator::raiseStep(int code)
{
    Xbyak::Label done;
    cmp(dword[codePointer()], 0);
    jne(done);
    mov(dword[codePointer()], code);
    L(done);
}

// Assigned slots get their final values; a value that is an unassigned read of a slot written
// here is copied first, so that the order of the writes cannot matter (t = x; x = y; y = t).
// Several trees write their values to the outputs instead, tree k's to outs[k], and clear the
// codes after the first (the code's address is that of an array of one code per tree).
void Generator::writeBack()
{
    if (l_.several) {
        const int first = static_cast<int>(l_.inputRead.size() - l_.assigned.size());
        for (const auto& as : l_.assigned) {
            load(s0, place(as.second));
            movsd(qword[outs_ + 8 * (as.first - first)], s0);
        }
        for (size_t k = 1; k < l_.assigned.size(); ++k)
            mov(dword[codePointer() + static_cast<int>(4 * k)], 0);
        load(xmm0, place(l_.result));
        return;
    }
    std::vector<bool> written(l_.inputRead.size(), false);
    for (const auto& as : l_.assigned)
        written[static_cast<size_t>(as.first)] = true;
    int temps = 0;
    auto stable = [&](const Operand& o) {
        Place p = place(o);
        if (o.mode != Operand::Input || !written[static_cast<size_t>(o.index)])
            return p;
        load(s0, p);
        Xbyak::Address t = qword[rsp + tempOff_ + 8 * temps++];
        movsd(t, s0);
        return Place{false, -1, t};
    };
    const Place result = stable(l_.result);
    std::vector<Place> values;
    for (const auto& as : l_.assigned)
        values.push_back(stable(as.second));
    for (size_t i = 0; i < values.size(); ++i) {
        load(s0, values[i]);
        movsd(qword[vars_ + 8 * l_.assigned[i].first], s0);
    }
    load(xmm0, result);
}

void Generator::slowPaths()
{
    for (Slow& sl : slow_) {
        L(sl.entry);
        for (int r = 0; r < kAlloc; ++r)
            if (sl.saved & (1u << r))
                movsd(saved(r), Xbyak::Xmm(r));
        auto arg = [&](const Xbyak::Xmm& x, const Place& p) {
            if (p.inReg)
                movsd(x, saved(p.reg));
            else
                movsd(x, p.mem);
        };
        arg(xmm0, sl.a);
        const oxk::KindRow& row = oxk::row(sl.kind);
        if (!row.un)
            arg(xmm1, sl.b);
        if (leaf_) {  // the call may change the argument registers
            mov(qword[rsp + varsOff_], rdi);
            mov(qword[rsp + codeOff_], rsi);
            if (l_.several)
                mov(qword[rsp + outsOff_], rdx);
        }
        mov(rdi, codePointer());
        callFn(row.un ? reinterpret_cast<const void*>(row.un) : reinterpret_cast<const void*>(row.bin));
        if (leaf_) {
            mov(rdi, qword[rsp + varsOff_]);
            mov(rsi, qword[rsp + codeOff_]);
            if (l_.several)
                mov(rdx, qword[rsp + outsOff_]);
        }
        movapd(s0, xmm0);
        for (int r = 0; r < kAlloc; ++r)
            if ((sl.saved & (1u << r)) && r != sl.dst)
                movsd(Xbyak::Xmm(r), saved(r));
        movapd(Xbyak::Xmm(sl.dst), s0);
        jmp(sl.back, T_NEAR);
    }
}

void Generator::run()
{
    const size_t n = l_.steps.size();
    reg_.assign(n, -1);
    mem_.assign(n, false);
    for (int& h : holder_)
        h = -1;
    int maxArgs = 0;
    for (const oxp::Call& c : l_.calls)
        maxArgs = std::max(maxArgs, c.count);
    x_.calls = l_.calls;
    x_.plans.reserve(n);  // the code points into it
    saveOff_ = 8 * l_.numSlots;
    tempOff_ = saveOff_ + 8 * kAlloc;
    argOff_ = tempOff_ + 8 * (1 + static_cast<int>(l_.assigned.size()));
    varsOff_ = argOff_ + 8 * maxArgs;
    codeOff_ = varsOff_ + 8;
    outsOff_ = codeOff_ + 8;
    // Entered with rsp 8 below a multiple of 16: the frame (or three pushes) make calls aligned.
    const int frame = (outsOff_ + 8 + 15) & ~15;
    for (const oxp::Step& s : l_.steps)
        if (s.kind != Kind::Unknown && (oxp::isCall(s) || !inlinable(s)))
            leaf_ = false;
    if (leaf_) {
        sub(rsp, frame + 8);
    } else {
        vars_ = rbx;
        outs_ = rbp;
        push(rbx);
        push(r12);
        push(rbp);
        sub(rsp, frame);
        mov(rbx, rdi);  // the caller's value vector
        mov(r12, rsi);  // the error code
        mov(rbp, rdx);  // several trees' outputs
    }
    for (step_ = 0; step_ < static_cast<int>(n); ++step_) {
        const oxp::Step& s = l_.steps[static_cast<size_t>(step_)];
        if (s.kind == Kind::Unknown)
            raiseStep(s.code);
        else if (oxp::isCall(s))
            callStep(s);
        else if (!inlinable(s) || !inlined(s))
            kernelCall(s);
    }
    writeBack();
    if (leaf_) {
        add(rsp, frame + 8);
    } else {
        add(rsp, frame);
        pop(rbp);
        pop(r12);
        pop(rbx);
    }
    ret();
    slowPaths();
    align(16);
    for (auto& c : pool_) {
        L(c.second);
        dq(c.first);
        dq(c.first);  // both lanes: the masks are ANDed as 128-bit values
    }
}

}  // namespace

PointFn compilePoint(const oxp::Program& ir, NativeCode& out)
{
    if (!ir.ok || static_cast<int>(ir.steps.size()) > kMaxSteps)
        return nullptr;
    // Generated into an ordinary buffer and copied: the executable pages are never writable.
    // Jumps and constants are addressed relative to the code, so the copy runs anywhere.
    // Bounds per step: the main path with a spill (about 80 bytes), an out-of-line guard
    // saving and restoring all 14 registers (about 310) and three constants (48).
    const size_t size = 4096 + 512 * ir.steps.size() + 24 * ir.args.size();
    std::vector<uint64_t> buf(size / 8 + 8);
    uint8_t* start = reinterpret_cast<uint8_t*>(buf.data());
    start += (64 - reinterpret_cast<uintptr_t>(start) % 64) % 64;  // aligned as the arena's
    Extras* extras = new Extras;
    try {
        Generator g(ir, *extras, start, size);
        g.run();
        if (!arenaPlace(g.getCode(), g.getSize(), out.block)) {
            delete extras;
            return nullptr;
        }
    } catch (const Xbyak::Error&) {
        delete extras;
        return nullptr;
    }
    out.extras = extras;
    return reinterpret_cast<PointFn>(out.block.exec);
}

void releaseNative(NativeCode& code)
{
    arenaFree(code.block);
    delete code.extras;
    code.extras = nullptr;
}

}  // namespace oxn
