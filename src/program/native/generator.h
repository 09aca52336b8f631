// The x86-64 generator's state: the frame's layout, the register of each value (linear scan
// over the shared liveness) and the out-of-line guards; point_jit.cpp emits the steps.
#ifndef OXEL_PROGRAM_NATIVE_GENERATOR_H
#define OXEL_PROGRAM_NATIVE_GENERATOR_H

#include <cmath>
#include <cstring>
#include <deque>
#include <map>
#include <vector>

#include <xbyak/xbyak.h>

#include "program/native/native.h"

namespace oxn {

// What a compiled program keeps besides its code: the arguments of its calls.
struct Extras {
    std::vector<oxk::PowPlan> plans;
    std::vector<oxp::Call> calls;
};

using oxk::Kind;
using oxp::Operand;

const int kAlloc = 14;  // xmm0..xmm13 hold values; xmm14 and xmm15 are scratch

// Results of + - * / below 2^1022 in magnitude are exactly the results for which the kernels
// give the IEEE operation without a code: their guards compare the operands against DBL_MAX
// with a margin of a rounding error (2^970), far above what such a result leaves. So the
// result alone is tested, and anything else (overflow, division by zero, NaN, infinities,
// huge operands) runs the kernel. The bound is held doubled, as the test shifts the sign out.
const uint64_t kResultLimitBits = 0x7FD0000000000000ull << 1;  // 2^1022

inline double runPlanned(const oxk::PowPlan* plan, double x, int* code)
{
    return oxk::powPlanned(*plan, x, *code);
}

// A sine and a cosine of one value from one sincos: the first of the pair is returned, the
// other left for its own step.
inline double sineWithCosine(double a, double* cosine)
{
    double s, c;
    ::sincos(a, &s, &c);
    *cosine = c;
    return s;
}

inline double cosineWithSine(double a, double* sine)
{
    double s, c;
    ::sincos(a, &s, &c);
    *sine = s;
    return c;
}

inline double runCall(const oxp::Call* c, const double* args, int* code)
{
    return oxp::runCall(*c, args, *code);
}

// The kinds both generators compute in registers (the block code with its own tests).
inline bool cheapKind(Kind k)
{
    switch (k) {
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

// An operand's place at one point of the code: a register or memory.
// Constants placed after the code, each value once, read rip-relative: as wide as the
// registers that read them (lanes copies of each).
class ConstantPool {
public:
    Xbyak::Label& of(uint64_t bits) { return labels_[bits]; }
    Xbyak::Label& of(double v)
    {
        uint64_t bits;
        std::memcpy(&bits, &v, sizeof bits);
        return labels_[bits];
    }
    void place(Xbyak::CodeGenerator& g, int lanes)
    {
        g.align(8 * lanes);
        for (auto& c : labels_) {
            g.L(c.second);
            for (int j = 0; j < lanes; ++j)
                g.dq(c.first);
        }
    }

private:
    std::map<uint64_t, Xbyak::Label> labels_;
};

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
    ConstantPool pool_;
    int saveOff_ = 0, tempOff_ = 0, argOff_ = 0, varsOff_ = 0, codeOff_ = 0, outsOff_ = 0;
    int pairOff_ = 0;        // per sine-cosine pair, the later one's value until its step
    std::vector<int> pair_;  // per step: its pair (oxp::sinCosPairs), or -1
    std::vector<bool> pairFirst_;
    // A leaf program calls nothing on its main path: it keeps the value vector in rdi, the
    // code's address in rsi and (several trees) the outputs in rdx, and saves no register;
    // slow paths keep them in the frame.
    bool leaf_ = true;
    Xbyak::Reg64 vars_{Xbyak::Operand::RDI};
    Xbyak::Reg64 outs_{Xbyak::Operand::RDX};

    const Xbyak::Xmm s0{14}, s1{15};

    Xbyak::Address constant(double v) { return qword[rip + pool_.of(v)]; }
    Xbyak::Address constantBits(uint64_t bits) { return qword[rip + pool_.of(bits)]; }
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
    static bool inlinable(const oxp::Step& s) { return cheapKind(s.kind); }

    bool inlined(const oxp::Step& s);
    void kernelCall(const oxp::Step& s);
    void sinCosStep(const oxp::Step& s);
    void callStep(const oxp::Step& s);
    void raiseStep(int code);
    void writeBack();
    void slowPaths();
};

}  // namespace oxn

#endif
