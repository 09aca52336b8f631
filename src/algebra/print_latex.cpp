// oxelToLatex: a tree typeset as math-mode LaTeX.
#include <oxel/printing.h>

#include <cctype>
#include <charconv>
#include <cmath>
#include <string>
#include <typeindex>
#include <unordered_map>
#include <vector>

#include <oxel/nodes.h>

#include "algebra/print_walk.h"

namespace {

enum Level { kAny, kLogic, kCompare, kAdd, kNeg, kMul, kPow, kAtom };

// Functions with a LaTeX operator of their own; the rest are set upright by name.
const std::unordered_map<std::type_index, const char*>& operators()
{
    static const std::unordered_map<std::type_index, const char*> table = {
        {typeid(OxSinus), "\\sin"},      {typeid(OxCosinus), "\\cos"},  {typeid(OxTangens), "\\tan"},
        {typeid(OxLn), "\\ln"},          {typeid(OxArctan), "\\arctan"},
        {typeid(OxArcsin), "\\arcsin"},  {typeid(OxArccos), "\\arccos"},
        {typeid(OxSinh), "\\sinh"},      {typeid(OxCosh), "\\cosh"},    {typeid(OxTanh), "\\tanh"},
        {typeid(OxLog10), "\\log_{10}"}, {typeid(OxMax), "\\max"},      {typeid(OxMin), "\\min"},
    };
    return table;
}

// Every function's name in the language, for those set upright by name.
const oxpw::ByClass& spelled()
{
    static const oxpw::ByClass table = oxpw::functionField(oxpw::FunctionField::kName);
    return table;
}

struct Infix {
    const char* op;
    int level;
};

const std::unordered_map<std::type_index, Infix>& infixes()
{
    static const std::unordered_map<std::type_index, Infix> table = {
        {typeid(OxPlus), {" + ", kAdd}},          {typeid(OxMinus), {" - ", kAdd}},
        {typeid(OxModulo), {" \\ \\mathrm{mod}\\ ", kAdd}},   {typeid(OxLess), {" < ", kCompare}},
        {typeid(OxGreater), {" > ", kCompare}},   {typeid(OxLessEqual), {" \\leq ", kCompare}},
        {typeid(OxGreaterEqual), {" \\geq ", kCompare}}, {typeid(OxEqual), {" = ", kCompare}},
        {typeid(OxAnd), {" \\wedge ", kLogic}},    {typeid(OxOr), {" \\vee ", kLogic}},
        {typeid(OxBitOr), {" \\mid ", kMul}},     {typeid(OxBitAnd), {" \\ \\mathrm{and}\\ ", kMul}},
        {typeid(OxBitXOr), {" \\oplus ", kMul}},  {typeid(OxShiftLeft), {" \\ll ", kMul}},
        {typeid(OxShiftRight), {" \\gg ", kMul}},
    };
    return table;
}

using oxpw::Text;

struct Around {
    const char* before;
    const char* after;
    int level;
};

// x, x_{1}, or a longer name upright.
std::string name(const std::string& n)
{
    if (n.size() == 1)
        return n;
    size_t digits = n.find_first_of("0123456789");
    if (digits == 1 && n.find_first_not_of("0123456789", 1) == std::string::npos)
        return n.substr(0, 1) + "_{" + n.substr(1) + "}";
    std::string out = "\\mathrm{";
    for (char c : n)
        out += c == '_' ? std::string("\\_") : std::string(1, c);
    return out + "}";
}

class LatexWriter {
public:
    bool ok = true;
    oxpw::Rope rope;

    // The walk's callbacks (oxpw::foldTree).
    void operands(Oxel* node, std::vector<Oxel*>& out)
    {
        switch (formOf(node)) {
        case kBound:
            out.push_back(static_cast<OxVar*>(node)->bound());
            break;
        case kCall:
            for (int i = 0; i < node->getNumChildren(); ++i)
                out.push_back(node->getChild(i));
            break;
        case kTwo:
            out.push_back(node->getChild(0));
            out.push_back(node->getChild(1));
            break;
        case kOne:
            out.push_back(node->getChild(0));
            break;
        case kNotEqual:
            out.push_back(node->getChild(0)->getChild(0));
            out.push_back(node->getChild(0)->getChild(1));
            break;
        default:
            break;
        }
    }

