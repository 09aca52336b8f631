// What the library does around fork(): one ordered list, so that locks are always taken in
// the same order and a child never inherits a lock that a thread of its parent held.
#ifndef OXEL_SUPPORT_FORK_H
#define OXEL_SUPPORT_FORK_H

#include <functional>

// Lower ranks are prepared first and resumed last. A lock may be held while a lock of a
// higher rank is taken, never the other way round; state without locks of its own (the
// batch pool, rebuilt in the child) may take any rank.
enum OxelForkRank {
    kForkParse,   // a parse sends messages and compiles
    kForkArena,   // compiling places code
    kForkPool,
    kForkLeaf,    // locks held for a few instructions, never while taking another
};

// Registers what to do before fork() and after it in the parent and in the child (each may be
// empty). Called by static initializers, so that every stage is in place before any thread
// can be inside the library; returns true so that a static bool can hold the call.
bool oxelOnFork(OxelForkRank rank, std::function<void()> prepare, std::function<void()> parent,
                std::function<void()> child);

// A plain lock held across fork(): taken before, released after in both processes.
template <class Lock> bool oxelForkLock(OxelForkRank rank, Lock& m)
{
    return oxelOnFork(rank, [&m] { m.lock(); }, [&m] { m.unlock(); }, [&m] { m.unlock(); });
}

#endif
