// The record buffer under a real memory shortage, end to end: kestrow runs in
// an address space too small for the buffer its MFT asks for. The table must
// halve the buffer until it fits and answer exactly as it does with memory to
// spare. The limit is RLIMIT_AS on the child, so this runs only without
// AddressSanitizer (which reserves terabytes of address space up front).
#include "ToolRun.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <regex>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include <stdlib.h>

namespace kestrow::test::hardening {
namespace {

namespace fs = std::filesystem;

constexpr std::uint64_t MiB = 1024 * 1024;
// Enough files for an MFT whose first run is tens of MiB.
constexpr int kFiles = 40000;
// The tree volume's geometry (the image builder's).
constexpr std::uint64_t kSectorSize = 512;
constexpr std::uint64_t kRecordSize = 1024;
constexpr std::uint64_t kFirstUserRecord = 64;

// The lines of a text without those that match `skip`.
std::string withoutLines(const std::string& text, const std::regex& skip) {
    std::istringstream in(text);
    std::string line;
    std::string kept;
    while (std::getline(in, line))
        if (!std::regex_search(line, skip))
            kept += line + "\n";
    return kept;
}

// The last "602 m_buffer.maxBufferSize: N" of a verbose run: the size kept.
std::vector<std::uint64_t> bufferSizesTried(const std::string& log) {
    std::vector<std::uint64_t> sizes;
    const std::regex line("602 m_buffer\\.maxBufferSize: ([0-9]+)");
    for (std::sregex_iterator it(log.begin(), log.end(), line), end; it != end; ++it)
        sizes.push_back(std::stoull((*it)[1].str()));
    return sizes;
}

class RecordBufferUnderMemoryLimit : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        if (underAddressSanitizer())
            return; // the test skips itself
        char pattern[] = "/tmp/kestrow-memory-XXXXXX";
        ASSERT_NE(::mkdtemp(pattern), nullptr);
        directory = pattern;
        image = directory / "tree.img";
        const ChildRun built =
            runChild({KESTROW_IMAGE_BUILDER, "tree", image.string(), std::to_string(kFiles)},
                     ChildLimits{std::chrono::milliseconds(300000), 0, 4096});
        ASSERT_EQ(built.exitCode, 0) << built.err;
        freeMostRecords();
    }

    // Marks nine in ten of the records past the system files as free, so that
    // the record map needs little memory next to the record buffer, which the
    // MFT's runs alone size. Both runs of a comparison read the same image.
    static void freeMostRecords() {
        const ChildRun info = kestrow({"info", "C:", "--json"}, 0);
        ASSERT_EQ(info.exitCode, 0) << info.err;
        const std::regex run("\"startSector\": ([0-9]+),\\s*\"endSector\": [0-9]+,\\s*"
                             "\"firstRecord\": ([0-9]+),\\s*\"recordCount\": ([0-9]+)");
        std::fstream file(image, std::ios::binary | std::ios::in | std::ios::out);
        ASSERT_TRUE(file.is_open());
        int runs = 0;
        for (std::sregex_iterator it(info.out.begin(), info.out.end(), run), end; it != end; ++it) {
            ++runs;
            const std::uint64_t start = std::stoull((*it)[1].str()) * kSectorSize;
            const std::uint64_t first = std::stoull((*it)[2].str());
            const std::uint64_t count = std::stoull((*it)[3].str());
            for (std::uint64_t record = std::max<std::uint64_t>(first, kFirstUserRecord);
                 record < first + count; ++record) {
                if (record % 10 == 0)
                    continue;
                const std::uint64_t at = start + (record - first) * kRecordSize;
                char header[0x18];
                file.seekg(static_cast<std::streamoff>(at));
                if (!file.read(header, sizeof header) || std::string_view(header, 4) != "FILE")
                    continue;
                const char flags = static_cast<char>(header[0x16] & ~0x01); // clear "in use"
                file.seekp(static_cast<std::streamoff>(at + 0x16));
                file.write(&flags, 1);
            }
        }
        ASSERT_GT(runs, 0) << info.out;
        ASSERT_TRUE(file.good());
    }
    static void TearDownTestSuite() {
        std::error_code ignored;
        if (!directory.empty())
            fs::remove_all(directory, ignored);
    }

