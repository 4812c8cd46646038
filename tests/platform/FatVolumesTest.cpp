// FAT12, FAT16 and exFAT volumes made by dosfstools and exfatprogs at test
// time: the backend names and measures them as Windows does, checked
// against fsck.fat, tune.exfat, fsstat and blkls.
#include "support/FakePlatform.h"
#include "support/Oracle.h"

#include <kestrow/Disks.h>
#include <kestrow/Platform.h>

#include <gtest/gtest.h>

#include <bit>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <tuple>

#include <unistd.h>

namespace {

namespace platform = kestrow::platform;
namespace oracle = kestrow::test::oracle;

using kestrow::test::narrow;
using kestrow::test::widen;

std::string firstMatch(const std::string& text, const std::string& pattern) {
    std::smatch match;
    if (!std::regex_search(text, match, std::regex(pattern)))
        throw std::runtime_error("no match for " + pattern + " in:\n" + text);
    return match[1];
}

struct Expected {
    std::string letter;
    std::string fileSystem;
    std::string label;
    DWORD serial = 0;
    DWORD totalClusters = 0;
    DWORD freeClusters = 0;
};

class FatVolumes : public testing::Test {
protected:
    // A fixture that cannot be made or read fails every test; GoogleTest
    // would only skip them if the suite's set-up threw or asserted.
    static void SetUpTestSuite() {
        try {
            makeAndAttachVolumes();
        } catch (const std::exception& error) {
            setUpError = error.what();
        }
    }

    void SetUp() override { ASSERT_EQ(setUpError, "") << "the FAT and exFAT volumes"; }

    static void makeAndAttachVolumes() {
        // mkfs.fat -C refuses an existing file: start from an empty directory
        // of our own, whatever an earlier run left behind.
        directory = std::filesystem::temp_directory_path() /
                    ("kestrow-fat-" + std::to_string(::getpid()) + "-" +
                     std::to_string(std::chrono::steady_clock::now().time_since_epoch().count()));
        std::filesystem::remove_all(directory);
        std::filesystem::create_directories(directory);
        const std::string fat12 = (directory / "fat12.img").string();
        const std::string fat16 = (directory / "fat16.img").string();
        const std::string exfat = (directory / "exfat.img").string();
        oracle::runToolChecked(
            {"mkfs.fat", "-C", "-F", "12", "-n", "LBL12", "-i", "12345678", fat12, "2048"});
        oracle::runToolChecked(
            {"mkfs.fat", "-C", "-F", "16", "-n", "LBL16", "-i", "0A0B0C0D", fat16, "32768"});
        std::ofstream(exfat, std::ios::binary).close();
        std::filesystem::resize_file(exfat, 16u << 20);
        oracle::runToolChecked({"mkfs.exfat", "-L", "EXLABEL", exfat});
        // A serial whose bytes have leading zeros, which fsstat drops.
        oracle::runToolChecked({"tune.exfat", "-I", "0x00ab0c0d", exfat});

        // fsck.fat: "<file>: N files, used/total clusters".
        for (const auto& [path, letter, name, label, serial] :
             {std::tuple{fat12, "C", "FAT", "LBL12", 0x12345678u},
              std::tuple{fat16, "D", "FAT", "LBL16", 0x0A0B0C0Du}}) {
            const std::string report = oracle::runToolChecked({"fsck.fat", "-n", path});
            const DWORD used =
                static_cast<DWORD>(std::stoul(firstMatch(report, R"((\d+)/\d+ clusters)")));
            const DWORD total =
                static_cast<DWORD>(std::stoul(firstMatch(report, R"(\d+/(\d+) clusters)")));
            expected.push_back({letter, name, label, serial, total, total - used});
        }
        // exFAT: tune.exfat for the serial (fsstat prints each of its bytes
        // without leading zeros, so 0x00ab0c0d reads "0ab-cd"); fsstat for
        // label and cluster range; blkls for the free sectors of the heap.
        const DWORD serial = static_cast<DWORD>(
            std::stoul(firstMatch(oracle::runToolChecked({"tune.exfat", "-i", exfat}),
                                  R"(volume serial\s*:\s*0x([0-9a-fA-F]{1,8})\b)"),
                       nullptr, 16));
        const std::string stats = oracle::runToolChecked({"fsstat", exfat});
        const std::uint64_t firstCluster =
            std::stoull(firstMatch(stats, R"(Cluster Range: (\d+) -)"));
        const std::uint64_t lastCluster =
            std::stoull(firstMatch(stats, R"(Cluster Range: \d+ - (\d+))"));
        const std::uint64_t heapStart = std::stoull(firstMatch(stats, R"(Cluster Heap: (\d+) -)"));
        const std::uint64_t clusterSize = std::stoull(firstMatch(stats, R"(Cluster Size: (\d+))"));
        const std::uint64_t sectorsPerCluster = clusterSize / 512;
        const std::string blocks = oracle::runToolChecked({"blkls", "-l", "-e", exfat});
        std::uint64_t freeSectors = 0;
        std::istringstream lines(blocks);
        for (std::string line; std::getline(lines, line);) {
            const std::size_t bar = line.find('|');
            if (bar == std::string::npos || line.substr(bar + 1) != "f" || !std::isdigit(line[0]))
                continue;
            const std::uint64_t sector = std::stoull(line.substr(0, bar));
            if (sector >= heapStart &&
                sector < heapStart + (lastCluster - firstCluster + 1) * sectorsPerCluster)
                ++freeSectors;
        }
        expected.push_back({"E", "exFAT",
                            firstMatch(stats, R"(Volume Label \(from root directory\): (\S+))"),
                            serial, static_cast<DWORD>(lastCluster - firstCluster + 1),
                            static_cast<DWORD>(freeSectors / sectorsPerCluster)});

        std::string error;
        if (!platform::attachDisks({fat12, fat16, exfat}, error))
            throw std::runtime_error("cannot attach the volumes: " + error);
    }

