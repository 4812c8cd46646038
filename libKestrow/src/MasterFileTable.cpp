#include <libKestrow/MasterFileTable.h>

#include <kestrow/Platform.h>
#include <kestrow/WinTypes.h>

#include "FileRecordInternals.h"

#include <orv/Format.h>
#include <orv/Logger.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <utility>
#include <vector>

namespace platform = kestrow::platform;

namespace {

orv::LogArea s_log("libKestrow.MasterFileTable");

// Every message of the table, failures included, is a detailed diagnostic:
// the table reports trouble to its caller only through its results.
constexpr orv::LOGGER_PRIORITY DIAGNOSTIC = orv::LoggerPriority::LP_DEBUG;

// The source-file name trace scopes are recorded under.
constexpr const char* TRACE_FILE = "MasterFileTable";

// `line` is the message's fixed number with its blank, e.g. "50 ".
void logText(const char* line, const char* text) {
    if (orv::Logger* logger = s_log.enabled(DIAGNOSTIC))
        logger->log(DIAGNOSTIC, orv::LoggerStream() << line << text);
}

void logNumber(const char* line, const char* text, unsigned long long number) {
    if (orv::Logger* logger = s_log.enabled(DIAGNOSTIC))
        logger->log(DIAGNOSTIC, orv::LoggerStream()
                                    << line << text
                                    << orv::ORVValue(number).toString(orv::ORVValue::nilValue()));
}

constexpr unsigned long long MAX_RECORD_BUFFER_BYTES = 524288000ULL; // 500 MiB

// Sizing gives up after this many halvings of the requested size.
constexpr unsigned int LAST_SIZING_ATTEMPT = 10;

// The arguments the MFT's drive is opened with: read and write access, shared
// with every other reader and writer, and no unbuffered I/O.
constexpr unsigned int DRIVE_ACCESS = GENERIC_READ | GENERIC_WRITE;
constexpr unsigned int DRIVE_SHARING = FILE_SHARE_READ | FILE_SHARE_WRITE;

// Asks the processor to bring the first part of a record (where the header
// and the usual attributes lie) into the cache; a hint only.
void prefetchRecord(const unsigned char* record, unsigned int bytesPerRecord) {
#if defined(__GNUC__) || defined(__clang__)
    constexpr unsigned int CACHE_LINE = 64;
    constexpr unsigned int PREFETCHED_BYTES = 512;
    const unsigned int bytes =
        bytesPerRecord < PREFETCHED_BYTES ? bytesPerRecord : PREFETCHED_BYTES;
    for (unsigned int offset = 0; offset < bytes; offset += CACHE_LINE)
        __builtin_prefetch(record + offset);
#else
    (void)record;
    (void)bytesPerRecord;
#endif
}

unsigned long long sectorsInRun(const Volume::FileExtent& run) {
    return run.endSector - run.startSector + 1;
}

// Guard: the MFT's runs come from its run list on disk, which a damaged volume
// can make claim clusters far past the volume's end (one run of 2^32 clusters
// on an 8 MiB volume). Such slots cannot hold MFT records, yet every
// whole-MFT scan would walk them all. Clusters beyond the volume cannot be
// MFT records, and the MFT cannot be larger than the volume: a run that
// starts outside the volume ends the list, a run that leaves it is cut at
// the volume's end, and so is the run that takes the MFT past the volume's
// size; the runs after a cut are dropped, since their record numbers would
// follow from the bogus length. The runs of a well-formed volume lie inside
// it and add up to less than it, so they are kept exactly as they are.
orv::Array<Volume::FileExtent> mftRunsInsideVolume(const orv::Array<Volume::FileExtent>& runs,
                                                   const Volume& volume) {
    const orv::Array<Volume::VolumeExtent>& extents = volume.getVolumeExtents();
    const unsigned long long bytesPerSector = volume.bytesPerSector();
    unsigned long long volumeSectors = volume.totalSectors();
    if (extents.size() != 1 || bytesPerSector == 0 || volumeSectors == 0)
        return runs; // nothing to measure against
    if (extents[0].extentLength != 0 && extents[0].extentLength / bytesPerSector < volumeSectors)
        volumeSectors = extents[0].extentLength / bytesPerSector;
    const unsigned long long first = extents[0].startingOffset / bytesPerSector;
    const unsigned long long end = first + volumeSectors;

    orv::Array<Volume::FileExtent> kept;
    unsigned long long budget = volumeSectors;
    for (const Volume::FileExtent& run : runs) {
        if (run.startSector < first || run.startSector >= end || run.endSector <= run.startSector)
            break;
        Volume::FileExtent inside = run;
        if (inside.endSector > end)
            inside.endSector = end;
        if (inside.endSector - inside.startSector > budget)
            inside.endSector = inside.startSector + budget;
        budget -= inside.endSector - inside.startSector;
        kept.append(inside);
        if (inside.endSector != run.endSector || budget == 0)
            break;
    }
    return kept;
}

// The root directory's own name.
bool isRootName(const orv::String& name) {
    return name.size() == 1 && name[0] == static_cast<orv::Char16>('.');
}

// One walk up the parent references: the records passed and the path
// pieces gathered from the leaf upward, joined once at the end. Names are not
// copied: they stay in the record hash table, whose entries never move or go
// away while the table lives.
//
// The walk also guards against loops. A damaged or hostile MFT may hold parent
// references that loop without any record being its own parent; stepping
// onto a record already passed means such a loop, and the walk then ends with
// the part gathered so far, as a broken-off walk does. An acyclic chain never
// meets a record twice, so the guard changes no result there.
class ParentWalk {
public:
    explicit ParentWalk(unsigned long long leafIndex) : m_leafIndex(leafIndex) {}

