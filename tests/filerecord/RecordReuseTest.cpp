// Parsing into a record that already holds another one: a walk over the whole
// MFT reuses one FileRecord, and what it ends up holding must be exactly what
// a fresh parse of the same bytes gives.
#include "FakeVolumeFixture.h"

#include "FileRecordInternals.h"

#include <gmock/gmock.h>

namespace kestrow::test {
namespace {

FileNameValue named(const std::u16string& name, std::uint32_t flags = 0x20) {
    FileNameValue v;
    v.name = name;
    v.parent = reference(5, 5);
    v.flags = flags;
    return v;
}

// A record that fills every container, two of them past their first 8
// elements: 9 attributes, 10 cluster runs, 8 extension records, an index entry,
// a long directory name and a non-resident data size.
Bytes richRecord() {
    Bytes list;
    for (std::uint64_t holder = 70; holder < 78; ++holder)
        list = concat({list, attributeListEntry(reference(holder, 1))});
    Bytes runs = {0x11, 0x01, 0x10};
    for (int i = 0; i < 8; ++i)
        runs = concat({runs, Bytes{0x11, 0x01, 0x02}});
    runs.push_back(0x00);
    RecordBuilder builder;
    builder.directory(true)
        .add(fileNameAttribute(named(u"Documents and things", 0x10000000)))
        .add(residentAttribute(0x20, list))
        .add(nonResidentAttribute(0x80, runs, 0x9000, 0x8800))
        .add(nonResidentAttribute(0xA0, {0x11, 0x01, 0x40, 0x00}, 0x1000, 0x1000, u"$I30"))
        .add(residentAttribute(
            0x90, indexRootValue({indexEntry(reference(64, 1), 88), lastIndexEntry()}), u"$I30"));
    for (int i = 0; i < 4; ++i)
        builder.add(residentAttribute(0x10, Bytes(8, 0)));
    return builder.build();
}

class RecordReuseTest : public FakeVolumeTest {
protected:
    // Parses the bytes into `record`, as the MFT's record walks do.
    void reparse(FileRecord& record, const Bytes& bytes, std::uint64_t index) {
        m_reused = bytes;
        orv::Buffer<unsigned char> buffer(m_reused.data(), m_reused.size());
        FileRecordParser::reparse(record, buffer, FileReference(index, 3), *m_volume);
    }

    static void expectSameRecord(const FileRecord& reused, const FileRecord& fresh) {
        EXPECT_EQ(reused.isValid(), fresh.isValid());
        EXPECT_EQ(reused.mftIndex().index, fresh.mftIndex().index);
        EXPECT_EQ(reused.mftIndex().sequence, fresh.mftIndex().sequence);
        EXPECT_EQ(reused.parentMftIndex().index, fresh.parentMftIndex().index);
        EXPECT_EQ(reused.parentMftIndex().sequence, fresh.parentMftIndex().sequence);
        EXPECT_EQ(utf8(reused.name()), utf8(fresh.name()));
        EXPECT_EQ(reused.allocatedSize(), fresh.allocatedSize());
        EXPECT_EQ(reused.realSize(), fresh.realSize());
        EXPECT_EQ(reused.dataSize(), fresh.dataSize());
        EXPECT_EQ(reused.getCreationTime(), fresh.getCreationTime());
        EXPECT_EQ(reused.getModificationTime(), fresh.getModificationTime());
        EXPECT_EQ(reused.getLastReadTime(), fresh.getLastReadTime());
        EXPECT_EQ(reused.getFileAttributes(), fresh.getFileAttributes());
        EXPECT_EQ(attributeNames(reused), attributeNames(fresh));
        EXPECT_EQ(toVector(reused.getExternalAttributeReferences()),
                  toVector(fresh.getExternalAttributeReferences()));
        EXPECT_EQ(toVector(reused.getClusterRanges()), toVector(fresh.getClusterRanges()));
        EXPECT_EQ(toVector(reused.getIndexEntries()), toVector(fresh.getIndexEntries()));
        // Room as a new record's: a copy of the record grows the same way.
        EXPECT_EQ(reused.getAttributes().capacity(), fresh.getAttributes().capacity());
        EXPECT_EQ(reused.getClusterRanges().capacity(), fresh.getClusterRanges().capacity());
        EXPECT_EQ(reused.getExternalAttributeReferences().capacity(),
                  fresh.getExternalAttributeReferences().capacity());
        EXPECT_EQ(reused.getIndexEntries().capacity(), fresh.getIndexEntries().capacity());
    }

