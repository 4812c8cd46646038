// The answers of the device-control requests Volume makes, read in place.
//
// The system fills these areas; a faulty driver or backend may claim more
// entries than the area holds. Each view therefore reads its fields through
// checked little-endian accessors over the area actually handed to the
// request, and counts only the entries that lie wholly inside it.
#pragma once

#include <kestrow/WinTypes.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace kestrow::volume {

// Little-endian reads from one block of memory; a read that does not fit
// yields 0, so a field past the end never reaches outside the block.
class LeBlock {
public:
    LeBlock(const void* data, std::uint64_t size)
        : m_data(static_cast<const unsigned char*>(data)), m_size(data ? size : 0) {}

    std::uint64_t size() const { return m_size; }

    bool has(std::uint64_t offset, std::uint64_t length) const {
        return offset <= m_size && length <= m_size - offset;
    }

    std::uint32_t u32(std::uint64_t offset) const {
        return static_cast<std::uint32_t>(read(offset, 4));
    }
    std::uint64_t u64(std::uint64_t offset) const { return read(offset, 8); }
    std::int64_t s64(std::uint64_t offset) const { return static_cast<std::int64_t>(u64(offset)); }

    const unsigned char* at(std::uint64_t offset) const { return m_data + offset; }

private:
    std::uint64_t read(std::uint64_t offset, unsigned width) const {
        if (!has(offset, width))
            return 0;
        std::uint64_t value = 0;
        for (unsigned i = 0; i < width; ++i)
            value |= std::uint64_t(m_data[offset + i]) << (8 * i);
        return value;
    }

    const unsigned char* m_data;
    std::uint64_t m_size;
};

// VOLUME_DISK_EXTENTS (IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS): a count, then
// DISK_EXTENT entries of 24 bytes.
class VolumeDiskExtentsView {
public:
    static constexpr std::uint64_t COUNT = offsetof(VOLUME_DISK_EXTENTS, NumberOfDiskExtents);
    static constexpr std::uint64_t FIRST_EXTENT = offsetof(VOLUME_DISK_EXTENTS, Extents);
    static constexpr std::uint64_t EXTENT_SIZE = sizeof(DISK_EXTENT);
    static constexpr std::uint64_t DISK_NUMBER = offsetof(DISK_EXTENT, DiskNumber);
    static constexpr std::uint64_t STARTING_OFFSET = offsetof(DISK_EXTENT, StartingOffset);
    static constexpr std::uint64_t EXTENT_LENGTH = offsetof(DISK_EXTENT, ExtentLength);

    VolumeDiskExtentsView(const void* area, std::uint64_t size) : m_block(area, size) {}

    // The count the system reported (it may exceed what the area holds).
    std::uint32_t reportedCount() const { return m_block.u32(COUNT); }

    // The reported entries that lie inside the area.
    std::uint32_t readableCount() const {
        const std::uint64_t room =
            m_block.size() < FIRST_EXTENT ? 0 : (m_block.size() - FIRST_EXTENT) / EXTENT_SIZE;
        const std::uint64_t count = reportedCount();
        return static_cast<std::uint32_t>(count < room ? count : room);
    }

    std::uint32_t diskNumber(std::uint32_t i) const { return m_block.u32(entry(i) + DISK_NUMBER); }
    std::uint64_t startingOffset(std::uint32_t i) const {
        return m_block.u64(entry(i) + STARTING_OFFSET);
    }
    std::uint64_t extentLength(std::uint32_t i) const {
        return m_block.u64(entry(i) + EXTENT_LENGTH);
    }

private:
    static std::uint64_t entry(std::uint32_t i) { return FIRST_EXTENT + i * EXTENT_SIZE; }

    LeBlock m_block;
};
static_assert(VolumeDiskExtentsView::FIRST_EXTENT == 8);
static_assert(VolumeDiskExtentsView::EXTENT_SIZE == 24);

// RETRIEVAL_POINTERS_BUFFER (FSCTL_GET_RETRIEVAL_POINTERS): a count, the
// starting VCN, then (NextVcn, Lcn) pairs of 16 bytes.
class RetrievalPointersView {
public:
    static constexpr std::uint64_t COUNT = offsetof(RETRIEVAL_POINTERS_BUFFER, ExtentCount);
    static constexpr std::uint64_t FIRST_RUN = offsetof(RETRIEVAL_POINTERS_BUFFER, Extents);
    static constexpr std::uint64_t RUN_SIZE = 16;
    static constexpr std::uint64_t NEXT_VCN = 0;
    static constexpr std::uint64_t LCN = 8;

    RetrievalPointersView(const void* area, std::uint64_t size) : m_block(area, size) {}

    std::uint32_t reportedCount() const { return m_block.u32(COUNT); }

    // The reported runs that lie inside the area.
    std::uint32_t readableCount() const {
        const std::uint64_t room =
            m_block.size() < FIRST_RUN ? 0 : (m_block.size() - FIRST_RUN) / RUN_SIZE;
        const std::uint64_t count = reportedCount();
        return static_cast<std::uint32_t>(count < room ? count : room);
    }

    std::uint64_t nextVcn(std::uint32_t i) const { return m_block.u64(run(i) + NEXT_VCN); }
    std::uint64_t lcn(std::uint32_t i) const { return m_block.u64(run(i) + LCN); }

private:
    static std::uint64_t run(std::uint32_t i) { return FIRST_RUN + std::uint64_t(i) * RUN_SIZE; }

    LeBlock m_block;
};
static_assert(RetrievalPointersView::FIRST_RUN == 16);

// VOLUME_BITMAP_BUFFER (FSCTL_GET_VOLUME_BITMAP): the starting LCN, the
// number of clusters, then one bit per cluster.
class VolumeBitmapView {
public:
    static constexpr std::uint64_t BITMAP_SIZE = offsetof(VOLUME_BITMAP_BUFFER, BitmapSize);
    static constexpr std::uint64_t BITS = offsetof(VOLUME_BITMAP_BUFFER, Buffer);

    VolumeBitmapView(const void* area, std::uint64_t size) : m_block(area, size) {}

    // The number of clusters (BitmapSize), as the system's signed count.
    std::int64_t clusterCount() const { return m_block.s64(BITMAP_SIZE); }

    // The bitmap bytes held in the area, or 0 when none fit.
    std::uint64_t bitsAvailable() const {
        return m_block.size() > BITS ? m_block.size() - BITS : 0;
    }
    const unsigned char* bits() const { return m_block.at(BITS); }

private:
    LeBlock m_block;
};
static_assert(VolumeBitmapView::BITS == 16);

} // namespace kestrow::volume
