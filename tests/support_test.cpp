// Tests of the host types: string, array, mutex, hash table with its iterator, build record.
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <thread>
#include <vector>

#include <oxel/oxel.h>

namespace {

using Table = KxHashTable<KxString, KxString>;
using Iter = KxHashTableIterator<KxString, KxString>;

// One pass of the iterator: every entry, each once ("twice" names one that came again).
std::map<std::string, std::string> contents(Iter& it)
{
    std::map<std::string, std::string> out;
    KxString k, v;
    while (it.next(k, v))
        if (!out.emplace(k.c_str(), v.c_str()).second)
            out["twice"] = k.c_str();
    return out;
}

}  // namespace

TEST(KxString, ConstructionCopyAndLength)
{
    KxString empty(nullptr);
    EXPECT_EQ(0, empty.length());
    EXPECT_STREQ("", empty.c_str());

    KxString a("alpha");
    KxString b(a);
    EXPECT_EQ(5, b.length());
    EXPECT_STREQ("alpha", b.c_str());
    EXPECT_NE(a.c_str(), b.c_str());  // deep copy

    b = "be";
    a = b;
    KxString& same = a;
    a = same;  // self-assignment keeps the text
    EXPECT_STREQ("be", a.c_str());
    EXPECT_TRUE(a == KxString("be"));
    EXPECT_FALSE(a == KxString("bee"));
}

TEST(KxDArray, GrowthRuleAndElementLifetime)
{
    // Capacity grows to the larger of length+1 and 1.5*length (fraction dropped).
    KxDArray<int> a;
    std::vector<int> caps;
    for (int i = 0; i < 8; ++i) {
        a.append(i);
        caps.push_back(a.capacity());
    }
    EXPECT_EQ((std::vector<int>{1, 2, 3, 4, 6, 6, 9, 9}), caps);
    for (int i = 0; i < 8; ++i)
        EXPECT_EQ(i, a[i]);

    KxDArray<KxString> s;
    s.append("x");
    s.setLength(3);  // new elements value-initialised
    EXPECT_STREQ("", s[2].c_str());
    s.append(s[0]);  // appending an element of the array itself survives the regrowth
    EXPECT_STREQ("x", s[3].c_str());
    s.insert(1, "y");
    EXPECT_STREQ("y", s[1].c_str());
    EXPECT_STREQ("x", s[4].c_str());
    s.setLength(1);
    EXPECT_EQ(1, s.length());
    KxDArray<KxString> copy(s);
    EXPECT_STREQ("x", copy[0].c_str());
}

TEST(KxMutex, PlainAndRecursiveSerialise)
{
    KxMutex rec(true);
    rec.lock();
    rec.lock();  // a recursive mutex may be taken twice by its owner
    rec.unlock();
    rec.unlock();

    KxMutex plain(false);
    long counter = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < 20000; ++i) {
                plain.lock();
                ++counter;
                plain.unlock();
            }
        });
    for (auto& th : threads)
        th.join();
    EXPECT_EQ(80000, counter);
}

TEST(KxHashTable, RebuildsWhenEntriesExceedTwiceTheBuckets)
{
    // {entries, expected mask}: 3 entries fit in 2 buckets, the 4th doubles, the 8th again.
    const struct { int entries; unsigned mask; } rows[] = {
        {0, 1}, {3, 1}, {4, 3}, {7, 3}, {8, 7}, {16, 15}, {100, 63}};
    for (const auto& row : rows) {
        Table t("");
        for (int i = 0; i < row.entries; ++i)
            t.insert(KxString(("k" + std::to_string(i)).c_str()), "v");
        EXPECT_EQ(row.entries, t.count()) << row.entries;
        EXPECT_EQ(row.mask, t.mask()) << row.entries;
        for (int i = 0; i < row.entries; ++i)
            EXPECT_NE(nullptr, t.lookup(KxString(("k" + std::to_string(i)).c_str())));
    }
}

TEST(KxHashTable, InsertLookupAndDefaultEntries)
{
    Table t("dflt");
    EXPECT_EQ(1, t.insert("a", "1"));
    EXPECT_EQ(0, t.insert("a", "2"));  // replaces, count unchanged
    EXPECT_EQ(1, t.count());
    EXPECT_STREQ("2", t.lookup("a")->c_str());
    EXPECT_EQ(nullptr, t.lookup("ab"));  // length differs
    EXPECT_EQ(nullptr, t.lookup(""));

    KxString& created = t["b"];  // absent key is added with the default value
    EXPECT_STREQ("dflt", created.c_str());
    EXPECT_EQ(2, t.count());
    for (int i = 0; i < 50; ++i)  // entries never move, even across rebuilds
        t.insert(KxString(std::to_string(i).c_str()), "x");
    EXPECT_EQ(&created, t.lookup("b"));

    KxString ab1("ab");
    std::string s = "ab";
    KxString ab2(s.c_str());  // equal keys from different storage
    t.insert(ab1, "first");
    EXPECT_STREQ("first", t.lookup(ab2)->c_str());
}

TEST(KxHashTable, RemoveAllAssignmentAndIteration)
{
    Table t("");
    std::map<std::string, std::string> expected;
    for (int i = 0; i < 20; ++i) {
        std::string k = "key" + std::to_string(i), v = "val" + std::to_string(i * i);
        t.insert(k.c_str(), v.c_str());
        expected[k] = v;
    }
    Iter it(t);
    EXPECT_EQ(expected, contents(it));
    EXPECT_EQ(expected, contents(it));  // after the last entry the iterator starts again
    KxString k, v, first;
    it.next(first, v);
    it.next(k, v);
    it.resetIter();
    ASSERT_EQ(1, it.next(k, v));
    EXPECT_STREQ(first.c_str(), k.c_str());

    Table copy("other");
    copy.insert("stale", "gone");
    copy = t;
    Iter copied(copy);
    EXPECT_EQ(expected, contents(copied));
    EXPECT_STREQ("", copy["fresh"].c_str());  // the default value is copied as well

    unsigned mask = t.mask();
    t.removeAll();
    EXPECT_EQ(0, t.count());
    EXPECT_EQ(mask, t.mask());  // buckets keep their size
    EXPECT_EQ(nullptr, t.lookup("key3"));
    Iter none(t);
    EXPECT_EQ(0, none.next(k, v));
}

TEST(PackageEntry, BuildRecordHasTheKeysInOrder)
{
    std::string rec = orvexpackage_oxel();
    ASSERT_FALSE(rec.empty());
    EXPECT_EQ('|', rec[0]);
    std::vector<std::string> fields;
    size_t pos = 0;
    while (pos != std::string::npos) {
        size_t next = rec.find('|', pos + 1);
        fields.push_back(rec.substr(pos + 1, next == std::string::npos ? next : next - pos - 1));
        pos = next;
    }
    const char* keys[] = {"vendor", "product", "version_major", "version_minor", "version_patch",
        "version_tag", "comment", "compiler", "target_os", "build_cfg", "build_user", "build_ip",
        "build_time", "filename", "path", "size"};
    ASSERT_EQ(32u, fields.size());
    for (size_t i = 0; i < 16; ++i)
        EXPECT_EQ(keys[i], fields[2 * i]) << i;
    EXPECT_EQ("", fields[13]);           // the comment is empty in this build
    EXPECT_EQ(19u, fields[25].size());   // build time "YYYY-MM-DD HH:MM:SS"
    EXPECT_EQ(std::string(orvexpackage_oxel()), rec);  // the same record at every call
    EXPECT_NE(std::string::npos, fields[31].find_first_of("0123456789"));
}