    Bytes m_reused;
};

TEST_F(RecordReuseTest, TheRichRecordReallyFillsEveryContainer) {
    const FileRecord rich = parse(richRecord());
    ASSERT_TRUE(rich.isValid());
    EXPECT_EQ(rich.getAttributes().size(), 9u);
    EXPECT_EQ(rich.getAttributes().capacity(), 16u);
    // Nine runs of $DATA and the one of $INDEX_ALLOCATION.
    EXPECT_EQ(rich.getClusterRanges().size(), 10u);
    EXPECT_EQ(rich.getExternalAttributeReferences().size(), 8u);
    EXPECT_EQ(rich.getIndexEntries().size(), 1u);
    EXPECT_EQ(rich.dataSize(), 0x8800u);
    EXPECT_EQ(utf8(rich.name()), "Documents and things");
    EXPECT_NE(rich.getFileAttributes() & 0x10, 0u);
}

TEST_F(RecordReuseTest, ARecordWithFewerAttributesKeepsNothingOfThePreviousOne) {
    const Bytes sparse = RecordBuilder()
                             .add(fileNameAttribute(named(u"B.TXT")))
                             .add(residentAttribute(0x80, Bytes(5, 1)))
                             .build();
    FileRecord record;
    reparse(record, richRecord(), 42);
    ASSERT_EQ(record.getAttributes().size(), 9u);
    reparse(record, sparse, 43);
    expectSameRecord(record, parse(sparse, 43));
    EXPECT_EQ(utf8(record.name()), "B.TXT");
    EXPECT_EQ(record.dataSize(), 5u);
    EXPECT_EQ(record.getAttributes().capacity(), 8u);
}

TEST_F(RecordReuseTest, TheLongNameRuleStartsOverForEveryRecord) {
    // After a record whose name was long, a short name followed by a long one
    // must still give the long one.
    const Bytes shortThenLong = RecordBuilder()
                                    .add(fileNameAttribute(named(u"DOCUME~1")))
                                    .add(fileNameAttribute(named(u"Documents")))
                                    .build();
    FileRecord record;
    reparse(record, richRecord(), 42);
    reparse(record, shortThenLong, 44);
    EXPECT_EQ(utf8(record.name()), "Documents");
    expectSameRecord(record, parse(shortThenLong, 44));
}

TEST_F(RecordReuseTest, AFreeRecordAfterAValidOneIsEmptyAndInvalid) {
    const Bytes unused = RecordBuilder().inUse(false).add(fileNameAttribute(named(u"a"))).build();
    FileRecord record;
    reparse(record, richRecord(), 42);
    reparse(record, unused, 45);
    EXPECT_FALSE(record.isValid());
    EXPECT_TRUE(record.name().empty());
    EXPECT_EQ(record.parentMftIndex().index, 0u);
    EXPECT_EQ(record.getFileAttributes(), 0u);
    expectSameRecord(record, parse(unused, 45));
}

TEST_F(RecordReuseTest, AMovedFromRecordCanBeParsedInto) {
    FileRecord record;
    reparse(record, richRecord(), 42);
    FileRecord taken(std::move(record));
    reparse(record, richRecord(), 46);
    expectSameRecord(record, parse(richRecord(), 46));
}

TEST_F(RecordReuseTest, TheSameRecordParsedTwiceIsNotDoubled) {
    FileRecord record;
    reparse(record, richRecord(), 42);
    reparse(record, richRecord(), 42);
    expectSameRecord(record, parse(richRecord(), 42));
}

TEST_F(RecordReuseTest, ASummaryParseLeavesOutOnlyTheSummariesAndTheIndexEntries) {
    FileRecord record;
    reparse(record, richRecord(), 42);
    m_reused = richRecord();
    orv::Buffer<unsigned char> buffer(m_reused.data(), m_reused.size());
    FileRecordParser::reparse(record, buffer, FileReference(42, 3), *m_volume,
                              ParseDetail::SUMMARY);
    const FileRecord fresh = parse(richRecord(), 42);
    EXPECT_TRUE(record.getAttributes().empty());
    EXPECT_EQ(record.getAttributes().capacity(), 8u);
    EXPECT_TRUE(record.getIndexEntries().empty());
    EXPECT_EQ(utf8(record.name()), "Documents and things");
    EXPECT_EQ(record.parentMftIndex().sequence, fresh.parentMftIndex().sequence);
    EXPECT_EQ(record.dataSize(), fresh.dataSize());
    EXPECT_EQ(record.allocatedSize(), fresh.allocatedSize());
    EXPECT_EQ(record.realSize(), fresh.realSize());
    EXPECT_EQ(record.getFileAttributes(), fresh.getFileAttributes());
    EXPECT_EQ(record.getCreationTime(), fresh.getCreationTime());
    EXPECT_EQ(toVector(record.getExternalAttributeReferences()),
              toVector(fresh.getExternalAttributeReferences()));
    EXPECT_EQ(toVector(record.getClusterRanges()), toVector(fresh.getClusterRanges()));
    // A resident unnamed $DATA sets the data size in this parse too.
    const Bytes small = RecordBuilder()
                            .add(fileNameAttribute(named(u"B.TXT")))
                            .add(residentAttribute(0x80, Bytes(5, 1)))
                            .build();
    m_reused = small;
    orv::Buffer<unsigned char> smallBuffer(m_reused.data(), m_reused.size());
    FileRecordParser::reparse(record, smallBuffer, FileReference(43, 0), *m_volume,
                              ParseDetail::SUMMARY);
    EXPECT_EQ(record.dataSize(), 5u);
    EXPECT_EQ(utf8(record.name()), "B.TXT");

    // An $INDEX_ROOT whose header lies past the record ends both parses there.
    RecordBuilder cut;
    cut.add(residentAttribute(0x90, indexRootValue({lastIndexEntry()}), u"$I30"))
        .add(fileNameAttribute(named(u"after.txt")));
    Bytes cutBytes = cut.build();
    putLe(cutBytes, cut.offsetOf(0) + 0x14, 0xFFF0, 2); // value offset
    const FileRecord full = parse(cutBytes, 44);
    m_reused = cutBytes;
    orv::Buffer<unsigned char> cutBuffer(m_reused.data(), m_reused.size());
    FileRecordParser::reparse(record, cutBuffer, FileReference(44, 0), *m_volume,
                              ParseDetail::SUMMARY);
    EXPECT_TRUE(full.name().empty());
    EXPECT_TRUE(full.getAttributes().empty());
    EXPECT_TRUE(record.name().empty());
}

} // namespace
} // namespace kestrow::test