    bool alreadyPassed(unsigned long long index) const {
        if (index == m_leafIndex)
            return true;
        if (m_depth > LINEAR_SCAN_DEPTH)
            return m_deep->passed.contains(index);
        for (std::uint32_t i = 0; i < m_depth; ++i)
            if (m_near[i].index == index)
                return true;
        return false;
    }

    // "name\" in front of what has been gathered.
    void prefixName(unsigned long long index, const orv::String& name) {
        pass(Piece{index, &name});
    }
    // The volume path (which ends in a separator) in front.
    void prefixVolumePath(unsigned long long index) { pass(Piece{index, nullptr}); }

    // The pieces from the top down, then the leaf, measured first and then
    // copied into one block: the path is allocated once.
    orv::String join(const orv::String& volumePath, const orv::String& leaf) const {
        const std::uint64_t length = prefixLength(volumePath) + leaf.size();
        // Guard: a path longer than a string can hold (only a hostile MFT's
        // chain of millions of records) is cut to the leaf's name rather than
        // overflowing the length.
        if (length > MAX_PATH_UNITS)
            return leaf;
        orv::Char16 local[LOCAL_PATH_UNITS];
        std::unique_ptr<orv::Char16[]> heap;
        orv::Char16* units = local;
        if (length > LOCAL_PATH_UNITS) {
            heap.reset(new orv::Char16[length]);
            units = heap.get();
        }
        orv::Char16* out = writePrefix(units, volumePath);
        out = copyUnits(out, leaf);
        return orv::String(units, static_cast<unsigned int>(out - units));
    }

    // The units of the gathered pieces, without the leaf.
    std::uint64_t prefixLength(const orv::String& volumePath) const {
        std::uint64_t length = 0;
        for (std::uint32_t i = 0; i < m_depth; ++i)
            length += pieceLength(piece(i), volumePath);
        return length;
    }
    orv::Char16* writePrefix(orv::Char16* out, const orv::String& volumePath) const {
        for (std::uint32_t i = m_depth; i-- > 0;) {
            const Piece& current = piece(i);
            const orv::String& text = current.name != nullptr ? *current.name : volumePath;
            out = copyUnits(out, text);
            if (current.name != nullptr)
                *out++ = static_cast<orv::Char16>('\\');
        }
        return out;
    }

    std::uint32_t depth() const { return m_depth; }
    unsigned long long passedIndex(std::uint32_t i) const { return piece(i).index; }

    static orv::Char16* copyUnits(orv::Char16* out, const orv::String& text) {
        std::memcpy(out, text.getUCS2Buffer(), std::size_t(text.size()) * sizeof(orv::Char16));
        return out + text.size();
    }

private:
    struct Piece {
        unsigned long long index;
        const orv::String* name; // null: the volume path
    };

    // Real paths are a few levels deep: their pieces stay in the walk itself
    // and the guard scans them. A chain deeper than this (a hostile MFT can
    // make one as long as it has records) goes on in an array, and its indexes
    // are looked up in a set, so the guard stays linear.
    static constexpr std::uint32_t LINEAR_SCAN_DEPTH = 64;
    // Paths up to this many units are put together on the stack.
    static constexpr std::uint64_t LOCAL_PATH_UNITS = 1024;
    static constexpr std::uint64_t MAX_PATH_UNITS = 0xFFFFFFF0ULL;

    static std::uint64_t pieceLength(const Piece& piece, const orv::String& volumePath) {
        return piece.name != nullptr ? piece.name->size() + 1ULL : volumePath.size();
    }

    const Piece& piece(std::uint32_t i) const {
        return i < LINEAR_SCAN_DEPTH ? m_near[i] : m_deep->deeper[i - LINEAR_SCAN_DEPTH];
    }

    void pass(const Piece& piece) {
        if (m_depth < LINEAR_SCAN_DEPTH) {
            m_near[m_depth++] = piece;
            return;
        }
        if (!m_deep) {
            m_deep = std::make_unique<DeepWalk>();
            for (std::uint32_t i = 0; i < LINEAR_SCAN_DEPTH; ++i)
                m_deep->passed.insert(m_near[i].index, true);
        }
        m_deep->deeper.append(piece);
        m_deep->passed.insert(piece.index, true);
        ++m_depth;
    }

    // What only a deep walk needs, made when it gets that deep.
    struct DeepWalk {
        orv::Array<Piece> deeper;
        orv::HashTable<unsigned long long, bool> passed;
    };

    unsigned long long m_leafIndex;
    std::uint32_t m_depth = 0;
    Piece m_near[LINEAR_SCAN_DEPTH];
    std::unique_ptr<DeepWalk> m_deep;
};

} // namespace

// ---------------------------------------------------------------------------
// Opening, sizing, copying
// ---------------------------------------------------------------------------

