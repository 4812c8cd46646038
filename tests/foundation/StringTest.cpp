#include <orv/Allocator.h>
#include <orv/String.h>
#include <orv/StringArena.h>

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace {

TEST(String, ConstructionFromNarrowAndWideUnits) {
    orv::String a("abc");
    EXPECT_EQ(a.size(), 3u);
    EXPECT_EQ(a[1], static_cast<orv::Char16>('b'));
    EXPECT_EQ(a.getUCS2Buffer()[3], 0);
    const unsigned short units[] = {0x41, 0x20AC, 0x42, 0};
    orv::String b(units, 3);
    EXPECT_EQ(b.size(), 3u);
    EXPECT_EQ(b[1], static_cast<orv::Char16>(0x20AC));
    orv::String c;
    c = units;
    EXPECT_TRUE(c == b);
    orv::String d("\xE9t\xE9", 3); // Latin-1 bytes widen unit by unit
    EXPECT_EQ(d[0], static_cast<orv::Char16>(0xE9));
}

TEST(String, EqualityIsExactAndCaseSensitive) {
    EXPECT_TRUE(orv::String("Users") == "Users");
    EXPECT_FALSE(orv::String("Users") == "users");
    EXPECT_TRUE(orv::String("Users") != orv::String("User"));
    EXPECT_TRUE(orv::String() == orv::String::EMPTY());
}

TEST(String, CompareNoCase) {
    EXPECT_EQ(orv::String("\\\\.\\C:\\USERS\\a.txt").compareNoCase(orv::String("\\\\.\\c:\\users\\A.TXT")), 0);
    EXPECT_LT(orv::String("abc").compareNoCase(orv::String("ABD")), 0);
    EXPECT_GT(orv::String("abcd").compareNoCase(orv::String("ABC")), 0);
    EXPECT_EQ(orv::String::fromUtf8("\xC3\xA9t\xC3\xA9").compareNoCase(orv::String::fromUtf8("\xC3\x89T\xC3\x89")), 0);
}

TEST(String, ToUpperInPlace) {
    orv::String s("readme.txt");
    EXPECT_TRUE(s.toUpper() == "README.TXT");
    orv::String greek = orv::String::fromUtf8("\xCE\xB1\xCE\xB2");
    EXPECT_EQ(greek.toUpper().toUtf8(), "\xCE\x91\xCE\x92");
}

TEST(String, TokenizeDropsEmptyPieces) {
    orv::Array<orv::String> pieces = orv::String("\\\\.\\C:\\Users\\a.txt").tokenize("\\");
    ASSERT_EQ(pieces.size(), 4u);
    EXPECT_TRUE(pieces[0] == ".");
    EXPECT_TRUE(pieces[1] == "C:");
    EXPECT_TRUE(pieces[3] == "a.txt");
    EXPECT_EQ(orv::String("").tokenize("\\").size(), 0u);
    EXPECT_EQ(orv::String("\\\\").tokenize("\\").size(), 0u);
    orv::Array<orv::String> dotted = orv::String("A.B.C").tokenize(".");
    EXPECT_EQ(dotted.size(), 3u);
    EXPECT_EQ(orv::String("a-b c").tokenize("- ").size(), 3u);
}

TEST(String, AppendAndConcatenate) {
    orv::String path("\\\\.\\C:\\");
    path += orv::String("Users");
    path.append(orv::String("\\")).append(orv::String("a-rather-long-file-name.txt"));
    EXPECT_EQ(path.toUtf8(), "\\\\.\\C:\\Users\\a-rather-long-file-name.txt");
    orv::String twice = path + path;
    EXPECT_EQ(twice.size(), 2 * path.size());
    path.append(path); // appending itself
    EXPECT_TRUE(path == twice);
}

TEST(String, LiteralsAreSharedUntilChanged) {
    const orv::String name = ORV_LITERAL("$STANDARD_INFORMATION");
    EXPECT_EQ(name.size(), 21u);
    orv::String copy(name);
    EXPECT_EQ(copy.getUCS2Buffer(), name.getUCS2Buffer());
    copy.append(orv::String("x"));
    EXPECT_NE(copy.getUCS2Buffer(), name.getUCS2Buffer());
    EXPECT_EQ(name.toUtf8(), "$STANDARD_INFORMATION");
    EXPECT_EQ(copy.toUtf8(), "$STANDARD_INFORMATIONx");
}

TEST(String, MoveLeavesTheSourceEmpty) {
    orv::String long1 = orv::String::fromUtf8("a name long enough to need the heap");
    orv::String moved(std::move(long1));
    EXPECT_EQ(long1.size(), 0u);
    EXPECT_EQ(moved.size(), 35u);
    orv::String short1("short");
    orv::String moved2(std::move(short1));
    EXPECT_EQ(short1.size(), 0u);
    EXPECT_TRUE(moved2 == "short");
}

TEST(String, Utf8RoundTripIncludingSurrogatePairs) {
    const std::string text = "caf\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80 \xE6\x97\xA5\xE6\x9C\xAC";
    orv::String s = orv::String::fromUtf8(text);
    EXPECT_EQ(s.size(), 12u); // the emoji takes two units
    EXPECT_EQ(s.toUtf8(), text);
    EXPECT_EQ(orv::String::fromUtf8("\xFF").toUtf8(), "\xEF\xBF\xBD");
}

TEST(String, AReusedStringAndCopiesOfLiteralsAllocateNothing) {
    orv::String reused("DOCUME~1.TXT");
    const orv::String literal = ORV_LITERAL("$FILE_NAME");
    const orv::Char16 name[] = {'a', '.', 't', 'x', 't'};
    const unsigned long long before = orv::Allocator::heapAllocations();
    for (int i = 0; i < 1000; ++i) {
        reused.assign(name, 5);
        orv::String copy(literal);
        copy = orv::String::EMPTY();
    }
    EXPECT_EQ(orv::Allocator::heapAllocations(), before);
    EXPECT_TRUE(reused == "a.txt");
    EXPECT_EQ(reused.getUCS2Buffer()[5], 0);
}

TEST(StringArena, KeepsTextsAsViewsWhoseCopiesOwnTheirText) {
    auto arena = std::make_unique<orv::StringArena>();
    std::vector<orv::String> sources;
    std::vector<orv::String> kept;
    // Enough names to fill several blocks, and one longer than any block.
    for (int i = 0; i < 20000; ++i)
        sources.emplace_back(("name-" + std::to_string(i) + std::string(i % 40, 'x')).c_str());
    sources.emplace_back(std::string(3u << 20, 'L').c_str());
    sources.emplace_back("");
    for (const orv::String& source : sources)
        kept.push_back(arena->keep(source));
    std::vector<orv::String> copies(kept.begin(), kept.end());
    for (std::size_t i = 0; i < sources.size(); ++i) {
        ASSERT_TRUE(kept[i] == sources[i]) << i;
        EXPECT_EQ(kept[i].getUCS2Buffer()[kept[i].size()], 0) << i;
        if (!sources[i].empty()) {
            EXPECT_NE(copies[i].getUCS2Buffer(), kept[i].getUCS2Buffer()) << i;
        }
    }
    // A view changed in place gets its own text and leaves the arena's alone.
    orv::String changed = kept[1];
    changed.toUpper();
    kept[0].append(orv::String("!"));
    EXPECT_TRUE(kept[0] == "name-0!");
    EXPECT_TRUE(kept[1] == sources[1]);
    // The copies outlive the arena.
    kept.clear();
    arena.reset();
    for (std::size_t i = 0; i < sources.size(); ++i)
        ASSERT_TRUE(copies[i] == sources[i]) << i;
}

} // namespace
