// oxelToC and oxelToCFunction: a tree written as a C99 expression or function over <math.h>.
#include <oxel/printing.h>

#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <set>
#include <string>
#include <typeindex>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include <oxel/nodes.h>

#include "algebra/print_walk.h"

namespace {

using oxpw::Text;

// C's levels for the operators written infix; everything else comes out as an atom.
enum Level { kAny, kAdd, kMul, kUnary, kAtom };

// Each function's C spelling from its row (a <math.h> function with the same arguments, or a
// pattern over the operands' texts A and B); pow is an operator of the language.
const oxpw::ByClass& functions()
{
    static const oxpw::ByClass table = [] {
        oxpw::ByClass t = oxpw::functionField(oxpw::FunctionField::kC);
        t[typeid(OxHoch)] = "pow";
        return t;
    }();
    return table;
}

// Patterns of the other operators: truth values as 1.0/0.0, integers as C's int (the
// language's 32-bit conversion).
const std::unordered_map<std::type_index, const char*>& operators()
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
        {typeid(OxModulo), "(A - (double)(int)(A / B) * B)"},
        {typeid(OxBitOr), "(double)((int)A | (int)B)"},
        {typeid(OxBitAnd), "(double)((int)A & (int)B)"},
        {typeid(OxBitXOr), "(double)((int)A ^ (int)B)"},
        {typeid(OxShiftLeft), "(double)(int)((unsigned)(int)A << ((int)B & 31))"},
        {typeid(OxShiftRight), "(double)((int)A >> ((int)B & 31))"},
    };
    return table;
}

// Names a variable may not keep in C: the keywords, what <math.h> declares or defines (with
// the X/Open and GNU additions), and what the written-out forms use from <stdlib.h>.
bool reservedInC(const std::string& name)
{
    static const std::unordered_set<std::string> words = {
        "auto", "break", "case", "char", "const", "continue", "default", "do", "double", "else",
        "enum", "extern", "float", "for", "goto", "if", "inline", "int", "long", "register",
        "restrict", "return", "short", "signed", "sizeof", "static", "struct", "switch",
        "typedef", "union", "unsigned", "void", "volatile", "while", "_Bool", "_Complex",
        "_Imaginary", "acos", "acosh", "asin", "asinh", "atan", "atan2", "atanh", "cbrt", "ceil",
        "copysign", "cos", "cosh", "erf", "erfc", "exp", "exp2", "expm1", "fabs", "fdim",
        "floor", "fma", "fmax", "fmin", "fmod", "frexp", "hypot", "ilogb", "ldexp", "lgamma",
        "llrint", "llround", "log", "log10", "log1p", "log2", "logb", "lrint", "lround", "modf",
        "nan", "nearbyint", "nextafter", "nexttoward", "pow", "remainder", "remquo", "rint",
        "round", "scalbln", "scalbn", "sin", "sinh", "sqrt", "tan", "tanh", "tgamma", "trunc",
        "j0", "j1", "jn", "y0", "y1", "yn", "gamma", "signgam", "drem", "finite", "scalb",
        "significand", "exp10", "pow10", "sincos", "isinf", "isnan", "isfinite", "isnormal",
        "signbit", "fpclassify", "isgreater", "isgreaterequal", "isless", "islessequal",
        "islessgreater", "isunordered", "float_t", "double_t", "math_errhandling", "rand",
        "RAND_MAX", "NULL"};
    if (words.count(name))
        return true;
    // Every function also comes as float and long double (sinf, sinl).
    const char last = name.empty() ? 0 : name.back();
    if ((last == 'f' || last == 'l') && words.count(name.substr(0, name.size() - 1)))
        return true;
    // Macros: INFINITY, NAN, HUGE_VAL*, FP_*, M_* (constants), MATH_ERR*; none ends in '_'.
    return name == "INFINITY" || name == "NAN" ||
           (last != '_' && (name.compare(0, 8, "HUGE_VAL") == 0 || name.compare(0, 3, "FP_") == 0 ||
                            name.compare(0, 2, "M_") == 0 || name.compare(0, 8, "MATH_ERR") == 0));
}

// The statements of the top-level sequence, first to last.
std::vector<Oxel*> statementsOf(Oxel* root)
{
    std::vector<Oxel*> out, todo{root};
    while (!todo.empty()) {
        Oxel* n = todo.back();
        todo.pop_back();
        if (n && typeid(*n) == typeid(OxBranch)) {
            for (int i = n->getNumChildren(); i-- > 0;)
                todo.push_back(n->getChild(i));
        } else {
            out.push_back(n);
        }
    }
    return out;
}

class CWriter {
public:
    bool ok = true;
    oxpw::Rope rope;

