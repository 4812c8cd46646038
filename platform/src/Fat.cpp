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
std::vector<std::uint8_t> readRootDirectoryStart(const ByteSource& volume, const BootSector& boot) {
    std::uint64_t offset = 0;
    std::uint64_t length = 0;
    if (boot.kind == FileSystemKind::Fat12 || boot.kind == FileSystemKind::Fat16) {
        offset = (std::uint64_t{boot.reservedSectors} +
                  std::uint64_t{boot.fatCount} * boot.sectorsPerFat) *
                 boot.bytesPerSector;
        length = std::uint64_t{boot.rootEntryCount} * fatEntry::kSize;
    } else {
        offset =
            (boot.firstDataSector + std::uint64_t{boot.rootCluster - 2} * boot.sectorsPerCluster) *
            boot.bytesPerSector;
        length = boot.bytesPerCluster();
    }
    // A cluster is at most 32 MiB; a fixed root at most 2 MiB.
    std::vector<std::uint8_t> bytes(
        static_cast<std::size_t>(std::min<std::uint64_t>(length, 32u << 20)));
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
        if (first == fatEntry::kDeleted ||
            (attributes & fatEntry::kLongNameMask) == fatEntry::kLongNameMask)
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
        const std::size_t units = std::min<std::size_t>(view.u8(offset + exfatEntry::kLabelLength),
                                                        exfatEntry::kMaxLabelUnits);
        std::u16string label;
        for (std::size_t i = 0; i < units; ++i)
            label.push_back(static_cast<char16_t>(view.u16(offset + exfatEntry::kLabel + 2 * i)));
        return label;
    }
    return {};
}

// Refuses bitmaps that disk values would make absurdly large: a FAT volume
// has at most 2^28 clusters, an exFAT one 2^32.
constexpr std::uint64_t kMaxBitmapBytes = std::uint64_t{1} << 29;

DWORD exfatBitmap(const ByteSource& volume, const BootSector& boot,
                  std::vector<std::uint8_t>& bitmap) {
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
        const std::uint64_t needed = (boot.totalClusters + 7) / 8;
        if (cluster < 2 || length < needed || needed > kMaxBitmapBytes || needed > volume.size())
            return ERROR_DISK_CORRUPT;
        const std::uint64_t start =
            (boot.firstDataSector + std::uint64_t{cluster - 2} * boot.sectorsPerCluster) *
            boot.bytesPerSector;
        bitmap.assign(static_cast<std::size_t>(needed), 0);
        return volume.readExactly(start, bitmap.data(), bitmap.size());
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

DWORD fatAllocationBitmap(const ByteSource& volume, const BootSector& boot,
                          std::vector<std::uint8_t>& bitmap) {
    if (boot.kind == FileSystemKind::ExFat)
        return exfatBitmap(volume, boot, bitmap);
    // A FAT32 FAT can reach 1 GiB on paper; real ones are far smaller, and
    // anything above this cap is refused rather than allocated.
    constexpr std::uint64_t kMaxFatBytes = 256u << 20;
    const std::uint64_t fatBytes = std::uint64_t{boot.sectorsPerFat} * boot.bytesPerSector;
    if (fatBytes > kMaxFatBytes || (boot.totalClusters + 7) / 8 > kMaxBitmapBytes)
        return ERROR_NOT_ENOUGH_MEMORY;
    // A FAT or a cluster count reaching past the volume is damage; refusing
    // it also keeps the allocations below within the volume's own size.
    const std::uint64_t sectors = volume.size() / boot.bytesPerSector;
    if (std::uint64_t{boot.reservedSectors} + boot.sectorsPerFat > sectors ||
        boot.firstDataSector + boot.totalClusters * boot.sectorsPerCluster > sectors)
        return ERROR_DISK_CORRUPT;
    std::vector<std::uint8_t> fat(static_cast<std::size_t>(fatBytes));
    if (const DWORD error = volume.readExactly(
            std::uint64_t{boot.reservedSectors} * boot.bytesPerSector, fat.data(), fat.size()))
        return error;
    const LeView view(fat.data(), fat.size());
    bitmap.assign(static_cast<std::size_t>((boot.totalClusters + 7) / 8), 0);
    for (std::uint64_t index = 0; index < boot.totalClusters; ++index) {
        if (fatEntryValue(view, boot.kind, index + 2) != 0)
            bitmap[static_cast<std::size_t>(index / 8)] |=
                static_cast<std::uint8_t>(1u << (index % 8));
    }
    // A FAT shorter than its cluster count says is damage, not free space.
    return view.ok() ? 0 : static_cast<DWORD>(ERROR_DISK_CORRUPT);
}

DWORD fatFreeClusters(const ByteSource& volume, const BootSector& boot,
                      std::uint64_t& freeClusters) {
    std::vector<std::uint8_t> bitmap;
    if (const DWORD error = fatAllocationBitmap(volume, boot, bitmap))
        return error;
    std::uint64_t used = 0;
    for (std::uint8_t byte : bitmap)
        used += static_cast<std::uint64_t>(std::popcount(byte));
    // exFAT bitmaps may have stray bits past the last cluster.
    if (boot.totalClusters % 8 != 0 && !bitmap.empty()) {
        const std::uint8_t tail = bitmap.back() >> (boot.totalClusters % 8);
        used -= static_cast<std::uint64_t>(std::popcount(tail));
    }
    freeClusters = boot.totalClusters - std::min(used, boot.totalClusters);
    return 0;
}

} // namespace kestrow::platform::disk
