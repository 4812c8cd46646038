// libFuzzer target: the partition-table reader of the disk-image backend
// (sector size detection, MBR with its chain of logical partitions, GPT) on
// arbitrary bytes taken as a disk. Every partition it reports must lie
// inside the disk.
#include "../platform/src/PartitionTable.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace disk = kestrow::platform::disk;

namespace {

void checkTable(const disk::PartitionTable& table, std::uint64_t diskSize) {
    if (table.kind == "none" && !table.entries.empty())
        __builtin_trap();
    for (const disk::PartitionEntry& entry : table.entries) {
        if (entry.length == 0 || entry.offset >= diskSize || entry.length > diskSize - entry.offset)
            __builtin_trap();
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const disk::MemorySource source(std::vector<std::uint8_t>(data, data + size));
    const std::uint32_t detected = disk::detectSectorSize(source);
    if (detected < 512 || detected > 4096 || (detected & (detected - 1)) != 0)
        __builtin_trap();
    checkTable(disk::readPartitionTable(source, detected), size);
    // The other common size too, so that both layouts of every table are read.
    const std::uint32_t other = detected == 512 ? 4096 : 512;
    checkTable(disk::readPartitionTable(source, other), size);
    return 0;
}
