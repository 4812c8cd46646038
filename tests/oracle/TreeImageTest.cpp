// The benchmark tree image builder, run on a small file count: the volume it
// makes holds exactly the files asked for, in the shape the benchmarks rely
// on (deep paths, a few large directories), and is consistent.
#include "support/Oracle.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>

namespace kestrow::test {
namespace {

using namespace oracle;

class TreeImage : public ::testing::Test {
protected:
    static constexpr int kFiles = 3000;

    static void SetUpTestSuite() {
        std::random_device entropy;
        s_directory = new std::filesystem::path(std::filesystem::temp_directory_path() /
                                                ("kestrow-tree-" + std::to_string(entropy())));
        std::filesystem::create_directories(*s_directory);
        s_built =
            runTool({KESTROW_IMAGE_BUILDER, "tree", image().string(), std::to_string(kFiles)});
    }
    static void TearDownTestSuite() {
        std::filesystem::remove_all(*s_directory);
        delete s_directory;
    }
    void SetUp() override { ASSERT_EQ(s_built.exitCode, 0) << s_built.out << s_built.err; }
    static std::filesystem::path image() { return *s_directory / "tree.img"; }

    static std::filesystem::path* s_directory;
    static ToolOutput s_built;
};

std::filesystem::path* TreeImage::s_directory = nullptr;
ToolOutput TreeImage::s_built;

TEST_F(TreeImage, HoldsTheFilesAskedForInDeepAndLargeDirectories) {
    const auto entries = listFiles(image(), 0, FlsSelection::AllocatedOnly);
    std::map<std::string, int> childrenPerDirectory;
    int files = 0;
    int directories = 0;
    std::size_t deepest = 0;
    for (const auto& entry : entries) {
        if (entry.path.starts_with("$") || !entry.streamName().empty())
            continue; // system files
        if (entry.isDirectory())
            ++directories;
        else
            ++files;
        deepest =
            std::max<std::size_t>(deepest, std::count(entry.path.begin(), entry.path.end(), '/'));
        const auto slash = entry.path.rfind('/');
        ++childrenPerDirectory[slash == std::string::npos ? "" : entry.path.substr(0, slash)];
    }
    EXPECT_EQ(files, kFiles);
    EXPECT_GE(deepest, 40u);
    const auto largest =
        std::max_element(childrenPerDirectory.begin(), childrenPerDirectory.end(),
                         [](const auto& a, const auto& b) { return a.second < b.second; });
    EXPECT_GE(largest->second, kFiles / 40);
    EXPECT_GE(directories, kFiles / 16 - 1); // about one directory per 16 files, root aside
}

TEST_F(TreeImage, IsAConsistentVolume) {
    EXPECT_EQ(fileSystemStats(image()).label, "KESTROW_TREE");
    EXPECT_EQ(volumeInconsistencies(image()), "");
}

TEST_F(TreeImage, SameCountGivesTheSameTree) {
    const auto again = *TreeImage::s_directory / "again.img";
    ASSERT_EQ(
        runTool({KESTROW_IMAGE_BUILDER, "tree", again.string(), std::to_string(kFiles)}).exitCode,
        0);
    auto paths = [](const std::filesystem::path& volume) {
        std::vector<std::string> result;
        for (const auto& entry : listFiles(volume, 0, FlsSelection::AllocatedOnly))
            result.push_back(entry.path);
        std::sort(result.begin(), result.end());
        return result;
    };
    EXPECT_EQ(paths(image()), paths(again));
}

} // namespace
} // namespace kestrow::test
