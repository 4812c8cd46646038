// FileReference: its on-disk layout, increments, comparisons and arithmetic.
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

    const FileReference r(TWO_48 + 1, (1ULL << 16) + 2); // higher bits dropped
    EXPECT_EQ(r.index, 1u);
    EXPECT_EQ(r.sequence, 2u);
    EXPECT_EQ(FileReference::ROOT_MFT_RECORD().index, 5u);
}

TEST(FileReference, IncrementsWrapAndYieldAnIndexWithoutSequence) {
    FileReference r(0xFFFFFFFFFFFFULL, 7);
    const FileReference yielded = ++r;
    EXPECT_EQ(r.index, 0u);
    EXPECT_EQ(r.sequence, 7u);
    EXPECT_EQ(yielded.index, 0u);
    EXPECT_EQ(yielded.sequence, 0u);

    FileReference s(41, 3);
    const FileReference old = s++;
    EXPECT_EQ(s.index, 42u);
    EXPECT_EQ(s.sequence, 3u);
    EXPECT_EQ(old.index, 41u);
    EXPECT_EQ(old.sequence, 0u);
}

TEST(FileReference, ComparisonsIgnoreTheSequenceAndNumbersUseAllSixtyFourBits) {
    const FileReference a(5, 5), b(5, 9), c(6, 0);
    EXPECT_TRUE(a == b && a <= b && a >= b);
    EXPECT_FALSE(a != b || a < b || a > b);
    EXPECT_TRUE(a < c && c > b && a != c);
    EXPECT_FALSE(c <= a);

    const FileReference largest(0xFFFFFFFFFFFFULL, 0xFFFF);
    EXPECT_TRUE(largest < TWO_48 && largest <= TWO_48 && largest == 0xFFFFFFFFFFFFULL);
    EXPECT_TRUE(largest != TWO_48 + 0xFFFFFFFFFFFFULL);
    EXPECT_FALSE(largest >= TWO_48 || largest > TWO_48);
    EXPECT_TRUE(a == 5ULL && a > 4ULL && a >= 5ULL);

    const FileReference three(3, 9);
    EXPECT_EQ(three - 5, 0xFFFFFFFFFFFFFFFEULL);
    EXPECT_EQ(three + 4, 7ULL);
    EXPECT_EQ(FileReference(0xFFFFFFFFFFFFULL, 0) + 1, TWO_48); // not wrapped to 48 bits
}

} // namespace
