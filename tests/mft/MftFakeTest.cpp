// MasterFileTable on the scripted fake platform: buffer sizing, the record
// readers' arithmetic, failure paths, copies, paths and cluster owners on a
// hand-built MFT.
#include "RecordBuilder.h"

#include "support/Fixtures.h"
#include "support/LogCapture.h"

#include <libKestrow/MasterFileTable.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <set>
#include <string>

#if defined(__linux__)
#include <sys/resource.h>
#endif

// Address-space limits and AddressSanitizer's shadow memory do not mix.
#if defined(__SANITIZE_ADDRESS__)
#define KESTROW_TEST_UNDER_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define KESTROW_TEST_UNDER_ASAN 1
#endif
#endif

using kestrow::test::FakePlatform;
using kestrow::test::LogCapture;
using kestrow::test::mft::FakeMftDrive;
using kestrow::test::mft::FakeMftGeometry;
using kestrow::test::mft::RecordSpec;

namespace {

constexpr const char* MFT_LOGGER = "libKestrow.MasterFileTable";
constexpr std::uint64_t MiB = 1024 * 1024;

std::string utf8(const orv::String& text) {
    return text.toUtf8();
}

// A volume and its table opened on a scripted drive, with the fake installed
// for as long as they live.
class OpenedTable {
public:
    explicit OpenedTable(FakeMftDrive& drive)
        : m_scope(drive.fake()), m_volume(std::make_unique<Volume>('C')),
          m_table(std::make_unique<MasterFileTable>(*m_volume)) {}

    Volume& volume() { return *m_volume; }
    MasterFileTable& table() { return *m_table; }
    void closeTable() { m_table.reset(); }

private:
    kestrow::platform::ScopedApi m_scope;
    std::unique_ptr<Volume> m_volume;
    std::unique_ptr<MasterFileTable> m_table;
};

std::vector<std::string> tableLines(const LogCapture& log) {
    return log.texts(MFT_LOGGER);
}

bool hasLineStartingWith(const LogCapture& log, const std::string& prefix) {
    for (const std::string& line : tableLines(log))
        if (line.rfind(prefix, 0) == 0)
            return true;
    return false;
}

std::size_t countLines(const LogCapture& log, const std::string& prefix) {
    const std::vector<std::string> lines = tableLines(log);
    return static_cast<std::size_t>(std::count_if(
        lines.begin(), lines.end(), [&](const std::string& l) { return l.rfind(prefix, 0) == 0; }));
}

// 4 KiB clusters, 1 KiB records, one MFT run of `clusters` clusters at LCN 16.
FakeMftGeometry oneRunGeometry(std::uint64_t clusters) {
    FakeMftGeometry g;
    g.bytesPerSector = 512;
    g.sectorsPerCluster = 8;
    g.bytesPerFileRecord = 1024;
    g.mftRuns = {{16, clusters}};
    return g;
}

RecordSpec named(std::u16string name, std::uint64_t parent = 5, bool directory = false) {
    RecordSpec spec;
    spec.name = std::move(name);
    spec.parent = parent;
    spec.directory = directory;
    return spec;
}

std::string recordName(MasterFileTable& table, std::uint64_t index) {
    FileRecord record;
    if (!table.getValidMftRecord(FileReference(index, 0), record))
        return "<invalid>";
    return utf8(record.name());
}

} // namespace

// ---- Buffer sizing ---------------------------------------------------------------

TEST(MftBufferSizing, FourGiBFreeKeepsTheCapOf500MiB) {
    FakeMftDrive drive(oneRunGeometry(600 * MiB / 4096)); // a 600 MiB run
    drive.fake().setAvailablePhysicalMemory(4ull << 30);
    LogCapture log;
    OpenedTable opened(drive);

    ASSERT_TRUE(opened.table().initialized());
    EXPECT_TRUE(log.contains("78 Buffer size: " + std::to_string((600 * MiB / 512 + 1) * 512)));
    EXPECT_FALSE(hasLineStartingWith(log, "88 "));
    EXPECT_TRUE(log.contains("96 Limiting max buffer size to 524288000"));
    EXPECT_TRUE(log.contains("588 Limiting max buffer size to 524288000"));
    EXPECT_TRUE(log.contains("601 m_buffer.maxRecordsInBuffer: 512000"));
    EXPECT_TRUE(log.contains("602 m_buffer.maxBufferSize: 524288000"));
    EXPECT_TRUE(log.contains("609 m_buffer.numRecords: 512000"));
    EXPECT_TRUE(log.contains("620 Found usable buffer size"));
    // The buffer is primed from the start of the MFT in one read.
    const auto reads = drive.fake().reads();
    ASSERT_EQ(reads.size(), 1u);
    EXPECT_EQ(reads[0].first, drive.runOffset(0));
    EXPECT_EQ(reads[0].second, 524288000u);
    // One bucket per three record slots: (1228800 + 1) * 512 / 1024 slots.
    unsigned long long count = 0;
    ASSERT_TRUE(opened.table().getNumMftRecords(count));
    EXPECT_EQ(count, 614400u);
    EXPECT_EQ(opened.table().getRecordHashTable().chainCount(), 204800u);
}

TEST(MftBufferSizing, HalfOfTheFreeMemoryBelowTheCapBecomesTheCap) {
    FakeMftDrive drive(oneRunGeometry(600 * MiB / 4096));
    drive.fake().setAvailablePhysicalMemory(600 * MiB);
    LogCapture log;
    OpenedTable opened(drive);

    ASSERT_TRUE(opened.table().initialized());
    EXPECT_TRUE(log.contains("88 Only using 314572800 bytes of available memory"));
    EXPECT_TRUE(log.contains("96 Limiting max buffer size to 314572800"));
    EXPECT_TRUE(log.contains("602 m_buffer.maxBufferSize: 314572800"));
    EXPECT_TRUE(log.contains("601 m_buffer.maxRecordsInBuffer: 307200"));
}

TEST(MftBufferSizing, A100MiBRunUnderTheCapIsBufferedWhole) {
    FakeMftDrive drive(oneRunGeometry(100 * MiB / 4096));
    LogCapture log;
    OpenedTable opened(drive);

    ASSERT_TRUE(opened.table().initialized());
    // The run's byte size counts one sector more than the run holds.
    EXPECT_TRUE(log.contains("78 Buffer size: 104858112"));
    EXPECT_FALSE(hasLineStartingWith(log, "96 "));
    EXPECT_TRUE(log.contains("601 m_buffer.maxRecordsInBuffer: 102400"));
    EXPECT_TRUE(log.contains("609 m_buffer.numRecords: 102400"));
}

