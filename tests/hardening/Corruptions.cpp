#include "Corruptions.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <filesystem>
#include <ostream>
#include <stdexcept>

namespace kestrow::test::hardening {

namespace {

constexpr std::array<Corruption, 10> kAll = {
    Corruption::MftBytes,          Corruption::IndexBlockBytes, Corruption::BootSector,
    Corruption::PartitionTable,    Corruption::Bitmap,          Corruption::Truncation,
    Corruption::ParentLoop,        Corruption::AttributeLength, Corruption::AttributeListSelf,
    Corruption::RunsOutsideVolume,
};

constexpr std::uint64_t kReferenceIndex = 0x0000FFFFFFFFFFFFull;

// FILE record header.
constexpr std::uint32_t kUsaOffset = 0x04;
constexpr std::uint32_t kSequence = 0x10;
constexpr std::uint32_t kFirstAttribute = 0x14;
constexpr std::uint32_t kBytesInUse = 0x18;
constexpr std::uint32_t kBaseReference = 0x20;
// Attribute header.
constexpr std::uint32_t kAttrLength = 0x04;
constexpr std::uint32_t kAttrRunListOffset = 0x20;
constexpr std::uint32_t kAttrAllocatedSize = 0x28;
constexpr std::uint32_t kAttrDataSize = 0x30;
constexpr std::uint32_t kAttrInitializedSize = 0x38;
constexpr std::uint32_t kEndMarker = 0xFFFFFFFF;

constexpr std::uint32_t kTypeAttributeList = 0x20;
constexpr std::uint32_t kTypeFileName = 0x30;
constexpr std::uint32_t kTypeData = 0x80;
constexpr std::uint32_t kTypeIndexAllocation = 0xA0;

std::string hex(std::uint64_t value) {
    char text[32];
    std::snprintf(text, sizeof text, "0x%llx", static_cast<unsigned long long>(value));
    return text;
}

std::vector<std::uint8_t> randomBytes(Random& random, std::size_t count) {
    std::vector<std::uint8_t> bytes(count);
    for (auto& b : bytes)
        b = static_cast<std::uint8_t>(random.next());
    return bytes;
}

std::vector<std::uint8_t> leBytes(std::uint64_t value, unsigned width) {
    std::vector<std::uint8_t> bytes(width);
    for (unsigned i = 0; i < width; ++i)
        bytes[i] = static_cast<std::uint8_t>(value >> (8 * i));
    return bytes;
}

// A value a parser is likely to trip over, for a field of `width` bytes.
std::uint64_t extremeValue(Random& random, unsigned width, std::uint64_t sensible) {
    const std::uint64_t all = width >= 8 ? ~0ull : (1ull << (8 * width)) - 1;
    switch (random.below(9)) {
    case 0:
        return 0;
    case 1:
        return 1;
    case 2:
        return all;
    case 3:
        return all >> 1;
    case 4:
        return (all >> 1) + 1;
    case 5:
        return sensible + 1 + random.below(16);
    case 6:
        return sensible > 0 ? sensible - 1 : 0;
    case 7:
        return sensible * (2 + random.below(1000));
    default:
        return random.next() & all;
    }
}

void patchImage(ScratchImage& scratch, std::uint64_t offset, std::span<const std::uint8_t> bytes,
                std::string& log, const std::string& what) {
    scratch.patch(offset, bytes);
    log += what + ": " + std::to_string(bytes.size()) + " byte(s) at image offset " + hex(offset) +
           "\n";
}

std::uint64_t pickRecord(const ImageMap& map, Random& random) {
    static const std::vector<std::uint64_t> system = {0, 1, 2, 3, 5, 6, 7, 8, 9, 10, 11};
    if (random.chance(25) || map.inUseRecords().empty())
        return random.pick(system);
    if (random.chance(10))
        return random.below(map.recordSlots());
    return random.pick(map.inUseRecords());
}

// ---- MFT records ---------------------------------------------------------------

void corruptRecordHeader(ScratchImage& scratch, const ImageMap& map, std::uint64_t record,
                         Random& random, std::string& log) {
    struct Field {
        std::uint32_t offset;
        unsigned width;
    };
    static const Field fields[] = {{0x04, 2}, {0x06, 2}, {0x10, 2}, {0x12, 2}, {0x14, 2},
                                   {0x16, 2}, {0x18, 4}, {0x1C, 4}, {0x20, 8}, {0x28, 2}};
    const Field field = fields[random.below(std::size(fields))];
    const std::uint64_t value = extremeValue(random, field.width, map.recordSize());
    patchRecordLe(scratch, map, record, field.offset, value, field.width);
    log += "record " + std::to_string(record) + " header field " + hex(field.offset) + " = " +
           hex(value) + "\n";
}

void corruptAttributeField(ScratchImage& scratch, const ImageMap& map, std::uint64_t record,
                           Random& random, std::string& log) {
    const auto attributes = attributesOf(map.readRecord(scratch.path(), record));
    if (attributes.empty())
        return corruptRecordHeader(scratch, map, record, random, log);
    const RawAttribute& attribute = random.pick(attributes);
    struct Field {
        std::uint32_t offset;
        unsigned width;
    };
    static const Field fields[] = {{0x00, 4}, {0x04, 4}, {0x08, 1}, {0x09, 1}, {0x0A, 2},
                                   {0x0C, 2}, {0x10, 4}, {0x14, 2}, {0x10, 8}, {0x18, 8},
                                   {0x20, 2}, {0x28, 8}, {0x30, 8}, {0x38, 8}};
    Field field = fields[random.below(std::size(fields))];
    if (attribute.offset + field.offset + field.width > map.recordSize())
        field = {0x04, 4};
    const std::uint64_t value = extremeValue(random, field.width, attribute.length);
    patchRecordLe(scratch, map, record, attribute.offset + field.offset, value, field.width);
    log += "record " + std::to_string(record) + " attribute " + hex(attribute.type) + " at " +
           hex(attribute.offset) + " field " + hex(field.offset) + " = " + hex(value) + "\n";
}

std::string corruptMftBytes(const ImageMap& map, ScratchImage& scratch, Random& random) {
    std::string log;
    const unsigned records = 1 + static_cast<unsigned>(random.below(3));
    for (unsigned r = 0; r < records; ++r) {
        const std::uint64_t record = pickRecord(map, random);
        switch (random.below(4)) {
        case 0: { // a few bytes anywhere, update sequence ignored (torn records too)
            const unsigned count = 1 + static_cast<unsigned>(random.below(8));
            for (unsigned i = 0; i < count; ++i) {
                const std::uint32_t byte =
                    static_cast<std::uint32_t>(random.below(map.recordSize()));
                patchImage(scratch, map.recordByteOffset(record, byte), randomBytes(random, 1), log,
                           "record " + std::to_string(record) + " byte " + hex(byte));
            }
            break;
        }
        case 1: { // a run of garbage that keeps the record whole
            const std::uint32_t length = 4 + static_cast<std::uint32_t>(random.below(61));
            const std::uint32_t byte =
                static_cast<std::uint32_t>(random.below(map.recordSize() - length));
            patchRecord(scratch, map, record, byte, randomBytes(random, length));
            log += "record " + std::to_string(record) + " bytes " + hex(byte) + "+" +
                   std::to_string(length) + " random\n";
            break;
        }
        case 2:
            corruptAttributeField(scratch, map, record, random, log);
            break;
        default:
            corruptRecordHeader(scratch, map, record, random, log);
            break;
        }
    }
    return log;
}

// ---- INDX blocks ---------------------------------------------------------------

std::string corruptIndexBlocks(const ImageMap& map, ScratchImage& scratch, Random& random) {
    std::string log;
    if (map.indexBlocks().empty())
        return corruptMftBytes(map, scratch, random);
    const std::uint32_t blockSize = map.facts().bytesPerIndexBlock;
    const unsigned blocks = 1 + static_cast<unsigned>(random.below(3));
    for (unsigned b = 0; b < blocks; ++b) {
        const std::uint64_t block = random.pick(map.indexBlocks());
        const std::size_t size =
            static_cast<std::size_t>(std::min<std::uint64_t>(blockSize, scratch.size() - block));
        const auto stored = scratch.read(block, size);
        const auto bytes = withFixupsApplied(stored);
        auto patchField = [&](std::uint32_t at, std::uint64_t value, unsigned width) {
            if (at + width > size)
                return;
            const auto le = leBytes(value, width);
            for (unsigned i = 0; i < width; ++i)
                scratch.patch(block + storedByteOffset(stored, at + i), {&le[i], 1});
            log += "INDX block at " + hex(block) + " field " + hex(at) + " = " + hex(value) + "\n";
        };
        switch (random.below(4)) {
        case 0: { // random bytes anywhere in the block
            const std::uint32_t length = 1 + static_cast<std::uint32_t>(random.below(32));
            const std::uint64_t at = random.below(size - length);
            patchImage(scratch, block + at, randomBytes(random, length), log, "INDX block bytes");
            break;
        }
        case 1: { // the node header: first entry, entries size, allocated size
            static const std::uint32_t fields[] = {0x18, 0x1C, 0x20, 0x24};
            const std::uint32_t field = fields[random.below(std::size(fields))];
            patchField(field, extremeValue(random, 4, blockSize), 4);
            break;
        }
        default: { // one entry's reference, length, key length or flags
            std::uint32_t entry = 0x18 + le32(bytes, 0x18);
            const unsigned skip = static_cast<unsigned>(random.below(20));
            for (unsigned i = 0; i < skip && entry + 16 <= size; ++i) {
                const std::uint16_t length = le16(bytes, entry + 8);
                if (length < 16 || (le16(bytes, entry + 12) & 2) != 0)
                    break;
                entry += length;
            }
            if (entry + 16 > size)
                entry = 0x40;
            static const std::pair<std::uint32_t, unsigned> fields[] = {
                {0x00, 8}, {0x08, 2}, {0x0A, 2}, {0x0C, 2}, {0x10, 8}};
            const auto [field, width] = fields[random.below(std::size(fields))];
            patchField(entry + field, extremeValue(random, width, 0x68), width);
            break;
        }
        }
    }
    return log;
}

// ---- Boot sector ---------------------------------------------------------------

std::string corruptBootSector(const ImageMap& map, ScratchImage& scratch, Random& random) {
    std::string log;
    const std::uint64_t boot = map.volumeOffset();
    struct Field {
        std::uint32_t offset;
        unsigned width;
        std::uint64_t sensible;
    };
    const Field fields[] = {
        {0x03, 8, 0},                                         // OEM id "NTFS    "
        {0x0B, 2, map.sectorSize()},                          // bytes per sector
        {0x0D, 1, map.clusterSize() / map.sectorSize()},      // sectors per cluster
        {0x28, 8, map.facts().volumeSize / map.sectorSize()}, // total sectors
        {0x30, 8, map.mftClusters().front()},                 // $MFT cluster
        {0x38, 8, 2},                                         // $MFTMirr cluster
        {0x40, 1, 0xF6},                                      // clusters (or 2^-n bytes) per record
        {0x44, 1, 1},                                         // clusters per index block
        {0x1FE, 2, 0xAA55},                                   // end signature
    };
    const unsigned changes = 1 + static_cast<unsigned>(random.below(3));
    for (unsigned c = 0; c < changes; ++c) {
        if (random.chance(25)) {
            const std::uint32_t at = 0x0B + static_cast<std::uint32_t>(random.below(0x54 - 0x0B));
            const unsigned length = 1 + static_cast<unsigned>(random.below(6));
            patchImage(scratch, boot + at, randomBytes(random, length), log, "boot sector bytes");
            continue;
        }
        const Field& field = fields[random.below(std::size(fields))];
        std::uint64_t value = extremeValue(random, field.width, field.sensible);
        if (field.offset == 0x40 || field.offset == 0x44) {
            // Signed: positive clusters, or 2^-n bytes; both ends of the range.
            static const std::uint8_t codes[] = {0x00, 0x01, 0x7F, 0x80, 0x81, 0xC0,
                                                 0xE0, 0xE1, 0xF0, 0xF5, 0xFF};
            value = codes[random.below(std::size(codes))];
        }
        patchImage(scratch, boot + field.offset, leBytes(value, field.width), log,
                   "boot sector field " + hex(field.offset) + " = " + hex(value));
    }
    return log;
}

// ---- Partition tables ----------------------------------------------------------

std::string corruptPartitionTable(const ImageMap& map, ScratchImage& scratch, Random& random) {
    std::string log;
    const bool gpt = map.facts().image == FixtureImage::GptDisk;
    const unsigned changes = 1 + static_cast<unsigned>(random.below(3));
    for (unsigned c = 0; c < changes; ++c) {
        const unsigned choice = static_cast<unsigned>(random.below(gpt ? 6 : 4));
        if (choice == 0) { // random bytes over the MBR's entries
            const std::uint32_t at = 446 + static_cast<std::uint32_t>(random.below(64));
            const unsigned length = 1 + static_cast<unsigned>(random.below(8));
            patchImage(scratch, at, randomBytes(random, std::min(length, 512u - at)), log,
                       "MBR bytes");
        } else if (choice == 1) { // one entry's type, start or size
            const std::uint32_t entry = 446 + 16 * static_cast<std::uint32_t>(random.below(4));
            static const std::pair<std::uint32_t, unsigned> fields[] = {
                {0, 1}, {4, 1}, {8, 4}, {12, 4}};
            const auto [field, width] = fields[random.below(std::size(fields))];
            std::uint64_t value = extremeValue(random, width, 2048);
            if (field == 4) {
                static const std::uint8_t types[] = {0x00, 0x05, 0x0F, 0x85,
                                                     0x07, 0x0C, 0xEE, 0xEF};
                value = types[random.below(std::size(types))];
            }
            patchImage(scratch, entry + field, leBytes(value, width), log,
                       "MBR entry " + hex(entry) + " field " + std::to_string(field) + " = " +
                           hex(value));
        } else if (choice == 2) { // an extended partition whose chain loops or leaves the disk
            const std::uint32_t entry = 446 + 16 * static_cast<std::uint32_t>(random.below(4));
            static const std::uint64_t starts[] = {0, 1, 2048, 4096, 0xFFFFFFFF};
            const std::uint64_t start = starts[random.below(std::size(starts))];
            std::vector<std::uint8_t> bytes(16, 0);
            bytes[4] = random.chance(50) ? 0x05 : 0x0F;
            const auto startBytes = leBytes(start, 4);
            const auto sizeBytes = leBytes(random.chance(50) ? 0xFFFFFFFF : 65536, 4);
            std::copy(startBytes.begin(), startBytes.end(), bytes.begin() + 8);
            std::copy(sizeBytes.begin(), sizeBytes.end(), bytes.begin() + 12);
            patchImage(scratch, entry, bytes, log,
                       "MBR entry " + hex(entry) + " extended at " + hex(start));
            if (start != 0xFFFFFFFF && start * 512 + 512 <= scratch.size() && random.chance(50)) {
                // The extended boot record there names itself as the next one.
                std::vector<std::uint8_t> ebr(16, 0);
                ebr[4] = 0x05;
                std::fill(ebr.begin() + 12, ebr.end(), 0x01);
                patchImage(scratch, start * 512 + 446 + 16, ebr, log, "EBR link to itself");
                const std::uint8_t signature[2] = {0x55, 0xAA};
                patchImage(scratch, start * 512 + 510, signature, log, "EBR signature");
            }
        } else if (choice == 3) { // the signature
            patchImage(scratch, 510, randomBytes(random, 2), log, "MBR signature");
        } else if (choice == 4) { // GPT header fields
            static const std::pair<std::uint32_t, unsigned> fields[] = {
                {0x0C, 4}, {0x18, 8}, {0x20, 8}, {0x28, 8}, {0x30, 8},
                {0x48, 8}, {0x50, 4}, {0x54, 4}, {0x00, 8}};
            const auto [field, width] = fields[random.below(std::size(fields))];
            const std::uint64_t value = extremeValue(random, width, 128);
            patchImage(scratch, 512 + field, leBytes(value, width), log,
                       "GPT header field " + hex(field) + " = " + hex(value));
        } else { // a GPT entry's first or last LBA, or its type
            const std::uint64_t entry = 1024 + 128 * random.below(4);
            static const std::pair<std::uint32_t, unsigned> fields[] = {
                {0x00, 8}, {0x20, 8}, {0x28, 8}};
            const auto [field, width] = fields[random.below(std::size(fields))];
            const std::uint64_t value = extremeValue(random, width, 4096);
            patchImage(scratch, entry + field, leBytes(value, width), log,
                       "GPT entry " + hex(entry) + " field " + hex(field) + " = " + hex(value));
        }
    }
    return log;
}

// ---- $Bitmap -------------------------------------------------------------------

std::string corruptBitmap(const ImageMap& map, ScratchImage& scratch, Random& random) {
    std::string log;
    const auto& clusters = map.bitmapClusters();
    if (clusters.empty())
        return corruptMftBytes(map, scratch, random);
    const unsigned changes = 1 + static_cast<unsigned>(random.below(3));
    for (unsigned c = 0; c < changes; ++c) {
        const std::uint64_t cluster = random.pick(clusters);
        const std::uint64_t start = map.volumeOffset() + cluster * map.clusterSize();
        const std::uint64_t length =
            random.chance(30) ? map.clusterSize() : 1 + random.below(map.clusterSize());
        const std::uint64_t at = random.below(map.clusterSize() - length + 1);
        std::vector<std::uint8_t> bytes;
        switch (random.below(3)) {
        case 0:
            bytes.assign(length, 0x00);
            break;
        case 1:
            bytes.assign(length, 0xFF);
            break;
        default:
            bytes = randomBytes(random, length);
            break;
        }
        patchImage(scratch, start + at, bytes, log, "$Bitmap bytes");
    }
    return log;
}

// ---- Truncation ----------------------------------------------------------------

std::string truncateImage(const ImageMap& map, ScratchImage& scratch, Random& random) {
    const std::uint64_t size = scratch.size();
    const std::uint64_t volumeEnd = map.volumeOffset() + map.facts().volumeSize;
    std::uint64_t length = 0;
    switch (random.below(8)) {
    case 0:
        length = random.below(512);
        break;
    case 1:
        length = map.volumeOffset() + 512 + random.below(8192);
        break;
    case 2:
        length = map.recordByteOffset(random.below(map.recordSlots()), 0);
        break;
    case 3:
        length =
            map.recordByteOffset(random.below(map.recordSlots()), random.below(map.recordSize()));
        break;
    case 4:
        length = volumeEnd - map.sectorSize();
        break;
    case 5:
        length = size - 1 - random.below(4096);
        break;
    case 6:
        length = map.bitmapClusters().empty()
                     ? random.below(size)
                     : map.volumeOffset() + random.pick(map.bitmapClusters()) * map.clusterSize();
        break;
    default:
        length = random.below(size);
        break;
    }
    length = std::min(length, size - 1);
    std::filesystem::resize_file(scratch.path(), length);
    return "image cut to " + std::to_string(length) + " of " + std::to_string(size) + " bytes\n";
}

// ---- Parent loops --------------------------------------------------------------

std::uint64_t referenceTo(const ImageMap& map, const ScratchImage& scratch, std::uint64_t record) {
    const auto stored = map.readRecord(scratch.path(), record);
    return record | (std::uint64_t{le16(stored, kSequence)} << 48);
}

// Points every $FILE_NAME of `record` at `parent`; true when one was found.
bool setParent(ScratchImage& scratch, const ImageMap& map, std::uint64_t record,
               std::uint64_t parentReference, std::string& log) {
    const auto attributes = attributesOf(map.readRecord(scratch.path(), record));
    bool patched = false;
    for (const RawAttribute& attribute : attributes) {
        if (attribute.type != kTypeFileName || !attribute.resident || attribute.valueLength < 8)
            continue;
        patchRecordLe(scratch, map, record, attribute.valueOffset, parentReference, 8);
        patched = true;
    }
    if (patched)
        log += "record " + std::to_string(record) + " parent -> " +
               std::to_string(parentReference & kReferenceIndex) + "\n";
    return patched;
}

std::string makeParentLoop(const ImageMap& map, ScratchImage& scratch, Random& random) {
    std::string log;
    std::vector<std::uint64_t> candidates;
    for (std::uint64_t record : map.inUseRecords())
        if (record >= 16)
            candidates.push_back(record);
    if (candidates.empty())
        candidates = {1, 2, 3, 4, 6, 7, 8, 9, 10, 11};
    const std::vector<std::uint64_t>& directories =
        map.directories().size() > 2 ? map.directories() : candidates;
    auto reference = [&](std::uint64_t record) {
        return random.chance(80) ? referenceTo(map, scratch, record)
                                 : record | (random.next() << 48);
    };
    switch (random.below(5)) {
    case 0: { // a record that is its own parent but not the root
        const std::uint64_t record = random.pick(candidates);
        setParent(scratch, map, record, reference(record), log);
        break;
    }
    case 1: { // the root's parent is one of its own descendants
        const std::uint64_t child = random.pick(directories);
        setParent(scratch, map, 5, reference(child), log);
        if (random.chance(50))
            setParent(scratch, map, child, reference(5), log);
        break;
    }
    default: { // a cycle of 2 to 6 records (or, on the rich volume, up to 200)
        const std::size_t length = random.chance(15) ? 2 + random.below(200) : 2 + random.below(5);
        std::vector<std::uint64_t> cycle;
        for (std::size_t i = 0; i < length; ++i)
            cycle.push_back(random.chance(60) ? random.pick(directories) : random.pick(candidates));
        for (std::size_t i = 0; i < cycle.size(); ++i)
            setParent(scratch, map, cycle[i], reference(cycle[(i + 1) % cycle.size()]), log);
        break;
    }
    }
    return log.empty() ? "no $FILE_NAME found to re-parent\n" : log;
}

// ---- Attribute lengths ---------------------------------------------------------

std::string corruptAttributeLength(const ImageMap& map, ScratchImage& scratch, Random& random) {
    std::string log;
    const std::uint64_t record = pickRecord(map, random);
    const auto attributes = attributesOf(map.readRecord(scratch.path(), record));
    const std::uint32_t recordSize = map.recordSize();
    const unsigned mode = static_cast<unsigned>(random.below(attributes.empty() ? 2 : 6));
    if (mode == 0) { // bytes in use: 0, tiny, or past the record
        static const std::uint64_t values[] = {0, 1, 0x18, 0x38};
        const std::uint64_t value =
            random.chance(50) ? values[random.below(4)] : recordSize + random.below(0x10000);
        patchRecordLe(scratch, map, record, kBytesInUse, value, 4);
        log = "record " + std::to_string(record) + " bytes in use = " + hex(value) + "\n";
    } else if (mode == 1) { // first attribute offset: 0, odd, at or past the end
        static const std::uint64_t values[] = {0, 1, 0x2F, 0x30};
        const std::uint64_t value = random.chance(50)
                                        ? values[random.below(4)]
                                        : recordSize - 8 + random.below(0x10000 - recordSize);
        patchRecordLe(scratch, map, record, kFirstAttribute, value, 2);
        log = "record " + std::to_string(record) + " first attribute offset = " + hex(value) + "\n";
    } else {
        const RawAttribute& attribute = random.pick(attributes);
        std::uint64_t value = 0;
        switch (random.below(6)) {
        case 0:
            value = 0;
            break;
        case 1:
            value = 8 * random.below(4);
            break; // shorter than any header
        case 2:
            value = recordSize - attribute.offset + 8 * (1 + random.below(64));
            break; // past the end
        case 3:
            value = 0xFFFFFFFF - random.below(16);
            break;
        case 4:
            value = 0x80000000u + 8 * random.below(16);
            break;
        default:
            value = recordSize;
            break;
        }
        patchRecordLe(scratch, map, record, attribute.offset + kAttrLength, value, 4);
        log = "record " + std::to_string(record) + " attribute " + hex(attribute.type) + " at " +
              hex(attribute.offset) + " length = " + hex(value) + "\n";
        if (!attribute.resident && random.chance(30)) {
            // And the run list's offset past the attribute.
            const std::uint64_t runs = 0xFFFF - random.below(recordSize);
            patchRecordLe(scratch, map, record, attribute.offset + kAttrRunListOffset, runs, 2);
            log += "   run list offset = " + hex(runs) + "\n";
        }
    }
    return log;
}

// ---- Attribute lists that name themselves --------------------------------------

std::string corruptAttributeList(const ImageMap& map, ScratchImage& scratch, Random& random) {
    std::string log;
    if (map.attributeListRecords().empty())
        return corruptAttributeLength(map, scratch, random);
    const std::uint64_t record = random.pick(map.attributeListRecords());
    const std::uint64_t self = referenceTo(map, scratch, record);
    const auto attributes = attributesOf(map.readRecord(scratch.path(), record));
    const RawAttribute* list = nullptr;
    for (const RawAttribute& attribute : attributes)
        if (attribute.type == kTypeAttributeList && attribute.resident)
            list = &attribute;
    if (list == nullptr)
        return "no resident attribute list in record " + std::to_string(record) + "\n";

    const auto bytes = withFixupsApplied(map.readRecord(scratch.path(), record));
    std::vector<std::uint32_t> entries; // offsets in the record
    for (std::uint32_t at = list->valueOffset;
         at + 0x1A <= list->valueOffset + list->valueLength;) {
        entries.push_back(at);
        const std::uint16_t length = le16(bytes, at + 4);
        if (length < 0x1A)
            break;
        at += length;
    }
    if (entries.empty())
        return "empty attribute list in record " + std::to_string(record) + "\n";

    switch (random.below(6)) {
    case 0: // every entry names the record itself
        for (std::uint32_t entry : entries)
            patchRecordLe(scratch, map, record, entry + 0x10, self, 8);
        log = "record " + std::to_string(record) + " attribute list: every entry -> itself\n";
        break;
    case 1: { // one entry names the record itself
        const std::uint32_t entry = random.pick(entries);
        patchRecordLe(scratch, map, record, entry + 0x10, self, 8);
        log = "record " + std::to_string(record) + " attribute list entry " + hex(entry) +
              " -> itself\n";
        break;
    }
    case 2: { // two lists that name each other's records
        const std::uint64_t other = random.pick(map.attributeListRecords());
        const std::uint64_t otherReference = referenceTo(map, scratch, other);
        for (std::uint32_t entry : entries)
            if (random.chance(60))
                patchRecordLe(scratch, map, record, entry + 0x10, otherReference, 8);
        log = "record " + std::to_string(record) + " attribute list -> record " +
              std::to_string(other) + "\n";
        if (other != record) {
            const auto otherAttributes = attributesOf(map.readRecord(scratch.path(), other));
            for (const RawAttribute& attribute : otherAttributes)
                if (attribute.type == kTypeAttributeList && attribute.resident &&
                    attribute.valueLength >= 0x18)
                    patchRecordLe(scratch, map, other, attribute.valueOffset + 0x10, self, 8);
        }
        break;
    }
    case 3: { // an entry length of 0, 1 or past the list
        const std::uint32_t entry = random.pick(entries);
        static const std::uint64_t lengths[] = {0, 1, 0x19, 0xFFFF, 0x8000};
        const std::uint64_t length = lengths[random.below(std::size(lengths))];
        patchRecordLe(scratch, map, record, entry + 4, length, 2);
        log = "record " + std::to_string(record) + " attribute list entry " + hex(entry) +
              " length = " + hex(length) + "\n";
        break;
    }
    case 4: { // an extension record whose base is itself, or is another extension
        if (map.extensionRecords().empty())
            return corruptAttributeLength(map, scratch, random);
        const std::uint64_t extension = random.pick(map.extensionRecords());
        const std::uint64_t base =
            random.chance(50) ? referenceTo(map, scratch, extension)
                              : referenceTo(map, scratch, random.pick(map.extensionRecords()));
        patchRecordLe(scratch, map, extension, kBaseReference, base, 8);
        log = "extension record " + std::to_string(extension) + " base -> " +
              std::to_string(base & kReferenceIndex) + "\n";
        break;
    }
    default: { // entries naming record 0, the last record, or no record at all
        static const std::uint64_t targets[] = {0, 1, kReferenceIndex, 0x7FFFFFFF};
        for (std::uint32_t entry : entries) {
            const std::uint64_t target = random.chance(50) ? targets[random.below(4)]
                                                           : map.recordSlots() + random.below(1000);
            patchRecordLe(scratch, map, record, entry + 0x10, target, 8);
        }
        log = "record " + std::to_string(record) + " attribute list entries -> absent records\n";
        break;
    }
    }
    return log;
}

// ---- Runs outside the volume ---------------------------------------------------

std::string putRunsOutsideVolume(const ImageMap& map, ScratchImage& scratch, Random& random) {
    // The non-resident attribute to damage: the $MFT's own data, $Bitmap's,
    // a file's, a directory index's, or any.
    std::uint64_t record = 0;
    std::uint32_t wantedType = kTypeData;
    switch (random.below(6)) {
    case 0:
        record = 0;
        break;
    case 1:
        record = 6;
        break;
    case 2:
        record = map.record("Docs/report.bin").value_or(0);
        break;
    case 3:
        record = map.record("Indexed").value_or(map.record("Big").value_or(5));
        wantedType = kTypeIndexAllocation;
        break;
    case 4:
        record = 5;
        wantedType = kTypeIndexAllocation;
        break;
    default:
        record = pickRecord(map, random);
        wantedType = 0;
        break;
    }
    const auto stored = map.readRecord(scratch.path(), record);
    const auto bytes = withFixupsApplied(stored);
    const auto attributes = attributesOf(stored);
    std::vector<RawAttribute> nonResident;
    for (const RawAttribute& attribute : attributes)
        if (!attribute.resident && (wantedType == 0 || attribute.type == wantedType))
            nonResident.push_back(attribute);
    if (nonResident.empty())
        return corruptAttributeLength(map, scratch, random);
    const RawAttribute& attribute = random.pick(nonResident);
    const std::uint32_t runOffset =
        attribute.offset + le16(bytes, attribute.offset + kAttrRunListOffset);
    std::vector<MappingRun> runs =
        runOffset < attribute.offset + attribute.length
            ? decodeRunList(std::span(bytes).subspan(runOffset, attribute.offset +
                                                                    attribute.length - runOffset))
            : std::vector<MappingRun>{};
    if (runs.empty())
        runs.push_back({1, 0, false});

    const std::uint64_t total = map.totalClusters();
    std::string what;
    switch (random.below(6)) {
    case 0: { // the first run grows far past the volume
        static const std::uint64_t lengths[] = {1ull << 20, 1ull << 32, 1ull << 40, 0};
        std::uint64_t length = lengths[random.below(4)];
        if (length == 0)
            length = total * (2 + random.below(100));
        runs.front().length = length;
        what = "first run length " + hex(length);
        break;
    }
    case 1: { // a huge run after the real ones
        const std::uint64_t length = random.chance(50) ? (1ull << (20 + random.below(21))) : total;
        const std::int64_t lcn = runs.back().sparse ? 0 : runs.back().lcn;
        runs.push_back({length,
                        static_cast<std::int64_t>(random.below(total / 2 + 1)) + (lcn > 0 ? 0 : 1),
                        false});
        what = "appended run of " + hex(length) + " clusters";
        break;
    }
    case 2: { // a run that starts beyond the volume
        const std::int64_t lcn = random.chance(50)
                                     ? static_cast<std::int64_t>(total + random.below(1 << 20))
                                     : static_cast<std::int64_t>(1ull << (32 + random.below(24)));
        const std::size_t at = static_cast<std::size_t>(random.below(runs.size() + 1));
        runs.insert(runs.begin() + static_cast<std::ptrdiff_t>(at),
                    {1 + random.below(64), lcn, false});
        what = "run at LCN " + hex(static_cast<std::uint64_t>(lcn)) + " inserted at " +
               std::to_string(at);
        break;
    }
    case 3: { // every run moved past the end
        const std::uint64_t shift = total + random.below(1ull << 30);
        for (MappingRun& run : runs)
            run.lcn += static_cast<std::int64_t>(shift);
        what = "every run moved by " + hex(shift);
        break;
    }
    case 4: { // many runs, each as large as the volume
        const std::size_t count = 4 + static_cast<std::size_t>(random.below(60));
        runs.clear();
        for (std::size_t i = 0; i < count; ++i)
            runs.push_back({total, static_cast<std::int64_t>(i % 2), false});
        what = std::to_string(count) + " runs of the whole volume";
        break;
    }
    default: { // a negative step below cluster 0
        runs.push_back(
            {1 + random.below(16), -static_cast<std::int64_t>(1 + random.below(1 << 20)), false});
        what = "run below cluster 0";
        break;
    }
    }
    std::uint64_t clusters = 0;
    for (const MappingRun& run : runs)
        clusters += run.length;
    const std::uint64_t size = random.chance(60) ? clusters * map.clusterSize() : 0;
    const auto runBytes = encodeRunList(runs);
    if (!replaceRunList(scratch, map, record, attribute.offset, runBytes, size)) {
        // No room: overwrite in place what fits.
        const std::uint32_t room = attribute.offset + attribute.length - runOffset;
        std::vector<std::uint8_t> cut(
            runBytes.begin(), runBytes.begin() + std::min<std::size_t>(room, runBytes.size()));
        patchRecord(scratch, map, record, runOffset, cut);
        what += " (cut to the room there)";
    }
    return "record " + std::to_string(record) + " attribute " + hex(attribute.type) + " at " +
           hex(attribute.offset) + ": " + what + (size ? ", sizes " + hex(size) : "") + "\n";
}

} // namespace

std::span<const Corruption> allCorruptions() {
    return kAll;
}

std::string_view nameOf(Corruption kind) {
    switch (kind) {
    case Corruption::MftBytes:
        return "MftBytes";
    case Corruption::IndexBlockBytes:
        return "IndexBlockBytes";
    case Corruption::BootSector:
        return "BootSector";
    case Corruption::PartitionTable:
        return "PartitionTable";
    case Corruption::Bitmap:
        return "Bitmap";
    case Corruption::Truncation:
        return "Truncation";
    case Corruption::ParentLoop:
        return "ParentLoop";
    case Corruption::AttributeLength:
        return "AttributeLength";
    case Corruption::AttributeListSelf:
        return "AttributeListSelf";
    case Corruption::RunsOutsideVolume:
        return "RunsOutsideVolume";
    }
    return "?";
}

void PrintTo(Corruption kind, std::ostream* out) {
    *out << nameOf(kind);
}

std::vector<FixtureImage> imagesFor(Corruption kind) {
    if (kind == Corruption::PartitionTable)
        return {FixtureImage::MbrDisk, FixtureImage::GptDisk};
    if (kind == Corruption::AttributeListSelf)
        return {FixtureImage::Rich};
    std::vector<FixtureImage> images;
    for (const ImageFacts& facts : allImages())
        images.push_back(facts.image);
    return images;
}

std::uint64_t Random::next() {
    m_state += 0x9E3779B97F4A7C15ull;
    std::uint64_t x = m_state;
    x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
    x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
    return x ^ (x >> 31);
}

std::uint64_t Random::below(std::uint64_t bound) {
    return bound == 0 ? 0 : next() % bound;
}

std::string corrupt(Corruption kind, const ImageMap& map, ScratchImage& scratch, Random& random) {
    switch (kind) {
    case Corruption::MftBytes:
        return corruptMftBytes(map, scratch, random);
    case Corruption::IndexBlockBytes:
        return corruptIndexBlocks(map, scratch, random);
    case Corruption::BootSector:
        return corruptBootSector(map, scratch, random);
    case Corruption::PartitionTable:
        return corruptPartitionTable(map, scratch, random);
    case Corruption::Bitmap:
        return corruptBitmap(map, scratch, random);
    case Corruption::Truncation:
        return truncateImage(map, scratch, random);
    case Corruption::ParentLoop:
        return makeParentLoop(map, scratch, random);
    case Corruption::AttributeLength:
        return corruptAttributeLength(map, scratch, random);
    case Corruption::AttributeListSelf:
        return corruptAttributeList(map, scratch, random);
    case Corruption::RunsOutsideVolume:
        return putRunsOutsideVolume(map, scratch, random);
    }
    throw std::invalid_argument("unknown corruption kind");
}

// ---- Aimed patches -------------------------------------------------------------

void patchRecord(ScratchImage& scratch, const ImageMap& map, std::uint64_t record,
                 std::uint32_t byte, std::span<const std::uint8_t> bytes) {
    const auto stored = map.readRecord(scratch.path(), record);
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        const std::uint32_t at = storedByteOffset(stored, byte + static_cast<std::uint32_t>(i));
        if (at >= map.recordSize())
            break;
        scratch.patch(map.recordByteOffset(record, at), bytes.subspan(i, 1));
    }
}

