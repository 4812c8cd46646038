// The short 8.3 name rule (FixtureRecordsTest applies it to every name of
// the fixture images as well).
#include "FileRecordInternals.h"

#include <gtest/gtest.h>

namespace kestrow::test {
namespace {

bool isShort(const std::u16string& name) {
    std::vector<orv::Char16> units(name.begin(), name.end());
    return filerecord::isShortName(units.data(), static_cast<unsigned int>(units.size()));
}

TEST(ShortName, TheCasesOfTheRule) {
    EXPECT_TRUE(isShort(u"DOCUME~1"));
    EXPECT_TRUE(isShort(u"README.TXT"));
    EXPECT_TRUE(isShort(u"ABCDEFGH.TXT"));
    EXPECT_TRUE(isShort(u"."));
    EXPECT_TRUE(isShort(u".."));
    EXPECT_TRUE(isShort(u".TXT"));
    EXPECT_TRUE(isShort(u"A..B")); // empty pieces do not count
    EXPECT_TRUE(isShort(u"$MFT"));
    EXPECT_TRUE(isShort(u"\u00C9T\u00C9.TXT")); // upper-case beyond ASCII
    EXPECT_FALSE(isShort(u"readme.txt"));
    EXPECT_FALSE(isShort(u"Documents"));
    EXPECT_FALSE(isShort(u"A.B.C"));
    EXPECT_FALSE(isShort(u"ABCDEFGHI.TX"));
    EXPECT_FALSE(isShort(u"ABCDEFGH.TXTX")); // too long as a whole, too
    EXPECT_FALSE(isShort(u"A.TXTX"));        // only the extension too long
    EXPECT_FALSE(isShort(u"ABCDEFGHIJKLM"));
    EXPECT_FALSE(isShort(u"\u00E9T\u00C9.TXT"));
    EXPECT_FALSE(isShort(u"ABCDEFGHI"));
}

} // namespace
} // namespace kestrow::test
