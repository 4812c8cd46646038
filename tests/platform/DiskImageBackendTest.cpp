// The disk-image backend on the fixture images, checked against The Sleuth
// Kit, NTFS-3G's tools and sfdisk, through the same calls the library makes.
#include "support/AttachedDisks.h"
#include "support/FakePlatform.h"
#include "support/Fixtures.h"
#include "support/Oracle.h"
#include "support/Win32Calls.h"

#include <kestrow/Disks.h>
#include <kestrow/Platform.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <vector>

namespace {

namespace platform = kestrow::platform;
namespace oracle = kestrow::test::oracle;
using kestrow::test::AttachedDisks;
using kestrow::test::FixtureImage;
using kestrow::test::ImageFacts;

using kestrow::test::clustersOf;
using kestrow::test::Handle;
using kestrow::test::narrow;
using kestrow::test::RetrievalPointer;
using kestrow::test::retrievalPointers;
using kestrow::test::widen;

std::vector<std::uint8_t> volumeBitmap(HANDLE volume, std::uint64_t& clusters) {
    STARTING_LCN_INPUT_BUFFER input{};
    std::vector<std::uint8_t> out(sizeof(VOLUME_BITMAP_BUFFER));
    DWORD returned = 0;
    BOOL ok =
        platform::DeviceIoControl(volume, FSCTL_GET_VOLUME_BITMAP, &input, sizeof input, out.data(),
                                  static_cast<DWORD>(out.size()), &returned, nullptr);
    EXPECT_FALSE(ok);
    EXPECT_EQ(platform::GetLastError(), static_cast<DWORD>(ERROR_MORE_DATA));
    EXPECT_EQ(returned, 24u); // the header and the 8 bytes that fit
    VOLUME_BITMAP_BUFFER header;
    std::memcpy(&header, out.data(), sizeof header);
    clusters = static_cast<std::uint64_t>(header.BitmapSize.QuadPart);
    out.resize(16 + (clusters + 7) / 8);
    ok = platform::DeviceIoControl(volume, FSCTL_GET_VOLUME_BITMAP, &input, sizeof input,
                                   out.data(), static_cast<DWORD>(out.size()), &returned, nullptr);
    EXPECT_TRUE(ok) << platform::GetLastError();
    EXPECT_EQ(returned, out.size());
    return {out.begin() + 16, out.end()};
}

// Each image attached alone.
class EveryImage : public testing::TestWithParam<ImageFacts> {
protected:
    void SetUp() override { ASSERT_TRUE(attached.ok()) << attached.error(); }
    const ImageFacts& facts = GetParam();
    const std::filesystem::path image = kestrow::test::imagePath(facts.image);
    AttachedDisks attached{image};
};

INSTANTIATE_TEST_SUITE_P(Fixtures, EveryImage, testing::ValuesIn(kestrow::test::allImages()),
                         kestrow::test::ImageTestName());

TEST_P(EveryImage, VolumeIsFoundWhereThePartitionTableSaysAndGetsLetterC) {
    const auto disks = platform::attachedDisks();
    ASSERT_EQ(disks.size(), 1u);
    EXPECT_EQ(disks[0].bytesPerSector, facts.bytesPerSector);
    EXPECT_EQ(disks[0].size, facts.imageSize);
    const auto volumes = platform::attachedVolumes();
    ASSERT_FALSE(volumes.empty());
    EXPECT_EQ(volumes[0].letter, 'C');
    EXPECT_EQ(volumes[0].fileSystem, "NTFS");
    EXPECT_EQ(volumes[0].offset, facts.volumeOffset);
    EXPECT_EQ(volumes[0].length, facts.volumeSize);
    if (facts.isWholeDisk) {
        const oracle::SfdiskDump dump =
            oracle::dumpPartitionTable(kestrow::test::imagePath(facts.image));
        bool matched = false;
        for (const auto& partition : dump.partitions) {
            if (partition.start * dump.sectorSize == volumes[0].offset) {
                EXPECT_EQ(partition.size * dump.sectorSize, volumes[0].length);
                matched = true;
            }
        }
        EXPECT_TRUE(matched) << "no sfdisk partition starts at " << volumes[0].offset;
        EXPECT_EQ(disks[0].partitionTable, dump.label == "dos" ? "MBR" : "GPT");
    } else {
        EXPECT_EQ(disks[0].partitionTable, "none");
        EXPECT_EQ(volumes.size(), 1u);
    }
}

TEST_P(EveryImage, VolumeInformationAndGeometryAgreeWithFsstat) {
    const oracle::FsstatResult fsstat = oracle::fileSystemStats(image, facts.volumeOffset / 512);

    WCHAR label[1024] = {};
    WCHAR fileSystem[256] = {};
    DWORD serial = 0;
    DWORD maxComponent = 0;
    DWORD flags = 0;
    ASSERT_TRUE(platform::GetVolumeInformationW(widen("\\\\.\\C:\\").c_str(), label, 1024, &serial,
                                                &maxComponent, &flags, fileSystem, 256))
        << platform::GetLastError();
    EXPECT_EQ(narrow(label), facts.label);
    EXPECT_EQ(narrow(label), fsstat.label);
    EXPECT_EQ(narrow(fileSystem), "NTFS");
    EXPECT_EQ(serial, static_cast<DWORD>(fsstat.serialNumber & 0xFFFFFFFFu));
    EXPECT_EQ(maxComponent, 255u);
    EXPECT_NE(flags & FILE_READ_ONLY_VOLUME, 0u);

    DWORD sectorsPerCluster = 0, bytesPerSector = 0, freeClusters = 0, totalClusters = 0;
    ASSERT_TRUE(platform::GetDiskFreeSpaceW(widen("\\\\.\\C:\\").c_str(), &sectorsPerCluster,
                                            &bytesPerSector, &freeClusters, &totalClusters));
    EXPECT_EQ(bytesPerSector, facts.bytesPerSector);
    EXPECT_EQ(bytesPerSector, fsstat.sectorSize);
    EXPECT_EQ(sectorsPerCluster * bytesPerSector, facts.bytesPerCluster);
    EXPECT_EQ(totalClusters, fsstat.totalClusters);
    const std::vector<bool> allocated = oracle::allocatedClusters(image, facts.volumeOffset / 512);
    const auto used =
        static_cast<std::uint64_t>(std::count(allocated.begin(), allocated.end(), true));
    EXPECT_EQ(freeClusters, allocated.size() - used);

    Handle volume("\\\\?\\C:");
    ASSERT_TRUE(volume.valid()) << volume.error();
    NTFS_VOLUME_DATA_BUFFER data{};
    DWORD returned = 0;
    ASSERT_TRUE(platform::DeviceIoControl(volume.get(), FSCTL_GET_NTFS_VOLUME_DATA, nullptr, 0,
                                          &data, sizeof data, &returned, nullptr));
    EXPECT_EQ(returned, sizeof data);
    EXPECT_EQ(static_cast<std::uint64_t>(data.VolumeSerialNumber.QuadPart), fsstat.serialNumber);
    EXPECT_EQ(data.BytesPerFileRecordSegment, facts.bytesPerFileRecord);
    EXPECT_EQ(data.BytesPerFileRecordSegment, fsstat.mftEntrySize);
    EXPECT_EQ(data.BytesPerSector, facts.bytesPerSector);
    EXPECT_EQ(data.BytesPerCluster, facts.bytesPerCluster);
    EXPECT_EQ(static_cast<std::uint64_t>(data.MftStartLcn.QuadPart), fsstat.firstMftCluster);
    EXPECT_EQ(static_cast<std::uint64_t>(data.Mft2StartLcn.QuadPart), fsstat.firstMftMirrorCluster);
    EXPECT_EQ(static_cast<std::uint64_t>(data.TotalClusters.QuadPart), fsstat.totalClusters);
    EXPECT_EQ(static_cast<std::uint64_t>(data.FreeClusters.QuadPart), freeClusters);

    if (!facts.isWholeDisk) {
        // NTFS-3G's view of the same volume (ntfsinfo reads whole volumes only).
        const auto info = oracle::volumeInfo(image);
        EXPECT_EQ(narrow(label), info.at("Volume Name"));
        EXPECT_EQ(std::to_string(data.BytesPerCluster), info.at("Cluster Size"));
        EXPECT_EQ(std::to_string(data.BytesPerSector), info.at("Sector Size"));
        EXPECT_EQ(std::to_string(data.BytesPerFileRecordSegment), info.at("MFT Record Size"));
        EXPECT_EQ(std::to_string(data.TotalClusters.QuadPart), info.at("Volume Size in Clusters"));
        EXPECT_EQ(std::to_string(data.MftStartLcn.QuadPart),
                  info.at("LCN of Data Attribute for FILE_MFT"));
        const std::string freeText = info.at("Free Clusters");
        EXPECT_EQ(std::to_string(freeClusters), freeText.substr(0, freeText.find(' ')));
    }
}

TEST_P(EveryImage, DiskExtentIsTheVolumesPlaceOnTheDisk) {
    Handle volume("\\\\?\\C:");
    ASSERT_TRUE(volume.valid());
    VOLUME_DISK_EXTENTS extents{};
    DWORD returned = 0;
    ASSERT_TRUE(platform::DeviceIoControl(volume.get(), IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS,
                                          nullptr, 0, &extents, sizeof extents, &returned,
                                          nullptr));
    EXPECT_EQ(returned, sizeof extents);
    EXPECT_EQ(extents.NumberOfDiskExtents, 1u);
    EXPECT_EQ(extents.Extents[0].DiskNumber, 0u);
    EXPECT_EQ(static_cast<std::uint64_t>(extents.Extents[0].StartingOffset.QuadPart),
              facts.volumeOffset);
    EXPECT_EQ(static_cast<std::uint64_t>(extents.Extents[0].ExtentLength.QuadPart),
              facts.volumeSize);
}

TEST_P(EveryImage, MftRunsAgreeWithIstatAndNtfsinfo) {
    const oracle::IstatResult istat = oracle::inspectRecord(image, 0, facts.volumeOffset / 512);
    const oracle::IstatAttribute* data = istat.find(oracle::kData);
    ASSERT_NE(data, nullptr);
    ASSERT_NE(platform::GetFileAttributesW(widen("C:\\$MFT").c_str()), INVALID_FILE_ATTRIBUTES);
    // The library opens the file with no access, only for the control request.
    Handle mft("\\\\.\\C:\\$MFT", 0, FILE_FLAG_OVERLAPPED | FILE_FLAG_NO_BUFFERING);
    ASSERT_TRUE(mft.valid()) << mft.error();
    DWORD error = 0;
    const std::vector<RetrievalPointer> runs = retrievalPointers(mft.get(), error);
    ASSERT_EQ(error, 0u);
    const std::vector<std::int64_t> clusters = clustersOf(runs);

    // istat lists every allocated cluster, but shows those past the
    // initialized size as 0: compare the initialized part only.
    ASSERT_EQ(clusters.size(), data->clusters.size());
    const std::uint64_t initialized =
        (data->initializedSize + facts.bytesPerCluster - 1) / facts.bytesPerCluster;
    for (std::uint64_t i = 0; i < initialized && i < clusters.size(); ++i)
        ASSERT_EQ(clusters[i], static_cast<std::int64_t>(data->clusters[i])) << "VCN " << i;

    if (!facts.isWholeDisk) {
        // ntfsinfo gives the run list itself.
        const oracle::NtfsinfoRecord record = oracle::recordInfo(image, 0);
        const auto dataRuns = std::find_if(record.runLists.begin(), record.runLists.end(),
                                           [](const auto& list) { return list.first == "$DATA"; });
        ASSERT_NE(dataRuns, record.runLists.end());
        std::vector<RetrievalPointer> expected;
        for (const oracle::NtfsinfoRun& run : dataRuns->second)
            expected.push_back({static_cast<std::int64_t>(run.vcn + run.length),
                                run.lcn ? static_cast<std::int64_t>(*run.lcn) : -1});
        EXPECT_EQ(clusters, clustersOf(expected));
    }
}

TEST_P(EveryImage, BitmapAgreesWithTheSleuthKit) {
    const std::vector<bool> expected = oracle::allocatedClusters(image, facts.volumeOffset / 512);
    Handle volume("\\\\?\\C:");
    ASSERT_TRUE(volume.valid());
    std::uint64_t clusters = 0;
    const std::vector<std::uint8_t> bitmap = volumeBitmap(volume.get(), clusters);
    ASSERT_EQ(clusters, expected.size());
    std::size_t mismatches = 0;
    for (std::uint64_t c = 0; c < clusters; ++c) {
        if (((bitmap[c / 8] >> (c % 8)) & 1) != (expected[c] ? 1 : 0))
            ++mismatches;
    }
    EXPECT_EQ(mismatches, 0u);
}

TEST_P(EveryImage, VolumeAndDiskHandlesReadRawSectorsUnderDeviceRules) {
    const std::uint32_t sector = facts.bytesPerSector;
    const auto expectedBoot = kestrow::test::readFileBytes(image, facts.volumeOffset, sector);

    Handle volume("\\\\.\\C:");
    ASSERT_TRUE(volume.valid());
    std::vector<std::uint8_t> buffer(2 * sector, 0xEE);
    DWORD got = 0;
    ASSERT_TRUE(platform::ReadFile(volume.get(), buffer.data(), sector, &got, nullptr));
    EXPECT_EQ(got, sector);
    EXPECT_TRUE(std::equal(expectedBoot.begin(), expectedBoot.end(), buffer.begin()));

    // Not a whole sector, then not on a sector boundary.
    EXPECT_FALSE(platform::ReadFile(volume.get(), buffer.data(), sector / 2, &got, nullptr));
    EXPECT_EQ(platform::GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    LARGE_INTEGER at;
    at.QuadPart = sector / 2;
    ASSERT_TRUE(platform::SetFilePointerEx(volume.get(), at, nullptr, FILE_BEGIN));
    EXPECT_FALSE(platform::ReadFile(volume.get(), buffer.data(), sector, &got, nullptr));
    EXPECT_EQ(platform::GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    if (sector == 4096) {
        // A 1024-byte record read is not a whole sector of a 4Kn disk.
        at.QuadPart = 0;
        platform::SetFilePointerEx(volume.get(), at, nullptr, FILE_BEGIN);
        EXPECT_FALSE(platform::ReadFile(volume.get(), buffer.data(), 1024, &got, nullptr));
        EXPECT_EQ(platform::GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    }

    // The last sector of the volume, then past its end: what exists, then nothing.
    at.QuadPart = static_cast<LONGLONG>(facts.volumeSize - sector);
    LARGE_INTEGER now{};
    ASSERT_TRUE(platform::SetFilePointerEx(volume.get(), at, &now, FILE_BEGIN));
    EXPECT_EQ(now.QuadPart, at.QuadPart);
    ASSERT_TRUE(platform::ReadFile(volume.get(), buffer.data(), 2 * sector, &got, nullptr));
    EXPECT_EQ(got, sector);
    ASSERT_TRUE(platform::ReadFile(volume.get(), buffer.data(), sector, &got, nullptr));
    EXPECT_EQ(got, 0u);

    // The disk handle reads the whole disk: the volume's boot sector sits at its offset.
    Handle disk("\\\\.\\PhysicalDrive0");
    ASSERT_TRUE(disk.valid());
    at.QuadPart = static_cast<LONGLONG>(facts.volumeOffset);
    ASSERT_TRUE(platform::SetFilePointerEx(disk.get(), at, nullptr, FILE_BEGIN));
    ASSERT_TRUE(platform::ReadFile(disk.get(), buffer.data(), sector, &got, nullptr));
    EXPECT_TRUE(std::equal(expectedBoot.begin(), expectedBoot.end(), buffer.begin()));
}

TEST(DiskImageBackend, MbrDiskGivesTheFatPartitionTheNextLetter) {
    const auto image = kestrow::test::mbrDisk();
    AttachedDisks attached(image);
    ASSERT_TRUE(attached.ok());
    const auto volumes = platform::attachedVolumes();
    ASSERT_EQ(volumes.size(), 2u);
    EXPECT_EQ(volumes[1].letter, 'D');
    EXPECT_EQ(volumes[1].fileSystem, "FAT32");
    EXPECT_EQ(volumes[1].partition, 2u);
    EXPECT_EQ(volumes[1].offset, kestrow::test::kMbrFatStartSector * 512);

    // The Sleuth Kit's view of the FAT volume: its label, serial and cluster counts.
    const std::string fsstat = oracle::runToolChecked(
        {"fsstat", "-o", std::to_string(volumes[1].offset / 512), image.string()});
    auto field = [&](const std::string& key) {
        const std::size_t at = fsstat.find(key);
        EXPECT_NE(at, std::string::npos) << key;
        const std::size_t start = at + key.size();
        return fsstat.substr(start, fsstat.find('\n', start) - start);
    };
    std::string expectedLabel = field("Volume Label (Root Directory): ");
    while (!expectedLabel.empty() && expectedLabel.back() == ' ')
        expectedLabel.pop_back();
    const DWORD expectedSerial = static_cast<DWORD>(std::stoul(field("Volume ID: "), nullptr, 16));
    const std::string clusterRange = field("Total Cluster Range: ");
    const DWORD expectedTotal =
        static_cast<DWORD>(std::stoul(clusterRange.substr(clusterRange.find("- ") + 2)) - 1);
    const DWORD expectedFree =
        static_cast<DWORD>(std::stoul(field("Free Sector Count (FS Info): ")));

    WCHAR label[64] = {};
    WCHAR fileSystem[64] = {};
    DWORD serial = 0;
    ASSERT_TRUE(platform::GetVolumeInformationW(widen("D:\\").c_str(), label, 64, &serial, nullptr,
                                                nullptr, fileSystem, 64));
    EXPECT_EQ(narrow(fileSystem), "FAT32");
    EXPECT_EQ(narrow(label), expectedLabel);
    EXPECT_EQ(serial, expectedSerial);

    DWORD spc = 0, bps = 0, freeClusters = 0, total = 0;
    ASSERT_TRUE(
        platform::GetDiskFreeSpaceW(widen("D:\\").c_str(), &spc, &bps, &freeClusters, &total));
    EXPECT_EQ(bps, 512u);
    EXPECT_EQ(spc, 1u); // so the FS Info sector count is a cluster count
    EXPECT_EQ(total, expectedTotal);
    EXPECT_EQ(freeClusters, expectedFree);

    Handle fat("\\\\?\\D:");
    ASSERT_TRUE(fat.valid());
    NTFS_VOLUME_DATA_BUFFER data{};
    DWORD returned = 0;
    EXPECT_FALSE(platform::DeviceIoControl(fat.get(), FSCTL_GET_NTFS_VOLUME_DATA, nullptr, 0, &data,
                                           sizeof data, &returned, nullptr));
    EXPECT_EQ(platform::GetLastError(), static_cast<DWORD>(ERROR_INVALID_FUNCTION));
}

TEST(DiskImageBackend, SeveralDisksAreNumberedAndLetteredInOrder) {
    AttachedDisks attached(
        {kestrow::test::bareVolume(), kestrow::test::gptDisk(), kestrow::test::mbrDisk()});
    ASSERT_TRUE(attached.ok());
    const auto volumes = platform::attachedVolumes();
    ASSERT_EQ(volumes.size(), 4u);
    const char letters[] = {'C', 'D', 'E', 'F'};
    const std::uint32_t disks[] = {0, 1, 2, 2};
    for (std::size_t i = 0; i < volumes.size(); ++i) {
        EXPECT_EQ(volumes[i].letter, letters[i]);
        EXPECT_EQ(volumes[i].diskNumber, disks[i]);
    }
    EXPECT_EQ(volumes[1].partition, 2u); // the GPT spacer partition holds no volume
    WCHAR label[64] = {};
    ASSERT_TRUE(platform::GetVolumeInformationW(widen("E:\\").c_str(), label, 64, nullptr, nullptr,
                                                nullptr, nullptr, 0));
    EXPECT_EQ(narrow(label), "KESTROW_MBR");
    Handle disk2("\\\\.\\PhysicalDrive2");
    EXPECT_TRUE(disk2.valid());
    Handle disk3("\\\\.\\PhysicalDrive3");
    EXPECT_FALSE(disk3.valid());
    EXPECT_EQ(disk3.error(), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
}

TEST(DiskImageBackend, PinnedLettersWinAndTheRestFillFromC) {
    std::string error;
    ASSERT_TRUE(platform::attachDisks({kestrow::test::mbrDisk().string()}, {{'K', 0, 2}}, error))
        << error;
    const auto volumes = platform::attachedVolumes();
    ASSERT_EQ(volumes.size(), 2u);
    EXPECT_EQ(volumes[0].letter, 'C');
    EXPECT_EQ(volumes[1].letter, 'K');
    EXPECT_FALSE(platform::attachDisks({kestrow::test::mbrDisk().string()}, {{'K', 0, 7}}, error));
    EXPECT_NE(error.find("partition 7"), std::string::npos) << error;
    // The failed attach left the previous set in place.
    EXPECT_EQ(platform::attachedVolumes().size(), 2u);
    EXPECT_FALSE(platform::attachDisks({"/nonexistent/disk.img"}, error));
    EXPECT_NE(error.find("/nonexistent/disk.img"), std::string::npos) << error;
    platform::attachDisks({}, error);
    EXPECT_FALSE(platform::disksAttached());
}

TEST(DiskImageBackendDeathTest, EnvironmentVariableAttachesDisksOnFirstUse) {
    // A fresh process: the first platform call of a process reads the variable.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const std::string list =
        kestrow::test::bareVolume().string() + ":" + kestrow::test::gptDisk().string();
    EXPECT_EXIT(
        {
            setenv("KESTROW_DISKS", list.c_str(), 1);
            const bool ok = platform::GetFileAttributesW(widen("D:\\$MFT").c_str()) !=
                                INVALID_FILE_ATTRIBUTES &&
                            platform::attachedDisks().size() == 2 &&
                            platform::attachedVolumes().size() == 2;
            std::_Exit(ok ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

} // namespace

namespace {

// Byte offset of MFT record `index` in bare.img (its MFT's first run starts
// at cluster 4, which fsstat confirms).
std::uint64_t bareRecordOffset(std::uint64_t index) {
    const auto stats = oracle::fileSystemStats(kestrow::test::bareVolume());
    return stats.firstMftCluster * stats.clusterSize + index * stats.mftEntrySize;
}

TEST(DamagedVolume, LostVolumeRecordLeavesAnEmptyLabel) {
    kestrow::test::ScratchImage scratch(kestrow::test::bareVolume());
    scratch.patch(bareRecordOffset(3), std::vector<std::uint8_t>{'B', 'A', 'A', 'D'});
    AttachedDisks attached(scratch.path());
    WCHAR label[64] = {'x', 0};
    WCHAR fileSystem[64] = {};
    ASSERT_TRUE(platform::GetVolumeInformationW(widen("C:\\").c_str(), label, 64, nullptr, nullptr,
                                                nullptr, fileSystem, 64));
    EXPECT_EQ(narrow(label), "");
    EXPECT_EQ(narrow(fileSystem), "NTFS");
    EXPECT_NE(platform::GetFileAttributesW(widen("C:\\$MFT").c_str()), INVALID_FILE_ATTRIBUTES);
}

TEST(DamagedVolume, LostUpcaseTableStillComparesAsciiNamesWithoutCase) {
    kestrow::test::ScratchImage scratch(kestrow::test::bareVolume());
    scratch.patch(bareRecordOffset(10), std::vector<std::uint8_t>{0, 0, 0, 0});
    AttachedDisks attached(scratch.path());
    EXPECT_NE(platform::GetFileAttributesW(widen("C:\\$attrdef").c_str()), INVALID_FILE_ATTRIBUTES);
    EXPECT_NE(platform::GetFileAttributesW(widen("C:\\$bitmap").c_str()), INVALID_FILE_ATTRIBUTES);
    // The table's own record is the damaged one.
    EXPECT_EQ(platform::GetFileAttributesW(widen("C:\\$UpCase").c_str()), INVALID_FILE_ATTRIBUTES);
    EXPECT_EQ(platform::GetLastError(), static_cast<DWORD>(ERROR_FILE_CORRUPT));
}

TEST(DamagedVolume, UnreadableMftRecordZeroIsARawVolumeThatStillReadsSectors) {
    kestrow::test::ScratchImage scratch(kestrow::test::bareVolume());
    scratch.patch(bareRecordOffset(0), std::vector<std::uint8_t>{0, 0, 0, 0});
    AttachedDisks attached(scratch.path());
    ASSERT_EQ(platform::attachedVolumes().size(), 1u);
    EXPECT_FALSE(platform::GetVolumeInformationW(widen("C:\\").c_str(), nullptr, 0, nullptr,
                                                 nullptr, nullptr, nullptr, 0));
    EXPECT_EQ(platform::GetLastError(), static_cast<DWORD>(ERROR_UNRECOGNIZED_VOLUME));
    EXPECT_EQ(platform::GetFileAttributesW(widen("C:\\$MFT").c_str()), INVALID_FILE_ATTRIBUTES);
    EXPECT_EQ(platform::GetLastError(), static_cast<DWORD>(ERROR_UNRECOGNIZED_VOLUME));
    Handle volume("\\\\.\\C:");
    ASSERT_TRUE(volume.valid());
    NTFS_VOLUME_DATA_BUFFER data{};
    DWORD returned = 0;
    EXPECT_FALSE(platform::DeviceIoControl(volume.get(), FSCTL_GET_NTFS_VOLUME_DATA, nullptr, 0,
                                           &data, sizeof data, &returned, nullptr));
    EXPECT_EQ(platform::GetLastError(), static_cast<DWORD>(ERROR_UNRECOGNIZED_VOLUME));
    std::vector<std::uint8_t> sector(512);
    DWORD got = 0;
    EXPECT_TRUE(platform::ReadFile(volume.get(), sector.data(), 512, &got, nullptr));
    EXPECT_EQ(got, 512u);
}

// Another program truncates the image while it is attached: the bytes it
// still has read as before, the rest fail (never a short read passed off as
// the data), and each failure is counted with where it happened.
TEST(DamagedVolume, AnImageThatShrinksWhileAttachedFailsTheReadsPastItsNewEnd) {
    kestrow::test::ScratchImage scratch(kestrow::test::bareVolume());
    AttachedDisks attached(scratch.path());
    Handle disk("\\\\.\\PhysicalDrive0");
    ASSERT_TRUE(disk.valid());
    constexpr std::uint64_t KEPT = 64 * 1024;
    constexpr DWORD CHUNK = 4096;
    std::filesystem::resize_file(scratch.path(), KEPT);
    const std::uint64_t failuresBefore = platform::mediumFailures().count;

    auto readAt = [&](std::uint64_t offset, DWORD count, DWORD& got) {
        LARGE_INTEGER at;
        at.QuadPart = static_cast<LONGLONG>(offset);
        std::vector<std::uint8_t> buffer(count);
        return platform::SetFilePointerEx(disk.get(), at, nullptr, FILE_BEGIN) &&
               platform::ReadFile(disk.get(), buffer.data(), count, &got, nullptr);
    };
    DWORD got = 0;
    EXPECT_TRUE(readAt(KEPT - CHUNK, CHUNK, got));
    EXPECT_EQ(got, CHUNK);
    EXPECT_FALSE(readAt(KEPT - CHUNK, 2 * CHUNK, got)) << "a read across the new end";
    EXPECT_EQ(platform::GetLastError(), static_cast<DWORD>(ERROR_HANDLE_EOF));
    EXPECT_FALSE(readAt(KEPT + 4 * CHUNK, CHUNK, got)) << "a read past the new end";
    EXPECT_EQ(platform::GetLastError(), static_cast<DWORD>(ERROR_HANDLE_EOF));

    const platform::MediumFailures failures = platform::mediumFailures();
    EXPECT_EQ(failures.count, failuresBefore + 2);
    EXPECT_EQ(failures.path, scratch.path().string());
    EXPECT_EQ(failures.offset, KEPT + 4 * CHUNK);
    EXPECT_EQ(failures.error, static_cast<DWORD>(ERROR_HANDLE_EOF));
}

TEST(DamagedVolume, NothingWritesToTheImages) {
    // Every call of this suite on every image, then the image bytes: the
    // fixture manifest check covers the shared images; here a scratch copy
    // is compared byte for byte after write-asking opens.
    kestrow::test::ScratchImage scratch(kestrow::test::bareVolume());
    const auto before = scratch.read(0, static_cast<std::size_t>(scratch.size()));
    {
        AttachedDisks attached(scratch.path());
        Handle volume("\\\\.\\C:", GENERIC_READ | GENERIC_WRITE);
        Handle disk("\\\\.\\PhysicalDrive0", GENERIC_READ | GENERIC_WRITE);
        EXPECT_TRUE(volume.valid());
        EXPECT_TRUE(disk.valid());
        HANDLE file = platform::CreateFileW(widen("C:\\$MFT").c_str(), GENERIC_WRITE, 0, nullptr,
                                            TRUNCATE_EXISTING, 0, nullptr);
        EXPECT_EQ(file, INVALID_HANDLE_VALUE);
        EXPECT_EQ(platform::GetLastError(), static_cast<DWORD>(ERROR_WRITE_PROTECT));
    }
    EXPECT_EQ(scratch.read(0, static_cast<std::size_t>(scratch.size())), before);
}

} // namespace
