// Volume: geometry, disk extents, raw sector reads, file extents and the
// cluster bitmap of one mounted volume.
//
// A Volume keeps no device open: every operation that needs the device opens
// it through a shared handle and lets go of it before returning. Failures are
// told by the result and by the messages of the "libKestrow.Volume" logger;
// nothing here throws on a system failure or on a bad answer from the system.
#include <libKestrow/Volume.h>

#include "VolumeControlData.h"

#include <kestrow/Platform.h>

#include <orv/Format.h>
#include <orv/Logger.h>
#include <orv/System.h>

#include <bit>
#include <cstdint>
#include <cstring>
#include <new>

namespace platform = kestrow::platform;
using kestrow::volume::RetrievalPointersView;
using kestrow::volume::VolumeBitmapView;
using kestrow::volume::VolumeDiskExtentsView;

namespace {

orv::LogArea s_log("libKestrow.Volume");

// The trace scopes name this source file as "Volume".
constexpr const char* TRACE_FILE = "Volume";

// The sizes the volume-information call is told (in UTF-16 units).
constexpr DWORD VOLUME_NAME_UNITS = 2048;
constexpr DWORD FILE_SYSTEM_NAME_UNITS = 512;

// Room for 1001 runs (16 + 1001 x 16 bytes) before any heap growth.
constexpr unsigned RETRIEVAL_AREA_BYTES = 16032;
constexpr unsigned RETRIEVAL_GROWTH_FACTOR = 5;
constexpr unsigned RETRIEVAL_MAX_GROWTHS = 10;

// The first bitmap request: the header and 8 bytes (64 clusters) of bits.
constexpr unsigned BITMAP_FIRST_AREA_BYTES = sizeof(VOLUME_BITMAP_BUFFER);
// Added to the bitmap's byte count when the full answer is asked for.
constexpr unsigned long long BITMAP_AREA_EXTRA = sizeof(VOLUME_BITMAP_BUFFER) - 1;

// The largest output size a device-control request can be given.
constexpr unsigned long long MAX_REQUEST_BYTES = 0xFFFFFFFFull;

constexpr double BYTES_TO_GB = 9.313225746154785e-10; // 2^-30

orv::String systemMessage(DWORD code) {
    return orv::System::getSystemErrorMsg(code, false);
}

orv::String decimal(unsigned int value) {
    return orv::ORVValue(value).toString(orv::ORVValue::nilValue());
}

// The text of a zero-terminated UTF-16 answer. The last unit of the area is
// forced to 0 first, so a name that fills the whole area cannot carry the
// scan past its end.
orv::String textOfArea(orv::Char16* area, unsigned int units) {
    area[units - 1] = 0;
    unsigned int length = 0;
    while (area[length] != 0)
        ++length;
    return orv::String(area, length);
}

// Five times the retrieval area. False, with the area unchanged, when the
// request could not be told the grown size or the memory cannot be had: the
// search then ends as it does at the growth limit.
bool growRetrievalArea(orv::Buffer<unsigned char>& area) {
    const unsigned long long grown = area.size() * RETRIEVAL_GROWTH_FACTOR;
    if (grown > MAX_REQUEST_BYTES)
        return false;
    try {
        // Only the bytes the system filled so far are kept; the request
        // rewrites the whole area anyway.
        area.resize(grown, false);
    } catch (const std::bad_alloc&) {
        return false;
    }
    return true;
}

// Appends b x 8 + k for every set bit k (least significant first) of the
// bitmap bytes. Whole zero words are skipped eight bytes at a time: a big,
// mostly free volume costs one test per 64 clusters.
void appendSetBits(const unsigned char* bytes, unsigned long long size,
                   orv::Array<unsigned long long>& clusters) {
    unsigned long long b = 0;
    for (; b + 8 <= size; b += 8) {
        std::uint64_t word;
        std::memcpy(&word, bytes + b, sizeof word);
        if (word == 0)
            continue;
        for (unsigned long long i = b; i < b + 8; ++i)
            for (unsigned bits = bytes[i]; bits != 0; bits &= bits - 1)
                clusters.append(i * 8 + static_cast<unsigned>(std::countr_zero(bits)));
    }
    for (; b < size; ++b)
        for (unsigned bits = bytes[b]; bits != 0; bits &= bits - 1)
            clusters.append(b * 8 + static_cast<unsigned>(std::countr_zero(bits)));
}

// How many bits are set in the bitmap: the count of clusters it will add.
unsigned long long countSetBits(const unsigned char* bytes, unsigned long long size) {
    unsigned long long count = 0;
    unsigned long long b = 0;
    for (; b + 8 <= size; b += 8) {
        std::uint64_t word;
        std::memcpy(&word, bytes + b, sizeof word);
        count += static_cast<unsigned long long>(std::popcount(word));
    }
    for (; b < size; ++b)
        count += static_cast<unsigned long long>(std::popcount(static_cast<unsigned>(bytes[b])));
    return count;
}

bool seekTo(VolumeHandle& handle, unsigned long long offset) {
    LARGE_INTEGER distance;
    distance.QuadPart = static_cast<LONGLONG>(offset);
    return platform::SetFilePointerEx(handle.get(), distance, nullptr, FILE_BEGIN) != FALSE;
}

bool readInto(VolumeHandle& handle, void* data, DWORD byteCount) {
    // An empty read still names a real address: an empty buffer has none,
    // and an implementation may copy through the pointer whatever the count.
    unsigned char nowhere = 0;
    DWORD bytesRead = 0;
    return platform::ReadFile(handle.get(), data != nullptr ? data : &nowhere, byteCount,
                              &bytesRead, nullptr) != FALSE;
}

// The header line of a sector dump.
orv::String sectorHeader(unsigned long long sector, unsigned long long offset) {
    return orv::SprintfFormat("   Sector: %I64Xh, ByteOff: %I64Xh:\n", sector, offset);
}

} // namespace

