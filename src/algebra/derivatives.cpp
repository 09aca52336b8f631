// Derivatives of leaves, operators, the sequence node and dependent variables.
#include <cmath>
#include <memory>
#include <string>
#include <vector>

#include <oxel/formula.h>
#include <oxel/nodes.h>

#include "algebra/trees.h"
#include "core/deep.h"

using namespace oxd;

namespace {

// Exact test on purpose: only a derivative that folds to exactly 1.0 is dropped from a product.
bool isOne(Oxel* d)
{
    if (!d->vconstant())
        return false;
    int scratch = 0;
    return d->value(nullptr, scratch) == 1.0;
}

// d times rest, or rest alone when d is the number one (d is consumed either way).
Oxel* timesUnlessOne(Oxel* d, Oxel* rest)
{
    if (isOne(d)) {
        delete d;
        return rest;
    }
    return Mal(d, rest);
}

// rest times d, or rest alone when d is the number one (d is consumed either way).
Oxel* factorUnlessOne(Oxel* rest, Oxel* d)
{
    if (isOne(d)) {
        delete d;
        return rest;
    }
    return Mal(rest, d);
}

// The power part w * u^(w-1); a numeric exponent is folded into the new exponent.
Oxel* powerPart(Oxel* u, Oxel* w)
{
    if (w->vconstant()) {
        int scratch = 0;
        double c = w->value(nullptr, scratch);
        Oxel* h = Hoch(C(u), N(c - 1));
        if (c == 1.0)
            return h;
        return Mal(C(w), h);
    }
    return Mal(C(w), Hoch(C(u), Minus(C(w), N(1.0))));
}

}  // namespace

// ---------------------------------------------------------------- leaves

Oxel* OxZahl::diff(const char* /*var*/) { return N(0.0); }

// No chain rule through a bound expression: an assigned variable that depends on var gives 1.
Oxel* OxVar::diff(const char* var) { return N(pconstant(var) ? 0.0 : 1.0); }

Oxel* OxRand::diff(const char* /*var*/) { return dup(); }

// A statement sequence has no derivative, whatever its statements depend on.
Oxel* OxBranch::diff(const char* /*var*/) { return nullptr; }

// ---------------------------------------------------------------- operators without derivative

#define OXEL_NO_DIFF(Cls, ...) \
    Oxel* Cls::diff(const char* /*var*/) { return nullptr; }
OXEL_NO_DIFF(OxModulo)
OXEL_BITWISE_OPERATORS(OXEL_NO_DIFF)
#undef OXEL_NO_DIFF

// ---------------------------------------------------------------- arithmetic operators
// An operand independent of var is never differentiated, so one that has no derivative
// (a remainder, say) does no harm there.

Oxel* OxPlus::diff(const char* var)
{
    if (left_->pconstant(var))
        return oxd::D(right_, var);
    if (right_->pconstant(var))
        return oxd::D(left_, var);
    Oxel *du, *dv;
    if (!diffBoth(left_, right_, var, &du, &dv))
        return nullptr;
    return Plus(du, dv);
}

Oxel* OxMinus::diff(const char* var)
{
    if (left_->pconstant(var)) {
        Oxel* dv = oxd::D(right_, var);
        return dv ? Minus(N(0.0), dv) : nullptr;
    }
    if (right_->pconstant(var))
        return oxd::D(left_, var);
    Oxel *du, *dv;
    if (!diffBoth(left_, right_, var, &du, &dv))
        return nullptr;
    return Minus(du, dv);
}

Oxel* OxMal::diff(const char* var)
{
    if (left_->pconstant(var)) {
        Oxel* dv = oxd::D(right_, var);
        return dv ? Mal(C(left_), dv) : nullptr;
    }
    if (right_->pconstant(var)) {
        Oxel* du = oxd::D(left_, var);
        return du ? Mal(du, C(right_)) : nullptr;
    }
    Oxel *du, *dv;
    if (!diffBoth(left_, right_, var, &du, &dv))
        return nullptr;
    return Plus(Mal(du, C(right_)), Mal(C(left_), dv));
}

Oxel* OxDurch::diff(const char* var)
{
    if (left_->pconstant(var)) {
        Oxel* dv = oxd::D(right_, var);
        if (!dv)
            return nullptr;
        return Durch(Mal(N(-1.0), Mal(C(left_), dv)), Mal(C(right_), C(right_)));
    }
    if (right_->pconstant(var)) {
        Oxel* du = oxd::D(left_, var);
        return du ? Durch(du, C(right_)) : nullptr;
    }
    Oxel *du, *dv;
    if (!diffBoth(left_, right_, var, &du, &dv))
        return nullptr;
    return Durch(Minus(Mal(du, C(right_)), Mal(C(left_), dv)), Mal(C(right_), C(right_)));
}

