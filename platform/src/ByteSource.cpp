#include "ByteSource.h"

#include <kestrow/Disks.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <string>

#if defined(_WIN32)
#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#include <windows.h>
#include <winioctl.h>
#else
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>
#if defined(__linux__)
#include <linux/fs.h>
#endif
#endif

namespace kestrow::platform::disk {

ByteSource::~ByteSource() = default;

DWORD ByteSource::readExactly(std::uint64_t offset, void* buffer, std::size_t length) const {
    const ReadResult result = readAt(offset, buffer, length);
    if (result.error != 0)
        return result.error;
    return result.bytes == length ? 0 : static_cast<DWORD>(ERROR_HANDLE_EOF);
}

namespace {

// A failed read of the medium, in the words Windows uses for it.
DWORD readErrorCode(int err) {
#if defined(_WIN32)
    (void)err;
    return ::GetLastError();
#else
    return err == EIO ? static_cast<DWORD>(ERROR_CRC) : static_cast<DWORD>(ERROR_READ_FAULT);
#endif
}

// Largest single host read; larger requests are split (Linux caps one
// read at a little under 2 GiB anyway).
constexpr std::size_t kMaxHostRead = std::size_t{1} << 30;

// A host file is taken to keep the size it had when opened. When it ends
// before that (another program truncated or rewrote the image, a share
// dropped), the bytes it no longer has are a failed read, never a silent
// short one that would pass for data.
void failIfShrunk(ReadResult& result, std::uint64_t offset, std::size_t length,
                  std::uint64_t size) {
    if (result.error == 0 && result.bytes < length && offset + result.bytes < size)
        result.error = ERROR_HANDLE_EOF;
}

std::mutex g_mediumFailuresMutex;
MediumFailures g_mediumFailures;

// Every failed read of a host file, whoever asked for it, for mediumFailures().
void noteIfFailed(const ReadResult& result, const std::string& path, std::uint64_t offset) {
    if (result.error == 0)
        return;
    std::lock_guard<std::mutex> lock(g_mediumFailuresMutex);
    ++g_mediumFailures.count;
    g_mediumFailures.path = path;
    g_mediumFailures.offset = offset + result.bytes;
    g_mediumFailures.error = result.error;
}

} // namespace

#if defined(_WIN32)

std::shared_ptr<HostFile> HostFile::open(const std::string& path, std::string& error) {
    const int wideLength = ::MultiByteToWideChar(CP_UTF8, 0, path.c_str(), -1, nullptr, 0);
    std::wstring wide(wideLength > 0 ? static_cast<std::size_t>(wideLength) : 1u, L'\0');
    if (wideLength > 0)
        ::MultiByteToWideChar(CP_UTF8, 0, path.c_str(), -1, wide.data(), wideLength);
    HANDLE handle = ::CreateFileW(wide.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                  nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (handle == INVALID_HANDLE_VALUE) {
        error =
            "cannot open " + path + " for reading (error " + std::to_string(::GetLastError()) + ")";
        return nullptr;
    }
    std::shared_ptr<HostFile> file(new HostFile());
    file->m_handle = handle;
    file->m_path = path;
    LARGE_INTEGER size{};
    if (::GetFileSizeEx(handle, &size)) {
        file->m_size = static_cast<std::uint64_t>(size.QuadPart);
    } else {
        GET_LENGTH_INFORMATION length{};
        DWORD returned = 0;
        if (::DeviceIoControl(handle, IOCTL_DISK_GET_LENGTH_INFO, nullptr, 0, &length,
                              sizeof length, &returned, nullptr))
            file->m_size = static_cast<std::uint64_t>(length.Length.QuadPart);
        DISK_GEOMETRY geometry{};
        if (::DeviceIoControl(handle, IOCTL_DISK_GET_DRIVE_GEOMETRY, nullptr, 0, &geometry,
                              sizeof geometry, &returned, nullptr))
            file->m_deviceSectorSize = geometry.BytesPerSector;
    }
    return file;
}

HostFile::~HostFile() {
    if (m_handle != nullptr)
        ::CloseHandle(static_cast<HANDLE>(m_handle));
}

ReadResult HostFile::readAt(std::uint64_t offset, void* buffer, std::size_t length) const {
    ReadResult result;
    auto* out = static_cast<std::uint8_t*>(buffer);
    while (result.bytes < length) {
        const std::uint64_t at = offset + result.bytes;
        OVERLAPPED position{};
        position.Offset = static_cast<DWORD>(at);
        position.OffsetHigh = static_cast<DWORD>(at >> 32);
        const DWORD chunk =
            static_cast<DWORD>(std::min<std::size_t>(length - result.bytes, kMaxHostRead));
        DWORD got = 0;
        if (!::ReadFile(static_cast<HANDLE>(m_handle), out + result.bytes, chunk, &got,
                        &position)) {
            if (::GetLastError() == ERROR_HANDLE_EOF)
                break;
            result.error = readErrorCode(0);
            return result;
        }
        if (got == 0)
            break;
        result.bytes += got;
    }
    failIfShrunk(result, offset, length, m_size);
    noteIfFailed(result, m_path, offset);
    return result;
}

#else

std::shared_ptr<HostFile> HostFile::open(const std::string& path, std::string& error) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        error = "cannot open " + path + " for reading: " + std::strerror(errno);
        return nullptr;
    }
    std::shared_ptr<HostFile> file(new HostFile());
    file->m_fd = fd;
    file->m_path = path;
    struct stat status {};
    if (::fstat(fd, &status) != 0) {
        error = "cannot examine " + path + ": " + std::strerror(errno);
        return nullptr;
    }
    if (S_ISBLK(status.st_mode)) {
#if defined(__linux__)
        std::uint64_t bytes = 0;
        if (::ioctl(fd, BLKGETSIZE64, &bytes) == 0)
            file->m_size = bytes;
        int sectorSize = 0;
        if (::ioctl(fd, BLKSSZGET, &sectorSize) == 0 && sectorSize > 0)
            file->m_deviceSectorSize = static_cast<std::uint32_t>(sectorSize);
#endif
    } else if (S_ISREG(status.st_mode)) {
        file->m_size = static_cast<std::uint64_t>(status.st_size);
    } else {
        error = path + " is neither a regular file nor a block device";
        return nullptr;
    }
    return file;
}

