#include "WalkAsDesigned.h"

#include <orv/String.h>

#include <algorithm>
#include <cstring>

namespace kestrow::test::designed {

namespace {

constexpr std::uint64_t INDEX_MASK = 0xFFFFFFFFFFFFULL;
constexpr std::uint64_t MASK_44 = 0xFFFFFFFFFFFULL;

// The first read outside the bytes.
struct Outside {};

class Bytes {
public:
    explicit Bytes(std::span<const std::uint8_t> bytes) : m_bytes(bytes) {}
    std::uint64_t size() const { return m_bytes.size(); }
    std::uint64_t le(std::uint64_t at, unsigned width) const {
        if (at > m_bytes.size() || width > m_bytes.size() - at)
            throw Outside{};
        std::uint64_t value = 0;
        for (unsigned i = 0; i < width; ++i)
            value |= std::uint64_t(m_bytes[at + i]) << (8 * i);
        return value;
    }
    std::uint8_t u8(std::uint64_t at) const { return static_cast<std::uint8_t>(le(at, 1)); }
    std::uint16_t u16(std::uint64_t at) const { return static_cast<std::uint16_t>(le(at, 2)); }
    std::uint32_t u32(std::uint64_t at) const { return static_cast<std::uint32_t>(le(at, 4)); }
    std::uint64_t u64(std::uint64_t at) const { return le(at, 8); }
    std::u16string units(std::uint64_t at, unsigned count) const {
        std::u16string text;
        for (unsigned i = 0; i < count; ++i)
            text += static_cast<char16_t>(u16(at + 2 * i));
        return text;
    }
    std::vector<std::uint8_t> copy(std::uint64_t at, std::uint64_t count) const {
        if (count != 0)
            le(at + count - 1, 1);
        return {m_bytes.begin() + at, m_bytes.begin() + at + count};
    }

private:
    std::span<const std::uint8_t> m_bytes;
};

const char* typeName(std::uint32_t type, bool resident) {
    switch (type) {
    case 0x10:
        return resident ? "$STANDARD_INFORMATION" : "";
    case 0x20:
        return "$ATTRIBUTE_LIST";
    case 0x30:
        return resident ? "$FILE_NAME" : "";
    case 0x40:
        return resident ? "$OBJECT_ID" : "";
    case 0x50:
        return "$SECURITY_DESCRIPTOR";
    case 0x60:
        return resident ? "$VOLUME_NAME" : "";
    case 0x70:
        return resident ? "$VOLUME_INFORMATION" : "";
    case 0x80:
        return "$DATA";
    case 0x90:
        return resident ? "$INDEX_ROOT" : "";
    case 0xA0:
        return resident ? "" : "$INDEX_ALLOCATION";
    case 0xB0:
        return "$BITMAP";
    case 0xC0:
        return "$REPARSE_POINT";
    case 0xD0:
        return "$EA_INFORMATION";
    case 0xE0:
        return "$EA";
    case 0x100:
        return "$LOGGED_UTILITY_STREAM";
    default:
        return "";
    }
}

// The attribute's name: empty when its length or its offset is 0.
std::u16string attributeName(const Bytes& r, std::uint64_t at) {
    const unsigned length = r.u8(at + 0x09);
    const unsigned offset = r.u16(at + 0x0A);
    if (length == 0 || offset == 0)
        return {};
    return r.units(at + offset, length);
}

void addOnce(std::vector<std::uint64_t>& list, std::uint64_t value) {
    if (std::find(list.begin(), list.end(), value) == list.end())
        list.push_back(value);
}

// The attribute-list entry walk over [first, end) of the attribute at `at`.
void walkListEntries(Record& record, const Bytes& r, std::uint64_t at, std::uint64_t first,
                     std::uint32_t end) {
    try {
        for (std::uint64_t entry = first; entry < end;) {
            const std::uint16_t length = r.u16(at + entry + 0x04);
            if (length == 0)
                return;
            const std::uint64_t index = r.u64(at + entry + 0x10) & INDEX_MASK;
            if (index != record.ownIndex)
                addOnce(record.external, index);
            entry += length;
        }
    } catch (const Outside&) {
    }
}

// The index entry walk: the consumed count adds the length of the entry about
// to be read.
void walkIndexEntries(std::vector<std::uint64_t>& target, const Bytes& b, std::uint64_t first,
                      std::uint32_t bound) {
    try {
        std::uint64_t entry = first;
        std::uint64_t length = b.u16(entry + 0x08);
        std::uint64_t consumed = 0;
        while (consumed < bound) {
            if (length < 82)
                return;
            addOnce(target, b.u64(entry) & INDEX_MASK);
            entry += length;
            length = b.u16(entry + 0x08);
            consumed += length;
        }
    } catch (const Outside&) {
    }
}

void fileName(Record& record, const Bytes& r, std::uint64_t at) {
    const unsigned length = r.u8(at + 0x58);
    const std::u16string name = r.units(at + 0x5A, length);
    const std::uint64_t parent = r.u64(at + 0x18);
    if (name.empty())
        return;
    record.parent = parent & INDEX_MASK;
    record.parentSequence = parent >> 48;
    if (!record.name.empty() && record.longNameFound)
        return;
    if (!(record.name.empty() && isShort(name)))
        record.longNameFound = true;
    record.name = name;
    record.creation = r.u64(at + 0x20);
    record.modification = r.u64(at + 0x28);
    record.lastRead = r.u64(at + 0x38);
    record.fileAttributes = r.u32(at + 0x50);
    if (record.fileAttributes & 0x10000000)
        record.fileAttributes |= 0x10;
}

void resident(Record& record, const Bytes& r, std::uint64_t at,
              std::pair<std::string, bool>& summary) {
    summary.second = true;
    const std::uint32_t type = r.u32(at);
    summary.first = typeName(type, true);
    switch (type) {
    case 0x20:
        walkListEntries(record, r, at, 0x18 + r.u8(at + 0x09), r.u32(at + 0x04));
        break;
    case 0x30:
        fileName(record, r, at);
        break;
    case 0x80:
        if (r.u8(at + 0x09) == 0)
            record.dataSize = r.u32(at + 0x10);
        break;
    case 0x90: {
        if (attributeName(r, at) != u"$I30")
            break;
        const std::uint16_t valueOffset = r.u16(at + 0x14);
        const std::uint64_t value = at + valueOffset;
        const std::uint32_t available = r.u32(at + 0x04) - valueOffset;
        const std::uint32_t total = r.u32(value + 0x14);
        const std::uint32_t length = std::min(available, total) - 32;
        if (length != 0)
            walkIndexEntries(record.indexEntries, r, value + 0x20, length);
        break;
    }
    default:
        break;
    }
}

void nonResident(Record& record, const Bytes& r, std::uint64_t at, const Geometry& geometry,
                 std::pair<std::string, bool>& summary) {
    record.allocatedSize = r.u64(at + 0x28) & MASK_44;
    record.realSize = r.u64(at + 0x30) & MASK_44;
    summary.second = false;
    const std::uint32_t length = r.u32(at + 0x04);
    std::vector<std::uint8_t> runBytes;
    if (length <= geometry.bytesPerFileRecord) {
        const std::uint16_t first = r.u16(at + 0x20);
        if (first < length)
            runBytes = r.copy(at + first, length - first);
    }
    std::vector<Range> runs = decodeRuns(
        runBytes, geometry.bytesPerCluster ? record.allocatedSize / geometry.bytesPerCluster : 0);
    for (Range& run : runs)
        run.start += geometry.baseCluster;
    auto inside = [&](const Range& run) {
        return run.count <= geometry.totalClusters && run.start <= geometry.totalClusters;
    };
    for (const Range& run : runs) {
        if (!inside(run))
            break;
        record.clusterRanges.push_back(run);
    }
    const std::uint32_t type = r.u32(at);
    summary.first = typeName(type, false);
    switch (type) {
    case 0x20:
        walkListEntries(record, r, at, 0x40 + r.u8(at + 0x09), length);
        break;
    case 0x80:
        if (r.u8(at + 0x09) == 0)
            record.dataSize = record.realSize;
        break;
    case 0xA0:
        if (attributeName(r, at) == u"$I30")
            for (const Range& run : runs) {
                if (!inside(run))
                    break;
                record.indexAllocationRanges.push_back(run);
            }
        break;
    default:
        break;
    }
}

} // namespace

bool isShort(const std::u16string& name) {
    if (name.size() > 12)
        return false;
    std::vector<std::size_t> parts;
    std::size_t current = 0;
    for (std::size_t i = 0; i <= name.size(); ++i) {
        if (i == name.size() || name[i] == u'.') {
            if (current != 0)
                parts.push_back(current);
            current = 0;
        } else {
            ++current;
        }
    }
    if (parts.size() > 2 || (!parts.empty() && parts[0] > 8) || (parts.size() == 2 && parts[1] > 3))
        return false;
    for (char16_t unit : name)
        if (orv::String::upperCase(unit) != unit)
            return false;
    return true;
}

std::vector<Range> decodeRuns(std::span<const std::uint8_t> runBytes, std::uint64_t maxClusters) {
    std::vector<Range> runs;
    const Bytes b(runBytes);
    std::uint64_t total = 0, current = 0, position = 0;
    try {
        for (;;) {
            const std::uint8_t header = b.u8(position);
            if (header == 0)
                return runs;
            const unsigned lengthBytes = header & 0x0F, offsetBytes = header >> 4;
            if (lengthBytes == 0 || lengthBytes > 7)
                return runs;
            if (position + 1 + lengthBytes + offsetBytes > b.size())
                return runs;
            const std::uint64_t count = b.le(position + 1, lengthBytes);
            total += count;
            if (count == 0 || total > maxClusters)
                return runs;
            if (offsetBytes != 0) {
                if (offsetBytes >= 8)
                    return runs;
                std::uint64_t offset = b.le(position + 1 + lengthBytes, offsetBytes);
                if (offset == 0)
                    return runs;
                if (offset >> (8 * offsetBytes - 1))
                    offset |= ~std::uint64_t(0) << (8 * offsetBytes);
                current += offset;
                runs.push_back({count, current});
            }
            position += 1 + lengthBytes + offsetBytes;
        }
    } catch (const Outside&) {
    }
    return runs;
}

void walkAttributes(Record& record, std::span<const std::uint8_t> bytes, const Geometry& geometry) {
    const Bytes r(bytes);
    if (r.size() < 0x30 || std::memcmp(bytes.data(), "FILE", 4) != 0 || (r.u16(0x16) & 1) == 0)
        return;
    record.valid = true;
    const std::uint32_t inUse = r.u32(0x18);
    const std::uint32_t allocated = r.u32(0x1C);
    std::uint64_t at = r.u16(0x14);
    try {
        while (at < inUse) {
            if (r.u32(at) == 0xFFFFFFFF)
                break;
            std::pair<std::string, bool> summary;
            record.allocatedSize = static_cast<std::uint32_t>(geometry.bytesPerSector * allocated);
            record.realSize = inUse;
            if (r.u8(at + 0x08) == 0)
                resident(record, r, at, summary);
            else
                nonResident(record, r, at, geometry, summary);
            record.allocatedSize &= MASK_44;
            record.realSize &= MASK_44;
            record.attributes.push_back(summary);
            const std::uint32_t length = r.u32(at + 0x04);
            if (length == 0)
                break; // the same attribute again and again
            at += length;
        }
    } catch (const Outside&) {
    }
}

Record parseRecord(std::span<const std::uint8_t> bytes, std::uint64_t ownIndex,
                   const Geometry& geometry) {
    Record record;
    record.ownIndex = ownIndex;
    walkAttributes(record, bytes, geometry);
    return record;
}

void mergeExtensionRecords(
    Record& record, const Geometry& geometry,
    const std::function<bool(std::uint64_t index, std::vector<std::uint8_t>&)>& recordBytes) {
    if (record.dataSize != 0)
        return;
    const std::vector<std::uint64_t> listed = record.external;
    for (std::uint64_t index : listed) {
        std::vector<std::uint8_t> bytes;
        if (recordBytes(index & INDEX_MASK, bytes))
            walkAttributes(record, bytes, geometry);
    }
}

void addIndexBlockEntries(Record& record, const Geometry& geometry, const SectorReader& read) {
    const std::uint32_t sectorsPerCluster = geometry.bytesPerCluster / geometry.bytesPerSector;
    for (const Range& range : record.indexAllocationRanges) {
        const std::uint64_t size = std::uint64_t(geometry.bytesPerCluster) * range.count;
        std::vector<std::uint8_t> buffer(size);
        if (!read(range.start * sectorsPerCluster, size, buffer))
            continue;
        const Bytes b(buffer);
        try {
            for (std::uint64_t j = 0; j < range.count * sectorsPerCluster; ++j) {
                const std::uint64_t block = j * geometry.bytesPerSector;
                if (b.u32(block) != 0x58444E49) // "INDX"
                    continue;
                const std::uint32_t first = b.u32(block + 0x18);
                const std::uint32_t entries = b.u32(block + 0x1C);
                const std::uint32_t bound = std::min<std::uint32_t>(
                    entries + 24, static_cast<std::uint32_t>(size) -
                                      static_cast<std::uint32_t>(block) - first - 24);
                if (bound != 0)
                    walkIndexEntries(record.indexEntries, b, block + 0x18 + first, bound);
            }
        } catch (const Outside&) {
        }
    }
}

} // namespace kestrow::test::designed
