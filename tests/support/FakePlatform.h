// A scripted stand-in for the platform boundary, for tests of failure paths
// that real disks rarely show.
//
// Install it for a scope and script it:
//
//     FakePlatform fake;
//     auto& disk = fake.addDisk(0, 64 << 20);          // 64 MiB, 512-byte sectors
//     auto& c = fake.addVolume('C');                   // NTFS defaults, see FakeVolume
//     c.extents = {{0, 1 << 20, 32 << 20}};            // disk 0 at 1 MiB, 32 MiB long
//     fake.addFile('C', "\\$MFT", {{64, 1024}, {96, 5000}}); // two runs
//     kestrow::platform::ScopedApi scope(fake);
//     ... code under test ...
//     EXPECT_EQ(fake.openHandles(), 0u);
//     EXPECT_EQ(fake.deviceIoControlCount(FSCTL_GET_RETRIEVAL_POINTERS), 1u);
//
// What it answers, with the semantics and error codes of Windows:
//  - CreateFileW: "\\.\X:" and "\\?\X:" open volume X; "\\.\PhysicalDriveN"
//    disk N; "\\.\X:\path", "X:\path", "X:path" (relative to the root) open a
//    file added with addFile or a directory added with addDirectory (names
//    compared case-insensitively, "/" accepted for "\"). Missing: the codes
//    Windows gives (ERROR_FILE_NOT_FOUND, ERROR_PATH_NOT_FOUND).
//  - ReadFile / SetFilePointerEx on volume and disk handles: device rules
//    (whole sectors from sector boundaries, else ERROR_INVALID_PARAMETER; a
//    read past the end returns what exists). A volume handle reads the bytes
//    of its first extent's disk at that extent's offset, or `content` when the
//    volume has no extent. Sector size: the disk's (a volume without disk:
//    its bytesPerSector). FILE_END is the disk's size, the first extent's
//    length or the content's size. File handles have no content: ReadFile
//    on them fails with ERROR_INVALID_FUNCTION.
//  - DeviceIoControl: IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS (FakeVolume::
//    extents, any number), FSCTL_GET_NTFS_VOLUME_DATA (ntfsData, or
//    ntfsDataError), FSCTL_GET_RETRIEVAL_POINTERS on file handles (the file's
//    runs; ERROR_MORE_DATA with what fits; ERROR_HANDLE_EOF for none),
//    FSCTL_GET_VOLUME_BITMAP on volume handles (bitmap, bitmapClusters),
//    each replaced by a chosen code when set in the volume or file.
//  - GetVolumeInformationW / GetDiskFreeSpaceW on "X:\" or "\\.\X:\".
//  - GetFileAttributesW on files and directories.
//  - GlobalMemoryStatusEx: 4 GiB available of 16 GiB, or the figures of
//    setAvailablePhysicalMemory, or a chosen failure.
//  - GetLastError/SetLastError: the thread's slot, like every Api.
//  - errorMessage: the real English texts (as the backend gives them).
//
// Failure injection: see the `fail*` members. Every call is logged (calls())
// and counted; handle bookkeeping tells whether every handle was closed.
#pragma once