    Text missing()
    {
        ok = false;
        return {lit(""), kAtom};
    }

    Text combine(Oxel* node, const Text* t)
    {
        const std::type_info& type = typeid(*node);
        switch (formOf(node)) {
        case kNumber:
            return number(static_cast<OxZahl*>(node)->number());
        case kPlain:
            return {rope.text(name(static_cast<OxVar*>(node)->name().c_str())), kAtom};
        case kBound:
            return {join({rope.text(name(static_cast<OxVar*>(node)->name().c_str())), lit(" = "),
                          operand(t[0], kLogic)}),
                    kAny};
        case kFail:
            ok = false;  // a missing child, or a class of the host's own
            return {lit(""), kAtom};
        case kNotEqual:
            return {join({operand(t[0], kAdd), lit(" \\neq "), operand(t[1], kAdd)}), kCompare};
        default:
            break;
        }
        if (type == typeid(OxRand))
            return {lit("\\mathrm{rand}()"), kAtom};
        if (type == typeid(OxGauss))
            return {lit("\\mathrm{gauss}()"), kAtom};
        if (auto* dep = dynamic_cast<OxDepVar*>(node)) {
            oxpw::Id out = rope.text(name(dep->node()->getName()) + "_{" +
                                     std::to_string(dep->component()) + "}");
            return {dep->getNumChildren() ? join({out, args(node, t)}) : out, kAtom};
        }
        if (type == typeid(OxBranch))
            return {join({operand(t[0], kAny), lit(";\\ "), operand(t[1], kAny)}), kAny};
        Oxel* a = node->getChild(0);
        if (type == typeid(OxMal)) {
            auto* z = dynamic_cast<OxZahl*>(a);
            if (z && z->number() == -1.0)
                return {join({lit("-"), operand(t[1], kMul)}), kNeg};
            return product(a, t);
        }
        if (type == typeid(OxDurch))
            return {join({lit("\\frac{"), operand(t[0], kAny), lit("}{"), operand(t[1], kAny),
                          lit("}")}),
                    kMul};
        if (type == typeid(OxHoch)) {
            auto* z = dynamic_cast<OxZahl*>(node->getChild(1));
            if (z && z->number() == 0.5)
                return {join({lit("\\sqrt{"), operand(t[0], kAny), lit("}")}), kAtom};
            return {join({operand(t[0], kAtom), lit("^{"), operand(t[1], kAny), lit("}")}), kPow};
        }
        auto wrap = around().find(type);
        if (wrap != around().end())
            return {join({lit(wrap->second.before), operand(t[0], kAny), lit(wrap->second.after)}),
                    wrap->second.level};
        if (type == typeid(OxNot))
            return {join({lit("\\neg "), operand(t[0], kPow)}), kNeg};
        auto in = infixes().find(type);
        if (in != infixes().end() && node->getNumChildren() == 2) {
            const Infix& i = in->second;
            int right = i.level == kAdd ? kMul : i.level + 1;
            return {join({operand(t[0], i.level == kCompare ? i.level + 1 : i.level), lit(i.op),
                          operand(t[1], right)}),
                    i.level};
        }
        auto op = operators().find(type);
        if (op != operators().end())
            return {join({lit(op->second), args(node, t)}), kAtom};
        auto word = spelled().find(type);
        return {join({lit("\\mathrm{"), lit(word->second), lit("}"), args(node, t)}), kAtom};
    }

private:
    // How a node is written, and so which operands it needs.
    enum Form { kNumber, kPlain, kBound, kLeaf, kCall, kTwo, kOne, kNotEqual, kFail };

