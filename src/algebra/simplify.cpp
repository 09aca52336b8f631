// Simplification: constant folding and the rewriting rules of the arithmetic operators.
#include <oxel/nodes.h>

Oxel* Oxel::simplify()
{
    if (vconstant()) {
        int scratch = 0;  // errors of a folded constant are dropped
        return new OxZahl(value(nullptr, scratch));
    }
    return doSimplify();
}

Oxel* Oxel::doSimplify()
{
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

// Placeholders until the rule tables land: the generic pass.
Oxel* OxPlus::doSimplify() { return Oxel::doSimplify(); }
Oxel* OxMinus::doSimplify() { return Oxel::doSimplify(); }
Oxel* OxMal::doSimplify() { return Oxel::doSimplify(); }
Oxel* OxDurch::doSimplify() { return Oxel::doSimplify(); }
Oxel* OxBranch::doSimplify() { return Oxel::doSimplify(); }
Oxel* OxVar::doSimplify() { return dup(); }
Oxel* OxDepVar::doSimplify() { return dup(); }