TEST(MftBufferSizing, WithoutMemoryFiguresTheCapStays500MiB) {
    FakeMftDrive drive(oneRunGeometry(600 * MiB / 4096));
    drive.fake().failMemoryStatus();
    LogCapture log;
    OpenedTable opened(drive);

    ASSERT_TRUE(opened.table().initialized());
    EXPECT_TRUE(log.contains("92 Failed to get available memory"));
    EXPECT_TRUE(log.contains("96 Limiting max buffer size to 524288000"));
}

TEST(MftBufferSizing, ElevenFailedReadsEndUninitialised) {
    FakeMftDrive drive(oneRunGeometry(4096)); // 16 MiB, 16384 records
    drive.fake().failAllReads(ERROR_CRC);
    LogCapture log;
    OpenedTable opened(drive);

    EXPECT_FALSE(opened.table().initialized());
    const auto reads = drive.fake().reads();
    ASSERT_EQ(reads.size(), 11u);
    const unsigned long long bufferSize = (16 * MiB / 512 + 1) * 512;
    EXPECT_EQ(reads.front().second, 16 * MiB);                       // all 16384 records
    EXPECT_EQ(reads.back().second, bufferSize / 1024 / 1024 * 1024); // bufferSize/1024
    EXPECT_EQ(reads.back().second, 16384u);
    EXPECT_EQ(countLines(log, "588 "), 11u);
    EXPECT_EQ(countLines(log, "615 Failed to read MFT table"), 11u);
    EXPECT_TRUE(log.contains("107 Failed to calculate buffer size"));
    EXPECT_FALSE(hasLineStartingWith(log, "620 "));
    // Extents and handle stay until the table goes; the count was never set.
    EXPECT_EQ(opened.table().getMftExtents().size(), 1u);
    EXPECT_EQ(opened.table().getRecordHashTable().chainCount(), 32u);
    opened.closeTable();
    EXPECT_EQ(drive.fake().openHandles(), 0u);
}

TEST(MftBufferSizing, ASizeBelowOneRecordEndsUninitialisedWithoutReading) {
    FakeMftGeometry g = oneRunGeometry(64);
    g.bytesPerFileRecord = 4096;
    FakeMftDrive drive(g);
    drive.fake().setAvailablePhysicalMemory(4096); // half: 2048 bytes, half a record
    LogCapture log;
    OpenedTable opened(drive);

    EXPECT_FALSE(opened.table().initialized());
    EXPECT_TRUE(log.contains("601 m_buffer.maxRecordsInBuffer: 0"));
    EXPECT_TRUE(log.contains("107 Failed to calculate buffer size"));
    EXPECT_EQ(countLines(log, "588 "), 1u);
    EXPECT_TRUE(drive.fake().reads().empty());
    // Every record operation refuses instead of dividing by zero.
    FileRecord record;
    EXPECT_FALSE(opened.table().getValidMftRecord(FileReference(3, 0), record));
    EXPECT_FALSE(opened.table().buildRecordMap());
}

#if defined(__linux__) && !defined(KESTROW_TEST_UNDER_ASAN)
namespace {

unsigned long long addressSpaceInUse() {
    unsigned long long pages = 0;
    if (FILE* statm = std::fopen("/proc/self/statm", "r")) {
        if (std::fscanf(statm, "%llu", &pages) != 1)
            pages = 0;
        std::fclose(statm);
    }
    return pages * 4096;
}

// Runs in the death test's child: the address-space limit stays there.
bool sizingHalvesUnderAnAddressLimit() {
    FakeMftDrive drive(oneRunGeometry(600 * MiB / 4096));
    LogCapture log;
    // Room for 300 MiB more: the 500 MiB buffer cannot be had, 250 MiB can.
    const rlim_t limit = addressSpaceInUse() + 300 * MiB;
    rlimit addressSpace;
    addressSpace.rlim_cur = limit;
    addressSpace.rlim_max = limit;
    if (setrlimit(RLIMIT_AS, &addressSpace) != 0)
        return false;
    OpenedTable opened(drive);
    return opened.table().initialized() &&
           log.countStartingWith("593 Failed to initialize ByteBuffer - buffer too large") == 1 &&
           log.contains("588 Limiting max buffer size to 524288000") &&
           log.contains("588 Limiting max buffer size to 262144000") &&
           log.contains("602 m_buffer.maxBufferSize: 262144000") &&
           drive.fake().reads().size() == 1;
}

} // namespace

TEST(MftBufferSizingDeathTest, AnAllocationFailureHalvesTheSize) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(std::_Exit(sizingHalvesUnderAnAddressLimit() ? 0 : 1), ::testing::ExitedWithCode(0),
                "");
}
#endif

// ---- Opening failures ------------------------------------------------------------------

TEST(MftOpening, ANonNtfsVolumeOpensNoDrive) {
    FakePlatform fake;
    fake.addDisk(0, 4 * MiB);
    fake.addFatVolume('C').extents = {{0, MiB, 3 * MiB}};
    kestrow::platform::ScopedApi scope(fake);
    LogCapture log;
    Volume volume('C');
    MasterFileTable table(volume);

    EXPECT_FALSE(table.initialized());
    EXPECT_TRUE(log.contains("50 Volume has unreadable extents"));
    for (const std::string& call : fake.calls())
        EXPECT_EQ(call.find("PhysicalDrive"), std::string::npos) << call;
    EXPECT_EQ(table.getMftExtents().size(), 0u);
    EXPECT_EQ(&table.getVolume(), &volume);
}

TEST(MftOpening, AnUnopenableDriveLeavesTheExtents) {
    FakeMftDrive drive(oneRunGeometry(64));
    drive.fake().failOpen("\\\\.\\PhysicalDrive0", ERROR_ACCESS_DENIED);
    LogCapture log;
    OpenedTable opened(drive);

    EXPECT_FALSE(opened.table().initialized());
    EXPECT_TRUE(log.contains("58 Failed to open MFT handle"));
    EXPECT_EQ(opened.table().getMftExtents().size(), 1u);
    EXPECT_FALSE(hasLineStartingWith(log, "78 "));
}

