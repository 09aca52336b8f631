// libFuzzer target: KxHashTable<KxString,KxString> driven by random operations against std::unordered_map.
#include <cstdint>
#include <map>
#include <string>
#include <unordered_map>

#include "fuzz_common.h"

namespace {

typedef KxHashTable<KxString, KxString> Table;
typedef std::unordered_map<std::string, std::string> Model;

// Reads the input as a stream of bytes; runs dry to zeros.
struct Reader {
    const uint8_t* p;
    size_t n;
    uint8_t byte()
    {
        if (!n)
            return 0;
        --n;
        return *p++;
    }
};

// Short keys over a small alphabet collide often; now and then a long one.
std::string makeKey(Reader& r)
{
    uint8_t len = r.byte();
    std::string k;
    if (len >= 254) {
        k.assign(static_cast<size_t>(len) * 4, static_cast<char>('a' + len % 7));
        return k;
    }
    len %= 5;
    for (uint8_t i = 0; i < len; ++i)
        k.push_back(static_cast<char>('a' + r.byte() % 4));
    return k;
}

// The smallest mask 2^k-1 (k >= 1) that holds `peak` entries at two per bucket.
unsigned expectedMask(size_t peak)
{
    unsigned mask = 1;
    while (peak > 2 * static_cast<size_t>(mask) + 1)
        mask = 2 * mask + 1;
    return mask;
}

// The table holds exactly the model's entries, each delivered once per iteration pass.
void checkSame(const Table& t, const Model& m, size_t peak)
{
    FUZZ_CHECK(t.count() == static_cast<int>(m.size()));
    FUZZ_CHECK(t.mask() == expectedMask(peak));
    for (const auto& kv : m) {
        KxString* v = t.lookup(kv.first.c_str());
        FUZZ_CHECK(v != nullptr);
        FUZZ_CHECK(kv.second == v->c_str());
    }
    KxHashTableIterator<KxString, KxString> it(t);
    for (int pass = 0; pass < 2; ++pass) {  // the iterator rewinds itself after the last entry
        std::map<std::string, std::string> seen;
        KxString k, v;
        while (it.next(k, v))
            FUZZ_CHECK(seen.emplace(k.c_str(), v.c_str()).second);
        FUZZ_CHECK(seen.size() == m.size());
        for (const auto& kv : seen) {
            auto f = m.find(kv.first);
            FUZZ_CHECK(f != m.end() && f->second == kv.second);
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    oxfuzz::keepReportChannel();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    Reader r{data, size};
    const char* defaults[] = {"", "dflt"};
    std::string def0 = defaults[size % 2];
    Table t[2] = {Table(def0.c_str()), Table("other")};
    Model m[2];
    std::string def[2] = {def0, "other"};
    size_t peak[2] = {0, 0};

    for (int step = 0; r.n && step < 600; ++step) {
        uint8_t op = r.byte();
        int w = op & 1;  // which table
        Table& tab = t[w];
        Model& mod = m[w];
        switch ((op >> 1) % 7) {
        case 0: {  // insert: 1 for a new key, 0 when replacing
            std::string k = makeKey(r), v = makeKey(r);
            int added = tab.insert(k.c_str(), v.c_str());
            FUZZ_CHECK(added == (mod.count(k) ? 0 : 1));
            mod[k] = v;
            break;
        }
        case 1: {  // operator[]: adds the default value for an absent key, then assigns
            std::string k = makeKey(r);
            bool had = mod.count(k) != 0;
            KxString& ref = tab[k.c_str()];
            FUZZ_CHECK(had ? mod[k] == ref.c_str() : def[w] == ref.c_str());
            if (!had)
                mod[k] = def[w];
            if (r.byte() & 1) {
                std::string v = makeKey(r);
                ref = v.c_str();
                mod[k] = v;
            }
            break;
        }
        case 2: {  // lookup of a possibly absent key
            std::string k = makeKey(r);
            KxString* v = tab.lookup(k.c_str());
            auto f = mod.find(k);
            FUZZ_CHECK((v != nullptr) == (f != mod.end()));
            if (v)
                FUZZ_CHECK(f->second == v->c_str());
            break;
        }
        case 3:  // removeAll keeps the bucket array
            tab.removeAll();
            mod.clear();
            break;
        case 4: {  // assignment from the other table; the default value comes along
            tab = t[1 - w];
            mod = m[1 - w];
            def[w] = def[1 - w];
            break;
        }
        case 5: {  // a copy-constructed table is equal and independent
            Table copy(tab);
            checkSame(copy, mod, mod.size());
            copy.insert("zzzzzz", "q");  // no generated key looks like this
            FUZZ_CHECK(tab.lookup("zzzzzz") == nullptr);
            break;
        }
        default:
            checkSame(tab, mod, peak[w] > mod.size() ? peak[w] : mod.size());
            break;
        }
        if (mod.size() > peak[w])
            peak[w] = mod.size();
    }
    for (int w = 0; w < 2; ++w)
        checkSame(t[w], m[w], peak[w]);
    return 0;
}
