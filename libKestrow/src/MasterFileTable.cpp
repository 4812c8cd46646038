#include <libKestrow/MasterFileTable.h>

#include <kestrow/WinTypes.h>

#include "MasterFileTableInternals.h"

#include <orv/Format.h>
#include <orv/Logger.h>

#include <cstdint>
#include <new>
#include <utility>

using namespace kestrow::mft;

namespace {

constinit orv::LogArea s_log("libKestrow.MasterFileTable");

// The arguments the MFT's drive is opened with: read and write access, shared
// with every other reader and writer, and no unbuffered I/O.
constexpr unsigned int DRIVE_ACCESS = GENERIC_READ | GENERIC_WRITE;
constexpr unsigned int DRIVE_SHARING = FILE_SHARE_READ | FILE_SHARE_WRITE;

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

} // namespace

orv::LogArea& kestrow::mft::logArea() {
    return s_log;
}

// ---------------------------------------------------------------------------
// Opening, sizing, copying
// ---------------------------------------------------------------------------

MasterFileTable::MasterFileTable(Volume& volume)
    : m_initialized(false), m_mftExtents(), m_mftHandle(), m_buffer{{}, 0, 0, 0, 0},
      m_volume(volume), m_numMftRecords(0), m_recordHashTable(32) {
    orv::TraceLogger trace(logArea().traceLogger(), "MasterFileTable()", TRACE_FILE, 45);

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
// Last active record
// ---------------------------------------------------------------------------

const FileReference MasterFileTable::getLastActiveRecord() {
    orv::TraceLogger trace(logArea().traceLogger(), "getLastActiveRecord", TRACE_FILE, 409);
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
    orv::TraceLogger trace(logArea().traceLogger(), "buildRecordMap", TRACE_FILE, 524);
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

bool MasterFileTable::findMftRecordsByPath(const orv::String& path,
                                           orv::Array<FileRecord>& records) {
    orv::TraceLogger trace(logArea().traceLogger(), "findMftRecordsByPath", TRACE_FILE, 551);
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
    orv::TraceLogger trace(logArea().traceLogger(), "findRecordCluster", TRACE_FILE, 438);
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
    orv::TraceLogger trace(logArea().traceLogger(), "findRecordClusterInMft", TRACE_FILE, 467);
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