TEST(MftOpening, NoRunHoldingRecordZeroFailsTheExtentLookup) {
    FakeMftGeometry g;
    g.bytesPerFileRecord = 4096; // 512-byte sectors and clusters
    g.mftRuns = {{100, 1}};      // (1 + 1) * 512 / 4096 = 0 records
    FakeMftDrive drive(g);
    LogCapture log;
    OpenedTable opened(drive);

    EXPECT_FALSE(opened.table().initialized());
    EXPECT_TRUE(log.contains("101 Failed to get MFT extent"));
}

TEST(MftOpening, ARunShorterThanOneRecordFailsTheCount) {
    FakeMftGeometry g;
    g.bytesPerFileRecord = 4096;
    g.mftRuns = {{100, 1}, {200, 16}}; // 0 and (16 + 1) * 512 / 4096 = 2 records
    FakeMftDrive drive(g);
    LogCapture log;
    OpenedTable opened(drive);

    EXPECT_FALSE(opened.table().initialized());
    EXPECT_TRUE(log.contains("620 Found usable buffer size"));
    EXPECT_TRUE(log.contains("113 Failed to get number of MFT records"));
    EXPECT_EQ(opened.table().getRecordHashTable().chainCount(), 32u);
}

// ---- Run lookup and count ----------------------------------------------------------------

TEST(MftRunLookup, TwoRunsOf100And50Records) {
    FakeMftGeometry g;
    g.volumeOffset = 0; // LCNs are then absolute sectors
    g.mftRuns = {{100, 200}, {1000, 100}};
    FakeMftDrive drive(g);
    LogCapture log;
    OpenedTable opened(drive);
    MasterFileTable& table = opened.table();
    ASSERT_TRUE(table.initialized());

    MftExtent extent{};
    ASSERT_TRUE(table.getExtentForFileRecord(FileReference(99, 0), extent));
    EXPECT_EQ(extent.startSector, 100u);
    EXPECT_EQ(extent.endSector, 300u);
    EXPECT_EQ(extent.recordCount, 100u);
    EXPECT_EQ(extent.firstRecord, 0u);
    ASSERT_TRUE(table.getExtentForFileRecord(FileReference(100, 7), extent));
    EXPECT_TRUE(extent == (MftExtent{extent.diskNumber, 1000, 1100, 50, 100}));

    log.clear();
    MftExtent untouched{9, 9, 9, 9, 9};
    EXPECT_FALSE(table.getExtentForFileRecord(FileReference(150, 0), untouched));
    EXPECT_EQ(tableLines(log), std::vector<std::string>{"128 Getting MFT extent for file record"});
    EXPECT_TRUE(untouched == (MftExtent{9, 9, 9, 9, 9}));

    unsigned long long count = 0;
    EXPECT_TRUE(table.getNumMftRecords(count));
    EXPECT_EQ(count, 150u);
}

TEST(MftRunLookup, TheCountIsTakenOnceAtConstruction) {
    FakeMftDrive drive(oneRunGeometry(250)); // 250 clusters of 4 records
    LogCapture log;
    OpenedTable opened(drive);
    ASSERT_TRUE(opened.table().initialized());
    EXPECT_EQ(countLines(log, "287 Counting the number of MFT records"), 1u);

    log.clear();
    for (int i = 0; i < 3; ++i) {
        unsigned long long count = 0;
        EXPECT_TRUE(opened.table().getNumMftRecords(count));
        EXPECT_EQ(count, 1000u);
    }
    EXPECT_TRUE(tableLines(log).empty());
    EXPECT_EQ(opened.table().getRecordHashTable().chainCount(), 333u);
}

// ---- Record readers --------------------------------------------------------------------

TEST(MftRecordReaders, RefreshesAlignToTheCapacityWithinTheRun) {
    FakeMftDrive drive(oneRunGeometry(625));              // 2500 records
    drive.fake().setAvailablePhysicalMemory(2 * 1024000); // 1000-record buffer
    for (std::uint64_t index : {1234u, 2300u, 2499u}) {
        drive.writeRecord(index, named(u"r" + kestrow::test::utf8ToUtf16(std::to_string(index))));
    }
    LogCapture log;
    OpenedTable opened(drive);
    MasterFileTable& table = opened.table();
    ASSERT_TRUE(table.initialized());
    ASSERT_TRUE(log.contains("601 m_buffer.maxRecordsInBuffer: 1000"));

    EXPECT_EQ(recordName(table, 1234), "r1234");
    EXPECT_TRUE(log.contains("219 Refreshing buffer from index 1000"));
    auto reads = drive.fake().reads();
    EXPECT_EQ(reads.back(), std::make_pair(drive.recordOffset(1000), 1024000u));

    EXPECT_EQ(recordName(table, 2300), "r2300");
    EXPECT_TRUE(log.contains("219 Refreshing buffer from index 2000"));
    reads = drive.fake().reads();
    EXPECT_EQ(reads.back(), std::make_pair(drive.recordOffset(2000), 500u * 1024));

    const std::size_t readsBefore = drive.fake().reads().size();
    EXPECT_EQ(recordName(table, 2499), "r2499");
    EXPECT_EQ(drive.fake().reads().size(), readsBefore);
}

namespace {

// Two runs of 4 and 10 records (512-byte clusters) and an 8-record buffer.
FakeMftGeometry twoShortRuns() {
    FakeMftGeometry g;
    g.sectorsPerCluster = 1;
    g.mftRuns = {{100, 8}, {300, 20}};
    return g;
}

} // namespace

TEST(MftRecordReaders, ARefreshNeverCrossesIntoTheNextRun) {
    FakeMftDrive drive(twoShortRuns());
    drive.fake().setAvailablePhysicalMemory(16384);
    drive.writeRecord(5, named(u"five"));
    LogCapture log;
    OpenedTable opened(drive);
    MasterFileTable& table = opened.table();
    ASSERT_TRUE(table.initialized());
    ASSERT_TRUE(log.contains("601 m_buffer.maxRecordsInBuffer: 8"));
    ASSERT_TRUE(log.contains("609 m_buffer.numRecords: 4"));

    EXPECT_EQ(recordName(table, 5), "five");
    EXPECT_TRUE(log.contains("219 Refreshing buffer from index 4"));
    EXPECT_EQ(drive.fake().reads().back(), std::make_pair(drive.runOffset(1), 8192u));
    unsigned long long count = 0;
    EXPECT_TRUE(table.getNumMftRecords(count));
    EXPECT_EQ(count, 14u);
}