// ---- Opening and geometry ----------------------------------------------------

Volume::Volume(char driveLetter)
    : m_driveLetter(driveLetter), m_reserved(0), m_sectorsPerCluster(0), m_bytesPerSector(0),
      m_freeClusters(0), m_totalClusters(0), m_bytesPerCluster(0), m_totalSectors(0),
      m_bytesPerFileRecord(0), m_initialized(false) {
    orv::TraceLogger trace(s_log.traceLogger(), "Volume()", TRACE_FILE, 26);

    const orv::String rootPath = orv::SprintfFormat("\\\\.\\%c:\\", m_driveLetter);

    // The areas hold as many units as the call is told, so it cannot write
    // past them.
    orv::Char16 volumeName[VOLUME_NAME_UNITS] = {};
    orv::Char16 fileSystemName[FILE_SYSTEM_NAME_UNITS] = {};

    if (orv::Logger* logger = s_log.enabled(orv::LoggerPriority::LP_DEBUG))
        logger->log(orv::LoggerPriority::LP_DEBUG,
                    orv::LoggerStream()
                        << "37 "
                        << orv::SprintfFormat("Getting volume information for %c", m_driveLetter));

    DWORD serialNumber = 0;
    DWORD maximumComponentLength = 0;
    DWORD fileSystemFlags = 0;
    if (platform::GetVolumeInformationW(rootPath.getUCS2Buffer(), volumeName, VOLUME_NAME_UNITS,
                                        &serialNumber, &maximumComponentLength, &fileSystemFlags,
                                        fileSystemName, FILE_SYSTEM_NAME_UNITS)) {
        m_path = rootPath;
        m_name = textOfArea(volumeName, VOLUME_NAME_UNITS);
        m_fileSystem = textOfArea(fileSystemName, FILE_SYSTEM_NAME_UNITS);
        m_serialNumber = orv::SprintfFormat("%X-%X", static_cast<unsigned int>(serialNumber >> 16),
                                            static_cast<unsigned int>(serialNumber & 0xFFFF));
    }

    VolumeHandle handle = getVolumeHandle();
    if (handle.isValid()) {
        if (orv::Logger* logger = s_log.enabled(orv::LoggerPriority::LP_DEBUG))
            logger->log(orv::LoggerPriority::LP_DEBUG, orv::LoggerStream()
                                                           << "58 "
                                                           << "Getting NTFS volume buffer");

        NTFS_VOLUME_DATA_BUFFER volumeData;
        std::memset(&volumeData, 0, sizeof volumeData);
        DWORD bytesReturned = 0;
        if (platform::DeviceIoControl(handle.get(), FSCTL_GET_NTFS_VOLUME_DATA, nullptr, 0,
                                      &volumeData, sizeof volumeData, &bytesReturned, nullptr)) {
            m_bytesPerFileRecord = volumeData.BytesPerFileRecordSegment;
            m_initialized = true;
        } else {
            const DWORD error = orv::System::getSystemError();
            if (orv::Logger* logger = s_log.enabled(orv::LoggerPriority::LP_ERROR))
                logger->log(orv::LoggerPriority::LP_ERROR,
                            orv::LoggerStream()
                                << "76 "
                                << "Failed to get volume data: " << systemMessage(error));
        }
    }

    if (orv::Logger* logger = s_log.enabled(orv::LoggerPriority::LP_DEBUG))
        logger->log(orv::LoggerPriority::LP_DEBUG,
                    orv::LoggerStream() << "80 "
                                        << "Getting free disk space for " << rootPath);

    // The answers are 32-bit (DWORD, unsigned long on Windows) and land in
    // DWORDs first; the two cluster counts, zeroed above, take them as their
    // low 32 bits.
    DWORD sectorsPerCluster = m_sectorsPerCluster;
    DWORD bytesPerSector = m_bytesPerSector;
    DWORD freeClusters = 0;
    DWORD totalClusters = 0;
    const BOOL haveSpace =
        platform::GetDiskFreeSpaceW(rootPath.getUCS2Buffer(), &sectorsPerCluster, &bytesPerSector,
                                    &freeClusters, &totalClusters);
    m_sectorsPerCluster = sectorsPerCluster;
    m_bytesPerSector = bytesPerSector;
    m_freeClusters = freeClusters;
    m_totalClusters = totalClusters;
    if (haveSpace) {
        m_bytesPerCluster = m_sectorsPerCluster * m_bytesPerSector;
        m_totalSectors = static_cast<unsigned long long>(m_sectorsPerCluster) * m_totalClusters;
    }

    handle.release();
}

