// The x86-64 generator for single-point programs: values in xmm registers (linear scan over
// the shared liveness, spilled to the frame), the hot kinds inline with their kernels'
// guards, every other step and every failing guard a call of the interpreter's own kernel.
#include "program/native/generator.h"

namespace oxn {

// The kinds computed inline. Guards are the fast tests of kernels.h; where they fail the
// kernel runs whole, so its own full guard decides value and code.
bool Generator::inlined(const oxp::Step& s)
{
    const Kind k = s.kind;
    const bool un = oxk::row(k).un != nullptr;
    const Place a = place(s.a);
    const Place b = un ? Place{false, -1, qword[rsp]} : place(s.b);
    const unsigned ops = operandRegs(a, b);
    Xbyak::Xmm d = s0;  // the value's register, never an operand's
    switch (k) {
    case Kind::OxPlus:
    case Kind::OxMinus:
    case Kind::OxMal:
    case Kind::OxDurch:
    case Kind::OxSqroot: {
        // The register first (a spill must run on both paths), one that holds no operand: the
        // operation writes it directly and the slow path still sees the operands untouched.
        const int dst = pick(ops);
        d = Xbyak::Xmm(dst);
        slow_.emplace_back();
        Slow& sl = slow_.back();
        load(d, a);  // a whole write: sqrtsd alone would wait for the register's old value
        if (k == Kind::OxSqroot) {
            sqrtsd(d, d);
            ucomisd(d, d);
            jp(sl.entry, T_NEAR);  // NaN: a negative radicand (or a NaN one) takes the kernel
        } else {
            withSource(b, [&](const Xbyak::Operand& src) {
                if (k == Kind::OxPlus)
                    addsd(d, src);
                else if (k == Kind::OxMinus)
                    subsd(d, src);
                else if (k == Kind::OxMal)
                    mulsd(d, src);
                else
                    divsd(d, src);
            });
            // |r| < 2^1022 as integers (the sign shifted out; NaN and infinity compare above).
            movq(rax, d);
            add(rax, rax);
            cmp(rax, constantBits(kResultLimitBits));
            jae(sl.entry, T_NEAR);
        }
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
        d = Xbyak::Xmm(pick(ops));
        load(d, swap ? b : a);
        withSource(swap ? a : b, [&](const Xbyak::Operand& src) {
            if (k == Kind::OxMin)
                minsd(d, src);
            else if (k == Kind::OxMax)
                maxsd(d, src);
            else if (k == Kind::OxLess || k == Kind::OxGreater)
                cmpltsd(d, src);
            else if (k == Kind::OxEqual)
                cmpeqsd(d, src);
            else
                cmplesd(d, src);
        });
        if (k != Kind::OxMin && k != Kind::OxMax)
            andpd(d, constant(1.0));
        break;
    }
    case Kind::OxAnd:
    case Kind::OxOr:
        d = Xbyak::Xmm(pick(ops));
        movsd(d, constant(1e-8));
        withSource(a, [&](const Xbyak::Operand& src) { cmpltsd(d, src); });
        movsd(s1, constant(1e-8));
        withSource(b, [&](const Xbyak::Operand& src) { cmpltsd(s1, src); });
        if (k == Kind::OxAnd)
            andpd(d, s1);
        else
            orpd(d, s1);
        andpd(d, constant(1.0));
        break;
    case Kind::OxNot:
        d = Xbyak::Xmm(pick(ops));
        load(d, a);
        cmpltsd(d, constant(1e-8));
        andpd(d, constant(1.0));
        break;
    case Kind::OxBetrag:
        d = Xbyak::Xmm(pick(ops));
        load(d, a);
        andpd(d, constantBits(0x7FFFFFFFFFFFFFFFull));
        break;
    default:
        return false;
    }
    define(d.getIdx());
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
        callFn(row.un ? reinterpret_cast<const void*>(row.un)
                      : reinterpret_cast<const void*>(row.bin));
    }
    define(0);
}

// The first of a sine-cosine pair calls sincos and leaves the other value in the frame, where
// the later step finds it.
void Generator::sinCosStep(const oxp::Step& s)
{
    const Xbyak::Address other = qword[rsp + pairOff_ + 8 * pair_[static_cast<size_t>(step_)]];
    if (!pairFirst_[static_cast<size_t>(step_)]) {
        const int dst = pick(operandRegs(place(s.a), Place{}));
        movsd(Xbyak::Xmm(dst), other);
        define(dst);
        return;
    }
    load(s0, place(s.a));
    spillAll();
    movapd(xmm0, s0);
    lea(rdi, other);
    callFn(s.kind == Kind::OxSinus ? reinterpret_cast<const void*>(&sineWithCosine)
                                   : reinterpret_cast<const void*>(&cosineWithSine));
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
        callFn(row.un ? reinterpret_cast<const void*>(row.un)
                      : reinterpret_cast<const void*>(row.bin));
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
    pairOff_ = outsOff_ + 8;
    pair_.assign(n, -1);
    pairFirst_.assign(n, false);
    const std::vector<std::pair<int, int>> pairs = oxp::sinCosPairs(l_);
    for (size_t q = 0; q < pairs.size(); ++q) {
        pair_[static_cast<size_t>(pairs[q].first)] = pair_[static_cast<size_t>(pairs[q].second)] =
            static_cast<int>(q);
        pairFirst_[static_cast<size_t>(pairs[q].first)] = true;
    }
    // Entered with rsp 8 below a multiple of 16: the frame (or three pushes) make calls aligned.
    const int frame = (pairOff_ + 8 * static_cast<int>(pairs.size()) + 15) & ~15;
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
        else if (pair_[static_cast<size_t>(step_)] >= 0)
            sinCosStep(s);
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
    pool_.place(*this, 2);  // both lanes: the masks are ANDed as 128-bit values
}

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
