// oxel diff: the derivative of a formula as a formula.
#include "common.h"

#include <cstdio>
#include <memory>

#include "session.h"

namespace oxcli {
namespace {

// Whether the options ask for what the statements give: formula text, normal forms.
bool statementsServe(const Args& a)
{
    return !a.tree && !a.passes && a.function.empty() &&
           (a.format.empty() || a.format == "formula");
}

int noDerivative(const std::string& var, const std::string& why)
{
    std::fprintf(stderr, "oxel: no derivative with respect to %s can be formed: %s\n",
                 shown(var).c_str(), why.c_str());
    return kNoDerivative;
}

// The derivative as statements over its shared parts (the partial one, normalized part by part,
// with --simplify); false, with *why, where none can be formed.
bool printStatements(const Args& a, const OxelExpression& e, const std::string& var,
                     std::string* why)
{
    KxString text = a.simplify ? e.partialStatements(var.c_str(), true, why)
                               : e.derivativeStatements(var.c_str(), why);
    if (text.length() == 0)
        return false;
    writeOut(text.c_str(), static_cast<size_t>(text.length()));
    writeOut("\n", 1);
    return true;
}

}  // namespace

int runDiff(const Args& a)
{
    rejectOptions(a, kSimplify | kTree | kFormat | kPasses | kShared);
    if (a.shared && !statementsServe(a))
        usage("--shared writes formula text in normal forms: it excludes --tree, --passes, "
              "--function and --format other than formula");
    Formula f = formulaOf(a);
    if (a.positional.size() < f.firstArg + 1)
        usage("diff needs the variable to differentiate by");
    const std::string& var = checkedName(a.positional[f.firstArg], a.positional[f.firstArg]);
    Session s(a);
    s.declare(var);
    declareArguments(s, a.positional, f.firstArg + 1, true);
    s.declareNamesOf(f.text);
    if (!s.parse(f.text))
        return kParse;
    std::string why;
    if (a.shared)
        return printStatements(a, s.expression(), var, &why) ? kOk : noDerivative(var, why);
    // Where the tree is refused, the statements may still fit: they are printed instead when
    // the options allow, else the tree's refusal stands.
    std::string shared;
    auto statements = [&] { return statementsServe(a) && printStatements(a, s.expression(), var,
                                                                          &shared); };
    // Simplified, the derivative is the partial one: independent parts are 0 from the start.
    std::unique_ptr<OxelExpression> d(a.simplify ? s.expression().partial(var.c_str(), &why)
                                                 : s.expression().derivative(var.c_str()));
    if (!d) {
        if (statements())
            return kOk;
        if (why.empty())
            why = "an operation without one, or beyond the node budget (--budget)";
        return noDerivative(var, why);
    }
    if (a.simplify) {
        std::unique_ptr<OxelExpression> simple(simplifiedAs(a, *d));
        if (!simple) {
            d.reset();  // its memory goes to the statements
            if (statements())
                return kOk;
            std::fprintf(stderr, "oxel: the simplified derivative needs more nodes than the "
                                 "node budget (%ld, --budget)\n", oxelNodeBudget());
            return kNoDerivative;
        }
        d = std::move(simple);
    }
    printAs(a, *d, d->root(), a.tree);
    return kOk;
}

}  // namespace oxcli
