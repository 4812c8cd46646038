// The guards against hostile sizes, each with the input that needed it, and
// proof that they leave well-formed volumes alone:
//  - an $MFT run list that claims clusters past the volume's end (one run of
//    2^32 clusters) made every whole-MFT scan walk billions of record slots;
//  - an $I30 index allocation that lists the whole volume dozens of times was
//    read dozens of times over (in 16 MiB pieces, but without end).
#include "Corruptions.h"
#include "ImageMap.h"
#include "ToolRun.h"

#include "support/AttachedDisks.h"

#include <libKestrow/FileRecord.h>
#include <libKestrow/MasterFileTable.h>
#include <libKestrow/Volume.h>

#include <kestrow/Disks.h>

#include <orv/String.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

namespace kestrow::test::hardening {
namespace {

namespace platform = kestrow::platform;

constexpr std::uint32_t kTypeData = 0x80;
constexpr std::uint32_t kTypeIndexAllocation = 0xA0;

// An attach that fails shows as an uninitialised volume or table.
using AttachedImage = AttachedDisks;

// Bytes this process has read through read(2) and pread(2) so far.
std::uint64_t bytesReadSoFar() {
    std::ifstream io("/proc/self/io");
    std::string key;
    std::uint64_t value = 0;
    while (io >> key >> value)
        if (key == "rchar:")
            return value;
    throw std::runtime_error("no rchar in /proc/self/io");
}

// The first non-resident attribute of `type` in record `record`.
RawAttribute nonResidentAttribute(const ImageMap& map, const std::filesystem::path& image,
                                  std::uint64_t record, std::uint32_t type) {
    for (const RawAttribute& attribute : attributesOf(map.readRecord(image, record)))
        if (attribute.type == type && !attribute.resident)
            return attribute;
    throw std::runtime_error("record " + std::to_string(record) + " has no such attribute");
}

std::vector<MappingRun> runsOf(const ImageMap& map, const std::filesystem::path& image,
                               std::uint64_t record, const RawAttribute& attribute) {
    const auto bytes = withFixupsApplied(map.readRecord(image, record));
    const std::uint32_t runOffset = attribute.offset + le16(bytes, attribute.offset + 0x20);
    return decodeRunList(
        std::span(bytes).subspan(runOffset, attribute.offset + attribute.length - runOffset));
}

std::uint64_t clustersIn(const std::vector<MappingRun>& runs) {
    std::uint64_t total = 0;
    for (const MappingRun& run : runs)
        total += run.length;
    return total;
}

// name -> parent of every record the table summarised.
std::map<std::uint64_t, std::pair<std::string, std::uint64_t>> summaries(MasterFileTable& mft) {
    std::map<std::uint64_t, std::pair<std::string, std::uint64_t>> result;
    unsigned long long count = 0;
    if (!mft.getNumMftRecords(count))
        return result;
    for (unsigned long long index = 0; index < count; ++index)
        if (const RecordSummary* summary = mft.getRecordHashTable().lookup(index))
            result[index] = {summary->name.toUtf8(), summary->parentMftIndex.index};
    return result;
}

// ---- The MFT's runs ----------------------------------------------------------------

class WellFormedMft : public ::testing::TestWithParam<ImageFacts> {};

TEST_P(WellFormedMft, RunsAreKeptExactlyAsTheFileSystemGivesThem) {
    AttachedImage attached(imagePath(GetParam().image));
    Volume volume('C');
    ASSERT_TRUE(volume.initialized());
    orv::Array<Volume::FileExtent> given;
    ASSERT_TRUE(volume.getFileExtents(orv::String::fromUtf8("C:\\$MFT"), given));
    MasterFileTable mft(volume);
    ASSERT_TRUE(mft.initialized());
    const orv::Array<Volume::FileExtent> kept = mft.getMftExtents();
    ASSERT_EQ(kept.size(), given.size());
    for (std::uint32_t i = 0; i < kept.size(); ++i) {
        EXPECT_EQ(kept[i].startSector, given[i].startSector) << "run " << i;
        EXPECT_EQ(kept[i].endSector, given[i].endSector) << "run " << i;
    }
}

INSTANTIATE_TEST_SUITE_P(Fixtures, WellFormedMft,
                         ::testing::ValuesIn(allImages().begin(), allImages().end()));

// $MFT's data gets one more run of 2^32 clusters in a free part of the volume:
// the file system hands it over as it stands.
class HugeMftRun : public ::testing::Test {
protected:
    void SetUp() override {
        const ImageMap& map = ImageMap::of(FixtureImage::Bare);
        const RawAttribute data = nonResidentAttribute(map, map.path(), 0, kTypeData);
        std::vector<MappingRun> runs = runsOf(map, map.path(), 0, data);
        ASSERT_FALSE(runs.empty());
        // The last quarter of the freshly formatted volume is free: its
        // clusters read as zeros, never as FILE records.
        runs.push_back({std::uint64_t{1} << 32,
                        static_cast<std::int64_t>(map.totalClusters() * 3 / 4), false});
        ASSERT_TRUE(replaceRunList(scratch, map, 0, data.offset, encodeRunList(runs),
                                   clustersIn(runs) * map.clusterSize()));
        volumeSectors = map.totalClusters() * map.clusterSize() / map.sectorSize();
        recordsInVolume = map.totalClusters() * map.clusterSize() / map.recordSize();
    }