#include <kestrow/ControlReplies.h>
#include <kestrow/Platform.h>

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace kestrow::test {

struct FakeDisk {
    std::vector<std::uint8_t> bytes;
    std::uint32_t bytesPerSector = 512;
};

struct FakeFile {
    // Runs as (NextVcn, Lcn) pairs from VCN 0; Lcn -1 for a sparse run.
    // Empty: the file has no clusters (resident data): ERROR_HANDLE_EOF.
    std::vector<platform::RetrievalRun> runs;
    DWORD attributes = FILE_ATTRIBUTE_ARCHIVE;
    bool directory = false;
    DWORD openError = 0;      // CreateFileW fails with this code when set
    DWORD retrievalError = 0; // FSCTL_GET_RETRIEVAL_POINTERS fails with this code when set
};

struct FakeVolume {
    // GetVolumeInformationW.
    std::string label = "FAKE";
    DWORD serialNumber = 0x1234ABCD;
    std::string fileSystem = "NTFS";
    DWORD volumeInformationError = 0; // fails with this code when set

    // GetDiskFreeSpaceW.
    DWORD sectorsPerCluster = 8;
    DWORD bytesPerSector = 512;
    DWORD freeClusters = 1000;
    DWORD totalClusters = 8192;
    DWORD freeSpaceError = 0;

    // FSCTL_GET_NTFS_VOLUME_DATA: answered from `ntfsData` (filled by
    // addVolume from the geometry above with 1024-byte records) unless
    // `ntfsDataError` is set (addVolume sets ERROR_INVALID_FUNCTION for a
    // file system other than "NTFS", as Windows answers for FAT).
    NTFS_VOLUME_DATA_BUFFER ntfsData{};
    DWORD ntfsDataError = 0;

    // IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS: 0, 1 or more extents.
    std::vector<platform::DiskExtentInfo> extents;
    DWORD diskExtentsError = 0;

    // FSCTL_GET_VOLUME_BITMAP: one bit per cluster from LCN 0.
    std::vector<std::uint8_t> bitmap;
    std::uint64_t bitmapClusters = 0;
    DWORD bitmapError = 0;

    // The volume's own bytes, used when it has no extent.
    std::vector<std::uint8_t> content;

    DWORD openError = 0;                   // CreateFileW on the volume device fails with this
    std::map<std::string, FakeFile> files; // keyed by upper-cased "\\path"
};

class FakePlatform : public platform::Api {
public:
    FakePlatform();
    ~FakePlatform() override;

    // ---- Scripting --------------------------------------------------------------

    // Adds (or replaces) disk `number` of `size` zero bytes.
    FakeDisk& addDisk(std::uint32_t number, std::size_t size, std::uint32_t bytesPerSector = 512);
    FakeDisk& disk(std::uint32_t number);

    // Adds (or replaces) the volume of a letter, with NTFS defaults and
    // ntfsData filled from its geometry. For another file system set
    // fileSystem and ntfsDataError (or call addFatVolume).
    FakeVolume& addVolume(char letter);
    FakeVolume& addFatVolume(char letter, const std::string& fileSystem = "FAT32");
    FakeVolume& volume(char letter);
    // Recomputes ntfsData from the volume's geometry (after changing it).
    static void fillNtfsData(FakeVolume& volume, DWORD bytesPerFileRecord = 1024);

    // Adds a file ("\\$MFT", "\\Dir\\a.txt", "$MFT" is taken as "\\$MFT").
    FakeFile& addFile(char letter, const std::string& path,
                      std::vector<platform::RetrievalRun> runs = {});
    FakeFile& addDirectory(char letter, const std::string& path);

    // ---- Failure injection ----------------------------------------------------

    // CreateFileW of exactly this path (case-insensitive) fails with `code`.
    void failOpen(const std::string& path, DWORD code);
    // SetFilePointerEx to a position at or after `offset` fails with `code`
    // (on every handle).
    void failSeekAtOrAfter(std::uint64_t offset, DWORD code = ERROR_INVALID_PARAMETER);
    // A ReadFile on disk `number` (also through a volume on it) whose range
    // covers sector `sector` fails with `code`; `times` reads fail, then the
    // sector reads again (0: fails for good).
    void failReadAtSector(std::uint32_t number, std::uint64_t sector, DWORD code = ERROR_CRC,
                          unsigned times = 0);
    // Every ReadFile fails with `code` (0 turns it off).
    void failAllReads(DWORD code);
    // GlobalMemoryStatusEx fails with `code`.
    void failMemoryStatus(DWORD code = ERROR_INVALID_PARAMETER);
    // GlobalMemoryStatusEx reports this much available physical memory (and
    // total = max(total, avail)).
    void setAvailablePhysicalMemory(std::uint64_t bytes, std::uint64_t total = 0);
    // Turns the device rules of ReadFile off (any size, any position).
    void setDeviceRules(bool enforce) { m_deviceRules = enforce; }

    // ---- Observation ----------------------------------------------------------

    // Every call, one line each: "CreateFileW \\.\C:", "ReadFile 4 512",
    // "DeviceIoControl 0x90064" ...
    std::vector<std::string> calls() const;
    std::size_t callCount(const std::string& name) const; // by function name
    std::size_t deviceIoControlCount(DWORD code) const;
    std::size_t createFileCount() const { return callCount("CreateFileW"); }
    std::size_t closeHandleCount() const { return callCount("CloseHandle"); }
    std::size_t readCount() const { return callCount("ReadFile"); }
    // Handles opened and not yet closed.
    std::size_t openHandles() const;
    // The (offset, size) of every ReadFile in order, on device handles.
    std::vector<std::pair<std::uint64_t, std::uint32_t>> reads() const;
    void clearLog();

    // ---- The Api --------------------------------------------------------------

    HANDLE CreateFileW(LPCWSTR fileName, DWORD desiredAccess, DWORD shareMode,
                       LPSECURITY_ATTRIBUTES securityAttributes, DWORD creationDisposition,
                       DWORD flagsAndAttributes, HANDLE templateFile) override;
    BOOL CloseHandle(HANDLE handle) override;
    BOOL ReadFile(HANDLE handle, LPVOID buffer, DWORD bytesToRead, LPDWORD bytesRead,
                  LPOVERLAPPED overlapped) override;
    BOOL SetFilePointerEx(HANDLE handle, LARGE_INTEGER distance, PLARGE_INTEGER newPosition,
                          DWORD moveMethod) override;
    BOOL DeviceIoControl(HANDLE handle, DWORD ioControlCode, LPVOID inBuffer, DWORD inBufferSize,
                         LPVOID outBuffer, DWORD outBufferSize, LPDWORD bytesReturned,
                         LPOVERLAPPED overlapped) override;
    BOOL GetVolumeInformationW(LPCWSTR rootPathName, LPWSTR volumeNameBuffer, DWORD volumeNameSize,
                               LPDWORD volumeSerialNumber, LPDWORD maximumComponentLength,
                               LPDWORD fileSystemFlags, LPWSTR fileSystemNameBuffer,
                               DWORD fileSystemNameSize) override;
    BOOL GetDiskFreeSpaceW(LPCWSTR rootPathName, LPDWORD sectorsPerCluster, LPDWORD bytesPerSector,
                           LPDWORD numberOfFreeClusters, LPDWORD totalNumberOfClusters) override;
    DWORD GetFileAttributesW(LPCWSTR fileName) override;
    BOOL GlobalMemoryStatusEx(LPMEMORYSTATUSEX buffer) override;

private:
    struct Handle {
        enum class Kind { Disk, Volume, File } kind = Kind::Disk;
        std::string path;
        std::uint32_t disk = 0;
        char letter = 0;
        std::string file; // key into FakeVolume::files
        std::uint64_t position = 0;
    };
    struct ReadFailure {
        std::uint32_t disk;
        std::uint64_t sector;
        DWORD code;
        unsigned remaining; // 0: for good
        bool permanent;
    };

    void log(std::string line);
    Handle* findHandle(HANDLE handle);
    std::uint64_t deviceSize(const Handle& handle) const;
    bool resolve(const std::string& path, Handle& handle, DWORD& error);
    BOOL readDevice(Handle& handle, LPVOID buffer, DWORD bytesToRead, LPDWORD bytesRead);
    FakeVolume* volumeOfRoot(LPCWSTR rootPathName, DWORD& error);

    mutable std::recursive_mutex m_mutex;
    std::map<std::uint32_t, FakeDisk> m_disks;
    std::map<char, FakeVolume> m_volumes;
    std::map<std::uintptr_t, Handle> m_handles;
    std::uintptr_t m_nextHandle = 0x100;
    std::map<std::string, DWORD> m_openFailures;
    std::optional<std::pair<std::uint64_t, DWORD>> m_seekFailure;
    std::vector<ReadFailure> m_readFailures;
    DWORD m_allReadsFail = 0;
    DWORD m_memoryStatusError = 0;
    std::optional<std::uint64_t> m_availablePhysical;
    std::uint64_t m_totalPhysical = 0;
    bool m_deviceRules = true;
    std::vector<std::string> m_calls;
    std::vector<std::pair<std::uint64_t, std::uint32_t>> m_reads;
};

// UTF-16 text of a UTF-8 string as the Api takes it.
platform::WideString widen(const std::string& text);
std::string narrow(const WCHAR* text);

} // namespace kestrow::test
