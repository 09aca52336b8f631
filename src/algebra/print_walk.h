// Texts of trees built bottom-up on an explicit stack, as pieces joined by reference.
#ifndef OXEL_ALGEBRA_PRINT_WALK_H
#define OXEL_ALGEBRA_PRINT_WALK_H

#include <cstdint>
#include <deque>
#include <initializer_list>
#include <string>
#include <typeindex>
#include <typeinfo>
#include <unordered_map>
#include <vector>

#include <oxel/core.h>
#include <oxel/nodes.h>

namespace oxpw {

using Id = uint32_t;

// One field of every function's row by class: its name in the language, or its C spelling.
enum class FunctionField { kName, kC };
using ByClass = std::unordered_map<std::type_index, const char*>;
inline ByClass functionField(FunctionField field)
{
    ByClass t;
#define OXEL_FIELD(Cls, code, prio, sym, name, token, c) \
    t[typeid(Cls)] = field == FunctionField::kName ? name : c;
    OXEL_UNARY_FUNCTIONS(OXEL_FIELD)
    OXEL_BINARY_FUNCTIONS(OXEL_FIELD)
#undef OXEL_FIELD
    return t;
}

// A node's text is its operands' texts joined with literals: joining copies no characters, so
// a long sum costs what its text costs, not the square of it; one text may be joined twice.
class Rope {
public:
    Id text(std::string s)
    {
        owned_.push_back(std::move(s));
        return add(owned_.back().data(), owned_.back().size());
    }
    // A literal that outlives the rope (a string constant): one piece however often used.
    Id literal(const char* s)
    {
        auto found = literals_.find(s);
        if (found != literals_.end())
            return found->second;
        Id id = add(s, std::char_traits<char>::length(s));
        literals_.emplace(s, id);
        return id;
    }
    Id join(std::initializer_list<Id> parts) { return join(parts.begin(), parts.size()); }
    Id join(const Id* parts, size_t n)
    {
        Piece p{nullptr, 0, static_cast<uint32_t>(parts_.size()), static_cast<uint32_t>(n), {}};
        size_t lead = 0;
        for (size_t i = 0; i < n; ++i) {
            const Piece& q = pieces_[parts[i]];
            p.length += q.length;
            for (size_t k = 0; q.lead[k] && lead < kLead; ++k)
                p.lead[lead++] = q.lead[k];
            parts_.push_back(parts[i]);
        }
        pieces_.push_back(p);
        return static_cast<Id>(pieces_.size() - 1);
    }

    size_t size(Id id) const { return pieces_[id].length; }
    char first(Id id) const { return pieces_[id].lead[0]; }
    // Whether the text starts with prefix (at most seven characters).
    bool startsWith(Id id, const char* prefix) const
    {
        return std::string(pieces_[id].lead).compare(0, std::char_traits<char>::length(prefix),
                                                      prefix) == 0;
    }

    // The whole text, written in one pass over the pieces.
    std::string str(Id id) const
    {
        std::string out;
        out.reserve(pieces_[id].length);
        std::vector<Id> todo{id};
        while (!todo.empty()) {
            const Piece& p = pieces_[todo.back()];
            todo.pop_back();
            if (p.s)
                out.append(p.s, p.length);
            for (uint32_t i = p.numParts; i-- > 0;)
                todo.push_back(parts_[p.firstPart + i]);
        }
        return out;
    }

private:
    static const size_t kLead = 7;
    struct Piece {
        const char* s;  // characters of a leaf; null for a join
        size_t length;
        uint32_t firstPart, numParts;
        char lead[kLead + 1];  // the text's first characters
    };

    Id add(const char* s, size_t n)
    {
        Piece p{s, n, 0, 0, {}};
        for (size_t k = 0; k < n && k < kLead && s[k]; ++k)
            p.lead[k] = s[k];
        pieces_.push_back(p);
        return static_cast<Id>(pieces_.size() - 1);
    }

    std::vector<Piece> pieces_;
    std::vector<Id> parts_;
    std::deque<std::string> owned_;
    std::unordered_map<const char*, Id> literals_;
};

struct Text {
    Id id;
    int level;
};

// Folds the tree bottom-up without recursion. The writer names each node's operands
// (operands(node, out) appends them; a null one is a missing child, whose text is
// w.missing()) and builds the node's text from theirs (combine(node, texts), in the order
// named).
template <class W>
Text foldTree(Oxel* root, W& w)
{
    struct Frame {
        Oxel* node;
        size_t first, end, next;
    };
    std::vector<Oxel*> ops;
    std::vector<Frame> frames;
    std::vector<Text> values;
    auto open = [&](Oxel* n) {
        size_t first = ops.size();
        w.operands(n, ops);
        frames.push_back({n, first, ops.size(), first});
    };
    open(root);
    while (!frames.empty()) {
        Frame& f = frames.back();
        if (f.next < f.end) {
            Oxel* c = ops[f.next++];
            if (c)
                open(c);
            else
                values.push_back(w.missing());
            continue;
        }
        const size_t n = f.end - f.first;
        Text t = w.combine(f.node, values.data() + (values.size() - n));
        values.resize(values.size() - n);
        ops.resize(f.first);
        frames.pop_back();
        values.push_back(t);
    }
    return values.back();
}

}  // namespace oxpw

#endif
