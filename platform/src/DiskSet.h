// The disks attached to the disk-image backend and the volumes found on
// them. A DiskSet never changes once built; attaching builds a new one, and
// open handles keep the set they were opened on alive.
#pragma once

#include "BootSector.h"
#include "ByteSource.h"
#include "Ntfs.h"

#include <kestrow/Disks.h>

#include <memory>
#include <string>
#include <vector>

namespace kestrow::platform::disk {

struct AttachedDisk {
    DiskInfo info;
    std::shared_ptr<const ByteSource> bytes;
};

struct AttachedVolume {
    VolumeInfo info;
    std::shared_ptr<const AttachedDisk> disk;
    std::shared_ptr<const ByteSource> bytes; // the volume's own bytes
    BootSector boot;
    std::shared_ptr<const NtfsVolume> ntfs; // NTFS only, when it mounted
    std::string mountError;                 // why an NTFS volume did not mount
    std::u16string label;                   // FAT and exFAT
    bool mftOnly = false; // an extracted $MFT: only the MFT's clusters can be read

    std::uint32_t sectorSize() const { return disk->info.bytesPerSector; }
};

struct DiskSet {
    std::vector<std::shared_ptr<const AttachedDisk>> disks;
    std::vector<std::shared_ptr<const AttachedVolume>> volumes;

    std::shared_ptr<const AttachedVolume> volumeByLetter(char letter) const;
    std::shared_ptr<const AttachedDisk> diskByNumber(std::uint32_t number) const;
};

// Builds the set for these sources (index = disk number), finding volumes and
// giving letters. `paths` name the sources for DiskInfo. False with `error`
// when a pinned letter names no volume or is given twice.
bool buildDiskSet(const std::vector<std::shared_ptr<const ByteSource>>& sources,
                  const std::vector<std::string>& paths,
                  const std::vector<std::uint32_t>& deviceSectorSizes,
                  const std::vector<PinnedLetter>& pinned, DiskSet& set, std::string& error);

// The set attached now (never null; empty when nothing is attached).
std::shared_ptr<const DiskSet> currentDiskSet();

} // namespace kestrow::platform::disk
