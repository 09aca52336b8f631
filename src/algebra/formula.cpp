// oxelToFormula: a tree written in the formula language, with the grammar's operator levels.
#include <oxel/formula.h>

#include <charconv>
#include <cmath>
#include <string>
#include <typeindex>
#include <unordered_map>

#include <oxel/nodes.h>

#include "core/deep.h"
#include "nodes/words.h"

namespace {

// Operator levels of the grammar, loosest first; an operand whose level is below what its
// place needs gets parentheses. Assignments have no level: they are bracketed as operands.
enum Level { kAssign, kLogic, kCompare, kAdd, kMul, kBit, kPrefix, kAtom };

struct Spelling {
    const char* text;
    int level;   // infix operators; kAtom marks a function call
};

const std::unordered_map<std::type_index, Spelling>& spellings()
{
    static const std::unordered_map<std::type_index, Spelling> table = [] {
        std::unordered_map<std::type_index, Spelling> t = {
            {typeid(OxPlus), {"+", kAdd}},        {typeid(OxMinus), {"-", kAdd}},
            {typeid(OxModulo), {"%", kAdd}},      {typeid(OxMal), {"*", kMul}},
            {typeid(OxDurch), {"/", kMul}},       {typeid(OxHoch), {"pow", kAtom}},
            {typeid(OxLess), {"<", kCompare}},    {typeid(OxGreater), {">", kCompare}},
            {typeid(OxLessEqual), {"<=", kCompare}}, {typeid(OxGreaterEqual), {">=", kCompare}},
            {typeid(OxEqual), {"==", kCompare}},  {typeid(OxAnd), {"&&", kLogic}},
            {typeid(OxOr), {"||", kLogic}},
        };
#define OXEL_BIT(Cls, code, prio, sym) t[typeid(Cls)] = {sym, kBit};
#define OXEL_CALL(Cls, code, prio, sym, name, token, c) t[typeid(Cls)] = {name, kAtom};
        OXEL_BITWISE_OPERATORS(OXEL_BIT)
        OXEL_UNARY_FUNCTIONS(OXEL_CALL)
        OXEL_BINARY_FUNCTIONS(OXEL_CALL)
#undef OXEL_BIT
#undef OXEL_CALL
        return t;
    }();
    return table;
}

// -1 times x, the tree that prefix minus builds.
bool isNegation(Oxel* node)
{
    if (typeid(*node) != typeid(OxMal))
        return false;
    auto* factor = dynamic_cast<OxZahl*>(node->getChild(0));
    return factor && node->getChild(1) && factor->number() == -1.0;
}

bool isNotEqual(Oxel* node)
{
    if (typeid(*node) != typeid(OxNot))
        return false;
    Oxel* child = node->getChild(0);
    return child && typeid(*child) == typeid(OxEqual);
}

class Writer {
public:
    std::string out;
    bool ok = true;

    // Statements of the top-level sequence, first to last.
    void statements(Oxel* node)
    {
        if (node && typeid(*node) == typeid(OxBranch)) {
            Oxel* first = node->getChild(0);
            Oxel* second = node->getChild(1);
            if (first)
                statements(first);
            if (first && second)
                out += "; ";
            if (second)
                statements(second);
            if (!first && !second)
                ok = false;
            return;
        }
        operand(node, kAssign);
    }

    void operand(Oxel* node, int need)
    {
        if (!node) {
            ok = false;
            return;
        }
        bool brackets = level(node) < need;
        if (brackets)
            out += '(';
        write(node);
        if (brackets)
            out += ')';
    }

private:
    static int level(Oxel* node)
    {
        if (auto* z = dynamic_cast<OxZahl*>(node)) {
            double v = z->number();
            if (std::isnan(v))
                return kAtom;
            return std::signbit(v) ? kPrefix : kAtom;
        }
        if (auto* var = dynamic_cast<OxVar*>(node))
            return var->bound() ? kAssign : kAtom;
        if (isNegation(node) || typeid(*node) == typeid(OxNot))
            return isNotEqual(node) ? kCompare : kPrefix;
        auto it = spellings().find(typeid(*node));
        return it == spellings().end() ? kAtom : it->second.level;
    }

