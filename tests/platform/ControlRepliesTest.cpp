// The packing of control replies under Windows' short-buffer rules.
#include <kestrow/ControlReplies.h>

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

namespace {

using namespace kestrow::platform;

struct Bitmap {
    std::vector<std::uint8_t> bytes;
    int calls = 0;
};

DWORD readBitmap(void* context, std::uint64_t firstByte, std::uint8_t* out, std::size_t length) {
    auto* bitmap = static_cast<Bitmap*>(context);
    ++bitmap->calls;
    for (std::size_t i = 0; i < length; ++i)
        out[i] = bitmap->bytes.at(firstByte + i);
    return 0;
}

template <typename T> T at(const std::vector<std::uint8_t>& out, std::size_t offset) {
    T value;
    std::memcpy(&value, out.data() + offset, sizeof value);
    return value;
}

TEST(RetrievalPointersReply, FillsWhatFitsAndSaysMoreData) {
    const std::vector<RetrievalRun> runs = {{10, 100}, {15, -1}, {20, 300}};
    const STARTING_VCN_INPUT_BUFFER input{};
    std::vector<std::uint8_t> out(48, 0xCC);
    DWORD returned = 0;
    EXPECT_EQ(replyRetrievalPointers(runs, 20, &input, sizeof input, out.data(), 48, &returned),
              static_cast<DWORD>(ERROR_MORE_DATA));
    EXPECT_EQ(returned, 48u);
    EXPECT_EQ(at<DWORD>(out, 0), 2u);
    EXPECT_EQ(at<LONGLONG>(out, 8), 0);
    EXPECT_EQ(at<LONGLONG>(out, 16), 10);
    EXPECT_EQ(at<LONGLONG>(out, 24), 100);
    EXPECT_EQ(at<LONGLONG>(out, 40), -1);

    out.assign(64, 0);
    EXPECT_EQ(replyRetrievalPointers(runs, 20, &input, sizeof input, out.data(), 64, &returned),
              0u);
    EXPECT_EQ(returned, 64u);
    EXPECT_EQ(at<DWORD>(out, 0), 3u);
}

TEST(RetrievalPointersReply, StartsAtTheRunHoldingTheStartingVcn) {
    const std::vector<RetrievalRun> runs = {{10, 100}, {15, -1}, {20, 300}};
    STARTING_VCN_INPUT_BUFFER input{};
    input.StartingVcn.QuadPart = 12;
    std::vector<std::uint8_t> out(64, 0);
    DWORD returned = 0;
    EXPECT_EQ(replyRetrievalPointers(runs, 20, &input, sizeof input, out.data(), 64, &returned),
              0u);
    EXPECT_EQ(at<DWORD>(out, 0), 2u);
    EXPECT_EQ(at<LONGLONG>(out, 8), 10); // rounded down to the run's start
    input.StartingVcn.QuadPart = 20;
    EXPECT_EQ(replyRetrievalPointers(runs, 20, &input, sizeof input, out.data(), 64, &returned),
              static_cast<DWORD>(ERROR_HANDLE_EOF));
}

TEST(RetrievalPointersReply, ValidatesLikeWindows) {
    const std::vector<RetrievalRun> runs = {{10, 100}};
    STARTING_VCN_INPUT_BUFFER input{};
    std::vector<std::uint8_t> out(32);
    DWORD returned = 99;
    EXPECT_EQ(replyRetrievalPointers(runs, 10, &input, 4, out.data(), 32, &returned),
              static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    EXPECT_EQ(returned, 0u);
    EXPECT_EQ(replyRetrievalPointers(runs, 10, &input, sizeof input, out.data(), 31, &returned),
              static_cast<DWORD>(ERROR_INSUFFICIENT_BUFFER));
    input.StartingVcn.QuadPart = -1;
    EXPECT_EQ(replyRetrievalPointers(runs, 10, &input, sizeof input, out.data(), 32, &returned),
              static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    input.StartingVcn.QuadPart = 0;
    EXPECT_EQ(replyRetrievalPointers({}, 0, &input, sizeof input, out.data(), 32, &returned),
              static_cast<DWORD>(ERROR_HANDLE_EOF));
}

TEST(VolumeBitmapReply, PartialHeaderFirstThenTheWholeBitmap) {
    Bitmap bitmap{{0xFF, 0x0F, 0x00, 0x01, 0xAA, 0x55, 0x00, 0x00, 0xF0, 0xFF}};
    const STARTING_LCN_INPUT_BUFFER input{};
    std::vector<std::uint8_t> out(24, 0);
    DWORD returned = 0;
    EXPECT_EQ(
        replyVolumeBitmap(75, readBitmap, &bitmap, &input, sizeof input, out.data(), 24, &returned),
        static_cast<DWORD>(ERROR_MORE_DATA));
    EXPECT_EQ(returned, 24u);
    EXPECT_EQ(at<LONGLONG>(out, 8), 75);
    out.assign(16 + 10, 0);
    EXPECT_EQ(
        replyVolumeBitmap(75, readBitmap, &bitmap, &input, sizeof input, out.data(), 26, &returned),
        0u);
    EXPECT_EQ(returned, 26u);
    EXPECT_EQ(out[16], 0xFF);
    EXPECT_EQ(out[25], 0x07); // clusters 72-74 only: the bits past 75 are cleared
}

TEST(VolumeBitmapReply, StartingLcnIsRoundedDownAndChecked) {
    Bitmap bitmap{std::vector<std::uint8_t>(10, 0x11)};
    STARTING_LCN_INPUT_BUFFER input{};
    input.StartingLcn.QuadPart = 13;
    std::vector<std::uint8_t> out(64, 0);
    DWORD returned = 0;
    EXPECT_EQ(
        replyVolumeBitmap(80, readBitmap, &bitmap, &input, sizeof input, out.data(), 64, &returned),
        0u);
    EXPECT_EQ(at<LONGLONG>(out, 0), 8);
    EXPECT_EQ(at<LONGLONG>(out, 8), 72);
    EXPECT_EQ(returned, 16u + 9u);
    input.StartingLcn.QuadPart = 80;
    EXPECT_EQ(
        replyVolumeBitmap(80, readBitmap, &bitmap, &input, sizeof input, out.data(), 64, &returned),
        static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    EXPECT_EQ(
        replyVolumeBitmap(80, readBitmap, &bitmap, &input, sizeof input, out.data(), 23, &returned),
        static_cast<DWORD>(ERROR_INSUFFICIENT_BUFFER));
}

TEST(DiskExtentsReply, OneExtentFitsTwoNeedMoreData) {
    VOLUME_DISK_EXTENTS extents{};
    DWORD returned = 0;
    EXPECT_EQ(replyDiskExtents({{3, 1048576, 1 << 30}}, &extents, sizeof extents, &returned), 0u);
    EXPECT_EQ(returned, sizeof extents);
    EXPECT_EQ(extents.NumberOfDiskExtents, 1u);
    EXPECT_EQ(extents.Extents[0].DiskNumber, 3u);
    EXPECT_EQ(extents.Extents[0].StartingOffset.QuadPart, 1048576);

    EXPECT_EQ(replyDiskExtents({{0, 0, 10}, {1, 0, 10}}, &extents, sizeof extents, &returned),
              static_cast<DWORD>(ERROR_MORE_DATA));
    EXPECT_EQ(returned, sizeof extents);
    EXPECT_EQ(extents.NumberOfDiskExtents, 2u);

    std::vector<std::uint8_t> big(8 + 2 * sizeof(DISK_EXTENT));
    EXPECT_EQ(replyDiskExtents({{0, 0, 10}, {1, 0, 10}}, big.data(), static_cast<DWORD>(big.size()),
                               &returned),
              0u);
    EXPECT_EQ(returned, big.size());
    EXPECT_EQ(replyDiskExtents({{0, 0, 10}}, &extents, 16, &returned),
              static_cast<DWORD>(ERROR_INVALID_PARAMETER));
}

TEST(NtfsVolumeDataReply, NeedsTheWholeStructure) {
    NTFS_VOLUME_DATA_BUFFER data{};
    data.BytesPerFileRecordSegment = 1024;
    NTFS_VOLUME_DATA_BUFFER out{};
    DWORD returned = 5;
    EXPECT_EQ(replyNtfsVolumeData(data, &out, 95, &returned),
              static_cast<DWORD>(ERROR_INSUFFICIENT_BUFFER));
    EXPECT_EQ(returned, 0u);
    EXPECT_EQ(replyNtfsVolumeData(data, &out, sizeof out, &returned), 0u);
    EXPECT_EQ(returned, 96u);
    EXPECT_EQ(out.BytesPerFileRecordSegment, 1024u);
}

} // namespace
