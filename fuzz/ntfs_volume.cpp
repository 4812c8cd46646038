// libFuzzer target: the NTFS reader of the disk-image backend on one volume
// (no partition table): mounting (record 0, the MFT's runs, $UpCase,
// $Volume), fix-ups, attribute lists, run lists, resident and non-resident
// reads, name lookup through the directory indexes and $Bitmap.
#include "../platform/src/BootSector.h"
#include "../platform/src/Ntfs.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace disk = kestrow::platform::disk;

namespace {

void readSome(const disk::NtfsVolume& ntfs, const disk::NtfsAttribute& attribute) {
    std::uint8_t buffer[4096];
    std::size_t got = 0;
    if (ntfs.readAttribute(attribute, 0, buffer, sizeof buffer, got) == 0 && got > sizeof buffer)
        __builtin_trap();
    const std::uint64_t size = attribute.nonResident ? attribute.dataSize : attribute.value.size();
    if (size > 100)
        ntfs.readAttribute(attribute, size - 100, buffer, sizeof buffer, got);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 512)
        return 0;
    const auto boot = disk::parseBootSector(data, 512);
    if (!boot || boot->kind != disk::FileSystemKind::Ntfs)
        return 0;
    auto source =
        std::make_shared<disk::MemorySource>(std::vector<std::uint8_t>(data, data + size));
    std::string error;
    const auto ntfs = disk::NtfsVolume::mount(source, *boot, error);
    if (!ntfs)
        return 0;

    std::uint64_t freeClusters = 0;
    if (ntfs->countFreeClusters(freeClusters) == 0 && freeClusters > boot->totalClusters)
        __builtin_trap();
    std::uint8_t bitmap[64];
    ntfs->readBitmap(0, bitmap, sizeof bitmap);

    std::vector<std::vector<std::u16string>> paths = {{u"$MFT"},
                                                      {u"Docs", u"Sub", u"deep.txt"},
                                                      {u"AttrList", u"data-elsewhere.bin"},
                                                      {u"Big", u"file-0000.dat"},
                                                      {u"$Extend", u"$Quota"}};
    disk::NtfsFileInfo info;
    std::vector<disk::NtfsAttribute> attributes;
    for (const auto& path : paths) {
        if (ntfs->lookup(path, info) != 0)
            continue;
        disk::NtfsFileInfo again;
        ntfs->fileInfo(info.record, again);
        if (ntfs->attributes(info.record, attributes) == 0)
            for (const auto& attribute : attributes)
                readSome(*ntfs, attribute);
    }
    std::vector<std::uint8_t> record;
    for (std::uint64_t index = 0; index < 32; ++index) {
        if (ntfs->readRecord(index, record) == 0 && record.size() != boot->bytesPerFileRecord)
            __builtin_trap();
        if (ntfs->attributes(index, attributes) != 0)
            continue;
        for (const auto& attribute : attributes)
            readSome(*ntfs, attribute);
    }
    return 0;
}
