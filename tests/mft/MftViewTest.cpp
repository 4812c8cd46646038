// The record buffer served through views of the drive, on the fixture
// images: every record, every result and every log line must be the same as
// when the drive cannot be mapped and the buffer is read, failed reads
// included, and copies and moves of a table must keep what its views served.
#include "support/AttachedDisks.h"
#include "support/FakePlatform.h"
#include "support/Fixtures.h"
#include "support/LogCapture.h"

#include <kestrow/Platform.h>
#include <kestrow/WinTypes.h>
#include <libKestrow/MasterFileTable.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

namespace {

namespace platform = kestrow::platform;
using kestrow::test::AttachedDisks;
using kestrow::test::FixtureImage;
using kestrow::test::ImageFacts;
using kestrow::test::LogCapture;

// The backend maps image files on POSIX hosts; on Windows it reads them, and
// there both runs of a comparison read.
#if defined(_WIN32)
constexpr bool BACKEND_MAPS_IMAGES = false;
#else
constexpr bool BACKEND_MAPS_IMAGES = true;
#endif

// The disk-image backend, with a script on top: mappings refused, the drive's
// reads and views that cover one byte failing, and a chosen amount of free
// memory (a little makes the record buffer small, so that it moves often).
class ScriptedBackend final : public platform::Api {
public:
    explicit ScriptedBackend(platform::Api& backend) : m_backend(backend) {}

    bool allowMappings = true;
    std::optional<std::uint64_t> failingDriveByte;
    std::uint64_t availableMemory = 0; // 0: what the backend says
    unsigned viewsShown = 0;
    unsigned failedReads = 0;

    HANDLE CreateFileW(LPCWSTR fileName, DWORD desiredAccess, DWORD shareMode,
                       LPSECURITY_ATTRIBUTES securityAttributes, DWORD creationDisposition,
                       DWORD flagsAndAttributes, HANDLE templateFile) override {
        HANDLE handle =
            m_backend.CreateFileW(fileName, desiredAccess, shareMode, securityAttributes,
                                  creationDisposition, flagsAndAttributes, templateFile);
        if (handle != INVALID_HANDLE_VALUE &&
            kestrow::test::narrow(fileName).rfind("\\\\.\\PhysicalDrive", 0) == 0)
            m_drivePositions[handle] = 0;
        return handle;
    }
    BOOL CloseHandle(HANDLE handle) override {
        m_drivePositions.erase(handle);
        return m_backend.CloseHandle(handle);
    }
    BOOL ReadFile(HANDLE handle, LPVOID buffer, DWORD bytesToRead, LPDWORD bytesRead,
                  LPOVERLAPPED overlapped) override {
        const auto drive = m_drivePositions.find(handle);
        if (drive != m_drivePositions.end() && covers(drive->second, bytesToRead)) {
            ++failedReads;
            if (bytesRead != nullptr)
                *bytesRead = 0;
            SetLastError(ERROR_CRC);
            return FALSE;
        }
        return m_backend.ReadFile(handle, buffer, bytesToRead, bytesRead, overlapped);
    }
    BOOL SetFilePointerEx(HANDLE handle, LARGE_INTEGER distance, PLARGE_INTEGER newPosition,
                          DWORD moveMethod) override {
        const BOOL moved = m_backend.SetFilePointerEx(handle, distance, newPosition, moveMethod);
        const auto drive = m_drivePositions.find(handle);
        if (moved && drive != m_drivePositions.end() && moveMethod == FILE_BEGIN)
            drive->second = static_cast<std::uint64_t>(distance.QuadPart);
        return moved;
    }
    BOOL DeviceIoControl(HANDLE handle, DWORD code, LPVOID in, DWORD inSize, LPVOID out,
                         DWORD outSize, LPDWORD returned, LPOVERLAPPED overlapped) override {
        return m_backend.DeviceIoControl(handle, code, in, inSize, out, outSize, returned,
                                         overlapped);
    }
    BOOL GetVolumeInformationW(LPCWSTR root, LPWSTR name, DWORD nameSize, LPDWORD serial,
                               LPDWORD maxComponent, LPDWORD flags, LPWSTR fsName,
                               DWORD fsNameSize) override {
        return m_backend.GetVolumeInformationW(root, name, nameSize, serial, maxComponent, flags,
                                               fsName, fsNameSize);
    }
    BOOL GetDiskFreeSpaceW(LPCWSTR root, LPDWORD sectorsPerCluster, LPDWORD bytesPerSector,
                           LPDWORD freeClusters, LPDWORD totalClusters) override {
        return m_backend.GetDiskFreeSpaceW(root, sectorsPerCluster, bytesPerSector, freeClusters,
                                           totalClusters);
    }
    DWORD GetFileAttributesW(LPCWSTR fileName) override {
        return m_backend.GetFileAttributesW(fileName);
    }
    BOOL GlobalMemoryStatusEx(LPMEMORYSTATUSEX buffer) override {
        const BOOL answered = m_backend.GlobalMemoryStatusEx(buffer);
        if (answered && availableMemory != 0)
            buffer->ullAvailPhys = availableMemory;
        return answered;
    }
    HANDLE CreateFileMappingW(HANDLE file, LPSECURITY_ATTRIBUTES attributes, DWORD protect,
                              DWORD high, DWORD low, LPCWSTR name) override {
        if (!allowMappings)
            return Api::CreateFileMappingW(file, attributes, protect, high, low, name);
        return m_backend.CreateFileMappingW(file, attributes, protect, high, low, name);
    }
    LPVOID MapViewOfFile(HANDLE mapping, DWORD access, DWORD high, DWORD low,
                         SIZE_T bytes) override {
        const std::uint64_t offset = (std::uint64_t{high} << 32) | low;
        if (bytes == 0 || covers(offset, bytes)) {
            SetLastError(ERROR_NOT_ENOUGH_MEMORY);
            return nullptr;
        }
        LPVOID view = m_backend.MapViewOfFile(mapping, access, high, low, bytes);
        if (view != nullptr)
            ++viewsShown;
        return view;
    }
    BOOL UnmapViewOfFile(LPCVOID address) override { return m_backend.UnmapViewOfFile(address); }

private:
    bool covers(std::uint64_t offset, std::uint64_t length) const {
        return failingDriveByte && *failingDriveByte >= offset &&
               *failingDriveByte - offset < length;
    }

