// Small host-framework types: allocator, string, growable array, mutex, string hash, hash table.
#ifndef OXEL_SUPPORT_H
#define OXEL_SUPPORT_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <new>
#include <utility>

#include <oxel/export.h>

/// The framework allocator; arrays and tables take their storage from here.
OXEL_API void* kxmalloc(size_t size);
OXEL_API void* kxrealloc(void* ptr, size_t size);
OXEL_API void kxfree(void* ptr);

/// The in-house string hash: a NUL-terminated string to an unsigned 32-bit value (FNV-1a).
OXEL_API unsigned int hash(const char* text);

/// Owned, NUL-terminated character string; never null (empty string instead).
class OXEL_API KxString {
public:
    KxString();
    KxString(const char* text);  // NOLINT: implicit by design, names arrive as C strings
    KxString(const KxString& other);
    KxString(KxString&& other) noexcept;
    KxString& operator=(const KxString& other);
    KxString& operator=(KxString&& other) noexcept;
    KxString& operator=(const char* text);
    ~KxString();

    int length() const { return len_; }
    const char* c_str() const { return data_ ? data_ : ""; }
    bool operator==(const KxString& other) const;
    bool operator!=(const KxString& other) const { return !(*this == other); }

private:
    void assign(const char* text, int n);
    char* data_;
    int len_;
};

/// Growable array of T; grows to the larger of length+1 and 1.5*length.
template <class T>
class KxDArray {
public:
    KxDArray() : data_(nullptr), len_(0), cap_(0) {}
    KxDArray(const KxDArray& other) : data_(nullptr), len_(0), cap_(0) { *this = other; }
    KxDArray& operator=(const KxDArray& other)
    {
        if (this != &other) {
            setLength(0);
            reserve(other.len_);
            for (int i = 0; i < other.len_; ++i)
                append(other.data_[i]);
        }
        return *this;
    }
    ~KxDArray()
    {
        setLength(0);
        kxfree(data_);
    }

    int length() const { return len_; }
    int capacity() const { return cap_; }
    T* data() { return data_; }
    const T* data() const { return data_; }
    T& operator[](int i) { return data_[i]; }
    const T& operator[](int i) const { return data_[i]; }

    /// New elements are value-initialised; dropped elements are destroyed.
    void setLength(int n)
    {
        if (n < 0)
            n = 0;
        if (n > cap_)
            reserve(n);
        for (int i = len_; i < n; ++i)
            new (&data_[i]) T();
        for (int i = n; i < len_; ++i)
            data_[i].~T();
        len_ = n;
    }

    void append(const T& v)
    {
        if (len_ == cap_) {
            T copy(v);  // v may live inside this array
            reserve(grownCapacity());
            new (&data_[len_]) T(std::move(copy));
        } else {
            new (&data_[len_]) T(v);
        }
        ++len_;
    }

    /// Inserts v before position pos (0..length), moving later elements up.
    void insert(int pos, const T& v) { insert(pos, T(v)); }
    void insert(int pos, T&& v)
    {
        if (pos < 0 || pos > len_)
            return;
        T copy(std::move(v));  // v may live inside this array
        if (len_ == cap_)
            reserve(grownCapacity());
        new (&data_[len_]) T();
        for (int i = len_; i > pos; --i)
            data_[i] = std::move(data_[i - 1]);
        data_[pos] = std::move(copy);
        ++len_;
    }

    void reserve(int n)
    {
        if (n <= cap_)
            return;
        T* fresh = static_cast<T*>(kxmalloc(sizeof(T) * static_cast<size_t>(n)));
        if (!fresh)
            throw std::bad_alloc();
        for (int i = 0; i < len_; ++i) {
            new (&fresh[i]) T(std::move(data_[i]));
            data_[i].~T();
        }
        kxfree(data_);
        data_ = fresh;
        cap_ = n;
    }

private:
    int grownCapacity() const
    {
        int a = len_ + 1;
        int b = static_cast<int>(static_cast<long long>(len_) * 3 / 2);
        return a > b ? a : b;
    }
    T* data_;
    int len_;
    int cap_;
};

/// Mutex of the host's threading library; the flag asks for a recursive mutex.
class OXEL_API KxMutex {
public:
    explicit KxMutex(bool recursive);
    KxMutex(const KxMutex&) = delete;
    KxMutex& operator=(const KxMutex&) = delete;
    void lock();
    void unlock();

private:
    bool recursive_;
    std::mutex plain_;
    std::recursive_mutex nested_;
};

template <class K, class V>
class KxHashTableIterator;