Volume::Volume(const Volume& other) = default;
Volume::Volume(Volume&& other) noexcept = default;
Volume& Volume::operator=(const Volume& other) = default;
Volume& Volume::operator=(Volume&& other) noexcept = default;
Volume::~Volume() = default;

bool Volume::initialized() const {
    return m_initialized;
}

VolumeHandle Volume::getVolumeHandle() const {
    VolumeHandle handle;
    const orv::String devicePath = orv::SprintfFormat("\\\\?\\%c:", m_driveLetter);
    handle.open(orv::CreateFileOpenArgs(devicePath, GENERIC_READ | GENERIC_WRITE,
                                        FILE_SHARE_READ | FILE_SHARE_WRITE, OPEN_EXISTING, 0));
    return handle;
}

const orv::Array<Volume::VolumeExtent>& Volume::getVolumeExtents() const {
    if (m_volumeExtents.size() >= 1)
        return m_volumeExtents;

    VolumeHandle handle = getVolumeHandle();
    if (!handle.isValid())
        return m_volumeExtents;

    if (orv::Logger* logger = s_log.enabled(orv::LoggerPriority::LP_DEBUG))
        logger->log(orv::LoggerPriority::LP_DEBUG, orv::LoggerStream() << "104 "
                                                                       << "Getting volume extents");

    // Room for exactly one DISK_EXTENT.
    alignas(8) unsigned char area[sizeof(VOLUME_DISK_EXTENTS)];
    bool answered = false;
    for (int attempt = 0; attempt < 2 && !answered; ++attempt) {
        std::memset(area, 0, sizeof area);
        DWORD bytesReturned = 0;
        if (platform::DeviceIoControl(handle.get(), IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS, nullptr,
                                      0, area, sizeof area, &bytesReturned, nullptr)) {
            answered = true;
            break;
        }
        if (attempt != 0 || platform::GetLastError() != ERROR_MORE_DATA ||
            bytesReturned < sizeof area)
            break;
        // The whole answer would need (count - 1) x 24 + 32 bytes, but the
        // retry asks into the same one-extent area on purpose: only volumes
        // on a single disk extent are supported, so a volume spread over
        // several ends with no extents (findVolumeExtent reports it). No
        // block of that size is taken, as the request would never see it.
    }

    if (answered) {
        m_volumeExtents.reset();
        // The area holds one entry; a count above that (which a well-behaved
        // system never answers with success) is not read past the area.
        const VolumeDiskExtentsView answer(area, sizeof area);
        const std::uint32_t count = answer.readableCount();
        for (std::uint32_t i = 0; i < count; ++i)
            m_volumeExtents.append(VolumeExtent{answer.diskNumber(i), answer.startingOffset(i),
                                                answer.extentLength(i)});
    }

    handle.release();
    return m_volumeExtents;
}

