// The native tier's switch and hot-call counting; without the generator (other processors,
// no xbyak at build time) it always answers "interpreter".
#include "program/native/native.h"

#include <cstdlib>
#include <cstring>

#include <oxel/expression.h>

namespace oxn {
namespace {

bool fromEnvironment()
{
#ifdef OXEL_NATIVE
    const char* v = std::getenv("OXEL_JIT");
    return !(v && std::strcmp(v, "0") == 0);
#else
    return false;
#endif
}

// Compiling costs 3-15 us, the interpreter about 10 ns more per call
// than the code: a program pays back its compilation after about a thousand calls.
std::atomic<int> gHotCalls{1000};

}  // namespace

PointFn PointTier::warm(const oxp::Program& ir) const
{
    if (!enabled() || claimed_.load(std::memory_order_relaxed))
        return nullptr;
    if (calls_.fetch_add(1, std::memory_order_relaxed) < gHotCalls.load(std::memory_order_relaxed))
        return nullptr;
    if (claimed_.exchange(true, std::memory_order_acq_rel))
        return nullptr;  // another thread compiles; the interpreter serves meanwhile
    PointFn f = ir.ok ? compilePoint(ir, code_) : nullptr;
    if (f)
        fn_.store(f, std::memory_order_release);
    return f;
}

#ifndef OXEL_NATIVE
PointFn compilePoint(const oxp::Program&, NativeCode&)
{
    return nullptr;
}

BlockFn compileBlock(const oxp::Program&, const std::vector<int>&, NativeCode&)
{
    return nullptr;
}

void releaseNative(NativeCode&) {}
#endif

}  // namespace oxn

std::atomic<bool> oxel_detail::nativeCodeOn{oxn::fromEnvironment()};

void oxelSetNativeCode(bool on)
{
    oxel_detail::nativeCodeOn.store(on && oxn::fromEnvironment(), std::memory_order_relaxed);
}

int oxelNativeCompile(Oxel* root, int numVars)
{
    if (!oxn::enabled())
        return 0;
    const oxp::Program ir = oxp::lower(root, numVars);
    oxn::NativeCode code;
    const bool made = ir.ok && oxn::compilePoint(ir, code) != nullptr;
    oxn::releaseNative(code);
    return made ? 1 : 0;
}

int oxelNativeArenaChunks()
{
#ifdef OXEL_NATIVE
    return oxn::arenaChunks();
#else
    return 0;
#endif
}

void oxelNativeHotCalls(int calls)
{
    oxn::gHotCalls.store(calls > 0 ? calls : 0, std::memory_order_relaxed);
}