    static Form formOf(Oxel* node)
    {
        const std::type_info& type = typeid(*node);
        if (dynamic_cast<OxZahl*>(node))
            return kNumber;
        if (auto* var = dynamic_cast<OxVar*>(node))
            return var->bound() ? kBound : kPlain;
        if (type == typeid(OxRand) || type == typeid(OxGauss))
            return kLeaf;
        if (dynamic_cast<OxDepVar*>(node))
            return kCall;
        if (type == typeid(OxBranch))
            return kTwo;
        int n = node->getNumChildren();
        Oxel* a = n > 0 ? node->getChild(0) : nullptr;
        Oxel* b = n > 1 ? node->getChild(1) : nullptr;
        if (!a || (n == 2 && !b) || n > 2)
            return kFail;
        if (type == typeid(OxMal) || type == typeid(OxDurch) || type == typeid(OxHoch))
            return kTwo;
        if (around().count(type))
            return kOne;
        if (type == typeid(OxNot))
            return typeid(*a) == typeid(OxEqual) ? kNotEqual : kOne;
        if (infixes().count(type) && n == 2)
            return kTwo;
        if (operators().count(type) || spelled().count(type))
            return kCall;
        return kFail;
    }

    oxpw::Id lit(const char* s) { return rope.literal(s); }
    oxpw::Id join(std::initializer_list<oxpw::Id> parts) { return rope.join(parts); }

    oxpw::Id paren(oxpw::Id s) { return join({lit("\\left("), s, lit("\\right)")}); }

    // The operand's text, bracketed when its level is below need.
    oxpw::Id operand(const Text& t, int need) { return t.level < need ? paren(t.id) : t.id; }

    Text number(double v)
    {
        if (std::isnan(v))
            return {lit("\\mathrm{NaN}"), kAtom};
        std::string sign = std::signbit(v) ? "-" : "";
        if (std::isinf(v))
            return {rope.text(sign + "\\infty"), sign.empty() ? kAtom : kNeg};
        char buf[40];
        std::string s(buf, std::to_chars(buf, buf + sizeof buf, std::fabs(v)).ptr);
        size_t e = s.find('e');
        if (e != std::string::npos) {
            std::string mantissa = s.substr(0, e);
            std::string exponent = s.substr(e + 1);
            if (exponent[0] == '+')
                exponent.erase(0, 1);
            s = (mantissa == "1" ? "" : mantissa + " \\cdot ") + "10^{" + exponent + "}";
        }
        return {rope.text(sign + s), sign.empty() ? kAtom : kNeg};
    }

    // The operands (all of the node's children) as a bracketed argument list.
    oxpw::Id args(Oxel* node, const Text* t)
    {
        std::vector<oxpw::Id> parts{lit("\\left(")};
        for (int i = 0; i < node->getNumChildren(); ++i) {
            if (i)
                parts.push_back(lit(", "));
            parts.push_back(operand(t[i], kAny));
        }
        parts.push_back(lit("\\right)"));
        return rope.join(parts.data(), parts.size());
    }

    Text product(Oxel* a, const Text* t)
    {
        oxpw::Id left = operand(t[0], kNeg), right = operand(t[1], kMul);
        if (dynamic_cast<OxVar*>(a) && rope.size(left) == rope.size(right) &&
            rope.str(left) == rope.str(right))
            return {join({left, lit("^{2}")}), kPow};  // x x is x^{2}
        // 2 x and x y, but 2 \cdot 3 and x \cdot 2.
        char c = rope.first(right);
        bool juxtapose = std::isalpha(static_cast<unsigned char>(c)) ||
                         (c == '\\' && !rope.startsWith(right, "\\left"));
        return {join({left, lit(juxtapose ? " " : " \\cdot "), right}), kMul};
    }

    // Functions that LaTeX writes around their argument.
    static const std::unordered_map<std::type_index, Around>& around()
    {
        static const std::unordered_map<std::type_index, Around> table = {
            {typeid(OxSqroot), {"\\sqrt{", "}", kAtom}},
            {typeid(OxCbroot), {"\\sqrt[3]{", "}", kAtom}},
            {typeid(OxExp), {"e^{", "}", kPow}},
            {typeid(OxBetrag), {"\\left|", "\\right|", kAtom}},
            {typeid(OxCeil), {"\\left\\lceil ", "\\right\\rceil", kAtom}},
            {typeid(OxFloor), {"\\left\\lfloor ", "\\right\\rfloor", kAtom}},
        };
        return table;
    }
};

}  // namespace

KxString oxelToLatex(Oxel* tree)
{
    if (!tree)
        return KxString();
    LatexWriter w;
    std::string text = w.rope.str(oxpw::foldTree(tree, w).id);
    return w.ok ? KxString(text.c_str()) : KxString();
}
