// postProcess: index blocks read through the volume, on a fake disk.
#include "FakeVolumeFixture.h"

#include "support/LogCapture.h"

#include <gmock/gmock.h>

#include <cstring>

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace kestrow::test {
namespace {

class PostProcessTest : public FakeVolumeTest {
protected:
    void SetUp() override {
        FakeVolumeTest::SetUp();
        ASSERT_TRUE(m_drive.open(
            orv::CreateFileOpenArgs(orv::String("\\\\.\\PhysicalDrive0"), GENERIC_READ,
                                    FILE_SHARE_READ | FILE_SHARE_WRITE, OPEN_EXISTING, 0)));
    }
    void TearDown() override {
        m_drive.release();
        FakeVolumeTest::TearDown();
    }

    // Writes bytes at a volume cluster (plus a byte offset) of the fake disk.
    void writeAtCluster(std::uint64_t cluster, const Bytes& bytes, std::size_t offset = 0) {
        std::vector<std::uint8_t>& disk = m_fake.disk(0).bytes;
        const std::size_t at = VOLUME_OFFSET + cluster * 4096 + offset;
        ASSERT_LE(at + bytes.size(), disk.size());
        std::memcpy(disk.data() + at, bytes.data(), bytes.size());
    }

    // A directory whose root names `rootChildren` and whose $I30 allocation
    // has the given run bytes.
    FileRecord directory(const std::vector<std::uint64_t>& rootChildren, const Bytes& runs,
                         std::uint64_t clusters) {
        std::vector<Bytes> entries;
        for (std::uint64_t child : rootChildren)
            entries.push_back(indexEntry(reference(child, 1)));
        entries.push_back(lastIndexEntry());
        return parse(
            RecordBuilder()
                .directory(true)
                .add(residentAttribute(0x90, indexRootValue(entries), u"$I30"))
                .add(nonResidentAttribute(0xA0, runs, clusters * 4096, clusters * 4096, u"$I30"))
                .build());
    }

    VolumeHandle m_drive;
};

TEST_F(PostProcessTest, ReadsEachRunOnceAndListsEveryChildOnce) {
    // Run 1: two clusters at volume cluster 0x40 (one 8 KiB read); run 2: one
    // cluster at 0x50.
    writeAtCluster(
        0x40, indexBlock({indexEntry(101), indexEntry(102), indexEntry(103), lastIndexEntry()}));
    writeAtCluster(0x41, indexBlock({indexEntry(104), indexEntry(102), lastIndexEntry()}));
    writeAtCluster(0x50, indexBlock({indexEntry(105), indexEntry(100), lastIndexEntry()}));
    FileRecord record = directory({100, 101}, {0x11, 0x02, 0x40, 0x11, 0x01, 0x10, 0x00}, 3);
    ASSERT_THAT(toVector(record.getIndexEntries()), ElementsAre(100u, 101u));

    m_fake.clearLog();
    record.postProcess(m_drive);
    EXPECT_THAT(toVector(record.getIndexEntries()),
                ElementsAre(100u, 101u, 102u, 103u, 104u, 105u));
    using Read = std::pair<std::uint64_t, std::uint32_t>;
    EXPECT_THAT(m_fake.reads(), ElementsAre(Read(VOLUME_OFFSET + 0x40 * 4096, 8192),
                                            Read(VOLUME_OFFSET + 0x50 * 4096, 4096)));

    // A second call finds nothing new.
    record.postProcess(m_drive);
    EXPECT_EQ(record.getIndexEntries().size(), 6u);
}

TEST_F(PostProcessTest, BlocksAreFoundAtEverySectorStart) {
    // 1 KiB blocks at sectors 0, 2 and 5 of one cluster; sector 3 holds junk.
    writeAtCluster(0x40, indexBlock({indexEntry(200), lastIndexEntry()}, 1024), 0);
    writeAtCluster(0x40, indexBlock({indexEntry(201), lastIndexEntry()}, 1024), 1024);
    writeAtCluster(0x40, Bytes(512, 0xEE), 1536);
    writeAtCluster(0x40, indexBlock({indexEntry(202), lastIndexEntry()}, 1024), 2560);
    FileRecord record = directory({}, {0x11, 0x01, 0x40, 0x00}, 1);
    record.postProcess(m_drive);
    EXPECT_THAT(toVector(record.getIndexEntries()), ElementsAre(200u, 201u, 202u));
}

TEST_F(PostProcessTest, WithoutI30AllocationNothingIsRead) {
    FileRecord record =
        parse(RecordBuilder()
                  .add(residentAttribute(0x90, indexRootValue({indexEntry(9), lastIndexEntry()}),
                                         u"$I30"))
                  .add(nonResidentAttribute(0xA0, {0x11, 0x01, 0x40, 0x00}, 4096, 4096, u"$SDH"))
                  .build());
    m_fake.clearLog();
    record.postProcess(m_drive);
    EXPECT_EQ(m_fake.readCount(), 0u);
    EXPECT_THAT(toVector(record.getIndexEntries()), ElementsAre(9u));
}

TEST_F(PostProcessTest, FailedReadSkipsItsRangeOnly) {
    writeAtCluster(0x40, indexBlock({indexEntry(300), lastIndexEntry()}));
    writeAtCluster(0x50, indexBlock({indexEntry(301), lastIndexEntry()}));
    FileRecord record = directory({}, {0x11, 0x01, 0x40, 0x11, 0x01, 0x10, 0x00}, 2);
    m_fake.failReadAtSector(0, (VOLUME_OFFSET + 0x40 * 4096) / 512);
    record.postProcess(m_drive);
    EXPECT_THAT(toVector(record.getIndexEntries()), ElementsAre(301u));
}

// Each block's entry walk stops at its first read outside the buffer, not
// before: an entry whose reference and length lie inside is taken, even when
// its key runs past the end.
TEST_F(PostProcessTest, BlockWalksStopAtTheirFirstReadOutsideTheBuffer) {
    // First-entry field far past the buffer: the 32-bit bound wraps, and the
    // first entry's length already lies outside.
    Bytes farOff = indexBlock({indexEntry(400), lastIndexEntry()});
    putLe(farOff, 0x18, 0xFFFFFF00, 4);
    writeAtCluster(0x40, farOff);
    // An entry whose length runs past the buffer's end: the bound, which counts
    // the entry about to be read, ends the walk before it.
    Bytes overlong = indexBlock({indexEntry(401), indexEntry(402)});
    putLe(overlong, 0x58 + 0x68 + 8, 0xF000, 2);
    putLe(overlong, 0x1C, 0xFFFF, 4);
    writeAtCluster(0x41, overlong);
    // A block in the last sector of the range, as when the volume starts seven
    // sectors into a drive cluster: entries at block offsets 88 to 488, the
    // last one's key past the end; the walk ends reading the entry after it.
    std::vector<Bytes> entries;
    for (std::uint64_t child = 601; child <= 604; ++child)
        entries.push_back(indexEntry(child, 100));
    entries.push_back(indexEntry(605));
    entries.push_back(indexEntry(606));
    const Bytes lastSector = indexBlock(entries);
    writeAtCluster(0x42, Bytes(lastSector.begin(), lastSector.begin() + 512), 4096 - 512);
    FileRecord record = directory({}, {0x11, 0x03, 0x40, 0x00}, 3);
    record.postProcess(m_drive);
    EXPECT_THAT(toVector(record.getIndexEntries()),
                ElementsAre(401u, 601u, 602u, 603u, 604u, 605u));
}

TEST_F(PostProcessTest, LargeRangesAreReadInPiecesWithTheSameResult) {
    m_fake.addDisk(0, 24 << 20);
    // 0x1200 clusters: one piece tests the sector starts of 0x1000 clusters
    // and holds 1 MiB more, the other takes the last 0x200.
    writeAtCluster(0x40, indexBlock({indexEntry(500), lastIndexEntry()}));
    writeAtCluster(0x40 + 0xFFE, indexBlock({indexEntry(501), lastIndexEntry()}));
    writeAtCluster(0x40 + 0x1001, indexBlock({indexEntry(502), lastIndexEntry()}));
    writeAtCluster(0x40 + 0x11FF, indexBlock({indexEntry(503), lastIndexEntry()}));
    // A block that begins in the first piece's last sector and goes on into
    // the second: found whole, as in one read of the range.
    Bytes straddling = indexBlock({indexEntry(504), indexEntry(505), indexEntry(506),
                                   indexEntry(507), indexEntry(508), lastIndexEntry()});
    writeAtCluster(0x40 + 0xFFF, Bytes(straddling.begin(), straddling.begin() + 512), 4096 - 512);
    writeAtCluster(0x40 + 0x1000, Bytes(straddling.begin() + 512, straddling.end()));
    FileRecord record = directory({}, {0x12, 0x00, 0x12, 0x40, 0x00}, 0x1200);
    m_fake.clearLog();
    record.postProcess(m_drive);
    EXPECT_THAT(toVector(record.getIndexEntries()),
                ElementsAre(500u, 501u, 504u, 505u, 506u, 507u, 508u, 502u, 503u));
    using Read = std::pair<std::uint64_t, std::uint32_t>;
    EXPECT_THAT(m_fake.reads(),
                ElementsAre(Read(VOLUME_OFFSET + 0x40 * 4096, (16 << 20) + (1 << 20)),
                            Read(VOLUME_OFFSET + (0x40 + 0x1000) * 4096, 0x200 * 4096)));
}

TEST_F(PostProcessTest, InvalidHandleReadsNothing) {
    FileRecord record = directory({}, {0x11, 0x01, 0x40, 0x00}, 1);
    VolumeHandle none;
    LogCapture log;
    record.postProcess(none);
    EXPECT_THAT(toVector(record.getIndexEntries()), IsEmpty());
    EXPECT_TRUE(log.contains("412 Handle is invalid"));
}

} // namespace
} // namespace kestrow::test