MasterFileTable::MasterFileTable(Volume& volume)
    : m_initialized(false), m_mftExtents(), m_mftHandle(), m_buffer{{}, 0, 0, 0, 0},
      m_volume(volume), m_numMftRecords(0), m_recordHashTable(32) {
    orv::TraceLogger trace(s_log.traceLogger(), "MasterFileTable()", TRACE_FILE, 45);

    const orv::String mftPath = orv::SprintfFormat("%c:\\$MFT", m_volume.m_driveLetter);
    if (!m_volume.getFileExtents(mftPath, m_mftExtents)) {
        logText("50 ", "Volume has unreadable extents");
        return;
    }
    m_mftExtents = mftRunsInsideVolume(m_mftExtents, m_volume);
    if (m_mftExtents.empty()) {
        logText("50 ", "Volume has unreadable extents");
        return;
    }

    // Every run lies on the drive of the first: the extents come from a volume
    // with a single disk extent.
    const orv::String drivePath =
        orv::SprintfFormat("\\\\.\\PhysicalDrive%u", m_mftExtents[0].diskNumber);
    m_mftHandle.open(
        orv::CreateFileOpenArgs(drivePath, DRIVE_ACCESS, DRIVE_SHARING, OPEN_EXISTING, 0));
    if (!m_mftHandle.isValid()) {
        logText("58 ", "Failed to open MFT handle");
        return;
    }

    // The steps below use operations that require an initialised table.
    m_initialized = true;

    const unsigned long long bufferSize = chooseBufferSize();

    MftExtent firstExtent;
    if (!getExtentForFileRecord(FileReference::BASE_MFT_RECORD(), firstExtent)) {
        logText("101 ", "Failed to get MFT extent");
        m_initialized = false;
        return;
    }
    if (!calculateBufferSize(firstExtent, bufferSize)) {
        logText("107 ", "Failed to calculate buffer size");
        m_initialized = false;
        return;
    }
    if (!getNumMftRecords(m_numMftRecords)) {
        logText("113 ", "Failed to get number of MFT records");
        m_initialized = false;
        return;
    }
    sizeRecordHashTable();
}

// The largest MFT run in bytes, bounded by 500 MiB and by half the free
// physical memory.
unsigned long long MasterFileTable::chooseBufferSize() {
    unsigned long long largestRunSectors = 0;
    for (const Volume::FileExtent& run : m_mftExtents)
        if (sectorsInRun(run) > largestRunSectors)
            largestRunSectors = sectorsInRun(run);
    const unsigned long long largest = largestRunSectors * m_volume.m_bytesPerSector;
    logNumber("78 ", "Buffer size: ", largest);

    unsigned long long cap = MAX_RECORD_BUFFER_BYTES;
    MEMORYSTATUSEX memory = {};
    memory.dwLength = sizeof(MEMORYSTATUSEX);
    if (platform::GlobalMemoryStatusEx(&memory)) {
        const unsigned long long half = memory.ullAvailPhys >> 1;
        if (half < cap) {
            if (orv::Logger* logger = s_log.enabled(DIAGNOSTIC))
                logger->log(DIAGNOSTIC, orv::LoggerStream() << "88 "
                                                            << "Only using "
                                                            << orv::ORVValue(half).toString(
                                                                   orv::ORVValue::nilValue())
                                                            << " bytes of available memory");
            cap = half;
        }
    } else {
        logText("92 ", "Failed to get available memory");
    }

    if (largest > cap) {
        logNumber("96 ", "Limiting max buffer size to ", cap);
        return cap;
    }
    return largest;
}

// Finds the largest buffer that can be allocated and read, halving the size
// after every failure, and primes it with the extent's first records.
bool MasterFileTable::calculateBufferSize(const MftExtent& extent, unsigned long long bufferSize) {
    const unsigned int bytesPerRecord = m_volume.m_bytesPerFileRecord;
    unsigned long long size = bufferSize;
    for (unsigned int attempt = 0;; ++attempt) {
        logNumber("588 ", "Limiting max buffer size to ", size);
        bool allocated = false;
        try {
            orv::Buffer<unsigned char> fresh;
            fresh.resize(size, true);
            m_buffer.data = std::move(fresh);
            allocated = true;
        } catch (const std::bad_alloc&) {
            logText("593 ", "Failed to initialize ByteBuffer - buffer too large");
            size >>= 1;
        }

        if (allocated) {
            m_buffer.maxRecordsInBuffer = size / bytesPerRecord;
            m_buffer.maxBufferSize = size;
            logNumber("601 ", "m_buffer.maxRecordsInBuffer: ", m_buffer.maxRecordsInBuffer);
            logNumber("602 ", "m_buffer.maxBufferSize: ", m_buffer.maxBufferSize);
            m_buffer.startIndex = 0;
            m_buffer.numRecords = m_buffer.maxRecordsInBuffer < extent.recordCount
                                      ? m_buffer.maxRecordsInBuffer
                                      : extent.recordCount;
            logNumber("609 ", "m_buffer.numRecords: ", m_buffer.numRecords);

            // A buffer that holds no whole record is unusable, and halving
            // only makes it smaller: give up now. Reading zero bytes would
            // "succeed" and leave a capacity of 0 records for every later
            // refresh to divide by.
            if (m_buffer.maxRecordsInBuffer == 0)
                return false;

            if (fillBuffer(extent.startSector, m_buffer.numRecords * bytesPerRecord)) {
                logText("620 ", "Found usable buffer size");
                return true;
            }
            logText("615 ", "Failed to read MFT table");
            size >>= 1;
        }

        if (attempt == LAST_SIZING_ATTEMPT)
            return false;
    }
}