TEST(MftRecordReaders, AFailedRefreshKeepsTheNewRangeWithTheOldBytes) {
    FakeMftDrive drive(twoShortRuns());
    drive.fake().setAvailablePhysicalMemory(16384);
    drive.writeRecord(2, named(u"two"));
    drive.writeRecord(6, named(u"six"));
    OpenedTable opened(drive);
    MasterFileTable& table = opened.table();
    ASSERT_TRUE(table.initialized());

    drive.fake().failReadAtSector(0, drive.runStartSector(1), ERROR_CRC, 1);
    FileRecord record;
    EXPECT_FALSE(table.getValidMftRecord(FileReference(5, 0), record));
    const std::size_t readsAfterFailure = drive.fake().reads().size();
    // Record 6 is in the range [4, 12) the failed refresh claimed: it is served
    // from the buffer, whose slot 2 still holds record 2's bytes.
    EXPECT_EQ(recordName(table, 6), "two");
    EXPECT_EQ(drive.fake().reads().size(), readsAfterFailure);
}

TEST(MftRecordReaders, SequenceNumbersAreNotCompared) {
    FakeMftDrive drive(oneRunGeometry(64));
    drive.writeRecord(40, named(u"seq")); // the record's own sequence number is 1
    OpenedTable opened(drive);
    MasterFileTable& table = opened.table();
    FileRecord record;
    ASSERT_TRUE(table.getValidMftRecord(FileReference(40, 77), record));
    EXPECT_EQ(record.mftIndex().sequence, 77u);
    const unsigned int entries = table.getRecordHashTable().size();
    ASSERT_TRUE(table.getValidMftRecord(FileReference(40, 0), record));
    EXPECT_EQ(table.getRecordHashTable().size(), entries);
    EXPECT_EQ(table.getRecordHashTable()[40].mftIndex.sequence, 77u); // first entry kept
}

namespace {

// 4096-byte sectors, 1024-byte records: record 9 names extension record 6,
// whose sector starts with record 4. Records 4 and 6 differ in data size.
FakeMftGeometry bigSectors(std::uint32_t bytesPerSector) {
    FakeMftGeometry g;
    g.bytesPerSector = bytesPerSector;
    g.sectorsPerCluster = 4096 / bytesPerSector;
    g.mftRuns = {{8, 4}}; // 16 records
    return g;
}

void writeExtensionScenario(FakeMftDrive& drive) {
    RecordSpec four;
    four.residentDataLength = 444;
    drive.writeRecord(4, four);
    RecordSpec six;
    six.residentDataLength = 666;
    drive.writeRecord(6, six);
    RecordSpec nine = named(u"nine");
    nine.extensionRecords = {6};
    drive.writeRecord(9, nine);
    drive.fake().setAvailablePhysicalMemory(8192); // a 4-record buffer
}

} // namespace

TEST(MftRecordReaders, TheDirectReaderReadsWholeSectors) {
    FakeMftDrive drive(bigSectors(4096));
    writeExtensionScenario(drive);
    drive.fake().setDeviceRules(false); // a 1024-byte read of a 4096-byte sector
    LogCapture log;
    OpenedTable opened(drive);
    MasterFileTable& table = opened.table();
    ASSERT_TRUE(table.initialized());
    unsigned long long count = 0;
    ASSERT_TRUE(table.getNumMftRecords(count));
    EXPECT_EQ(count, 20u); // (4 + 1) * 4096 / 1024: four phantom slots

    FileRecord record;
    ASSERT_TRUE(table.getValidMftRecord(FileReference(9, 0), record));
    EXPECT_TRUE(log.contains("176 Performing unbuffered read at index 6"));
    EXPECT_EQ(drive.fake().reads().back(), std::make_pair(drive.recordOffset(4), 1024u));
    EXPECT_EQ(record.dataSize(), 444u); // record 4's attributes, not record 6's
}

TEST(MftRecordReaders, TheDirectReaderIsExactWith512ByteSectors) {
    FakeMftDrive drive(bigSectors(512));
    writeExtensionScenario(drive);
    OpenedTable opened(drive);
    MasterFileTable& table = opened.table();
    ASSERT_TRUE(table.initialized());

    FileRecord record;
    ASSERT_TRUE(table.getValidMftRecord(FileReference(9, 0), record));
    EXPECT_EQ(drive.fake().reads().back(), std::make_pair(drive.recordOffset(6), 1024u));
    EXPECT_EQ(record.dataSize(), 666u);

    // A record that knows its data size reads no extension record.
    RecordSpec sized;
    sized.extensionRecords = {6};
    sized.residentDataLength = 10;
    drive.writeRecord(13, sized);
    const std::size_t reads = drive.fake().reads().size();
    ASSERT_TRUE(table.getValidMftRecord(FileReference(13, 0), record)); // refresh from 12
    EXPECT_EQ(drive.fake().reads().size(), reads + 1);
    EXPECT_EQ(record.dataSize(), 10u);
}

// ---- Not initialised -----------------------------------------------------------------------

TEST(MftNotInitialised, EveryCheckingOperationSaysSo) {
    FakePlatform fake;
    fake.addDisk(0, 4 * MiB);
    fake.addFatVolume('C').extents = {{0, MiB, 3 * MiB}};
    kestrow::platform::ScopedApi scope(fake);
    Volume volume('C');
    MasterFileTable table(volume);
    ASSERT_FALSE(table.initialized());

    LogCapture log;
    auto expectOnly = [&](const std::string& line) {
        EXPECT_EQ(tableLines(log), std::vector<std::string>{line});
        log.clear();
    };
    MftExtent extent{};
    EXPECT_FALSE(table.getExtentForFileRecord(FileReference(0, 0), extent));
    expectOnly("123 getExtentForFileRecord(): MasterFileTable has not been initialized");
    unsigned long long count = 42;
    EXPECT_FALSE(table.getNumMftRecords(count));
    EXPECT_EQ(count, 42u);
    expectOnly("277 getNumMftRecords(): MasterFileTable has not been initialized");
    FileRecord record;
    EXPECT_FALSE(table.getValidMftRecord(FileReference(5, 0), record));
    expectOnly("310 getValidMftRecord(): MasterFileTable has not been initialized");
    EXPECT_EQ(utf8(table.findParentPath(record)), "");
    expectOnly("325 findParentPath(): MasterFileTable has not been initialized");
    EXPECT_EQ(utf8(table.findParentPath(FileReference(5, 0))), "");
    expectOnly("356 findParentPath(): MasterFileTable has not been initialized");
    EXPECT_EQ(table.getLastActiveRecord().index, 0u);
    expectOnly("412 getLastActiveRecord(): MasterFileTable has not been initialized");
    FileReference ref(3, 4);
    EXPECT_FALSE(table.findRecordCluster(10, ref));
    EXPECT_EQ(ref.index, 3u);
    expectOnly("441 findRecordCluster(): MasterFileTable has not been initialized");
    orv::Array<FileReference> refs;
    EXPECT_FALSE(table.findRecordClusterInMft(10, refs));
    EXPECT_EQ(refs.size(), 0u);
    expectOnly("470 findRecordClusterInMft(): MasterFileTable has not been initialized");
    EXPECT_FALSE(table.buildRecordMap());
    expectOnly("527 buildRecordMap(): MasterFileTable has not been initialized");
    orv::Array<FileRecord> records;
    EXPECT_FALSE(table.findMftRecordsByPath(orv::String("\\\\.\\C:\\x"), records));
    expectOnly("554 findMftRecordsByPath(): MasterFileTable has not been initialized");

    // processExternalAttributes does not check, but its direct reader does.
    RecordSpec spec;
    spec.extensionRecords = {7};
    std::vector<std::uint8_t> bytes = kestrow::test::mft::buildRecord(1024, spec);
    orv::Buffer<unsigned char> buffer(bytes.data(), bytes.size());
    FileRecord withList(buffer, FileReference(9, 0), volume);
    ASSERT_EQ(withList.getExternalAttributeReferences().size(), 1u);
    table.processExternalAttributes(withList);
    expectOnly("154 getMftRecordBufferDirectly(): MasterFileTable has not been initialized");

    // getDataAtSector does not check either: it reads through the invalid handle.
    orv::Buffer<unsigned char> data;
    data.resize(512);
    EXPECT_FALSE(table.getDataAtSector(0, 512, data));
}

