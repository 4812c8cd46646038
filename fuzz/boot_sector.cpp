// libFuzzer target: boot sector recognition (NTFS, FAT12/16/32, exFAT) and,
// for FAT and exFAT volumes, the readers of the label and of the allocation
// bitmap. Input: the volume's bytes, its boot sector first.
#include "../platform/src/BootSector.h"
#include "../platform/src/Fat.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace disk = kestrow::platform::disk;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // An exact-size copy of the first sector, so that reading past it is caught.
    const std::vector<std::uint8_t> sector(data, data + (size < 512 ? size : 512));
    const auto boot = disk::parseBootSector(sector.data(), sector.size());
    if (!boot)
        return 0;
    // What every caller divides or multiplies by.
    const std::uint32_t bytesPerSector = boot->bytesPerSector;
    if (bytesPerSector < 256 || bytesPerSector > 4096 ||
        (bytesPerSector & (bytesPerSector - 1)) != 0 || boot->sectorsPerCluster == 0 ||
        boot->totalClusters == 0)
        __builtin_trap();
    if (boot->kind == disk::FileSystemKind::Ntfs) {
        if (boot->bytesPerFileRecord == 0)
            __builtin_trap();
        return 0;
    }
    const disk::MemorySource volume(std::vector<std::uint8_t>(data, data + size));
    const std::u16string label = disk::fatVolumeLabel(volume, *boot);
    if (label.size() > 11)
        __builtin_trap();
    std::vector<std::uint8_t> bitmap;
    if (disk::fatAllocationBitmap(volume, *boot, bitmap) == 0 &&
        bitmap.size() != (boot->totalClusters + 7) / 8)
        __builtin_trap();
    std::uint64_t freeClusters = 0;
    if (disk::fatFreeClusters(volume, *boot, freeClusters) == 0 &&
        freeClusters > boot->totalClusters)
        __builtin_trap();
    return 0;
}
