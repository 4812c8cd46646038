#include <orv/Format.h>

#include <gtest/gtest.h>

#include <algorithm>

namespace {

std::string utf8(const orv::String& s) { return s.toUtf8(); }

TEST(SprintfFormat, WideStringsWithWs) {
    const orv::String label = orv::String::fromUtf8("Donn\xC3\xA9" "es");
    EXPECT_EQ(utf8(orv::SprintfFormat("Name: %ws.", label.getUCS2Buffer())), "Name: Donn\xC3\xA9" "es.");
    EXPECT_EQ(utf8(orv::SprintfFormat("[%8ws][%-4ws]", orv::String("ab").getUCS2Buffer(),
                                      orv::String("c").getUCS2Buffer())),
              "[      ab][c   ]");
}

TEST(SprintfFormat, SixtyFourBitHexWithI64) {
    EXPECT_EQ(utf8(orv::SprintfFormat("%I64Xh", 0x1234ABCDEF01ull)), "1234ABCDEF01h");
    EXPECT_EQ(utf8(orv::SprintfFormat("%012I64Xh clusters", 0x18ull)), "000000000018h clusters");
    EXPECT_EQ(utf8(orv::SprintfFormat("Failed to read sectors at LBA %012I64Xh", 0x802ull)),
              "Failed to read sectors at LBA 000000000802h");
    EXPECT_EQ(utf8(orv::SprintfFormat("%I64X", 0xFFFFFFFFFFFFFFFFull)), "FFFFFFFFFFFFFFFF");
    EXPECT_EQ(utf8(orv::SprintfFormat("%I64d|%I64u", -5ll, 18446744073709551615ull)),
              "-5|18446744073709551615");
}

TEST(SprintfFormat, OrdinaryConversions) {
    EXPECT_EQ(utf8(orv::SprintfFormat("%X-%X", 0x1u, 0xABCDu)), "1-ABCD");
    EXPECT_EQ(utf8(orv::SprintfFormat("Volume '%c:'", 'C')), "Volume 'C:'");
    EXPECT_EQ(utf8(orv::SprintfFormat("%1.2f GB", 9.5367431640625)), "9.54 GB");
    EXPECT_EQ(utf8(orv::SprintfFormat("%u %d %s %%", 4096u, -1, "txt")), "4096 -1 txt %");
    EXPECT_EQ(utf8(orv::SprintfFormat("\\\\.\\%c:\\", 'D')), "\\\\.\\D:\\");
    EXPECT_EQ(utf8(orv::SprintfFormat("\\\\.\\PhysicalDrive%u", 3u)), "\\\\.\\PhysicalDrive3");
    EXPECT_EQ(utf8(orv::SprintfFormat("%llu|%5s|%.2s", 12ull, "ab", "abcdef")), "12|   ab|ab");
}

TEST(HexDumpFormat, StyleThreeShowsOffsetsBytesAndText) {
    unsigned char bytes[20];
    for (int i = 0; i < 20; ++i)
        bytes[i] = static_cast<unsigned char>(0x41 + i);
    bytes[1] = 0x00;
    const std::string dump = utf8(orv::HexDumpFormat(bytes, 20, 3, 0).toString());
    const std::string first = dump.substr(0, dump.find('\n'));
    EXPECT_EQ(first, "00000000  41 00 43 44 45 46 47 48  49 4A 4B 4C 4D 4E 4F 50  |A.CDEFGHIJKLMNOP|");
    const std::string second = dump.substr(dump.find('\n') + 1);
    EXPECT_EQ(second.substr(0, 21), "00000010  51 52 53 54");
    EXPECT_NE(second.find("|QRST|"), std::string::npos);
    EXPECT_EQ(std::count(dump.begin(), dump.end(), '\n'), 2);
    EXPECT_TRUE(orv::HexDumpFormat(bytes, 0, 3, 0).toString().empty());
}

TEST(ORVValue, DecimalTextOfEachKind) {
    const unsigned int u32 = 4000000000u;
    const long long s64 = -42;
    const unsigned long long u64 = 314572800ull;
    EXPECT_EQ(utf8(orv::ORVValue(u32).toString(orv::ORVValue::nilValue())), "4000000000");
    EXPECT_EQ(utf8(orv::ORVValue(s64).toString(orv::ORVValue::nilValue())), "-42");
    EXPECT_EQ(utf8(orv::ORVValue(u64).toString(orv::ORVValue::nilValue())), "314572800");
}

} // namespace
