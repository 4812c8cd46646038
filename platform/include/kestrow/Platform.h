// The one operating-system boundary of Kestrow.
//
// Everything above this header (the foundation and the library) calls the
// Windows interfaces it needs through the functions below, never the OS
// itself. Which implementation answers is chosen here:
//   - on Windows with no disks attached: the real Win32 API;
//   - with disks attached (always on other systems): the disk-image backend,
//     which answers the same calls from disk images or block devices;
//   - in tests: whatever Api a test installs with ScopedApi.
// The functions keep the Win32 names, signatures, results and error codes.
#pragma once

#include <kestrow/Export.h>
#include <kestrow/WinTypes.h>

#include <string>

namespace kestrow::platform {

using WideString = std::basic_string<WCHAR>;

// The calls the library makes, with Win32 semantics. Implementations set the
// thread's last error (SetLastError) exactly where Windows would.
class KESTROW_API Api {
public:
    virtual ~Api();

    virtual HANDLE CreateFileW(LPCWSTR fileName, DWORD desiredAccess, DWORD shareMode,
                               LPSECURITY_ATTRIBUTES securityAttributes, DWORD creationDisposition,
                               DWORD flagsAndAttributes, HANDLE templateFile) = 0;
    virtual BOOL CloseHandle(HANDLE handle) = 0;
    virtual BOOL ReadFile(HANDLE handle, LPVOID buffer, DWORD bytesToRead, LPDWORD bytesRead,
                          LPOVERLAPPED overlapped) = 0;
    virtual BOOL SetFilePointerEx(HANDLE handle, LARGE_INTEGER distance, PLARGE_INTEGER newPosition,
                                  DWORD moveMethod) = 0;
    virtual BOOL DeviceIoControl(HANDLE handle, DWORD ioControlCode, LPVOID inBuffer,
                                 DWORD inBufferSize, LPVOID outBuffer, DWORD outBufferSize,
                                 LPDWORD bytesReturned, LPOVERLAPPED overlapped) = 0;
    virtual BOOL GetVolumeInformationW(LPCWSTR rootPathName, LPWSTR volumeNameBuffer,
                                       DWORD volumeNameSize, LPDWORD volumeSerialNumber,
                                       LPDWORD maximumComponentLength, LPDWORD fileSystemFlags,
                                       LPWSTR fileSystemNameBuffer, DWORD fileSystemNameSize) = 0;
    virtual BOOL GetDiskFreeSpaceW(LPCWSTR rootPathName, LPDWORD sectorsPerCluster,
                                   LPDWORD bytesPerSector, LPDWORD numberOfFreeClusters,
                                   LPDWORD totalNumberOfClusters) = 0;
    virtual DWORD GetFileAttributesW(LPCWSTR fileName) = 0;
    virtual BOOL GlobalMemoryStatusEx(LPMEMORYSTATUSEX buffer) = 0;

    // The thread's last error code. The default implementations keep one
    // thread-local value shared by every Api (SetLastError/GetLastError of
    // the OS on Windows).
    virtual DWORD GetLastError();
    virtual void SetLastError(DWORD code);

    // The system's English text for an error code, as FormatMessageW gives it
    // (with its trailing "\r\n").
    virtual WideString errorMessage(DWORD code);
};

// The Api that answers now (never null).
KESTROW_API Api& current();

// Installs an Api for the life of the scope (tests install fakes this way),
// then restores the previous one. Not owned.
class KESTROW_API ScopedApi {
public:
    explicit ScopedApi(Api& api);
    ~ScopedApi();
    ScopedApi(const ScopedApi&) = delete;
    ScopedApi& operator=(const ScopedApi&) = delete;

private:
    Api* m_previous;
};

// Forwarders to current(), named and typed as the Win32 calls.
KESTROW_API HANDLE CreateFileW(LPCWSTR fileName, DWORD desiredAccess, DWORD shareMode,
                               LPSECURITY_ATTRIBUTES securityAttributes, DWORD creationDisposition,
                               DWORD flagsAndAttributes, HANDLE templateFile);
KESTROW_API BOOL CloseHandle(HANDLE handle);
KESTROW_API BOOL ReadFile(HANDLE handle, LPVOID buffer, DWORD bytesToRead, LPDWORD bytesRead,
                          LPOVERLAPPED overlapped);
KESTROW_API BOOL SetFilePointerEx(HANDLE handle, LARGE_INTEGER distance, PLARGE_INTEGER newPosition,
                                  DWORD moveMethod);
KESTROW_API BOOL DeviceIoControl(HANDLE handle, DWORD ioControlCode, LPVOID inBuffer,
                                 DWORD inBufferSize, LPVOID outBuffer, DWORD outBufferSize,
                                 LPDWORD bytesReturned, LPOVERLAPPED overlapped);
KESTROW_API BOOL GetVolumeInformationW(LPCWSTR rootPathName, LPWSTR volumeNameBuffer,
                                       DWORD volumeNameSize, LPDWORD volumeSerialNumber,
                                       LPDWORD maximumComponentLength, LPDWORD fileSystemFlags,
                                       LPWSTR fileSystemNameBuffer, DWORD fileSystemNameSize);
KESTROW_API BOOL GetDiskFreeSpaceW(LPCWSTR rootPathName, LPDWORD sectorsPerCluster,
                                   LPDWORD bytesPerSector, LPDWORD numberOfFreeClusters,
                                   LPDWORD totalNumberOfClusters);
KESTROW_API DWORD GetFileAttributesW(LPCWSTR fileName);
KESTROW_API BOOL GlobalMemoryStatusEx(LPMEMORYSTATUSEX buffer);
KESTROW_API DWORD GetLastError();
KESTROW_API void SetLastError(DWORD code);
KESTROW_API WideString errorMessage(DWORD code);

// Memory straight from the system, for large and long-lived blocks (the
// foundation's pool, big buffers): VirtualAlloc with MEM_RESERVE | MEM_COMMIT
// and PAGE_READWRITE, released with VirtualFree(block, 0, MEM_RELEASE), as on
// Windows; the block is zeroed. Elsewhere it is an anonymous private mapping
// whose whole 2 MiB stretches lie on 2 MiB boundaries and are offered huge
// pages, so that touching them costs one page fault per 2 MiB instead of one
// per 4 KiB. These two always ask the host: they are not part of the Api a
// test installs, and other allocation types or protections are refused
// (ERROR_INVALID_PARAMETER).
KESTROW_API LPVOID VirtualAlloc(LPVOID address, SIZE_T size, DWORD allocationType, DWORD protect);
KESTROW_API BOOL VirtualFree(LPVOID address, SIZE_T size, DWORD freeType);

// Raises the structured exception of a failed foundation assertion. On
// Windows this is RaiseException; elsewhere it throws
// kestrow::platform::StructuredException carrying the code.
[[noreturn]] KESTROW_API void RaiseException(DWORD code, DWORD flags, DWORD numberOfArguments,
                                             const ULONG_PTR* arguments);

// What RaiseException throws where the OS has no structured exceptions.
class KESTROW_API StructuredException {
public:
    explicit StructuredException(DWORD code) : m_code(code) {}
    DWORD code() const { return m_code; }

private:
    DWORD m_code;
};

} // namespace kestrow::platform