    // Only in the top-level sequence may an assignment stand, since C leaves two assignments
    // inside one expression unsequenced. names: the parameters, if any.
    CWriter(Oxel* root, const std::vector<std::string>& names)
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
        std::unordered_set<std::string> taken(names.begin(), names.end());
        todo.assign(1, root);
        while (!todo.empty()) {
            Oxel* n = todo.back();
            todo.pop_back();
            if (auto* v = dynamic_cast<OxVar*>(n))
                taken.insert(v->name().c_str());
            for (int i = 0; n && i < n->getNumChildren(); ++i)
                todo.push_back(n->getChild(i));
        }
        // A reserved name takes underscores until it is neither reserved nor another's name.
        for (const std::string& name : taken) {
            if (!reservedInC(name))
                continue;
            std::string c = name + "_";
            while (taken.count(c) || reservedInC(c))
                c += "_";
            renamed_[name] = c;
        }
    }

    // The variable's name in C.
    std::string nameOf(const char* name) const
    {
        auto r = renamed_.find(name);
        return r == renamed_.end() ? std::string(name) : r->second;
    }

    std::string expression(Oxel* node)
    {
        if (!node) {
            ok = false;
            return "";
        }
        return rope.str(oxpw::foldTree(node, *this).id);
    }

    // The walk's callbacks (oxpw::foldTree).
    void operands(Oxel* node, std::vector<Oxel*>& out)
    {
        switch (formOf(node)) {
        case kBound:
            out.push_back(static_cast<OxVar*>(node)->bound());
            break;
        case kSequence:
        case kTwo:
            out.push_back(node->getChild(0));
            out.push_back(node->getChild(1));
            break;
        case kOne:
            out.push_back(node->getChild(0));
            break;
        case kNotEqual: {
            Oxel* eq = node->getChild(0);
            out.push_back(eq->getChild(0));
            if (eq->getNumChildren() > 1)
                out.push_back(eq->getChild(1));
            break;
        }
        default:
            break;
        }
    }

    Text missing()
    {
        ok = false;
        return {rope.literal(""), kAtom};
    }

    Text combine(Oxel* node, const Text* t)
    {
        const std::type_info& type = typeid(*node);
        switch (formOf(node)) {
        case kNumber: {
            double v = static_cast<OxZahl*>(node)->number();
            return {rope.text(number(v)), std::signbit(v) && !std::isnan(v) ? kUnary : kAtom};
        }
        case kPlain:
            return {rope.text(nameOf(static_cast<OxVar*>(node)->name().c_str())), kAtom};
        case kBound:
            if (!statements_.count(node))
                ok = false;
            return {join({lit("("), rope.text(nameOf(static_cast<OxVar*>(node)->name().c_str())),
                          lit(" = "), operand(t[0], kAny), lit(")")}),
                    kAtom};
        case kRand:
            return {lit("((double)rand() / RAND_MAX)"), kAtom};
        case kSequence:
            if (node->getNumChildren() != 2)
                ok = false;
            return {join({lit("("), operand(t[0], kAny), lit(", "), operand(t[1], kAny), lit(")")}),
                    kAtom};
        case kNotEqual:
            return fill("(A != B ? 1.0 : 0.0)", t, node->getChild(0)->getNumChildren());
        case kFail:
            ok = false;  // gauss(), dependent variables, a class of the host's own
            return {lit(""), kAtom};
        default:
            break;
        }
        if (type == typeid(OxPlus))
            return infix(t, " + ", kAdd);
        if (type == typeid(OxMinus))
            return infix(t, " - ", kAdd);
        if (type == typeid(OxDurch))
            return infix(t, " / ", kMul);
        if (type == typeid(OxMal)) {
            auto* z = dynamic_cast<OxZahl*>(node->getChild(0));
            if (!z || z->number() != -1.0)
                return infix(t, " * ", kMul);
            oxpw::Id x = operand(t[1], kUnary);
            return {join({lit(rope.first(x) == '-' ? "- " : "-"), x}), kUnary};  // not "--"
        }
        const int n = node->getNumChildren();
        auto f = functions().find(type);
        const char* spelling = f != functions().end() ? f->second : operators().at(type);
        if (std::strchr(spelling, '('))
            return fill(spelling, t, n);
        oxpw::Id parts[] = {lit(spelling), lit("("), operand(t[0], kAny), lit(", "),
                            n == 2 ? operand(t[1], kAny) : lit(""), lit(")")};
        if (n != 2)
            parts[3] = parts[5];  // sin(a)
        return {rope.join(parts, n == 2 ? 6 : 4), kAtom};
    }

