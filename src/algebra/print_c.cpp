// oxelToC: a tree written as a C99 expression over <math.h>.
#include <oxel/printing.h>

#include <cmath>
#include <cstdio>
#include <set>
#include <string>
#include <typeindex>
#include <unordered_map>
#include <vector>

#include <oxel/nodes.h>

namespace {

// C's levels for the operators written infix; everything else comes out as an atom.
enum Level { kAny, kAdd, kMul, kUnary, kAtom };

// Functions whose C spelling takes the same arguments; the others are written out below.
const std::unordered_map<std::type_index, const char*>& library()
{
    static const std::unordered_map<std::type_index, const char*> table = {
        {typeid(OxSinus), "sin"},     {typeid(OxCosinus), "cos"},   {typeid(OxTangens), "tan"},
        {typeid(OxSqroot), "sqrt"},   {typeid(OxLn), "log"},        {typeid(OxArctan), "atan"},
        {typeid(OxArcsin), "asin"},   {typeid(OxArccos), "acos"},   {typeid(OxExp), "exp"},
        {typeid(OxErf), "erf"},       {typeid(OxErfc), "erfc"},     {typeid(OxBetrag), "fabs"},
        {typeid(OxArccosh), "acosh"}, {typeid(OxArcsinh), "asinh"}, {typeid(OxArctanh), "atanh"},
        {typeid(OxCbroot), "cbrt"},   {typeid(OxCeil), "ceil"},     {typeid(OxCosh), "cosh"},
        {typeid(OxExpm1), "expm1"},   {typeid(OxFloor), "floor"},   {typeid(OxJ0), "j0"},
        {typeid(OxJ1), "j1"},         {typeid(OxLog10), "log10"},   {typeid(OxRint), "rint"},
        {typeid(OxSinh), "sinh"},     {typeid(OxTanh), "tanh"},     {typeid(OxTrunc), "trunc"},
        {typeid(OxY0), "y0"},         {typeid(OxY1), "y1"},         {typeid(OxArctan2), "atan2"},
        {typeid(OxCopysign), "copysign"}, {typeid(OxDrem), "remainder"},
        {typeid(OxFmod), "fmod"},     {typeid(OxHoch), "pow"},
    };
    return table;
}

// Templates over the operands' texts A and B (each already an atom): truth values as 1.0/0.0,
// integers as C's int (the language's 32-bit conversion).
const std::unordered_map<std::type_index, const char*>& written()
{
    static const std::unordered_map<std::type_index, const char*> table = {
        {typeid(OxLess), "(A < B ? 1.0 : 0.0)"},
        {typeid(OxGreater), "(A > B ? 1.0 : 0.0)"},
        {typeid(OxLessEqual), "(A <= B ? 1.0 : 0.0)"},
        {typeid(OxGreaterEqual), "(A >= B ? 1.0 : 0.0)"},
        {typeid(OxEqual), "(A == B ? 1.0 : 0.0)"},
        {typeid(OxAnd), "(A > 1e-8 && B > 1e-8 ? 1.0 : 0.0)"},
        {typeid(OxOr), "(A > 1e-8 || B > 1e-8 ? 1.0 : 0.0)"},
        {typeid(OxNot), "(A < 1e-8 ? 1.0 : 0.0)"},
        {typeid(OxSgn), "(A > 0 ? 1.0 : A < 0 ? -1.0 : 0.0)"},
        {typeid(OxMax), "(A > B ? A : B)"},
        {typeid(OxMin), "(A < B ? A : B)"},
        {typeid(OxModulo), "(A - (double)(int)(A / B) * B)"},
        {typeid(OxHypot), "(double)hypotf((float)A, (float)B)"},
        {typeid(OxJn), "jn((int)rint(A), B)"},
        {typeid(OxYn), "yn((int)rint(A), B)"},
        {typeid(OxBitOr), "(double)((int)A | (int)B)"},
        {typeid(OxBitAnd), "(double)((int)A & (int)B)"},
        {typeid(OxBitXOr), "(double)((int)A ^ (int)B)"},
        {typeid(OxShiftLeft), "(double)(int)((unsigned)(int)A << ((int)B & 31))"},
        {typeid(OxShiftRight), "(double)((int)A >> ((int)B & 31))"},
    };
    return table;
}

struct Text {
    std::string s;
    int level;
};

class CWriter {
public:
    bool ok = true;

