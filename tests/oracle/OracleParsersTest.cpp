// The parsers of the tool outputs, on verbatim samples of what the tools
// print, including the lines that are easy to get wrong.
#include "support/Oracle.h"

#include <gtest/gtest.h>

#include <set>

namespace kestrow::test::oracle {
namespace {

TEST(FlsParser, ReadsTypesDeletionAttributesAndPaths) {
    const auto entries = parseFls("r/r 4-128-1:\t$AttrDef\n"
                                  "d/d 65-144-2:\tDocs\n"
                                  "r/r 101-128-13:\tStreams/streams.txt:stream-08\n"
                                  "-/r * 71-128-2:\tTrash/deleted-file.bin\n"
                                  "r/r * 64(realloc):\tOld name.txt\n"
                                  "V/V 1771:\t$OrphanFiles\n"
                                  "r/r 88-128-2:\tA: dir/\xE6\x97\xA5.txt\n");
    ASSERT_EQ(entries.size(), 7u);

    EXPECT_EQ(entries[0].inode, 4u);
    EXPECT_EQ(entries[0].attributeType, 128u);
    EXPECT_EQ(entries[0].attributeId, 1u);
    EXPECT_FALSE(entries[0].deleted);
    EXPECT_FALSE(entries[0].isDirectory());

    EXPECT_TRUE(entries[1].isDirectory());
    EXPECT_EQ(entries[1].attributeType, 144u);

    EXPECT_EQ(entries[2].streamName(), "stream-08");
    EXPECT_EQ(entries[2].filePath(), "Streams/streams.txt");
    EXPECT_EQ(entries[2].attributeId, 13u);

    EXPECT_TRUE(entries[3].deleted);
    EXPECT_EQ(entries[3].nameType, '-');
    EXPECT_EQ(entries[3].inode, 71u);
    EXPECT_EQ(entries[3].path, "Trash/deleted-file.bin");

    EXPECT_TRUE(entries[4].deleted);
    EXPECT_TRUE(entries[4].reallocated);
    EXPECT_EQ(entries[4].inode, 64u);
    EXPECT_FALSE(entries[4].attributeType.has_value());
    EXPECT_EQ(entries[4].path, "Old name.txt");

    EXPECT_EQ(entries[5].nameType, 'V');
    EXPECT_FALSE(entries[5].attributeType.has_value());

    // Only the first ":\t" separates, and only a ':' in the last name makes a
    // stream (NTFS names cannot hold one, but fls may print anything).
    EXPECT_EQ(entries[6].path, "A: dir/\xE6\x97\xA5.txt");
    EXPECT_EQ(entries[6].streamName(), "");
    EXPECT_EQ(entries[6].filePath(), entries[6].path);
}

TEST(FlsParser, RejectsLinesItDoesNotKnow) {
    EXPECT_THROW(parseFls("Cannot determine file system type\n"), OracleError);
    EXPECT_THROW(parseFls("r/r abc-128-1:\tname\n"), OracleError);
    EXPECT_THROW(parseFls("r/r 12-128:\tname\n"), OracleError);
}

constexpr const char* kIstatSparse = R"(MFT Entry Header Values:
Entry: 91        Sequence: 2
$LogFile Sequence Number: 0
Allocated File
Links: 1

$STANDARD_INFORMATION Attribute Values:
Flags: Archive
Owner ID: 0
Name: not a file name

$FILE_NAME Attribute Values:
Flags: Archive
Name: sparse file.bin
Parent MFT Entry: 90 	Sequence: 2
Allocated Size: 0   	Actual Size: 0
Created:	2026-11-22 07:35:16.977225800 (UTC)

Attributes: 
Type: $STANDARD_INFORMATION (16-0)   Name: N/A   Resident   size: 48
Type: $FILE_NAME (48-3)   Name: N/A   Resident   size: 86
Type: $DATA (128-2)   Name: N/A   Non-Resident, Sparse   size: 40960  init_size: 40960
6662 6663 0 0 0 0 0 0 
7001 7002 
Type: $DATA (128-5)   Name: my stream   Resident   size: 21
)";

TEST(IstatParser, ReadsHeaderNamesAttributesAndSparseRuns) {
    const auto result = parseIstat(kIstatSparse);
    EXPECT_EQ(result.entry, 91u);
    EXPECT_EQ(result.sequence, 2u);
    EXPECT_TRUE(result.allocated);
    EXPECT_FALSE(result.baseRecord.has_value());
    EXPECT_EQ(result.links, 1u);

    ASSERT_EQ(result.fileNames.size(), 1u);
    EXPECT_EQ(result.fileNames[0].name, "sparse file.bin");
    EXPECT_EQ(result.fileNames[0].parent, 90u);
    EXPECT_EQ(result.fileNames[0].parentSequence, 2u);
    EXPECT_EQ(result.fileNames[0].flags, "Archive");
    EXPECT_EQ(result.fileNames[0].created, "2026-11-22 07:35:16.977225800 (UTC)");

    ASSERT_EQ(result.attributes.size(), 4u);
    const auto* data = result.find(kData);
    ASSERT_NE(data, nullptr);
    EXPECT_FALSE(data->resident);
    EXPECT_TRUE(data->sparse);
    EXPECT_EQ(data->size, 40960u);
    EXPECT_EQ(data->initializedSize, 40960u);
    EXPECT_EQ(data->clusters.size(), 10u);
    const std::vector<ClusterRun> expected = {{6662, 2, false}, {0, 6, true}, {7001, 2, false}};
    EXPECT_EQ(data->runs(), expected);

    const auto* stream = result.find(kData, "my stream");
    ASSERT_NE(stream, nullptr);
    EXPECT_TRUE(stream->resident);
    EXPECT_EQ(stream->id, 5u);
    EXPECT_EQ(stream->size, 21u);
    EXPECT_FALSE(result.has(kAttributeList));
}

TEST(IstatParser, ReadsExtensionAndUnallocatedRecords) {
    const auto extension =
        parseIstat("MFT Entry Header Values:\n"
                   "Entry: 93        Sequence: 2\n"
                   "Base File Record: 299\n"
                   "Not Allocated File\n"
                   "Links: 0\n\nAttributes: \n"
                   "Type: $DATA (128-0)   Name: stream-21   Resident   size: 21\n");
    EXPECT_EQ(extension.baseRecord, 299u);
    EXPECT_FALSE(extension.allocated);
    ASSERT_EQ(extension.attributes.size(), 1u);
    EXPECT_EQ(extension.attributes[0].name, "stream-21");
}

TEST(IstatParser, DirectoriesAreAllocatedToo) {
    const auto root = parseIstat("MFT Entry Header Values:\n"
                                 "Entry: 5        Sequence: 5\n"
                                 "$LogFile Sequence Number: 0\n"
                                 "Allocated Directory\n"
                                 "Links: 1\n");
    EXPECT_EQ(root.entry, 5u);
    EXPECT_TRUE(root.allocated);
    const auto gone = parseIstat("MFT Entry Header Values:\n"
                                 "Entry: 70        Sequence: 3\n"
                                 "Not Allocated Directory\n"
                                 "Links: 0\n");
    EXPECT_FALSE(gone.allocated);
}

TEST(IstatParser, ZeroClustersAreHolesExceptAtTheStartOfBoot) {
    IstatAttribute boot;
    boot.clusters = {0, 1, 2};
    const std::vector<ClusterRun> bootRuns = {{0, 3, false}};
    EXPECT_EQ(boot.runs(), bootRuns);
    // Allocated past the data size: istat prints zeros there.
    IstatAttribute mft;
    mft.clusters = {4, 5, 1268, 0, 0, 0};
    const std::vector<ClusterRun> mftRuns = {{4, 2, false}, {1268, 1, false}, {0, 3, true}};
    EXPECT_EQ(mft.runs(), mftRuns);
}

TEST(IstatParser, RejectsGarbage) {
    EXPECT_THROW(parseIstat("Error: inode out of range\n"), OracleError);
    EXPECT_THROW(parseIstat("Entry: 5 Sequence: 5\n\nAttributes:\nType: nonsense\n"), OracleError);
}

TEST(FsstatParser, ReadsGeometry) {
    const auto result = parseFsstat("FILE SYSTEM INFORMATION\n"
                                    "File System Type: NTFS\n"
                                    "Volume Serial Number: 34F5EE1202469FF7\n"
                                    "OEM Name: NTFS    \n"
                                    "Volume Name: KESTROW_RICH\n"
                                    "Version: Windows XP\n\n"
                                    "First Cluster of MFT: 4\n"
                                    "First Cluster of MFT Mirror: 6143\n"
                                    "Size of MFT Entries: 1024 bytes\n"
                                    "Size of Index Records: 4096 bytes\n"
                                    "Range: 0 - 1868\n"
                                    "Root Directory: 5\n\n"
                                    "Sector Size: 512\n"
                                    "Cluster Size: 4096\n"
                                    "Total Cluster Range: 0 - 12286\n"
                                    "Total Sector Range: 0 - 98302\n\n"
                                    "$AttrDef Attribute Values:\n"
                                    "$STANDARD_INFORMATION (16)   Size: 48-72   Flags: Resident\n");
    EXPECT_EQ(result.fileSystemType, "NTFS");
    EXPECT_EQ(result.serialNumber, 0x34F5EE1202469FF7ull);
    EXPECT_EQ(result.label, "KESTROW_RICH");
    EXPECT_EQ(result.firstMftCluster, 4u);
    EXPECT_EQ(result.firstMftMirrorCluster, 6143u);
    EXPECT_EQ(result.mftEntrySize, 1024u);
    EXPECT_EQ(result.indexRecordSize, 4096u);
    EXPECT_EQ(result.lastMftEntry, 1868u);
    EXPECT_EQ(result.sectorSize, 512u);
    EXPECT_EQ(result.clusterSize, 4096u);
    EXPECT_EQ(result.totalClusters, 12287u);
    EXPECT_EQ(result.totalSectors, 98303u);
    EXPECT_THROW(parseFsstat("Cannot determine file system type\n"), OracleError);
}

TEST(MmlsParser, KeepsTheGptPartitionTableEntryAsAnEntry) {
    const auto result =
        parseMmls("GUID Partition Table (EFI)\nOffset Sector: 0\nUnits are in 512-byte sectors\n\n"
                  "      Slot      Start        End          Length       Description\n"
                  "000:  Meta      0000000000   0000000000   0000000001   Safety Table\n"
                  "001:  -------   0000000000   0000002047   0000002048   Unallocated\n"
                  "002:  Meta      0000000001   0000000001   0000000001   GPT Header\n"
                  "003:  Meta      0000000002   0000000033   0000000032   Partition Table\n"
                  "004:  000       0000002048   0000004095   0000002048   Spacer\n"
                  "005:  001       0000004096   0000053247   0000049152   Kestrow NTFS\n");
    EXPECT_EQ(result.tableType, "GUID Partition Table (EFI)");
    EXPECT_EQ(result.unitSize, 512u);
    ASSERT_EQ(result.entries.size(), 6u);
    EXPECT_EQ(result.entries[3].description, "Partition Table");
    EXPECT_TRUE(result.entries[3].isMeta());
    EXPECT_TRUE(result.entries[1].isUnallocated());
    const auto partitions = result.partitions();
    ASSERT_EQ(partitions.size(), 2u);
    EXPECT_EQ(partitions[1].start, 4096u);
    EXPECT_EQ(partitions[1].end, 53247u);
    EXPECT_EQ(partitions[1].length, 49152u);
    EXPECT_EQ(partitions[1].description, "Kestrow NTFS");
}

TEST(SfdiskParser, ReadsDosAndGptDumpsWithQuotedNames) {
    const auto dos = parseSfdiskDump("label: dos\nlabel-id: 0x4b455354\ndevice: d.img\n"
                                     "unit: sectors\nsector-size: 512\n\n"
                                     "d.img1 : start=        2048, size=       32768, type=7\n"
                                     "d.img2 : start=       34816, size=       96256, type=c\n");
    EXPECT_EQ(dos.label, "dos");
    EXPECT_EQ(dos.labelId, "0x4b455354");
    EXPECT_EQ(dos.sectorSize, 512u);
    ASSERT_EQ(dos.partitions.size(), 2u);
    EXPECT_EQ(dos.partitions[0].start, 2048u);
    EXPECT_EQ(dos.partitions[0].size, 32768u);
    EXPECT_EQ(dos.partitions[0].type, "7");
    EXPECT_EQ(dos.partitions[1].type, "c");

    const auto gpt = parseSfdiskDump(
        "label: gpt\nlabel-id: 4B455354-524F-5700-0000-000000000001\n\n"
        "g.img2 : start=        4096, size=       49152, type=EBD0A0A2-B9E5-4433-87C0-68B6B72699C7,"
        " uuid=4B455354-524F-5700-0000-0000000000A2, name=\"Kestrow, NTFS\"\n");
    ASSERT_EQ(gpt.partitions.size(), 1u);
    EXPECT_EQ(gpt.partitions[0].name, "Kestrow, NTFS");
    EXPECT_EQ(gpt.partitions[0].uuid, "4B455354-524F-5700-0000-0000000000A2");
    EXPECT_EQ(gpt.partitions[0].start, 4096u);
}

TEST(NtfsinfoParser, ReadsRunListsWithHolesAndNamespaces) {
    const auto record =
        parseNtfsinfoRecord("Dumping attribute $FILE_NAME (0x30) from mft record 77 (0x4d)\n"
                            "\tParent directory:\t 76 (0x4c)\n"
                            "\tNamespace:\t\t Win32\n"
                            "\tFilename:\t\t 'It's: a name'\n"
                            "Dumping attribute $DATA (0x80) from mft record 90 (0x5a)\n"
                            "\tRunlist:\tVCN\t\tLCN\t\tLength\n"
                            "\t\t\t0x0\t\t0x2a03\t\t0x2\n"
                            "\t\t\t0x2\t\t<HOLE>\t\t0xffe\n"
                            "\t\t\t0x1000\t\t0x769\t\t0x2\n"
                            "End of inode reached\n");
    ASSERT_EQ(record.attributes.size(), 2u);
    EXPECT_EQ(record.attributes[0].typeName, "$FILE_NAME");
    EXPECT_EQ(record.attributes[0].record, 77u);
    EXPECT_EQ(record.attributes[1].typeName, "$DATA");
    EXPECT_EQ(record.attributes[1].record, 90u);
    ASSERT_EQ(record.fileNames.size(), 1u);
    EXPECT_EQ(record.fileNames[0].name, "It's: a name");
    EXPECT_EQ(record.fileNames[0].nameSpace, "Win32");
    EXPECT_EQ(record.fileNames[0].parent, 76u);
    ASSERT_EQ(record.runLists.size(), 1u);
    EXPECT_EQ(record.runLists[0].first, "$DATA");
    const auto& runs = record.runLists[0].second;
    ASSERT_EQ(runs.size(), 3u);
    EXPECT_EQ(runs[0].lcn, 0x2a03u);
    EXPECT_FALSE(runs[1].lcn.has_value());
    EXPECT_EQ(runs[1].length, 0xffeu);
    EXPECT_EQ(runs[2].vcn, 0x1000u);
}

TEST(BlklsParser, ReadsTheClusterList) {
    const auto clusters = parseBlklsList("class|host|image|first_time|unit\n"
                                         "blkls|vm||1795336068|Cluster\n"
                                         "addr|alloc\n0|a\n1|a\n4097|a\n");
    EXPECT_EQ(clusters, (std::vector<std::uint64_t>{0, 1, 4097}));
    EXPECT_THROW(parseBlklsList("Cannot determine file system type\n"), OracleError);
    EXPECT_THROW(parseBlklsList("addr|alloc\nx|a\n"), OracleError);
}

TEST(NtfsclusterParser, SeparatesFilesFromExtensionRecords) {
    const auto users = parseNtfscluster("Searching for cluster range 0-9223372036854775807\n"
                                        "Inode 0 /$MFT/$DATA\n"
                                        "Inode 70 /Indexed/$INDEX_ALLOCATION($I30)\n"
                                        "Inode 1846 /a b/c.txt/$DATA\n"
                                        "* 3 inodes found\n"
                                        "Inode 75 is an extent of inode 70.\n");
    EXPECT_EQ(users.files, (std::set<std::uint64_t>{0, 70, 1846}));
    EXPECT_EQ(users.extensions, (std::set<std::uint64_t>{75}));
    EXPECT_THROW(parseNtfscluster("Inode 12 was not found\n"), OracleError);
    EXPECT_THROW(parseNtfscluster("Inode x /$MFT/$DATA\n"), OracleError);
}

TEST(RunTool, QuotesArgumentsAndReportsFailures) {
    EXPECT_EQ(shellQuote("it's"), "'it'\\''s'");
    const auto echoed = runToolChecked({"printf", "%s|", "a b", "it's", "$HOME"});
    EXPECT_EQ(echoed, "a b|it's|$HOME|");
    const auto failed = runTool({"sh", "-c", "echo oops >&2; exit 3"});
    EXPECT_EQ(failed.exitCode, 3);
    EXPECT_EQ(failed.err, "oops\n");
    EXPECT_THROW(runToolChecked({"sh", "-c", "exit 1"}), OracleError);
}

} // namespace
} // namespace kestrow::test::oracle
