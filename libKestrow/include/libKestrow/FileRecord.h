// FileRecord: one NTFS FILE record parsed into names, references, times,
// sizes, attribute summaries, data runs and directory index entries, and the
// small value types that identify and summarise records.
#pragma once

#include <kestrow/Export.h>
#include <kestrow/WinTypes.h>

#include <libKestrow/Volume.h>

#include <orv/Array.h>
#include <orv/Buffer.h>
#include <orv/SharedResource.h>
#include <orv/String.h>

#include <type_traits>

class FileRecord;

// The identity of one MFT record, laid out exactly like an NTFS file
// reference so that it can be copied straight from disk: one 64-bit word with
// the record number in the low 48 bits and the reuse count in the high 16.
// Comparisons look at the record number only.
struct KESTROW_API FileReference {
    unsigned long long index : 48;
    unsigned long long sequence : 16;

    static constexpr unsigned long long INDEX_MASK = 0xFFFFFFFFFFFFULL;
    static constexpr unsigned long long SEQUENCE_MASK = 0xFFFFULL;

    constexpr FileReference() noexcept : index(0), sequence(0) {}
    // Higher bits than the fields hold are dropped silently.
    constexpr FileReference(unsigned long long index_, unsigned long long sequence_) noexcept
        : index(index_ & INDEX_MASK), sequence(sequence_ & SEQUENCE_MASK) {}

    FileReference(const FileReference&) noexcept = default;
    FileReference(FileReference&&) noexcept = default;
    FileReference& operator=(const FileReference&) noexcept = default;
    FileReference& operator=(FileReference&&) noexcept = default;

    // The MFT's own record and the root directory's record.
    static constexpr FileReference BASE_MFT_RECORD() noexcept { return FileReference(0, 0); }
    static constexpr FileReference ROOT_MFT_RECORD() noexcept { return FileReference(5, 0); }

    // Both increments step this reference's index (modulo 2^48) and keep its
    // sequence; the value they yield carries sequence 0. (Defined in the
    // library, so that the structure has entries of its own in the DLL's
    // export table whatever the compiler does with inline members.)
    FileReference operator++() noexcept;
    FileReference operator++(int) noexcept;

    bool operator==(const FileReference& other) const noexcept { return index == other.index; }
    bool operator!=(const FileReference& other) const noexcept { return index != other.index; }
    bool operator<(const FileReference& other) const noexcept { return index < other.index; }
    bool operator>(const FileReference& other) const noexcept { return index > other.index; }
    bool operator<=(const FileReference& other) const noexcept { return index <= other.index; }
    bool operator>=(const FileReference& other) const noexcept { return index >= other.index; }

    // Against a plain number the whole 64 bits count: a number at or above
    // 2^48 is greater than every reference.
    bool operator==(unsigned long long n) const noexcept { return value() == n; }
    bool operator!=(unsigned long long n) const noexcept { return value() != n; }
    bool operator<(unsigned long long n) const noexcept { return value() < n; }
    bool operator>(unsigned long long n) const noexcept { return value() > n; }
    bool operator<=(unsigned long long n) const noexcept { return value() <= n; }
    bool operator>=(unsigned long long n) const noexcept { return value() >= n; }

    // Plain index arithmetic in 64 bits (wrapping below zero); the result is
    // a number, not a reference.
    unsigned long long operator+(unsigned long long n) const noexcept { return value() + n; }
    unsigned long long operator-(unsigned long long n) const noexcept { return value() - n; }

private:
    constexpr unsigned long long value() const noexcept { return index; }
};

static_assert(sizeof(FileReference) == 8, "FileReference must be one 64-bit word");
static_assert(std::is_trivially_copyable_v<FileReference>,
              "FileReference must be copyable byte for byte from disk");

// One line of a record's attribute list: the type's name and its residency.
struct KESTROW_API AttributeSummary {
    orv::String name;
    bool resident;

    AttributeSummary() noexcept; // defined in the library, as FileReference's increments
    AttributeSummary(const AttributeSummary&) = default;
    AttributeSummary(AttributeSummary&&) noexcept = default;
    AttributeSummary& operator=(const AttributeSummary&) = default;
    AttributeSummary& operator=(AttributeSummary&&) noexcept = default;
    ~AttributeSummary() = default;
};

// One run of clusters of a non-resident attribute; `start` counts from the
// start of the physical drive.
struct KESTROW_API ClusterRange {
    unsigned long long count;
    unsigned long long start;

