// RecordReader, the analysts' reading of one record, on hand-built records:
// free records, both time sets, every name and stream, the fix-up check,
// damage, and the ids of attributes merged from an extension record. (Whole
// volumes are compared with fls in tests/tool/TimelineTest.cpp.)
#include "support/RecordBytes.h"

#include <libKestrow/RecordReader.h>

#include <gtest/gtest.h>

namespace {

using kestrow::test::Bytes;
using kestrow::test::FileNameValue;
using kestrow::test::putLe;
using kestrow::test::RecordBuilder;

Bytes withId(Bytes attribute, std::uint16_t id) {
    putLe(attribute, 0x0E, id, 2);
    return attribute;
}

Bytes standardInformation() {
    Bytes value(0x48, 0);
    putLe(value, 0x00, 0x01D1000000000001ULL, 8); // created
    putLe(value, 0x08, 0x01D1000000000002ULL, 8); // modified
    putLe(value, 0x10, 0x01D1000000000003ULL, 8); // MFT changed
    putLe(value, 0x18, 0x01D1000000000004ULL, 8); // accessed
    putLe(value, 0x20, 0x21, 4);                  // read-only, archive
    putLe(value, 0x34, 0x105, 4);                 // security id
    return kestrow::test::residentAttribute(0x10, value);
}

Bytes fileName(const std::u16string& name, std::uint8_t nameSpace) {
    FileNameValue value;
    value.name = name;
    value.nameSpace = nameSpace;
    value.parent = kestrow::test::reference(40, 3);
    return kestrow::test::fileNameAttribute(value);
}

RecordDetails readRecord(const Bytes& bytes, unsigned long long index = 77) {
    RecordDetails details;
    EXPECT_TRUE(RecordReader::read(bytes.data(), bytes.size(), index, details));
    return details;
}

TEST(RecordReader, AFreeRecordWithBothTimeSetsEveryNameAndEveryStream) {
    const Bytes bytes =
        RecordBuilder()
            .inUse(false)
            .add(withId(standardInformation(), 0))
            .add(withId(fileName(u"LONGNA~1.TXT", 2), 2))
            .add(withId(fileName(u"long name.txt", 1), 3))
            .add(withId(kestrow::test::residentAttribute(0x80, Bytes(12, 'a')), 1))
            .add(withId(kestrow::test::residentAttribute(0x80, Bytes(5, 'z'), u"Zone.Identifier"),
                        4))
            .build();
    const RecordDetails details = readRecord(bytes);
    EXPECT_TRUE(details.isFileRecord);
    EXPECT_TRUE(details.fixupsApplied);
    EXPECT_TRUE(details.attributesComplete);
    EXPECT_FALSE(details.inUse);
    EXPECT_EQ(details.sequence, 1);
    ASSERT_TRUE(details.hasStandardInformation);
    EXPECT_EQ(details.standardTimes.created, 0x01D1000000000001ULL);
    EXPECT_EQ(details.standardTimes.mftChanged, 0x01D1000000000003ULL);
    EXPECT_EQ(details.standardTimes.accessed, 0x01D1000000000004ULL);
    EXPECT_EQ(details.standardFlags, 0x21u);
    EXPECT_EQ(details.securityId, 0x105u);

    ASSERT_EQ(details.names.size(), 2u);
    EXPECT_EQ(details.names[0].nameSpace, RecordFileName::DOS_NAME);
    EXPECT_EQ(details.names[1].name, u"long name.txt");
    EXPECT_EQ(details.names[1].attributeId, 3);
    EXPECT_EQ(details.names[1].parent.index, 40u);
    EXPECT_EQ(details.names[1].parent.sequence, 3u);
    EXPECT_EQ(details.names[1].times.modified, 0x01D0000000000002ULL);
    EXPECT_EQ(details.names[1].times.mftChanged, 0x01D0000000000003ULL);
    EXPECT_EQ(details.names[1].valueLength, 66u + 2 * 13);
    ASSERT_NE(details.preferredName(), nullptr);
    EXPECT_EQ(details.preferredName()->name, u"long name.txt");

    ASSERT_EQ(details.streams.size(), 2u);
    EXPECT_EQ(details.streams[0].name, u"");
    EXPECT_EQ(details.streams[0].size, 12u);
    EXPECT_TRUE(details.streams[0].resident);
    EXPECT_EQ(details.streams[1].name, u"Zone.Identifier");
    EXPECT_EQ(details.streams[1].size, 5u);
    EXPECT_EQ(details.streams[1].attributeId, 4);
}

TEST(RecordReader, FixupsAreAppliedAndATornWriteIsReported) {
    Bytes bytes = RecordBuilder().add(standardInformation()).build();
    // Update sequence number 0x0707 at the end of both strides; the bytes
    // that belong there are kept in the array.
    putLe(bytes, 0x30, 0x0707, 2);
    putLe(bytes, 0x32, 0xAAAA, 2);
    putLe(bytes, 0x34, 0xBBBB, 2);
    putLe(bytes, 510, 0x0707, 2);
    putLe(bytes, 1022, 0x0707, 2);
    const Bytes untouched = bytes;
    EXPECT_TRUE(readRecord(bytes).fixupsApplied);
    EXPECT_EQ(bytes, untouched) << "read works on a copy";
    RecordDetails inPlace;
    ASSERT_TRUE(RecordReader::readInPlace(bytes.data(), bytes.size(), 77, inPlace));
    EXPECT_EQ(bytes[510], 0xAA);
    EXPECT_EQ(bytes[1022], 0xBB);

    putLe(bytes = untouched, 1022, 0x0708, 2); // the second sector never made it
    const RecordDetails torn = readRecord(bytes);
    EXPECT_FALSE(torn.fixupsApplied);
    EXPECT_TRUE(torn.hasStandardInformation) << "a torn record is still read as it stands";
}

TEST(RecordReader, DamageStopsTheWalkAndKeepsWhatCameBefore) {
    Bytes bytes = RecordBuilder().add(standardInformation()).add(fileName(u"a.txt", 1)).build();
    // The second attribute's length becomes 0.
    putLe(bytes, RecordBuilder::FIRST_ATTRIBUTE + standardInformation().size() + 4, 0, 4);
    const RecordDetails details = readRecord(bytes);
    EXPECT_FALSE(details.attributesComplete);
    EXPECT_TRUE(details.hasStandardInformation);
    EXPECT_TRUE(details.names.empty());

    RecordDetails none;
    const Bytes notFile = RecordBuilder().signature("BAAD").build();
    EXPECT_FALSE(RecordReader::read(notFile.data(), notFile.size(), 9, none));
    EXPECT_FALSE(none.isFileRecord);
    EXPECT_FALSE(RecordReader::read(bytes.data(), 32, 9, none)) << "shorter than a header";
}

TEST(RecordReader, AnExtensionsClashingIdsFollowTheHighestOfTheFile) {
    RecordDetails base =
        readRecord(RecordBuilder()
                       .add(withId(standardInformation(), 0))
                       .add(withId(fileName(u"f.txt", 1), 2))
                       .add(withId(kestrow::test::residentAttribute(0x80, Bytes(3, 'a')), 5))
                       .build());
    const RecordDetails extension =
        readRecord(RecordBuilder()
                       .add(withId(fileName(u"second name.txt", 1), 0))
                       .add(withId(kestrow::test::residentAttribute(0x80, Bytes(4, 'b'), u"s1"), 0))
                       .add(withId(kestrow::test::residentAttribute(0x80, Bytes(4, 'c'), u"s2"), 2))
                       .build(),
                   78);
    RecordReader::mergeExtension(base, extension);
    ASSERT_EQ(base.names.size(), 2u);
    EXPECT_EQ(base.names[1].attributeId, 0) << "a $FILE_NAME keeps its own id";
    EXPECT_EQ(base.names[1].record, 78u);
    ASSERT_EQ(base.streams.size(), 3u);
    // 0 and 2 are taken by the base record's $STANDARD_INFORMATION and
    // $FILE_NAME: each takes the next id above the highest (5, the $DATA).
    EXPECT_EQ(base.streams[1].attributeId, 6);
    EXPECT_EQ(base.streams[2].attributeId, 7);
}

} // namespace
