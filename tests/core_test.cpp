// Tests of the node core: error texts, the child protocol of the bases and the defaults.
#include <gtest/gtest.h>

#include <string>

#include "node_probe.h"

TEST(vOxError, TextsOfTheCodeTable)
{
    struct Row {
        int code;
        const char* text;
    } rows[] = {
        {8, "Division by zero"},
        {9, "Overflow"},
        {10, "Underflow"},
        {11, "Illegal log argument"},
        {12, "Radicand negativ"},  // spelled so on purpose
        {14, "Arcus range"},
        {666, "Illegal argument"},
        {0, "Unknown"},  // success has no text of its own
        {-1, "Unknown"},
        {15, "Unknown"},  // gaps and neighbours of the table
        {99, "Unknown"},
        {103, "Unknown"},
        {665, "Unknown"},
    };
    for (const Row& r : rows)
        EXPECT_STREQ(r.text, vOxError(r.code)) << r.code;
}

TEST(Bases, ChildIndicesOutOfRange)
{
    OxSinus s(new OxVar(0, "x"));
    Oxel* arg = s.getChild(0);
    EXPECT_EQ(nullptr, s.getChild(1));
    s.setChild(1, nullptr);
    EXPECT_EQ(arg, s.getChild(0));

    OxMinus m(new OxVar(0, "a"), new OxVar(1, "b"));
    Oxel* right = m.getChild(1);
    EXPECT_EQ(nullptr, m.getChild(2));
    EXPECT_EQ(nullptr, m.getChild(-1));
    m.setChild(2, nullptr);
    EXPECT_EQ(right, m.getChild(1));
    EXPECT_EQ(2, m.getNumChildren());

    // A replaced child is not destroyed: the caller still owns it.
    m.setChild(1, nullptr);
    delete right;
}

TEST(Defaults, ConstancyIsTheAndOfTheChildren)
{
    Oxel* t = new OxLess(new OxZahl(1), new OxVar(0, "x"));
    EXPECT_EQ(0, t->vconstant());
    EXPECT_EQ(0, t->pconstant("x"));
    EXPECT_NE(0, t->pconstant("y"));
    delete t;
    OxGauss g;
    EXPECT_NE(0, g.vconstant());  // no children: constant by default
}

TEST(Defaults, DiffWithoutARulePrintsAndCopies)
{
    OxGreater cmp(new OxZahl(1), new OxZahl(2));
    testing::internal::CaptureStdout();
    Oxel* d = cmp.diff("x");
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ("diff: Not yet implemented in OXEL.\n", out);
    ASSERT_NE(nullptr, d);
    EXPECT_NE(&cmp, d);
    int err = 0;
    EXPECT_EQ(0.0, evalTree(d, err));  // 1 > 2 is false, like the original
}
