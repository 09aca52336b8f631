// The four-lane exp of vector_math.cpp as machine code, for the block programs: the same
// operations in the same order, so the same bits.
#ifndef OXEL_PROGRAM_NATIVE_BLOCK_MATH_H
#define OXEL_PROGRAM_NATIVE_BLOCK_MATH_H

#include <functional>

#include "program/native/generator.h"

namespace oxn {

// exp serves in the block code: the four-lane exp serves in this process.
bool blockExp();

// The registers of one exp: the result d, and five scratch registers.
struct ExpRegisters {
    Xbyak::Ymm d, t0, t1, e1, e2, e3;
    Xbyak::Address scratch;  // 32 bytes of the frame
};

// d = exp(x) for lanes with |x| < 512; mark receives the mask of the other lanes (|x| >= 512,
// NaN), whose rows the caller redoes. Uses rcx, rdx, rsi, rdi and r11.
void emitExp(Xbyak::CodeGenerator& g, ConstantPool& pool, const Xbyak::Operand& x,
             const ExpRegisters& r, const std::function<void(const Xbyak::Ymm&)>& mark);

}  // namespace oxn

#endif
