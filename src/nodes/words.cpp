// The word table of the formula language, built from the node tables, and its lookups.
#include "nodes/words.h"

#include <string_view>
#include <unordered_map>
#include <vector>

#include <oxel/parser.h>

#include "nodes/kinds.h"

namespace oxw {

#define OXW_UNARY(Cls, code, prio, sym, name, token, c) {name, 1, &oxk::make1<Cls>, nullptr},
#define OXW_BINARY(Cls, code, prio, sym, name, token, c) {name, 2, nullptr, &oxk::make2<Cls>},
#define OXW_KEYWORD(name, token) {name, 0, nullptr, nullptr},
const Word kWords[kNumWords] = {OXEL_WORDS(OXW_UNARY, OXW_BINARY, OXW_KEYWORD)};
#undef OXW_UNARY
#undef OXW_BINARY
#undef OXW_KEYWORD

int find(const char* text, size_t n)
{
    static const std::unordered_map<std::string_view, int> index = [] {
        std::unordered_map<std::string_view, int> m;
        for (int i = 0; i < kNumWords; ++i)
            m.emplace(kWords[i].name, i);
        return m;
    }();
    auto it = index.find(std::string_view(text, n));
    return it == index.end() ? -1 : it->second;
}

bool isPlainName(const char* name)
{
    auto letter = [](char c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_'; };
    if (!letter(name[0]))
        return false;
    size_t n = 1;
    for (; name[n]; ++n)
        if (!letter(name[n]) && !(name[n] >= '0' && name[n] <= '9'))
            return false;
    return find(name, n) < 0;
}

}  // namespace oxw

bool oxelIsVariableName(const char* name)
{
    return name && oxw::isPlainName(name);
}

const char* const* oxelFunctionNames(int arity)
{
    static const std::vector<std::vector<const char*>> lists = [] {
        std::vector<std::vector<const char*>> by(3);
        for (const oxw::Word& w : oxw::kWords)
            if (w.arity == 1 || w.arity == 2)
                by[static_cast<size_t>(w.arity)].push_back(w.name);
        for (auto& list : by)
            list.push_back(nullptr);
        return by;
    }();
    return lists[arity == 1 || arity == 2 ? static_cast<size_t>(arity) : 0].data();
}
