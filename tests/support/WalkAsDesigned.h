// The record parser's walks read plainly, as they are designed, for tests to
// compare the library with: the attribute walk and its attribute handlers, the
// run-list decoder, the $ATTRIBUTE_LIST and index entry walks, the index
// blocks of a directory, the merge of extension records and the parent path
// walk. Written from the format as the library is meant to read it (no
// fix-ups applied), not from the library's code: every field is read with a
// check, and the first read outside the bytes ends the walk that made it,
// with everything before it kept. Nothing else is guarded, so where this
// reading and the library differ, the library's guards cut too early or too
// late.
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <vector>

namespace kestrow::test::designed {

struct Geometry {
    std::uint32_t bytesPerSector = 512;
    std::uint32_t bytesPerCluster = 4096;
    std::uint32_t bytesPerFileRecord = 1024;
    std::uint64_t totalClusters = 0;
    std::uint64_t baseCluster = 0; // the volume's first cluster on its drive
};

struct Range {
    std::uint64_t count = 0;
    std::uint64_t start = 0;
    bool operator==(const Range&) const = default;
};

// What a parse yields, field for field as FileRecord exposes it.
struct Record {
    bool valid = false;
    bool longNameFound = false;
    std::uint64_t ownIndex = 0;
    std::u16string name;
    std::uint64_t parent = 0;
    std::uint64_t parentSequence = 0;
    std::uint32_t fileAttributes = 0;
    std::uint64_t creation = 0, modification = 0, lastRead = 0;
    std::uint64_t allocatedSize = 0, realSize = 0, dataSize = 0;
    std::vector<std::pair<std::string, bool>> attributes; // name, resident
    std::vector<std::uint64_t> external;
    std::vector<Range> clusterRanges, indexAllocationRanges;
    std::vector<std::uint64_t> indexEntries;
    bool operator==(const Record&) const = default;
};

// processAttributes: walks one FILE record's bytes into `record` (adding to
// what it holds).
void walkAttributes(Record& record, std::span<const std::uint8_t> bytes, const Geometry& geometry);

// A new record: the constructor's parse.
Record parseRecord(std::span<const std::uint8_t> bytes, std::uint64_t ownIndex,
                   const Geometry& geometry);

// Reads `byteCount` bytes from a drive sector; false when the read fails.
using SectorReader =
    std::function<bool(std::uint64_t sector, std::uint64_t byteCount, std::vector<std::uint8_t>&)>;

// The MFT side's merge: when the data size is 0, each external record (as
// listed before the merge) is walked into the record. `recordBytes` gives a
// record's bytes by index, or nothing when it cannot be read.
void mergeExtensionRecords(
    Record& record, const Geometry& geometry,
    const std::function<bool(std::uint64_t index, std::vector<std::uint8_t>&)>& recordBytes);

// postProcess: the index entries of the record's INDX blocks, each range read
// as one buffer.
void addIndexBlockEntries(Record& record, const Geometry& geometry, const SectorReader& read);

// run-list decoding: the non-sparse runs before the end marker or the first fault.
std::vector<Range> decodeRuns(std::span<const std::uint8_t> runBytes, std::uint64_t maxClusters);

// Whether a name has the 8.3 form: at most 12 units, at most two non-empty
// dot-separated pieces of at most 8 and 3, no lower case.
bool isShort(const std::u16string& name);

} // namespace kestrow::test::designed
