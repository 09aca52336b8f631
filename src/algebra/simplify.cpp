// Simplification: constant folding and the rewriting rules of the arithmetic operators.
#include <memory>

#include <oxel/nodes.h>

#include "core/deep.h"
#include "nodes/kinds.h"

namespace {

// Set while a simplification runs on this thread: only the outermost call sizes the stack.
thread_local bool simplifying = false;

struct Simplifying {
    Simplifying() { simplifying = true; }
    ~Simplifying() { simplifying = false; }
};

}  // namespace

Oxel* Oxel::simplify()
{
    if (__builtin_expect(!simplifying, 0)) {
        const long depth = oxelDepth(this);
        Oxel* result = nullptr;
        oxs::withStackFor(depth, [&] {
            Simplifying inside;
            std::unique_ptr<oxs::ConstancyMemo> memo;
            if (depth > oxs::kShallowDepth)
                memo.reset(new oxs::ConstancyMemo(this, nullptr));
            result = simplify();
        });
        return result;
    }
    if (vconstant()) {
        int scratch = 0;  // errors of a folded constant are dropped
        return new OxZahl(value(nullptr, scratch));
    }
    return doSimplify();
}

// Classes with a builder in the kind table make their result from the simplified children
// directly: the same tree as copying the node and then replacing each child, without copying
// every sub-tree once per level above it (which costs time quadratic in the depth of a chain
// such as !!!...!x).
Oxel* Oxel::doSimplify()
{
    const oxk::KindRow& row = oxk::row(oxk::kindOf(this));
    int n = getNumChildren();
    if (n == 1 && getChild(0) && row.make1) {
        return row.make1(getChild(0)->simplify());
    } else if (n == 2 && getChild(0) && getChild(1) && row.make2) {
        Oxel* a = getChild(0)->simplify();  // first child first: folding may draw gauss()
        Oxel* b = getChild(1)->simplify();
        return row.make2(a, b);
    }
    Oxel* copy = dup();
    int kids = getNumChildren();
    for (int i = 0; i < kids; ++i) {
        Oxel* s = getChild(i)->simplify();
        if (Oxel* old = copy->getChild(i))
            delete old;
        copy->setChild(i, s);
    }
    return copy;
}

// The operator rules below run once per node, children first; a node that a rule builds is
// not looked at again. Equality is the operands' own operator==, so "is zero" means an
// OxZahl holding exactly 0.0.

namespace {

bool isNumber(Oxel* node, double c)
{
    OxZahl scratch(c);
    return (*node == scratch) != 0;
}

bool isZero(Oxel* node) { return isNumber(node, 0.0); }
bool isOne(Oxel* node) { return isNumber(node, 1.0); }
bool same(Oxel* a, Oxel* b) { return (*a == *b) != 0; }

}  // namespace

Oxel* OxPlus::doSimplify()
{
    Oxel* a = left_->simplify();
    Oxel* b = right_->simplify();
    if (isZero(a)) {
        delete a;
        return b;
    }
    if (isZero(b)) {
        delete b;
        return a;
    }
    if (same(a, b)) {
        delete b;
        return new OxMal(new OxZahl(2.0), a);
    }
    return new OxPlus(a, b);
}

// No rule for 0 - b: it stays a subtraction.
Oxel* OxMinus::doSimplify()
{
    Oxel* a = left_->simplify();
    Oxel* b = right_->simplify();
    if (isZero(b)) {
        delete b;
        return a;
    }
    if (same(a, b)) {
        delete a;
        delete b;
        return new OxZahl(0.0);
    }
    return new OxMinus(a, b);
}

Oxel* OxMal::doSimplify()
{
    Oxel* a = left_->simplify();
    Oxel* b = right_->simplify();
    if (isZero(a) || isZero(b)) {
        delete a;
        delete b;
        return new OxZahl(0.0);
    }
    if (isOne(a)) {
        delete a;
        return b;
    }
    if (isOne(b)) {
        delete b;
        return a;
    }
    return new OxMal(a, b);
}

// Equal operands give 1 even when both are zero, as in (x*0)/(y*0); hosts rely on it.
Oxel* OxDurch::doSimplify()
{
    Oxel* a = left_->simplify();
    Oxel* b = right_->simplify();
    if (isZero(a) && !isZero(b)) {
        delete a;
        delete b;
        return new OxZahl(0.0);
    }
    if (isOne(b)) {
        delete b;
        return a;
    }
    if (same(a, b)) {
        delete a;
        delete b;
        return new OxZahl(1.0);
    }
    return new OxDurch(a, b);
}

// An absent statement slot stays absent.
Oxel* OxBranch::doSimplify()
{
    Oxel* first = first_ ? first_->simplify() : nullptr;
    Oxel* second = second_ ? second_->simplify() : nullptr;
    return new OxBranch(first, second);
}

// A copy of an assigned variable reads its slot instead of recomputing the assignment.
Oxel* OxVar::doSimplify() { return dup(); }

// The argument expressions of a dependent variable are left as they are.
Oxel* OxDepVar::doSimplify() { return dup(); }