void patchRecordLe(ScratchImage& scratch, const ImageMap& map, std::uint64_t record,
                   std::uint32_t byte, std::uint64_t value, unsigned width) {
    const auto bytes = leBytes(value, width);
    patchRecord(scratch, map, record, byte, bytes);
}

std::vector<std::uint8_t> encodeRunList(const std::vector<MappingRun>& runs) {
    std::vector<std::uint8_t> out;
    std::int64_t previous = 0;
    auto widthOf = [](std::uint64_t value, bool isSigned) {
        unsigned width = 1;
        while (width < 8) {
            if (isSigned) {
                const std::int64_t v = static_cast<std::int64_t>(value);
                const std::int64_t limit = std::int64_t{1} << (8 * width - 1);
                if (v >= -limit && v < limit)
                    break;
            } else if (value < (std::uint64_t{1} << (8 * width))) {
                break;
            }
            ++width;
        }
        return width;
    };
    for (const MappingRun& run : runs) {
        const unsigned lengthWidth = widthOf(run.length, false);
        unsigned offsetWidth = 0;
        std::int64_t delta = 0;
        if (!run.sparse) {
            delta = run.lcn - previous;
            offsetWidth = widthOf(static_cast<std::uint64_t>(delta), true);
            previous = run.lcn;
        }
        out.push_back(static_cast<std::uint8_t>(lengthWidth | (offsetWidth << 4)));
        for (unsigned i = 0; i < lengthWidth; ++i)
            out.push_back(static_cast<std::uint8_t>(run.length >> (8 * i)));
        for (unsigned i = 0; i < offsetWidth; ++i)
            out.push_back(static_cast<std::uint8_t>(static_cast<std::uint64_t>(delta) >> (8 * i)));
    }
    out.push_back(0);
    return out;
}

