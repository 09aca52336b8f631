// Native code behind eval(): the switch, the hot-call tier and the generator's entry point.
#ifndef OXEL_PROGRAM_NATIVE_NATIVE_H
#define OXEL_PROGRAM_NATIVE_NATIVE_H

#include <atomic>
#include <cstdint>
#include <vector>

#include <oxel/expression.h>

#include "program/ir.h"
#include "program/native/arena.h"

namespace oxn {

// A compiled program: the value, the first failure in *code unless it is set already,
// assigned slots written back into vars; the code of a program of oxp::lowerSeveral takes a
// third argument instead, out, and writes tree k's value to out[k] (OxelSeveralFn).
using PointFn = double (*)(double* vars, int* code);

// Native code is used: the build has the generator, OXEL_JIT is not "0" and the host did
// not switch it off (false until the library's static initialisation has run).
inline bool enabled()
{
    return oxel_detail::nativeCodeOn.load(std::memory_order_relaxed);
}

// Programs with more steps than this stay in the interpreter: the generator's frame and code
// grow with the steps, and such programs spend their time in the kernels anyway.
const int kMaxSteps = 20000;

// A compiled program: its code and what the code points into (plans, calls).
struct Extras;
struct NativeCode {
    CodeBlock block;
    Extras* extras = nullptr;
};

// Machine code for a lowered program (ir.ok); null when it cannot be had.
PointFn compilePoint(const oxp::Program& ir, NativeCode& out);
void releaseNative(NativeCode& code);

// A fused block program of the column batch (block_jit.cpp): rows [0, 4 * groups) of the
// input columns (columns[c] for variable inputVars[c]) through every step, four at a time,
// values straight into results, 0 into errors; groups is a multiple of blockRound(ir), the
// groups its loop takes per round. Per group of four it writes a byte to marks, bit j set
// where row j's value cannot be vouched for (a value or an input left the range where the
// steps give their kernels' results): those rows must be evaluated again by the column
// program, whose values and codes are eval()'s; unmarked rows have no error. Returns the marks
// ORed. With stream (results 16-byte aligned), values bypass the caches (the caller fences
// before others read them).
// Four groups per round for programs of a usual size: one result test, one mark store and the
// loop's bookkeeping serve them all. One for long programs, whose code would grow as much.
inline int blockRound(const oxp::Program& ir)
{
    return ir.steps.size() <= 256 ? 4 : 1;
}
using BlockFn = int (*)(const double* const* columns, double* results, int* errors,
                        uint8_t* marks, int groups, int stream);
// Code for a program of cheap steps only (null: none, e.g. native code off, no AVX2 and FMA,
// a raise, a function of the C library); it assumes rounding to nearest.
BlockFn compileBlock(const oxp::Program& ir, const std::vector<int>& inputVars, NativeCode& out);

// The single-point program's native tier: the interpreter serves the first calls, and the
// call that makes the program hot compiles it; every thread then runs the published code.
class PointTier {
public:
    PointTier() = default;
    PointTier(const PointTier&) = delete;
    PointTier& operator=(const PointTier&) = delete;
    ~PointTier() { releaseNative(code_); }

    // The code to run for this call of the program ir, or null for the interpreter.
    PointFn get(const oxp::Program& ir) const
    {
        PointFn f = fn_.load(std::memory_order_acquire);
        if (f)
            return enabled() ? f : nullptr;
        return warm(ir);
    }

    // The code once some call has compiled it, whether or not native code is on now.
    PointFn published() const { return fn_.load(std::memory_order_acquire); }

private:
    PointFn warm(const oxp::Program& ir) const;

    mutable std::atomic<PointFn> fn_{nullptr};
    mutable std::atomic<int> calls_{0};
    mutable std::atomic<bool> claimed_{false};  // one thread compiles (or gave up)
    mutable NativeCode code_;
};

// The code writes only while it is zero, so the caller's code serves directly: a nonzero one
// stays as it is, as the interpreter leaves it.
inline double runPoint(PointFn f, double* vars, int& err)
{
    return f(vars, &err);
}

}  // namespace oxn

// For tests: 1 when the generator gives code for the tree's program (0: the interpreter keeps
// it), and the arena's chunks mapped now.
OXEL_API int oxelNativeCompile(Oxel* root, int numVars);
OXEL_API int oxelNativeArenaChunks();

// Calls of one program before it is compiled (0: the first call compiles). For tests and
// measurements; the default suits programs evaluated many times.
OXEL_API void oxelNativeHotCalls(int calls);

#endif
