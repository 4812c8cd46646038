// The disk written by Windows 10 (two NTFS volumes, volume shadow copies),
// read through the disk-image backend and compared with The Sleuth Kit: the
// volume text and geometry, the $MFT's extents and every file's, every path,
// and the owners of the files' clusters. Every record field is compared with
// the walks as designed in filerecord/WalkAsDesignedTest.cpp.
#include "support/AttachedDisks.h"
#include "support/FieldDisk.h"
#include "support/Fixtures.h"
#include "support/Oracle.h"

#include <kestrow/Disks.h>
#include <libKestrow/FileRecord.h>
#include <libKestrow/MasterFileTable.h>
#include <libKestrow/Volume.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kestrow::test {
namespace {

namespace oracle = kestrow::test::oracle;

std::string printf_(const char* format, auto... values) {
    char text[512];
    std::snprintf(text, sizeof text, format, values...);
    return text;
}

struct NtfsVolume {
    char letter = 0;
    std::uint64_t offset = 0; // bytes on the disk
    std::uint64_t length = 0;
    std::uint64_t tskOffset() const { return offset / 512; }
};

class WindowsDisk : public ::testing::Test {
protected:
    void SetUp() override {
        const std::optional<std::filesystem::path> disk = fieldDisk();
        if (!disk)
            GTEST_SKIP() << fieldDiskAbsence();
        m_image = *disk;
        m_disks = std::make_unique<AttachedDisks>(m_image);
        ASSERT_TRUE(m_disks->ok()) << m_disks->error();
        for (const platform::VolumeInfo& v : platform::attachedVolumes())
            if (v.fileSystem == "NTFS")
                m_volumes.push_back({v.letter, v.offset, v.length});
        ASSERT_EQ(m_volumes.size(), 2u);
    }

    // The allocated files and directories fls lists, without named streams
    // and The Sleuth Kit's own $OrphanFiles.
    std::vector<oracle::FlsEntry> files(const NtfsVolume& v) const {
        std::vector<oracle::FlsEntry> kept;
        for (oracle::FlsEntry& e :
             oracle::listFiles(m_image, v.tskOffset(), oracle::FlsSelection::AllocatedOnly))
            if (e.streamName().empty() && e.nameType != 'V' && !e.path.starts_with("$OrphanFiles"))
                kept.push_back(std::move(e));
        return kept;
    }

