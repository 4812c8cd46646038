// Recognition of the boot sectors that make a volume: NTFS, FAT12/16/32 and
// exFAT. Only what the backend needs to name and measure a volume is kept.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace kestrow::platform::disk {

enum class FileSystemKind { Ntfs, Fat12, Fat16, Fat32, ExFat };

// The name Windows reports for the file system ("NTFS", "FAT", "FAT32", "exFAT").
const char* fileSystemName(FileSystemKind kind);

struct BootSector {
    FileSystemKind kind = FileSystemKind::Ntfs;
    std::uint32_t bytesPerSector = 0;
    std::uint32_t sectorsPerCluster = 0;
    std::uint64_t totalSectors = 0;  // sectors the file system covers
    std::uint64_t totalClusters = 0; // clusters Windows counts for the volume
    std::uint64_t serialNumber = 0;  // NTFS: all 64 bits; FAT/exFAT: 32 bits

    // NTFS.
    std::uint64_t mftLcn = 0;
    std::uint64_t mftMirrorLcn = 0;
    std::uint32_t bytesPerFileRecord = 0;
    std::uint32_t bytesPerIndexBlock = 0;

    // FAT12/16/32 and exFAT, in sectors from the start of the volume.
    std::uint32_t reservedSectors = 0; // exFAT: the FAT offset
    std::uint32_t fatCount = 0;
    std::uint32_t sectorsPerFat = 0;
    std::uint32_t rootEntryCount = 0;  // FAT12/16 fixed root directory
    std::uint64_t firstDataSector = 0; // cluster 2 starts here
    std::uint32_t rootCluster = 0;     // FAT32, exFAT
    std::string bootLabel;             // FAT12/16/32: the label copy in the boot sector

    std::uint32_t bytesPerCluster() const { return bytesPerSector * sectorsPerCluster; }
};

// Parses a boot sector (at least 512 bytes); nothing when the bytes are not a
// sound boot sector of a known file system.
std::optional<BootSector> parseBootSector(const std::uint8_t* sector, std::size_t size);

} // namespace kestrow::platform::disk