TEST(MftTraceScopes, NameTheirFunctionAndLine) {
    FakeMftDrive drive(oneRunGeometry(64));
    LogCapture log(orv::LoggerPriority::LP_TRACE);
    OpenedTable opened(drive);
    MasterFileTable& table = opened.table();
    ASSERT_TRUE(table.initialized());
    table.getLastActiveRecord();
    FileReference ref(0, 0);
    table.findRecordCluster(1, ref);
    orv::Array<FileReference> refs;
    table.findRecordClusterInMft(1, refs);
    table.buildRecordMap();
    orv::Array<FileRecord> records;
    table.findMftRecordsByPath(orv::String("x"), records);
    for (const char* line :
         {"> MasterFileTable() (MasterFileTable:45)", "> getLastActiveRecord (MasterFileTable:409)",
          "> findRecordCluster (MasterFileTable:438)",
          "> findRecordClusterInMft (MasterFileTable:467)",
          "> buildRecordMap (MasterFileTable:524)", "> findMftRecordsByPath (MasterFileTable:551)",
          "< findMftRecordsByPath"})
        EXPECT_TRUE(log.contains(line)) << line;
}

// ---- Copies ----------------------------------------------------------------------------------

TEST(MftCopies, ACopySharesTheDriveHandle) {
    FakeMftDrive drive(twoShortRuns());
    drive.fake().setAvailablePhysicalMemory(16384);
    drive.writeRecord(5, named(u"five"));
    kestrow::platform::ScopedApi scope(drive.fake());
    Volume volume('C');
    auto original = std::make_unique<MasterFileTable>(volume);
    ASSERT_TRUE(original->initialized());
    ASSERT_EQ(drive.fake().openHandles(), 1u);

    MasterFileTable copy(*original);
    EXPECT_TRUE(copy.initialized());
    EXPECT_EQ(drive.fake().openHandles(), 1u);
    original.reset();
    EXPECT_EQ(drive.fake().openHandles(), 1u); // the copy still holds it
    EXPECT_EQ(recordName(copy, 5), "five");    // a refresh through the shared handle

    MasterFileTable moved(std::move(copy));
    EXPECT_EQ(recordName(moved, 5), "five");
    EXPECT_EQ(moved.getRecordHashTable().size(), copy.getRecordHashTable().size());
    EXPECT_FALSE(copy.getMftExtents().hasRepresentation());
    EXPECT_EQ(drive.fake().openHandles(), 1u);
}

TEST(MftCopies, ACopyMovesItsBufferedRangeOnItsOwn) {
    FakeMftDrive drive(oneRunGeometry(625));
    drive.fake().setAvailablePhysicalMemory(2 * 1024000);
    drive.writeRecord(10, named(u"early"));
    drive.writeRecord(2100, named(u"late"));
    OpenedTable opened(drive);
    MasterFileTable copy(opened.table());

    EXPECT_EQ(recordName(copy, 2100), "late"); // the copy moves to [2000, 2500)
    const std::size_t reads = drive.fake().reads().size();
    EXPECT_EQ(recordName(opened.table(), 10), "early"); // the original still holds [0, 1000)
    EXPECT_EQ(drive.fake().reads().size(), reads);
    EXPECT_TRUE(opened.table().getRecordHashTable().contains(10));
    EXPECT_FALSE(copy.getRecordHashTable().contains(10));
}

TEST(MftCopies, ABuildKeepsTheFirstSummaries) {
    FakeMftDrive drive(oneRunGeometry(625));              // 2500 records
    drive.fake().setAvailablePhysicalMemory(2 * 1024000); // a 1000-record buffer
    drive.writeRecord(10, named(u"first"));
    OpenedTable opened(drive);
    MasterFileTable& table = opened.table();
    ASSERT_TRUE(table.buildRecordMap());
    ASSERT_EQ(table.getRecordHashTable().size(), 1u);

    drive.writeRecord(10, named(u"second"));
    drive.writeRecord(20, named(u"new"));
    const std::size_t reads = drive.fake().reads().size();
    ASSERT_TRUE(table.buildRecordMap());
    EXPECT_GT(drive.fake().reads().size(), reads) << "the second build reads the disk again";
    EXPECT_EQ(table.getRecordHashTable().size(), 2u);
    EXPECT_EQ(utf8(table.getRecordHashTable()[10].name), "first");
    EXPECT_EQ(utf8(table.getRecordHashTable()[20].name), "new");
}