// One bucket for every three record slots. Should that many buckets not fit in
// memory (an absurd record count from damaged run data), the small table is
// kept: it grows as entries arrive, and the constructor must not throw.
void MasterFileTable::sizeRecordHashTable() {
    try {
        m_recordHashTable = RecordHashTable(static_cast<unsigned int>(m_numMftRecords / 3));
    } catch (const std::bad_alloc&) {
    }
}

MasterFileTable::MasterFileTable(const MasterFileTable& other)
    : m_initialized(other.m_initialized), m_mftExtents(other.m_mftExtents),
      m_mftHandle(other.m_mftHandle), m_buffer{other.m_buffer.data,
                                               other.m_buffer.maxRecordsInBuffer,
                                               other.m_buffer.maxBufferSize,
                                               other.m_buffer.numRecords,
                                               other.m_buffer.startIndex},
      m_volume(other.m_volume), m_numMftRecords(other.m_numMftRecords),
      m_recordHashTable(other.m_recordHashTable) {}

MasterFileTable::MasterFileTable(MasterFileTable&& other)
    : m_initialized(other.m_initialized), m_mftExtents(std::move(other.m_mftExtents)),
      m_mftHandle(std::move(other.m_mftHandle)), m_buffer{std::move(other.m_buffer.data),
                                                          other.m_buffer.maxRecordsInBuffer,
                                                          other.m_buffer.maxBufferSize,
                                                          other.m_buffer.numRecords,
                                                          other.m_buffer.startIndex},
      m_volume(other.m_volume), m_numMftRecords(other.m_numMftRecords),
      // The foundation's table has no move: the source keeps its entries.
      m_recordHashTable(other.m_recordHashTable), m_pathCache() {}

MasterFileTable::~MasterFileTable() = default;

// ---------------------------------------------------------------------------
// Run lookup and record count
// ---------------------------------------------------------------------------

bool MasterFileTable::getExtentForFileRecord(const FileReference& ref, MftExtent& extent) {
    if (!m_initialized) {
        logText("123 ", "getExtentForFileRecord(): MasterFileTable has not been initialized");
        return false;
    }
    logText("128 ", "Getting MFT extent for file record");

    const unsigned int bytesPerSector = m_volume.m_bytesPerSector;
    const unsigned int bytesPerRecord = m_volume.m_bytesPerFileRecord;
    // A volume that reports no record size holds no records we could address.
    if (bytesPerRecord == 0)
        return false;

    const unsigned long long index = ref.index;
    unsigned long long first = 0;
    for (const Volume::FileExtent& run : m_mftExtents) {
        const unsigned long long count = sectorsInRun(run) * bytesPerSector / bytesPerRecord;
        if (index < first + count) {
            extent.diskNumber = run.diskNumber;
            extent.startSector = run.startSector;
            extent.endSector = run.endSector;
            extent.recordCount = count;
            extent.firstRecord = first;
            return true;
        }
        first += count;
    }
    return false;
}

bool MasterFileTable::getNumMftRecords(unsigned long long& count) {
    if (!m_initialized) {
        logText("277 ", "getNumMftRecords(): MasterFileTable has not been initialized");
        return false;
    }
    if (m_numMftRecords != 0) {
        count = m_numMftRecords;
        return true;
    }
    logText("287 ", "Counting the number of MFT records");

    // Each lookup of the running total lands on the next run.
    unsigned long long total = 0;
    for (std::uint32_t run = 0; run < m_mftExtents.size(); ++run) {
        MftExtent extent;
        if (!getExtentForFileRecord(FileReference(total, 0), extent))
            return false;
        total += extent.recordCount;
    }
    count = total;
    return true;
}

// ---------------------------------------------------------------------------
// Record retrieval
// ---------------------------------------------------------------------------

bool MasterFileTable::isBuffered(unsigned long long index) const {
    return index >= m_buffer.startIndex && index - m_buffer.startIndex < m_buffer.numRecords;
}

// The record's bytes inside the record buffer, or null when its slot lies
// outside the bytes the buffer holds. A live table always holds its whole
// buffered range; the check protects a moved-from table, whose buffer is gone.
const unsigned char* MasterFileTable::bufferedRecord(unsigned long long index) const {
    const unsigned long long bytesPerRecord = m_volume.m_bytesPerFileRecord;
    const unsigned long long offset = (index - m_buffer.startIndex) * bytesPerRecord;
    const unsigned long long size = m_buffer.data.size();
    if (offset > size || size - offset < bytesPerRecord)
        return nullptr;
    return m_buffer.data.data() + offset;
}

// Loads byteCount bytes from `sector` of the drive into the record buffer.
// The bytes are read, never mapped: a read of an image that shrank or of a
// failing medium fails and is logged, where touching a mapped page past the
// end would kill the host with a signal.
bool MasterFileTable::fillBuffer(unsigned long long sector, unsigned long long byteCount) {
    return m_volume.readBytesFromSector(m_mftHandle, sector, byteCount, m_buffer.data);
}

