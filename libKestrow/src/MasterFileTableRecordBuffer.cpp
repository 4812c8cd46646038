// The record buffer of MasterFileTable: its sizing, its refreshes from the
// drive, and the readers that serve records from it.
#include <libKestrow/MasterFileTable.h>

#include <kestrow/Platform.h>
#include <kestrow/WinTypes.h>

#include "FileRecordInternals.h"
#include "MasterFileTableInternals.h"

#include <cstring>
#include <new>
#include <utility>

using namespace kestrow::mft;

namespace platform = kestrow::platform;

namespace {

constexpr unsigned long long MAX_RECORD_BUFFER_BYTES = 524288000ULL; // 500 MiB

// Sizing gives up after this many halvings of the requested size.
constexpr unsigned int LAST_SIZING_ATTEMPT = 10;

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

} // namespace

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
            if (orv::Logger* logger = logArea().enabled(DIAGNOSTIC))
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

// The summary's name is kept in the table's block of names, which lives as
// long as the table and its entries: a name costs its units alone, with no
// block of its own. The record keeps its own text, whose room the next parse
// into it reuses.
void MasterFileTable::addToRecordHashTable(const FileRecord& record) {
    addSummary(m_recordHashTable, m_keyBound, record.mftIndex().index, [this, &record]() {
        RecordSummary summary;
        summary.mftIndex = record.mftIndex();
        summary.parentMftIndex = record.parentMftIndex();
        summary.name = m_names.keep(record.name());
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
    addToRecordHashTable(record);
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