const Volume::VolumeExtent* Volume::findVolumeExtent(unsigned long long) const {
    const orv::Array<VolumeExtent>& extents = getVolumeExtents();
    if (extents.size() == 1)
        return &extents[0];
    if (orv::Logger* logger = s_log.enabled(orv::LoggerPriority::LP_DEBUG)) {
        const unsigned int count = extents.size();
        logger->log(orv::LoggerPriority::LP_DEBUG, orv::LoggerStream()
                                                       << "373 "
                                                       << "Received a set of " << decimal(count)
                                                       << " volume extents");
    }
    return nullptr;
}

orv::String Volume::toString() {
    orv::String text;
    text.reserveCapacity(300);

    const double volumeGb =
        static_cast<double>(m_totalSectors * static_cast<unsigned long long>(m_bytesPerSector)) *
        BYTES_TO_GB;
    text.append(orv::SprintfFormat(
        "Volume '%c:'\n   Path                : %ws\n   Name                : %ws\n   Serial "
        "Number       : %ws\n   File System         : %ws\n   Volume Size         : %1.2f "
        "GB\n\n   Sectors per Cluster : %u\n   Bytes per Sector    : %u\n   Bytes per Cluster   : "
        "%u\n   Free clusters       : %u\n   Total clusters      : %u\n",
        m_driveLetter, m_path.getUCS2Buffer(), m_name.getUCS2Buffer(),
        m_serialNumber.getUCS2Buffer(), m_fileSystem.getUCS2Buffer(), volumeGb,
        static_cast<unsigned int>(m_sectorsPerCluster), static_cast<unsigned int>(m_bytesPerSector),
        static_cast<unsigned int>(m_bytesPerCluster), static_cast<unsigned int>(m_freeClusters),
        static_cast<unsigned int>(m_totalClusters)));

    const orv::Array<VolumeExtent>& extents = getVolumeExtents();
    for (unsigned int i = 0; i < extents.size(); ++i) {
        const VolumeExtent& extent = extents[i];
        // Without a sector size (the free-space query failed) the sector
        // figures are shown as 0 rather than dividing by zero.
        const unsigned long long startSector =
            m_bytesPerSector != 0 ? extent.startingOffset / m_bytesPerSector : 0;
        const unsigned long long lengthSectors =
            m_bytesPerSector != 0 ? extent.extentLength / m_bytesPerSector : 0;
        text.append(orv::SprintfFormat(
            "\n  VolumeExtent[%u]:\n     Drive          : \\\\.\\PhysicalDrive%u\n     Start "
            "Sector   : %I64Xh\n     Length Sectors : %I64Xh (%1.2f GBs)\n",
            i, static_cast<unsigned int>(extent.diskNumber), startSector, lengthSectors,
            static_cast<double>(extent.extentLength) * BYTES_TO_GB));
    }
    return text;
}

// ---- Sector I/O --------------------------------------------------------------

