// Tests of the host types: string, array, mutex, hash table and its iterator.
#include <gtest/gtest.h>

#include <oxel/oxel.h>

TEST(KxString, NullIsEmpty)
{
    KxString s(nullptr);
    EXPECT_EQ(0, s.length());
    EXPECT_STREQ("", s.c_str());
}
