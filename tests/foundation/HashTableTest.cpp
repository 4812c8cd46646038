#include <orv/Exception.h>
#include <orv/HashTable.h>

#include <gtest/gtest.h>

#include <set>
#include <string>

namespace {

using Table = orv::HashTable<unsigned long long, orv::String>;

TEST(HashFunc, SixtyFourBitKeyIsLowWordPlusThirteen) {
    EXPECT_EQ(orv::HashFunc<unsigned long long>::hash(0xFFFFFFFFull), 12u);
    EXPECT_EQ(orv::HashFunc<unsigned long long>::hash(5), 18u);
    EXPECT_EQ(orv::HashFunc<unsigned long long>::hash(0x1234500000007ull), 20u);
}

TEST(HashTable, StartsWithThirtyTwoChains) {
    Table table;
    EXPECT_EQ(table.chainCount(), 32u);
    Table sized(100000);
    EXPECT_EQ(sized.chainCount(), 100000u);
}

TEST(HashTable, FirstEntryForAKeyWins) {
    Table table;
    EXPECT_TRUE(table.insert(7, "first"));
    EXPECT_FALSE(table.insert(7, "second"));
    ASSERT_NE(table.lookup(7), nullptr);
    EXPECT_TRUE(*table.lookup(7) == "first");
    EXPECT_EQ(table.size(), 1u);
    EXPECT_EQ(table.lookup(8), nullptr);
}

TEST(HashTable, MissingKeyThrowsWithTheKeyText) {
    Table table;
    table.insert(1, "one");
    EXPECT_TRUE(table[1] == "one");
    try {
        (void)table[123456789012ull];
        FAIL() << "no exception";
    } catch (const orv::HashKeyMissing& e) {
        EXPECT_EQ(e.key().toUtf8(), "123456789012");
        EXPECT_NE(e.message().toUtf8().find("123456789012"), std::string::npos);
        orv::Exception copy(e); // the base's copy constructor is part of the interface
        EXPECT_TRUE(copy.message() == e.message());
    }
    orv::HashTable<orv::String, int> byName;
    try {
        (void)byName[orv::String("\\\\.\\C:\\Users")];
        FAIL() << "no exception";
    } catch (const orv::HashKeyMissing& e) {
        EXPECT_EQ(e.key().toUtf8(), "\\\\.\\C:\\Users");
    }
}

TEST(HashTable, CopyClonesEveryBucket) {
    Table table;
    for (unsigned long long i = 0; i < 200; ++i)
        table.insert(i * 977, orv::String::fromUtf8("value-" + std::to_string(i)));
    Table copy(table);
    ASSERT_EQ(copy.size(), 200u);
    for (unsigned long long i = 0; i < 200; ++i) {
        const orv::String* original = table.lookup(i * 977);
        const orv::String* cloned = copy.lookup(i * 977);
        ASSERT_NE(cloned, nullptr);
        EXPECT_NE(cloned, original); // a bucket of its own
        EXPECT_TRUE(*cloned == *original);
    }
    *copy.lookup(0) = "changed";
    EXPECT_TRUE(*table.lookup(0) == "value-0");
    // The copy iterates in the same order as its source.
    auto a = table.begin();
    auto b = copy.begin();
    for (; a != table.end(); ++a, ++b)
        EXPECT_EQ(a.key(), b.key());
    EXPECT_TRUE(b == copy.end());
}

TEST(HashTable, IterationVisitsEveryEntryOnceAfterGrowth) {
    Table table; // 32 chains, grows as entries are added
    for (unsigned long long i = 0; i < 5000; ++i)
        table.insert(i, orv::String());
    std::set<unsigned long long> seen;
    for (auto it = table.begin(); it != table.end(); ++it)
        EXPECT_TRUE(seen.insert(it.key()).second);
    EXPECT_EQ(seen.size(), 5000u);
    for (unsigned long long i = 0; i < 5000; ++i)
        EXPECT_NE(table.lookup(i), nullptr);
    Table empty;
    EXPECT_TRUE(empty.begin() == empty.end());
}

TEST(HashTable, EveryChainCountFindsDenseKeysAcrossTheHashWrap) {
    // Dense keys share chains in runs; keys whose hash wraps past 2^32 (low
    // word near 0xFFFFFFFF) and chain counts of 1 and 2 (whose constants
    // wrap) must still find every key, through growth as well.
    for (const unsigned int chains : {1u, 2u, 3u, 7u, 32u, 1000u}) {
        Table table(chains);
        std::set<unsigned long long> keys;
        for (unsigned long long i = 0; i < 600; ++i) {
            keys.insert(i);
            keys.insert(0xFFFFFF00ull + i); // hashes 0xFFFFFF0D.. and then wrapping to 0..
            keys.insert((7ull << 32) + i);  // the same hashes as 0.. in another word
        }
        for (const unsigned long long key : keys)
            ASSERT_TRUE(table.insert(key, orv::String::fromUtf8(std::to_string(key))));
        ASSERT_EQ(table.size(), keys.size());
        for (const unsigned long long key : keys) {
            const orv::String* value = table.lookup(key);
            ASSERT_NE(value, nullptr) << key << " with " << chains << " chains";
            EXPECT_EQ(value->toUtf8(), std::to_string(key));
            EXPECT_FALSE(table.insert(key, orv::String("again")));
        }
        std::set<unsigned long long> seen;
        for (auto it = table.begin(); it != table.end(); ++it)
            EXPECT_TRUE(seen.insert(it.key()).second);
        EXPECT_EQ(seen, keys);
    }
}

TEST(HashTable, InsertAbsentAddsWithoutLookingAndKeepsTheTableWhole) {
    Table table(4);
    for (unsigned long long i = 0; i < 100; ++i)
        table.insertAbsent(
            i, [i]() { return orv::String::fromUtf8(std::string("v").append(std::to_string(i))); });
    EXPECT_EQ(table.size(), 100u);
    EXPECT_GT(table.chainCount(), 4u); // it grows like insert
    for (unsigned long long i = 0; i < 100; ++i) {
        ASSERT_NE(table.lookup(i), nullptr);
        EXPECT_EQ(table.lookup(i)->toUtf8(), std::string("v").append(std::to_string(i)));
    }
    EXPECT_FALSE(table.insert(50, orv::String("other")));
    EXPECT_TRUE(table.insert(100, orv::String("v100")));
    Table copy(table);
    EXPECT_EQ(copy.size(), 101u);
    EXPECT_EQ(copy[99].toUtf8(), "v99");
}

TEST(HashTable, StringKeysCompareExactly) {
    orv::HashTable<orv::String, orv::Array<unsigned long long>> table;
    orv::Array<unsigned long long> children;
    children.append(42);
    table.insert(orv::String("\\\\.\\C:\\Dir"), children);
    EXPECT_NE(table.lookup(orv::String("\\\\.\\C:\\Dir")), nullptr);
    EXPECT_EQ(table.lookup(orv::String("\\\\.\\C:\\dir")), nullptr);
    table.lookup(orv::String("\\\\.\\C:\\Dir"))->append(43);
    EXPECT_EQ(table[orv::String("\\\\.\\C:\\Dir")].size(), 2u);
}

} // namespace