    static void TearDownTestSuite() {
        std::string error;
        platform::attachDisks({}, error);
        std::filesystem::remove_all(directory);
        expected.clear();
        setUpError.clear();
    }

    static inline std::string setUpError;
    static inline std::filesystem::path directory;
    static inline std::vector<Expected> expected;
};

TEST_F(FatVolumes, EachBareVolumeGetsALetter) {
    const auto volumes = platform::attachedVolumes();
    ASSERT_EQ(volumes.size(), 3u);
    for (std::size_t i = 0; i < volumes.size(); ++i) {
        EXPECT_EQ(std::string(1, volumes[i].letter), expected[i].letter);
        EXPECT_EQ(volumes[i].fileSystem, i == 2 ? "exFAT" : "FAT");
        EXPECT_EQ(volumes[i].partition, 0u);
    }
}

TEST_F(FatVolumes, LabelSerialAndNameAsWindowsReportsThem) {
    for (const Expected& e : expected) {
        SCOPED_TRACE(e.letter);
        WCHAR label[64] = {};
        WCHAR fileSystem[64] = {};
        DWORD serial = 0;
        ASSERT_TRUE(platform::GetVolumeInformationW(widen("\\\\.\\" + e.letter + ":\\").c_str(),
                                                    label, 64, &serial, nullptr, nullptr,
                                                    fileSystem, 64));
        EXPECT_EQ(narrow(label), e.label);
        EXPECT_EQ(narrow(fileSystem), e.fileSystem);
        EXPECT_EQ(serial, e.serial);
        // A buffer one character too small for the label.
        EXPECT_FALSE(platform::GetVolumeInformationW(widen(e.letter + ":\\").c_str(), label,
                                                     static_cast<DWORD>(e.label.size()), nullptr,
                                                     nullptr, nullptr, nullptr, 0));
        EXPECT_EQ(platform::GetLastError(), static_cast<DWORD>(ERROR_BAD_LENGTH));
    }
}

TEST_F(FatVolumes, FreeAndTotalClustersAgreeWithTheTools) {
    for (const Expected& e : expected) {
        SCOPED_TRACE(e.letter);
        DWORD spc = 0, bps = 0, freeClusters = 0, total = 0;
        ASSERT_TRUE(platform::GetDiskFreeSpaceW(widen(e.letter + ":\\").c_str(), &spc, &bps,
                                                &freeClusters, &total));
        EXPECT_EQ(bps, 512u);
        EXPECT_EQ(total, e.totalClusters);
        EXPECT_EQ(freeClusters, e.freeClusters);

        // The bitmap tells the same story.
        HANDLE volume = platform::CreateFileW(widen("\\\\.\\" + e.letter + ":").c_str(),
                                              GENERIC_READ, 3, nullptr, OPEN_EXISTING, 0, nullptr);
        ASSERT_NE(volume, INVALID_HANDLE_VALUE);
        STARTING_LCN_INPUT_BUFFER input{};
        std::vector<std::uint8_t> out(16 + (total + 7) / 8);
        DWORD returned = 0;
        ASSERT_TRUE(platform::DeviceIoControl(volume, FSCTL_GET_VOLUME_BITMAP, &input, sizeof input,
                                              out.data(), static_cast<DWORD>(out.size()), &returned,
                                              nullptr));
        std::uint64_t used = 0;
        for (std::size_t i = 16; i < out.size(); ++i)
            used += static_cast<std::uint64_t>(std::popcount(out[i]));
        EXPECT_EQ(total - used, freeClusters);

        // Not NTFS: the request is unknown to the file system.
        NTFS_VOLUME_DATA_BUFFER data{};
        EXPECT_FALSE(platform::DeviceIoControl(volume, FSCTL_GET_NTFS_VOLUME_DATA, nullptr, 0,
                                               &data, sizeof data, &returned, nullptr));
        EXPECT_EQ(platform::GetLastError(), static_cast<DWORD>(ERROR_INVALID_FUNCTION));
        platform::CloseHandle(volume);
    }
}

TEST_F(FatVolumes, OnlyTheRootDirectoryIsOffered) {
    EXPECT_EQ(platform::GetFileAttributesW(widen("C:\\").c_str()), FILE_ATTRIBUTE_DIRECTORY);
    EXPECT_EQ(platform::GetFileAttributesW(widen("C:\\$MFT").c_str()), INVALID_FILE_ATTRIBUTES);
    EXPECT_EQ(platform::GetLastError(), static_cast<DWORD>(ERROR_NOT_SUPPORTED));
}

} // namespace