std::vector<MappingRun> decodeRunList(std::span<const std::uint8_t> bytes) {
    std::vector<MappingRun> runs;
    std::int64_t lcn = 0;
    std::size_t at = 0;
    while (at < bytes.size() && bytes[at] != 0) {
        const unsigned lengthWidth = bytes[at] & 0x0F;
        const unsigned offsetWidth = bytes[at] >> 4;
        if (lengthWidth == 0 || lengthWidth > 8 || offsetWidth > 8 ||
            at + 1 + lengthWidth + offsetWidth > bytes.size())
            break;
        MappingRun run;
        for (unsigned i = 0; i < lengthWidth; ++i)
            run.length |= std::uint64_t{bytes[at + 1 + i]} << (8 * i);
        if (offsetWidth == 0) {
            run.sparse = true;
        } else {
            std::uint64_t delta = 0;
            for (unsigned i = 0; i < offsetWidth; ++i)
                delta |= std::uint64_t{bytes[at + 1 + lengthWidth + i]} << (8 * i);
            if (offsetWidth < 8 && (delta >> (8 * offsetWidth - 1)) & 1)
                delta |= ~0ull << (8 * offsetWidth);
            lcn += static_cast<std::int64_t>(delta);
            run.lcn = lcn;
        }
        runs.push_back(run);
        at += 1 + lengthWidth + offsetWidth;
    }
    return runs;
}