    ScratchImage scratch{bareVolume()};
    std::uint64_t volumeSectors = 0;
    std::uint64_t recordsInVolume = 0;
};

TEST_F(HugeMftRun, IsCutAtTheVolumesEnd) {
    AttachedImage attached(scratch.path());
    Volume volume('C');
    ASSERT_TRUE(volume.initialized());
    orv::Array<Volume::FileExtent> given;
    ASSERT_TRUE(volume.getFileExtents(orv::String::fromUtf8("C:\\$MFT"), given));
    ASSERT_GE(given.size(), 2u);
    // The input that needed the guard: a run far larger than the volume.
    EXPECT_GT(given[given.size() - 1].endSector - given[given.size() - 1].startSector,
              1000 * volumeSectors);

    MasterFileTable mft(volume);
    ASSERT_TRUE(mft.initialized());
    const orv::Array<Volume::FileExtent> kept = mft.getMftExtents();
    ASSERT_EQ(kept.size(), given.size());
    for (std::uint32_t i = 0; i + 1 < kept.size(); ++i) {
        EXPECT_EQ(kept[i].startSector, given[i].startSector);
        EXPECT_EQ(kept[i].endSector, given[i].endSector);
    }
    const Volume::FileExtent& last = kept[kept.size() - 1];
    EXPECT_EQ(last.startSector, given[given.size() - 1].startSector);
    EXPECT_EQ(last.endSector, volumeSectors); // the volume starts at sector 0 of the image
    unsigned long long slots = 0;
    ASSERT_TRUE(mft.getNumMftRecords(slots));
    // No more slots than the volume can hold (plus the one extra slot per run
    // that the record count formula may add).
    EXPECT_LE(slots, recordsInVolume + kept.size());
}

TEST_F(HugeMftRun, LeavesTheRecordsOfTheRealRunsAsTheyWere) {
    std::map<std::uint64_t, std::pair<std::string, std::uint64_t>> expected;
    {
        AttachedImage attached(bareVolume());
        Volume volume('C');
        MasterFileTable mft(volume);
        ASSERT_TRUE(mft.buildRecordMap());
        expected = summaries(mft);
    }
    AttachedImage attached(scratch.path());
    Volume volume('C');
    MasterFileTable mft(volume);
    ASSERT_TRUE(mft.buildRecordMap());
    EXPECT_EQ(summaries(mft), expected);
}

TEST_F(HugeMftRun, KestrowListsTheSamePathsInTime) {
    ChildLimits limits;
    limits.timeout = commandTimeout();
    const ChildRun pristine =
        runChild({KESTROW_TOOL_PATH, "--disk", bareVolume().string(), "paths", "C:"}, limits);
    ASSERT_EQ(pristine.exitCode, 0) << pristine.err;
    for (const char* command : {"paths", "info", "owner"}) {
        std::vector<std::string> argv = {KESTROW_TOOL_PATH, "--disk", scratch.path().string(),
                                         command, "C:"};
        if (std::string(command) == "owner")
            argv.push_back("1");
        const ChildRun run = runChild(argv, limits);
        EXPECT_EQ(run.exitCode, 0) << command << ": " << run.outcome() << " " << run.err;
        if (std::string(command) == "paths") {
            EXPECT_EQ(run.out, pristine.out);
        }
    }
}

// ---- A directory's index allocation --------------------------------------------------

// The index allocation of Indexed/ on the 64 KiB-cluster volume, followed by
// 60 runs that each cover the whole volume.
class RepeatedIndexAllocation : public ::testing::Test {
protected:
    void SetUp() override {
        const ImageMap& map = ImageMap::of(FixtureImage::Cluster64k);
        const auto indexed = map.record(std::string(kIndexedDir));
        ASSERT_TRUE(indexed.has_value());
        directory = *indexed;
        const RawAttribute allocation =
            nonResidentAttribute(map, map.path(), directory, kTypeIndexAllocation);
        std::vector<MappingRun> runs = runsOf(map, map.path(), directory, allocation);
        ASSERT_FALSE(runs.empty());
        for (int i = 0; i < kRepeats; ++i)
            runs.push_back({map.totalClusters(), i % 2, false});
        ASSERT_TRUE(replaceRunList(scratch, map, directory, allocation.offset, encodeRunList(runs),
                                   clustersIn(runs) * map.clusterSize()));
        volumeBytes = map.totalClusters() * map.clusterSize();
    }

