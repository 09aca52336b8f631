// The process-wide node budget of derivatives, gradients and normal forms.
#include <atomic>

#include <oxel/core.h>

#include "core/derivative.h"

namespace {

std::atomic<long> nodeBudget{oxelDefaultNodeBudget};

}  // namespace

void oxelSetNodeBudget(long n)
{
    nodeBudget.store(n > 0 ? n : oxelDefaultNodeBudget, std::memory_order_relaxed);
}

long oxelNodeBudget()
{
    return nodeBudget.load(std::memory_order_relaxed);
}

thread_local Oxel* oxd::missingRule = nullptr;
thread_local bool oxd::partial = false;
