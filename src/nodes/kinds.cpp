// Kind of a node: one lookup from its dynamic class, built from the kind table.
#include "nodes/kinds.h"

#include <typeindex>
#include <typeinfo>
#include <unordered_map>

namespace oxk {

Kind kindOf(const Oxel* node)
{
    static const std::unordered_map<std::type_index, Kind> kinds = [] {
        std::unordered_map<std::type_index, Kind> m;
#define OXK_MAP_LEAF(Cls, shape) m.emplace(typeid(Cls), Kind::Cls);
#define OXK_MAP_OP(Cls, ...) m.emplace(typeid(Cls), Kind::Cls);
        OXK_KINDS(OXK_MAP_LEAF, OXK_MAP_OP, OXK_MAP_OP, OXK_MAP_OP)
#undef OXK_MAP_LEAF
#undef OXK_MAP_OP
        return m;
    }();
    if (!node)
        return Kind::Unknown;
    auto it = kinds.find(typeid(*node));
    return it == kinds.end() ? Kind::Unknown : it->second;
}

}  // namespace oxk
