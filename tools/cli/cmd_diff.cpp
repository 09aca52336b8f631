// oxel diff: the derivative of a formula as a formula.
#include "common.h"

#include <cstdio>
#include <memory>

#include "session.h"

namespace oxcli {

int runDiff(const Args& a)
{
    rejectOptions(a, kSimplify | kTree | kFormat | kPasses);
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
    // Simplified, the derivative is the partial one: independent parts are 0 from the start.
    std::string why;
    std::unique_ptr<OxelExpression> d(a.simplify ? s.expression().partial(var.c_str(), &why)
                                                 : s.expression().derivative(var.c_str()));
    if (!d) {
        if (why.empty())
            why = "an operation without one, or beyond the node budget (--budget)";
        std::fprintf(stderr, "oxel: no derivative with respect to %s can be formed: %s\n",
                     shown(var).c_str(), why.c_str());
        return kNoDerivative;
    }
    if (a.simplify) {
        std::unique_ptr<OxelExpression> simple(simplifiedAs(a, *d));
        if (!simple) {
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