// Keys above every key of the table are added without a lookup; an entry
// added ahead of a walk, and a copied table, must still keep their first
// summaries and never hold a key twice.
TEST(MftCopies, EntriesAddedAheadOfAWalkKeepTheirFirstSummary) {
    FakeMftDrive drive(oneRunGeometry(625));              // 2500 records
    drive.fake().setAvailablePhysicalMemory(2 * 1024000); // a 1000-record buffer
    drive.writeRecord(10, named(u"ten"));
    drive.writeRecord(2100, named(u"first"));
    OpenedTable opened(drive);
    MasterFileTable& table = opened.table();
    FileRecord record;
    ASSERT_TRUE(table.getValidMftRecord(FileReference(2100, 0), record));
    drive.writeRecord(2100, named(u"second"));
    drive.writeRecord(20, named(u"twenty"));
    drive.writeRecord(2200, named(u"later"));
    ASSERT_TRUE(table.buildRecordMap());

    auto keys = [](MasterFileTable& t) {
        std::multiset<unsigned long long> out;
        const MasterFileTable::RecordHashTable& hashTable = t.getRecordHashTable();
        for (auto it = hashTable.begin(); it != hashTable.end(); ++it)
            out.insert(it.key());
        return out;
    };
    EXPECT_EQ(keys(table), (std::multiset<unsigned long long>{10, 20, 2100, 2200}));
    EXPECT_EQ(utf8(table.getRecordHashTable()[2100].name), "first");

    MasterFileTable copy(table);
    drive.writeRecord(10, named(u"changed"));
    drive.writeRecord(30, named(u"thirty"));
    drive.writeRecord(2300, named(u"last"));
    ASSERT_TRUE(copy.buildRecordMap());
    EXPECT_EQ(keys(copy), (std::multiset<unsigned long long>{10, 20, 30, 2100, 2200, 2300}));
    EXPECT_EQ(utf8(copy.getRecordHashTable()[10].name), "ten");
    EXPECT_EQ(utf8(copy.getRecordHashTable()[2200].name), "later");
}

TEST(MftRecordReaders, RawReadsAtADriveSector) {
    FakeMftDrive drive(oneRunGeometry(64));
    drive.writeBytes(3 * 512, {0x4B, 0x45, 0x53, 0x54});
    OpenedTable opened(drive);
    MasterFileTable& table = opened.table();
    orv::Buffer<unsigned char> buffer;
    buffer.resize(1024);
    ASSERT_TRUE(table.getDataAtSector(3, 1024, buffer));
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(buffer.data()), 4), "KEST");
    EXPECT_EQ(drive.fake().reads().back(), std::make_pair(std::uint64_t(3 * 512), 1024u));
    // A buffer too small for the read is refused before anything is read.
    const std::size_t reads = drive.fake().reads().size();
    orv::Buffer<unsigned char> small;
    small.resize(512);
    EXPECT_FALSE(table.getDataAtSector(3, 1024, small));
    EXPECT_EQ(drive.fake().reads().size(), reads);
}

// ---- Paths on a hand-built tree -----------------------------------------------------------

namespace {

void writeTree(FakeMftDrive& drive) {
    auto write = [&](std::uint64_t index, std::u16string name, std::uint64_t parent,
                     bool directory) { drive.writeRecord(index, named(name, parent, directory)); };
    write(5, u".", 5, true);
    write(30, u"Users", 5, true);
    write(31, u"a.txt", 30, false);
    write(32, u"b.txt", 5, false);
    write(33, u"a.txt", 30, false);  // same path as 31
    write(40, u"orphan", 41, false); // 41 is free
    write(50, u"x", 51, true);       // 50 and 51 are each other's parents
    write(51, u"y", 50, true);
    write(52, u"inLoop", 51, false);
}

std::string fullPath(MasterFileTable& table, std::uint64_t index, std::uint16_t sequence = 0) {
    return utf8(table.findParentPath(FileReference(index, sequence)));
}

std::string parentPath(MasterFileTable& table, std::uint64_t index) {
    FileRecord record;
    if (!table.getValidMftRecord(FileReference(index, 0), record))
        return "<invalid>";
    return utf8(table.findParentPath(record));
}

} // namespace

TEST(MftPaths, BothOverloadsOnAHandBuiltTree) {
    FakeMftDrive drive(oneRunGeometry(64));
    writeTree(drive);
    OpenedTable opened(drive);
    MasterFileTable& table = opened.table();
    ASSERT_TRUE(table.initialized());

    EXPECT_EQ(fullPath(table, 31), "") << "nothing before the map is built";
    ASSERT_TRUE(table.buildRecordMap());
    EXPECT_EQ(table.getRecordHashTable().size(), 9u);

    EXPECT_EQ(fullPath(table, 5), ".");
    EXPECT_EQ(parentPath(table, 5), "");
    EXPECT_EQ(fullPath(table, 30), "\\\\.\\C:\\Users");
    EXPECT_EQ(fullPath(table, 31), "\\\\.\\C:\\Users\\a.txt");
    EXPECT_EQ(fullPath(table, 31, 999), "\\\\.\\C:\\Users\\a.txt");
    EXPECT_EQ(parentPath(table, 31), "\\\\.\\C:\\Users\\");
    EXPECT_EQ(fullPath(table, 32), "\\\\.\\C:\\b.txt");
    EXPECT_EQ(parentPath(table, 32), "\\\\.\\C:\\");
    // A parent neither in the table nor valid on disk breaks the walk off.
    EXPECT_EQ(fullPath(table, 40), "orphan");
    EXPECT_EQ(parentPath(table, 40), "");
    EXPECT_EQ(fullPath(table, 41), "");
}

TEST(MftPaths, ParentLoopsEndTheWalk) {
    FakeMftDrive drive(oneRunGeometry(64));
    writeTree(drive);
    OpenedTable opened(drive);
    MasterFileTable& table = opened.table();
    ASSERT_TRUE(table.buildRecordMap());

    // The walk stops before it would pass a record a second time.
    EXPECT_EQ(fullPath(table, 50), "y\\x");
    EXPECT_EQ(fullPath(table, 52), "x\\y\\inLoop");
    EXPECT_EQ(parentPath(table, 50), "y\\");
    EXPECT_EQ(parentPath(table, 52), "x\\y\\");
    orv::Array<FileRecord> records;
    EXPECT_TRUE(table.findMftRecordsByPath(orv::String("\\\\.\\C:\\x\\y\\inLoop"), records));
    EXPECT_EQ(records.size(), 0u);
}