bool MasterFileTable::copyBufferedRecord(unsigned long long index,
                                         orv::Buffer<unsigned char>& buffer) const {
    const unsigned char* record = bufferedRecord(index);
    if (record == nullptr)
        return false;
    buffer.resize(m_volume.m_bytesPerFileRecord, true);
    std::memcpy(buffer.data(), record, m_volume.m_bytesPerFileRecord);
    return true;
}

// Moves the buffered range onto the aligned block of the record's run that
// holds the index. A failed read keeps the new range although the bytes are
// stale: later requests in that range are served from them without a read.
bool MasterFileTable::refreshBuffer(const FileReference& ref) {
    MftExtent extent;
    if (!getExtentForFileRecord(ref, extent))
        return false;

    const unsigned long long capacity = m_buffer.maxRecordsInBuffer;
    // Sizing never leaves an initialised table with room for no record; this
    // protects a moved-from table from dividing by zero.
    if (capacity == 0)
        return false;
    const unsigned long long index = ref.index;
    const unsigned long long chunk = (index - extent.firstRecord) / capacity;
    const unsigned long long fullChunks = extent.recordCount / capacity;
    m_buffer.startIndex = extent.firstRecord + capacity * chunk;
    m_buffer.numRecords = chunk < fullChunks ? capacity : extent.recordCount - capacity * chunk;

    const unsigned long long bytesPerRecord = m_volume.m_bytesPerFileRecord;
    const unsigned long long sector =
        bytesPerRecord * capacity * chunk / m_volume.m_bytesPerSector + extent.startSector;
    logNumber("219 ", "Refreshing buffer from index ", m_buffer.startIndex);

    const unsigned long long byteCount = bytesPerRecord * m_buffer.numRecords;
    // The read lands in the buffer's own bytes; a moved-from table has none.
    if (byteCount > m_buffer.data.size())
        return false;
    return fillBuffer(sector, byteCount);
}

// The record's bytes in the record buffer, refreshing it on a miss.
const unsigned char* MasterFileTable::locateRecord(const FileReference& ref) {
    const unsigned long long index = ref.index;
    if (!isBuffered(index) && !refreshBuffer(ref))
        return nullptr;
    // Walks go in index order through a buffer far larger than the caches:
    // start fetching the next record's attributes while this one is parsed.
    if (isBuffered(index + 1))
        if (const unsigned char* next = bufferedRecord(index + 1))
            prefetchRecord(next, m_volume.m_bytesPerFileRecord);
    return bufferedRecord(index);
}

bool MasterFileTable::getMftRecordBufferDirectly(const FileReference& ref,
                                                 orv::Buffer<unsigned char>& buffer) {
    if (!m_initialized) {
        logText("154 ", "getMftRecordBufferDirectly(): MasterFileTable has not been initialized");
        return false;
    }
    const unsigned long long index = ref.index;
    if (isBuffered(index))
        return copyBufferedRecord(index, buffer);

    MftExtent extent;
    if (!getExtentForFileRecord(ref, extent))
        return false;
    // Whole sectors only: a record that starts inside a sector is read from
    // that sector's first byte.
    const unsigned long long sector =
        (index - extent.firstRecord) * m_volume.m_bytesPerFileRecord / m_volume.m_bytesPerSector +
        extent.startSector;
    logNumber("176 ", "Performing unbuffered read at index ", index);

    // The read fills the buffer without sizing it: make sure one record fits.
    if (buffer.size() < m_volume.m_bytesPerFileRecord)
        buffer.resize(m_volume.m_bytesPerFileRecord, false);
    return m_volume.readBytesFromSector(m_mftHandle, sector, m_volume.m_bytesPerFileRecord, buffer);
}

bool MasterFileTable::getMftRecord(const FileReference& ref, FileRecord& record, bool fullDetail) {
    if (!m_initialized) {
        logText("190 ", "getMftRecordBuffer(): MasterFileTable has not been initialized");
        return false;
    }
    // The record is parsed where it lies in the record buffer, without a copy:
    // the parser only reads it, and nothing moves the buffered range before
    // it is done.
    const unsigned char* bytes = locateRecord(ref);
    if (bytes == nullptr)
        return false;
    orv::Buffer<unsigned char> view(const_cast<unsigned char*>(bytes),
                                    m_volume.m_bytesPerFileRecord);
    // Parsed into the caller's record, reusing its storage: the result is the
    // record a fresh parse would assign. On a volume without a disk extent a
    // non-resident attribute raises the array's assertion mid-parse; there the
    // record is parsed aside first, so that it stays untouched if that happens.
    // (The volume's extents, once known, stay: only while they are unknown is
    // the volume asked again.)
    if (m_volume.m_volumeExtents.empty() && m_volume.getVolumeExtents().empty())
        record = FileRecord(view, ref, m_volume);
    else
        FileRecordParser::reparse(record, view, ref, m_volume,
                                  fullDetail ? ParseDetail::FULL : ParseDetail::SUMMARY);
    // Most records know their data size or name no extension record.
    if (record.dataSize() == 0 && !record.getExternalAttributeReferences().empty())
        mergeExternalAttributes(record, fullDetail);
    return true;
}

