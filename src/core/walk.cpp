// Tree walks that use an explicit stack, so they work for trees of any depth.
#include <cstring>
#include <utility>
#include <vector>

#include <oxel/core.h>

#include "core/deep.h"

namespace {

// OxBranch counts only non-null slots, so a branch with an empty first slot still keeps its
// second child at index 1: look one slot past getNumChildren() to find it.
template <class F>
void forEachChild(Oxel* node, F f)
{
    int n = node->getNumChildren();
    int limit = n > 0 ? n + 1 : 2;
    for (int i = 0; i < limit; ++i)
        if (Oxel* c = node->getChild(i))
            f(i, c);
}

// A work stack whose first entries live in the frame: the small trees of everyday formulas
// take no heap, however often they are built and destroyed.
template <class T>
class WorkStack {
public:
    explicit WorkStack(T first) { push(first); }
    bool empty() const { return n_ == 0 && more_.empty(); }
    void push(T v)
    {
        if (n_ < kLocal)
            local_[n_++] = v;
        else
            more_.push_back(v);
    }
    T pop()
    {
        if (more_.empty())
            return local_[--n_];
        T v = more_.back();
        more_.pop_back();
        return v;
    }

private:
    static const int kLocal = 32;
    T local_[kLocal];
    int n_ = 0;
    std::vector<T> more_;
};

}  // namespace

long oxelNodeCount(Oxel* node)
{
    if (!node)
        return 0;
    long n = 0;
    WorkStack<Oxel*> stack(node);
    while (!stack.empty()) {
        Oxel* cur = stack.pop();
        ++n;
        forEachChild(cur, [&](int, Oxel* c) { stack.push(c); });
    }
    return n;
}

long oxelDepth(Oxel* node)
{
    if (!node)
        return 0;
    long deepest = 0;
    WorkStack<std::pair<Oxel*, long>> stack({node, 1});
    while (!stack.empty()) {
        auto [cur, d] = stack.pop();
        if (d > deepest)
            deepest = d;
        forEachChild(cur, [&, d = d](int, Oxel* c) { stack.push({c, d + 1}); });
    }
    return deepest;
}

void oxelDestroy(Oxel* node)
{
    if (!node)
        return;
    if (!node->getChild(0) && !node->getChild(1) && node->getNumChildren() == 0) {
        delete node;  // a leaf, as most operands are: no stack needed
        return;
    }
    WorkStack<Oxel*> stack(node);
    while (!stack.empty()) {
        Oxel* cur = stack.pop();
        forEachChild(cur, [&](int i, Oxel* c) {
            stack.push(c);
            cur->setChild(i, nullptr);
        });
        delete cur;
    }
}

std::string oxelToString(Oxel* node)
{
    if (!node)
        return std::string();
    // Upper bound of what print() writes: per node its symbol between each pair of
    // children (or once for a leaf), two brackets per child and two for a function call.
    size_t bound = 1;
    long depth = 0;
    WorkStack<std::pair<Oxel*, long>> stack({node, 1});
    while (!stack.empty()) {
        auto [cur, d] = stack.pop();
        depth = d > depth ? d : depth;
        int kids = 0;
        forEachChild(cur, [&, d = d](int, Oxel* c) {
            stack.push({c, d + 1});
            ++kids;
        });
        size_t sym = std::strlen(cur->symbol());
        bound += sym * static_cast<size_t>(kids > 1 ? kids : 1) + 2 + 2 * static_cast<size_t>(kids);
    }
    std::string text(bound, '\0');
    int n = 0;
    oxs::withStackFor(depth, [&] { n = node->print(&text[0]); });
    text.resize(static_cast<size_t>(n));
    return text;
}
