// A platform for the FILE record fuzz targets: one NTFS volume with the
// geometry the input chooses, lying on one disk whose bytes are the input.
//
// Input layout: byte 0 chooses the geometry (bit 0: 4096-byte sectors, else
// 512; bits 1-3: sectors per cluster from {8,1,2,4,16,32,64,128}; bit 4:
// 4096-byte file records, else 1024; bit 7: diagnostics logged); bytes 1-4:
// total clusters; bytes 5-8: the volume's first cluster on the disk; the rest
// is the record buffer, and also the disk that index blocks are read from.
//
// The INDX target gives the disk a second meaning (DiskOrigin::FirstRead):
// its bytes are what the disk holds from the first byte read on, so that a
// seed holds a directory's index blocks whatever clusters its run list names.
#pragma once

#include <kestrow/Platform.h>
#include <kestrow/WinTypes.h>

#include <libKestrow/Volume.h>

#include <orv/Logger.h>

#include <cstdint>
#include <cstring>

namespace kestrow::fuzz {

constexpr std::size_t GEOMETRY_BYTES = 9;

struct Geometry {
    DWORD bytesPerSector = 512;
    DWORD sectorsPerCluster = 8;
    DWORD bytesPerFileRecord = 1024;
    DWORD totalClusters = 0;
    std::uint64_t firstCluster = 0;
    bool diagnostics = false;

    static Geometry from(const std::uint8_t* data) {
        static const DWORD SECTORS_PER_CLUSTER[] = {8, 1, 2, 4, 16, 32, 64, 128};
        Geometry g;
        g.bytesPerSector = (data[0] & 1) ? 4096 : 512;
        g.sectorsPerCluster = SECTORS_PER_CLUSTER[(data[0] >> 1) & 7];
        g.bytesPerFileRecord = (data[0] & 0x10) ? 4096 : 1024;
        g.diagnostics = (data[0] & 0x80) != 0;
        g.totalClusters =
            DWORD(data[1]) | DWORD(data[2]) << 8 | DWORD(data[3]) << 16 | DWORD(data[4]) << 24;
        g.firstCluster = std::uint64_t(data[5]) | std::uint64_t(data[6]) << 8 |
                         std::uint64_t(data[7]) << 16 | std::uint64_t(data[8]) << 24;
        return g;
    }
    DWORD bytesPerCluster() const { return bytesPerSector * sectorsPerCluster; }

    // Keeps the volume small enough that reading every cluster it has stays
    // quick: a run as large as the volume is legitimate input.
    void capVolumeSize() {
        const std::uint64_t maxClusters = (64ULL << 20) / bytesPerCluster();
        if (totalClusters > maxClusters)
            totalClusters = static_cast<DWORD>(maxClusters);
    }
};

// The drive handle postProcess reads index blocks through.
inline void openDrive(VolumeHandle& handle) {
    handle.open(orv::CreateFileOpenArgs(orv::String("\\\\.\\PhysicalDrive0"), GENERIC_READ,
                                        FILE_SHARE_READ | FILE_SHARE_WRITE, OPEN_EXISTING, 0));
}

// Where the disk bytes of the input lie on the disk.
enum class DiskOrigin { Zero, FirstRead };

class FuzzPlatform : public platform::Api {
public:
    FuzzPlatform(const Geometry& geometry, const std::uint8_t* disk, std::size_t size,
                 DiskOrigin origin = DiskOrigin::Zero)
        : m_geometry(geometry), m_disk(disk), m_size(size),
          m_originAtFirstRead(origin == DiskOrigin::FirstRead) {}