    platform::Api& m_backend;
    std::map<HANDLE, std::uint64_t> m_drivePositions;
};

// Everything a parse takes from a record's bytes.
std::string describe(bool valid, const FileRecord& record) {
    std::ostringstream out;
    out << valid << ' ' << record.isValid() << ' ' << record.mftIndex().index << ' '
        << record.parentMftIndex().index << ' ' << record.name().toUtf8() << ' '
        << record.allocatedSize() << ' ' << record.realSize() << ' ' << record.dataSize() << ' '
        << record.getCreationTime() << ' ' << record.getModificationTime() << ' '
        << record.getLastReadTime() << ' ' << record.getFileAttributes() << " [";
    for (const AttributeSummary& attribute : record.getAttributes())
        out << attribute.name.toUtf8() << (attribute.resident ? "/r " : "/n ");
    out << "] [";
    for (const unsigned long long reference : record.getExternalAttributeReferences())
        out << reference << ' ';
    out << "] [";
    for (const ClusterRange& range : record.getClusterRanges())
        out << range.start << '+' << range.count << ' ';
    out << ']';
    return out.str();
}

// Every record slot of a table in index order, then the slots again from the
// top down: the buffered range moves both ways, as the owner search moves it.
std::vector<std::string> walkBothWays(MasterFileTable& table) {
    unsigned long long count = 0;
    EXPECT_TRUE(table.getNumMftRecords(count));
    std::vector<std::string> records;
    FileRecord record;
    for (unsigned long long index = 0; index < count; ++index)
        records.push_back(
            describe(table.getValidMftRecord(FileReference(index, 0), record), record));
    for (unsigned long long index = count; index-- > 0;)
        records.push_back(
            describe(table.getValidMftRecord(FileReference(index, 0), record), record));
    return records;
}

// The walk up, with the table replaced by a copy of itself (the original
// then goes) or by itself moved, one step in five each, so that copies and
// moves happen with a live view and after failed refreshes.
std::vector<std::string> walkReplacingTheTable(std::unique_ptr<MasterFileTable>& table) {
    unsigned long long count = 0;
    EXPECT_TRUE(table->getNumMftRecords(count));
    std::vector<std::string> records;
    FileRecord record;
    for (unsigned long long index = 0; index < count; ++index) {
        records.push_back(
            describe(table->getValidMftRecord(FileReference(index, 0), record), record));
        if (index % 5 == 2)
            table = std::make_unique<MasterFileTable>(*table);
        else if (index % 5 == 4)
            table = std::make_unique<MasterFileTable>(std::move(*table));
        else
            continue;
        // The replacement answers for the same record from its buffer.
        records.push_back(
            describe(table->getValidMftRecord(FileReference(index, 0), record), record));
    }
    return records;
}

struct TableRun {
    std::vector<std::string> records;
    std::vector<std::string> log;
    std::string owners;
    unsigned viewsShown = 0;
    unsigned failedReads = 0;
};

struct Script {
    bool allowMappings = true;
    std::uint64_t availableMemory = 0;
    std::optional<std::uint64_t> failingDriveByte;
    bool replacingTheTable = false;
};

// One table over the image under the script: every record both ways and two
// owner searches (a cluster of the volume's last records, and one nobody
// owns), with every line logged, trace lines included.
TableRun runOn(const std::filesystem::path& image, const Script& script) {
    AttachedDisks attached(image);
    EXPECT_TRUE(attached.ok()) << attached.error();
    ScriptedBackend backend(platform::current());
    backend.allowMappings = script.allowMappings;
    backend.availableMemory = script.availableMemory;
    backend.failingDriveByte = script.failingDriveByte;
    platform::ScopedApi scope(backend);
    TableRun run;
    {
        LogCapture log(orv::LoggerPriority::LP_TRACE);
        Volume volume('C');
        auto table = std::make_unique<MasterFileTable>(volume);
        EXPECT_TRUE(table->initialized());
        run.records =
            script.replacingTheTable ? walkReplacingTheTable(table) : walkBothWays(*table);
        std::ostringstream owners;
        for (const unsigned long long cluster : {8ULL, ~0ULL >> 20}) {
            FileReference ref(0, 0);
            owners << table->findRecordCluster(cluster, ref) << ':' << ref.index << ' ';
        }
        run.owners = owners.str();
        for (const kestrow::test::LoggedLine& line : log.lines())
            run.log.push_back(line.logger + ' ' + std::to_string(line.priority) + ' ' + line.text);
    }
    run.viewsShown = backend.viewsShown;
    run.failedReads = backend.failedReads;
    return run;
}

void expectSameRuns(const TableRun& viewed, const TableRun& read) {
    EXPECT_EQ(viewed.owners, read.owners);
    ASSERT_EQ(viewed.records.size(), read.records.size());
    for (std::size_t i = 0; i < viewed.records.size(); ++i)
        ASSERT_EQ(viewed.records[i], read.records[i]) << "walk step " << i;
    ASSERT_EQ(viewed.log.size(), read.log.size());
    for (std::size_t i = 0; i < viewed.log.size(); ++i)
        ASSERT_EQ(viewed.log[i], read.log[i]) << "log line " << i;
}

class ViewedAndRead : public ::testing::TestWithParam<ImageFacts> {};

// The buffer as large as the volume's largest MFT run (one view for most
// runs), and as small as a few records (a view for every few records). Only
// ranges of whole 4 KiB pages are viewed: the 512-byte-cluster volume's one
// run of 379 records is read whole, its 128-record ranges are viewed.
TEST_P(ViewedAndRead, GiveTheSameRecordsResultsAndLogLines) {
    const std::filesystem::path image = kestrow::test::imagePath(GetParam().image);
    unsigned viewsShown = 0;
    for (const std::uint64_t memory : {std::uint64_t{0}, std::uint64_t{256} * 1024}) {
        SCOPED_TRACE("available memory " + std::to_string(memory));
        const TableRun viewed = runOn(image, {true, memory, std::nullopt});
        const TableRun read = runOn(image, {false, memory, std::nullopt});
        viewsShown += viewed.viewsShown;
        EXPECT_EQ(read.viewsShown, 0u);
        expectSameRuns(viewed, read);
    }
    if (BACKEND_MAPS_IMAGES) {
        EXPECT_GT(viewsShown, 0u) << "the drive was never mapped";
    }
}

INSTANTIATE_TEST_SUITE_P(Fixtures, ViewedAndRead,
                         ::testing::ValuesIn(kestrow::test::allImages().begin(),
                                             kestrow::test::allImages().end()));

// The MFT's runs on the rich volume, as the table counts their records.
struct RunSlots {
    std::uint64_t startByte;
    std::uint64_t records;
};

std::vector<RunSlots> mftRunSlots(const std::filesystem::path& image) {
    AttachedDisks attached(image);
    Volume volume('C');
    MasterFileTable table(volume);
    std::vector<RunSlots> runs;
    for (const Volume::FileExtent& run : table.getMftExtents())
        runs.push_back({run.startSector * volume.bytesPerSector(),
                        (run.endSector - run.startSector + 1) * volume.bytesPerSector() /
                            volume.bytesPerFileRecord()});
    return runs;
}

// A refresh whose read fails keeps serving the earlier bytes of the buffer,
// byte for byte as when every range was read: here the buffer last held a
// run's short tail, and before that a full range, whose bytes beyond the
// tail are what the failed range then shows.
TEST(ViewedBuffer, AFailedRefreshServesTheEarlierBytes) {
    const std::filesystem::path image = kestrow::test::richVolume();
    const std::uint64_t recordBytes = kestrow::test::factsOf(FixtureImage::Rich).bytesPerFileRecord;
    const std::vector<RunSlots> runs = mftRunSlots(image);
    // A capacity (in records) and a run whose last range is shorter than
    // that but still whole 4 KiB pages (so a view serves it), followed by a
    // run whose first range is longer than that tail: that range fails.
    std::uint64_t capacity = 0;
    std::optional<std::uint64_t> failing;
    for (std::uint64_t candidate = 8; candidate <= 256 && !failing; candidate *= 2) {
        for (std::size_t i = 0; i + 1 < runs.size() && !failing; ++i) {
            const std::uint64_t tail = runs[i].records % candidate;
            if (runs[i].records > candidate && tail != 0 && tail * recordBytes % 4096 == 0 &&
                runs[i + 1].records > tail) {
                capacity = candidate;
                failing = runs[i + 1].startByte;
            }
        }
    }
    ASSERT_TRUE(failing) << "no MFT run of the rich volume ends in a short range";
    // Half the free memory is the buffer's size.
    const std::uint64_t memory = 2 * capacity * recordBytes;
    const TableRun viewed = runOn(image, {true, memory, failing});
    const TableRun read = runOn(image, {false, memory, failing});
    const TableRun clean = runOn(image, {false, memory, std::nullopt});
    if (BACKEND_MAPS_IMAGES) {
        EXPECT_GT(viewed.viewsShown, 0u);
    }
    EXPECT_GT(viewed.failedReads, 0u) << "the failing range was never read";
    EXPECT_EQ(viewed.failedReads, read.failedReads);
    EXPECT_NE(read.records, clean.records) << "the failed range served its own records";
    expectSameRuns(viewed, read);

    // Copies and moves, made with a live view and after the failed refresh,
    // serve what the table they were made from served.
    const TableRun viewedCopies = runOn(image, {true, memory, failing, true});
    const TableRun readCopies = runOn(image, {false, memory, failing, true});
    if (BACKEND_MAPS_IMAGES) {
        EXPECT_GT(viewedCopies.viewsShown, 0u);
    }
    expectSameRuns(viewedCopies, readCopies);
}

} // namespace
