// The attribute walk and the resident attributes, on hand-built records.
#include "FakeVolumeFixture.h"

#include "support/Fixtures.h"
#include "support/LogCapture.h"

#include <gmock/gmock.h>

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace kestrow::test {
namespace {

FileNameValue named(const std::u16string& name, std::uint64_t parent = reference(5, 5)) {
    FileNameValue v;
    v.name = name;
    v.parent = parent;
    return v;
}

class RecordHeaderTest : public FakeVolumeTest {};

TEST_F(RecordHeaderTest, RefusesOtherSignaturesAndFreeRecordsSilently) {
    LogCapture log;
    const Bytes baad =
        RecordBuilder().signature("BAAD").add(fileNameAttribute(named(u"a"))).build();
    const Bytes unused = RecordBuilder().inUse(false).add(fileNameAttribute(named(u"a"))).build();
    for (const Bytes& bytes : {baad, unused}) {
        const FileRecord record = parse(bytes);
        EXPECT_FALSE(record.isValid());
        EXPECT_THAT(toVector(record.getAttributes()), IsEmpty());
        EXPECT_TRUE(record.name().empty());
        EXPECT_EQ(record.realSize(), 0u);
        EXPECT_EQ(record.allocatedSize(), 0u);
        EXPECT_EQ(record.parentMftIndex().index, 0u);
        EXPECT_EQ(record.mftIndex().index, OWN_INDEX);
        EXPECT_EQ(record.mftIndex().sequence, 3u);
    }
    EXPECT_THAT(log.texts("libKestrow.FileRecord"), IsEmpty());
}

TEST_F(RecordHeaderTest, BufferShorterThanTheHeaderIsNoRecord) {
    Bytes bytes = RecordBuilder().build();
    bytes.resize(0x20);
    EXPECT_FALSE(parse(bytes).isValid());
    EXPECT_FALSE(parse(Bytes{}).isValid());
}

TEST_F(RecordHeaderTest, EndMarkerFirstGivesValidRecordWithoutAttributes) {
    const FileRecord record = parse(RecordBuilder().build());
    EXPECT_TRUE(record.isValid());
    EXPECT_THAT(toVector(record.getAttributes()), IsEmpty());
    EXPECT_EQ(record.allocatedSize(), 0u);
    EXPECT_EQ(record.realSize(), 0u);
}

TEST_F(RecordHeaderTest, ResidentLastAttributeLeavesTheRecordFigures) {
    const Bytes bytes = RecordBuilder().add(fileNameAttribute(named(u"a.txt"))).build();
    const FileRecord record = parse(bytes);
    ASSERT_TRUE(record.isValid());
    const std::uint32_t bytesInUse = bytes[0x18] | bytes[0x19] << 8;
    EXPECT_EQ(record.realSize(), bytesInUse);
    // bytes allocated (1024) times the sector size, in 32 bits.
    EXPECT_EQ(record.allocatedSize(), 1024u * 512u);
}

TEST_F(RecordHeaderTest, AllocatedFigureIsMultipliedInThirtyTwoBits) {
    Bytes bytes = RecordBuilder().add(fileNameAttribute(named(u"a.txt"))).build();
    putLe(bytes, 0x1C, 0x00800001, 4); // x 512 = 0x1'0000'0200
    EXPECT_EQ(parse(bytes).allocatedSize(), 0x200u);
}

TEST_F(RecordHeaderTest, SummariesFollowRecordOrderAndTheResidentTable) {
    const Bytes value(8, 0);
    const Bytes bytes = RecordBuilder()
                            .add(residentAttribute(0x10, Bytes(0x48, 0)))
                            .add(fileNameAttribute(named(u"x.bin")))
                            .add(residentAttribute(0x40, value))
                            .add(residentAttribute(0xA0, value)) // not named when resident
                            .add(residentAttribute(0xF0, value))
                            .add(residentAttribute(0x100, value))
                            .add(residentAttribute(0x110, value))
                            .add(residentAttribute(0x08, value))
                            .add(residentAttribute(0x80, value))
                            .build();
    EXPECT_THAT(attributeNames(parse(bytes)),
                ElementsAre("$STANDARD_INFORMATION/r", "$FILE_NAME/r", "$OBJECT_ID/r", "/r", "/r",
                            "$LOGGED_UTILITY_STREAM/r", "/r", "/r", "$DATA/r"));
}

// ---- Guards of the walk ------------------------------------------------------------

// The walk yields what the walk as designed yields up to its first read
// outside the record, and stops at that read, not before.
TEST_F(RecordHeaderTest, TheWalkStopsAtItsFirstReadOutsideTheRecordNotBefore) {
    struct Case {
        const char* what;
        std::uint32_t dataLength; // patched into the $DATA attribute's length
        std::size_t bufferSize;   // 0: the whole record
        std::vector<std::string> names;
        std::uint64_t dataSize;
    };
    RecordBuilder builder;
    builder.add(nonResidentAttribute(0xA0, {0x11, 0x02, 0x10, 0x00}, 8192, 8192, u"$I30"))
        .add(residentAttribute(0x80, Bytes(16, 0)));
    const std::size_t data = builder.offsetOf(1);
    const Case cases[] = {
        {"as built", 0x28, 0, {"$INDEX_ALLOCATION/n", "$DATA/r"}, 16},
        // Handled once; walking it again would never end.
        {"length 0", 0, 0, {"$INDEX_ALLOCATION/n", "$DATA/r"}, 16},
        // The update sequence number in the length: the attribute is still
        // handled and summarised, then adding its length ends the walk.
        {"length past the record", 0x040A0028, 0, {"$INDEX_ALLOCATION/n", "$DATA/r"}, 16},
        // Shorter than its header: its value length is read where it lies, and
        // the walk goes on 0x10 bytes on, where that value length (0x10) reads
        // as a type code.
        {"length 0x10", 0x10, 0, {"$INDEX_ALLOCATION/n", "$DATA/r", "$STANDARD_INFORMATION/r"}, 16},
        // The type code is the last field inside: the record's figures are set
        // for the attribute, whose non-resident flag is the first read outside.
        {"flag outside", 0x28, data + 4, {"$INDEX_ALLOCATION/n"}, 0},
        {"type code outside", 0x28, data + 3, {"$INDEX_ALLOCATION/n"}, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        Bytes bytes = builder.build();
        putLe(bytes, data + 4, c.dataLength, 4);
        const std::uint32_t bytesInUse = bytes[0x18] | bytes[0x19] << 8;
        if (c.bufferSize != 0)
            bytes.resize(c.bufferSize);
        const FileRecord record = parse(bytes);
        EXPECT_TRUE(record.isValid());
        EXPECT_EQ(attributeNames(record), c.names);
        EXPECT_EQ(record.dataSize(), c.dataSize);
        EXPECT_EQ(toVector(record.getClusterRanges()).size(), 1u);
        const bool stoppedAtTypeCode = c.bufferSize == data + 3;
        // The last attribute walked sets the sizes: the non-resident one's own,
        // or the record's figures for every later one, even one whose flag lies
        // outside the record.
        EXPECT_EQ(record.realSize(), stoppedAtTypeCode ? 8192u : bytesInUse);
        EXPECT_EQ(record.allocatedSize(), stoppedAtTypeCode ? 8192u : 1024u * 512u);
    }
}

TEST_F(RecordHeaderTest, BytesInUseBeyondTheBufferStopsAtTheBufferEnd) {
    RecordBuilder builder;
    builder.add(fileNameAttribute(named(u"f"))).withoutEndMarker();
    Bytes bytes = builder.build();
    putLe(bytes, 0x18, 0xFFFFFFF0, 4);
    // Fill the rest with attribute-like garbage of a sane length.
    for (std::size_t at = builder.offsetOf(1); at + 0x18 <= bytes.size(); at += 0x18) {
        putLe(bytes, at, 0x40, 4);
        putLe(bytes, at + 4, 0x18, 4);
    }
    const FileRecord record = parse(bytes);
    EXPECT_TRUE(record.isValid());
    EXPECT_EQ(utf8(record.name()), "f");
    EXPECT_GT(record.getAttributes().size(), 10u);
}

// ---- $FILE_NAME ---------------------------------------------------------------------

class FileNameTest : public FakeVolumeTest {};

// The name a record keeps of its $FILE_NAMEs: a short (8.3) name gives way to
// the next name, a long one holds for good.
TEST_F(FileNameTest, TheNameRule) {
    auto kept = [&](const std::vector<std::u16string>& names) {
        RecordBuilder builder;
        for (const std::u16string& name : names)
            builder.add(fileNameAttribute(named(name)));
        return utf8(parse(builder.build()).name());
    };
    for (const std::u16string shortName :
         {u"DOCUME~1", u"README.TXT", u"ABCDEFGH.TXT", u".", u"..", u".TXT", u"A", u"$MFT",
          u"A..B" /* empty pieces do not count */, u"\u00C9T\u00C9.TXT" /* upper case */})
        EXPECT_EQ(kept({shortName, u"LATER"}), "LATER") << utf16ToUtf8(shortName);
    for (const std::u16string longName :
         {u"readme.txt", u"Documents", u"A.B.C", u"ABCDEFGHI.TX", u"ABCDEFGH.TXTX", u"A.TXTX",
          u"ABCDEFGHIJKLM", u"ABCDEFGHI", u"\u00E9T\u00C9.TXT", u"\u65E5\u672C.txt"})
        EXPECT_EQ(kept({longName, u"LATER"}), utf16ToUtf8(longName)); // kept as UTF-16 too
    EXPECT_EQ(kept({u"DOCUME~1", u"Documents", u"Third long name"}), "Documents");
    EXPECT_EQ(kept({u"Documents", u"DOCUME~1"}), "Documents");
    EXPECT_EQ(kept({u"README.TXT", u"OTHER.TXT", u"THIRD.TXT"}), "OTHER.TXT");
}

// Names are read where they lie in the record; at an odd address (a damaged
// first-attribute offset) they must read the same.
TEST_F(FileNameTest, NamesAtAnOddAddressReadTheSame) {
    const std::vector<std::vector<std::u16string>> cases = {
        {u"DOCUME~1", u"Documents"},
        {u"README.TXT", u"OTHER.TXT"},
        {u"a name longer than the eight-three form.txt"},
        {u"\u65E5\u672C.TXT", u"LATER"},
    };
    for (const auto& names : cases) {
        RecordBuilder builder;
        for (const std::u16string& name : names)
            builder.add(fileNameAttribute(named(name)));
        const Bytes even = builder.build();
        Bytes odd = even;
        odd.insert(odd.begin() + RecordBuilder::FIRST_ATTRIBUTE, 0x00);
        odd.resize(even.size());
        putLe(odd, 0x14, RecordBuilder::FIRST_ATTRIBUTE + 1, 2);
        const std::uint32_t bytesInUse =
            even[0x18] | (even[0x19] << 8) | (even[0x1A] << 16) | (std::uint32_t(even[0x1B]) << 24);
        putLe(odd, 0x18, bytesInUse + 1, 4);
        const FileRecord fromEven = parse(even);
        const FileRecord fromOdd = parse(odd);
        ASSERT_FALSE(fromOdd.name().empty()) << utf16ToUtf8(names[0]);
        EXPECT_EQ(utf8(fromOdd.name()), utf8(fromEven.name())) << utf16ToUtf8(names[0]);
        EXPECT_EQ(attributeNames(fromOdd), attributeNames(fromEven));
    }
}

TEST_F(FileNameTest, FirstLongNameKeptButParentFromTheLast) {
    FileNameValue first = named(u"first name.txt", reference(100, 7));
    first.creation = 111;
    first.modification = 222;
    first.access = 333;
    first.flags = 0x21;
    FileNameValue second = named(u"second name.txt", reference(200, 9));
    second.creation = 999;
    second.flags = 0x2;
    const FileRecord record =
        parse(RecordBuilder().add(fileNameAttribute(first)).add(fileNameAttribute(second)).build());
    EXPECT_EQ(utf8(record.name()), "first name.txt");
    EXPECT_EQ(record.parentMftIndex().index, 200u);
    EXPECT_EQ(record.parentMftIndex().sequence, 9u);
    EXPECT_EQ(record.getCreationTime(), 111u);
    EXPECT_EQ(record.getModificationTime(), 222u);
    EXPECT_EQ(record.getLastReadTime(), 333u);
    EXPECT_EQ(record.getFileAttributes(), 0x21u);
}

TEST_F(FileNameTest, DirectoryFlagAddsTheDirectoryAttribute) {
    FileNameValue v = named(u"Dir");
    v.flags = 0x10000000;
    const FileRecord record = parse(RecordBuilder().add(fileNameAttribute(v)).build());
    EXPECT_EQ(record.getFileAttributes(), 0x10000010u);
}

TEST_F(FileNameTest, EmptyNameLeavesTheRecordUntouched) {
    FileNameValue empty = named(u"", reference(77, 1));
    const FileRecord record = parse(RecordBuilder().add(fileNameAttribute(empty)).build());
    EXPECT_TRUE(record.name().empty());
    EXPECT_EQ(record.parentMftIndex().index, 0u);
    EXPECT_EQ(record.getCreationTime(), 0u);
    EXPECT_THAT(attributeNames(record), ElementsAre("$FILE_NAME/r"));
}

TEST_F(FileNameTest, NameRunningPastTheBufferEndsTheWalkThere) {
    RecordBuilder builder(512);
    builder.add(fileNameAttribute(named(u"n"))).add(residentAttribute(0x80, Bytes(4, 1)));
    Bytes bytes = builder.build();
    // A name length of 255 units reaches past the 512-byte buffer: reading the
    // name is the walk's first read outside, and nothing after it happens.
    bytes[builder.offsetOf(0) + 0x58] = 255;
    const FileRecord record = parse(bytes);
    EXPECT_TRUE(record.isValid());
    EXPECT_TRUE(record.name().empty());
    EXPECT_EQ(record.parentMftIndex().index, 0u);
    EXPECT_THAT(attributeNames(record), IsEmpty());
    EXPECT_EQ(record.dataSize(), 0u);
}

// ---- $DATA, $ATTRIBUTE_LIST, $INDEX_ROOT -------------------------------------------

class ResidentAttributeTest : public FakeVolumeTest {};

TEST_F(ResidentAttributeTest, UnnamedDataSetsTheDataSizeNamedDoesNot) {
    EXPECT_EQ(parse(RecordBuilder().add(residentAttribute(0x80, Bytes(37, 1), u"ads")).build())
                  .dataSize(),
              0u);
    const FileRecord record = parse(RecordBuilder()
                                        .add(residentAttribute(0x80, Bytes(37, 1)))
                                        .add(residentAttribute(0x80, Bytes(5, 1), u"ads"))
                                        .build());
    EXPECT_EQ(record.dataSize(), 37u);
    EXPECT_THAT(attributeNames(record), ElementsAre("$DATA/r", "$DATA/r"));
}

TEST_F(ResidentAttributeTest, AttributeListNamesOtherRecordsOnceAndNeverItself) {
    const Bytes list =
        concat({attributeListEntry(reference(OWN_INDEX, 3)), attributeListEntry(reference(77, 1)),
                attributeListEntry(reference(OWN_INDEX, 3)), attributeListEntry(reference(77, 2)),
                attributeListEntry(reference(78, 1))});
    const FileRecord record = parse(RecordBuilder().add(residentAttribute(0x20, list)).build());
    EXPECT_THAT(toVector(record.getExternalAttributeReferences()), ElementsAre(77u, 78u));
    EXPECT_THAT(attributeNames(record), ElementsAre("$ATTRIBUTE_LIST/r"));
}

TEST_F(ResidentAttributeTest, AttributeListEntryOfLengthZeroEndsTheList) {
    const Bytes list =
        concat({attributeListEntry(reference(77, 1)), attributeListEntry(reference(78, 1), 0x20)});
    Bytes zeroed = list;
    putLe(zeroed, 0x24, 0, 2);
    const FileRecord record = parse(RecordBuilder().add(residentAttribute(0x20, zeroed)).build());
    EXPECT_THAT(toVector(record.getExternalAttributeReferences()), ElementsAre(77u));
}

TEST_F(ResidentAttributeTest, AttributeListOnlyPointingAtItselfGivesNothing) {
    const Bytes list = attributeListEntry(reference(OWN_INDEX, 1));
    const FileRecord record = parse(RecordBuilder().add(residentAttribute(0x20, list)).build());
    EXPECT_THAT(toVector(record.getExternalAttributeReferences()), IsEmpty());
}

TEST_F(ResidentAttributeTest, IndexRootListsEachChildOnceInOrder) {
    const Bytes root = indexRootValue({indexEntry(reference(64, 1)), indexEntry(reference(70, 1)),
                                       indexEntry(reference(64, 2)), indexEntry(reference(65, 1)),
                                       lastIndexEntry()});
    const FileRecord record =
        parse(RecordBuilder().add(residentAttribute(0x90, root, u"$I30")).build());
    EXPECT_THAT(toVector(record.getIndexEntries()), ElementsAre(64u, 70u, 65u));
    EXPECT_THAT(attributeNames(record), ElementsAre("$INDEX_ROOT/r"));
}

TEST_F(ResidentAttributeTest, IndexRootOfAnotherNameIsNotWalked) {
    const Bytes root = indexRootValue({indexEntry(64), lastIndexEntry()});
    EXPECT_THAT(toVector(parse(RecordBuilder().add(residentAttribute(0x90, root, u"$SDH")).build())
                             .getIndexEntries()),
                IsEmpty());
    EXPECT_THAT(
        toVector(
            parse(RecordBuilder().add(residentAttribute(0x90, root)).build()).getIndexEntries()),
        IsEmpty());
}

TEST_F(ResidentAttributeTest, IndexEntryShorterThan82BytesEndsTheWalk) {
    const Bytes root =
        indexRootValue({indexEntry(64), indexEntry(65, 80), indexEntry(66), lastIndexEntry()});
    EXPECT_THAT(toVector(parse(RecordBuilder().add(residentAttribute(0x90, root, u"$I30")).build())
                             .getIndexEntries()),
                ElementsAre(64u));
}

TEST_F(ResidentAttributeTest, WalkBoundCountsTheEntryAboutToBeRead) {
    // Three entries of 0x68 bytes; the total-size field sets the bound to
    // (total - 32): the first entry is read whenever the bound is not 0, and
    // each later one while the lengths of the entries after the first stay
    // below the bound.
    auto entriesWithBound = [&](std::uint32_t bound) {
        Bytes root = indexRootValue(
            {indexEntry(64), indexEntry(65), indexEntry(66), indexEntry(67), lastIndexEntry()});
        putLe(root, 0x14, bound + 32, 4);
        return toVector(parse(RecordBuilder().add(residentAttribute(0x90, root, u"$I30")).build())
                            .getIndexEntries());
    };
    EXPECT_THAT(entriesWithBound(0), IsEmpty());
    EXPECT_THAT(entriesWithBound(1), ElementsAre(64u));
    EXPECT_THAT(entriesWithBound(0x68), ElementsAre(64u));
    EXPECT_THAT(entriesWithBound(0x69), ElementsAre(64u, 65u));
    EXPECT_THAT(entriesWithBound(0xD1), ElementsAre(64u, 65u, 66u));
}

TEST_F(ResidentAttributeTest, IndexRootWithWrappedBoundStaysInsideTheBuffer) {
    // A total size below 32 wraps the 32-bit bound to a huge number. Past the
    // two real entries (over the end marker and beyond the bytes in use) the
    // record holds a chain of 0x68-byte "entries" up to the buffer's end; the
    // walk follows it to the end and stops there.
    Bytes root = indexRootValue({indexEntry(64), indexEntry(65)});
    putLe(root, 0x14, 4, 4);
    RecordBuilder builder;
    builder.add(residentAttribute(0x90, root, u"$I30"));
    Bytes bytes = builder.build();
    std::size_t last = 0;
    for (std::size_t at = builder.offsetOf(1); at + 10 <= bytes.size(); at += 0x68) {
        if (at != builder.offsetOf(1))
            putLe(bytes, at, 500, 8);
        putLe(bytes, at + 8, 0x68, 2);
        last = at;
    }
    // The last "entry" has its reference and length inside and its key past
    // the end: it is taken, and the walk ends reading the next length.
    ASSERT_GT(last + 0x68, bytes.size());
    putLe(bytes, last, 501, 8);
    const FileRecord record = parse(bytes);
    EXPECT_TRUE(record.isValid());
    EXPECT_THAT(toVector(record.getIndexEntries()), ElementsAre(64u, 65u, 0xFFFFFFFFu, 500u, 501u));
    EXPECT_THAT(attributeNames(record), ElementsAre("$INDEX_ROOT/r"));
}

// ---- Copies ---------------------------------------------------------------------------

TEST_F(ResidentAttributeTest, CopiesAndMovesKeepEverything) {
    const Bytes root = indexRootValue({indexEntry(64), lastIndexEntry()});
    const FileRecord original = parse(RecordBuilder()
                                          .add(fileNameAttribute(named(u"a long name.txt")))
                                          .add(residentAttribute(0x90, root, u"$I30"))
                                          .build());
    FileRecord copy(original);
    EXPECT_EQ(utf8(copy.name()), "a long name.txt");
    EXPECT_THAT(toVector(copy.getIndexEntries()), ElementsAre(64u));
    FileRecord moved(std::move(copy));
    EXPECT_EQ(utf8(moved.name()), "a long name.txt");
    EXPECT_EQ(moved.getAttributes().size(), 2u);
    FileRecord assigned;
    EXPECT_FALSE(assigned.isValid());
    assigned = moved;
    EXPECT_TRUE(assigned.isValid());
    EXPECT_EQ(assigned.getIndexEntries().size(), 1u);

    const RecordSummary summary(original);
    EXPECT_EQ(summary.mftIndex.index, OWN_INDEX);
    EXPECT_EQ(summary.parentMftIndex.index, 5u);
    EXPECT_EQ(utf8(summary.name), "a long name.txt");
    EXPECT_EQ(summary.creationTime, original.getCreationTime());
    EXPECT_EQ(summary.fileAttributes, 0x20u);
}

TEST_F(ResidentAttributeTest, DefaultRecordIgnoresProcessAttributes) {
    FileRecord record;
    Bytes bytes = RecordBuilder().add(fileNameAttribute(named(u"x"))).build();
    orv::Buffer<unsigned char> buffer(bytes.data(), bytes.size());
    record.processAttributes(buffer);
    EXPECT_FALSE(record.isValid());
    VolumeHandle none;
    record.postProcess(none);
    EXPECT_THAT(toVector(record.getIndexEntries()), IsEmpty());
}

TEST_F(ResidentAttributeTest, ProcessingTwiceAddsTwice) {
    Bytes bytes = RecordBuilder().add(fileNameAttribute(named(u"x"))).build();
    FileRecord record = parse(bytes);
    orv::Buffer<unsigned char> buffer(bytes.data(), bytes.size());
    record.processAttributes(buffer);
    EXPECT_EQ(record.getAttributes().size(), 2u);
}

} // namespace
} // namespace kestrow::test
