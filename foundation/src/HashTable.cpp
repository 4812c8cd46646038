#include <orv/Exception.h>
#include <orv/HashTable.h>

#include <cstdio>
#include <cstring>

namespace orv {

_BucketBase::~_BucketBase() = default;

namespace {

_BucketBase** newChains(unsigned int count) {
    auto** chains = static_cast<_BucketBase**>(Allocator::allocate(sizeof(_BucketBase*) * count));
    std::memset(chains, 0, sizeof(_BucketBase*) * count);
    return chains;
}

void freeChains(_BucketBase** chains, unsigned int count) {
    Allocator::deallocate(chains, sizeof(_BucketBase*) * count);
}

// Chains grow when they hold this many buckets on average.
constexpr unsigned int MAX_LOAD = 4;

} // namespace

_HashTableRep::_HashTableRep(unsigned int initialBuckets)
    : _HashTableRep(initialBuckets, nullptr) {}

_HashTableRep::_HashTableRep(unsigned int initialBuckets, BucketHash bucketHash)
    : m_chains(nullptr), m_chainCount(0), m_count(0), m_chainMagic(0), m_bucketHash(bucketHash) {
    setChainCount(initialBuckets == 0 ? 1 : initialBuckets);
    m_chains = newChains(m_chainCount);
}

_HashTableRep::_HashTableRep(const _HashTableRep& other)
    : m_chains(nullptr), m_chainCount(0), m_count(0), m_chainMagic(0),
      m_bucketHash(other.m_bucketHash) {
    setChainCount(other.m_chainCount);
    m_chains = newChains(m_chainCount);
    copyFrom(other);
}

void _HashTableRep::setChainCount(unsigned int chainCount) noexcept {
    m_chainCount = chainCount;
    // For a count of 1 this wraps to 0, and every hash maps to chain 0.
    m_chainMagic = ~std::uint64_t(0) / chainCount + 1;
}

_HashTableRep& _HashTableRep::operator=(const _HashTableRep& other) {
    if (this == &other)
        return *this;
    clear();
    freeChains(m_chains, m_chainCount);
    m_chains = nullptr;
    m_chainCount = 0;
    m_bucketHash = other.m_bucketHash;
    _BucketBase** chains = newChains(other.m_chainCount);
    setChainCount(other.m_chainCount);
    m_chains = chains;
    copyFrom(other);
    return *this;
}

_HashTableRep::~_HashTableRep() {
    clear();
    freeChains(m_chains, m_chainCount);
}

void _HashTableRep::clear() noexcept {
    for (unsigned int i = 0; i < m_chainCount; ++i) {
        _BucketBase* bucket = m_chains[i];
        while (bucket != nullptr) {
            _BucketBase* next = bucket->m_next;
            delete bucket;
            bucket = next;
        }
        m_chains[i] = nullptr;
    }
    m_count = 0;
}

// Clones every bucket of `other` into the same chain positions, keeping each
// chain's order (this table has the same chain count).
void _HashTableRep::copyFrom(const _HashTableRep& other) {
    for (unsigned int i = 0; i < other.m_chainCount; ++i) {
        _BucketBase** tail = &m_chains[i];
        for (const _BucketBase* bucket = other.m_chains[i]; bucket != nullptr;
             bucket = bucket->m_next) {
            _BucketBase* copy = bucket->clone();
            copy->m_next = nullptr;
            *tail = copy;
            tail = &copy->m_next;
            ++m_count;
        }
    }
}

bool _HashTableRep::insert(unsigned int hash, _BucketBase* bucket, const void* key) {
    if (lookup(hash, key) != nullptr)
        return false;
    link(hash, bucket);
    return true;
}

void _HashTableRep::link(unsigned int hash, _BucketBase* bucket) {
    if (m_bucketHash != nullptr && m_count >= m_chainCount * MAX_LOAD && m_chainCount < 0x40000000u)
        rehash(m_chainCount * 2 + 1);
    _BucketBase*& chain = m_chains[chainOf(hash)];
    bucket->m_next = chain;
    chain = bucket;
    ++m_count;
}

_BucketBase* _HashTableRep::lookup(unsigned int hash, const void* key) {
    for (_BucketBase* bucket = m_chains[chainOf(hash)]; bucket != nullptr; bucket = bucket->m_next)
        if (bucket->match(key))
            return bucket;
    return nullptr;
}

const _BucketBase* _HashTableRep::lookup(unsigned int hash, const void* key) const {
    return const_cast<_HashTableRep*>(this)->lookup(hash, key);
}

void _HashTableRep::rehash(unsigned int chainCount) {
    _BucketBase** chains = newChains(chainCount);
    _BucketBase** old = m_chains;
    const unsigned int oldCount = m_chainCount;
    m_chains = chains;
    setChainCount(chainCount);
    for (unsigned int i = 0; i < oldCount; ++i) {
        _BucketBase* bucket = old[i];
        while (bucket != nullptr) {
            _BucketBase* next = bucket->m_next;
            _BucketBase*& chain = m_chains[chainOf(m_bucketHash(bucket))];
            bucket->m_next = chain;
            chain = bucket;
            bucket = next;
        }
    }
    freeChains(old, oldCount);
}

_HashTableIteratorBase::_HashTableIteratorBase(_BucketBase** first, _BucketBase** last) noexcept
    : m_bucket(nullptr), m_chain(first), m_last(last) {
    skipEmptyChains();
}

void _HashTableIteratorBase::skipEmptyChains() noexcept {
    while (m_chain != m_last && *m_chain == nullptr)
        ++m_chain;
    m_bucket = m_chain != m_last ? *m_chain : nullptr;
}

_HashTableIteratorBase& _HashTableIteratorBase::operator++() noexcept {
    if (m_bucket == nullptr)
        return *this;
    if (m_bucket->m_next != nullptr) {
        m_bucket = m_bucket->m_next;
        return *this;
    }
    ++m_chain;
    skipEmptyChains();
    return *this;
}

String keyText(unsigned long long key) {
    char text[24];
    std::snprintf(text, sizeof text, "%llu", key);
    return String(text);
}

Exception::Exception(const String& message) : m_message(message) {}
Exception::Exception(const Exception& other) = default;
Exception& Exception::operator=(const Exception& other) = default;
Exception::~Exception() = default;

HashKeyMissing::HashKeyMissing(const String& key)
    : Exception(String("Hash key missing: ") + key), m_key(key) {}
HashKeyMissing::HashKeyMissing(const HashKeyMissing& other) = default;
HashKeyMissing::~HashKeyMissing() = default;

} // namespace orv