// u^w: the power rule when only the base varies, the exponential rule when only the exponent
// does, and their sum when both do. A factor that is the number one is left out.
Oxel* OxHoch::diff(const char* var)
{
    Oxel* u = left_;
    Oxel* w = right_;
    if (!u->pconstant(var)) {
        if (w->pconstant(var)) {
            Oxel* du = oxd::D(u, var);
            if (!du)
                return nullptr;
            return timesUnlessOne(du, powerPart(u, w));
        }
        Oxel *du, *dw;
        if (!diffBoth(u, w, var, &du, &dw))
            return nullptr;
        Oxel* p = powerPart(u, w);
        Oxel* l = factorUnlessOne(new OxLn(C(u)), dw);
        Oxel* t1 = Mal(C(this), l);
        Oxel* t2 = timesUnlessOne(du, p);
        return Plus(t1, t2);
    }
    Oxel* dw = oxd::D(w, var);
    if (!dw)
        return nullptr;
    return Mal(C(this), factorUnlessOne(new OxLn(C(u)), dw));
}

// ---------------------------------------------------------------- dependent variables

// Chain rule over the arguments: the source differentiated along argument i, times the
// argument's derivative, summed. An argument without a derivative empties the sum built so
// far; later terms start it again.
Oxel* OxDepVar::diff(const char* var)
{
    if (nDiff_ >= node_->getNDiffLevels())
        return nullptr;
    if (numChildren_ <= 0)
        return N(0.0);  // no arguments: nothing the value could vary with

    std::vector<int> dims(diffDims_, diffDims_ + nDiff_);
    dims.push_back(0);
    std::vector<Oxel*> args(static_cast<size_t>(numChildren_));

    // A copy of this source, differentiated once more along argument `along`.
    auto partial = [&](int along) -> Oxel* {
        dims.back() = along;
        for (int k = 0; k < numChildren_; ++k)
            args[static_cast<size_t>(k)] = C(children_[k]);
        return new OxDepVar(node_, component_, nDiff_ + 1, dims.data(), args.data());
    };

    Oxel* d0 = oxd::D(children_[0], var);
    if (!d0)
        return nullptr;
    Oxel* sum = Mal(partial(0), d0);
    for (int i = 1; i < numChildren_; ++i) {
        Oxel* di = oxd::D(children_[i], var);
        if (!di) {
            delete sum;
            sum = nullptr;
            continue;
        }
        Oxel* term = Mal(partial(i), di);
        sum = sum ? Plus(sum, term) : term;
    }
    return sum;
}

thread_local long oxd::budget = oxd::kUnbounded;

namespace {

// A formula's text for a message, cut short when long.
std::string shortText(Oxel* node)
{
    std::string text = oxelToFormula(node).c_str();
    return text.size() > 60 ? text.substr(0, 57) + "..." : text;
}

}  // namespace

Oxel* oxd::boundedDiff(Oxel* tree, const char* var, long maxNodes, bool* tooLarge)
{
    const long depth = oxelDepth(tree);
    Oxel* d = nullptr;
    // The budget belongs to the thread that runs the rules.
    oxs::withStackFor(depth, [&] {
        std::unique_ptr<oxs::ConstancyMemo> memo;
        if (depth > oxs::kShallowDepth)
            memo.reset(new oxs::ConstancyMemo(tree, var));
        Bounded state(maxNodes, false);
        d = tree->diff(var);
        *tooLarge = budget == 0;
    });
    if (*tooLarge && d) {  // a rule that ignores a missing operand derivative kept a part
        oxelDestroy(d);
        d = nullptr;
    }
    return d;
}

Oxel* oxd::partialDiff(Oxel* tree, const char* var, long* nodes, std::string* why)
{
    const long depth = oxelDepth(tree);
    Oxel* d = nullptr;
    Oxel* missing = nullptr;
    bool tooLarge = false;
    oxs::withStackFor(depth, [&] {
        std::unique_ptr<oxs::ConstancyMemo> memo;
        if (depth > oxs::kShallowDepth)
            memo.reset(new oxs::ConstancyMemo(tree, var));
        Bounded state(*nodes, true);
        d = D(tree, var);
        tooLarge = budget == 0;
        *nodes = budget;
        missing = missingRule;
    });
    if ((tooLarge || missing) && d) {
        oxelDestroy(d);
        d = nullptr;
    }
    if (!d && why) {
        if (missing)
            *why = "'" + shortText(missing) + "' has no derivative";
        else if (tooLarge)
            *why = "the derivative by '" + std::string(var) + "' needs more nodes than the node "
                   "budget (" + std::to_string(oxelNodeBudget()) + ", oxelSetNodeBudget)";
        else
            *why = "no derivative by '" + std::string(var) + "' can be formed: the formula "
                   "uses an operation without one (%, a bitwise operator, floor, rint, trunc, "
                   "copysign, drem, fmod, jn or yn of a varying order, a ';' sequence, a "
                   "dependent variable beyond its derivative levels)";
    }
    return d;
}

Oxel* oxelDerivative(Oxel* tree, const char* var)
{
    bool tooLarge = false;
    return tree ? oxd::boundedDiff(tree, var, oxd::maxDerivativeNodes(), &tooLarge) : nullptr;
}
