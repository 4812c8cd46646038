#include "PartitionTable.h"

#include "BootSector.h"
#include "LittleEndian.h"

#include <set>

namespace kestrow::platform::disk {

namespace {

namespace mbr {
constexpr std::size_t kEntries = 0x1BE;
constexpr std::size_t kEntrySize = 16;
constexpr std::size_t kSignature = 0x1FE;
// Within one entry.
constexpr std::size_t kStatus = 0;
constexpr std::size_t kType = 4;
constexpr std::size_t kFirstLba = 8;
constexpr std::size_t kSectorCount = 12;
} // namespace mbr

namespace gpt {
constexpr char kSignature[] = "EFI PART";
constexpr std::size_t kEntriesLba = 72;
constexpr std::size_t kEntryCount = 80;
constexpr std::size_t kEntrySize = 84;
// Within one entry.
constexpr std::size_t kTypeGuid = 0;
constexpr std::size_t kFirstLba = 32;
constexpr std::size_t kLastLba = 40;
} // namespace gpt

constexpr std::uint8_t kProtectiveType = 0xEE;
constexpr std::uint16_t kBootSignature = 0xAA55;

// Bounds on what disk values may make us read or loop over.
constexpr std::uint32_t kMaxGptEntries = 1024;
constexpr std::uint32_t kMaxGptEntrySize = 4096;
constexpr std::uint32_t kMaxLogicalPartitions = 256;

bool isExtendedType(std::uint8_t type) {
    return type == 0x05 || type == 0x0F || type == 0x85;
}

struct MbrEntry {
    std::uint8_t status = 0;
    std::uint8_t type = 0;
    std::uint32_t firstLba = 0;
    std::uint32_t sectorCount = 0;
};

MbrEntry mbrEntry(const LeView& sector, int index) {
    const std::size_t base = mbr::kEntries + static_cast<std::size_t>(index) * mbr::kEntrySize;
    MbrEntry entry;
    entry.status = sector.u8(base + mbr::kStatus);
    entry.type = sector.u8(base + mbr::kType);
    entry.firstLba = sector.u32(base + mbr::kFirstLba);
    entry.sectorCount = sector.u32(base + mbr::kSectorCount);
    return entry;
}

bool readSector(const ByteSource& disk, std::uint64_t lba, std::uint32_t sectorSize,
                std::vector<std::uint8_t>& sector) {
    sector.assign(sectorSize, 0);
    return disk.readExactly(lba * sectorSize, sector.data(), sectorSize) == 0;
}

// A table whose status bytes are neither 0 nor 0x80 is boot code, not a table.
bool looksLikeMbr(const LeView& sector) {
    if (sector.u16(mbr::kSignature) != kBootSignature)
        return false;
    for (int i = 0; i < 4; ++i) {
        const std::uint8_t status = mbrEntry(sector, i).status;
        if (status != 0 && status != 0x80)
            return false;
    }
    return true;
}

bool inside(const ByteSource& disk, std::uint64_t offset, std::uint64_t length) {
    return length != 0 && offset < disk.size() && length <= disk.size() - offset;
}

void readGpt(const ByteSource& disk, std::uint32_t sectorSize, PartitionTable& table) {
    std::vector<std::uint8_t> header;
    if (!readSector(disk, 1, sectorSize, header))
        return;
    const LeView view(header.data(), header.size());
    if (!view.bytesEqual(0, gpt::kSignature, 8))
        return;
    const std::uint64_t entriesLba = view.u64(gpt::kEntriesLba);
    const std::uint32_t count = view.u32(gpt::kEntryCount);
    const std::uint32_t entrySize = view.u32(gpt::kEntrySize);
    if (!view.ok() || entrySize < 128 || entrySize > kMaxGptEntrySize || count > kMaxGptEntries ||
        entriesLba > disk.size() / sectorSize)
        return;
    table.kind = "GPT";
    std::vector<std::uint8_t> entries(std::size_t{count} * entrySize);
    const ReadResult read = disk.readAt(entriesLba * sectorSize, entries.data(), entries.size());
    const LeView all(entries.data(), read.error == 0 ? read.bytes : 0);
    static const std::uint8_t kUnused[16] = {};
    for (std::uint32_t i = 0; i < count; ++i) {
        const LeView entry = all.sub(std::size_t{i} * entrySize, entrySize);
        if (!entry.ok())
            break;
        if (entry.bytesEqual(gpt::kTypeGuid, kUnused, sizeof kUnused))
            continue;
        const std::uint64_t first = entry.u64(gpt::kFirstLba);
        const std::uint64_t last = entry.u64(gpt::kLastLba);
        if (last < first || last >= disk.size() / sectorSize)
            continue;
        table.entries.push_back({i + 1, first * sectorSize, (last - first + 1) * sectorSize});
    }
}

// Walks the chain of extended boot records that starts at `extendedLba`.
// Logical partition k (from 0) gets number 5 + k.
void readLogicalPartitions(const ByteSource& disk, std::uint32_t sectorSize,
                           std::uint64_t extendedLba, PartitionTable& table) {
    std::set<std::uint64_t> visited;
    std::uint64_t ebrLba = extendedLba;
    std::uint32_t number = 5;
    std::vector<std::uint8_t> sector;
    // Bounded both by count and by never revisiting a record: a chain that
    // points back at itself ends here.
    for (std::uint32_t step = 0; step < kMaxLogicalPartitions; ++step) {
        if (!visited.insert(ebrLba).second || !readSector(disk, ebrLba, sectorSize, sector))
            return;
        const LeView view(sector.data(), sector.size());
        if (view.u16(mbr::kSignature) != kBootSignature)
            return;
        const MbrEntry logical = mbrEntry(view, 0);
        const MbrEntry next = mbrEntry(view, 1);
        if (logical.type != 0 && logical.sectorCount != 0) {
            const std::uint64_t offset = (ebrLba + logical.firstLba) * sectorSize;
            const std::uint64_t length = std::uint64_t{logical.sectorCount} * sectorSize;
            if (inside(disk, offset, length))
                table.entries.push_back({number, offset, length});
            ++number;
        }
        if (!isExtendedType(next.type) || next.firstLba == 0)
            return;
        ebrLba = extendedLba + next.firstLba;
    }
}

} // namespace

PartitionTable readPartitionTable(const ByteSource& disk, std::uint32_t sectorSize) {
    PartitionTable table;
    std::vector<std::uint8_t> sector0;
    if (sectorSize < 512 || !readSector(disk, 0, sectorSize, sector0))
        return table;
    if (parseBootSector(sector0.data(), sector0.size()))
        return table;
    const LeView view(sector0.data(), sector0.size());
    if (!looksLikeMbr(view))
        return table;

    for (int i = 0; i < 4; ++i) {
        if (mbrEntry(view, i).type == kProtectiveType) {
            readGpt(disk, sectorSize, table);
            if (table.kind == "GPT")
                return table;
        }
    }

    table.kind = "MBR";
    std::uint64_t extendedLba = 0;
    for (int i = 0; i < 4; ++i) {
        const MbrEntry entry = mbrEntry(view, i);
        if (entry.type == 0 || entry.sectorCount == 0)
            continue;
        if (isExtendedType(entry.type)) {
            if (extendedLba == 0)
                extendedLba = entry.firstLba;
            continue;
        }
        const std::uint64_t offset = std::uint64_t{entry.firstLba} * sectorSize;
        const std::uint64_t length = std::uint64_t{entry.sectorCount} * sectorSize;
        if (inside(disk, offset, length))
            table.entries.push_back({static_cast<std::uint32_t>(i + 1), offset, length});
    }
    if (extendedLba != 0)
        readLogicalPartitions(disk, sectorSize, extendedLba, table);
    return table;
}

std::uint32_t detectSectorSize(const ByteSource& disk) {
    char signature[8];
    for (std::uint32_t size : {512u, 4096u}) {
        if (disk.readExactly(size, signature, sizeof signature) == 0 &&
            LeView(signature, sizeof signature).bytesEqual(0, gpt::kSignature, 8))
            return size;
    }
    std::vector<std::uint8_t> sector(512);
    if (disk.readExactly(0, sector.data(), sector.size()) != 0)
        return 512;
    if (auto boot = parseBootSector(sector.data(), sector.size()))
        return boot->bytesPerSector >= 512 ? boot->bytesPerSector : 512;
    const LeView view(sector.data(), sector.size());
    if (!looksLikeMbr(view))
        return 512;
    // The table's LBAs are in the unknown sector size: take the size under
    // which the first partition starts with an NTFS boot sector saying so.
    std::vector<std::uint8_t> candidate(512);
    for (std::uint32_t size : {512u, 4096u}) {
        for (int i = 0; i < 4; ++i) {
            const MbrEntry entry = mbrEntry(view, i);
            if (entry.type == 0 || isExtendedType(entry.type) || entry.sectorCount == 0)
                continue;
            if (disk.readExactly(std::uint64_t{entry.firstLba} * size, candidate.data(), 512) != 0)
                continue;
            auto boot = parseBootSector(candidate.data(), candidate.size());
            if (boot && boot->kind == FileSystemKind::Ntfs && boot->bytesPerSector == size)
                return size;
        }
    }
    return 512;
}

} // namespace kestrow::platform::disk
