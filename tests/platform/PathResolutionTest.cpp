// Names on the rich fixture volume resolve through the directory indexes as
// the file system driver resolves them, and files answer for their runs and
// content as The Sleuth Kit reads them.
#include "support/FakePlatform.h"
#include "support/Fixtures.h"
#include "support/Oracle.h"
#include "support/Win32Calls.h"

#include <kestrow/Disks.h>
#include <kestrow/Platform.h>

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

namespace platform = kestrow::platform;
namespace oracle = kestrow::test::oracle;
namespace rich = kestrow::test::rich;

using kestrow::test::widen;

std::string upperAscii(std::string text) {
    for (char& c : text)
        if (c >= 'a' && c <= 'z')
            c = static_cast<char>(c - 'a' + 'A');
    return text;
}

class RichVolume : public testing::Test {
protected:
    static void SetUpTestSuite() {
        std::string error;
        ASSERT_TRUE(platform::attachDisks({kestrow::test::richVolume().string()}, error)) << error;
    }
    static void TearDownTestSuite() {
        std::string error;
        platform::attachDisks({}, error);
    }

    static DWORD attributesOf(std::string_view path) {
        return platform::GetFileAttributesW(widen(std::string(path)).c_str());
    }

    static HANDLE openFile(std::string_view path, DWORD flags = 0, DWORD access = 0) {
        return platform::CreateFileW(widen(std::string(path)).c_str(), access,
                                     FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                                     flags, nullptr);
    }

    // One LCN per cluster of the file, -1 for none.
    static std::vector<std::int64_t> clustersOfFile(std::string_view path, DWORD& error) {
        const kestrow::test::Handle file(path, 0);
        error = file.error();
        return file.valid()
                   ? kestrow::test::clustersOf(kestrow::test::retrievalPointers(file.get(), error))
                   : std::vector<std::int64_t>{};
    }
};

TEST_F(RichVolume, EveryAllocatedNameTheSleuthKitListsExistsWithItsKind) {
    const auto entries =
        oracle::listFiles(kestrow::test::richVolume(), 0, oracle::FlsSelection::AllocatedOnly);
    std::size_t checked = 0;
    for (const oracle::FlsEntry& entry : entries) {
        if (entry.nameType == 'V' || entry.path.rfind("$OrphanFiles", 0) == 0 ||
            !entry.streamName().empty())
            continue;
        const std::string path = "C:\\" + kestrow::test::windowsPath(entry.filePath());
        const DWORD attributes = attributesOf(path);
        ASSERT_NE(attributes, INVALID_FILE_ATTRIBUTES)
            << path << " error " << platform::GetLastError();
        EXPECT_EQ((attributes & FILE_ATTRIBUTE_DIRECTORY) != 0, entry.isDirectory()) << path;
        ++checked;
    }
    EXPECT_GT(checked, 1800u);
}

TEST_F(RichVolume, NamesCompareCaseInsensitivelyWithTheVolumesUpcaseTable) {
    EXPECT_NE(attributesOf("C:\\DOCS\\SUB\\DEEP.TXT"), INVALID_FILE_ATTRIBUTES);
    EXPECT_NE(attributesOf("c:\\docs\\sub\\Deep.Txt"), INVALID_FILE_ATTRIBUTES);
    EXPECT_NE(attributesOf(upperAscii("C:\\" + kestrow::test::windowsPath(rich::deepFilePath()))),
              INVALID_FILE_ATTRIBUTES);
    // Ünïcödé.txt written in capitals, Ελληνικά in capitals (ΕΛΛΗΝΙΚΆ).
    EXPECT_NE(attributesOf("C:\\UNICODE\\\xC3\x9C"
                           "N\xC3\x8F"
                           "C\xC3\x96"
                           "D\xC3\x89.TXT"),
              INVALID_FILE_ATTRIBUTES);
    EXPECT_NE(attributesOf(
                  "C:\\Unicode\\\xCE\x95\xCE\x9B\xCE\x9B\xCE\x97\xCE\x9D\xCE\x99\xCE\x9A\xCE\x86"),
              INVALID_FILE_ATTRIBUTES);
    EXPECT_NE(attributesOf("C:\\Unicode\\emoji-\xF0\x9F\x98\x80.txt"), INVALID_FILE_ATTRIBUTES);
}

