// The four-lane exp in the block code: expParts and expCommon of vector_math.cpp, instruction
// for instruction (each fused multiply-add where that code has one), on four rows in registers.
#include "program/native/block_math.h"

#if defined(OXEL_VECTOR_MATH)
#include "nodes/vector_math.h"
#include "nodes/vector_math_tables.h"
#endif

namespace oxn {

#if defined(OXEL_VECTOR_MATH)

bool blockExp()
{
    return oxm::serves(oxm::Fn::Exp);
}

void emitExp(Xbyak::CodeGenerator& g, ConstantPool& pool, const Xbyak::Operand& x,
             const ExpRegisters& r, const std::function<void(const Xbyak::Ymm&)>& mark)
{
    using namespace oxm::tables;
    using namespace Xbyak::util;
    auto c = [&](double v) { return yword[rip + pool.of(v)]; };
    auto cb = [&](uint64_t bits) { return yword[rip + pool.of(bits)]; };
    const Xbyak::Ymm &d = r.d, &t0 = r.t0, &t1 = r.t1, &e1 = r.e1, &e2 = r.e2, &e3 = r.e3;
    const Xbyak::Xmm x0(t0.getIdx()), x1(t1.getIdx());
    if (x.isMEM())
        g.vmovupd(d, static_cast<const Xbyak::Address&>(x));
    else
        g.vmovapd(d, static_cast<const Xbyak::Ymm&>(x));
    // kd = x N/ln2 + shift, its bits ki, and the table's offsets 16 (ki mod 128) first: the
    // loads wait for them. They reach the integer registers through memory, which measured a
    // little faster here than extracting them.
    g.vmovapd(e1, c(kShift));
    g.vfmadd231pd(e1, d, c(kInvLn2N));
    g.vmovapd(e2, e1);
    g.vpsllq(t0, e2, 4);
    g.vandpd(t0, t0, cb(127 << 4));
    g.vmovupd(r.scratch, t0);
    g.mov(rcx, g.qword[r.scratch.getRegExp()]);
    g.mov(rdx, g.qword[r.scratch.getRegExp() + 8]);
    g.mov(rsi, g.qword[r.scratch.getRegExp() + 16]);
    g.mov(rdi, g.qword[r.scratch.getRegExp() + 24]);
    // r = x - kd ln2/N in two parts.
    g.vsubpd(e1, e1, c(kShift));
    g.vmovapd(e3, d);
    g.vfmadd231pd(e3, e1, c(kNegLn2HiN));
    g.vfmadd231pd(e3, e1, c(kNegLn2LoN));
    // |x| >= 512 and NaN to the caller, off the values' chain. Tiny x need nothing: the same
    // steps give exactly 1 for |x| < 2^-54, as the C library's 1 + x does.
    g.vandpd(t1, d, cb(0x7FFFFFFFFFFFFFFFull));
    g.vcmppd(t1, t1, c(512.0), 0x15);  // not less, unordered: NaN included
    mark(t1);
    g.mov(r11, reinterpret_cast<uintptr_t>(kExpTable));
    g.vmovapd(x0, xword[r11 + rcx]);
    g.vinsertf128(t0, t0, xword[r11 + rsi], 1);
    g.vmovapd(x1, xword[r11 + rdx]);
    g.vinsertf128(t1, t1, xword[r11 + rdi], 1);
    g.vunpcklpd(d, t0, t1);   // tail
    g.vunpckhpd(e1, t0, t1);  // scale's bits less ki << 45
    g.vpsllq(e2, e2, 45);
    g.vpaddq(e1, e1, e2);  // scale
    // tmp = tail + r + r^2 (C2 + r C3) + r^4 (C4 + r C5); y = scale + scale tmp.
    g.vmovapd(t0, c(kExpC2));
    g.vfmadd231pd(t0, e3, c(kExpC3));
    g.vaddpd(d, d, e3);
    g.vmulpd(t1, e3, e3);
    g.vmovapd(e2, c(kExpC4));
    g.vfmadd231pd(e2, e3, c(kExpC5));
    g.vfmadd231pd(d, t0, t1);
    g.vmulpd(t1, t1, t1);
    g.vfmadd231pd(d, t1, e2);
    g.vfmadd213pd(d, e1, e1);
}

#else

bool blockExp()
{
    return false;
}

void emitExp(Xbyak::CodeGenerator&, ConstantPool&, const Xbyak::Operand&, const ExpRegisters&,
             const std::function<void(const Xbyak::Ymm&)>&)
{
}

#endif

}  // namespace oxn
