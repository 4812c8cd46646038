#include "Fat.h"

#include "LittleEndian.h"

#include <algorithm>
#include <bit>
#include <vector>

namespace kestrow::platform::disk {

namespace {

// 32-byte FAT directory entry.
namespace fatEntry {
constexpr std::size_t kSize = 32;
constexpr std::size_t kName = 0x00;
constexpr std::size_t kAttributes = 0x0B;
constexpr std::uint8_t kEndOfDirectory = 0x00;
constexpr std::uint8_t kDeleted = 0xE5;
constexpr std::uint8_t kVolumeId = 0x08;
constexpr std::uint8_t kLongNameMask = 0x0F;
} // namespace fatEntry

// 32-byte exFAT directory entry.
namespace exfatEntry {
constexpr std::size_t kSize = 32;
constexpr std::uint8_t kEndOfDirectory = 0x00;
constexpr std::uint8_t kAllocationBitmap = 0x81;
constexpr std::uint8_t kVolumeLabel = 0x83;
constexpr std::size_t kLabelLength = 0x01;
constexpr std::size_t kLabel = 0x02;
constexpr std::size_t kMaxLabelUnits = 11;
constexpr std::size_t kBitmapFirstCluster = 0x14;
constexpr std::size_t kBitmapLength = 0x18;
} // namespace exfatEntry

// The root directory region to look at: the fixed root of FAT12/16, or
// the first cluster of the root of FAT32 and exFAT.
std::vector<std::uint8_t> readRootDirectoryStart(const ByteSource& volume,
                                                 const BootSector& boot) {
    std::uint64_t offset = 0;
    std::uint64_t length = 0;
    if (boot.kind == FileSystemKind::Fat12 || boot.kind == FileSystemKind::Fat16) {
        offset = (std::uint64_t{boot.reservedSectors} +
                  std::uint64_t{boot.fatCount} * boot.sectorsPerFat) *
                 boot.bytesPerSector;
        length = std::uint64_t{boot.rootEntryCount} * fatEntry::kSize;
    } else {
        offset = (boot.firstDataSector +
                  std::uint64_t{boot.rootCluster - 2} * boot.sectorsPerCluster) *
                 boot.bytesPerSector;
        length = boot.bytesPerCluster();
    }
    // A cluster is at most 32 MiB; a fixed root at most 2 MiB.
    std::vector<std::uint8_t> bytes(static_cast<std::size_t>(std::min<std::uint64_t>(length, 32u << 20)));
    const ReadResult read = volume.readAt(offset, bytes.data(), bytes.size());
    bytes.resize(read.error == 0 ? read.bytes : 0);
    return bytes;
}

std::u16string classicLabel(const std::vector<std::uint8_t>& root) {
    const LeView view(root.data(), root.size());
    for (std::size_t offset = 0; view.has(offset, fatEntry::kSize); offset += fatEntry::kSize) {
        const std::uint8_t first = view.u8(offset + fatEntry::kName);
        if (first == fatEntry::kEndOfDirectory)
            break;
        const std::uint8_t attributes = view.u8(offset + fatEntry::kAttributes);
        if (first == fatEntry::kDeleted || (attributes & fatEntry::kLongNameMask) ==
                                               fatEntry::kLongNameMask)
            continue;
        if ((attributes & fatEntry::kVolumeId) == 0)
            continue;
        std::u16string label;
        for (std::size_t i = 0; i < 11; ++i)
            label.push_back(static_cast<char16_t>(view.u8(offset + fatEntry::kName + i)));
        while (!label.empty() && label.back() == u' ')
            label.pop_back();
        return label;
    }
    return {};
}

std::u16string exfatLabel(const std::vector<std::uint8_t>& root) {
    const LeView view(root.data(), root.size());
    for (std::size_t offset = 0; view.has(offset, exfatEntry::kSize); offset += exfatEntry::kSize) {
        const std::uint8_t type = view.u8(offset);
        if (type == exfatEntry::kEndOfDirectory)
            break;
        if (type != exfatEntry::kVolumeLabel)
            continue;
        const std::size_t units =
            std::min<std::size_t>(view.u8(offset + exfatEntry::kLabelLength), exfatEntry::kMaxLabelUnits);
        std::u16string label;
        for (std::size_t i = 0; i < units; ++i)
            label.push_back(static_cast<char16_t>(view.u16(offset + exfatEntry::kLabel + 2 * i)));
        return label;
    }
    return {};
}

DWORD countZeroBits(const ByteSource& volume, std::uint64_t offset, std::uint64_t bits,
                    std::uint64_t& zeros) {
    constexpr std::size_t kChunk = 1u << 20;
    const std::uint64_t bytes = (bits + 7) / 8;
    std::vector<std::uint8_t> chunk(static_cast<std::size_t>(std::min<std::uint64_t>(bytes, kChunk)));
    std::uint64_t ones = 0;
    for (std::uint64_t at = 0; at < bytes; at += chunk.size()) {
        const std::size_t length =
            static_cast<std::size_t>(std::min<std::uint64_t>(chunk.size(), bytes - at));
        if (const DWORD error = volume.readExactly(offset + at, chunk.data(), length))
            return error;
        for (std::size_t i = 0; i < length; ++i) {
            std::uint8_t byte = chunk[i];
            const std::uint64_t firstBit = (at + i) * 8;
            if (bits - firstBit < 8)
                byte &= static_cast<std::uint8_t>((1u << (bits - firstBit)) - 1);
            ones += static_cast<std::uint64_t>(std::popcount(byte));
        }
    }
    zeros = bits - ones;
    return 0;
}

DWORD exfatFreeClusters(const ByteSource& volume, const BootSector& boot,
                        std::uint64_t& freeClusters) {
    const std::vector<std::uint8_t> root = readRootDirectoryStart(volume, boot);
    const LeView view(root.data(), root.size());
    for (std::size_t offset = 0; view.has(offset, exfatEntry::kSize); offset += exfatEntry::kSize) {
        const std::uint8_t type = view.u8(offset);
        if (type == exfatEntry::kEndOfDirectory)
            break;
        if (type != exfatEntry::kAllocationBitmap)
            continue;
        const std::uint32_t cluster = view.u32(offset + exfatEntry::kBitmapFirstCluster);
        const std::uint64_t length = view.u64(offset + exfatEntry::kBitmapLength);
        if (cluster < 2 || length < (boot.totalClusters + 7) / 8)
            return ERROR_DISK_CORRUPT;
        const std::uint64_t start =
            (boot.firstDataSector + std::uint64_t{cluster - 2} * boot.sectorsPerCluster) *
            boot.bytesPerSector;
        return countZeroBits(volume, start, boot.totalClusters, freeClusters);
    }
    return ERROR_DISK_CORRUPT;
}

// Reads FAT entry `cluster` from the first FAT held in `fat`.
std::uint32_t fatEntryValue(const LeView& fat, FileSystemKind kind, std::uint64_t cluster) {
    switch (kind) {
    case FileSystemKind::Fat12: {
        const std::uint16_t pair = fat.u16(static_cast<std::size_t>(cluster + cluster / 2));
        return (cluster & 1) != 0 ? pair >> 4 : pair & 0x0FFFu;
    }
    case FileSystemKind::Fat16:
        return fat.u16(static_cast<std::size_t>(cluster * 2));
    default:
        return fat.u32(static_cast<std::size_t>(cluster * 4)) & 0x0FFFFFFFu;
    }
}

} // namespace

std::u16string fatVolumeLabel(const ByteSource& volume, const BootSector& boot) {
    const std::vector<std::uint8_t> root = readRootDirectoryStart(volume, boot);
    return boot.kind == FileSystemKind::ExFat ? exfatLabel(root) : classicLabel(root);
}

DWORD fatFreeClusters(const ByteSource& volume, const BootSector& boot,
                      std::uint64_t& freeClusters) {
    if (boot.kind == FileSystemKind::ExFat)
        return exfatFreeClusters(volume, boot, freeClusters);
    // A FAT32 FAT can reach 1 GiB on paper; real ones are far smaller, and
    // anything above this cap is refused rather than allocated.
    constexpr std::uint64_t kMaxFatBytes = 256u << 20;
    const std::uint64_t fatBytes = std::uint64_t{boot.sectorsPerFat} * boot.bytesPerSector;
    if (fatBytes > kMaxFatBytes)
        return ERROR_NOT_ENOUGH_MEMORY;
    std::vector<std::uint8_t> fat(static_cast<std::size_t>(fatBytes));
    if (const DWORD error = volume.readExactly(std::uint64_t{boot.reservedSectors} * boot.bytesPerSector,
                                               fat.data(), fat.size()))
        return error;
    const LeView view(fat.data(), fat.size());
    std::uint64_t free = 0;
    for (std::uint64_t cluster = 2; cluster < boot.totalClusters + 2; ++cluster) {
        if (fatEntryValue(view, boot.kind, cluster) == 0)
            ++free;
    }
    if (!view.ok())
        return ERROR_DISK_CORRUPT;
    freeClusters = free;
    return 0;
}

} // namespace kestrow::platform::disk
