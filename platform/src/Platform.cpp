#include "Backends.h"

#include <kestrow/Disks.h>

namespace kestrow::platform {

namespace {

Api* g_installed = nullptr;

} // namespace

Api::~Api() = default;

Api& current() {
    if (g_installed != nullptr)
        return *g_installed;
#if defined(_WIN32)
    attachDisksFromEnvironmentOnce();
    if (!disksAttached())
        return win32Api();
#endif
    return diskImageApi();
}

ScopedApi::ScopedApi(Api& api) : m_previous(g_installed) {
    g_installed = &api;
}

ScopedApi::~ScopedApi() {
    g_installed = m_previous;
}

HANDLE CreateFileW(LPCWSTR fileName, DWORD desiredAccess, DWORD shareMode,
                   LPSECURITY_ATTRIBUTES securityAttributes, DWORD creationDisposition,
                   DWORD flagsAndAttributes, HANDLE templateFile) {
    return current().CreateFileW(fileName, desiredAccess, shareMode, securityAttributes,
                                 creationDisposition, flagsAndAttributes, templateFile);
}

BOOL CloseHandle(HANDLE handle) {
    return current().CloseHandle(handle);
}

BOOL ReadFile(HANDLE handle, LPVOID buffer, DWORD bytesToRead, LPDWORD bytesRead,
              LPOVERLAPPED overlapped) {
    return current().ReadFile(handle, buffer, bytesToRead, bytesRead, overlapped);
}

BOOL SetFilePointerEx(HANDLE handle, LARGE_INTEGER distance, PLARGE_INTEGER newPosition,
                      DWORD moveMethod) {
    return current().SetFilePointerEx(handle, distance, newPosition, moveMethod);
}

BOOL DeviceIoControl(HANDLE handle, DWORD ioControlCode, LPVOID inBuffer, DWORD inBufferSize,
                     LPVOID outBuffer, DWORD outBufferSize, LPDWORD bytesReturned,
                     LPOVERLAPPED overlapped) {
    return current().DeviceIoControl(handle, ioControlCode, inBuffer, inBufferSize, outBuffer,
                                     outBufferSize, bytesReturned, overlapped);
}

BOOL GetVolumeInformationW(LPCWSTR rootPathName, LPWSTR volumeNameBuffer, DWORD volumeNameSize,
                           LPDWORD volumeSerialNumber, LPDWORD maximumComponentLength,
                           LPDWORD fileSystemFlags, LPWSTR fileSystemNameBuffer,
                           DWORD fileSystemNameSize) {
    return current().GetVolumeInformationW(
        rootPathName, volumeNameBuffer, volumeNameSize, volumeSerialNumber, maximumComponentLength,
        fileSystemFlags, fileSystemNameBuffer, fileSystemNameSize);
}

BOOL GetDiskFreeSpaceW(LPCWSTR rootPathName, LPDWORD sectorsPerCluster, LPDWORD bytesPerSector,
                       LPDWORD numberOfFreeClusters, LPDWORD totalNumberOfClusters) {
    return current().GetDiskFreeSpaceW(rootPathName, sectorsPerCluster, bytesPerSector,
                                       numberOfFreeClusters, totalNumberOfClusters);
}

DWORD GetFileAttributesW(LPCWSTR fileName) {
    return current().GetFileAttributesW(fileName);
}

BOOL GlobalMemoryStatusEx(LPMEMORYSTATUSEX buffer) {
    return current().GlobalMemoryStatusEx(buffer);
}

DWORD GetLastError() {
    return current().GetLastError();
}

void SetLastError(DWORD code) {
    current().SetLastError(code);
}

WideString errorMessage(DWORD code) {
    return current().errorMessage(code);
}

} // namespace kestrow::platform
