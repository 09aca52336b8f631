// Tests of the node core: error texts, the class table, child protocol and equality.
#include <gtest/gtest.h>

#include <initializer_list>
#include <typeinfo>

#include "node_probe.h"

template <class Cls> Oxel* xy() { return new Cls(V("x", 0), V("y", 1)); }

TEST(vOxError, TextsOfTheCodeTable)
{
    const struct { int code; const char* text; } rows[] = {
        {1, "Var Unknown"}, {2, "Unknown var instance request"}, {3, "Syntax"},
        {4, "Unknown var kill request"}, {5, "Diff impossible"}, {6, "Number of arguments changed"},
        {7, "Illegal option"}, {8, "Division by zero"}, {9, "Overflow"}, {10, "Underflow"},
        {11, "Illegal log argument"}, {12, "Radicand negativ"},  // spelled so on purpose
        {13, "Two operators"}, {14, "Arcus range"}, {100, "null inserted"}, {101, "low memory"},
        {102, "no memory"}, {666, "Illegal argument"},
        {0, "Unknown"}, {-1, "Unknown"},  // success and negative codes have no text
        {15, "Unknown"}, {99, "Unknown"}, {103, "Unknown"}, {665, "Unknown"},  // gaps, neighbours
    };
    for (const auto& r : rows)
        EXPECT_STREQ(r.text, vOxError(r.code)) << r.code;
    EXPECT_EQ(0, OxError);  // exported for hosts, never written by the library
}

