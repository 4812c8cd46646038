// The short 8.3 name rule, against its definition through orv::String's own
// upper-casing and tokenising.
#include "FileRecordInternals.h"

#include "support/Fixtures.h"

#include <gtest/gtest.h>

#include <random>

namespace kestrow::test {
namespace {

bool isShort(const std::u16string& name) {
    std::vector<orv::Char16> units(name.begin(), name.end());
    return filerecord::isShortName(units.data(), static_cast<unsigned int>(units.size()));
}

// The rule as stated: at most 12 characters; tokenised at "." at most 2
// parts, the first of at most 8, a second of at most 3; equal to its
// upper-case form. (No parts at all: no first part to be too long.)
bool definition(const std::u16string& name) {
    const orv::String text(reinterpret_cast<const orv::Char16*>(name.data()),
                           static_cast<unsigned int>(name.size()));
    if (text.size() > 12)
        return false;
    const orv::Array<orv::String> parts = text.tokenize(orv::String("."));
    if (parts.size() > 2)
        return false;
    if (parts.size() >= 1 && parts[0].size() > 8)
        return false;
    if (parts.size() == 2 && parts[1].size() > 3)
        return false;
    orv::String upper(text);
    upper.toUpper();
    return upper == text;
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
    EXPECT_FALSE(isShort(u"ABCDEFGH.TXTX"));
    EXPECT_FALSE(isShort(u"ABCDEFGHIJKLM"));
    EXPECT_FALSE(isShort(u"\u00E9T\u00C9.TXT"));
    EXPECT_FALSE(isShort(u"ABCDEFGHI"));
}

TEST(ShortName, AgreesWithTheDefinitionOnRandomNames) {
    const char16_t alphabet[] = {u'A', u'b', u'.', u'~', u'1', u'Z', u'\u00E9', u'\u00C9', u' '};
    std::mt19937 random(1234);
    for (int i = 0; i < 20000; ++i) {
        std::u16string name;
        const int length = 1 + static_cast<int>(random() % 15);
        for (int k = 0; k < length; ++k)
            name += alphabet[random() % std::size(alphabet)];
        ASSERT_EQ(isShort(name), definition(name)) << utf16ToUtf8(name);
    }
}

} // namespace
} // namespace kestrow::test
