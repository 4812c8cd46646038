#include "support/LogCapture.h"

#include <kestrow/Platform.h>
#include <orv/Array.h>
#include <orv/String.h>

#include <gtest/gtest.h>

#include <cstring>

namespace {

using kestrow::platform::StructuredException;
using kestrow::test::LogCapture;

struct Triple {
    unsigned long long a, b, c;
    bool operator==(const Triple& o) const { return a == o.a && b == o.b && c == o.c; }
};

TEST(Array, GrowsFromEightByDoubling) {
    orv::Array<Triple> array;
    EXPECT_EQ(array.capacity(), 8u);
    for (unsigned long long i = 0; i < 8; ++i)
        array.append(Triple{i, i, i});
    EXPECT_EQ(array.capacity(), 8u);
    array.append(Triple{8, 8, 8});
    EXPECT_EQ(array.capacity(), 16u);
    for (unsigned long long i = 9; i < 17; ++i)
        array.append(Triple{i, i, i});
    EXPECT_EQ(array.capacity(), 32u);
    ASSERT_EQ(array.size(), 17u);
    for (unsigned int i = 0; i < 17; ++i)
        EXPECT_EQ(array[i].b, i);
}

TEST(Array, GrowthRuleFallsBackToTheExactCountOnOverflow) {
    EXPECT_EQ(orv::Array<Triple>::grownCapacity(0), 8u);
    EXPECT_EQ(orv::Array<Triple>::grownCapacity(9), 16u);
    EXPECT_EQ(orv::Array<Triple>::grownCapacity(0x80000000u), 0x80000000u);
    EXPECT_EQ(orv::Array<Triple>::grownCapacity(0x80000001u), 0x80000001u);
}

TEST(Array, CapacityLimitForTwentyFourByteElements) {
    EXPECT_EQ(orv::Array<Triple>::MAX_CAPACITY, 0xAAAAAAAu);
}

struct Huge {
    unsigned char bytes[1 << 20];
};

TEST(Array, CapacityBeyondTheLimitReportsAndRaisesCodeSeven) {
    LogCapture log(orv::LoggerPriority::LP_ERROR);
    orv::Array<Huge> array;
    // (0xFFFFFFFF - 8) / 1 MiB = 4095 elements at most; 4096 is one too many.
    try {
        array.reserve(4096);
        FAIL() << "no exception raised";
    } catch (const StructuredException& e) {
        EXPECT_EQ(e.code(), 7u);
    }
    ASSERT_EQ(log.lines().size(), 1u);
    const std::string& text = log.lines()[0].text;
    EXPECT_NE(text.find("ORVArrayRep"), std::string::npos) << text;
    EXPECT_NE(text.find("107"), std::string::npos) << text;
    EXPECT_NE(text.find("initialCapacity <= (Uint32(0xffffffffU)-sizeof(ArrayRep<T>))/sizeof(T)"),
              std::string::npos)
        << text;
    EXPECT_EQ(array.size(), 0u);
}

TEST(Array, IndexOutOfRangeReportsAndRaisesCodeSeven) {
    LogCapture log(orv::LoggerPriority::LP_ERROR);
    orv::Array<unsigned long long> array;
    array.append(1);
    EXPECT_EQ(array[0], 1u);
    try {
        (void)array[1];
        FAIL() << "no exception raised";
    } catch (const StructuredException& e) {
        EXPECT_EQ(e.code(), 7u);
    }
    ASSERT_EQ(log.lines().size(), 1u);
    const std::string& text = log.lines()[0].text;
    EXPECT_NE(text.find("ORVArrayCommon"), std::string::npos) << text;
    EXPECT_NE(text.find("277"), std::string::npos) << text;
    EXPECT_NE(text.find("index < size()"), std::string::npos) << text;
}

TEST(Array, CopyGetsItsOwnRepresentationWithTheGrownSourceCapacity) {
    orv::Array<orv::String> source;
    for (int i = 0; i < 9; ++i) {
        orv::String s = orv::String::fromUtf8("name-that-is-rather-long-" + std::to_string(i));
        source.append(s);
    }
    orv::Array<orv::String> copy(source);
    EXPECT_EQ(copy.capacity(), 16u);
    ASSERT_EQ(copy.size(), 9u);
    EXPECT_NE(copy.begin(), source.begin());
    source[0] = "changed";
    EXPECT_EQ(copy[0].toUtf8(), "name-that-is-rather-long-0");
    source.clear();
    EXPECT_EQ(copy.size(), 9u);
    EXPECT_EQ(source.capacity(), 16u);
}

TEST(Array, MovedFromArrayHasNoRepresentationAndCanGrowAgain) {
    orv::Array<unsigned long long> source;
    source.append(5);
    orv::Array<unsigned long long> target(std::move(source));
    EXPECT_FALSE(source.hasRepresentation());
    EXPECT_EQ(source.size(), 0u);
    EXPECT_EQ(target.size(), 1u);
    source.append(7);
    EXPECT_EQ(source.capacity(), 8u);
    EXPECT_EQ(source[0], 7u);

    orv::Array<unsigned long long> empty(std::move(target));
    orv::Array<unsigned long long> assigned;
    assigned = target; // a source without representation leaves none
    EXPECT_FALSE(assigned.hasRepresentation());
}

TEST(Array, AppendingOwnElementSurvivesReallocation) {
    orv::Array<orv::String> array;
    for (int i = 0; i < 8; ++i)
        array.append(orv::String::fromUtf8("element-number-" + std::to_string(i)));
    array.append(array[3]); // forces growth while referring into the old block
    ASSERT_EQ(array.size(), 9u);
    EXPECT_EQ(array[8].toUtf8(), "element-number-3");
    array.appendArray(array);
    ASSERT_EQ(array.size(), 18u);
    EXPECT_EQ(array[17].toUtf8(), "element-number-3");
}

TEST(Array, ContainsAndReset) {
    orv::Array<unsigned long long> array;
    for (unsigned long long i = 0; i < 20; ++i)
        array.append(i * 3);
    EXPECT_TRUE(array.contains(57));
    EXPECT_FALSE(array.contains(58));
    array.reset();
    EXPECT_EQ(array.size(), 0u);
    EXPECT_EQ(array.capacity(), 8u);
}

} // namespace