// Code, priority, text, count and constancy of every class but the one-argument functions
// (in functions_test). Code 0, priority 10 and "OXEL" are the inherited defaults; count()
// brackets only on strictly greater priority, so it is two short per equal-priority child;
// constancy folds the children with AND from -1, so "constant" may be -1 or 1.
TEST(Nodes, CodePriorityTextCountAndConstancy)
{
    OxDepVarnode src("field", nullptr, nullptr);
    src.setUp(1, 1, 1, nullptr, nullptr);
    auto x = [] { return V("x", 0); };
    auto y = [] { return V("y", 1); };
    const char* cmp = "(x)OXEL(y)";  // comparisons and connectives: priority 10 brackets leaves
    const struct { Oxel* tree; int id, prio; const char* text; int count, vconst, pconstX; }
    rows[] = {
        {xy<OxPlus>(), 257, 1, "x+y", 3, 0, 0}, {xy<OxMinus>(), 258, 1, "x-y", 3, 0, 0},
        {xy<OxMal>(), 515, 2, "x*y", 3, 0, 0}, {xy<OxDurch>(), 516, 2, "x/y", 3, 0, 0},
        {xy<OxModulo>(), 517, 4, "x%y", 3, 0, 0},  // binds like a power
        {xy<OxHoch>(), 1029, 4, "x^y", 3, 0, 0}, {xy<OxBitOr>(), 34080, 1, "x|y", 3, 0, 0},
        {xy<OxBitXOr>(), 34082, 1, "x^y", 3, 0, 0},  // the power's symbol as well
        {xy<OxBitAnd>(), 34081, 1, "x&y", 3, 0, 0}, {xy<OxShiftLeft>(), 34083, 1, "x<<y", 4, 0, 0},
        {xy<OxShiftRight>(), 34084, 1, "x>>y", 4, 0, 0}, {xy<OxOr>(), 0, 10, cmp, 6, 0, 0},
        {xy<OxLess>(), 0, 10, cmp, 6, 0, 0}, {xy<OxLessEqual>(), 0, 10, cmp, 6, 0, 0},
        {xy<OxGreater>(), 0, 10, cmp, 6, 0, 0}, {xy<OxGreaterEqual>(), 0, 10, cmp, 6, 0, 0},
        {xy<OxEqual>(), 0, 10, cmp, 6, 0, 0}, {xy<OxAnd>(), 0, 10, cmp, 6, 0, 0},
        {new OxNot(y()), 0, 10, "OXEL(y)", 7, 0, 1}, {xy<OxBranch>(), 21, 1, "xBy", 3, 0, 0},
        {xy<OxArctan2>(), 34087, 3, "xatan2y", 7, 0, 0},  // two arguments print infix
        {xy<OxCopysign>(), 34091, 3, "xcopysigny", 10, 0, 0},
        {xy<OxDrem>(), 34093, 3, "xdremy", 6, 0, 0}, {xy<OxJn>(), 34101, 3, "xjny", 4, 0, 0},
        {xy<OxFmod>(), 34096, 3, "xfmody", 6, 0, 0}, {xy<OxHypot>(), 34098, 3, "xhypoty", 7, 0, 0},
        {xy<OxYn>(), 34111, 3, "xyny", 4, 0, 0}, {xy<OxMax>(), 34112, 3, "xmaxy", 5, 0, 0},
        {xy<OxMin>(), 34113, 3, "xminy", 5, 0, 0},
        {x(), 12, 10, "x", 1, 0, 0}, {new OxVar(0, nullptr), 12, 10, "", 0, 0, 1},
        {new OxVar(0, "a", N(5)), 12, 10, "a", 1, 0, 1},  // never constant; only the name prints
        {new OxVar(0, "a", new OxMal(x(), N(2))), 12, 10, "a", 1, 0, 0},  // depends on x
        {new OxDepVar(&src, 0), 20, 10, "field", 5, 0, 1},  // neither arguments nor component
        {new OxRand(), 34059, 10, "rand()", 6, 0, 1},
        {new OxGauss(), 34060, 10, "", 0, -1, -1},  // default print; "gauss" shows in diff
        {N(2.5), 13, 10, "2.5", 3, -1, 1}, {N(0), 13, 10, "0", 1, -1, 1},
        {N(100), 13, 10, "100", 3, -1, 1},  // only fractional zeros go
        {N(-0.5), 13, 10, "(-0.5)", 6, -1, 1},  // negatives are bracketed
        {N(1234.5678), 13, 10, "1234.5678", 9, -1, 1},
        {N(1e-11), 13, 10, "0", 1, -1, 1},              // below the ten decimals
        {N(5e-11), 13, 10, "0.0000000001", 12, -1, 1},  // rounds up into the last decimal
        {N(-0.0), 13, 10, "-0", 2, -1, 1},              // not less than zero: no brackets
        {new OxMinus(x(), new OxMinus(y(), x())), 258, 1, "x-(y-x)", 5, 0, 0},  // equal priority
        {new OxMinus(new OxMinus(x(), y()), x()), 258, 1, "(x-y)-x", 5, 0, 0},
        {new OxPlus(new OxMal(y(), y()), N(2)), 257, 1, "y*y+2", 5, 0, 1},
        {new OxMal(new OxPlus(N(1), N(2)), y()), 515, 2, "(1+2)*y", 7, 0, 1},
        {new OxHoch(y(), new OxSinus(x())), 1029, 4, "y^(sin(x))", 10, 0, 0},  // 4 >= 3
        {new OxSinus(new OxCosinus(y())), 34054, 3, "sin(cos(y))", 11, 0, 1},
        {new OxBetrag(N(-2)), 0, 3, "abs((-2))", 9, -1, 1},  // the number brings its brackets
        {new OxPlus(N(1), N(2)), 257, 1, "1+2", 3, -1, 1},
        {new OxPlus(new OxRand(), N(1)), 257, 1, "rand()+1", 8, 0, 1},
    };
    for (const auto& r : rows) {
        EXPECT_EQ(r.id, r.tree->identify()) << r.text;
        EXPECT_EQ(r.prio, r.tree->priority()) << r.text;
        EXPECT_EQ(r.text, oxelToString(r.tree));
        EXPECT_EQ(r.count, r.tree->count()) << r.text;
        EXPECT_EQ(r.vconst, r.tree->vconstant()) << r.text;
        EXPECT_EQ(r.pconstX, r.tree->pconstant("x")) << r.text;
        Oxel* copy = r.tree->dup();  // deep: same class, new children
        EXPECT_EQ(typeid(*r.tree), typeid(*copy)) << r.text;
        EXPECT_TRUE(!r.tree->getNumChildren() || r.tree->getChild(0) != copy->getChild(0));
        delete copy;
        delete r.tree;
    }
}

