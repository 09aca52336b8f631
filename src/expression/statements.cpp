// OxelExpression's derivatives written as statements over their shared parts.
#include <oxel/expression.h>

#include <functional>
#include <memory>
#include <unordered_set>

#include "algebra/dag.h"
#include "algebra/statements.h"
#include "core/deep.h"
#include "nodes/words.h"

KxString OxelExpression::derivativeStatements(const char* var, std::string* why) const
{
    return statementsOf(var, false, false, why);
}

KxString OxelExpression::partialStatements(const char* var, bool normalized,
                                           std::string* why) const
{
    return statementsOf(var, true, normalized, why);
}

KxString OxelExpression::statementsOf(const char* var, bool partialForm, bool normalized,
                                      std::string* why) const
{
    auto refuse = [why](const std::string& reason) {
        if (why)
            *why = reason;
        return KxString();
    };
    if (!root_)
        return refuse("no formula");
    if (varIndex(var) < 0)
        return refuse("unknown variable '" + std::string(var ? var : "") + "' (neither a "
                      "declared variable nor an alias)");
    const std::string name = varName(static_cast<unsigned>(varIndex(var)));
    if (!oxd::Graph::represents(root_)) {  // copies of such nodes are no values: the trees
        std::string reason;
        std::unique_ptr<OxelExpression> d(partialForm ? partial(var, &reason) : derivative(var));
        if (d && normalized)
            d.reset(d->normalized());
        if (!d)
            return refuse(!reason.empty() ? reason : "no derivative by '" + name + "' can be "
                          "formed within the node budget");
        return d->toFormula();
    }
    oxd::Graph graph({name});
    Oxel* copy = nullptr;
    oxs::withStackFor(oxelDepth(root_), [&] { copy = root_->dup(); });
    const std::unique_ptr<Oxel, void (*)(Oxel*)> f(graph.take(copy), &oxelDestroy);
    long nodes = oxelNodeBudget();
    const std::unique_ptr<Oxel, void (*)(Oxel*)> d(graph.partial(f.get(), 0, &nodes, partialForm),
                                                   &oxelDestroy);
    if (!d) {
        if (nodes == 0)
            return refuse("the derivative by '" + name + "' needs more nodes than the node "
                          "budget (" + std::to_string(oxelNodeBudget()) + "), even shared");
        std::string reason;  // the trees name the operation without a rule
        if (partialForm && !std::unique_ptr<OxelExpression>(partial(var, &reason)))
            return refuse(reason);
        return refuse("no derivative by '" + name + "' can be formed: the formula uses an "
                      "operation without one");
    }
    // Fresh names: none that the expression declares, assigns or aliases.
    std::unordered_set<std::string> taken;
    for (int i = 0; i < numVars(); ++i)
        taken.insert(varName(static_cast<unsigned>(i)));
    KxHashTableIterator<KxString, KxString> it(aliases_);
    KxString alias, target;
    while (it.next(alias, target))
        taken.insert(alias.c_str());
    long counter = 0;
    const std::function<std::string()> fresh = [&] {
        for (;;) {
            std::string n = "t" + std::to_string(++counter);
            if (!taken.count(n) && oxw::isPlainName(n.c_str()))
                return n;
        }
    };
    std::string text;
    if (!oxd::writeStatements(d.get(), fresh, normalized, &text))
        return refuse(normalized ? "a statement's normal form needs more nodes than the node "
                                   "budget (" + std::to_string(oxelNodeBudget()) + ")"
                                 : "a part has no formula text");
    return KxString(text.c_str());
}