    std::filesystem::path m_image;
    std::unique_ptr<AttachedDisks> m_disks;
    std::vector<NtfsVolume> m_volumes;
};

TEST_F(WindowsDisk, VolumeTextAndGeometryAreThoseTheToolsReport) {
    const oracle::MmlsResult mmls = oracle::listPartitions(m_image);
    for (const NtfsVolume& v : m_volumes) {
        SCOPED_TRACE(std::string(1, v.letter));
        const oracle::FsstatResult fsstat = oracle::fileSystemStats(m_image, v.tskOffset());
        Volume volume(v.letter);
        ASSERT_TRUE(volume.initialized());
        EXPECT_EQ(volume.name().toUtf8(), fsstat.label);
        EXPECT_EQ(volume.bytesPerSector(), fsstat.sectorSize);
        EXPECT_EQ(volume.bytesPerCluster(), fsstat.clusterSize);
        EXPECT_EQ(volume.totalClusters(), fsstat.totalClusters);
        EXPECT_EQ(volume.bytesPerFileRecord(), fsstat.mftEntrySize);
        const std::vector<bool> used = oracle::allocatedClusters(m_image, v.tskOffset());
        EXPECT_EQ(volume.freeClusters(),
                  fsstat.totalClusters -
                      static_cast<std::uint64_t>(std::count(used.begin(), used.end(), true)));
        bool partitionFound = false;
        for (const oracle::MmlsEntry& entry : mmls.partitions())
            if (entry.start * mmls.unitSize == v.offset) {
                partitionFound = true;
                EXPECT_EQ(entry.length * mmls.unitSize, v.length);
            }
        EXPECT_TRUE(partitionFound);

        const std::string text = volume.toString().toUtf8();
        const unsigned serial = static_cast<unsigned>(fsstat.serialNumber & 0xFFFFFFFF);
        for (const std::string& line :
             {printf_("Volume '%c:'\n", v.letter),
              printf_("   Name                : %s\n", fsstat.label.c_str()),
              printf_("   Serial Number       : %X-%X\n", serial >> 16, serial & 0xFFFF),
              printf_("   Bytes per Cluster   : %u\n", fsstat.clusterSize),
              printf_("   Total clusters      : %u\n", static_cast<unsigned>(fsstat.totalClusters)),
              printf_("     Start Sector   : %llXh\n",
                      static_cast<unsigned long long>(v.offset / fsstat.sectorSize)),
              printf_("     Length Sectors : %llXh",
                      static_cast<unsigned long long>(v.length / fsstat.sectorSize))})
            EXPECT_NE(text.find(line), std::string::npos) << line << "\nin:\n" << text;
    }
}

// istat's clusters of a record's unnamed $DATA, or nothing when it is resident.
std::optional<std::vector<std::uint64_t>>
dataClusters(const std::filesystem::path& image, std::uint64_t inode, std::uint64_t tskOffset) {
    const oracle::IstatResult istat = oracle::inspectRecord(image, inode, tskOffset);
    const oracle::IstatAttribute* data = istat.find(oracle::kData);
    if (data == nullptr || data->resident || data->clusters.empty())
        return std::nullopt;
    return data->clusters;
}

TEST_F(WindowsDisk, ExtentsOfTheMftAndOfEveryFileAreTheirClustersOnTheDrive) {
    std::size_t compared = 0;
    for (const NtfsVolume& v : m_volumes) {
        SCOPED_TRACE(std::string(1, v.letter));
        Volume volume(v.letter);
        const std::uint64_t bpc = volume.bytesPerCluster();
        const std::uint64_t bps = volume.bytesPerSector();
        for (const oracle::FlsEntry& e : files(v)) {
            if (e.isDirectory())
                continue;
            const auto clusters = dataClusters(m_image, e.inode, v.tskOffset());
            if (!clusters)
                continue;
            std::string path = printf_("%c:\\", v.letter) + e.filePath();
            std::replace(path.begin(), path.end(), '/', '\\');
            orv::Array<Volume::FileExtent> extents;
            ASSERT_TRUE(volume.getFileExtents(orv::String::fromUtf8(path), extents)) << path;
            // Cluster by cluster: each one istat names lies at the same VCN.
            std::vector<std::uint64_t> ours;
            for (const Volume::FileExtent& extent : extents)
                for (std::uint64_t sector = extent.startSector; sector < extent.endSector;
                     sector += bpc / bps)
                    ours.push_back((sector * bps - v.offset) / bpc);
            ASSERT_LE(clusters->size(), ours.size()) << path;
            for (std::size_t vcn = 0; vcn < clusters->size(); ++vcn)
                if ((*clusters)[vcn] != 0) {
                    ASSERT_EQ(ours[vcn], (*clusters)[vcn]) << path << " VCN " << vcn;
                }
            ++compared;
        }
    }
    std::printf("%zu files' extents compared with istat\n", compared);
    EXPECT_GT(compared, 4u);
}

TEST_F(WindowsDisk, EveryPathIsTheOneFlsLists) {
    for (const NtfsVolume& v : m_volumes) {
        SCOPED_TRACE(std::string(1, v.letter));
        Volume volume(v.letter);
        MasterFileTable table(volume);
        ASSERT_TRUE(table.initialized());
        ASSERT_TRUE(table.buildRecordMap());
        // A file with several names is listed by fls under each; the library
        // gives it the name its rule takes.
        std::map<std::uint64_t, std::vector<std::string>> listed;
        for (const oracle::FlsEntry& e : files(v)) {
            std::string path = printf_("\\\\.\\%c:\\", v.letter) + e.filePath();
            std::replace(path.begin(), path.end(), '/', '\\');
            listed[e.inode].push_back(path);
        }
        std::size_t compared = 0;
        for (const auto& [inode, paths] : listed) {
            const std::string path = table.findParentPath(FileReference(inode, 0)).toUtf8();
            EXPECT_NE(std::find(paths.begin(), paths.end(), path), paths.end())
                << "record " << inode << ": " << path << ", fls: " << paths.front();
            ++compared;
        }
        std::printf("%c: %zu paths compared with fls\n", v.letter, compared);
        EXPECT_GT(compared, 20u);
    }
}

TEST_F(WindowsDisk, TheOwnerOfEveryFilesClustersIsTheOneIfindNames) {
    std::size_t compared = 0, beyondCount = 0;
    for (const NtfsVolume& v : m_volumes) {
        SCOPED_TRACE(std::string(1, v.letter));
        Volume volume(v.letter);
        MasterFileTable table(volume);
        ASSERT_TRUE(table.initialized());
        const std::uint64_t base = v.offset / volume.bytesPerCluster();
        for (const oracle::FlsEntry& e : files(v)) {
            if (e.isDirectory() || e.inode < 16)
                continue;
            const auto clusters = dataClusters(m_image, e.inode, v.tskOffset());
            if (!clusters || (*clusters)[clusters->size() / 2] == 0)
                continue;
            // Runs are kept only while their drive cluster stays within the
            // volume's cluster count (a rule kept as designed): on the second
            // volume the files near its end have none.
            const std::uint64_t highest = *std::max_element(clusters->begin(), clusters->end());
            if (base + highest > volume.totalClusters()) {
                ++beyondCount;
                continue;
            }
            const std::uint64_t cluster = (*clusters)[clusters->size() / 2];
            const auto owner = oracle::findClusterOwner(m_image, cluster, v.tskOffset());
            ASSERT_TRUE(owner.has_value()) << e.path;
            FileReference ref(0, 0);
            ASSERT_TRUE(table.findRecordCluster(base + cluster, ref)) << e.path;
            EXPECT_EQ(ref.index, owner->inode) << e.path << " cluster " << cluster;
            ++compared;
        }
    }
    std::printf("%zu owners compared with ifind, %zu files left out with runs past the "
                "volume's cluster count\n",
                compared, beyondCount);
    EXPECT_GT(compared, 2u);
}

} // namespace
} // namespace kestrow::test