bool Volume::readBytesFromSector(VolumeHandle& handle, unsigned long long sector,
                                 unsigned long long byteCount, orv::Buffer<unsigned char>& buffer) {
    orv::TraceLogger trace(s_log.traceLogger(), "readBytesFromSector", TRACE_FILE, 407);

    if (!handle.isValid()) {
        if (orv::Logger* logger = s_log.enabled(orv::LoggerPriority::LP_DEBUG))
            logger->log(orv::LoggerPriority::LP_DEBUG, orv::LoggerStream() << "412 "
                                                                           << "Handle is invalid");
        return false;
    }

    const unsigned long long offset = static_cast<unsigned long long>(m_bytesPerSector) * sector;
    if (!seekTo(handle, offset)) {
        // Taken before anything is logged, so the message names the seek's
        // own failure even if writing the log touches the error code.
        const DWORD error = orv::System::getSystemError();
        if (orv::Logger* logger = s_log.enabled(orv::LoggerPriority::LP_DEBUG)) {
            const long long signedOffset = static_cast<long long>(offset);
            logger->log(orv::LoggerPriority::LP_DEBUG,
                        orv::LoggerStream()
                            << "423 "
                            << "Failed to set file pointer at offset "
                            << orv::ORVValue(signedOffset).toString(orv::ORVValue::nilValue()));
        }
        if (orv::Logger* logger = s_log.enabled(orv::LoggerPriority::LP_DEBUG))
            logger->log(orv::LoggerPriority::LP_DEBUG, orv::LoggerStream()
                                                           << "425 " << systemMessage(error));
        return false;
    }

    // The read is never larger than the caller's buffer: a count beyond it
    // would have the system write past the block. Callers size the buffer
    // first, so this refuses only a caller's mistake.
    const DWORD toRead = static_cast<DWORD>(byteCount);
    if (toRead > buffer.size()) {
        platform::SetLastError(ERROR_INSUFFICIENT_BUFFER);
        return false;
    }
    if (!readInto(handle, buffer.data(), toRead)) {
        const DWORD error = orv::System::getSystemError();
        if (orv::Logger* logger = s_log.enabled(orv::LoggerPriority::LP_DEBUG))
            logger->log(orv::LoggerPriority::LP_DEBUG,
                        orv::LoggerStream() << "437 "
                                            << "Failed to read file: " << systemMessage(error));
        return false;
    }
    return true;
}

bool Volume::readFileBySector(Volume& volume, VolumeHandle& handle, const FileExtent& extent,
                              orv::String& errorText) {
    if (extent.endSector == extent.startSector)
        return true;

    // An extent that ends before it starts is refused at its first sector:
    // its wrapped length would have the probe walk the whole drive.
    unsigned long long failedAt = extent.startSector;
    bool ok = extent.endSector > extent.startSector;

    const unsigned long long count = extent.endSector - extent.startSector;
    const DWORD clusterBytes = volume.m_sectorsPerCluster * volume.m_bytesPerSector;
    for (unsigned long long i = 0; ok && i < count; ++i) {
        const unsigned long long sector = extent.startSector + i;
        const unsigned long long offset =
            sector * static_cast<unsigned long long>(volume.m_bytesPerSector);
        failedAt = sector;
        if (!handle.isValid() || !seekTo(handle, offset)) {
            ok = false;
            break;
        }
        orv::Buffer<unsigned char> cluster;
        cluster.resize(clusterBytes, true);
        if (!readInto(handle, cluster.data(), clusterBytes)) {
            ok = false;
            break;
        }
        // The dump is built and dropped: the probe is about whether every
        // sector reads, one sector apart, each read a whole cluster long.
        orv::String dump = sectorHeader(sector, offset);
        dump.append(orv::HexDumpFormat(cluster.data(), clusterBytes, 3, 0).toString());
    }

    if (!ok) {
        errorText = orv::SprintfFormat("Failed to read sectors at LBA %012I64Xh", failedAt);
        return false;
    }
    return true;
}

bool Volume::dumpSectors(VolumeHandle& handle, unsigned long long sector, unsigned int sectorCount,
                         unsigned int bytesPerSector, orv::String& text) {
    if (!handle.isValid())
        return false;
    const unsigned long long offset = static_cast<unsigned long long>(bytesPerSector) * sector;
    if (!seekTo(handle, offset))
        return false;

    const DWORD length = bytesPerSector * sectorCount;
    orv::Buffer<unsigned char> block;
    if (length != 0)
        block.resize(length, true);
    if (!readInto(handle, block.data(), length)) {
        block.release();
        return false;
    }

    text = sectorHeader(sector, offset);
    text.append(orv::HexDumpFormat(block.data(), length, 3, 0).toString());
    block.release();
    return true;
}