HostFile::~HostFile() {
    if (m_fd >= 0)
        ::close(m_fd);
}

ReadResult HostFile::readAt(std::uint64_t offset, void* buffer, std::size_t length) const {
    ReadResult result;
    auto* out = static_cast<std::uint8_t*>(buffer);
    while (result.bytes < length) {
        const std::size_t chunk = std::min(length - result.bytes, kMaxHostRead);
        const ssize_t got =
            ::pread(m_fd, out + result.bytes, chunk, static_cast<off_t>(offset + result.bytes));
        if (got < 0) {
            if (errno == EINTR)
                continue;
            result.error = readErrorCode(errno);
            return result;
        }
        if (got == 0)
            break;
        result.bytes += static_cast<std::size_t>(got);
    }
    failIfShrunk(result, offset, length, m_size);
    noteIfFailed(result, m_path, offset);
    return result;
}

#endif

SliceSource::SliceSource(std::shared_ptr<const ByteSource> base, std::uint64_t offset,
                         std::uint64_t length)
    : m_base(std::move(base)), m_offset(offset), m_length(length) {}

ReadResult SliceSource::readAt(std::uint64_t offset, void* buffer, std::size_t length) const {
    if (offset >= m_length)
        return {};
    const std::size_t clipped =
        static_cast<std::size_t>(std::min<std::uint64_t>(length, m_length - offset));
    return m_base->readAt(m_offset + offset, buffer, clipped);
}

ReadResult MemorySource::readAt(std::uint64_t offset, void* buffer, std::size_t length) const {
    ReadResult result;
    // Guard: a read of nothing (an empty GPT entry array, a FAT12/16 boot
    // sector whose root directory has no entries) comes with an empty
    // vector's null buffer, which memcpy must not be given, even for 0 bytes.
    if (offset >= m_bytes.size() || length == 0)
        return result;
    result.bytes =
        static_cast<std::size_t>(std::min<std::uint64_t>(length, m_bytes.size() - offset));
    std::memcpy(buffer, m_bytes.data() + offset, result.bytes);
    return result;
}

} // namespace kestrow::platform::disk

namespace kestrow::platform {

MediumFailures mediumFailures() {
    std::lock_guard<std::mutex> lock(disk::g_mediumFailuresMutex);
    return disk::g_mediumFailures;
}

} // namespace kestrow::platform
