// The replies of the device control requests the library makes, packed with
// Windows' rules for short output buffers. The disk-image backend answers
// with these, and so can any other Api (test fakes included), so that every
// implementation fills buffers, byte counts and error codes alike.
#pragma once

#include <kestrow/Export.h>
#include <kestrow/WinTypes.h>

#include <cstdint>
#include <vector>

namespace kestrow::platform {

// One run of a file: from the previous run's NextVcn (0 for the first) up to
// nextVcn, stored from lcn on; lcn -1 for a run not stored on disk.
struct RetrievalRun {
    std::int64_t nextVcn = 0;
    std::int64_t lcn = -1;
};

// One extent of a volume on a disk.
struct DiskExtentInfo {
    DWORD diskNumber = 0;
    std::uint64_t startingOffset = 0;
    std::uint64_t extentLength = 0;
};

// Each returns the Windows error code of the request (0 on success; the
// caller sets it as the last error and returns FALSE when it is not 0) and
// sets *bytesReturned as Windows does.

// FSCTL_GET_RETRIEVAL_POINTERS for a file whose runs are `runs` (empty:
// the file has no clusters, e.g. resident data) and whose allocation spans
// `allocatedClusters`. Input: STARTING_VCN_INPUT_BUFFER.
KESTROW_API DWORD replyRetrievalPointers(const std::vector<RetrievalRun>& runs,
                                         std::uint64_t allocatedClusters, const void* inBuffer,
                                         DWORD inBufferSize, void* outBuffer, DWORD outBufferSize,
                                         DWORD* bytesReturned);

// FSCTL_GET_VOLUME_BITMAP over `totalClusters` clusters. `readBitmap` fills
// `length` bytes of the bitmap from byte `firstByte` and returns 0 or an
// error code. Input: STARTING_LCN_INPUT_BUFFER.
using BitmapReader = DWORD (*)(void* context, std::uint64_t firstByte, std::uint8_t* out,
                               std::size_t length);
KESTROW_API DWORD replyVolumeBitmap(std::uint64_t totalClusters, BitmapReader readBitmap,
                                    void* context, const void* inBuffer, DWORD inBufferSize,
                                    void* outBuffer, DWORD outBufferSize, DWORD* bytesReturned);

// IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS.
KESTROW_API DWORD replyDiskExtents(const std::vector<DiskExtentInfo>& extents, void* outBuffer,
                                   DWORD outBufferSize, DWORD* bytesReturned);

// FSCTL_GET_NTFS_VOLUME_DATA.
KESTROW_API DWORD replyNtfsVolumeData(const NTFS_VOLUME_DATA_BUFFER& data, void* outBuffer,
                                      DWORD outBufferSize, DWORD* bytesReturned);

} // namespace kestrow::platform
