// The parts of the FILE record parser that are shared between its source
// files and reached by tests and fuzz targets through the static library.
#pragma once

#include "FileRecordLayout.h"

#include <libKestrow/FileRecord.h>

#include <orv/Array.h>
#include <orv/Buffer.h>
#include <orv/Logger.h>
#include <orv/String.h>

#include <cstdint>
#include <utility>

// How much of a record a parse fills in.
enum class ParseDetail {
    // Everything: what FileRecord's constructor and processAttributes make.
    FULL,
    // Everything but the attribute summaries and the $INDEX_ROOT entries: the
    // parse of the MFT's own whole-table walks, which read only the name, the
    // parent, the times, the flags, the sizes, the extension records and the
    // cluster ranges of a record they never hand out. Whatever it fills in
    // (and every line it logs) is exactly what the full parse gives.
    SUMMARY,
};

// The parser's steps that need the record's members; kept here rather than
// in the public header.
struct FileRecordParser {
    // Makes `record` what FileRecord(buffer, reference, volume) would make,
    // reusing the record's storage: a walk over the whole MFT parses every
    // record into one object, and allocates nothing for records that fit it.
    // With ParseDetail::SUMMARY the parts that detail leaves out stay empty.
    static void reparse(FileRecord& record, orv::Buffer<unsigned char>& buffer,
                        const FileReference& reference, Volume& volume,
                        ParseDetail detail = ParseDetail::FULL);
    // processAttributes at the given detail.
    static void walkAttributes(FileRecord& record, orv::Buffer<unsigned char>& buffer,
                               ParseDetail detail);
    // The resident attribute handler for ParseDetail::SUMMARY: the same
    // effects on the record, without the summary.
    static void processResidentForSummary(FileRecord& record,
                                          const ResidentAttributeHeader& attribute);
    static void collectAttributeListEntries(FileRecord& record, const AttributeView& attribute,
                                            std::uint64_t firstEntry);
    static void processFileName(FileRecord& record, const ResidentAttributeHeader& attribute);
    static void processIndexRoot(FileRecord& record, const ResidentAttributeHeader& attribute);
    // Where a "$I30" $INDEX_ROOT's entries begin in the record and the bound of
    // their walk; a bound of 0 (another name, or an empty index) walks nothing.
    static std::pair<std::uint64_t, std::uint32_t>
    indexRootEntries(const ResidentAttributeHeader& attribute);
    static void addIndexEntry(FileRecord& record, unsigned long long index);
    // The record's name itself, for a caller that takes it over.
    static orv::String& name(FileRecord& record) { return record.m_name; }
};

namespace kestrow::filerecord {

// The logger "libKestrow.FileRecord".
orv::LogArea& logArea();

// The logger when diagnostics (priority 1) are to be written, else null.
inline orv::Logger* diagnosticsLogger() {
    return logArea().enabled(orv::LoggerPriority::LP_DEBUG);
}

// True for a name in the short 8.3 form: at most 12 units; split at "." (empty
// pieces dropped, as orv::String::tokenize does) at most 2 pieces, the first
// of at most 8 units, a second of at most 3; and no unit that upper-casing
// would change.
bool isShortName(const orv::Char16* units, unsigned int count) noexcept;
// The most units a short name has.
constexpr unsigned int MAX_SHORT_NAME = 12;

// A copy of the run list of a non-resident attribute: the bytes from its
// run-list offset to its end; empty (with a log line) when the attribute is
// longer than a file record.
orv::Buffer<unsigned char> extractRunBytes(const NonResidentAttributeHeader& attribute,
                                           unsigned int bytesPerFileRecord);

// Decodes a run list into its non-sparse runs (start not yet shifted to the
// disk), stopping quietly at the end marker and, with a log line, at the first
// fault; `maxClusters` bounds the clusters of all runs, sparse ones included.
orv::Array<ClusterRange> decodeRunList(const unsigned char* runBytes, std::uint64_t size,
                                       std::uint64_t maxClusters);
inline orv::Array<ClusterRange> decodeRunList(const orv::Buffer<unsigned char>& runBytes,
                                              std::uint64_t maxClusters) {
    return decodeRunList(runBytes.data(), runBytes.size(), maxClusters);
}

// The index entry walk of $INDEX_ROOT and of INDX blocks: from the entry at
// `first` in `block`, while the consumed count stays below `bound`, hands the
// 48-bit record index of every entry of at least 82 bytes to `add`. The
// consumed count grows by the length of the entry about to be read, not the
// one just read; that bound is kept as it is. The walk stops at its first
// read outside the block: an entry whose reference and length lie inside is
// taken even when its key runs past the end, and the walk ends when it reads
// the next entry's length there.
template <class Add>
void walkIndexEntries(const ntfs::ByteBlock& block, std::uint64_t first, std::uint64_t bound,
                      Add&& add) {
    using namespace ntfs;
    try {
        std::uint64_t entry = first;
        std::uint64_t length = block.u16(entry + IndexEntry::LENGTH);
        // 64 bits: the sum of 16-bit lengths cannot wrap and restart the walk.
        std::uint64_t consumed = 0;
        while (consumed < bound) {
            if (length < IndexEntry::MIN_LENGTH)
                return;
            add(block.u64(entry + IndexEntry::REFERENCE) & RECORD_INDEX_MASK);
            entry += length;
            length = block.u16(entry + IndexEntry::LENGTH);
            consumed += length;
        }
    } catch (const OutsideTheBlock&) {
        // The walk's first read outside the block: it ends here.
    }
}

} // namespace kestrow::filerecord
