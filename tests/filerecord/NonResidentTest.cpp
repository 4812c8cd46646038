// The run-list decoder and the non-resident attribute handler.
#include "FakeVolumeFixture.h"

#include "FileRecordInternals.h"

#include "support/LogCapture.h"

#include <kestrow/Platform.h>
#include <orv/Format.h>

#include <gmock/gmock.h>

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

namespace kestrow::test {
namespace {

const char* const LOGGER = "libKestrow.FileRecord";

std::vector<ClusterRange> decode(const Bytes& runs, std::uint64_t maxClusters = 1ULL << 40) {
    return toVector(filerecord::decodeRunList(runs.data(), runs.size(), maxClusters));
}

// ---- The decoder --------------------------------------------------------------------

TEST(RunListDecoder, DecodesOneRunAndLogsItsSteps) {
    LogCapture log;
    EXPECT_THAT(decode({0x21, 0x18, 0x34, 0x56, 0x00}, 0x18),
                ElementsAre(ClusterRange(0x18, 0x5634)));
    EXPECT_THAT(log.texts(LOGGER),
                ElementsAre("160 maxClusters: 24", "182 000000000018h clusters",
                            "208 VCN offset 000000005634h ", "223 Cluster 000000005634h"));
}

// Each list, its limit, the ranges kept and a line the decode logs.
struct DecodeCase {
    const char* what;
    Bytes runs;
    std::uint64_t maxClusters;
    std::vector<ClusterRange> ranges;
    const char* line;
};

TEST(RunListDecoder, TheCasesOfTheFormat) {
    Bytes fifteenByteOffset = {0xF1, 0x01};
    fifteenByteOffset.resize(2 + 15 + 1, 0x01);
    const std::uint64_t any = 1ULL << 40;
    const DecodeCase cases[] = {
        // The raw offset is logged before its sign is extended.
        {"negative offset",
         {0x21, 0x10, 0x00, 0x10, 0x11, 0x08, 0xF0, 0x00},
         any,
         {{0x10, 0x1000}, {0x08, 0xFF0}},
         "208 VCN offset 0000000000F0h "},
        {"three-byte negative offset",
         {0x31, 0x01, 0x00, 0x00, 0x01, 0x31, 0x02, 0x00, 0xFF, 0xFF, 0x00},
         any,
         {{1, 0x10000}, {2, 0xFF00}},
         "223 Cluster 00000000FF00h"},
        {"sparse run",
         {0x01, 0x10, 0x21, 0x08, 0x00, 0x20, 0x00},
         0x18,
         {{8, 0x2000}},
         "229 (sparse data)"},
        {"sparse run counts toward the limit",
         {0x01, 0x10, 0x21, 0x08, 0x00, 0x20, 0x00},
         0x17,
         {},
         "187 Invalid sector count length: 8"},
        {"8-byte length field",
         {0x11, 0x04, 0x10, 0x08, 1, 2, 3, 4, 5, 6, 7, 8, 0x00},
         any,
         {{4, 0x10}},
         "166 Invalid length data to parse"},
        {"0-byte length field", {0x10, 0x04, 0x00}, any, {}, "166 Invalid length data to parse"},
        {"8-byte offset field",
         {0x11, 0x04, 0x10, 0x81, 0x01, 1, 2, 3, 4, 5, 6, 7, 8, 0x00},
         any,
         {{4, 0x10}},
         "196 Invalid offset data to parse"},
        {"15-byte offset field", fifteenByteOffset, any, {}, "196 Invalid offset data to parse"},
        {"run past the bytes",
         {0x11, 0x04, 0x10, 0x21, 0x04, 0x00},
         any,
         {{4, 0x10}},
         "171 Data run extends beyond buffer"},
        {"total beyond the limit",
         {0x11, 0x04, 0x10, 0x11, 0x08, 0x10, 0x11, 0x01, 0x10, 0x00},
         10,
         {{4, 0x10}},
         "187 Invalid sector count length: 8"},
        {"total exactly the limit",
         {0x11, 0x04, 0x10, 0x11, 0x06, 0x10, 0x00},
         10,
         {{4, 0x10}, {6, 0x20}},
         "223 Cluster 000000000020h"},
        {"zero count", {0x11, 0x00, 0x10, 0x00}, any, {}, "187 Invalid sector count length: 0"},
        {"zero offset",
         {0x11, 0x04, 0x10, 0x21, 0x04, 0x00, 0x00, 0x00},
         any,
         {{4, 0x10}},
         "204 Found non-sparse data runs with no sector offset"},
        {"no bytes", {}, any, {}, "150 Empty data runs"},
        // The run counts and nothing past the bytes is read.
        {"no end marker", {0x11, 0x04, 0x10}, any, {{4, 0x10}}, "223 Cluster 000000000010h"},
    };
    for (const DecodeCase& c : cases) {
        SCOPED_TRACE(c.what);
        LogCapture log;
        EXPECT_EQ(decode(c.runs, c.maxClusters), c.ranges);
        EXPECT_TRUE(log.contains(c.line)) << ::testing::PrintToString(log.texts(LOGGER));
    }
}

TEST(RunListDecoder, HugeCountsCannotWrapTheTotal) {
    EXPECT_THAT(decode({0x17, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x01, 0x17, 0xFF, 0xFF,
                        0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x01, 0x00},
                       ~0ULL),
                testing::SizeIs(2));
    // Counts that would wrap a 64-bit total past the limit stop the decode.
    Bytes many;
    for (int i = 0; i < 300; ++i)
        many.insert(many.end(), {0x17, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x01});
    EXPECT_EQ(decode(many, ~0ULL).size(), 256u);
}

TEST(RunListDecoder, DiagnosticsAreNotFormattedWhenPriorityOneIsOff) {
    LogCapture log(orv::LoggerPriority::LP_ERROR);
    EXPECT_THAT(decode({0x21, 0x18, 0x34, 0x56, 0x08, 0x00}, 0x18), SizeIs(1));
    EXPECT_THAT(log.texts(LOGGER), IsEmpty());
}

// ---- The handler, on records ------------------------------------------------------------

class NonResidentTest : public FakeVolumeTest {};

TEST_F(NonResidentTest, UnnamedDataGivesSizesAndRunsShiftedToTheDisk) {
    LogCapture log;
    const Bytes runs = {0x21, 0x18, 0x34, 0x06, 0x11, 0x02, 0xF0, 0x00};
    const FileRecord record =
        parse(RecordBuilder().add(nonResidentAttribute(0x80, runs, 0x1A000, 0x19001)).build());
    ASSERT_TRUE(record.isValid());
    EXPECT_EQ(record.allocatedSize(), 0x1A000u);
    EXPECT_EQ(record.realSize(), 0x19001u);
    EXPECT_EQ(record.dataSize(), 0x19001u);
    EXPECT_THAT(toVector(record.getClusterRanges()),
                ElementsAre(ClusterRange(0x18, 0x634 + BASE_CLUSTER),
                            ClusterRange(2, 0x624 + BASE_CLUSTER)));
    EXPECT_EQ(record.getAttributes().size(), 1u);
    EXPECT_EQ(utf8(record.getAttributes()[0].name), "$DATA");
    EXPECT_FALSE(record.getAttributes()[0].resident);
    EXPECT_TRUE(log.contains("406 Base cluster offset: 256"));
    EXPECT_TRUE(log.contains("160 maxClusters: 26"));
}

TEST_F(NonResidentTest, NamedDataLeavesTheDataSize) {
    const FileRecord record =
        parse(RecordBuilder()
                  .add(residentAttribute(0x80, Bytes(12, 0)))
                  .add(nonResidentAttribute(0x80, {0x11, 0x01, 0x40, 0x00}, 0x1000, 0x800, u"s"))
                  .build());
    EXPECT_EQ(record.dataSize(), 12u);
    EXPECT_EQ(record.realSize(), 0x800u);
    EXPECT_THAT(toVector(record.getClusterRanges()), ElementsAre(ClusterRange(1, 0x140)));
}

TEST_F(NonResidentTest, SizesAreKeptTo44Bits) {
    const FileRecord record =
        parse(RecordBuilder()
                  .add(nonResidentAttribute(0x80, {0x11, 0x01, 0x40, 0x00}, 0xABC0000000001000ULL,
                                            0xABC0000000000800ULL))
                  .build());
    EXPECT_EQ(record.allocatedSize(), 0x1000u);
    EXPECT_EQ(record.realSize(), 0x800u);
    EXPECT_EQ(record.dataSize(), 0x800u);
}

TEST_F(NonResidentTest, ResidentAttributeAfterNonResidentRestoresRecordFigures) {
    const Bytes bytes =
        RecordBuilder()
            .add(nonResidentAttribute(0x80, {0x11, 0x01, 0x40, 0x00}, 0x1000, 0x800))
            .add(residentAttribute(0x100, Bytes(8, 0)))
            .build();
    const FileRecord record = parse(bytes);
    EXPECT_EQ(record.realSize(), std::uint32_t(bytes[0x18] | bytes[0x19] << 8));
    EXPECT_EQ(record.allocatedSize(), 1024u * 512u);
    EXPECT_EQ(record.dataSize(), 0x800u);
}

TEST_F(NonResidentTest, NonResidentTableNamesOnlyItsOwnRows) {
    const Bytes runs = {0x11, 0x01, 0x40, 0x00};
    RecordBuilder builder;
    for (std::uint32_t type : {0x10u, 0x20u, 0x30u, 0x50u, 0x90u, 0xA0u, 0xB0u, 0xC0u, 0xD0u, 0xE0u,
                               0xF0u, 0x100u, 0x110u})
        builder.add(nonResidentAttribute(type, runs, 0x1000, 0x1000));
    const FileRecord record = parse(builder.build());
    std::vector<std::string> names;
    for (const AttributeSummary& a : record.getAttributes()) {
        EXPECT_FALSE(a.resident);
        names.push_back(utf8(a.name));
    }
    EXPECT_THAT(names, ElementsAre("", "$ATTRIBUTE_LIST", "", "$SECURITY_DESCRIPTOR", "",
                                   "$INDEX_ALLOCATION", "$BITMAP", "$REPARSE_POINT",
                                   "$EA_INFORMATION", "$EA", "", "$LOGGED_UTILITY_STREAM", ""));
    // Every non-resident attribute adds its runs.
    EXPECT_EQ(record.getClusterRanges().size(), 13u);
}

TEST_F(NonResidentTest, IndexAllocationRunsAreKeptApartOnlyForI30) {
    const Bytes runs = {0x11, 0x02, 0x40, 0x11, 0x01, 0x10, 0x00};
    const FileRecord other = parse(
        RecordBuilder().add(nonResidentAttribute(0xA0, runs, 0x3000, 0x3000, u"$SDH")).build());
    EXPECT_THAT(toVector(other.getClusterRanges()), SizeIs(2));
    EXPECT_EQ(utf8(other.getAttributes()[0].name), "$INDEX_ALLOCATION");
    EXPECT_EQ(other.dataSize(), 0u);

    FileRecord directory = parse(
        RecordBuilder().add(nonResidentAttribute(0xA0, runs, 0x3000, 0x3000, u"$I30")).build());
    EXPECT_THAT(toVector(directory.getClusterRanges()),
                ElementsAre(ClusterRange(2, 0x140), ClusterRange(1, 0x150)));
    // postProcess reads these; here only that they were kept.
    EXPECT_EQ(directory.dataSize(), 0u);
}

TEST_F(NonResidentTest, RunOutsideTheVolumeIsReportedWithDumps) {
    LogCapture log;
    // Second run starts at 0x8000 + 256: beyond the volume's 0x8000 clusters.
    const Bytes runs = {0x11, 0x02, 0x40, 0x21, 0x01, 0xC0, 0x7F, 0x11, 0x01, 0x01, 0x00};
    RecordBuilder builder;
    builder.add(nonResidentAttribute(0xA0, runs, 0x4000, 0x4000, u"$I30"));
    const Bytes bytes = builder.build();
    FileRecord record = parse(bytes);
    EXPECT_TRUE(record.isValid());
    EXPECT_THAT(toVector(record.getClusterRanges()), ElementsAre(ClusterRange(2, 0x140)));

    const std::vector<std::string> lines = log.texts(LOGGER);
    const auto at =
        std::find(lines.begin(), lines.end(), "412 Found invalid data runs at MFT index 42");
    ASSERT_NE(at, lines.end());
    ASSERT_GE(lines.end() - at, 3);
    const std::size_t attributeOffset = builder.offsetOf(0);
    const std::size_t attributeLength = bytes[attributeOffset + 4];
    const std::string attributeDump =
        orv::HexDumpFormat(bytes.data() + attributeOffset, attributeLength, 3, 0)
            .toString()
            .toUtf8();
    EXPECT_EQ(*(at + 1), "413 Attribute:\n" + attributeDump);
    const std::size_t runOffset = 0x48; // after the name
    const std::string runDump = orv::HexDumpFormat(bytes.data() + attributeOffset + runOffset,
                                                   attributeLength - runOffset, 3, 0)
                                    .toString()
                                    .toUtf8();
    EXPECT_EQ(*(at + 2), "415 Data Runs:\n" + runDump);

    // The index allocation stops at the same run.
    VolumeHandle handle;
    ASSERT_TRUE(
        handle.open(orv::CreateFileOpenArgs(orv::String("\\\\.\\PhysicalDrive0"), GENERIC_READ,
                                            FILE_SHARE_READ | FILE_SHARE_WRITE, OPEN_EXISTING, 0)));
    m_fake.clearLog();
    record.postProcess(handle);
    EXPECT_EQ(m_fake.reads().size(), 1u);
}

TEST_F(NonResidentTest, AttributeLongerThanARecordHasNoRuns) {
    LogCapture log;
    // A 4 KiB buffer holding a 1 KiB-record volume's record with a 0x500-byte
    // attribute.
    Bytes runs = {0x11, 0x01, 0x40, 0x00};
    runs.resize(0x500 - 0x40, 0);
    RecordBuilder builder(4096);
    builder.add(nonResidentAttribute(0x80, runs, 0x1000, 0x10));
    const FileRecord record = parse(builder.build());
    EXPECT_TRUE(record.isValid());
    EXPECT_TRUE(log.contains("127 Found invalid attribute length"));
    EXPECT_TRUE(log.contains("150 Empty data runs"));
    EXPECT_THAT(toVector(record.getClusterRanges()), IsEmpty());
    EXPECT_EQ(record.dataSize(), 0x10u);
}

TEST_F(NonResidentTest, NonResidentAttributeListReadsItsRunBytesAsEntries) {
    // The walk starts at 0x40: the entry "length" is run bytes 4-5 and the
    // "reference" run bytes 16-23. Kept as designed.
    Bytes runs = {0x11, 0x01, 0x40, 0x00, 0x18, 0x00, 0, 0};
    runs.resize(24, 0);
    putLe(runs, 16, reference(77, 1), 8);
    const FileRecord record =
        parse(RecordBuilder().add(nonResidentAttribute(0x20, runs, 0x1000, 0x100)).build());
    EXPECT_THAT(toVector(record.getExternalAttributeReferences()), ElementsAre(77u));
    EXPECT_THAT(toVector(record.getClusterRanges()), ElementsAre(ClusterRange(1, 0x140)));
    EXPECT_EQ(utf8(record.getAttributes()[0].name), "$ATTRIBUTE_LIST");
}

TEST_F(NonResidentTest, VolumeWithoutAnExtentRaisesTheArrayAssertion) {
    m_volume.reset();
    m_fake.volume('C').extents.clear();
    m_volume = std::make_unique<Volume>('C');
    const Bytes nonResident =
        RecordBuilder()
            .add(nonResidentAttribute(0x80, {0x11, 0x01, 0x40, 0x00}, 0x1000, 1))
            .build();
    for (auto priority : {orv::LoggerPriority::LP_DEBUG, orv::LoggerPriority::LP_ERROR}) {
        LogCapture log(priority);
        try {
            parse(nonResident);
            ADD_FAILURE() << "no exception at priority " << priority;
        } catch (const platform::StructuredException& e) {
            EXPECT_EQ(e.code(), 7u);
        }
    }
    // Resident records do not need the extent.
    EXPECT_TRUE(parse(RecordBuilder().add(residentAttribute(0x80, Bytes(4, 0))).build()).isValid());
    // Nor does a non-resident attribute without runs, when diagnostics are off.
    LogCapture quiet(orv::LoggerPriority::LP_ERROR);
    EXPECT_TRUE(
        parse(RecordBuilder().add(nonResidentAttribute(0x80, {0x00}, 0, 0)).build()).isValid());
}

} // namespace
} // namespace kestrow::test