namespace {

// First entry wins: a present key is left alone. The summary is made only
// for a new key, right in its bucket. A key above every key the table holds
// cannot be in it: whole-table walks go in index order, and each of their keys
// is added without a lookup.
template <class Make>
void addSummary(MasterFileTable::RecordHashTable& table, unsigned long long& keyBound,
                unsigned long long key, Make&& make) {
    if (table.size() == 0 || (keyBound != 0 && key >= keyBound)) {
        table.insertAbsent(key, make);
        keyBound = key + 1; // keys are 48-bit: this never wraps to 0
        return;
    }
    table.insertWith(key, make);
}

} // namespace

void MasterFileTable::addToRecordHashTable(const FileRecord& record) {
    addSummary(m_recordHashTable, m_keyBound, record.mftIndex().index,
               [&record]() { return RecordSummary(record); });
}

// The record goes no further than the walk that read it: its name moves into
// the summary instead of being copied (the next parse into the record makes
// a new one anyway).
void MasterFileTable::moveToRecordHashTable(FileRecord& record) {
    addSummary(m_recordHashTable, m_keyBound, record.mftIndex().index, [&record]() {
        RecordSummary summary;
        summary.mftIndex = record.mftIndex();
        summary.parentMftIndex = record.parentMftIndex();
        summary.name = std::move(FileRecordParser::name(record));
        summary.fileAttributes = record.getFileAttributes();
        summary.creationTime = record.getCreationTime();
        summary.modificationTime = record.getModificationTime();
        summary.lastReadTime = record.getLastReadTime();
        summary.dataSize = record.dataSize();
        return summary;
    });
}

bool MasterFileTable::getValidMftRecord(const FileReference& ref, FileRecord& record) {
    return readValidRecord(ref, record, true);
}

bool MasterFileTable::readValidRecord(const FileReference& ref, FileRecord& record,
                                      bool fullDetail) {
    if (!m_initialized) {
        logText("310 ", "getValidMftRecord(): MasterFileTable has not been initialized");
        return false;
    }
    if (!getMftRecord(ref, record, fullDetail) || !record.isValid())
        return false;
    if (fullDetail)
        addToRecordHashTable(record);
    else
        moveToRecordHashTable(record);
    return true;
}

void MasterFileTable::processExternalAttributes(FileRecord& record) {
    mergeExternalAttributes(record, true);
}

void MasterFileTable::mergeExternalAttributes(FileRecord& record, bool fullDetail) {
    // A record that knows its data size, or names no extension record, has
    // nothing to gain: checked first so that the common case copies nothing.
    if (record.dataSize() != 0 || record.getExternalAttributeReferences().empty())
        return;
    // Parsing adds references to the record; only those listed now are read.
    const orv::Array<unsigned long long> references(record.getExternalAttributeReferences());
    for (const unsigned long long reference : references) {
        orv::Buffer<unsigned char> buffer;
        buffer.resize(m_volume.m_bytesPerFileRecord, false);
        if (getMftRecordBufferDirectly(FileReference(reference & FileReference::INDEX_MASK, 0),
                                       buffer))
            FileRecordParser::walkAttributes(record, buffer,
                                             fullDetail ? ParseDetail::FULL : ParseDetail::SUMMARY);
    }
}

void MasterFileTable::postProcessFileRecord(FileRecord& record) {
    record.postProcess(m_mftHandle);
}

bool MasterFileTable::getDataAtSector(unsigned long long sector, unsigned long long byteCount,
                                      orv::Buffer<unsigned char>& buffer) {
    // The read does not size the buffer: refuse one it would overflow.
    if (buffer.size() < byteCount)
        return false;
    return m_volume.readBytesFromSector(m_mftHandle, sector, byteCount, buffer);
}

// ---------------------------------------------------------------------------
// Last active record
// ---------------------------------------------------------------------------

const FileReference MasterFileTable::getLastActiveRecord() {
    orv::TraceLogger trace(s_log.traceLogger(), "getLastActiveRecord", TRACE_FILE, 409);
    if (!m_initialized) {
        logText("412 ", "getLastActiveRecord(): MasterFileTable has not been initialized");
        return FileReference(0, 0);
    }
    unsigned long long count = 0;
    if (!getNumMftRecords(count))
        return FileReference(0, 0);

    // Record 0, the MFT's own, is never examined.
    FileRecord record;
    for (unsigned long long index = count - 1; index >= 1 && index < count; --index) {
        if (readValidRecord(FileReference(index, 0), record, false) &&
            !record.getClusterRanges().empty())
            return FileReference(index, 0);
    }
    return FileReference(0, 0);
}

// ---------------------------------------------------------------------------
// Record map and paths
// ---------------------------------------------------------------------------

bool MasterFileTable::buildRecordMap() {
    orv::TraceLogger trace(s_log.traceLogger(), "buildRecordMap", TRACE_FILE, 524);
    if (!m_initialized) {
        logText("527 ", "buildRecordMap(): MasterFileTable has not been initialized");
        return false;
    }
    unsigned long long count = 0;
    if (!getNumMftRecords(count))
        return false;

    FileRecord record;
    for (unsigned long long index = 0; index < count; ++index)
        readValidRecord(FileReference(index, 0), record, false);
    return true;
}

