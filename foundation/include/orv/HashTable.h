// orv::HashTable: a chained hash table of polymorphic buckets.
//
// The typed table is a thin layer over an untyped representation,
// _HashTableRep, that keeps chains of _BucketBase. Each bucket knows how to
// match a key, clone itself (when a table is copied) and destroy itself, so
// the representation needs no knowledge of the key and value types.
#pragma once

#include <kestrow/Export.h>

#include <orv/Allocator.h>
#include <orv/Exception.h>
#include <orv/String.h>

#include <cstdint>
#include <new>

namespace orv {

class KESTROW_API _BucketBase {
public:
    _BucketBase() noexcept : m_next(nullptr) {}
    virtual ~_BucketBase();
    // True when the key behind `key` equals this bucket's key.
    virtual bool match(const void* key) const = 0;
    // A new bucket holding copies of this bucket's key and value.
    virtual _BucketBase* clone() const = 0;

    _BucketBase* m_next;
};

class KESTROW_API _HashTableRep {
public:
    // The hash of a bucket's key, for moving buckets when the chains grow.
    typedef unsigned int (*BucketHash)(const _BucketBase* bucket);

    explicit _HashTableRep(unsigned int initialBuckets);
    // A representation that can grow its chains: it asks `bucketHash` where
    // each bucket goes. Without it the chain count stays as constructed.
    _HashTableRep(unsigned int initialBuckets, BucketHash bucketHash);
    _HashTableRep(const _HashTableRep& other);
    _HashTableRep& operator=(const _HashTableRep& other);
    ~_HashTableRep();

    // Links the bucket into the chain the hash selects, unless a bucket with
    // an equal key is there already (then the bucket is left to the caller).
    // Returns whether it was inserted.
    bool insert(unsigned int hash, _BucketBase* bucket, const void* key);

    // Links the bucket into its chain without looking for an equal key: for
    // callers that have just looked the key up themselves.
    void link(unsigned int hash, _BucketBase* bucket);

    _BucketBase* lookup(unsigned int hash, const void* key);
    const _BucketBase* lookup(unsigned int hash, const void* key) const;

    // The first bucket of the chain the hash selects.
    _BucketBase* chainHead(unsigned int hash) const noexcept { return m_chains[chainOf(hash)]; }

    unsigned int size() const noexcept { return m_count; }
    unsigned int chainCount() const noexcept { return m_chainCount; }
    _BucketBase** firstChain() const noexcept { return m_chains; }
    _BucketBase** lastChain() const noexcept { return m_chains + m_chainCount; }

private:
    void clear() noexcept;
    void copyFrom(const _HashTableRep& other);
    void rehash(unsigned int chainCount);
    void setChainCount(unsigned int chainCount) noexcept;

    // (hash / HASHES_PER_RUN) % m_chainCount. Consecutive hashes share a
    // chain in runs of three: record indexes are dense and are added and
    // looked up mostly in ascending order, so the records of one chain were
    // allocated one after another and lie side by side, and a walk in index
    // order meets them in the cache instead of a miss per record. For hashes
    // spread over 32 bits (strings) the runs change nothing.
    //
    // A lookup is mostly this division and a cache miss or two, so the
    // modulo becomes multiplications by a constant fixed when the chain count
    // is set: the high 64 bits of the 96-bit product (m_chainMagic * h mod
    // 2^64) * m_chainCount, put together from two 32 x 32-bit products so the
    // header stays standard C++.
    static constexpr unsigned int HASHES_PER_RUN = 3;
    unsigned int chainOf(unsigned int hash) const noexcept {
        const std::uint64_t fraction = m_chainMagic * (hash / HASHES_PER_RUN);
        const std::uint64_t high = (fraction >> 32) * m_chainCount;
        const std::uint64_t low = (fraction & 0xFFFFFFFFu) * m_chainCount;
        return static_cast<unsigned int>((high + (low >> 32)) >> 32);
    }

    _BucketBase** m_chains;
    unsigned int m_chainCount;
    unsigned int m_count;
    std::uint64_t m_chainMagic; // 2^64 / m_chainCount, rounded up
    BucketHash m_bucketHash;    // null: the chains never grow
};

// Visits every bucket of every chain between two chain slots, chain by chain.
class KESTROW_API _HashTableIteratorBase {
public:
    _HashTableIteratorBase(_BucketBase** first, _BucketBase** last) noexcept;
    _HashTableIteratorBase& operator++() noexcept;
    bool operator==(const _HashTableIteratorBase& other) const noexcept {
        return m_bucket == other.m_bucket;
    }
    bool operator!=(const _HashTableIteratorBase& other) const noexcept {
        return m_bucket != other.m_bucket;
    }

protected:
    _BucketBase* m_bucket;

private:
    void skipEmptyChains() noexcept;