    static ChildRun kestrow(std::vector<std::string> arguments, std::uint64_t addressSpace) {
        std::vector<std::string> argv = {KESTROW_TOOL_PATH, "--disk", image.string()};
        argv.insert(argv.end(), arguments.begin(), arguments.end());
        ChildLimits limits;
        limits.timeout = commandTimeout();
        limits.addressSpaceBytes = addressSpace;
        limits.keptOutputBytes = 256 * MiB;
        return runChild(argv, limits);
    }

    static fs::path directory;
    static fs::path image;
};

fs::path RecordBufferUnderMemoryLimit::directory;
fs::path RecordBufferUnderMemoryLimit::image;

TEST_F(RecordBufferUnderMemoryLimit, HalvesTheBufferAndGivesTheSameAnswers) {
    if (underAddressSanitizer())
        GTEST_SKIP() << "needs: a build without AddressSanitizer, which runs under no "
                        "address-space limit";

    const ChildRun freeInfo = kestrow({"info", "C:", "-v"}, 0);
    ASSERT_EQ(freeInfo.exitCode, 0) << freeInfo.err;
    const std::vector<std::uint64_t> freeSizes = bufferSizesTried(freeInfo.err);
    ASSERT_EQ(freeSizes.size(), 1u) << "with memory to spare the first size fits";
    const std::uint64_t wanted = freeSizes.front();
    ASSERT_GE(wanted, 16 * MiB) << "the MFT's first run is too small for this test";
    const ChildRun freePaths = kestrow({"paths", "C:"}, 0);
    ASSERT_EQ(freePaths.exitCode, 0) << freePaths.err;
    ASSERT_GT(freePaths.out.size(), 1000u);

    // The smallest address space in which `paths` still succeeds (1 MiB
    // steps). There the full buffer cannot be had: the other needs of the
    // program are far smaller than the buffer.
    std::uint64_t low = 8 * MiB;     // fails
    std::uint64_t high = 1024 * MiB; // works
    ASSERT_EQ(kestrow({"paths", "C:"}, high).exitCode, 0);
    while (high - low > MiB) {
        const std::uint64_t middle = low + (high - low) / 2;
        (kestrow({"paths", "C:"}, middle).exitCode == 0 ? high : low) = middle;
    }
    const std::uint64_t limit = high + MiB;

    const ChildRun tightInfo = kestrow({"info", "C:", "-v"}, limit);
    ASSERT_EQ(tightInfo.exitCode, 0) << tightInfo.err.substr(0, 2000);
    EXPECT_NE(tightInfo.err.find("593 Failed to initialize ByteBuffer - buffer too large"),
              std::string::npos)
        << "the buffer was not halved at a limit of " << limit / MiB << " MiB";
    const std::vector<std::uint64_t> tightSizes = bufferSizesTried(tightInfo.err);
    ASSERT_FALSE(tightSizes.empty());
    EXPECT_LT(tightSizes.back(), wanted);
    EXPECT_GE(tightSizes.back(), wanted / 8);

    // Everything but the buffer's own size reads the same.
    const std::regex bufferLine("Record buffer");
    EXPECT_EQ(withoutLines(kestrow({"info", "C:"}, limit).out, bufferLine),
              withoutLines(kestrow({"info", "C:"}, 0).out, bufferLine));
    const ChildRun tightPaths = kestrow({"paths", "C:"}, limit);
    ASSERT_EQ(tightPaths.exitCode, 0) << tightPaths.err;
    EXPECT_EQ(tightPaths.out, freePaths.out);
    const ChildRun tightOwner = kestrow({"owner", "C:", "100"}, limit);
    EXPECT_EQ(tightOwner.exitCode, 0) << tightOwner.err;
    EXPECT_EQ(tightOwner.out, kestrow({"owner", "C:", "100"}, 0).out);
    std::cout << "record buffer: " << wanted << " bytes wanted, " << tightSizes.back()
              << " bytes kept under an address-space limit of " << limit / MiB << " MiB\n";
}

} // namespace
} // namespace kestrow::test::hardening