    constexpr ClusterRange() noexcept : count(0), start(0) {}
    constexpr ClusterRange(unsigned long long count_, unsigned long long start_) noexcept
        : count(count_), start(start_) {}

    // Defined in the library, as FileReference's increments.
    bool operator==(const ClusterRange& other) const noexcept;
    bool operator!=(const ClusterRange& other) const noexcept { return !(*this == other); }
};

// The compact entry the record map keeps for each record.
struct KESTROW_API RecordSummary {
    FileReference mftIndex;
    FileReference parentMftIndex;
    orv::String name;
    unsigned int fileAttributes;
    unsigned long long creationTime;
    unsigned long long modificationTime;
    unsigned long long lastReadTime;
    unsigned long long dataSize;

    RecordSummary() noexcept
        : mftIndex(), parentMftIndex(), name(), fileAttributes(0), creationTime(0),
          modificationTime(0), lastReadTime(0), dataSize(0) {}
    // Takes every field from the record's accessors.
    explicit RecordSummary(const FileRecord& record);
    RecordSummary(const RecordSummary&) = default;
    RecordSummary(RecordSummary&&) noexcept = default;
    RecordSummary& operator=(const RecordSummary&) = default;
    RecordSummary& operator=(RecordSummary&&) noexcept = default;
    ~RecordSummary() = default;
};

class ResidentAttributeHeader;
class NonResidentAttributeHeader;

// One NTFS FILE record parsed from a buffer. The record is read exactly as
// it lies in the buffer: update sequence fix-ups are not applied.
class KESTROW_API FileRecord {
public:
    // An empty, invalid record bound to no volume; a target for assignment.
    FileRecord();
    // Parses the record in `buffer`, which must hold at least one whole
    // record. Bad data yields an invalid or shortened record, never a throw.
    FileRecord(orv::Buffer<unsigned char>& buffer, const FileReference& reference, Volume& volume);

    FileRecord(const FileRecord& other);
    FileRecord(FileRecord&& other) noexcept;
    FileRecord& operator=(const FileRecord& other);
    FileRecord& operator=(FileRecord&& other) noexcept;
    ~FileRecord();

    // Walks the record's attributes, adding to what the record holds already.
    void processAttributes(orv::Buffer<unsigned char>& buffer);

    // Reads the directory's "$I30" index blocks through `volumeHandle` and
    // adds the record indexes their entries name to the index entries.
    void postProcess(VolumeHandle& volumeHandle);

    bool isValid() const { return m_valid; }
    FileReference mftIndex() const { return m_mftIndex; }
    FileReference parentMftIndex() const { return m_parentMftIndex; }
    orv::String name() const { return m_name; }
    unsigned long long allocatedSize() const { return m_allocatedSize; }
    unsigned long long realSize() const { return m_realSize; }
    unsigned long long dataSize() const { return m_dataSize; }
    unsigned long long getCreationTime() const { return m_creationTime; }
    unsigned long long getModificationTime() const { return m_modificationTime; }
    unsigned long long getLastReadTime() const { return m_lastReadTime; }
    unsigned int getFileAttributes() const { return m_fileAttributes; }

    const orv::Array<AttributeSummary>& getAttributes() const { return m_attributes; }
    const orv::Array<unsigned long long>& getExternalAttributeReferences() const {
        return m_externalAttributeReferences;
    }
    const orv::Array<ClusterRange>& getClusterRanges() const { return m_clusterRanges; }
    const orv::Array<unsigned long long>& getIndexEntries() const { return m_indexEntries; }

private:
    void processResidentAttribute(const ResidentAttributeHeader* attribute,
                                  AttributeSummary& summary);
    void processNonResidentAttribute(const NonResidentAttributeHeader* attribute,
                                     AttributeSummary& summary);

    // The parser's helpers, kept out of the public header.
    friend struct FileRecordParser;

    bool m_valid;
    bool m_longNameFound;
    FileReference m_mftIndex;
    FileReference m_parentMftIndex;
    orv::String m_name;
    orv::Array<AttributeSummary> m_attributes;
    unsigned long long m_allocatedSize;
    unsigned long long m_realSize;
    Volume* m_volume;
    unsigned int m_fileAttributes;
    unsigned long long m_creationTime;
    unsigned long long m_modificationTime;
    unsigned long long m_lastReadTime;
    unsigned long long m_dataSize;
    orv::Array<unsigned long long> m_externalAttributeReferences;
    orv::Array<ClusterRange> m_clusterRanges;
    orv::Array<ClusterRange> m_indexAllocationRanges;
    orv::Array<unsigned long long> m_indexEntries;
};