private:
    // How a node is written, and so which operands it needs.
    enum Form { kNumber, kPlain, kBound, kRand, kSequence, kNotEqual, kOne, kTwo, kFail };

    Form formOf(Oxel* node) const
    {
        const std::type_info& type = typeid(*node);
        if (dynamic_cast<OxZahl*>(node))
            return kNumber;
        if (auto* var = dynamic_cast<OxVar*>(node))
            return var->bound() ? kBound : kPlain;
        if (type == typeid(OxRand))
            return kRand;
        if (type == typeid(OxBranch))
            return kSequence;
        int n = node->getNumChildren();
        if (n < 1 || n > 2 || !dynamic_cast<OxBinary*>(node) == (n == 2) ||
            !node->getChild(0) || (n == 2 && !node->getChild(1)))
            return kFail;
        const Oxel& first = *node->getChild(0);
        if (type == typeid(OxNot) && typeid(first) == typeid(OxEqual))
            return kNotEqual;
        if (type == typeid(OxPlus) || type == typeid(OxMinus) || type == typeid(OxDurch) ||
            type == typeid(OxMal) || functions().count(type) || operators().count(type))
            return n == 2 ? kTwo : kOne;
        return kFail;
    }

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

    oxpw::Id lit(const char* s) { return rope.literal(s); }
    oxpw::Id join(std::initializer_list<oxpw::Id> parts) { return rope.join(parts); }

    // The operand's text, bracketed when its level is below need.
    oxpw::Id operand(const Text& t, int need)
    {
        return t.level < need ? join({lit("("), t.id, lit(")")}) : t.id;
    }

    Text infix(const Text* t, const char* op, int level)
    {
        return {join({operand(t[0], level), lit(op), operand(t[1], level + 1)}), level};
    }

    // The pattern with A and B replaced by the operands (n of them) as atoms.
    Text fill(const char* pattern, const Text* t, int n)
    {
        oxpw::Id a = operand(t[0], kAtom), b = n > 1 ? operand(t[1], kAtom) : lit("");
        std::vector<oxpw::Id> parts;
        std::string run;
        for (const char* c = pattern; *c; ++c) {
            if (*c != 'A' && *c != 'B') {
                run += *c;
                continue;
            }
            if (!run.empty())
                parts.push_back(rope.text(run));
            run.clear();
            parts.push_back(*c == 'A' ? a : b);
        }
        if (!run.empty())
            parts.push_back(rope.text(run));
        return {rope.join(parts.data(), parts.size()), kAtom};
    }

    std::unordered_set<Oxel*> statements_;
    std::unordered_map<std::string, std::string> renamed_;
};

bool identifier(const char* s)
{
    if (!s || !(std::isalpha(static_cast<unsigned char>(*s)) || *s == '_'))
        return false;
    for (; *s; ++s)
        if (!std::isalnum(static_cast<unsigned char>(*s)) && *s != '_')
            return false;
    return true;
}

}  // namespace

KxString oxelToC(Oxel* tree)
{
    if (!tree)
        return KxString();
    CWriter w(tree, {});
    std::string text = w.expression(tree);
    return w.ok ? KxString(text.c_str()) : KxString();
}

KxString oxelToCFunction(Oxel* tree, const char* name, const char* const* params, int numParams)
{
    if (!tree || !identifier(name) || reservedInC(name) || numParams < 0 ||
        (numParams > 0 && !params))
        return KxString();
    std::vector<std::string> names;
    for (int i = 0; i < numParams; ++i) {
        if (!identifier(params[i]))
            return KxString();
        names.push_back(params[i]);
    }
    CWriter w(tree, names);
    std::unordered_set<std::string> declared(names.begin(), names.end()), assigned;
    std::string head = std::string("double ") + name + "(", body;
    for (size_t i = 0; i < names.size(); ++i)
        head += (i ? ", double " : "double ") + w.nameOf(names[i].c_str());
    if (names.empty())
        head += "void";
    const std::vector<Oxel*> statements = statementsOf(tree);
    for (size_t i = 0; i < statements.size(); ++i) {
        Oxel* s = statements[i];
        auto* var = dynamic_cast<OxVar*>(s);
        const bool last = i + 1 == statements.size();
        if (var && var->bound()) {
            const std::string target = w.nameOf(var->name().c_str());
            body += "    " + target + " = " + w.expression(var->bound()) + ";\n";
            if (!declared.count(var->name().c_str()))
                assigned.insert(target);
            if (last)
                body += "    return " + target + ";\n";
        } else {
            const std::string value = w.expression(s);
            body += last ? "    return " + value + ";\n" : "    (void)(" + value + ");\n";
        }
    }
    // Every variable read must be a parameter or assigned in the body.
    std::vector<Oxel*> todo{tree};
    while (!todo.empty()) {
        Oxel* n = todo.back();
        todo.pop_back();
        auto* v = dynamic_cast<OxVar*>(n);
        if (v && !declared.count(v->name().c_str()) && !assigned.count(w.nameOf(v->name().c_str())))
            return KxString();
        for (int i = 0; n && i < n->getNumChildren(); ++i)
            todo.push_back(n->getChild(i));
    }
    if (!w.ok)
        return KxString();
    std::string locals;
    for (const std::string& a : std::set<std::string>(assigned.begin(), assigned.end()))
        locals += "    double " + a + " = 0.0;\n";
    return KxString((head + ")\n{\n" + locals + body + "}\n").c_str());
}