    // The statements of the top-level sequence: only there may an assignment stand, since C
    // leaves two assignments inside one expression unsequenced.
    explicit CWriter(Oxel* root)
    {
        std::vector<Oxel*> todo{root};
        while (!todo.empty()) {
            Oxel* n = todo.back();
            todo.pop_back();
            statements_.insert(n);
            if (n && typeid(*n) == typeid(OxBranch))
                for (int i = 0; i < n->getNumChildren(); ++i)
                    todo.push_back(n->getChild(i));
        }
    }

    // The node's text, bracketed when its level is below need.
    std::string operand(Oxel* node, int need)
    {
        if (!node) {
            ok = false;
            return "";
        }
        Text t = write(node);
        return t.level < need ? "(" + t.s + ")" : t.s;
    }

private:
    static std::string number(double v)
    {
        if (std::isnan(v))
            return "NAN";
        if (std::isinf(v))
            return v < 0 ? "-INFINITY" : "INFINITY";
        char buf[40];
        std::snprintf(buf, sizeof buf, "%.17g", v);
        std::string s = buf;
        if (s.find_first_of(".e") == std::string::npos)
            s += ".0";  // a double, so that 1/2 is no integer division
        return s;
    }

    Text infix(Oxel* node, const char* op, int level)
    {
        return {operand(node->getChild(0), level) + op + operand(node->getChild(1), level + 1),
                level};
    }

    Text fill(const std::string& pattern, Oxel* node)
    {
        std::string a = operand(node->getChild(0), kAtom);
        std::string b = node->getNumChildren() > 1 ? operand(node->getChild(1), kAtom) : "";
        std::string out;
        for (char c : pattern)
            out += c == 'A' ? a : c == 'B' ? b : std::string(1, c);
        return {out, kAtom};
    }

    Text write(Oxel* node)
    {
        const std::type_info& type = typeid(*node);
        if (auto* z = dynamic_cast<OxZahl*>(node)) {
            double v = z->number();
            return {number(v), std::signbit(v) && !std::isnan(v) ? kUnary : kAtom};
        }
        if (auto* var = dynamic_cast<OxVar*>(node)) {
            std::string name = var->name().c_str();
            if (!var->bound())
                return {name, kAtom};
            if (!statements_.count(node))
                ok = false;
            return {"(" + name + " = " + operand(var->bound(), kAny) + ")", kAtom};
        }
        if (type == typeid(OxRand))
            return {"((double)rand() / RAND_MAX)", kAtom};
        if (type == typeid(OxBranch)) {
            if (node->getNumChildren() != 2)
                ok = false;
            return {"(" + operand(node->getChild(0), kAny) + ", " +
                        operand(node->getChild(1), kAny) + ")",
                    kAtom};
        }
        int n = node->getNumChildren();
        if (n < 1 || n > 2 || !dynamic_cast<OxBinary*>(node) == (n == 2) ||
            !node->getChild(0) || (n == 2 && !node->getChild(1))) {
            ok = false;  // gauss(), dependent variables, a class of the host's own
            return {"", kAtom};
        }
        if (type == typeid(OxPlus))
            return infix(node, " + ", kAdd);
        if (type == typeid(OxMinus))
            return infix(node, " - ", kAdd);
        if (type == typeid(OxDurch))
            return infix(node, " / ", kMul);
        if (type == typeid(OxMal)) {
            auto* z = dynamic_cast<OxZahl*>(node->getChild(0));
            if (!z || z->number() != -1.0)
                return infix(node, " * ", kMul);
            std::string x = operand(node->getChild(1), kUnary);
            return {(x[0] == '-' ? "- " : "-") + x, kUnary};  // "--" would decrement
        }
        if (type == typeid(OxNot)) {
            Oxel* eq = node->getChild(0);
            if (typeid(*eq) == typeid(OxEqual))
                return fill("(A != B ? 1.0 : 0.0)", eq);
        }
        auto call = library().find(type);
        if (call != library().end()) {
            std::string out = std::string(call->second) + "(" + operand(node->getChild(0), kAny);
            if (n == 2)
                out += ", " + operand(node->getChild(1), kAny);
            return {out + ")", kAtom};
        }
        auto pattern = written().find(type);
        if (pattern != written().end())
            return fill(pattern->second, node);
        ok = false;
        return {"", kAtom};
    }

    std::set<Oxel*> statements_;
};

}  // namespace

KxString oxelToC(Oxel* tree)
{
    if (!tree)
        return KxString();
    CWriter w(tree);
    std::string text = w.operand(tree, kAny);
    return w.ok ? KxString(text.c_str()) : KxString();
}