    _BucketBase** m_chain;
    _BucketBase** m_last;
};

template <class K> struct EqualFunc {
    static bool equal(const K& a, const K& b) { return a == b; }
};

template <class K> struct HashFunc;

template <> struct HashFunc<unsigned long long> {
    // The low 32 bits of the key, plus 13.
    static unsigned int hash(unsigned long long key) noexcept {
        return static_cast<unsigned int>(key) + 13u;
    }
};

template <> struct HashFunc<String> {
    // FNV-1a over the code units.
    static unsigned int hash(const String& key) noexcept {
        std::uint32_t h = 2166136261u;
        const Char16* units = key.getUCS2Buffer();
        for (unsigned int i = 0; i < key.size(); ++i) {
            h ^= static_cast<std::uint32_t>(units[i]);
            h *= 16777619u;
        }
        return h;
    }
};

// The text of a key, for HashKeyMissing.
KESTROW_API String keyText(unsigned long long key);
inline const String& keyText(const String& key) {
    return key;
}

template <class K, class V, class EQ = EqualFunc<K>> class _Bucket : public _BucketBase {
public:
    _Bucket(const K& key, const V& value) : m_key(key), m_value(value) {}
    // The value is made by `make()` right in the bucket, without a copy.
    template <class Make>
    _Bucket(const K& key, Make&& make, int /*inPlace*/) : m_key(key), m_value(make()) {}

    bool match(const void* key) const override {
        return EQ::equal(m_key, *static_cast<const K*>(key));
    }
    _BucketBase* clone() const override { return new _Bucket(m_key, m_value); }

    // Buckets are allocated once per entry: they come from the pool.
    static void* operator new(std::size_t size) { return Allocator::allocate(size); }
    static void operator delete(void* block, std::size_t size) noexcept {
        Allocator::deallocate(block, size);
    }

    K m_key;
    V m_value;
};

template <class K, class V, class EQ = EqualFunc<K>, class HF = HashFunc<K>> class HashTable {
public:
    typedef _Bucket<K, V, EQ> Bucket;

    class Iterator : public _HashTableIteratorBase {
    public:
        using _HashTableIteratorBase::_HashTableIteratorBase;
        const K& key() const noexcept { return bucket()->m_key; }
        V& value() const noexcept { return bucket()->m_value; }
        Iterator& operator++() noexcept {
            _HashTableIteratorBase::operator++();
            return *this;
        }
        Bucket& operator*() const noexcept { return *bucket(); }

    private:
        Bucket* bucket() const noexcept { return static_cast<Bucket*>(m_bucket); }
    };

    explicit HashTable(unsigned int initialBuckets = 32) : m_rep(initialBuckets, &bucketHash) {}
    HashTable(const HashTable& other) = default;
    HashTable& operator=(const HashTable& other) = default;
    virtual ~HashTable() = default;

    // Adds the entry unless the key is present; returns whether it was added.
    bool insert(const K& key, const V& value) {
        return insertWith(key, [&value]() -> const V& { return value; });
    }

    // Adds the value `make()` returns unless the key is present; returns
    // whether it was added. The value is made only when it is kept, right in
    // its bucket.
    template <class Make> bool insertWith(const K& key, Make&& make) {
        const unsigned int hash = HF::hash(key);
        if (find(hash, key) != nullptr)
            return false;
        m_rep.link(hash, new Bucket(key, make, 0));
        return true;
    }

    // Adds the value `make()` returns under a key that the caller knows is not
    // in the table (say, one above every key it has added), without looking
    // for it first. Adding a key that is present would shadow it: don't.
    template <class Make> void insertAbsent(const K& key, Make&& make) {
        m_rep.link(HF::hash(key), new Bucket(key, make, 0));
    }

    // Every bucket of this table is a Bucket: the chain is walked with the
    // key type's own comparison, without the buckets' virtual match.
    V* lookup(const K& key) {
        Bucket* found = find(HF::hash(key), key);
        return found ? &found->m_value : nullptr;
    }
    const V* lookup(const K& key) const {
        const Bucket* found = find(HF::hash(key), key);
        return found ? &found->m_value : nullptr;
    }
    bool contains(const K& key) const { return lookup(key) != nullptr; }

    // The value under the key; throws HashKeyMissing when it is absent.
    V& operator[](const K& key) {
        V* value = lookup(key);
        if (value == nullptr)
            throw HashKeyMissing(keyText(key));
        return *value;
    }
    const V& operator[](const K& key) const {
        const V* value = lookup(key);
        if (value == nullptr)
            throw HashKeyMissing(keyText(key));
        return *value;
    }

    unsigned int size() const noexcept { return m_rep.size(); }
    unsigned int chainCount() const noexcept { return m_rep.chainCount(); }

    Iterator begin() const noexcept { return Iterator(m_rep.firstChain(), m_rep.lastChain()); }
    Iterator end() const noexcept { return Iterator(m_rep.lastChain(), m_rep.lastChain()); }

private:
    Bucket* find(unsigned int hash, const K& key) const {
        for (_BucketBase* bucket = m_rep.chainHead(hash); bucket != nullptr;
             bucket = bucket->m_next)
            if (EQ::equal(static_cast<Bucket*>(bucket)->m_key, key))
                return static_cast<Bucket*>(bucket);
        return nullptr;
    }

    static unsigned int bucketHash(const _BucketBase* bucket) {
        return HF::hash(static_cast<const Bucket*>(bucket)->m_key);
    }

    _HashTableRep m_rep;
};

} // namespace orv
