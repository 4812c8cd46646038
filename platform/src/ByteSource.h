// Read-only byte sources: an attached image file or block device, a window
// on one (a volume inside a disk), or bytes held in memory (tests).
#pragma once

#include <kestrow/WinTypes.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace kestrow::platform::disk {

// What a positional read gave: the bytes delivered (fewer than asked only at
// the end of the source) and a Windows error code, 0 on success. A host file
// that ends before the size it had when opened fails with ERROR_HANDLE_EOF
// instead of delivering fewer bytes.
struct ReadResult {
    std::size_t bytes = 0;
    DWORD error = 0;
};

class ByteSource {
public:
    virtual ~ByteSource();
    virtual std::uint64_t size() const = 0;
    // Reads up to `length` bytes at `offset` into `buffer`. Safe to call from
    // several threads at once; never writes.
    virtual ReadResult readAt(std::uint64_t offset, void* buffer, std::size_t length) const = 0;

    // Reads exactly `length` bytes, failing (ERROR_HANDLE_EOF) on a short read.
    DWORD readExactly(std::uint64_t offset, void* buffer, std::size_t length) const;
};

// An image file or block device opened read-only.
class HostFile final : public ByteSource {
public:
    // Opens `path` for reading only; nullptr with `error` set on failure.
    static std::shared_ptr<HostFile> open(const std::string& path, std::string& error);
    ~HostFile() override;

    std::uint64_t size() const override { return m_size; }
    ReadResult readAt(std::uint64_t offset, void* buffer, std::size_t length) const override;

    // The logical sector size the device reports, or 0 for a regular file.
    std::uint32_t deviceSectorSize() const { return m_deviceSectorSize; }

private:
    HostFile() = default;
#if defined(_WIN32)
    void* m_handle = nullptr;
#else
    int m_fd = -1;
#endif
    std::string m_path;
    std::uint64_t m_size = 0;
    std::uint32_t m_deviceSectorSize = 0;
};

// The bytes [offset, offset + length) of another source.
class SliceSource final : public ByteSource {
public:
    SliceSource(std::shared_ptr<const ByteSource> base, std::uint64_t offset, std::uint64_t length);
    std::uint64_t size() const override { return m_length; }
    ReadResult readAt(std::uint64_t offset, void* buffer, std::size_t length) const override;

private:
    std::shared_ptr<const ByteSource> m_base;
    std::uint64_t m_offset;
    std::uint64_t m_length;
};

// Bytes in memory.
class MemorySource final : public ByteSource {
public:
    explicit MemorySource(std::vector<std::uint8_t> bytes) : m_bytes(std::move(bytes)) {}
    std::uint64_t size() const override { return m_bytes.size(); }
    ReadResult readAt(std::uint64_t offset, void* buffer, std::size_t length) const override;

private:
    std::vector<std::uint8_t> m_bytes;
};

} // namespace kestrow::platform::disk
