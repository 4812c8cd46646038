// The backend's NTFS reader on volumes built byte by byte: fix-ups, run
// lists, an $MFT whose later runs live in an extension record, index
// lookups, and damage it must survive.
#include "MiniNtfs.h"

#include "Ntfs.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <map>

namespace {

using namespace kestrow::test::mini;
using kestrow::platform::disk::applyFixups;
using kestrow::platform::disk::BootSector;
using kestrow::platform::disk::DataRun;
using kestrow::platform::disk::decodeRunList;
using kestrow::platform::disk::LeView;
using kestrow::platform::disk::MemorySource;
using kestrow::platform::disk::NtfsAttribute;
using kestrow::platform::disk::NtfsFileInfo;
using kestrow::platform::disk::NtfsVolume;
using kestrow::platform::disk::parseBootSector;
namespace attr = kestrow::platform::disk::attr;

std::vector<DataRun> decode(std::vector<std::uint8_t> bytes, std::string* error = nullptr,
                            bool* ok = nullptr) {
    std::vector<DataRun> runs;
    std::string message;
    const bool result = decodeRunList(LeView(bytes.data(), bytes.size()), 0, runs, message);
    if (error != nullptr)
        *error = message;
    if (ok != nullptr)
        *ok = result;
    return runs;
}

TEST(RunList, DecodesRelativeOffsetsSparseRunsAndNegativeSteps) {
    bool ok = false;
    // 3 clusters at 150, 2 sparse, 1 at 160, 4 at 160 - 60 = 100.
    const auto runs =
        decode({0x21, 0x03, 0x96, 0x00, 0x01, 0x02, 0x11, 0x01, 0x0A, 0x11, 0x04, 0xC4, 0x00},
               nullptr, &ok);
    EXPECT_TRUE(ok);
    const std::vector<DataRun> expected = {{0, 3, 150}, {3, 2, -1}, {5, 1, 160}, {6, 4, 100}};
    EXPECT_EQ(runs, expected);
}

TEST(RunList, RejectsMalformedListsKeepingTheRunsBeforeTheFault) {
    std::string error;
    bool ok = true;
    auto runs = decode({0x11, 0x02, 0x10, 0x11, 0x01}, &error, &ok); // cut short
    EXPECT_FALSE(ok);
    EXPECT_EQ(runs.size(), 1u);
    EXPECT_EQ(error, "run list runs past its attribute");

    runs = decode({0x11, 0x02, 0x10}, &error, &ok); // no terminator
    EXPECT_FALSE(ok);
    EXPECT_EQ(runs.size(), 1u);

    decode({0x19, 0x01, 0x00}, &error, &ok); // 9-byte length field
    EXPECT_FALSE(ok);
    EXPECT_EQ(error, "bad run header");

    decode({0x11, 0x00, 0x05, 0x00}, &error, &ok); // zero length
    EXPECT_FALSE(ok);

    decode({0x11, 0x01, 0xF0, 0x00}, &error, &ok); // before cluster 0
    EXPECT_FALSE(ok);
    EXPECT_EQ(error, "run starts before the volume");

    // Two runs whose lengths add past the VCN range.
    runs = decode({0x18, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x7F, 0x01, 0x18,
                   0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x7F, 0x01, 0x00},
                  &error, &ok);
    EXPECT_FALSE(ok);
    EXPECT_EQ(runs.size(), 1u);
    EXPECT_EQ(error, "run list overflows the VCN range");
}

// Every field of every structure, $UpCase included, goes through these
// reads: a byte order mistake would only show as names that no longer fold
// case the way Windows does, since both sides of a comparison go wrong alike.
TEST(LittleEndianView, ReadsLowByteFirstAndRefusesWhatDoesNotFit) {
    const std::vector<std::uint8_t> bytes = {0x01, 0x02, 0x03, 0x04, 0x05,
                                             0x06, 0x07, 0x88, 0x41, 0x00};
    const LeView view(bytes.data(), bytes.size());
    EXPECT_EQ(view.u16(0), 0x0201);
    EXPECT_EQ(view.u32(1), 0x05040302u);
    EXPECT_EQ(view.u64(0), 0x8807060504030201ull);
    EXPECT_EQ(view.s8(7), -120);
    char16_t units[5] = {u'x', u'x', u'x', u'x', u'x'};
    ASSERT_TRUE(view.u16s(6, 2, units));
    EXPECT_EQ(units[0], 0x8807);
    EXPECT_EQ(units[1], u'A');
    EXPECT_TRUE(view.ok());
    // One unit too many: nothing is written and the view says it overran.
    EXPECT_FALSE(view.u16s(2, 5, units));
    EXPECT_EQ(units[2], u'x');
    EXPECT_FALSE(view.ok());
    const LeView tail(bytes.data(), bytes.size());
    EXPECT_EQ(tail.u32(8), 0u);
    EXPECT_FALSE(tail.ok());
}

TEST(Fixups, RestoreTheSavedBytesAndDetectTornWrites) {
    std::vector<std::uint8_t> block(1024, 0);
    std::memcpy(block.data(), "FILE", 4);
    put16(block, 510, 0x1234);
    put16(block, 1022, 0x5678);
    protect(block, 0x0007);
    EXPECT_EQ(LeView(block.data(), block.size()).u16(510), 0x0007);
    std::vector<std::uint8_t> good = block;
    ASSERT_TRUE(applyFixups(good.data(), good.size()));
    EXPECT_EQ(LeView(good.data(), good.size()).u16(510), 0x1234);
    EXPECT_EQ(LeView(good.data(), good.size()).u16(1022), 0x5678);

    std::vector<std::uint8_t> torn = block;
    put16(torn, 1022, 0x0008); // the second sector came from another write
    EXPECT_FALSE(applyFixups(torn.data(), torn.size()));

    std::vector<std::uint8_t> hostile = block;
    put16(hostile, 0x06, 40); // more strides than the block has
    EXPECT_FALSE(applyFixups(hostile.data(), hostile.size()));
    put16(hostile, 0x06, 3);
    put16(hostile, 0x04, 1020); // array runs off the block
    EXPECT_FALSE(applyFixups(hostile.data(), hostile.size()));
}

class MiniVolume : public testing::Test, protected MiniVolumeImage {
protected:
    std::shared_ptr<const NtfsVolume> mount(std::string& error) {
        const std::vector<std::uint8_t> bytes = assemble();
        auto boot = parseBootSector(bytes.data(), 512);
        EXPECT_TRUE(boot.has_value());
        return NtfsVolume::mount(std::make_shared<MemorySource>(bytes), *boot, error);
    }
};

TEST_F(MiniVolume, MftRunsKeptInAnExtensionRecordAreFollowed) {
    std::string error;
    auto ntfs = mount(error);
    ASSERT_NE(ntfs, nullptr) << error;
    const std::vector<DataRun> expected = {{0, 32, 16}, {32, 32, 100}};
    EXPECT_EQ(ntfs->mftRuns(), expected);
    EXPECT_EQ(ntfs->mftDataSize(), 64u * 512);
    EXPECT_EQ(ntfs->label(), u"MINI");
    EXPECT_FALSE(ntfs->upcaseFromDisk());

    // Record 20 lies in the second run, known only from record 15.
    NtfsFileInfo info;
    ASSERT_EQ(ntfs->lookup({u"HELLO.TXT"}, info), 0u);
    EXPECT_EQ(info.record, 20u);
    EXPECT_FALSE(info.directory);
    EXPECT_EQ(info.attributes, 0x20u);
}

TEST_F(MiniVolume, NamesInIndexBlocksAreFoundAndRunsKeepTheirHoles) {
    std::string error;
    auto ntfs = mount(error);
    ASSERT_NE(ntfs, nullptr) << error;
    NtfsFileInfo info;
    ASSERT_EQ(ntfs->lookup({u"sub", u"Deep.Bin"}, info), 0u);
    EXPECT_EQ(info.record, 22u);
    std::vector<NtfsAttribute> attributes;
    ASSERT_EQ(ntfs->attributes(22, attributes), 0u);
    ASSERT_EQ(attributes.size(), 1u);
    const std::vector<DataRun> expected = {{0, 3, 150}, {3, 2, -1}, {5, 1, 160}};
    EXPECT_EQ(attributes[0].runs, expected);

    EXPECT_EQ(ntfs->lookup({u"Sub", u"missing"}, info), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
    EXPECT_EQ(ntfs->lookup({u"nodir", u"deep.bin"}, info),
              static_cast<DWORD>(ERROR_PATH_NOT_FOUND));
    EXPECT_EQ(ntfs->lookup({u"hello.txt", u"x"}, info), static_cast<DWORD>(ERROR_PATH_NOT_FOUND));
}

TEST_F(MiniVolume, AnIndexBlockTheBitmapMarksFreeIsNotSearched) {
    records[21] = Record(1024, 3)
                      .resident(attr::kIndexRoot, indexRoot(indexEntries({}), 1024, true), u"$I30")
                      .nonResident(attr::kIndexAllocation, 0, 1, {0x21, 0x02, 0xC8, 0x00}, 1024,
                                   1024, u"$I30")
                      .resident(attr::kBitmap, {0x00}, u"$I30")
                      .bytes();
    std::string error;
    auto ntfs = mount(error);
    ASSERT_NE(ntfs, nullptr) << error;
    NtfsFileInfo info;
    EXPECT_EQ(ntfs->lookup({u"Sub", u"deep.bin"}, info), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
}

TEST_F(MiniVolume, TornRecordsAndIndexBlocksReadAsCorruptNotAsGarbage) {
    std::string error;
    put16(records[20], 1022, 0x4242);
    place(image, 200 * 512 + 510, {0x42, 0x42});
    auto ntfs = mount(error);
    ASSERT_NE(ntfs, nullptr) << error;
    NtfsFileInfo info;
    EXPECT_EQ(ntfs->lookup({u"hello.txt"}, info), static_cast<DWORD>(ERROR_FILE_CORRUPT));
    EXPECT_EQ(ntfs->lookup({u"Sub", u"deep.bin"}, info), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
}

TEST_F(MiniVolume, DamagedLabelRecordStillMountsWithAnEmptyLabel) {
    records[3][0] = 'X'; // not a FILE record any more
    std::string error;
    auto ntfs = mount(error);
    ASSERT_NE(ntfs, nullptr) << error;
    EXPECT_EQ(ntfs->label(), u"");
}

TEST_F(MiniVolume, UnreadableRecordZeroRefusesTheMount) {
    records[0][0] = 0;
    std::string error;
    EXPECT_EQ(mount(error), nullptr);
    EXPECT_EQ(error, "MFT record 0 is damaged");
}

TEST_F(MiniVolume, HostileAttributeListsStayBounded) {
    // A list of 3000 entries, each naming record 0 itself or a record past
    // the MFT: nothing is read twice, nothing outside the runs is read.
    std::vector<std::uint8_t> list;
    for (int i = 0; i < 3000; ++i) {
        std::vector<std::uint8_t> e(0x20, 0);
        put32(e, 0, attr::kData);
        put16(e, 4, 0x20);
        put64(e, 0x10, i % 2 == 0 ? 0 : 1000000 + static_cast<std::uint64_t>(i));
        list.insert(list.end(), e.begin(), e.end());
    }
    std::vector<std::uint8_t> listRuns = {0x11, 0xBC, 0x40}; // 188 clusters at 64 hold the list
    place(image, 64 * 512, list);
    records[0] = Record()
                     .nonResident(attr::kAttributeList, 0, 187, listRuns, 188 * 512, list.size())
                     .nonResident(attr::kData, 0, 63, {0x11, 0x20, 0x10, 0x11, 0x20, 0x54},
                                  64 * 512, 64 * 512)
                     .bytes();
    std::string error;
    auto ntfs = mount(error);
    ASSERT_NE(ntfs, nullptr) << error;
    EXPECT_EQ(ntfs->mftRuns().size(), 2u);
    NtfsFileInfo info;
    EXPECT_EQ(ntfs->lookup({u"hello.txt"}, info), 0u);
}

TEST_F(MiniVolume, ADirectoryEntryLoopDoesNotHang) {
    // An index entry whose length is 0 would make a naive walk spin.
    std::vector<std::uint8_t> entries = indexEntries({{20, fileName(5, u"hello.txt")}});
    put16(entries, 8, 0);
    records[5] = Record(1024, 3).resident(attr::kIndexRoot, indexRoot(entries), u"$I30").bytes();
    std::string error;
    auto ntfs = mount(error);
    ASSERT_NE(ntfs, nullptr) << error;
    NtfsFileInfo info;
    EXPECT_EQ(ntfs->lookup({u"hello.txt"}, info), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
}

TEST_F(MiniVolume, ARunWhoseEndWrapsAroundIsReadNotSpunOn) {
    // 2^55 clusters of 512 bytes end at byte 2^64, which wraps to 0: the end
    // of the run then looked like the position read, and the read made no
    // progress forever (a finding of the volume fuzz target).
    std::string error;
    auto ntfs = mount(error);
    ASSERT_NE(ntfs, nullptr) << error;
    NtfsAttribute attribute;
    attribute.type = attr::kData;
    attribute.nonResident = true;
    attribute.dataSize = attribute.initializedSize = attribute.allocatedSize = UINT64_MAX;
    attribute.runs = {DataRun{0, std::uint64_t{1} << 55, 1}};
    std::vector<std::uint8_t> bytes(4096, 0xEE);
    std::size_t got = 0;
    ASSERT_EQ(ntfs->readAttribute(attribute, 0, bytes.data(), bytes.size(), got), 0u);
    EXPECT_EQ(got, bytes.size());
    EXPECT_TRUE(std::equal(bytes.begin(), bytes.end(), image.begin() + 512));
    // A run whose first cluster is past every disk offset is refused.
    attribute.runs = {DataRun{0, 8, INT64_MAX}};
    EXPECT_NE(ntfs->readAttribute(attribute, 0, bytes.data(), bytes.size(), got), 0u);
}

TEST_F(MiniVolume, AResidentValueClaimingMoreThanItsAttributeIsIgnored) {
    records[20] = Record().resident(attr::kData, {'a', 'b'}).bytes();
    // Value length field (at attribute start 0x38 + 0x10) made huge.
    std::vector<std::uint8_t>& r = records[20];
    applyFixups(r.data(), r.size());
    put32(r, 0x38 + 0x10, 0x7FFFFFFF);
    protect(r);
    std::string error;
    auto ntfs = mount(error);
    ASSERT_NE(ntfs, nullptr) << error;
    std::vector<NtfsAttribute> attributes;
    ASSERT_EQ(ntfs->attributes(20, attributes), 0u);
    ASSERT_EQ(attributes.size(), 1u);
    EXPECT_TRUE(attributes[0].value.empty());
}

} // namespace

namespace {

TEST_F(MiniVolume, ABootSectorClaimingMoreThanTheVolumeIsRefused) {
    put64(image, 0x28, std::uint64_t{1} << 40);
    std::string error;
    EXPECT_EQ(mount(error), nullptr);
    EXPECT_EQ(error, "the boot sector claims more sectors than the volume holds");
}

} // namespace
