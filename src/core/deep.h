// Room for the node interface's recursion on trees of any depth: a stack sized from the depth,
// and remembered constancy answers so that per-node tests do not rewalk deep sub-trees.
#ifndef OXEL_CORE_DEEP_H
#define OXEL_CORE_DEEP_H

#include <utility>

#include <oxel/core.h>

namespace oxs {

// Levels that any caller's stack holds for the recursions the library starts (value, diff,
// simplify, print, dup, ==), even a small thread stack under the address sanitizer; deeper
// trees run on a stack of their own.
const long kShallowDepth = 2000;

// Runs fn(ctx) on a fresh thread whose stack holds depth levels, while the caller waits; its
// messages are handed over as if the caller had sent them, and an exception it throws is
// rethrown here.
void runWithStackFor(long depth, void (*fn)(void*), void* ctx);

// f() on the calling thread when the depth is shallow, otherwise on a stack that fits it.
template <class F>
void withStackFor(long depth, F&& f)
{
    if (depth <= kShallowDepth) {
        f();
        return;
    }
    using Fn = typename std::remove_reference<F>::type;
    runWithStackFor(depth, [](void* c) { (*static_cast<Fn*>(c))(); }, &f);
}

// While one lives on a thread, vconstant() (var null) or pconstant(var) of every node of the
// tree answers from a table filled bottom-up once, instead of walking its sub-tree again: the
// simplification and derivative rules ask it at every level, which costs the depth squared on
// a chain. The tree must stay unchanged and alive meanwhile.
class ConstancyMemo {
public:
    ConstancyMemo(Oxel* tree, const char* var);
    ~ConstancyMemo();
    ConstancyMemo(const ConstancyMemo&) = delete;
    ConstancyMemo& operator=(const ConstancyMemo&) = delete;

    // The remembered answer for node (for var, null: vconstant), if there is one.
    static bool lookup(const Oxel* node, const char* var, int* answer);

private:
    struct Slot {
        const Oxel* node;
        int answer;
    };
    bool find(const Oxel* node, int* answer) const;
    void insert(const Oxel* node, int answer);

    Slot* slots_ = nullptr;
    unsigned long mask_ = 0;
    const char* var_;
    ConstancyMemo* outer_;
};

}  // namespace oxs

#endif
