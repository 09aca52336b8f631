// oxel print and oxel simplify: the parsed tree, as it is or simplified.
#include "common.h"

#include <cstdio>
#include <memory>

#include "session.h"

namespace oxcli {

// print and simplify differ only in what they do to the parsed tree before printing it, and
// in what they print by default.
int printTree(const Args& a, bool simplifyIt)
{
    rejectOptions(a, kFormat | (simplifyIt ? kOnce | kTree | kPasses : kTree));
    Formula f = formulaOf(a);
    Session s(a);
    declareArguments(s, a.positional, f.firstArg, true);
    s.declareNamesOf(f.text);
    if (!s.parse(f.text))
        return kParse;
    std::unique_ptr<OxelExpression> simple;
    if (simplifyIt) {
        simple.reset(simplifiedAs(a, s.expression()));
        if (!simple) {
            std::fprintf(stderr, "oxel: the simplified formula needs more nodes than the node "
                                 "budget (%ld, --budget)\n", oxelNodeBudget());
            return kNoDerivative;
        }
    }
    const OxelExpression& e = simple ? *simple : s.expression();
    printAs(a, e, e.root(), a.tree || !simplifyIt);
    return kOk;
}

int runSimplify(const Args& a) { return printTree(a, true); }
int runPrint(const Args& a) { return printTree(a, false); }

}  // namespace oxcli