// ---- File extents and cluster maps -------------------------------------------

bool Volume::getFileExtents(const orv::String& path, orv::Array<FileExtent>& extents) const {
    orv::TraceLogger trace(s_log.traceLogger(), "getFileExtents", TRACE_FILE, 153);

    extents.reset();

    if (!(m_fileSystem == "NTFS") || path.size() < 3 || path[1] != orv::Char16(':') ||
        !orv::FileSystem::exists(path))
        return false;

    if (orv::Logger* logger = s_log.enabled(orv::LoggerPriority::LP_DEBUG))
        logger->log(orv::LoggerPriority::LP_DEBUG, orv::LoggerStream() << "170 "
                                                                       << "Opening file " << path);

    const orv::String devicePath = ORV_LITERAL("\\\\.\\") + path;
    // The handle serves only for the control request: no read or write access.
    VolumeHandle file;
    file.wrap(platform::CreateFileW(devicePath.getUCS2Buffer(), 0,
                                    FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                                    FILE_FLAG_OVERLAPPED | FILE_FLAG_NO_BUFFERING, nullptr));
    if (!file.isValid()) {
        const DWORD error = platform::GetLastError();
        if (orv::Logger* logger = s_log.enabled(orv::LoggerPriority::LP_ERROR))
            logger->log(orv::LoggerPriority::LP_ERROR,
                        orv::LoggerStream() << "186 "
                                            << "Failed to open " << devicePath
                                            << " (reason: " << systemMessage(error) << ")");
        return false;
    }

    alignas(8) unsigned char area[RETRIEVAL_AREA_BYTES] = {};
    orv::Buffer<unsigned char> output(area, sizeof area);
    STARTING_VCN_INPUT_BUFFER input;
    input.StartingVcn.QuadPart = 0;

    if (orv::Logger* logger = s_log.enabled(orv::LoggerPriority::LP_DEBUG))
        logger->log(orv::LoggerPriority::LP_DEBUG, orv::LoggerStream()
                                                       << "201 "
                                                       << "Getting file extent buffers");

    // Every retry asks again from VCN 0 into a larger area, until all runs
    // fit, rather than fetching them a page at a time.
    bool haveRuns = false;
    unsigned growths = 0;
    for (;;) {
        DWORD bytesReturned = 0;
        if (platform::DeviceIoControl(file.get(), FSCTL_GET_RETRIEVAL_POINTERS, &input,
                                      sizeof input, output.data(),
                                      static_cast<DWORD>(output.size()), &bytesReturned, nullptr)) {
            haveRuns = true;
            break;
        }
        const DWORD error = platform::GetLastError();
        if (bytesReturned == 0 ||
            (error != ERROR_INSUFFICIENT_BUFFER && error != ERROR_MORE_DATA)) {
            if (orv::Logger* logger = s_log.enabled(orv::LoggerPriority::LP_ERROR)) {
                const unsigned int returned = bytesReturned;
                logger->log(orv::LoggerPriority::LP_ERROR,
                            orv::LoggerStream()
                                << "225 "
                                << "FSCTL_GET_RETRIEVAL_POINTERS failed: " << systemMessage(error)
                                << ", bytesRet: " << decimal(returned));
            }
            break;
        }
        // The tenth growth would never be asked into, so the search ends
        // there without taking the memory.
        if (++growths == RETRIEVAL_MAX_GROWTHS || !growRetrievalArea(output))
            break;
    }

    if (orv::Logger* logger = s_log.enabled(orv::LoggerPriority::LP_DEBUG))
        logger->log(orv::LoggerPriority::LP_DEBUG, orv::LoggerStream()
                                                       << "231 "
                                                       << "Calculating file extents");

    const VolumeExtent* volumeExtent = findVolumeExtent(0);
    // Runs cannot be put in sectors without a sector size (the free-space
    // query failed); that volume is treated as having none.
    if (!haveRuns || volumeExtent == nullptr || m_bytesPerSector == 0) {
        if (orv::Logger* logger = s_log.enabled(orv::LoggerPriority::LP_DEBUG))
            logger->log(orv::LoggerPriority::LP_DEBUG, orv::LoggerStream()
                                                           << "258 "
                                                           << "No extents were found");
    } else {
        const unsigned long long base = volumeExtent->startingOffset;
        const unsigned long long bytesPerCluster = m_bytesPerCluster;
        const unsigned long long bytesPerSector = m_bytesPerSector;
        extents.reset();
        // The first run starts at VCN 0: the answer's own StartingVcn is not
        // consulted, every request having asked from 0. An Lcn of -1 (a run
        // with nothing on disk) wraps like any other value.
        const RetrievalPointersView runs(output.data(), output.size());
        const std::uint32_t runCount = runs.readableCount();
        unsigned long long previousNextVcn = 0;
        for (std::uint32_t i = 0; i < runCount; ++i) {
            const unsigned long long byteOffset = runs.lcn(i) * bytesPerCluster + base;
            const unsigned long long clusters = runs.nextVcn(i) - previousNextVcn;
            previousNextVcn = runs.nextVcn(i);
            extents.append(FileExtent{volumeExtent->diskNumber, byteOffset / bytesPerSector,
                                      (clusters * bytesPerCluster + byteOffset) / bytesPerSector});
        }
    }

    output.release();
    file.release();
    return extents.size() >= 1;
}