TEST_F(RichVolume, ShortNamesOpenTheSameFiles) {
    for (const auto& file : rich::kShortNamedFiles) {
        const std::string shortPath = "C:\\Names\\" + std::string(file.shortName);
        EXPECT_NE(attributesOf(shortPath), INVALID_FILE_ATTRIBUTES) << shortPath;
    }
}

TEST_F(RichVolume, EveryPathFormOfTheLibraryResolves) {
    for (const char* path :
         {"C:\\$MFT", "\\\\.\\C:\\$MFT", "C:$MFT", "\\\\.\\C:$MFT", "C:/Docs/./Sub/../Sub/deep.txt",
          "\\\\?\\C:\\Docs\\report.bin", "C:\\Readme.txt::$DATA", "C:\\Docs\\report.bin. "}) {
        EXPECT_NE(attributesOf(path), INVALID_FILE_ATTRIBUTES) << path;
    }
    EXPECT_NE(attributesOf("C:\\") & FILE_ATTRIBUTE_DIRECTORY, 0u);
    EXPECT_NE(attributesOf("C:") & FILE_ATTRIBUTE_DIRECTORY, 0u);
    EXPECT_EQ(attributesOf("C:\\$MFT") & (FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM),
              FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM);
}

TEST_F(RichVolume, MissingNamesGiveWindowsErrorCodes) {
    struct Case {
        const char* path;
        DWORD error;
    };
    const Case cases[] = {
        {"C:\\nothing.txt", ERROR_FILE_NOT_FOUND},
        {"C:\\Docs\\nothing.txt", ERROR_FILE_NOT_FOUND},
        {"C:\\NoDir\\nothing.txt", ERROR_PATH_NOT_FOUND},
        {"C:\\Readme.txt\\below", ERROR_PATH_NOT_FOUND},
        {"C:\\Readme.txt\\", ERROR_INVALID_NAME},
        {"C:\\a<b", ERROR_INVALID_NAME},
        {"\\\\?\\C:\\Docs\\.\\report.bin", ERROR_PATH_NOT_FOUND}, // "." taken literally
        {"Q:\\anything", ERROR_PATH_NOT_FOUND},
        {"C:\\gone.txt", ERROR_FILE_NOT_FOUND},                       // deleted
        {"C:\\Streams\\streams.txt:stream-00", ERROR_FILE_NOT_FOUND}, // named streams not offered
        {"relative.txt", ERROR_PATH_NOT_FOUND},
        {"\\\\server\\share\\x", ERROR_BAD_NETPATH},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(attributesOf(c.path), INVALID_FILE_ATTRIBUTES) << c.path;
        EXPECT_EQ(platform::GetLastError(), c.error) << c.path;
    }
    EXPECT_EQ(openFile("\\\\.\\Q:"), INVALID_HANDLE_VALUE);
    EXPECT_EQ(platform::GetLastError(), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
}

TEST_F(RichVolume, FilesCannotBeOpenedForWritingNorCreatedButDevicesCan) {
    EXPECT_EQ(openFile("C:\\Readme.txt", 0, GENERIC_READ | GENERIC_WRITE), INVALID_HANDLE_VALUE);
    EXPECT_EQ(platform::GetLastError(), static_cast<DWORD>(ERROR_WRITE_PROTECT));
    HANDLE created = platform::CreateFileW(widen("C:\\new.txt").c_str(), GENERIC_READ, 0, nullptr,
                                           CREATE_NEW, 0, nullptr);
    EXPECT_EQ(created, INVALID_HANDLE_VALUE);
    EXPECT_EQ(platform::GetLastError(), static_cast<DWORD>(ERROR_WRITE_PROTECT));
    // Directories need backup semantics, as on Windows.
    EXPECT_EQ(openFile("C:\\Docs"), INVALID_HANDLE_VALUE);
    EXPECT_EQ(platform::GetLastError(), static_cast<DWORD>(ERROR_ACCESS_DENIED));
    HANDLE docs = openFile("C:\\Docs", FILE_FLAG_BACKUP_SEMANTICS);
    EXPECT_NE(docs, INVALID_HANDLE_VALUE);
    platform::CloseHandle(docs);
    HANDLE volume = openFile("\\\\.\\C:", 0, GENERIC_READ | GENERIC_WRITE);
    EXPECT_NE(volume, INVALID_HANDLE_VALUE);
    EXPECT_TRUE(platform::CloseHandle(volume));
    EXPECT_FALSE(platform::CloseHandle(volume));
    EXPECT_EQ(platform::GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
}

TEST_F(RichVolume, RunsOfFragmentedSparseAndResidentFilesAgreeWithIstat) {
    const auto image = kestrow::test::richVolume();
    for (std::string_view path : {rich::kFragmentedA, rich::kFragmentedB, rich::kSparsePath,
                                  rich::kLargePath, kestrow::test::kReportPath}) {
        SCOPED_TRACE(std::string(path));
        const auto inode = oracle::findInode(image, path);
        ASSERT_TRUE(inode.has_value());
        const oracle::IstatResult istat = oracle::inspectRecord(image, *inode);
        const oracle::IstatAttribute* data = istat.find(oracle::kData);
        ASSERT_NE(data, nullptr);
        DWORD error = 0;
        const auto clusters = clustersOfFile("C:\\" + kestrow::test::windowsPath(path), error);
        ASSERT_EQ(error, 0u);
        ASSERT_EQ(clusters.size(), data->clusters.size());
        for (std::size_t i = 0; i < clusters.size(); ++i) {
            // istat prints 0 for a cluster with nothing on disk.
            const std::int64_t expected =
                data->clusters[i] == 0 ? -1 : static_cast<std::int64_t>(data->clusters[i]);
            ASSERT_EQ(clusters[i], expected) << "VCN " << i;
        }
    }
    DWORD error = 0;
    EXPECT_TRUE(clustersOfFile("C:\\Readme.txt", error).empty());
    EXPECT_EQ(error, static_cast<DWORD>(ERROR_HANDLE_EOF)); // resident: no clusters
}

TEST_F(RichVolume, FileHandlesReadTheUnnamedStream) {
    struct Case {
        std::string path;
        std::string expected;
    };
    std::vector<Case> cases = {
        {"C:\\Readme.txt", std::string(kestrow::test::kReadmeText)},
        {"C:\\Links\\target.txt", std::string(rich::kHardLinkText)},
        {"C:\\Streams\\streams.txt", std::string(rich::kStreamsText)},
    };
    const auto report =
        kestrow::test::patternBytes(kestrow::test::kReportSeed, 0, kestrow::test::kReportSize);
    cases.push_back({"C:\\Docs\\report.bin", std::string(report.begin(), report.end())});
    for (const Case& c : cases) {
        HANDLE file = openFile(c.path, 0, GENERIC_READ);
        ASSERT_NE(file, INVALID_HANDLE_VALUE) << c.path << " " << platform::GetLastError();
        std::string content(c.expected.size() + 100, '\0');
        DWORD got = 0;
        ASSERT_TRUE(platform::ReadFile(file, content.data(), static_cast<DWORD>(content.size()),
                                       &got, nullptr));
        content.resize(got);
        EXPECT_EQ(content, c.expected) << c.path;
        platform::CloseHandle(file);
    }
}

} // namespace
