// Partition tables, boot sector recognition, sector size detection and
// drive letters, on disks built in memory.
#include "MiniNtfs.h"

#include "BootSector.h"
#include "DiskSet.h"
#include "PartitionTable.h"

#include <gtest/gtest.h>

namespace {

using namespace kestrow::test::mini;
using kestrow::platform::disk::buildDiskSet;
using kestrow::platform::disk::ByteSource;
using kestrow::platform::disk::detectSectorSize;
using kestrow::platform::disk::DiskSet;
using kestrow::platform::disk::FileSystemKind;
using kestrow::platform::disk::MemorySource;
using kestrow::platform::disk::parseBootSector;
using kestrow::platform::disk::readPartitionTable;

constexpr std::uint64_t MiB = 1 << 20;

void mbrEntry(std::vector<std::uint8_t>& sector, std::size_t base, int index, std::uint8_t type,
              std::uint32_t first, std::uint32_t count) {
    const std::size_t at = base + 0x1BE + static_cast<std::size_t>(index) * 16;
    sector[at + 4] = type;
    put32(sector, at + 8, first);
    put32(sector, at + 12, count);
    put16(sector, base + 0x1FE, 0xAA55);
}

// A FAT32 boot sector: 512-byte sectors, 1 sector per cluster, 70000 clusters.
std::vector<std::uint8_t> fat32BootSector() {
    std::vector<std::uint8_t> b(512, 0);
    b[0] = 0xEB;
    b[1] = 0x58;
    b[2] = 0x90;
    std::memcpy(b.data() + 3, "mkfs.fat", 8);
    put16(b, 0x0B, 512);
    b[0x0D] = 1;
    put16(b, 0x0E, 32);
    b[0x10] = 2;
    put32(b, 0x20, 32 + 2 * 600 + 70000);
    put32(b, 0x24, 600);
    put32(b, 0x2C, 2);
    b[0x42] = 0x29;
    put32(b, 0x43, 0xCAFEF00D);
    std::memcpy(b.data() + 0x47, "FATLABEL   ", 11);
    put16(b, 0x1FE, 0xAA55);
    return b;
}

std::vector<std::uint8_t> ntfsBoot(std::uint16_t bytesPerSector = 512) {
    std::vector<std::uint8_t> sector = bootSector(16384, 4);
    put16(sector, 0x0B, bytesPerSector);
    // A 4 KiB sector keeps the 512-byte boot sector at its start.
    std::vector<std::uint8_t> whole(bytesPerSector, 0);
    std::copy(sector.begin(), sector.end(), whole.begin());
    return whole;
}

TEST(BootSector, RecognisesNtfsFatAndExfat) {
    auto ntfs = parseBootSector(ntfsBoot().data(), 512);
    ASSERT_TRUE(ntfs.has_value());
    EXPECT_EQ(ntfs->kind, FileSystemKind::Ntfs);
    EXPECT_EQ(ntfs->bytesPerFileRecord, 1024u);
    EXPECT_EQ(ntfs->serialNumber, 0x1122334455667788ull);
    EXPECT_EQ(ntfs->totalClusters, 16384u);

    const auto fatBytes = fat32BootSector();
    auto fat = parseBootSector(fatBytes.data(), fatBytes.size());
    ASSERT_TRUE(fat.has_value());
    EXPECT_EQ(fat->kind, FileSystemKind::Fat32);
    EXPECT_EQ(fat->serialNumber, 0xCAFEF00Du);
    EXPECT_EQ(fat->totalClusters, 70000u);
    EXPECT_EQ(fat->bootLabel, "FATLABEL");

    auto small = fatBytes;
    put32(small, 0x20, 32 + 2 * 600 + 3000); // 3000 clusters make FAT12
    put16(small, 0x16, 600);
    put32(small, 0x24, 0);
    small[0x26] = 0x29;
    auto fat12 = parseBootSector(small.data(), small.size());
    ASSERT_TRUE(fat12.has_value());
    EXPECT_EQ(fat12->kind, FileSystemKind::Fat12);

    std::vector<std::uint8_t> exfat(512, 0);
    std::memcpy(exfat.data() + 3, "EXFAT   ", 8);
    put64(exfat, 0x48, 65536);
    put32(exfat, 0x50, 128);
    put32(exfat, 0x54, 64);
    put32(exfat, 0x58, 256);
    put32(exfat, 0x5C, 8000);
    put32(exfat, 0x60, 4);
    put32(exfat, 0x64, 0x0BADCAFE);
    exfat[0x6C] = 9;
    exfat[0x6D] = 3;
    exfat[0x6E] = 1;
    put16(exfat, 0x1FE, 0xAA55);
    auto ex = parseBootSector(exfat.data(), exfat.size());
    ASSERT_TRUE(ex.has_value());
    EXPECT_EQ(ex->kind, FileSystemKind::ExFat);
    EXPECT_EQ(ex->bytesPerCluster(), 4096u);
    EXPECT_EQ(ex->serialNumber, 0x0BADCAFEu);
}

TEST(BootSector, RejectsWhatIsNotASoundBootSector) {
    auto bad = ntfsBoot();
    put16(bad, 0x1FE, 0);
    EXPECT_FALSE(parseBootSector(bad.data(), bad.size()));
    bad = ntfsBoot();
    put16(bad, 0x0B, 500); // not a power of two
    EXPECT_FALSE(parseBootSector(bad.data(), bad.size()));
    bad = ntfsBoot();
    bad[0x40] = 0; // no record size
    EXPECT_FALSE(parseBootSector(bad.data(), bad.size()));
    bad = ntfsBoot();
    put64(bad, 0x30, 1u << 30); // MFT beyond the volume
    EXPECT_FALSE(parseBootSector(bad.data(), bad.size()));
    std::vector<std::uint8_t> mbr(512, 0);
    mbrEntry(mbr, 0, 0, 0x07, 2048, 4096);
    EXPECT_FALSE(parseBootSector(mbr.data(), mbr.size())); // a partition table is no volume
    EXPECT_FALSE(parseBootSector(mbr.data(), 100));        // too short to tell
}

TEST(PartitionTable, MbrPrimariesThenLogicalsInChainOrder) {
    std::vector<std::uint8_t> disk(64 * MiB, 0);
    mbrEntry(disk, 0, 0, 0x07, 2048, 4096);
    mbrEntry(disk, 0, 1, 0x0F, 8192, 65536); // extended at sector 8192
    mbrEntry(disk, 0, 2, 0x0C, 100000, 2048);
    // EBR 1 at 8192: logical at +2048, next EBR at extended+20000.
    mbrEntry(disk, 8192 * 512, 0, 0x07, 2048, 1024);
    mbrEntry(disk, 8192 * 512, 1, 0x05, 20000, 4096);
    // EBR 2 at 28192: logical at +100, no next.
    mbrEntry(disk, 28192 * 512, 0, 0x07, 100, 512);
    MemorySource source(disk);
    const auto table = readPartitionTable(source, 512);
    EXPECT_EQ(table.kind, "MBR");
    ASSERT_EQ(table.entries.size(), 4u);
    EXPECT_EQ(table.entries[0].number, 1u);
    EXPECT_EQ(table.entries[0].offset, 2048u * 512);
    EXPECT_EQ(table.entries[1].number, 3u);
    EXPECT_EQ(table.entries[2].number, 5u);
    EXPECT_EQ(table.entries[2].offset, (8192u + 2048) * 512);
    EXPECT_EQ(table.entries[2].length, 1024u * 512);
    EXPECT_EQ(table.entries[3].number, 6u);
    EXPECT_EQ(table.entries[3].offset, (28192u + 100) * 512);
}

TEST(PartitionTable, ALoopingExtendedChainEnds) {
    std::vector<std::uint8_t> disk(8 * MiB, 0);
    mbrEntry(disk, 0, 0, 0x05, 2048, 8192);
    mbrEntry(disk, 2048 * 512, 0, 0x07, 64, 64);
    mbrEntry(disk, 2048 * 512, 1, 0x05, 0x1000, 64); // next EBR ...
    mbrEntry(disk, (2048 + 0x1000) * 512, 0, 0x07, 64, 64);
    mbrEntry(disk, (2048 + 0x1000) * 512, 1, 0x05, 0x1000, 64); // ... points at itself
    MemorySource source(disk);
    const auto table = readPartitionTable(source, 512);
    EXPECT_EQ(table.entries.size(), 2u);
}

TEST(PartitionTable, GptEntriesInTableOrderBehindTheProtectiveMbr) {
    for (std::uint32_t sector : {512u, 4096u}) {
        SCOPED_TRACE(sector);
        std::vector<std::uint8_t> disk(32 * MiB, 0);
        mbrEntry(disk, 0, 0, 0xEE, 1, 0xFFFFFFFF);
        std::memcpy(disk.data() + sector, "EFI PART", 8);
        put64(disk, sector + 72, 2);   // entries at LBA 2
        put32(disk, sector + 80, 128); // 128 entries
        put32(disk, sector + 84, 128); // of 128 bytes
        auto entry = [&](int index, std::uint64_t first, std::uint64_t last) {
            const std::size_t at = 2 * sector + static_cast<std::size_t>(index) * 128;
            disk[at] = 0xA2; // any non-zero type GUID
            put64(disk, at + 32, first);
            put64(disk, at + 40, last);
        };
        entry(0, 2048 * 512 / sector, 4096 * 512 / sector - 1);
        entry(2, 8192 * 512 / sector, 16384 * 512 / sector - 1); // slot 2 empty before it
        entry(3, 10, 5);                                         // last before first: skipped
        MemorySource source(disk);
        EXPECT_EQ(detectSectorSize(source), sector);
        const auto table = readPartitionTable(source, sector);
        EXPECT_EQ(table.kind, "GPT");
        ASSERT_EQ(table.entries.size(), 2u);
        EXPECT_EQ(table.entries[0].number, 1u);
        EXPECT_EQ(table.entries[0].offset, 2048u * 512);
        EXPECT_EQ(table.entries[0].length, 2048u * 512);
        EXPECT_EQ(table.entries[1].number, 3u);
        EXPECT_EQ(table.entries[1].offset, 8192u * 512);
    }
}

TEST(PartitionTable, SectorSizeOfAnImageComesFromItsFirstNtfsVolume) {
    std::vector<std::uint8_t> bare(4 * MiB, 0);
    place(bare, 0, ntfsBoot(4096));
    EXPECT_EQ(detectSectorSize(MemorySource(bare)), 4096u);

    // An MBR disk of 4096-byte sectors: the partition's LBA 256 only makes
    // sense in 4 KiB units, where the NTFS boot sector says 4096.
    std::vector<std::uint8_t> disk(8 * MiB, 0);
    mbrEntry(disk, 0, 0, 0x07, 256, 1024);
    place(disk, 256 * 4096, ntfsBoot(4096));
    MemorySource source(disk);
    EXPECT_EQ(detectSectorSize(source), 4096u);
    EXPECT_EQ(readPartitionTable(source, 4096).entries.at(0).offset, 256u * 4096);

    std::vector<std::uint8_t> empty(1 * MiB, 0);
    EXPECT_EQ(detectSectorSize(MemorySource(empty)), 512u);
}

TEST(DriveLetters, VolumesOfEveryDiskInTableOrderFromC) {
    // Disk 0: bare NTFS. Disk 1: MBR with NTFS, an unknown partition, FAT32.
    std::vector<std::uint8_t> bare(8 * MiB, 0);
    place(bare, 0, ntfsBoot());
    std::vector<std::uint8_t> disk(16 * MiB, 0);
    mbrEntry(disk, 0, 0, 0x07, 2048, 4096);
    mbrEntry(disk, 0, 1, 0x83, 6144, 4096);
    mbrEntry(disk, 0, 2, 0x0C, 10240, 20000);
    place(disk, 2048 * 512, ntfsBoot());
    place(disk, 10240 * 512, fat32BootSector());
    const std::vector<std::shared_ptr<const ByteSource>> sources = {
        std::make_shared<MemorySource>(bare), std::make_shared<MemorySource>(disk)};

    DiskSet set;
    std::string error;
    ASSERT_TRUE(buildDiskSet(sources, {"bare", "disk"}, {}, {}, set, error)) << error;
    ASSERT_EQ(set.volumes.size(), 3u);
    EXPECT_EQ(set.volumes[0]->info.letter, 'C');
    EXPECT_EQ(set.volumes[0]->info.partition, 0u);
    EXPECT_EQ(set.volumes[1]->info.letter, 'D');
    EXPECT_EQ(set.volumes[1]->info.partition, 1u);
    EXPECT_EQ(set.volumes[2]->info.letter, 'E');
    EXPECT_EQ(set.volumes[2]->info.fileSystem, "FAT32");
    EXPECT_EQ(set.volumeByLetter('e'), set.volumes[2]);
    // These boot sectors have no MFT behind them: lettered, but not mounted.
    EXPECT_EQ(set.volumes[0]->ntfs, nullptr);
    EXPECT_FALSE(set.volumes[0]->mountError.empty());

    DiskSet pinned;
    ASSERT_TRUE(
        buildDiskSet(sources, {"bare", "disk"}, {}, {{'C', 1, 3}, {'x', 0, 0}}, pinned, error))
        << error;
    EXPECT_EQ(pinned.volumes[0]->info.letter, 'X');
    EXPECT_EQ(pinned.volumes[1]->info.letter, 'D');
    EXPECT_EQ(pinned.volumes[2]->info.letter, 'C');

    DiskSet twice;
    EXPECT_FALSE(
        buildDiskSet(sources, {"bare", "disk"}, {}, {{'C', 1, 3}, {'C', 0, 0}}, twice, error));
}

TEST(DriveLetters, LettersRunOutAtZ) {
    std::vector<std::uint8_t> bare(1 * MiB, 0);
    place(bare, 0, ntfsBoot());
    std::vector<std::shared_ptr<const ByteSource>> sources(30,
                                                           std::make_shared<MemorySource>(bare));
    DiskSet set;
    std::string error;
    ASSERT_TRUE(buildDiskSet(sources, {}, {}, {}, set, error));
    ASSERT_EQ(set.volumes.size(), 30u);
    EXPECT_EQ(set.volumes[23]->info.letter, 'Z');
    EXPECT_EQ(set.volumes[24]->info.letter, 0);
}

} // namespace
