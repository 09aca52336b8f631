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

}  // namespace

long oxelNodeCount(Oxel* node)
{
    if (!node)
        return 0;
    long n = 0;
    std::vector<Oxel*> stack{node};
    while (!stack.empty()) {
        Oxel* cur = stack.back();
        stack.pop_back();
        ++n;
        forEachChild(cur, [&](int, Oxel* c) { stack.push_back(c); });
    }
    return n;
}

long oxelDepth(Oxel* node)
{
    if (!node)
        return 0;
    long deepest = 0;
    std::vector<std::pair<Oxel*, long>> stack{{node, 1}};
    while (!stack.empty()) {
        auto [cur, d] = stack.back();
        stack.pop_back();
        if (d > deepest)
            deepest = d;
        forEachChild(cur, [&, d = d](int, Oxel* c) { stack.push_back({c, d + 1}); });
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
    std::vector<Oxel*> stack{node};
    while (!stack.empty()) {
        Oxel* cur = stack.back();
        stack.pop_back();
        forEachChild(cur, [&](int i, Oxel* c) {
            stack.push_back(c);
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
    std::vector<std::pair<Oxel*, long>> stack{{node, 1}};
    while (!stack.empty()) {
        auto [cur, d] = stack.back();
        stack.pop_back();
        depth = d > depth ? d : depth;
        int kids = 0;
        forEachChild(cur, [&, d = d](int, Oxel* c) {
            stack.push_back({c, d + 1});
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
