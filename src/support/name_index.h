// Hashed first positions of names in an array of names: lookups among many declared names.
#ifndef OXEL_SUPPORT_NAME_INDEX_H
#define OXEL_SUPPORT_NAME_INDEX_H

#include <cstring>
#include <vector>

#include <oxel/support.h>

namespace oxs {

// The index is a table of positions into names (-1: empty) with linear probing, its size a
// power of two at least twice the positions it holds. It always holds names[0, n) for some n,
// each name at its first position: what a scan in index order finds.

// The position of name, or -1.
inline int nameFind(const std::vector<int>& slots, const KxDArray<KxString>& names,
                    const char* name)
{
    if (slots.empty())
        return -1;
    const size_t mask = slots.size() - 1;
    for (size_t s = hash(name) & mask;; s = (s + 1) & mask) {
        const int i = slots[s];
        if (i < 0 || std::strcmp(names[i].c_str(), name) == 0)
            return i;
    }
}

namespace detail {
inline void place(std::vector<int>& slots, const KxDArray<KxString>& names, int n)
{
    const size_t mask = slots.size() - 1;
    const char* name = names[n].c_str();
    size_t s = hash(name) & mask;
    for (; slots[s] >= 0; s = (s + 1) & mask)
        if (std::strcmp(names[slots[s]].c_str(), name) == 0)
            return;  // an earlier position keeps the name
    slots[s] = n;
}
}  // namespace detail

// Adds names[n] to an index of names[0, n).
inline void nameAdd(std::vector<int>& slots, const KxDArray<KxString>& names, int n)
{
    const size_t held = static_cast<size_t>(n) + 1;
    if (slots.size() < 2 * held) {
        size_t size = 16;
        while (size < 4 * held)
            size *= 2;
        slots.assign(size, -1);
        for (int i = 0; i < n; ++i)
            detail::place(slots, names, i);
    }
    detail::place(slots, names, n);
}

// An index of names[0, n) built afresh.
inline void nameIndex(std::vector<int>& slots, const KxDArray<KxString>& names, int n)
{
    slots.clear();
    for (int i = 0; i < n; ++i)
        nameAdd(slots, names, i);
}

}  // namespace oxs

#endif
