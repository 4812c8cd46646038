// Shared pieces of the Volume tests that run on the fake platform.
#pragma once

#include "support/FakePlatform.h"
#include "support/LogCapture.h"

#include <libKestrow/Volume.h>

#include <kestrow/Platform.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace kestrow::test::volume {

// The arguments of one CreateFileW call.
struct OpenCall {
    std::string path;
    DWORD access;
    DWORD share;
    DWORD disposition;
    DWORD flags;
};

// One DeviceIoControl call.
struct ControlCall {
    DWORD code;
    DWORD inSize;
    DWORD outSize;
};

// The fake platform, with the arguments the library passes recorded, and a
// hook that may answer a device-control request in place of the fake.
class RecordingFake : public FakePlatform {
public:
    // Return a value to answer the request yourself (set the last error
    // and *bytesReturned as Windows would), or nothing to let the fake answer.
    using ControlHook = std::function<std::optional<BOOL>(DWORD code, LPVOID out, DWORD outSize,
                                                          LPDWORD bytesReturned)>;

    HANDLE CreateFileW(LPCWSTR fileName, DWORD desiredAccess, DWORD shareMode,
                       LPSECURITY_ATTRIBUTES securityAttributes, DWORD creationDisposition,
                       DWORD flagsAndAttributes, HANDLE templateFile) override {
        opens.push_back(
            {narrow(fileName), desiredAccess, shareMode, creationDisposition, flagsAndAttributes});
        return FakePlatform::CreateFileW(fileName, desiredAccess, shareMode, securityAttributes,
                                         creationDisposition, flagsAndAttributes, templateFile);
    }

    BOOL GetVolumeInformationW(LPCWSTR rootPathName, LPWSTR volumeNameBuffer, DWORD volumeNameSize,
                               LPDWORD volumeSerialNumber, LPDWORD maximumComponentLength,
                               LPDWORD fileSystemFlags, LPWSTR fileSystemNameBuffer,
                               DWORD fileSystemNameSize) override {
        nameSizes.emplace_back(volumeNameSize, fileSystemNameSize);
        return FakePlatform::GetVolumeInformationW(
            rootPathName, volumeNameBuffer, volumeNameSize, volumeSerialNumber,
            maximumComponentLength, fileSystemFlags, fileSystemNameBuffer, fileSystemNameSize);
    }

    BOOL DeviceIoControl(HANDLE handle, DWORD code, LPVOID inBuffer, DWORD inBufferSize,
                         LPVOID outBuffer, DWORD outBufferSize, LPDWORD bytesReturned,
                         LPOVERLAPPED overlapped) override {
        controls.push_back({code, inBufferSize, outBufferSize});
        if (hook)
            if (std::optional<BOOL> answer = hook(code, outBuffer, outBufferSize, bytesReturned))
                return *answer;
        return FakePlatform::DeviceIoControl(handle, code, inBuffer, inBufferSize, outBuffer,
                                             outBufferSize, bytesReturned, overlapped);
    }

    std::vector<DWORD> outSizesOf(DWORD code) const {
        std::vector<DWORD> sizes;
        for (const ControlCall& call : controls)
            if (call.code == code)
                sizes.push_back(call.outSize);
        return sizes;
    }

    std::vector<OpenCall> opens;
    std::vector<std::pair<DWORD, DWORD>> nameSizes;
    std::vector<ControlCall> controls;
    ControlHook hook;
};

// One line the Volume logger wrote.
struct VolumeLine {
    int priority;
    std::string text;
    bool operator==(const VolumeLine&) const = default;
};

inline void PrintTo(const VolumeLine& line, std::ostream* os) {
    *os << "{" << line.priority << ", \"" << line.text << "\"}";
}

// A fake machine with disk 0 and the NTFS volume C: on it at 1 MiB, 32 MiB
// long (the disk holds only its first 3 MiB: reads past that find nothing) (8192 clusters of 4096
// bytes, 512-byte sectors), installed for the test with diagnostics logged. Every test ends with no
// handle open.
class FakeVolumeTest : public ::testing::Test {
protected:
    static constexpr std::uint64_t VOLUME_OFFSET = 1 << 20;
    static constexpr std::uint64_t VOLUME_LENGTH = 32 << 20;

    FakeVolumeTest() : disk(fake.addDisk(0, 4 << 20)), c(fake.addVolume('C')), scope(fake) {
        c.extents = {{0, VOLUME_OFFSET, VOLUME_LENGTH}};
    }

    void TearDown() override { EXPECT_EQ(fake.openHandles(), 0u) << "a handle was left open"; }

    // The lines of the "libKestrow.Volume" logger, in order.
    std::vector<VolumeLine> volumeLines() const {
        std::vector<VolumeLine> lines;
        for (const LoggedLine& line : log.lines())
            if (line.logger == "libKestrow.Volume")
                lines.push_back({line.priority, line.text});
        return lines;
    }

    // An open handle on a device of the fake.
    static VolumeHandle openDevice(const char* path) {
        VolumeHandle handle;
        handle.open(orv::CreateFileOpenArgs(orv::String(path), GENERIC_READ,
                                            FILE_SHARE_READ | FILE_SHARE_WRITE, OPEN_EXISTING, 0));
        return handle;
    }

    RecordingFake fake;
    FakeDisk& disk;
    FakeVolume& c;
    platform::ScopedApi scope;
    LogCapture log;
};

// UTF-8 of a library string, for comparisons with readable literals.
inline std::string utf8(const orv::String& text) {
    return text.toUtf8();
}

} // namespace kestrow::test::volume
