// FileReference and the summary structures.
#include <libKestrow/FileRecord.h>

#include <gtest/gtest.h>

#include <cstring>

namespace {

constexpr unsigned long long TWO_48 = 1ULL << 48;

TEST(FileReference, IsOneWordWithTheIndexInTheLow48Bits) {
    static_assert(sizeof(FileReference) == 8);
    // As an NTFS reference lies on disk: record 0x123456789ABC, sequence 0x0102.
    const unsigned char onDisk[8] = {0xBC, 0x9A, 0x78, 0x56, 0x34, 0x12, 0x02, 0x01};
    FileReference reference;
    std::memcpy(static_cast<void*>(&reference), onDisk, sizeof onDisk);
    EXPECT_EQ(reference.index, 0x123456789ABCULL);
    EXPECT_EQ(reference.sequence, 0x0102u);

    unsigned char back[8];
    const FileReference made(0x0000CAFEF00DULL, 0xBEEF);
    std::memcpy(back, static_cast<const void*>(&made), sizeof back);
    const unsigned char expected[8] = {0x0D, 0xF0, 0xFE, 0xCA, 0x00, 0x00, 0xEF, 0xBE};
    EXPECT_EQ(std::memcmp(back, expected, 8), 0);
}

TEST(FileReference, ConstructionDropsHigherBits) {
    const FileReference r(TWO_48 + 1, (1ULL << 16) + 2);
    EXPECT_EQ(r.index, 1u);
    EXPECT_EQ(r.sequence, 2u);
    const FileReference zero;
    EXPECT_EQ(zero.index, 0u);
    EXPECT_EQ(zero.sequence, 0u);
    EXPECT_EQ(FileReference::BASE_MFT_RECORD().index, 0u);
    EXPECT_EQ(FileReference::ROOT_MFT_RECORD().index, 5u);
    EXPECT_EQ(FileReference::ROOT_MFT_RECORD().sequence, 0u);
}

TEST(FileReference, FieldsAreIndependent) {
    FileReference r(0xFFFFFFFFFFFFULL, 0);
    r.sequence = 0xFFFF;
    EXPECT_EQ(r.index, 0xFFFFFFFFFFFFULL);
    r.index = 0;
    EXPECT_EQ(r.sequence, 0xFFFFu);
}

TEST(FileReference, PrefixIncrementWrapsAndYieldsTheNewIndexWithoutSequence) {
    FileReference r(0xFFFFFFFFFFFFULL, 7);
    const FileReference yielded = ++r;
    EXPECT_EQ(r.index, 0u);
    EXPECT_EQ(r.sequence, 7u);
    EXPECT_EQ(yielded.index, 0u);
    EXPECT_EQ(yielded.sequence, 0u);

    FileReference s(9, 4);
    const FileReference next = ++s;
    EXPECT_EQ(next.index, 10u);
    EXPECT_EQ(next.sequence, 0u);
}

TEST(FileReference, PostfixIncrementYieldsTheOldIndexWithoutSequence) {
    FileReference r(41, 3);
    const FileReference yielded = r++;
    EXPECT_EQ(r.index, 42u);
    EXPECT_EQ(r.sequence, 3u);
    EXPECT_EQ(yielded.index, 41u);
    EXPECT_EQ(yielded.sequence, 0u);
}

TEST(FileReference, ComparisonsIgnoreTheSequence) {
    const FileReference a(5, 5), b(5, 9), c(6, 0);
    EXPECT_TRUE(a == b);
    EXPECT_FALSE(a != b);
    EXPECT_FALSE(a < b);
    EXPECT_FALSE(a > b);
    EXPECT_TRUE(a <= b);
    EXPECT_TRUE(a >= b);
    EXPECT_TRUE(a < c);
    EXPECT_TRUE(c > b);
    EXPECT_TRUE(a != c);
    EXPECT_FALSE(c <= a);
}

TEST(FileReference, ComparisonsWithNumbersUseAllSixtyFourBits) {
    const FileReference largest(0xFFFFFFFFFFFFULL, 0xFFFF);
    EXPECT_TRUE(largest < TWO_48);
    EXPECT_TRUE(largest != TWO_48 + 0xFFFFFFFFFFFFULL);
    EXPECT_TRUE(largest == 0xFFFFFFFFFFFFULL);
    EXPECT_TRUE(largest <= TWO_48);
    EXPECT_FALSE(largest >= TWO_48);
    EXPECT_FALSE(largest > TWO_48);
    const FileReference five(5, 1);
    EXPECT_TRUE(five == 5ULL);
    EXPECT_TRUE(five > 4ULL);
    EXPECT_TRUE(five >= 5ULL);
}

TEST(FileReference, ArithmeticIsPlainSixtyFourBit) {
    const FileReference three(3, 9);
    EXPECT_EQ(three - 5, 0xFFFFFFFFFFFFFFFEULL);
    EXPECT_EQ(three + 4, 7ULL);
    const FileReference largest(0xFFFFFFFFFFFFULL, 0);
    EXPECT_EQ(largest + 1, TWO_48); // not wrapped to 48 bits
}

} // namespace
