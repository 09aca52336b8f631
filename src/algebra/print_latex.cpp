// oxelToLatex: a tree typeset as math-mode LaTeX.
#include <oxel/printing.h>

#include <cctype>
#include <charconv>
#include <cmath>
#include <string>
#include <typeindex>
#include <unordered_map>

#include <oxel/nodes.h>

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
const std::unordered_map<std::type_index, const char*>& spelled()
{
    static const std::unordered_map<std::type_index, const char*> table = [] {
        std::unordered_map<std::type_index, const char*> t;
#define OXEL_NAME(Cls, code, prio, sym, name, token) t[typeid(Cls)] = name;
        OXEL_UNARY_FUNCTIONS(OXEL_NAME)
        OXEL_BINARY_FUNCTIONS(OXEL_NAME)
#undef OXEL_NAME
        return t;
    }();
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

struct Around {
    const char* before;
    const char* after;
    int level;
};

struct Text {
    std::string s;
    int level;
};

std::string paren(const std::string& s) { return "\\left(" + s + "\\right)"; }

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

    std::string operand(Oxel* node, int need)
    {
        if (!node) {
            ok = false;
            return "";
        }
        Text t = write(node);
        return t.level < need ? paren(t.s) : t.s;
    }

private:
    static Text number(double v)
    {
        if (std::isnan(v))
            return {"\\mathrm{NaN}", kAtom};
        std::string sign = std::signbit(v) ? "-" : "";
        if (std::isinf(v))
            return {sign + "\\infty", sign.empty() ? kAtom : kNeg};
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
        return {sign + s, sign.empty() ? kAtom : kNeg};
    }

    std::string args(Oxel* node)
    {
        std::string out;
        for (int i = 0; i < node->getNumChildren(); ++i)
            out += (i ? ", " : "") + operand(node->getChild(i), kAny);
        return paren(out);
    }

    Text power(Oxel* base, const std::string& exponent)
    {
        return {operand(base, kAtom) + "^{" + exponent + "}", kPow};
    }

    Text product(Oxel* a, Oxel* b)
    {
        std::string left = operand(a, kNeg), right = operand(b, kMul);
        if (left == right && dynamic_cast<OxVar*>(a))
            return {left + "^{2}", kPow};  // x x is x^{2}
        // 2 x and x y, but 2 \cdot 3 and x \cdot 2.
        bool juxtapose = std::isalpha(static_cast<unsigned char>(right[0])) ||
                         (right[0] == '\\' && right.compare(0, 5, "\\left") != 0);
        return {left + (juxtapose ? " " : " \\cdot ") + right, kMul};
    }

    Text write(Oxel* node)
    {
        const std::type_info& type = typeid(*node);
        if (auto* z = dynamic_cast<OxZahl*>(node))
            return number(z->number());
        if (auto* var = dynamic_cast<OxVar*>(node)) {
            std::string n = name(var->name().c_str());
            if (!var->bound())
                return {n, kAtom};
            return {n + " = " + operand(var->bound(), kLogic), kAny};
        }
        if (type == typeid(OxRand))
            return {"\\mathrm{rand}()", kAtom};
        if (type == typeid(OxGauss))
            return {"\\mathrm{gauss}()", kAtom};
        if (auto* dep = dynamic_cast<OxDepVar*>(node)) {
            std::string out = name(dep->node()->getName()) + "_{" + std::to_string(dep->component()) + "}";
            return {dep->getNumChildren() ? out + args(dep) : out, kAtom};
        }
        if (type == typeid(OxBranch))
            return {operand(node->getChild(0), kAny) + ";\\ " + operand(node->getChild(1), kAny), kAny};
        int n = node->getNumChildren();
        Oxel* a = n > 0 ? node->getChild(0) : nullptr;
        Oxel* b = n > 1 ? node->getChild(1) : nullptr;
        if (!a || (n == 2 && !b) || n > 2) {
            ok = false;
            return {"", kAtom};
        }
        if (type == typeid(OxMal)) {
            auto* z = dynamic_cast<OxZahl*>(a);
            if (z && z->number() == -1.0)
                return {"-" + operand(b, kMul), kNeg};
            return product(a, b);
        }
        if (type == typeid(OxDurch))
            return {"\\frac{" + operand(a, kAny) + "}{" + operand(b, kAny) + "}", kMul};
        if (type == typeid(OxHoch)) {
            auto* z = dynamic_cast<OxZahl*>(b);
            if (z && z->number() == 0.5)
                return {"\\sqrt{" + operand(a, kAny) + "}", kAtom};
            return power(a, operand(b, kAny));
        }
        // Functions that LaTeX writes around their argument.
        static const std::unordered_map<std::type_index, Around> around = {
            {typeid(OxSqroot), {"\\sqrt{", "}", kAtom}},
            {typeid(OxCbroot), {"\\sqrt[3]{", "}", kAtom}},
            {typeid(OxExp), {"e^{", "}", kPow}},
            {typeid(OxBetrag), {"\\left|", "\\right|", kAtom}},
            {typeid(OxCeil), {"\\left\\lceil ", "\\right\\rceil", kAtom}},
            {typeid(OxFloor), {"\\left\\lfloor ", "\\right\\rfloor", kAtom}},
        };
        auto wrap = around.find(type);
        if (wrap != around.end())
            return {wrap->second.before + operand(a, kAny) + wrap->second.after, wrap->second.level};
        if (type == typeid(OxNot)) {
            if (typeid(*a) == typeid(OxEqual))
                return {operand(a->getChild(0), kAdd) + " \\neq " + operand(a->getChild(1), kAdd),
                        kCompare};
            return {"\\neg " + operand(a, kPow), kNeg};
        }
        auto in = infixes().find(type);
        if (in != infixes().end() && n == 2) {
            const Infix& i = in->second;
            int right = i.level == kAdd ? kMul : i.level + 1;
            return {operand(a, i.level == kCompare ? i.level + 1 : i.level) + i.op + operand(b, right),
                    i.level};
        }
        auto op = operators().find(type);
        if (op != operators().end())
            return {op->second + args(node), kAtom};
        auto word = spelled().find(type);
        if (word != spelled().end())
            return {"\\mathrm{" + std::string(word->second) + "}" + args(node), kAtom};
        ok = false;  // a class of the host's own
        return {"", kAtom};
    }
};

}  // namespace

KxString oxelToLatex(Oxel* tree)
{
    if (!tree)
        return KxString();
    LatexWriter w;
    std::string text = w.operand(tree, kAny);
    return w.ok ? KxString(text.c_str()) : KxString();
}