// One step of a parent walk: the summary of record `ref`, from the table or
// else read from disk. A record read from disk joins the table through
// getValidMftRecord, so the step always answers with the table's own entry.
const RecordSummary* MasterFileTable::getParentPath(const FileReference& ref) {
    if (const RecordSummary* entry = m_recordHashTable.lookup(ref.index))
        return entry;
    FileRecord record;
    if (!readValidRecord(ref, record, false))
        return nullptr;
    return m_recordHashTable.lookup(ref.index);
}

orv::String MasterFileTable::findParentPath(const FileRecord& record) {
    if (!m_initialized) {
        logText("325 ", "findParentPath(): MasterFileTable has not been initialized");
        return orv::String();
    }
    const FileReference self = record.mftIndex();
    FileReference parent = record.parentMftIndex();
    if (self == parent)
        return orv::String();

    ParentWalk walk(self.index);
    for (;;) {
        if (walk.alreadyPassed(parent.index))
            break;
        const RecordSummary* current = getParentPath(parent);
        if (current == nullptr || current->name.empty())
            break;
        if (isRootName(current->name)) {
            walk.prefixVolumePath(parent.index);
            break;
        }
        walk.prefixName(parent.index, current->name);
        if (current->mftIndex == current->parentMftIndex)
            break;
        parent = current->parentMftIndex;
    }
    return walk.join(m_volume.m_path, orv::String::EMPTY());
}

namespace {

// The path a walk gathered above one parent, for the next leaf under the same
// parent. A walk depends only on the entries it steps onto and on its leaf,
// which ends it if met: so the path holds for another leaf when every step was
// answered by the table (entries never change once added, and no step read
// the disk or logged), the walk did not end on its own leaf, and the other
// leaf is none of the records it stepped onto.
struct PathAbove {
    bool valid = false;
    unsigned long long parentIndex = 0;
    std::vector<unsigned long long> passed;
    unsigned long long lowestPassed = ~0ULL;
    unsigned long long highestPassed = 0;
    std::vector<orv::Char16> units; // the path above the parent, then the leaf
    std::size_t prefixLength = 0;

    bool holdsFor(unsigned long long parent, unsigned long long leaf) const {
        if (!valid || parent != parentIndex)
            return false;
        // Directories are mostly older than what they hold: a leaf outside
        // the range of the records passed is none of them.
        if (leaf < lowestPassed || leaf > highestPassed)
            return true;
        for (const unsigned long long index : passed)
            if (index == leaf)
                return false;
        return true;
    }

    orv::String pathOf(const orv::String& leaf) {
        const std::size_t length = prefixLength + leaf.size();
        if (units.size() < length)
            units.resize(length);
        std::memcpy(units.data() + prefixLength, leaf.getUCS2Buffer(),
                    std::size_t(leaf.size()) * sizeof(orv::Char16));
        return orv::String(units.data(), static_cast<unsigned int>(length));
    }

    void remember(unsigned long long parent, const ParentWalk& walk,
                  const orv::String& volumePath) {
        valid = false;
        const std::uint64_t length = walk.prefixLength(volumePath);
        // Only ordinary paths are kept; a freak one is simply walked each time.
        if (length > MAX_REMEMBERED_UNITS)
            return;
        passed.clear();
        lowestPassed = ~0ULL;
        highestPassed = 0;
        for (std::uint32_t i = 0; i < walk.depth(); ++i) {
            const unsigned long long index = walk.passedIndex(i);
            passed.push_back(index);
            lowestPassed = index < lowestPassed ? index : lowestPassed;
            highestPassed = index > highestPassed ? index : highestPassed;
        }
        if (units.size() < length)
            units.resize(length);
        walk.writePrefix(units.data(), volumePath);
        prefixLength = static_cast<std::size_t>(length);
        parentIndex = parent;
        valid = true;
    }

    static constexpr std::uint64_t MAX_REMEMBERED_UNITS = 0x10000;
};

} // namespace

// The paths above the parents of the last few walks, one slot per parent
// index modulo the slot count: records come in index order (siblings follow
// each other) or in the record hash table's order (siblings a few entries
// apart).
struct MasterFileTable::ParentPathCache {
    static constexpr unsigned int SLOTS = 64;
    PathAbove slots[SLOTS];

    PathAbove& slotFor(unsigned long long parentIndex) { return slots[parentIndex % SLOTS]; }
};

orv::String MasterFileTable::findParentPath(const FileReference& ref) {
    if (!m_initialized) {
        logText("356 ", "findParentPath(): MasterFileTable has not been initialized");
        return orv::String();
    }
    // This overload never reads the disk for the record itself.
    const RecordSummary* leaf = m_recordHashTable.lookup(ref.index);
    if (leaf == nullptr)
        return orv::String();
    if (leaf->mftIndex == leaf->parentMftIndex)
        return leaf->name;

    const unsigned long long leafIndex = leaf->mftIndex.index;
    const unsigned long long parentIndex = leaf->parentMftIndex.index;
    if (!m_pathCache)
        m_pathCache = std::make_unique<ParentPathCache>();
    PathAbove& remembered = m_pathCache->slotFor(parentIndex);
    if (remembered.holdsFor(parentIndex, leafIndex))
        return remembered.pathOf(leaf->name);

    // After the root's "." the walk goes on unless the root is its own parent.
    ParentWalk walk(leafIndex);
    FileReference parent = leaf->parentMftIndex;
    bool answeredByTable = true;
    bool endedOnLeaf = false;
    for (;;) {
        if (walk.alreadyPassed(parent.index)) {
            endedOnLeaf = parent.index == leafIndex;
            break;
        }
        const RecordSummary* current = m_recordHashTable.lookup(parent.index);
        if (current == nullptr) {
            answeredByTable = false;
            current = getParentPath(parent);
        }
        if (current == nullptr || current->name.empty())
            break;
        if (isRootName(current->name))
            walk.prefixVolumePath(parent.index);
        else
            walk.prefixName(parent.index, current->name);
        if (current->mftIndex == current->parentMftIndex)
            break;
        parent = current->parentMftIndex;
    }
    if (answeredByTable && !endedOnLeaf)
        remembered.remember(parentIndex, walk, m_volume.m_path);
    else
        remembered.valid = false;
    return walk.join(m_volume.m_path, leaf->name);
}

