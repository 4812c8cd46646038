#include "BootSector.h"

#include "LittleEndian.h"

namespace kestrow::platform::disk {

namespace {

// Field offsets of the BIOS parameter block shared by FAT and NTFS.
namespace bpb {
constexpr std::size_t kJump = 0x00;
constexpr std::size_t kOemName = 0x03;
constexpr std::size_t kBytesPerSector = 0x0B;
constexpr std::size_t kSectorsPerCluster = 0x0D;
constexpr std::size_t kReservedSectors = 0x0E;
constexpr std::size_t kFatCount = 0x10;
constexpr std::size_t kRootEntryCount = 0x11;
constexpr std::size_t kTotalSectors16 = 0x13;
constexpr std::size_t kSectorsPerFat16 = 0x16;
constexpr std::size_t kTotalSectors32 = 0x20;
constexpr std::size_t kSignature = 0x1FE;
} // namespace bpb

// FAT12/16 extended boot record.
namespace fat16 {
constexpr std::size_t kBootSignature = 0x26;
constexpr std::size_t kSerial = 0x27;
constexpr std::size_t kLabel = 0x2B;
} // namespace fat16

// FAT32 extended boot record.
namespace fat32 {
constexpr std::size_t kSectorsPerFat = 0x24;
constexpr std::size_t kRootCluster = 0x2C;
constexpr std::size_t kBootSignature = 0x42;
constexpr std::size_t kSerial = 0x43;
constexpr std::size_t kLabel = 0x47;
} // namespace fat32

namespace ntfs {
constexpr std::size_t kTotalSectors = 0x28;
constexpr std::size_t kMftLcn = 0x30;
constexpr std::size_t kMftMirrorLcn = 0x38;
constexpr std::size_t kClustersPerFileRecord = 0x40;
constexpr std::size_t kClustersPerIndexBlock = 0x44;
constexpr std::size_t kSerial = 0x48;
} // namespace ntfs

namespace exfat {
constexpr std::size_t kVolumeLength = 0x48;
constexpr std::size_t kFatOffset = 0x50;
constexpr std::size_t kFatLength = 0x54;
constexpr std::size_t kClusterHeapOffset = 0x58;
constexpr std::size_t kClusterCount = 0x5C;
constexpr std::size_t kRootCluster = 0x60;
constexpr std::size_t kSerial = 0x64;
constexpr std::size_t kBytesPerSectorShift = 0x6C;
constexpr std::size_t kSectorsPerClusterShift = 0x6D;
constexpr std::size_t kFatCount = 0x6E;
} // namespace exfat

constexpr std::uint16_t kBootSignature = 0xAA55;
constexpr std::uint8_t kExtendedBootSignature = 0x29;

bool isPowerOfTwo(std::uint64_t value) {
    return value != 0 && (value & (value - 1)) == 0;
}

bool isSectorSize(std::uint32_t value) {
    return isPowerOfTwo(value) && value >= 256 && value <= 4096;
}

// NTFS keeps "clusters per X" as a signed byte: positive counts clusters,
// negative n means 2^-n bytes. Zero (and absurd sizes) mean damage.
std::uint32_t ntfsUnitSize(std::int8_t encoded, std::uint32_t bytesPerCluster) {
    if (encoded > 0)
        return static_cast<std::uint32_t>(encoded) * bytesPerCluster;
    if (encoded < 0 && encoded >= -31)
        return std::uint32_t{1} << (-encoded);
    return 0;
}

std::string trimmedLabel(const LeView& view, std::size_t offset) {
    std::string label;
    for (std::size_t i = 0; i < 11; ++i)
        label.push_back(static_cast<char>(view.u8(offset + i)));
    while (!label.empty() && (label.back() == ' ' || label.back() == '\0'))
        label.pop_back();
    return label;
}

std::optional<BootSector> parseNtfs(const LeView& view) {
    BootSector boot;
    boot.kind = FileSystemKind::Ntfs;
    boot.bytesPerSector = view.u16(bpb::kBytesPerSector);
    const std::uint8_t spcCode = view.u8(bpb::kSectorsPerCluster);
    // Since Windows 10 a value above 0x80 encodes 2^(256 - value) sectors.
    boot.sectorsPerCluster =
        spcCode <= 0x80 ? spcCode : (256u - spcCode <= 31 ? 1u << (256u - spcCode) : 0u);
    boot.totalSectors = view.u64(ntfs::kTotalSectors);
    boot.mftLcn = view.u64(ntfs::kMftLcn);
    boot.mftMirrorLcn = view.u64(ntfs::kMftMirrorLcn);
    boot.serialNumber = view.u64(ntfs::kSerial);
    if (!view.ok() || !isSectorSize(boot.bytesPerSector) || !isPowerOfTwo(boot.sectorsPerCluster))
        return std::nullopt;
    const std::uint64_t clusterSize = std::uint64_t{boot.bytesPerSector} * boot.sectorsPerCluster;
    if (clusterSize > (std::uint64_t{1} << 31))
        return std::nullopt;
    boot.bytesPerFileRecord = ntfsUnitSize(view.s8(ntfs::kClustersPerFileRecord),
                                           static_cast<std::uint32_t>(clusterSize));
    boot.bytesPerIndexBlock = ntfsUnitSize(view.s8(ntfs::kClustersPerIndexBlock),
                                           static_cast<std::uint32_t>(clusterSize));
    // A record must hold its header and at least one update-sequence stride.
    if (boot.bytesPerFileRecord < 512 || boot.bytesPerFileRecord > 65536 ||
        !isPowerOfTwo(boot.bytesPerFileRecord))
        return std::nullopt;
    boot.totalClusters = boot.totalSectors / boot.sectorsPerCluster;
    if (boot.totalClusters == 0 || boot.mftLcn >= boot.totalClusters)
        return std::nullopt;
    return boot;
}

std::optional<BootSector> parseExFat(const LeView& view) {
    BootSector boot;
    boot.kind = FileSystemKind::ExFat;
    const std::uint8_t sectorShift = view.u8(exfat::kBytesPerSectorShift);
    const std::uint8_t clusterShift = view.u8(exfat::kSectorsPerClusterShift);
    if (sectorShift < 9 || sectorShift > 12 || clusterShift > 25 - sectorShift)
        return std::nullopt;
    boot.bytesPerSector = 1u << sectorShift;
    boot.sectorsPerCluster = 1u << clusterShift;
    boot.totalSectors = view.u64(exfat::kVolumeLength);
    boot.reservedSectors = view.u32(exfat::kFatOffset);
    boot.sectorsPerFat = view.u32(exfat::kFatLength);
    boot.fatCount = view.u8(exfat::kFatCount);
    boot.firstDataSector = view.u32(exfat::kClusterHeapOffset);
    boot.totalClusters = view.u32(exfat::kClusterCount);
    boot.rootCluster = view.u32(exfat::kRootCluster);
    boot.serialNumber = view.u32(exfat::kSerial);
    if (!view.ok() || boot.totalClusters == 0 || boot.rootCluster < 2 ||
        boot.firstDataSector >= boot.totalSectors)
        return std::nullopt;
    return boot;
}

std::optional<BootSector> parseFat(const LeView& view) {
    const std::uint8_t jump = view.u8(bpb::kJump);
    if (jump != 0xEB && jump != 0xE9)
        return std::nullopt;
    BootSector boot;
    boot.bytesPerSector = view.u16(bpb::kBytesPerSector);
    boot.sectorsPerCluster = view.u8(bpb::kSectorsPerCluster);
    boot.reservedSectors = view.u16(bpb::kReservedSectors);
    boot.fatCount = view.u8(bpb::kFatCount);
    boot.rootEntryCount = view.u16(bpb::kRootEntryCount);
    const std::uint16_t total16 = view.u16(bpb::kTotalSectors16);
    boot.totalSectors = total16 != 0 ? total16 : view.u32(bpb::kTotalSectors32);
    const std::uint16_t fat16Size = view.u16(bpb::kSectorsPerFat16);
    boot.sectorsPerFat = fat16Size != 0 ? fat16Size : view.u32(fat32::kSectorsPerFat);
    if (!view.ok() || !isSectorSize(boot.bytesPerSector) || boot.bytesPerSector < 512 ||
        !isPowerOfTwo(boot.sectorsPerCluster) || boot.sectorsPerCluster > 128 ||
        boot.reservedSectors == 0 || boot.fatCount == 0 || boot.sectorsPerFat == 0 ||
        boot.totalSectors == 0)
        return std::nullopt;

    const std::uint64_t rootSectors =
        (std::uint64_t{boot.rootEntryCount} * 32 + boot.bytesPerSector - 1) / boot.bytesPerSector;
    boot.firstDataSector =
        boot.reservedSectors + std::uint64_t{boot.fatCount} * boot.sectorsPerFat + rootSectors;
    if (boot.firstDataSector >= boot.totalSectors)
        return std::nullopt;
    boot.totalClusters = (boot.totalSectors - boot.firstDataSector) / boot.sectorsPerCluster;

    // The FAT type follows from the cluster count alone, as Microsoft's FAT
    // documentation (and Windows) decide it.
    if (boot.totalClusters < 4085)
        boot.kind = FileSystemKind::Fat12;
    else if (boot.totalClusters < 65525)
        boot.kind = FileSystemKind::Fat16;
    else
        boot.kind = FileSystemKind::Fat32;

    if (boot.kind == FileSystemKind::Fat32) {
        if (fat16Size != 0)
            return std::nullopt;
        boot.rootCluster = view.u32(fat32::kRootCluster);
        if (view.u8(fat32::kBootSignature) == kExtendedBootSignature) {
            boot.serialNumber = view.u32(fat32::kSerial);
            boot.bootLabel = trimmedLabel(view, fat32::kLabel);
        }
    } else if (view.u8(fat16::kBootSignature) == kExtendedBootSignature) {
        boot.serialNumber = view.u32(fat16::kSerial);
        boot.bootLabel = trimmedLabel(view, fat16::kLabel);
    }
    if (!view.ok())
        return std::nullopt;
    return boot;
}

} // namespace

const char* fileSystemName(FileSystemKind kind) {
    switch (kind) {
    case FileSystemKind::Ntfs:
        return "NTFS";
    case FileSystemKind::Fat12:
    case FileSystemKind::Fat16:
        return "FAT";
    case FileSystemKind::Fat32:
        return "FAT32";
    case FileSystemKind::ExFat:
        return "exFAT";
    }
    return "";
}

std::optional<BootSector> parseBootSector(const std::uint8_t* sector, std::size_t size) {
    const LeView view(sector, size);
    if (size < 512 || view.u16(bpb::kSignature) != kBootSignature)
        return std::nullopt;
    if (view.bytesEqual(bpb::kOemName, "NTFS    ", 8))
        return parseNtfs(view);
    if (view.bytesEqual(bpb::kOemName, "EXFAT   ", 8))
        return parseExFat(view);
    return parseFat(view);
}

} // namespace kestrow::platform::disk