bool Volume::getVolumeClusterBitmap(orv::Buffer<unsigned char>& bitmap) const {
    VolumeHandle handle = getVolumeHandle();
    if (!handle.isValid())
        return false;

    orv::Buffer<unsigned char> work;
    work.resize(BITMAP_FIRST_AREA_BYTES, true);
    STARTING_LCN_INPUT_BUFFER input;
    input.StartingLcn.QuadPart = 0;

    bool answered = false;
    for (int attempt = 0; attempt < 2; ++attempt) {
        DWORD bytesReturned = 0;
        if (platform::DeviceIoControl(handle.get(), FSCTL_GET_VOLUME_BITMAP, &input, sizeof input,
                                      work.data(), static_cast<DWORD>(work.size()), &bytesReturned,
                                      nullptr)) {
            answered = true;
            break;
        }
        if (attempt != 0 || platform::GetLastError() != ERROR_MORE_DATA)
            return false;
        // The partial answer carries the cluster count. A negative count, or
        // one whose bitmap the request could not be given room for, is not
        // asked for again.
        const long long clusterCount = VolumeBitmapView(work.data(), work.size()).clusterCount();
        if (clusterCount < 0)
            return false;
        const unsigned long long needed =
            (static_cast<unsigned long long>(clusterCount) + 7) / 8 + BITMAP_AREA_EXTRA;
        if (needed > MAX_REQUEST_BYTES)
            return false;
        try {
            work.resize(needed, true);
        } catch (const std::bad_alloc&) {
            return false;
        }
    }
    if (!answered)
        return false;

    const VolumeBitmapView answer(work.data(), work.size());
    const long long clusterCount = answer.clusterCount();
    // A count whose bits the answer does not hold is refused rather than
    // copied from beyond the work area.
    if (clusterCount < 0)
        return false;
    const unsigned long long bitmapBytes = (static_cast<unsigned long long>(clusterCount) + 7) / 8;
    if (bitmapBytes > answer.bitsAvailable())
        return false;

    bitmap.resize(bitmapBytes, true);
    if (bitmapBytes != 0)
        std::memcpy(bitmap.data(), answer.bits(), static_cast<std::size_t>(bitmapBytes));
    work.release();
    handle.release();
    return true;
}

bool Volume::getUsedClusters(orv::Array<unsigned long long>& clusters) const {
    orv::Buffer<unsigned char> bitmap;
    if (!getVolumeClusterBitmap(bitmap))
        return false;

    // One pass counts the set bits so that the array grows once, to the
    // capacity its appends would have reached one doubling at a time.
    const unsigned long long added = countSetBits(bitmap.data(), bitmap.size());
    const unsigned long long total = clusters.size() + added;
    if (added != 0 && total <= orv::Array<unsigned long long>::MAX_CAPACITY)
        clusters.reserve(static_cast<std::uint32_t>(total));
    appendSetBits(bitmap.data(), bitmap.size(), clusters);
    return true;
}