bool MasterFileTable::findMftRecordsByPath(const orv::String& path,
                                           orv::Array<FileRecord>& records) {
    orv::TraceLogger trace(s_log.traceLogger(), "findMftRecordsByPath", TRACE_FILE, 551);
    if (!m_initialized) {
        logText("554 ", "findMftRecordsByPath(): MasterFileTable has not been initialized");
        return false;
    }
    unsigned long long count = 0;
    if (!getNumMftRecords(count))
        return false;

    // An empty path, or one of separators only, has no last component: the
    // index below then fails the array's own check.
    const orv::Array<orv::String> components = path.tokenize(ORV_LITERAL("\\"));
    const orv::String& wantedName = components[components.size() - 1];

    FileRecord record;
    for (unsigned long long index = 0; index < count; ++index) {
        if (!getValidMftRecord(FileReference(index, 0), record))
            continue;
        if (record.name() != wantedName)
            continue;
        if (findParentPath(record) + record.name() == path)
            records.append(record);
    }
    return true;
}

// ---------------------------------------------------------------------------
// Cluster owners
// ---------------------------------------------------------------------------

bool MasterFileTable::findRecordCluster(unsigned long long cluster, FileReference& ref) {
    orv::TraceLogger trace(s_log.traceLogger(), "findRecordCluster", TRACE_FILE, 438);
    if (!m_initialized) {
        logText("441 ", "findRecordCluster(): MasterFileTable has not been initialized");
        return false;
    }
    const FileReference last = getLastActiveRecord();

    FileRecord record;
    while (ref.index <= last.index) {
        if (readValidRecord(ref, record, false)) {
            for (const ClusterRange& range : record.getClusterRanges())
                if (range.start <= cluster && cluster - range.start < range.count)
                    return true;
        }
        ++ref;
        // Only a last record at the very top of the 48-bit range lets the
        // index wrap; stop there instead of scanning from 0 again forever.
        if (ref.index == 0)
            return false;
    }
    return false;
}

bool MasterFileTable::findRecordClusterInMft(unsigned long long cluster,
                                             orv::Array<FileReference>& refs) {
    orv::TraceLogger trace(s_log.traceLogger(), "findRecordClusterInMft", TRACE_FILE, 467);
    if (!m_initialized) {
        logText("470 ", "findRecordClusterInMft(): MasterFileTable has not been initialized");
        return false;
    }
    const unsigned long long bytesPerSector = m_volume.m_bytesPerSector;
    const unsigned long long bytesPerCluster = m_volume.m_bytesPerCluster;
    const unsigned long long bytesPerRecord = m_volume.m_bytesPerFileRecord;
    // The cluster covers sectors firstSector up to endSector - 1.
    const unsigned long long firstSector = cluster * bytesPerCluster / bytesPerSector;
    const unsigned long long endSector = (cluster + 1) * bytesPerCluster / bytesPerSector;

    if (m_mftExtents.empty())
        return false;

    // Only the first run the cluster touches is used.
    const Volume::FileExtent* run = nullptr;
    unsigned long long recordBase = 0;
    for (const Volume::FileExtent& candidate : m_mftExtents) {
        if (endSector > candidate.startSector && firstSector <= candidate.endSector) {
            run = &candidate;
            break;
        }
        recordBase += sectorsInRun(candidate) * bytesPerSector / bytesPerRecord;
    }
    if (run == nullptr)
        return false;

    const unsigned long long start = run->startSector;
    const unsigned long long offset = firstSector >= start ? firstSector - start : 0;
    const unsigned long long firstRecord = offset * bytesPerSector / bytesPerRecord;
    const unsigned long long span =
        run->endSector < endSector ? run->endSector - start + 1 : endSector - start;
    // The extra record depends on where the cluster starts, not where it
    // ends; the difference is taken without the clamp above.
    const bool startsInsideRecord = (firstSector - start) * bytesPerSector % bytesPerRecord != 0;
    const unsigned long long endRecord =
        span * bytesPerSector / bytesPerRecord + (startsInsideRecord ? 1 : 0);

    for (unsigned long long record = firstRecord; record < endRecord; ++record)
        refs.append(FileReference(recordBase + record, 0));
    return true;
}

bool MftExtent::operator==(const MftExtent& other) const {
    return diskNumber == other.diskNumber && startSector == other.startSector &&
           endSector == other.endSector && recordCount == other.recordCount &&
           firstRecord == other.firstRecord;
}