std::vector<RawAttribute> attributesOf(std::span<const std::uint8_t> storedRecord) {
    try {
        return rawAttributes(withFixupsApplied(storedRecord));
    } catch (const std::exception&) {
        return {};
    }
}

bool replaceRunList(ScratchImage& scratch, const ImageMap& map, std::uint64_t record,
                    std::uint32_t attributeOffset, std::span<const std::uint8_t> runBytes,
                    std::uint64_t sizeBytes) {
    const auto stored = map.readRecord(scratch.path(), record);
    auto bytes = withFixupsApplied(stored);
    const std::uint32_t recordSize = map.recordSize();
    const std::uint32_t length = le32(bytes, attributeOffset + kAttrLength);
    const std::uint32_t runOffset = le16(bytes, attributeOffset + kAttrRunListOffset);
    if (runOffset < 0x40 || runOffset > length)
        return false;
    const std::uint32_t newLength =
        static_cast<std::uint32_t>((runOffset + runBytes.size() + 7) / 8 * 8);
    const std::uint32_t inUse = le32(bytes, kBytesInUse);
    const std::uint64_t newInUse = std::uint64_t{inUse} - length + newLength;
    if (inUse > recordSize || attributeOffset + length > inUse || newInUse > recordSize)
        return false;

    std::vector<std::uint8_t> rebuilt(bytes.begin(), bytes.begin() + attributeOffset + runOffset);
    rebuilt.insert(rebuilt.end(), runBytes.begin(), runBytes.end());
    rebuilt.resize(attributeOffset + newLength, 0);
    rebuilt.insert(rebuilt.end(), bytes.begin() + attributeOffset + length, bytes.begin() + inUse);
    rebuilt.resize(recordSize, 0);
    auto store = [&](std::uint32_t at, std::uint64_t value, unsigned width) {
        for (unsigned i = 0; i < width; ++i)
            rebuilt[at + i] = static_cast<std::uint8_t>(value >> (8 * i));
    };
    store(attributeOffset + kAttrLength, newLength, 4);
    store(kBytesInUse, newInUse, 4);
    if (sizeBytes != 0) {
        store(attributeOffset + kAttrAllocatedSize, sizeBytes, 8);
        store(attributeOffset + kAttrDataSize, sizeBytes, 8);
        store(attributeOffset + kAttrInitializedSize, sizeBytes, 8);
    }
    // Protect the strides again: each one's last two bytes go to the update
    // sequence array and the sequence number takes their place.
    const std::uint16_t usaOffset = le16(rebuilt, kUsaOffset);
    const std::uint16_t usaCount = le16(rebuilt, kUsaOffset + 2);
    if (usaCount >= 2 && std::size_t{usaOffset} + 2u * usaCount <= recordSize) {
        for (std::uint32_t i = 1; i < usaCount && i * kFixupStride <= recordSize; ++i) {
            rebuilt[usaOffset + 2 * i] = rebuilt[i * kFixupStride - 2];
            rebuilt[usaOffset + 2 * i + 1] = rebuilt[i * kFixupStride - 1];
            rebuilt[i * kFixupStride - 2] = rebuilt[usaOffset];
            rebuilt[i * kFixupStride - 1] = rebuilt[usaOffset + 1];
        }
    }
    (void)kEndMarker;
    for (std::uint32_t byte = 0; byte < recordSize; ++byte)
        if (rebuilt[byte] != stored[byte])
            scratch.patch(map.recordByteOffset(record, byte), {&rebuilt[byte], 1});
    return true;
}

} // namespace kestrow::test::hardening
