// The program's UCS-2 to UTF-8 conversion, which takes ASCII in blocks and the
// rest one unit at a time, against the foundation's own conversion: every mix
// of the unit kinds at every position around the block boundaries.
#include "Output.h"

#include <orv/String.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace kestrow::test {
namespace {

std::string converted(const std::vector<orv::Char16>& units) {
    std::string out(tool::MAX_UTF8_PER_UNIT * units.size() + 1, '\0');
    char* end = tool::writeUtf8(out.data(), units.data(), static_cast<unsigned int>(units.size()));
    out.resize(static_cast<std::size_t>(end - out.data()));
    return out;
}

std::string expected(const std::vector<orv::Char16>& units) {
    return orv::String(units.data(), static_cast<unsigned int>(units.size())).toUtf8();
}

// One unit of each kind the conversion tells apart.
const orv::Char16 KINDS[] = {
    u'a',   u'\\',  0x007F,         // ASCII, the last one included
    0x0080, 0x00E9, 0x043C, 0x07FF, // two bytes
    0x0800, 0x8CC7, 0xFFFD, 0xFFFF, // three bytes
    0xD83D, 0xDE00,                 // a high and a low surrogate
};

TEST(Utf8Output, OneUnitOfEveryKindAtEveryPositionOfEveryLength) {
    for (std::size_t length = 1; length <= 40; ++length)
        for (std::size_t at = 0; at < length; ++at)
            for (const orv::Char16 kind : KINDS) {
                std::vector<orv::Char16> units(length, u'x');
                units[at] = kind;
                ASSERT_EQ(converted(units), expected(units))
                    << "length " << length << ", unit " << std::hex << unsigned(kind) << " at "
                    << std::dec << at;
            }
}

TEST(Utf8Output, PairsAndLoneSurrogatesAcrossTheBlocks) {
    // A pair split by a block boundary, pairs back to back, a lone high at
    // the very end and a lone low at the start.
    for (std::size_t at = 0; at + 1 < 34; ++at) {
        std::vector<orv::Char16> units(34, u'y');
        units[at] = 0xD83D;
        units[at + 1] = 0xDE00;
        ASSERT_EQ(converted(units), expected(units)) << "pair at " << at;
    }
    const std::vector<orv::Char16> edges = {0xDE00, u'a', 0xD83D, 0xDE00, 0xD83D, 0xDE00,
                                            u'b',   u'c', u'd',   u'e',   u'f',   u'g',
                                            u'h',   u'i', u'j',   u'k',   u'l',   0xD83D};
    EXPECT_EQ(converted(edges), expected(edges));
}

TEST(Utf8Output, RandomMixesAgreeWithTheFoundation) {
    std::mt19937 random(20261122);
    std::uniform_int_distribution<int> kind(0, sizeof KINDS / sizeof KINDS[0] - 1);
    std::uniform_int_distribution<int> length(0, 70);
    std::uniform_int_distribution<int> asciiShare(0, 9);
    for (int round = 0; round < 20000; ++round) {
        std::vector<orv::Char16> units(static_cast<std::size_t>(length(random)));
        const int share = asciiShare(random);
        for (orv::Char16& unit : units)
            unit = asciiShare(random) < share ? static_cast<orv::Char16>(u'A' + round % 26)
                                              : KINDS[kind(random)];
        ASSERT_EQ(converted(units), expected(units)) << "round " << round;
    }
}

TEST(Utf8Output, NothingIsWrittenPastTheConvertedText) {
    // Blocks store whole blocks of bytes; every byte kept must be the text's
    // and the end returned must be right after it.
    std::vector<orv::Char16> units(23, u'q');
    units[9] = 0x043C;
    std::string out(tool::MAX_UTF8_PER_UNIT * units.size(), '#');
    char* end = tool::writeUtf8(out.data(), units.data(), static_cast<unsigned int>(units.size()));
    EXPECT_EQ(static_cast<std::size_t>(end - out.data()), expected(units).size());
    EXPECT_EQ(std::string(out.data(), end), expected(units));
}

} // namespace
} // namespace kestrow::test