    static constexpr int kRepeats = 60;
    ScratchImage scratch{cluster64kVolume()};
    std::uint64_t directory = 0;
    std::uint64_t volumeBytes = 0;
};

TEST_F(RepeatedIndexAllocation, IsReadNoMoreThanOnceAndStillFindsEveryChild) {
    std::set<unsigned long long> expected;
    {
        AttachedImage attached(cluster64kVolume());
        Volume volume('C');
        MasterFileTable mft(volume);
        FileRecord record;
        ASSERT_TRUE(mft.getValidMftRecord(FileReference(directory, 0), record));
        mft.postProcessFileRecord(record);
        expected.insert(record.getIndexEntries().begin(), record.getIndexEntries().end());
        ASSERT_GE(expected.size(), static_cast<std::size_t>(kIndexedDirEntries));
    }
    AttachedImage attached(scratch.path());
    Volume volume('C');
    MasterFileTable mft(volume);
    ASSERT_TRUE(mft.initialized());
    FileRecord record;
    ASSERT_TRUE(mft.getValidMftRecord(FileReference(directory, 0), record));
    // The input that needed the guard: its runs add up to dozens of volumes.
    std::uint64_t listedBytes = 0;
    for (const ClusterRange& range : record.getClusterRanges())
        listedBytes += range.count * volume.bytesPerCluster();
    EXPECT_GT(listedBytes, 50 * volumeBytes);

    const std::uint64_t before = bytesReadSoFar();
    mft.postProcessFileRecord(record);
    const std::uint64_t read = bytesReadSoFar() - before;
    EXPECT_LE(read, volumeBytes + volumeBytes / 8) << "bytes read for one directory";
    const std::set<unsigned long long> found(record.getIndexEntries().begin(),
                                             record.getIndexEntries().end());
    EXPECT_TRUE(std::includes(found.begin(), found.end(), expected.begin(), expected.end()));
}

} // namespace
} // namespace kestrow::test::hardening