TEST(Bases, ChildProtocol)
{
    OxSinus s(V("x"));
    OxMinus m(V("a"), V("b"));
    Oxel *arg = s.getChild(0), *right = m.getChild(1);
    s.setChild(1, nullptr);  // out of range: ignored
    m.setChild(2, nullptr);
    EXPECT_TRUE(arg == s.getChild(0) && right == m.getChild(1));
    EXPECT_TRUE(!s.getChild(1) && !m.getChild(2) && !m.getChild(-1));
    m.setChild(1, nullptr);  // not destroyed: the caller still owns it
    EXPECT_EQ(2, m.getNumChildren());  // null slots still count
    delete right;
    EXPECT_EQ(1, OxBranch(nullptr, V("b")).getNumChildren());  // only present statements count
}

// Numbers by value, variables by index, sums, products and sequences deeply in either order,
// dependent variables by directions per dimension, the rest by code and child identity.
TEST(Equality, OwnAndDefaultRules)
{
    OxDepVarnode src("g", nullptr, nullptr);
    src.setUp(2, 1, 3, nullptr, nullptr);
    int xy[] = {0, 1}, yx[] = {1, 0}, xx[] = {0, 0};
    auto dv = [&](int comp, int* dims, int yIndex) {
        Oxel* kids[] = {V("x", 0), V("y", yIndex)};
        return new OxDepVar(&src, comp, 2, dims, kids);
    };
    auto a = [] { return V("a", 0); };
    auto b = [] { return V("b", 1); };
    const struct { Oxel* l; Oxel* r; int equal; } rows[] = {  // null r: compared with itself
        {N(0.5), N(0.5), 1}, {N(0.5), N(0.5000000001), 0},  // no tolerance
        {N(NAN), nullptr, 0},                                // NaN equals nothing, itself included
        {N(0), V("x"), 0},                                   // different kinds
        {V("p", 2), V("q", 2), 1}, {V("p", 2), V("p", 3), 0},  // names are labels only
        {new OxPlus(a(), b()), new OxPlus(b(), a()), 1},  // sums and products in either order
        {new OxMal(a(), b()), new OxMal(b(), a()), 1},
        {new OxPlus(a(), b()), new OxMal(a(), b()), 0},
        {new OxPlus(a(), a()), new OxPlus(a(), b()), 0},
        {new OxMinus(a(), b()), new OxMinus(a(), b()), 0},  // the rest: children by identity
        {new OxMinus(a(), b()), nullptr, 1}, {new OxSinus(a()), new OxSinus(a()), 0},
        {new OxBranch(a(), b()), new OxBranch(b(), a()), 1},  // statement order ignored
        {dv(0, xy, 1), dv(0, yx, 1), 1},  // mixed partials in either order
        {dv(0, xy, 1), dv(0, xx, 1), 0},
        {dv(0, xy, 1), dv(1, xy, 1), 0},  // another component
        {dv(0, xy, 1), dv(0, xy, 2), 0},  // another argument
    };
    for (const auto& r : rows) {
        EXPECT_EQ(r.equal, *r.l == (r.r ? *r.r : *r.l)) << "row " << &r - rows;
        delete r.l;
        delete r.r;
    }
    // Code 0 and the same child objects: a comparison cannot tell < from >, nor abs from not.
    OxVar y(1, "y"), z(2, "z");
    OxLess lt(&y, &z);
    OxGreater gt(&y, &z);
    OxBetrag absY(&y);
    OxNot notY(&y);
    EXPECT_TRUE(lt == gt && absY == notY);
    for (Oxel* n : std::initializer_list<Oxel*>{&lt, &gt, &absY, &notY}) {  // hand children back
        n->setChild(0, nullptr);
        n->setChild(1, nullptr);
    }
}
