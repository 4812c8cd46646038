#include <kestrow/ControlReplies.h>

#include <algorithm>
#include <cstddef>
#include <cstring>

namespace kestrow::platform {

namespace {

// The fixed part of each reply, before its array.
constexpr std::size_t kRetrievalHeader = offsetof(RETRIEVAL_POINTERS_BUFFER, Extents);
constexpr std::size_t kRetrievalExtent = sizeof(RETRIEVAL_POINTERS_BUFFER::Extents[0]);
constexpr std::size_t kBitmapHeader = offsetof(VOLUME_BITMAP_BUFFER, Buffer);
constexpr std::size_t kExtentsHeader = offsetof(VOLUME_DISK_EXTENTS, Extents);

void setReturned(DWORD* bytesReturned, std::size_t value) {
    if (bytesReturned != nullptr)
        *bytesReturned = static_cast<DWORD>(value);
}

LONGLONG readInput64(const void* inBuffer) {
    LONGLONG value = 0;
    std::memcpy(&value, inBuffer, sizeof value);
    return value;
}

} // namespace

DWORD replyRetrievalPointers(const std::vector<RetrievalRun>& runs, std::uint64_t allocatedClusters,
                             const void* inBuffer, DWORD inBufferSize, void* outBuffer,
                             DWORD outBufferSize, DWORD* bytesReturned) {
    setReturned(bytesReturned, 0);
    if (inBuffer == nullptr || inBufferSize < sizeof(STARTING_VCN_INPUT_BUFFER))
        return ERROR_INVALID_PARAMETER;
    if (outBuffer == nullptr || outBufferSize < sizeof(RETRIEVAL_POINTERS_BUFFER))
        return ERROR_INSUFFICIENT_BUFFER;
    const LONGLONG startingVcn = readInput64(inBuffer);
    if (startingVcn < 0)
        return ERROR_INVALID_PARAMETER;
    if (runs.empty() || static_cast<std::uint64_t>(startingVcn) >= allocatedClusters)
        return ERROR_HANDLE_EOF;

    // The first run returned is the one holding the starting VCN; the reply
    // starts at that run's first VCN.
    std::size_t first = 0;
    while (first < runs.size() && runs[first].nextVcn <= startingVcn)
        ++first;
    if (first == runs.size())
        return ERROR_HANDLE_EOF;
    const std::size_t fit = (outBufferSize - kRetrievalHeader) / kRetrievalExtent;
    const std::size_t count = std::min(fit, runs.size() - first);

    auto* out = static_cast<std::uint8_t*>(outBuffer);
    const DWORD extentCount = static_cast<DWORD>(count);
    const LONGLONG replyStart = first == 0 ? 0 : runs[first - 1].nextVcn;
    std::memcpy(out + offsetof(RETRIEVAL_POINTERS_BUFFER, ExtentCount), &extentCount,
                sizeof extentCount);
    std::memcpy(out + offsetof(RETRIEVAL_POINTERS_BUFFER, StartingVcn), &replyStart,
                sizeof replyStart);
    for (std::size_t i = 0; i < count; ++i) {
        const LONGLONG pair[2] = {runs[first + i].nextVcn, runs[first + i].lcn};
        std::memcpy(out + kRetrievalHeader + i * kRetrievalExtent, pair, sizeof pair);
    }
    setReturned(bytesReturned, kRetrievalHeader + count * kRetrievalExtent);
    return count < runs.size() - first ? static_cast<DWORD>(ERROR_MORE_DATA) : 0;
}

DWORD replyVolumeBitmap(std::uint64_t totalClusters, BitmapReader readBitmap, void* context,
                        const void* inBuffer, DWORD inBufferSize, void* outBuffer,
                        DWORD outBufferSize, DWORD* bytesReturned) {
    setReturned(bytesReturned, 0);
    if (inBuffer == nullptr || inBufferSize < sizeof(STARTING_LCN_INPUT_BUFFER))
        return ERROR_INVALID_PARAMETER;
    if (outBuffer == nullptr || outBufferSize < sizeof(VOLUME_BITMAP_BUFFER))
        return ERROR_INSUFFICIENT_BUFFER;
    LONGLONG startingLcn = readInput64(inBuffer);
    if (startingLcn < 0 || static_cast<std::uint64_t>(startingLcn) >= totalClusters)
        return ERROR_INVALID_PARAMETER;
    startingLcn &= ~LONGLONG{7}; // rounded down to a whole byte of the bitmap

    const std::uint64_t clusters = totalClusters - static_cast<std::uint64_t>(startingLcn);
    const std::uint64_t needed = (clusters + 7) / 8;
    const std::size_t room = outBufferSize - kBitmapHeader;
    const std::size_t count = static_cast<std::size_t>(std::min<std::uint64_t>(needed, room));

    auto* out = static_cast<std::uint8_t*>(outBuffer);
    const LONGLONG bitmapSize = static_cast<LONGLONG>(clusters);
    std::memcpy(out + offsetof(VOLUME_BITMAP_BUFFER, StartingLcn), &startingLcn,
                sizeof startingLcn);
    std::memcpy(out + offsetof(VOLUME_BITMAP_BUFFER, BitmapSize), &bitmapSize, sizeof bitmapSize);
    if (const DWORD error = readBitmap(context, static_cast<std::uint64_t>(startingLcn) / 8,
                                       out + kBitmapHeader, count))
        return error;
    // Bits past the last cluster in the last byte are not clusters.
    if (count == needed && clusters % 8 != 0)
        out[kBitmapHeader + count - 1] &= static_cast<std::uint8_t>((1u << (clusters % 8)) - 1);
    setReturned(bytesReturned, kBitmapHeader + count);
    return count < needed ? static_cast<DWORD>(ERROR_MORE_DATA) : 0;
}

DWORD replyDiskExtents(const std::vector<DiskExtentInfo>& extents, void* outBuffer,
                       DWORD outBufferSize, DWORD* bytesReturned) {
    setReturned(bytesReturned, 0);
    if (outBuffer == nullptr || outBufferSize < sizeof(VOLUME_DISK_EXTENTS))
        return ERROR_INVALID_PARAMETER;
    const std::size_t fit = (outBufferSize - kExtentsHeader) / sizeof(DISK_EXTENT);
    const std::size_t count = std::min(fit, extents.size());
    auto* out = static_cast<std::uint8_t*>(outBuffer);
    std::memset(out, 0, sizeof(VOLUME_DISK_EXTENTS));
    const DWORD number = static_cast<DWORD>(extents.size());
    std::memcpy(out + offsetof(VOLUME_DISK_EXTENTS, NumberOfDiskExtents), &number, sizeof number);
    for (std::size_t i = 0; i < count; ++i) {
        DISK_EXTENT extent{};
        extent.DiskNumber = extents[i].diskNumber;
        extent.StartingOffset.QuadPart = static_cast<LONGLONG>(extents[i].startingOffset);
        extent.ExtentLength.QuadPart = static_cast<LONGLONG>(extents[i].extentLength);
        std::memcpy(out + kExtentsHeader + i * sizeof(DISK_EXTENT), &extent, sizeof extent);
    }
    if (count < extents.size()) {
        // Windows fills the count (and what fits) and reports the fixed size.
        setReturned(bytesReturned, sizeof(VOLUME_DISK_EXTENTS));
        return ERROR_MORE_DATA;
    }
    setReturned(bytesReturned, std::max(sizeof(VOLUME_DISK_EXTENTS),
                                        kExtentsHeader + count * sizeof(DISK_EXTENT)));
    return 0;
}

DWORD replyNtfsVolumeData(const NTFS_VOLUME_DATA_BUFFER& data, void* outBuffer, DWORD outBufferSize,
                          DWORD* bytesReturned) {
    setReturned(bytesReturned, 0);
    if (outBuffer == nullptr || outBufferSize < sizeof(NTFS_VOLUME_DATA_BUFFER))
        return ERROR_INSUFFICIENT_BUFFER;
    std::memcpy(outBuffer, &data, sizeof data);
    setReturned(bytesReturned, sizeof data);
    return 0;
}

} // namespace kestrow::platform
