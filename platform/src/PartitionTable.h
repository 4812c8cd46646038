// The partition tables of an attached disk: MBR (primary entries, then the
// logical partitions of an extended partition in chain order) and GPT
// (recognised by its protective MBR).
#pragma once

#include "ByteSource.h"

#include <cstdint>
#include <string>
#include <vector>

namespace kestrow::platform::disk {

struct PartitionEntry {
    std::uint32_t number = 0; // 1-based: MBR primaries 1-4, logicals 5 on; GPT table position
    std::uint64_t offset = 0; // bytes from the start of the disk
    std::uint64_t length = 0; // bytes
};

struct PartitionTable {
    std::string kind = "none"; // "MBR", "GPT" or "none"
    std::vector<PartitionEntry> entries;
};

// Reads the partition table of `disk` whose logical sectors are
// `sectorSize` bytes. A disk whose sector 0 is itself a boot sector, or that
// has no valid table, yields kind "none" and no entries. Damaged entries are
// skipped; the walk of logical partitions is bounded.
PartitionTable readPartitionTable(const ByteSource& disk, std::uint32_t sectorSize);

// The logical sector size to use for an image: the GPT header's position
// (LBA 1 at 512 or at 4096), else the bytes-per-sector of the first NTFS
// boot sector found (whole disk or MBR partition), else 512.
std::uint32_t detectSectorSize(const ByteSource& disk);

} // namespace kestrow::platform::disk
