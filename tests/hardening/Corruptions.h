// The corruption kinds of the campaign and how each damages a private copy
// of a fixture image. Every choice comes from a seeded generator, so that a
// mutant is made again, byte for byte, from its kind, image and seed.
#pragma once

#include "ImageMap.h"

#include <cstdint>
#include <iosfwd>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kestrow::test::hardening {

enum class Corruption {
    MftBytes,          // random bytes over MFT records (headers, attributes, anywhere)
    IndexBlockBytes,   // random bytes and bad fields in INDX blocks
    BootSector,        // the NTFS boot sector's fields
    PartitionTable,    // MBR entries (extended chains included), GPT header and entries
    Bitmap,            // $Bitmap's clusters
    Truncation,        // the image cut short
    ParentLoop,        // $FILE_NAME parent references that loop
    AttributeLength,   // attribute lengths of 0 or past the record, bad record header sizes
    AttributeListSelf, // $ATTRIBUTE_LIST entries that name their own record, or each other
    RunsOutsideVolume, // run lists whose clusters lie beyond the volume, or huge runs
};

std::span<const Corruption> allCorruptions();
std::string_view nameOf(Corruption kind);
void PrintTo(Corruption kind, std::ostream* out); // for GoogleTest
// The images a kind applies to (the partition table needs a whole disk, the
// attribute lists the rich volume).
std::vector<FixtureImage> imagesFor(Corruption kind);

// splitmix64: small, fast, and the same everywhere.
class Random {
public:
    explicit Random(std::uint64_t seed) : m_state(seed) {}
    std::uint64_t next();
    std::uint64_t below(std::uint64_t bound); // 0 when bound is 0
    bool chance(unsigned percent) { return below(100) < percent; }
    template <class T> const T& pick(const std::vector<T>& items) {
        return items[static_cast<std::size_t>(below(items.size()))];
    }

private:
    std::uint64_t m_state;
};

// Damages `scratch`, a copy of `map`'s image, and says what was done (one
// line per change, for reproducing a failure).
std::string corrupt(Corruption kind, const ImageMap& map, ScratchImage& scratch, Random& random);

// ---- Tools for aimed patches (also used by the guard tests) -------------------

// Writes `bytes` at byte `byte` of record `record` in `scratch`, through the
// update sequence array where a byte is a stride's last two, so the record
// stays whole.
void patchRecord(ScratchImage& scratch, const ImageMap& map, std::uint64_t record,
                 std::uint32_t byte, std::span<const std::uint8_t> bytes);
void patchRecordLe(ScratchImage& scratch, const ImageMap& map, std::uint64_t record,
                   std::uint32_t byte, std::uint64_t value, unsigned width);

// One run of a run list: `length` clusters at `lcn`, or sparse.
struct MappingRun {
    std::uint64_t length = 0;
    std::int64_t lcn = 0;
    bool sparse = false;
};
// Mapping-pairs bytes of `runs` (absolute LCNs), with the end marker.
std::vector<std::uint8_t> encodeRunList(const std::vector<MappingRun>& runs);
// The runs of the mapping pairs at `bytes` (stops at the end marker or a fault).
std::vector<MappingRun> decodeRunList(std::span<const std::uint8_t> bytes);

// Replaces the run list of attribute `attributeOffset` (a non-resident one)
// of record `record` by `runBytes`, moving the attributes after it, and sets
// its allocated, data and initialised sizes to `sizeBytes` when non-zero.
// False when the record has no room.
bool replaceRunList(ScratchImage& scratch, const ImageMap& map, std::uint64_t record,
                    std::uint32_t attributeOffset, std::span<const std::uint8_t> runBytes,
                    std::uint64_t sizeBytes);

// The attributes of a stored record (update sequence applied); empty when
// they cannot be walked.
std::vector<RawAttribute> attributesOf(std::span<const std::uint8_t> storedRecord);

} // namespace kestrow::test::hardening