/// Chained hash table with a power-of-two bucket count; the first two buckets live inline.
template <class K, class V>
class KxHashTable {
    friend class KxHashTableIterator<K, V>;

public:
    explicit KxHashTable(const V& defaultValue)
        : mask_(1), count_(0), buckets_(inline_), defaultValue_(defaultValue)
    {
        inline_[0] = inline_[1] = nullptr;
    }
    KxHashTable(const KxHashTable& other)
        : mask_(1), count_(0), buckets_(inline_), defaultValue_(other.defaultValue_)
    {
        inline_[0] = inline_[1] = nullptr;
        *this = other;
    }
    ~KxHashTable()
    {
        removeAll();
        if (buckets_ != inline_)
            kxfree(buckets_);
    }

    V* lookup(const K& key) const
    {
        for (Entry* e = buckets_[hash(key.c_str()) & mask_]; e; e = e->next)
            if (compare(e->key, key) == 0)
                return &e->value;
        return nullptr;
    }

    V& operator[](const K& key)
    {
        if (V* v = lookup(key))
            return *v;
        return add(key, defaultValue_)->value;
    }

    /// 1 when a new entry was added, 0 when an existing value was replaced.
    int insert(const K& key, const V& value)
    {
        if (V* v = lookup(key)) {
            *v = value;
            return 0;
        }
        add(key, value);
        return 1;
    }

    void removeAll()
    {
        Entry* all = nullptr;
        for (unsigned b = 0; b <= mask_; ++b) {
            Entry* e = buckets_[b];
            while (e) {
                Entry* n = e->next;
                e->next = all;
                all = e;
                e = n;
            }
            buckets_[b] = nullptr;
        }
        count_ = 0;
        while (all) {
            Entry* n = all->next;
            all->~Entry();
            kxfree(all);
            all = n;
        }
    }

    /// No self-assignment guard: callers never assign a table to itself.
    KxHashTable& operator=(const KxHashTable& other);

    int count() const { return count_; }
    unsigned mask() const { return mask_; }

private:
    struct Entry {
        Entry(const K& k, const V& v) : key(k), value(v), next(nullptr) {}
        K key;
        V value;
        Entry* next;
    };

    static int compare(const K& a, const K& b)
    {
        if (a.length() != b.length())
            return 1;
        return std::strcmp(a.c_str(), b.c_str()) == 0 ? 0 : 1;
    }

    Entry* add(const K& key, const V& value)
    {
        void* mem = kxmalloc(sizeof(Entry));
        if (!mem)
            throw std::bad_alloc();
        Entry* e = new (mem) Entry(key, value);
        unsigned b = hash(key.c_str()) & mask_;
        e->next = buckets_[b];
        buckets_[b] = e;
        ++count_;
        if (static_cast<unsigned>(count_) > 2 * mask_ + 1)
            rebuildTable();
        return e;
    }

    void rebuildTable()
    {
        unsigned newMask = 2 * mask_ + 1;
        Entry** fresh =
            static_cast<Entry**>(kxmalloc(sizeof(Entry*) * (static_cast<size_t>(newMask) + 1)));
        if (!fresh)
            throw std::bad_alloc();
        for (unsigned b = 0; b <= newMask; ++b)
            fresh[b] = nullptr;
        for (unsigned b = 0; b <= mask_; ++b) {
            Entry* e = buckets_[b];
            while (e) {
                Entry* n = e->next;
                unsigned nb = hash(e->key.c_str()) & newMask;
                e->next = fresh[nb];
                fresh[nb] = e;
                e = n;
            }
        }
        if (buckets_ != inline_)
            kxfree(buckets_);
        buckets_ = fresh;
        mask_ = newMask;
    }

    unsigned mask_;
    int count_;
    Entry** buckets_;
    Entry* inline_[2];
    V defaultValue_;
};

/// Walks all entries; after delivering the last one it resets itself to the start.
template <class K, class V>
class KxHashTableIterator {
public:
    explicit KxHashTableIterator(const KxHashTable<K, V>& table) : table_(&table) { resetIter(); }

    void resetIter()
    {
        bucket_ = 0;
        current_ = table_->buckets_[0];
    }

    int next(K& key, V& value)
    {
        while (!current_) {
            ++bucket_;
            if (static_cast<unsigned>(bucket_) > table_->mask_) {
                resetIter();
                return 0;
            }
            current_ = table_->buckets_[bucket_];
        }
        key = current_->key;
        value = current_->value;
        current_ = current_->next;
        return 1;
    }

private:
    const KxHashTable<K, V>* table_;
    typename KxHashTable<K, V>::Entry* current_;
    int bucket_;
};

template <class K, class V>
KxHashTable<K, V>& KxHashTable<K, V>::operator=(const KxHashTable& other)
{
    removeAll();
    defaultValue_ = other.defaultValue_;
    KxHashTableIterator<K, V> it(other);
    K key;
    V value;
    while (it.next(key, value))
        insert(key, value);
    return *this;
}

#endif
