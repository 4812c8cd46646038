// The disk-image backend on arbitrary bytes taken as a disk: partition
// tables, boot sectors, the NTFS reader (record 0, attribute lists, run
// lists, indexes, $Bitmap), the FAT readers and, for a disk that starts with
// a FILE record, the extracted-MFT reader must neither crash, read outside
// their buffers nor hang, whatever the disk holds.
#include "../platform/src/DiskSet.h"
#include "../platform/src/ExtractedMft.h"
#include "../platform/src/Fat.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace disk = kestrow::platform::disk;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    auto source =
        std::make_shared<disk::MemorySource>(std::vector<std::uint8_t>(data, data + size));
    disk::DiskSet set;
    std::string error;
    if (!disk::buildDiskSet({source}, {"fuzz"}, {}, {}, set, error))
        return 0;
    for (const auto& volume : set.volumes) {
        if (volume->ntfs) {
            const disk::NtfsVolume& ntfs = *volume->ntfs;
            // As the Windows calls reach the volume: an extracted MFT
            // answers these without the clusters it lacks.
            std::uint64_t freeClusters = 0;
            disk::countNtfsFreeClusters(*volume, freeClusters);
            disk::NtfsFileInfo info;
            disk::lookupNtfsPath(*volume, {u"$MFT"}, info);
            disk::lookupNtfsPath(*volume, {u"Docs", u"Sub", u"deep.txt"}, info);
            std::vector<disk::NtfsAttribute> attributes;
            for (std::uint64_t record = 0; record < 32; ++record) {
                if (ntfs.attributes(record, attributes) != 0)
                    continue;
                std::uint8_t buffer[4096];
                std::size_t got = 0;
                for (const auto& attribute : attributes)
                    ntfs.readAttribute(attribute, 0, buffer, sizeof buffer, got);
            }
        } else if (volume->boot.kind != disk::FileSystemKind::Ntfs) {
            std::uint64_t freeClusters = 0;
            disk::fatFreeClusters(*volume->bytes, volume->boot, freeClusters);
        }
    }
    return 0;
}