// A path is the same whichever path was asked for before it: consecutive
// siblings, a record that lies on its predecessor's chain, and a walk that
// ended on its own leaf.
TEST(MftPaths, PathsDoNotDependOnTheOrderTheyAreAskedIn) {
    FakeMftDrive drive(oneRunGeometry(64));
    writeTree(drive);
    drive.writeRecord(53, named(u"z", 51)); // another child of 51, after 51's parent
    OpenedTable opened(drive);
    MasterFileTable& table = opened.table();
    ASSERT_TRUE(table.buildRecordMap());

    const std::vector<std::pair<std::uint64_t, std::string>> expected = {
        {31, "\\\\.\\C:\\Users\\a.txt"},
        {33, "\\\\.\\C:\\Users\\a.txt"},
        {32, "\\\\.\\C:\\b.txt"},
        {30, "\\\\.\\C:\\Users"},
        {52, "x\\y\\inLoop"},
        {50, "y\\x"},
        {53, "x\\y\\z"},
        {50, "y\\x"},
        {52, "x\\y\\inLoop"},
        {51, "x\\y"},
        {40, "orphan"},
        {40, "orphan"},
        {31, "\\\\.\\C:\\Users\\a.txt"}};
    for (const auto& [index, path] : expected)
        EXPECT_EQ(fullPath(table, index), path) << "record " << index;
    // Backwards too.
    for (auto it = expected.rbegin(); it != expected.rend(); ++it)
        EXPECT_EQ(fullPath(table, it->first), it->second) << "record " << it->first;
}

// Paths are remembered per parent, in slots that parents share. Whatever was
// asked before, every path must be what a table that was asked nothing else
// gives: in a plain tree, for parents that share a slot, and around a loop
// whose members' children remember paths that pass the other members.
TEST(MftPaths, RememberedPathsGiveTheFreshWalksPath) {
    FakeMftDrive drive(oneRunGeometry(64)); // 256 slots
    auto write = [&](std::uint64_t index, std::u16string name, std::uint64_t parent) {
        drive.writeRecord(index, named(name, parent, true));
    };
    write(5, u".", 5);
    write(30, u"A", 5);
    write(31, u"B", 30);
    write(32, u"f1", 31);
    write(33, u"C", 31);
    write(34, u"f2", 33);
    write(95, u"G", 31); // 95 and 31 share a slot
    write(96, u"f3", 95);
    write(97, u"f4", 95);
    write(90, u"a", 91); // 90 -> 91 -> 92 -> 90, a loop
    write(91, u"b", 92);
    write(92, u"c", 90);
    write(93, u"d", 90);  // remembers 90: c\b\a\, passing 90, 91, 92
    write(94, u"e", 91);  // remembers 91: a\c\b\, passing 91, 92, 90
    write(98, u"f5", 92); // meets 90 and 91 after passing 92
    write(99, u"f6", 93);
    const std::vector<std::uint64_t> indices = {5,  30, 31, 32, 33, 34, 95, 96,
                                                97, 90, 91, 92, 93, 94, 98, 99};

    std::map<std::uint64_t, std::string> fresh;
    for (const std::uint64_t index : indices) {
        OpenedTable opened(drive);
        ASSERT_TRUE(opened.table().buildRecordMap());
        fresh[index] = fullPath(opened.table(), index);
    }
    EXPECT_EQ(fresh[34], "\\\\.\\C:\\A\\B\\C\\f2");
    EXPECT_EQ(fresh[96], "\\\\.\\C:\\A\\B\\G\\f3");
    EXPECT_EQ(fresh[98], "b\\a\\c\\f5");
    EXPECT_EQ(fresh[99], "c\\b\\a\\d\\f6");

    OpenedTable opened(drive);
    MasterFileTable& table = opened.table();
    ASSERT_TRUE(table.buildRecordMap());
    for (int round = 0; round < 3; ++round) {
        for (const std::uint64_t index : indices)
            EXPECT_EQ(fullPath(table, index), fresh[index]) << "record " << index;
        for (auto it = indices.rbegin(); it != indices.rend(); ++it)
            EXPECT_EQ(fullPath(table, *it), fresh[*it]) << "record " << *it;
    }
}

TEST(MftPaths, DeepChainsAndDeepLoops) {
    FakeMftDrive drive(oneRunGeometry(64)); // 256 slots
    drive.writeRecord(5, named(u".", 5, true));
    auto name = [](std::uint64_t index) { return std::string("d").append(std::to_string(index)); };
    // 20 <- 21 <- ... <- 119 under the root; 130 <- ... <- 229 <- 130 a loop.
    for (std::uint64_t index = 20; index < 230; ++index) {
        if (index >= 120 && index < 130)
            continue;
        const std::uint64_t parent = index == 20 ? 5 : index == 130 ? 229 : index - 1;
        drive.writeRecord(index, named(kestrow::test::utf8ToUtf16(name(index)), parent, true));
    }
    drive.writeRecord(240, named(u"tail", 229)); // hangs off the loop, not part of it
    OpenedTable opened(drive);
    MasterFileTable& table = opened.table();
    ASSERT_TRUE(table.buildRecordMap());

    std::string expected = "\\\\.\\C:\\";
    for (std::uint64_t index = 20; index < 120; ++index)
        expected += name(index) + (index < 119 ? "\\" : "");
    EXPECT_EQ(fullPath(table, 119), expected);

    std::string loop;
    for (std::uint64_t index = 130; index < 230; ++index)
        loop += name(index) + (index < 229 ? "\\" : "");
    EXPECT_EQ(fullPath(table, 229), loop);
    std::string fromMiddle;
    for (std::uint64_t index = 201; index < 230; ++index)
        fromMiddle += name(index) + "\\";
    for (std::uint64_t index = 130; index <= 200; ++index)
        fromMiddle += name(index) + (index < 200 ? "\\" : "");
    EXPECT_EQ(fullPath(table, 200), fromMiddle);
    // The walk from outside meets 229 again a hundred levels up.
    EXPECT_EQ(fullPath(table, 240), loop + "\\tail");
    EXPECT_EQ(parentPath(table, 240), loop + "\\");
}

