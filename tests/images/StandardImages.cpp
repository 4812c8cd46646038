// The fixture images every test group shares. Their content is described, and
// named, in tests/support/Fixtures.h; this file only makes them.
#include "ImageBuilder.h"

#include "Fixtures.h"

#include <fstream>
#include <iostream>
#include <stdexcept>

namespace kestrow::images {

namespace {

using namespace kestrow::test;

constexpr std::uint64_t MiB = 1024 * 1024;

NtfsFormat formatFor(const ImageFacts& facts) {
    NtfsFormat format;
    format.size = facts.volumeSize;
    format.bytesPerSector = facts.bytesPerSector;
    format.bytesPerCluster = facts.bytesPerCluster;
    format.label = std::string(facts.label);
    format.partitionStartSector = facts.volumeOffset / facts.bytesPerSector;
    return format;
}

void writeSmallTree(NtfsWriter& writer) {
    writer.makeTextFile(kReadmePath, kReadmeText);
    writer.makeDirectory(kDocsDir);
    writer.makeFile(kReportPath, patternBytes(kReportSeed, 0, kReportSize));
    writer.makeDirectory(kSubDir);
    writer.makeTextFile(kDeepTextPath, kDeepText);
    writer.makeFile(kEmptyPath);
}

void writeIndexedDir(NtfsWriter& writer) {
    writer.makeDirectory(kIndexedDir);
    for (int i = 0; i < kIndexedDirEntries; ++i)
        writer.makeFile(std::string(kIndexedDir) + "/" + indexedEntryName(i));
}

void writeSweepDir(NtfsWriter& writer) {
    writer.makeDirectory(kSweepDir);
    const std::string dir = std::string(kSweepDir) + "/";
    for (int length = kSweepShortest; length <= kSweepLongest; length += kSweepStep) {
        writer.makeFile(dir + sweepName(length));
        writer.addHardLink(dir + sweepName(length), dir + sweepLinkName(length));
    }
}

// Builds the NTFS volume of `facts` into `volumeFile` with the small tree and,
// where the image has them, the indexed and the sweep directories.
void buildPlainVolume(const ImageFacts& facts, const std::filesystem::path& volumeFile) {
    formatNtfs(volumeFile, formatFor(facts));
    if (!facts.hasSmallTree && !facts.hasIndexedDir && !facts.hasSweepDir)
        return;
    NtfsWriter writer(volumeFile);
    if (facts.hasSmallTree)
        writeSmallTree(writer);
    if (facts.hasIndexedDir)
        writeIndexedDir(writer);
    if (facts.hasSweepDir)
        writeSweepDir(writer);
    writer.close();
}

void buildMbrDisk(const ImageFacts& facts, const std::filesystem::path& image,
                  const std::filesystem::path& workDir) {
    createSparseFile(image, facts.imageSize);
    // sfdisk reads its script from stdin; a script file passed through a shell
    // keeps runTool free of stdin plumbing.
    const auto script = workDir / "mbr.sfdisk";
    {
        char diskId[16];
        std::snprintf(diskId, sizeof diskId, "0x%08x", kMbrDiskId);
        std::ofstream out(script);
        out << "label: dos\n"
            << "label-id: " << diskId << "\n"
            << "unit: sectors\n"
            << "start=" << kMbrNtfsStartSector << ", size=" << kMbrNtfsSectors << ", type=7\n"
            << "start=" << kMbrFatStartSector << ", type=c\n";
    }
    runTool({"sh", "-c", "sfdisk --quiet --no-reread --no-tell-kernel \"$1\" < \"$2\"", "sfdisk",
             image.string(), script.string()});

    const auto ntfsPart = workDir / "mbr-ntfs.part";
    buildPlainVolume(facts, ntfsPart);
    copyInto(ntfsPart, image, facts.volumeOffset);

    const std::uint64_t fatOffset = kMbrFatStartSector * 512;
    const std::uint64_t fatSectors = facts.imageSize / 512 - kMbrFatStartSector;
    const auto fatPart = workDir / "mbr-fat.part";
    createSparseFile(fatPart, fatSectors * 512);
    runTool({"mkfs.vfat", "-F", "32", "-s", "1", "-n", "KESTROWFAT", "-i", "4b455354", "-h",
             std::to_string(kMbrFatStartSector), fatPart.string()});
    copyInto(fatPart, image, fatOffset);
}

// One NTFS partition at sector 63, as disks were partitioned before 2008.
void buildLegacyMbrDisk(const ImageFacts& facts, const std::filesystem::path& image,
                        const std::filesystem::path& workDir) {
    createSparseFile(image, facts.imageSize);
    const auto script = workDir / "legacy.sfdisk";
    {
        std::ofstream out(script);
        out << "label: dos\n"
            << "unit: sectors\n"
            << "start=" << kLegacyNtfsStartSector << ", size=" << facts.volumeSize / 512
            << ", type=7\n";
    }
    runTool({"sh", "-c", "sfdisk --quiet --no-reread --no-tell-kernel \"$1\" < \"$2\"", "sfdisk",
             image.string(), script.string()});
    const auto ntfsPart = workDir / "legacy-ntfs.part";
    buildPlainVolume(facts, ntfsPart);
    copyInto(ntfsPart, image, facts.volumeOffset);
}

void buildGptDisk(const ImageFacts& facts, const std::filesystem::path& image,
                  const std::filesystem::path& workDir) {
    createSparseFile(image, facts.imageSize);
    auto range = [](std::uint64_t start, std::uint64_t sectors) {
        return std::to_string(start) + ":" + std::to_string(start + sectors - 1);
    };
    runTool({"sgdisk", "--clear", "--disk-guid=4B455354-524F-5700-0000-000000000001",
             "--new=1:" + range(kGptSpacerStartSector, kGptSpacerSectors), "--typecode=1:8300",
             "--change-name=1:Spacer", "--partition-guid=1:4B455354-524F-5700-0000-0000000000A1",
             "--new=2:" + range(kGptNtfsStartSector, kGptNtfsSectors), "--typecode=2:0700",
             "--change-name=2:Kestrow NTFS",
             "--partition-guid=2:4B455354-524F-5700-0000-0000000000A2", image.string()});
    const auto ntfsPart = workDir / "gpt-ntfs.part";
    buildPlainVolume(facts, ntfsPart);
    copyInto(ntfsPart, image, facts.volumeOffset);
}

// The allocator keeps a file's clusters together whenever it can, so writing
// two files in turns is not enough. Instead every cluster but a few is taken
// by a filler, the few left are taken by one-cluster "comb" files, every
// other comb file is deleted, and the two files are written into the gaps.
void writeFragmentedFiles(NtfsWriter& writer) {
    using namespace kestrow::test::rich;
    const std::uint64_t cluster = writer.bytesPerCluster();
    const std::uint64_t gaps = 2 * ((kFragmentedSize + cluster - 1) / cluster);
    writer.makeFile(kFragmentedA);
    writer.makeFile(kFragmentedB);
    // Room for the comb and for what making its files needs (index blocks, records).
    const auto fillers = writer.fillFreeSpace(kFragmentedDir, 2 * gaps + 64);
    std::vector<std::string> comb;
    for (std::uint64_t i = 0; i < 2 * gaps; ++i) {
        comb.push_back(std::string(kFragmentCombDir) + "/tooth-" + std::to_string(i));
        writer.makeFile(comb.back(), patternBytes(0x5EED0200, i * cluster, cluster));
    }
    const std::string moreDir = std::string(kFragmentedDir) + "/more";
    writer.makeDirectory(moreDir);
    const auto moreFillers = writer.fillFreeSpace(moreDir, 0);
    for (std::uint64_t i = 1; i < comb.size(); i += 2)
        writer.remove(comb[i]);
    writer.writeInterleaved(kFragmentedA, patternBytes(kFragmentedSeedA, 0, kFragmentedSize),
                            kFragmentedB, patternBytes(kFragmentedSeedB, 0, kFragmentedSize),
                            cluster);
    for (const auto& filler : moreFillers)
        writer.remove(filler);
    writer.remove(moreDir);
    for (const auto& filler : fillers)
        writer.remove(filler);
}

// Grows the $MFT past clusters that are already in use: first every free
// cluster is taken, then in turns one small file claims a cluster (the
// allocator has only the MFT zone left, next to the $MFT's end) and records
// are added until the $MFT has to extend beyond it.
void growMftInPieces(NtfsWriter& writer) {
    using namespace kestrow::test::rich;
    writer.makeDirectory(kMftGrowthDir);
    const std::uint64_t cluster = writer.bytesPerCluster();
    const auto fillers = writer.fillFreeSpace(kMftGrowthDir, 64);
    for (int round = 0; round < kMftGrowthRounds; ++round) {
        const std::string plug = std::string(kMftGrowthDir) + "/plug-" + std::to_string(round);
        writer.makeFile(plug, patternBytes(0x5EED0100 + round, 0, cluster));
        for (int i = 0; i < kMftGrowthRecordsPerRound; ++i)
            writer.makeFile(plug + "-record-" + std::to_string(i) + ".txt");
    }
    for (const auto& filler : fillers)
        writer.remove(filler);
}

// The rich volume: every feature of Fixtures.h's `rich` namespace.
void buildRichVolume(const ImageFacts& facts, const std::filesystem::path& image) {
    using namespace kestrow::test::rich;
    formatNtfs(image, formatFor(facts));
    NtfsWriter writer(image);
    writeSmallTree(writer);

    // Deleted later; made early so that their records sit among live ones.
    writer.makeDirectory(kTrashDir);
    writer.makeFile(kDeletedFile, patternBytes(0x5EED0DE1, 0, kDeletedFileSize));
    writer.makeDirectory(kDeletedDir);
    writer.makeTextFile(kDeletedDirChild, "soon gone\n");
    writer.makeTextFile(kDeletedRootFile, "gone\n");

    writer.makeFile(kLargePath, patternBytes(kLargeSeed, 0, kLargeSize));

    for (const auto& named : kShortNamedFiles) {
        if (named.path == kShortNamedDir)
            writer.makeDirectory(named.path);
        else
            writer.makeTextFile(named.path, "a long name and a short one\n");
        writer.setShortName(named.path, named.shortName);
    }
    writer.makeTextFile(kPlain83Path, "already 8.3\n");

    writer.makeDirectory(kUnicodeDir);
    writer.makeTextFile(kUnicodePaths[0], "latin\n");
    writer.makeTextFile(kUnicodePaths[1], "japanese\n");
    writer.makeDirectory(kUnicodePaths[2]);
    writer.makeTextFile(kUnicodePaths[3], "greek directory, german name\n");
    writer.makeTextFile(kUnicodePaths[4], "outside the basic plane\n");

    writeFragmentedFiles(writer);

    writer.makeFile(kSparsePath, patternBytes(kSparseSeed, 0, kSparseChunk));
    writer.write(kSparsePath, kSparseSecondOffset,
                 patternBytes(kSparseSeed, kSparseSecondOffset, kSparseChunk));

    writer.makeTextFile(kHardLinkTarget, kHardLinkText);
    for (int i = 1; i < kHardLinkCount; ++i)
        writer.addHardLink(kHardLinkTarget, hardLinkName(i));

    writer.makeFile(kDataElsewherePath, patternBytes(kDataElsewhereSeed, 0, kDataElsewhereSize));
    writer.moveDataToExtensionRecord(kDataElsewherePath);

    writer.makeTextFile(kStreamsPath, kStreamsText);
    for (int i = 0; i < kStreamCount; ++i)
        writer.addNamedStream(kStreamsPath, streamName(i), streamContent(i));

    writer.makeTextFile(deepFilePath(), "twelve levels down\n");

    writer.makeDirectory(kBigDir);
    for (int i = 0; i < kBigDirEntries; ++i)
        writer.makeFile(std::string(kBigDir) + "/" + bigDirEntryName(i));

    growMftInPieces(writer);

    writer.remove(kDeletedDirChild);
    writer.remove(kDeletedDir);
    writer.remove(kDeletedFile);
    writer.remove(kDeletedRootFile);
    writer.close();
}

void writeManifest(const std::filesystem::path& directory) {
    std::ofstream manifest(directory / std::string(kManifestFileName), std::ios::trunc);
    for (const auto& facts : allImages()) {
        const auto image = directory / std::string(facts.fileName);
        manifest << sha256Of(image) << " *" << facts.fileName << "\n";
    }
    manifest.close();
    if (!manifest)
        throw std::runtime_error("cannot write the manifest in " + directory.string());
}

} // namespace

void buildStandardImages(const std::filesystem::path& directory) {
    std::filesystem::create_directories(directory);
    std::filesystem::remove(directory / std::string(kManifestFileName));
    const auto workDir = directory / "work";
    std::filesystem::remove_all(workDir);
    std::filesystem::create_directories(workDir);

    for (const auto& facts : allImages()) {
        const auto image = directory / std::string(facts.fileName);
        // A half-built image must not survive a failure under its real name.
        const auto building = workDir / std::string(facts.fileName);
        switch (facts.image) {
        case FixtureImage::MbrDisk:
            buildMbrDisk(facts, building, workDir);
            break;
        case FixtureImage::GptDisk:
            buildGptDisk(facts, building, workDir);
            break;
        case FixtureImage::LegacyMbrDisk:
            buildLegacyMbrDisk(facts, building, workDir);
            break;
        case FixtureImage::Rich:
            buildRichVolume(facts, building);
            break;
        default:
            buildPlainVolume(facts, building);
            break;
        }
        // Read-only, as a reminder to anything but the builder: tests patch
        // private copies (ScratchImage), never these.
        std::filesystem::permissions(building, std::filesystem::perms::owner_read |
                                                   std::filesystem::perms::group_read |
                                                   std::filesystem::perms::others_read);
        std::filesystem::rename(building, image);
        std::cout << "built " << image.string() << "\n";
    }
    std::filesystem::remove_all(workDir);
    writeManifest(directory);
}

} // namespace kestrow::images