    HANDLE CreateFileW(LPCWSTR, DWORD, DWORD, LPSECURITY_ATTRIBUTES, DWORD, DWORD,
                       HANDLE) override {
        m_position = 0;
        return reinterpret_cast<HANDLE>(std::uintptr_t(0x40));
    }
    BOOL CloseHandle(HANDLE) override { return TRUE; }
    BOOL ReadFile(HANDLE, LPVOID buffer, DWORD bytesToRead, LPDWORD bytesRead,
                  LPOVERLAPPED) override {
        if (m_originAtFirstRead && !m_anchored) {
            m_origin = m_position;
            m_anchored = true;
        }
        // Bytes outside the input read as zeros.
        auto* out = static_cast<std::uint8_t*>(buffer);
        std::memset(out, 0, bytesToRead);
        const std::uint64_t skip = m_position < m_origin ? m_origin - m_position : 0;
        if (skip < bytesToRead) {
            const std::uint64_t at = m_position + skip - m_origin;
            if (at < m_size) {
                const std::uint64_t wanted = bytesToRead - skip;
                const std::uint64_t count = wanted < m_size - at ? wanted : m_size - at;
                std::memcpy(out + skip, m_disk + at, static_cast<std::size_t>(count));
            }
        }
        m_position += bytesToRead;
        if (bytesRead != nullptr)
            *bytesRead = bytesToRead;
        return TRUE;
    }
    BOOL SetFilePointerEx(HANDLE, LARGE_INTEGER distance, PLARGE_INTEGER newPosition,
                          DWORD) override {
        m_position = static_cast<std::uint64_t>(distance.QuadPart);
        if (newPosition != nullptr)
            newPosition->QuadPart = distance.QuadPart;
        return TRUE;
    }
    BOOL DeviceIoControl(HANDLE, DWORD code, LPVOID, DWORD, LPVOID outBuffer, DWORD outSize,
                         LPDWORD bytesReturned, LPOVERLAPPED) override {
        if (code == FSCTL_GET_NTFS_VOLUME_DATA && outSize >= sizeof(NTFS_VOLUME_DATA_BUFFER)) {
            NTFS_VOLUME_DATA_BUFFER data;
            std::memset(&data, 0, sizeof data);
            data.BytesPerSector = m_geometry.bytesPerSector;
            data.BytesPerCluster = m_geometry.bytesPerCluster();
            data.BytesPerFileRecordSegment = m_geometry.bytesPerFileRecord;
            data.TotalClusters.QuadPart = m_geometry.totalClusters;
            std::memcpy(outBuffer, &data, sizeof data);
            *bytesReturned = sizeof data;
            return TRUE;
        }
        if (code == IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS &&
            outSize >= sizeof(VOLUME_DISK_EXTENTS)) {
            VOLUME_DISK_EXTENTS extents;
            std::memset(&extents, 0, sizeof extents);
            extents.NumberOfDiskExtents = 1;
            extents.Extents[0].StartingOffset.QuadPart =
                static_cast<LONGLONG>(m_geometry.firstCluster * m_geometry.bytesPerCluster());
            extents.Extents[0].ExtentLength.QuadPart = static_cast<LONGLONG>(
                std::uint64_t(m_geometry.totalClusters) * m_geometry.bytesPerCluster());
            std::memcpy(outBuffer, &extents, sizeof extents);
            *bytesReturned = sizeof extents;
            return TRUE;
        }
        SetLastError(ERROR_INVALID_FUNCTION);
        return FALSE;
    }
    BOOL GetVolumeInformationW(LPCWSTR, LPWSTR name, DWORD nameSize, LPDWORD serial, LPDWORD,
                               LPDWORD, LPWSTR fileSystem, DWORD fileSystemSize) override {
        if (nameSize > 0)
            name[0] = 0;
        if (serial != nullptr)
            *serial = 0x1234;
        const WCHAR ntfs[] = {'N', 'T', 'F', 'S', 0};
        if (fileSystemSize >= 5)
            std::memcpy(fileSystem, ntfs, sizeof ntfs);
        return TRUE;
    }
    BOOL GetDiskFreeSpaceW(LPCWSTR, LPDWORD sectorsPerCluster, LPDWORD bytesPerSector,
                           LPDWORD freeClusters, LPDWORD totalClusters) override {
        *sectorsPerCluster = m_geometry.sectorsPerCluster;
        *bytesPerSector = m_geometry.bytesPerSector;
        *freeClusters = 0;
        *totalClusters = m_geometry.totalClusters;
        return TRUE;
    }
    DWORD GetFileAttributesW(LPCWSTR) override { return INVALID_FILE_ATTRIBUTES; }
    BOOL GlobalMemoryStatusEx(LPMEMORYSTATUSEX) override { return FALSE; }

private:
    Geometry m_geometry;
    const std::uint8_t* m_disk;
    std::size_t m_size;
    bool m_originAtFirstRead;
    bool m_anchored = false;
    std::uint64_t m_origin = 0;
    std::uint64_t m_position = 0;
};

// Diagnostics are formatted (the fuzzer checks that code too) but go nowhere.
inline void discardLine(void*, const char*, int, const char*) {}

class ScopedDiagnostics {
public:
    explicit ScopedDiagnostics(bool on) : m_previous(orv::LogFactory::getPriority()) {
        orv::LogFactory::setSink(&discardLine, nullptr);
        orv::LogFactory::setPriority(on ? orv::LoggerPriority::LP_DEBUG
                                        : orv::LoggerPriority::LP_ERROR);
    }
    ~ScopedDiagnostics() { orv::LogFactory::setPriority(m_previous); }

private:
    orv::LOGGER_PRIORITY m_previous;
};

} // namespace kestrow::fuzz