TEST(MftPaths, LookupByPath) {
    FakeMftDrive drive(oneRunGeometry(64));
    writeTree(drive);
    OpenedTable opened(drive);
    MasterFileTable& table = opened.table();
    ASSERT_TRUE(table.initialized());

    orv::Array<FileRecord> records;
    ASSERT_TRUE(table.findMftRecordsByPath(orv::String("\\\\.\\C:\\Users\\a.txt"), records));
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].mftIndex().index, 31u);
    EXPECT_EQ(records[1].mftIndex().index, 33u);
    // The scan filled the table as a side effect.
    EXPECT_EQ(fullPath(table, 32), "\\\\.\\C:\\b.txt");

    ASSERT_TRUE(table.findMftRecordsByPath(orv::String("\\\\.\\C:\\Users\\a.txt"), records));
    EXPECT_EQ(records.size(), 4u); // appended again

    orv::Array<FileRecord> none;
    EXPECT_TRUE(table.findMftRecordsByPath(orv::String("\\\\.\\C:\\users\\a.txt"), none));
    EXPECT_TRUE(table.findMftRecordsByPath(orv::String("C:\\Users\\a.txt"), none));
    EXPECT_TRUE(table.findMftRecordsByPath(orv::String("\\\\.\\C:\\orphan"), none));
    EXPECT_EQ(none.size(), 0u);
    // A chain that never reaches the root yields a relative tail, which only
    // a relative path matches.
    orv::Array<FileRecord> tail;
    EXPECT_TRUE(table.findMftRecordsByPath(orv::String("orphan"), tail));
    ASSERT_EQ(tail.size(), 1u);
    EXPECT_EQ(tail[0].mftIndex().index, 40u);

    orv::Array<FileRecord> root;
    EXPECT_TRUE(table.findMftRecordsByPath(orv::String("."), root));
    ASSERT_EQ(root.size(), 1u);
    EXPECT_EQ(root[0].mftIndex().index, 5u);

    // No last component: the array's own index check raises.
    EXPECT_THROW(table.findMftRecordsByPath(orv::String("\\\\"), none),
                 kestrow::platform::StructuredException);
}

// ---- Last active record and cluster owners -------------------------------------------------

TEST(MftClusterOwners, LastActiveRecordAndOwnerSearch) {
    FakeMftDrive drive(oneRunGeometry(64)); // 256 record slots
    RecordSpec owner = named(u"owner");
    owner.dataRun = RecordSpec::Run{50, 4};
    drive.writeRecord(20, owner);
    RecordSpec resident = named(u"resident");
    resident.residentDataLength = 5;
    drive.writeRecord(25, resident);
    drive.writeRecord(12, resident);
    OpenedTable opened(drive);
    MasterFileTable& table = opened.table();
    ASSERT_TRUE(table.initialized());

    EXPECT_EQ(table.getLastActiveRecord().index, 20u);
    EXPECT_EQ(table.getLastActiveRecord().sequence, 0u);
    // The downward scan summarised what it passed, and nothing below its stop.
    EXPECT_TRUE(table.getRecordHashTable().contains(25));
    EXPECT_TRUE(table.getRecordHashTable().contains(20));
    EXPECT_FALSE(table.getRecordHashTable().contains(12));

    // Drive-relative numbering: the volume starts at cluster 256 of its disk.
    const std::uint64_t base = drive.geometry().volumeOffset / drive.bytesPerCluster();
    FileReference ref(0, 9);
    EXPECT_TRUE(table.findRecordCluster(base + 52, ref));
    EXPECT_EQ(ref.index, 20u);
    EXPECT_EQ(ref.sequence, 9u);
    ++ref;
    EXPECT_FALSE(table.findRecordCluster(base + 52, ref));
    EXPECT_EQ(ref.index, 21u);
    EXPECT_EQ(ref.sequence, 9u);

    FileReference fromStart(0, 0);
    EXPECT_FALSE(table.findRecordCluster(base + 54, fromStart)); // start + count
    EXPECT_EQ(fromStart.index, 21u);
    FileReference fromStartAt50(0, 0);
    EXPECT_TRUE(table.findRecordCluster(base + 50, fromStartAt50));
    FileReference above(100, 3);
    EXPECT_FALSE(table.findRecordCluster(base + 50, above));
    EXPECT_EQ(above.index, 100u);
}

TEST(MftClusterOwners, NoActiveRecordWhenEverythingIsResident) {
    FakeMftDrive drive(oneRunGeometry(64));
    RecordSpec resident = named(u"resident");
    resident.residentDataLength = 5;
    drive.writeRecord(25, resident);
    OpenedTable opened(drive);
    EXPECT_EQ(opened.table().getLastActiveRecord().index, 0u);
}

TEST(MftClusterOwners, ASingleSlotMftHasNoActiveRecord) {
    FakeMftGeometry g;
    g.sectorsPerCluster = 1;
    g.mftRuns = {{100, 1}}; // (1 + 1) * 512 / 1024 = one slot, record 0
    FakeMftDrive drive(g);
    RecordSpec mft = named(u"$MFT");
    mft.dataRun = RecordSpec::Run{100, 1};
    drive.writeRecord(0, mft);
    OpenedTable opened(drive);
    MasterFileTable& table = opened.table();
    ASSERT_TRUE(table.initialized());
    unsigned long long count = 0;
    ASSERT_TRUE(table.getNumMftRecords(count));
    ASSERT_EQ(count, 1u);
    const std::size_t reads = drive.fake().reads().size();
    EXPECT_EQ(table.getLastActiveRecord().index, 0u);
    EXPECT_EQ(drive.fake().reads().size(), reads);
    EXPECT_EQ(table.getRecordHashTable().size(), 0u); // record 0 was never examined
}

TEST(MftClusterOwners, FourRecordsPerClusterOfARunAtSector2048) {
    FakeMftGeometry g = oneRunGeometry(64);
    g.volumeOffset = 0;
    g.mftRuns = {{256, 64}}; // starts at sector 2048
    FakeMftDrive drive(g);
    OpenedTable opened(drive);
    MasterFileTable& table = opened.table();
    ASSERT_TRUE(table.initialized());

    auto indexes = [](const orv::Array<FileReference>& refs) {
        std::vector<std::uint64_t> out;
        for (const FileReference& r : refs)
            out.push_back(r.index);
        return out;
    };
    orv::Array<FileReference> refs;
    ASSERT_TRUE(table.findRecordClusterInMft(256, refs));
    EXPECT_EQ(indexes(refs), (std::vector<std::uint64_t>{0, 1, 2, 3}));
    orv::Array<FileReference> next;
    ASSERT_TRUE(table.findRecordClusterInMft(257, next));
    EXPECT_EQ(indexes(next), (std::vector<std::uint64_t>{4, 5, 6, 7}));
    orv::Array<FileReference> before;
    EXPECT_FALSE(table.findRecordClusterInMft(255, before));
    EXPECT_EQ(before.size(), 0u);

    orv::Array<FileReference> two;
    two.append(FileReference(1, 1));
    two.append(FileReference(2, 2));
    ASSERT_TRUE(table.findRecordClusterInMft(300, two));
    EXPECT_EQ(two.size(), 6u);
    EXPECT_EQ(two[2].index, 176u);
}
