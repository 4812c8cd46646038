// Reads of zero bytes from an in-memory disk. A GPT that declares no
// partition entries and a FAT12 boot sector whose fixed root directory has no
// entries both make the backend read nothing into an empty vector, whose
// buffer is null: the read once handed that null pointer to memcpy, which
// the undefined-behaviour sanitizer stops on.
#include "BootSector.h"
#include "ByteSource.h"
#include "Fat.h"
#include "PartitionTable.h"
#include "Reproducer.h"

#include <gtest/gtest.h>

namespace disk = kestrow::platform::disk;
using kestrow::regression::reproducer;

namespace {

TEST(EmptyRead, MemorySourceReadsNothingIntoNoBuffer) {
    const disk::MemorySource source(std::vector<std::uint8_t>(16, 0xAB));
    const disk::ReadResult read = source.readAt(4, nullptr, 0);
    EXPECT_EQ(read.bytes, 0u);
    EXPECT_EQ(read.error, 0u);
}

// fuzz_partition_table, minimised: a protective MBR and a GPT header whose
// entry count (header offset 0x50) is 0 with a valid entry size of 2560.
TEST(EmptyRead, GptWithoutEntries) {
    const std::vector<std::uint8_t> input = reproducer(
        1024, {{0x0C6, {0x01, 0x21, 0x00, 0x00, 0x50, 0x61}},
               {0x1C0, {0x02, 0x00, 0xEE, 0x19, 0x14, 0x05, 0x01}},
               {0x1CA, {0xFF, 0x3F, 0x01}},
               {0x1FE,
                {0x55, 0xAA, 0x45, 0x46, 0x49, 0x20, 0x50, 0x41, 0x52, 0x54, 0x00, 0x00, 0x01, 0x00,
                 0x5C}},
               {0x210, {0x67, 0x8C, 0x19, 0xFA}},
               {0x218, {0x01}},
               {0x220, {0xFF, 0x3F, 0x01}},
               {0x228, {0x22}},
               {0x230, {0xDE, 0x3F, 0x01, 0x00, 0x00, 0x73, 0x00, 0x74, 0x00, 0x72, 0x00, 0x6F,
                        0x00, 0x77, 0x00, 0x20, 0x00, 0x4E, 0x00, 0x54, 0x00, 0x46, 0x00, 0x53}},
               {0x255, {0x0A}},
               {0x296, {0x7F, 0xFF, 0xFF, 0xFF}}});
    const disk::MemorySource source(input);
    const disk::PartitionTable table = disk::readPartitionTable(source, 512);
    EXPECT_EQ(table.kind, "GPT");
    EXPECT_TRUE(table.entries.empty());
}

// fuzz_boot_sector, minimised (boot code left out): a FAT12 boot sector with
// 512-byte sectors, one reserved sector, one FAT of one sector and a root
// directory of 0 entries (offset 0x11), on a volume of 1025 bytes.
TEST(EmptyRead, FatRootDirectoryWithoutEntries) {
    const std::vector<std::uint8_t> input = reproducer(
        1025,
        {{0x000, {0xEB, 0x3C, 0x90, 0x6D, 0x6B, 0x66, 0x73, 0x2E, 0x66, 0x61, 0x74, 0x00,
                  0x02, 0x01, 0x01, 0x00, 0x01, 0x00, 0x00, 0x02, 0x02, 0xF8, 0x01}},
         {0x01A, {0x03}},
         {0x020, {0x01}},
         {0x024, {0x80, 0x00, 0x29, 0x53, 0x6B, 0x55, 0x28, 0x4B, 0x45, 0x53, 0x54, 0x52, 0x4F,
                  0x57, 0x20, 0x20, 0x20, 0x20, 0x46, 0x41, 0x54, 0x31, 0x32, 0x20, 0x20, 0x20}},
         {0x1FE, {0x55, 0xAA}}});
    const auto boot = disk::parseBootSector(input.data(), 512);
    ASSERT_TRUE(boot.has_value());
    ASSERT_EQ(boot->kind, disk::FileSystemKind::Fat12);
    EXPECT_EQ(boot->rootEntryCount, 0u);
    const disk::MemorySource volume(input);
    // No root directory, so no label entry: the label is empty.
    EXPECT_TRUE(disk::fatVolumeLabel(volume, *boot).empty());
}

} // namespace