    void number(double v)
    {
        if (std::isnan(v)) {
            out += std::signbit(v) ? "copysign(0 * 1e999, -1)" : "copysign(0 * 1e999, 1)";
            return;
        }
        if (std::signbit(v))
            out += '-';
        v = std::fabs(v);
        if (std::isinf(v)) {
            out += "1e999";
            return;
        }
        char buf[32];
        auto res = std::to_chars(buf, buf + sizeof buf, v);
        out.append(buf, res.ptr);
    }

    // A prefix operator's text; "- -x" must not become the token "--".
    void prefix(char op, Oxel* arg)
    {
        out += op;
        size_t mark = out.size();
        operand(arg, kPrefix);
        if (op == '-' && out.size() > mark && out[mark] == '-')
            out.insert(mark, 1, ' ');
    }

    void call(const char* name, Oxel* node)
    {
        out += name;
        out += '(';
        for (int i = 0; i < node->getNumChildren(); ++i) {
            if (i)
                out += ", ";
            operand(node->getChild(i), kAssign);
        }
        out += ')';
    }

    void write(Oxel* node)
    {
        if (auto* z = dynamic_cast<OxZahl*>(node))
            return number(z->number());
        if (auto* var = dynamic_cast<OxVar*>(node)) {
            if (!oxw::isPlainName(var->name().c_str())) {
                ok = false;
                return;
            }
            out += var->name().c_str();
            if (var->bound()) {
                out += " = ";
                operand(var->bound(), kAssign);
            }
            return;
        }
        if (auto* dep = dynamic_cast<OxDepVar*>(node))
            return dependent(dep);
        if (isNegation(node))
            return prefix('-', node->getChild(1));
        if (isNotEqual(node)) {
            Oxel* eq = node->getChild(0);
            operand(eq->getChild(0), kCompare + 1);
            out += " != ";
            operand(eq->getChild(1), kCompare + 1);
            return;
        }
        const std::type_info& type = typeid(*node);
        if (type == typeid(OxNot))
            return prefix('!', node->getChild(0));
        if (type == typeid(OxRand))
            return void(out += "rand()");
        if (type == typeid(OxGauss))
            return void(out += "gauss()");
        auto it = spellings().find(type);
        if (it == spellings().end() || node->getNumChildren() > 2) {
            ok = false;  // a sequence below the top level, or a class of the host's own
            return;
        }
        const Spelling& s = it->second;
        if (s.level == kAtom)
            return call(s.text, node);
        // Left-associative levels keep an equal left operand bare; comparisons chain nowhere.
        operand(node->getChild(0), s.level == kCompare ? s.level + 1 : s.level);
        out += ' ';
        out += s.text;
        out += ' ';
        operand(node->getChild(1), s.level + 1);
    }

    // name[component], then the arguments unless the defaults are meant.
    void dependent(OxDepVar* dep)
    {
        OxDepVarnode* node = dep->node();
        int n = dep->getNumChildren();
        if (dep->nDiff() != 0 || dep->component() < 0 || !oxw::isPlainName(node->getName()) ||
            n > 6 || (n > 0 && n != node->getNDims()) ||
            (n == 0 && !node->hasDefaultVars() && node->getNDims() != 1)) {
            ok = false;
            return;
        }
        out += node->getName();
        out += '[' + std::to_string(dep->component()) + ']';
        if (n == 0 && node->hasDefaultVars())
            return;
        call("", dep);
    }
};

}  // namespace

KxString oxelToFormula(Oxel* tree)
{
    if (!tree)
        return KxString();
    Writer w;
    oxs::withStackFor(oxelDepth(tree), [&] { w.statements(tree); });
    return w.ok ? KxString(w.out.c_str()) : KxString();
}
