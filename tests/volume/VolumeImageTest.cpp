// Volume on the fixture images, through the disk-image backend, compared with
// what The Sleuth Kit and NTFS-3G's tools say about the same images.
#include "support/AttachedDisks.h"
#include "support/Fixtures.h"
#include "support/LogCapture.h"
#include "support/Oracle.h"

#include <libKestrow/Volume.h>

#include <kestrow/Disks.h>

#include <orv/Format.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <regex>
#include <string>
#include <vector>

namespace kestrow::test::volume {
namespace {

namespace fs = std::filesystem;

std::string utf8(const orv::String& text) {
    return text.toUtf8();
}

std::string printf_(const char* format, auto... values) {
    char text[512];
    std::snprintf(text, sizeof text, format, values...);
    return text;
}

// The letter the backend gave the volume that starts at `offset` of disk 0.
char letterAt(std::uint64_t offset) {
    for (const platform::VolumeInfo& info : platform::attachedVolumes())
        if (info.diskNumber == 0 && info.offset == offset)
            return info.letter;
    return 0;
}

class VolumeOnImage : public ::testing::TestWithParam<FixtureImage> {
protected:
    void SetUp() override { ASSERT_TRUE(disks.ok()) << disks.error(); }
    const ImageFacts& facts() const { return factsOf(GetParam()); }
    fs::path image() const { return imagePath(GetParam()); }
    // The Sleuth Kit counts the volume's offset in 512-byte units.
    std::uint64_t tskOffset() const { return facts().volumeOffset / 512; }
    AttachedDisks disks{image()};
};

TEST_P(VolumeOnImage, GeometryAndExtentAreThoseTheToolsReport) {
    const char letter = letterAt(facts().volumeOffset);
    ASSERT_NE(letter, 0) << "no letter for the NTFS volume";

    const oracle::FsstatResult fsstat = oracle::fileSystemStats(image(), tskOffset());
    Volume volume(letter);

    EXPECT_TRUE(volume.initialized());
    EXPECT_EQ(utf8(volume.path()), printf_("\\\\.\\%c:\\", letter));
    EXPECT_EQ(utf8(volume.name()), fsstat.label);
    EXPECT_EQ(utf8(volume.name()), facts().label);
    EXPECT_EQ(utf8(volume.fileSystem()), "NTFS");
    const unsigned serial = static_cast<unsigned>(fsstat.serialNumber & 0xFFFFFFFF);
    EXPECT_EQ(utf8(volume.serialNumber()), printf_("%X-%X", serial >> 16, serial & 0xFFFF));
    EXPECT_EQ(volume.bytesPerSector(), fsstat.sectorSize);
    EXPECT_EQ(volume.bytesPerCluster(), fsstat.clusterSize);
    EXPECT_EQ(volume.sectorsPerCluster(), fsstat.clusterSize / fsstat.sectorSize);
    EXPECT_EQ(volume.totalClusters(), fsstat.totalClusters);
    EXPECT_EQ(volume.totalSectors(), fsstat.totalClusters * volume.sectorsPerCluster());
    EXPECT_EQ(volume.bytesPerFileRecord(), fsstat.mftEntrySize);

    const std::vector<bool> used = oracle::allocatedClusters(image(), tskOffset());
    const auto usedCount = static_cast<std::uint64_t>(std::count(used.begin(), used.end(), true));
    EXPECT_EQ(volume.freeClusters(), fsstat.totalClusters - usedCount);

    const orv::Array<Volume::VolumeExtent>& extents = volume.getVolumeExtents();
    ASSERT_EQ(extents.size(), 1u);
    EXPECT_EQ(extents[0].diskNumber, 0u);
    EXPECT_EQ(extents[0].startingOffset, facts().volumeOffset);
    EXPECT_EQ(extents[0].extentLength, facts().volumeSize);
    if (facts().isWholeDisk) {
        // The partition as the partition-table tool sees it.
        const oracle::MmlsResult mmls = oracle::listPartitions(image());
        bool found = false;
        for (const oracle::MmlsEntry& entry : mmls.partitions())
            if (entry.start * mmls.unitSize == extents[0].startingOffset) {
                found = true;
                EXPECT_EQ(entry.length * mmls.unitSize, extents[0].extentLength);
            }
        EXPECT_TRUE(found) << "no partition starts at the extent's offset";
    }
}

TEST_P(VolumeOnImage, TextShowsTheGeometryAndTheExtent) {
    const char letter = letterAt(facts().volumeOffset);
    const oracle::FsstatResult fsstat = oracle::fileSystemStats(image(), tskOffset());
    Volume volume(letter);

    const std::uint64_t bytes = fsstat.totalClusters * fsstat.clusterSize;
    std::string expected =
        printf_("Volume '%c:'\n"
                "   Path                : \\\\.\\%c:\\\n"
                "   Name                : %s\n"
                "   Serial Number       : %s\n"
                "   File System         : NTFS\n"
                "   Volume Size         : %1.2f GB\n"
                "\n"
                "   Sectors per Cluster : %u\n"
                "   Bytes per Sector    : %u\n"
                "   Bytes per Cluster   : %u\n"
                "   Free clusters       : %u\n"
                "   Total clusters      : %u\n",
                letter, letter, fsstat.label.c_str(), utf8(volume.serialNumber()).c_str(),
                static_cast<double>(bytes) / (1 << 30), fsstat.clusterSize / fsstat.sectorSize,
                fsstat.sectorSize, fsstat.clusterSize, static_cast<unsigned>(volume.freeClusters()),
                static_cast<unsigned>(fsstat.totalClusters));
    expected += printf_("\n  VolumeExtent[0]:\n"
                        "     Drive          : \\\\.\\PhysicalDrive0\n"
                        "     Start Sector   : %llXh\n"
                        "     Length Sectors : %llXh (%1.2f GBs)\n",
                        static_cast<unsigned long long>(facts().volumeOffset / fsstat.sectorSize),
                        static_cast<unsigned long long>(facts().volumeSize / fsstat.sectorSize),
                        static_cast<double>(facts().volumeSize) / (1 << 30));
    EXPECT_EQ(utf8(volume.toString()), expected);
}

// The $MFT's runs as NTFS-3G's ntfsinfo reads them from the mapping pairs.
std::vector<oracle::NtfsinfoRun> mftRunsOf(const fs::path& volumeFile) {
    const oracle::NtfsinfoRecord record = oracle::recordInfo(volumeFile, 0);
    for (const auto& [type, runs] : record.runLists)
        if (type == "$DATA")
            return runs;
    ADD_FAILURE() << "ntfsinfo shows no $DATA runs for $MFT";
    return {};
}

TEST_P(VolumeOnImage, MftExtentsAreTheToolsRunsInDiskSectors) {
    const ImageFacts& f = facts();
    const std::vector<oracle::NtfsinfoRun> runs =
        mftRunsOf(ScratchImage(image(), f.volumeOffset, f.volumeSize).path());
    const oracle::IstatResult istat = oracle::inspectRecord(image(), 0, tskOffset());

    const char letter = letterAt(f.volumeOffset);
    Volume volume(letter);
    orv::Array<Volume::FileExtent> extents;
    const std::string path = printf_("%c:\\$MFT", letter);
    ASSERT_TRUE(volume.getFileExtents(orv::String(path.c_str()), extents));

    // Exactly the mapping pairs, each moved by the volume's offset on the disk.
    const std::uint64_t bpc = f.bytesPerCluster;
    const std::uint64_t bps = f.bytesPerSector;
    ASSERT_EQ(extents.size(), runs.size());
    for (unsigned i = 0; i < extents.size(); ++i) {
        ASSERT_TRUE(runs[i].lcn.has_value()) << "run " << i << " is a hole";
        EXPECT_EQ(extents[i].diskNumber, 0u);
        EXPECT_EQ(extents[i].startSector, (*runs[i].lcn * bpc + f.volumeOffset) / bps) << i;
        EXPECT_EQ(extents[i].endSector,
                  ((*runs[i].lcn + runs[i].length) * bpc + f.volumeOffset) / bps)
            << i;
    }

    // The Sleuth Kit lists the clusters of the $DATA attribute one by one (a
    // 0 where it has none to show): each it names lies at the same VCN.
    std::vector<std::uint64_t> ours;
    for (const Volume::FileExtent& extent : extents)
        for (std::uint64_t sector = extent.startSector; sector < extent.endSector;
             sector += bpc / bps)
            ours.push_back((sector * bps - f.volumeOffset) / bpc);
    const oracle::IstatAttribute* data = istat.find(oracle::kData);
    ASSERT_NE(data, nullptr);
    ASSERT_LE(data->clusters.size(), ours.size());
    for (std::size_t vcn = 0; vcn < data->clusters.size(); ++vcn) {
        if (data->clusters[vcn] != 0) {
            ASSERT_EQ(ours[vcn], data->clusters[vcn]) << "VCN " << vcn;
        }
    }

    if (GetParam() == FixtureImage::Rich) {
        EXPECT_GT(extents.size(), 1u) << "the fragmented $MFT should have several runs";
    }
}

TEST_P(VolumeOnImage, UsedClustersAreThoseTheBitmapMarks) {
    const std::vector<bool> used = oracle::allocatedClusters(image(), tskOffset());
    std::vector<unsigned long long> expected;
    for (std::size_t cluster = 0; cluster < used.size(); ++cluster)
        if (used[cluster])
            expected.push_back(cluster);

    Volume volume(letterAt(facts().volumeOffset));
    orv::Array<unsigned long long> clusters;
    ASSERT_TRUE(volume.getUsedClusters(clusters));
    EXPECT_EQ(std::vector<unsigned long long>(clusters.begin(), clusters.end()), expected);

    orv::Buffer<unsigned char> bitmap;
    ASSERT_TRUE(volume.getVolumeClusterBitmap(bitmap));
    EXPECT_EQ(bitmap.size(), (used.size() + 7) / 8);
}

TEST_P(VolumeOnImage, SectorReadsAndDumpsShowTheImagesBytes) {
    const ImageFacts& f = facts();
    Volume volume(letterAt(f.volumeOffset));

    // The boot sector of the volume, through the physical drive.
    VolumeHandle drive;
    drive.open(orv::CreateFileOpenArgs(orv::String("\\\\.\\PhysicalDrive0"), GENERIC_READ,
                                       FILE_SHARE_READ | FILE_SHARE_WRITE, OPEN_EXISTING, 0));
    ASSERT_TRUE(drive.isValid());
    const std::uint64_t bootSector = f.volumeOffset / f.bytesPerSector;
    const std::vector<std::uint8_t> expected =
        readFileBytes(image(), f.volumeOffset, f.bytesPerSector);
    orv::Buffer<unsigned char> buffer;
    buffer.resize(f.bytesPerSector, true);
    ASSERT_TRUE(volume.readBytesFromSector(drive, bootSector, f.bytesPerSector, buffer));
    EXPECT_EQ(std::vector<std::uint8_t>(buffer.data(), buffer.data() + buffer.size()), expected);

    orv::String text;
    ASSERT_TRUE(Volume::dumpSectors(drive, bootSector, 1, f.bytesPerSector, text));
    EXPECT_EQ(utf8(text),
              printf_("   Sector: %llXh, ByteOff: %llXh:\n",
                      static_cast<unsigned long long>(bootSector),
                      static_cast<unsigned long long>(f.volumeOffset)) +
                  utf8(orv::HexDumpFormat(expected.data(), f.bytesPerSector, 3, 0).toString()));

    // Every sector of the $MFT reads.
    orv::Array<Volume::FileExtent> extents;
    const std::string path = printf_("%c:\\$MFT", volume.driveLetter());
    ASSERT_TRUE(volume.getFileExtents(orv::String(path.c_str()), extents));
    orv::String errorText("untouched");
    for (const Volume::FileExtent& extent : extents)
        EXPECT_TRUE(Volume::readFileBySector(volume, drive, extent, errorText));
    EXPECT_EQ(utf8(errorText), "untouched");
}

INSTANTIATE_TEST_SUITE_P(Fixtures, VolumeOnImage,
                         ::testing::Values(FixtureImage::Bare, FixtureImage::MbrDisk,
                                           FixtureImage::GptDisk, FixtureImage::Sector4k,
                                           FixtureImage::Cluster512, FixtureImage::Cluster64k,
                                           FixtureImage::LegacyMbrDisk, FixtureImage::Rich),
                         ImageTestName());

// ---- The other volumes of the partitioned disk --------------------------------------

TEST(VolumeOnPartitionedDisk, FatPartitionHasNamesAndGeometryButIsNotInitialised) {
    const fs::path disk = mbrDisk();
    const std::string fsstat =
        oracle::runToolChecked({"fsstat", "-o", std::to_string(kMbrFatStartSector), disk.string()});
    std::smatch match;
    ASSERT_TRUE(std::regex_search(fsstat, match, std::regex("Volume ID: 0x([0-9a-fA-F]+)")));
    const unsigned long id = std::stoul(match[1].str(), nullptr, 16);
    ASSERT_TRUE(std::regex_search(fsstat, match,
                                  std::regex("Volume Label \\(Boot Sector\\): ([^\\n]*?) *\\n")));
    const std::string label = match[1].str();
    ASSERT_TRUE(std::regex_search(fsstat, match, std::regex("Cluster Size: ([0-9]+)")));
    const unsigned clusterSize = static_cast<unsigned>(std::stoul(match[1].str()));

    AttachedDisks disks(disk);
    ASSERT_TRUE(disks.ok());
    const char letter = letterAt(kMbrFatStartSector * 512);
    ASSERT_NE(letter, 0);
    LogCapture log;
    Volume volume(letter);

    EXPECT_FALSE(volume.initialized());
    EXPECT_EQ(utf8(volume.fileSystem()), "FAT32");
    EXPECT_EQ(utf8(volume.name()), label);
    EXPECT_EQ(utf8(volume.serialNumber()), printf_("%lX-%lX", id >> 16, id & 0xFFFF));
    EXPECT_EQ(volume.bytesPerSector(), 512u);
    EXPECT_EQ(volume.bytesPerCluster(), clusterSize);
    EXPECT_GT(volume.totalClusters(), 0u);
    EXPECT_EQ(volume.bytesPerFileRecord(), 0u);

    std::vector<std::string> failures = log.texts("libKestrow.Volume", 4);
    ASSERT_EQ(failures.size(), 1u);
    EXPECT_TRUE(failures[0].starts_with("76 Failed to get volume data: ")) << failures[0];

    // No file extents on a volume that is not NTFS.
    orv::Array<Volume::FileExtent> extents;
    EXPECT_FALSE(
        volume.getFileExtents(orv::String(printf_("%c:\\Readme.txt", letter).c_str()), extents));
    EXPECT_EQ(extents.size(), 0u);
}

} // namespace
} // namespace kestrow::test::volume
