// Kind of a node: one lookup from its dynamic class, built from the kind table.
#include "nodes/kinds.h"

#include <typeinfo>
#include <unordered_map>

namespace oxk {

Kind kindOf(const Oxel* node)
{
    // Keyed by the type_info objects themselves: the classes live in this library, so each has
    // exactly one, and hashing a pointer is far cheaper than hashing a type's name.
    static const std::unordered_map<const std::type_info*, Kind> kinds = [] {
        std::unordered_map<const std::type_info*, Kind> m;
#define OXK_MAP_LEAF(Cls, shape) m.emplace(&typeid(Cls), Kind::Cls);
#define OXK_MAP_OP(Cls, ...) m.emplace(&typeid(Cls), Kind::Cls);
        OXK_KINDS(OXK_MAP_LEAF, OXK_MAP_OP, OXK_MAP_OP, OXK_MAP_OP)
#undef OXK_MAP_LEAF
#undef OXK_MAP_OP
        return m;
    }();
    if (!node)
        return Kind::Unknown;
    auto it = kinds.find(&typeid(*node));
    return it == kinds.end() ? Kind::Unknown : it->second;
}

}  // namespace oxk
