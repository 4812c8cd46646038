// The real Win32 API, used on Windows when no disks are attached: every call
// goes straight to the operating system.
#include "Backends.h"

namespace kestrow::platform {

namespace {

class Win32Api final : public Api {
public:
    HANDLE CreateFileW(LPCWSTR fileName, DWORD desiredAccess, DWORD shareMode,
                       LPSECURITY_ATTRIBUTES securityAttributes, DWORD creationDisposition,
                       DWORD flagsAndAttributes, HANDLE templateFile) override {
        return ::CreateFileW(fileName, desiredAccess, shareMode, securityAttributes,
                             creationDisposition, flagsAndAttributes, templateFile);
    }

    BOOL CloseHandle(HANDLE handle) override { return ::CloseHandle(handle); }

    BOOL ReadFile(HANDLE handle, LPVOID buffer, DWORD bytesToRead, LPDWORD bytesRead,
                  LPOVERLAPPED overlapped) override {
        return ::ReadFile(handle, buffer, bytesToRead, bytesRead, overlapped);
    }

    BOOL SetFilePointerEx(HANDLE handle, LARGE_INTEGER distance, PLARGE_INTEGER newPosition,
                          DWORD moveMethod) override {
        return ::SetFilePointerEx(handle, distance, newPosition, moveMethod);
    }

    BOOL DeviceIoControl(HANDLE handle, DWORD ioControlCode, LPVOID inBuffer, DWORD inBufferSize,
                         LPVOID outBuffer, DWORD outBufferSize, LPDWORD bytesReturned,
                         LPOVERLAPPED overlapped) override {
        return ::DeviceIoControl(handle, ioControlCode, inBuffer, inBufferSize, outBuffer,
                                 outBufferSize, bytesReturned, overlapped);
    }

    BOOL GetVolumeInformationW(LPCWSTR rootPathName, LPWSTR volumeNameBuffer, DWORD volumeNameSize,
                               LPDWORD volumeSerialNumber, LPDWORD maximumComponentLength,
                               LPDWORD fileSystemFlags, LPWSTR fileSystemNameBuffer,
                               DWORD fileSystemNameSize) override {
        return ::GetVolumeInformationW(rootPathName, volumeNameBuffer, volumeNameSize,
                                       volumeSerialNumber, maximumComponentLength, fileSystemFlags,
                                       fileSystemNameBuffer, fileSystemNameSize);
    }

    BOOL GetDiskFreeSpaceW(LPCWSTR rootPathName, LPDWORD sectorsPerCluster, LPDWORD bytesPerSector,
                           LPDWORD numberOfFreeClusters, LPDWORD totalNumberOfClusters) override {
        return ::GetDiskFreeSpaceW(rootPathName, sectorsPerCluster, bytesPerSector,
                                   numberOfFreeClusters, totalNumberOfClusters);
    }

    DWORD GetFileAttributesW(LPCWSTR fileName) override { return ::GetFileAttributesW(fileName); }

    BOOL GlobalMemoryStatusEx(LPMEMORYSTATUSEX buffer) override {
        return ::GlobalMemoryStatusEx(buffer);
    }

    WideString errorMessage(DWORD code) override {
        // English first, as the library's logs are in English; a system
        // without the English resources answers in its own language, and
        // failing both, the built-in text stands in.
        const DWORD flags = FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM |
                            FORMAT_MESSAGE_IGNORE_INSERTS;
        for (DWORD language : {static_cast<DWORD>(MAKELANGID(LANG_ENGLISH, SUBLANG_ENGLISH_US)),
                               static_cast<DWORD>(0)}) {
            LPWSTR text = nullptr;
            const DWORD length = ::FormatMessageW(flags, nullptr, code, language,
                                                  reinterpret_cast<LPWSTR>(&text), 0, nullptr);
            if (length != 0 && text != nullptr) {
                WideString message(text, length);
                ::LocalFree(text);
                return message;
            }
        }
        return englishErrorText(code);
    }
};

} // namespace

Api& win32Api() {
    static Win32Api api;
    return api;
}

} // namespace kestrow::platform
