// kestrow_sample_image: makes the small disk image that `make demo` shows.
//
//   kestrow_sample_image <image file>
//
// A 64 MiB disk with an MBR partition table and one NTFS partition at 1 MiB
// holding a little tree that looks like someone's disk: nested directories,
// a few hundred files (small texts kept inside their records, larger files
// in clusters), a log file written into one-cluster holes so that it is fragmented,
// and deleted files whose records stay behind. It is made with mkntfs,
// sfdisk and the NTFS-3G library (nothing is mounted), through the test
// image builder's writer.
#include "ImageBuilder.h"

#include <cstdint>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <span>
#include <string>
#include <vector>

namespace {

using kestrow::images::NtfsWriter;

constexpr std::uint64_t DISK_BYTES = 64ull * 1024 * 1024;
constexpr std::uint64_t PARTITION_START_SECTOR = 2048; // 1 MiB
constexpr std::uint64_t SECTOR_BYTES = 512;
constexpr std::uint64_t PARTITION_SECTORS = DISK_BYTES / SECTOR_BYTES - PARTITION_START_SECTOR;
constexpr const char* DISK_ID = "0x4b455344";
constexpr const char* LABEL = "KESTROW_DEMO";

// Deterministic bytes, so that the image is the same on every machine.
std::vector<std::uint8_t> content(std::uint32_t seed, std::size_t size) {
    std::vector<std::uint8_t> bytes(size);
    std::uint32_t state = seed * 2654435761u + 1;
    for (auto& byte : bytes) {
        state ^= state << 13;
        state ^= state >> 17;
        state ^= state << 5;
        byte = static_cast<std::uint8_t>(state);
    }
    return bytes;
}

std::string numbered(const char* stem, int n, int width, const char* suffix) {
    char digits[16];
    std::snprintf(digits, sizeof digits, "%0*d", width, n);
    return std::string(stem) + digits + suffix;
}

void writeDocuments(NtfsWriter& writer) {
    for (int year : {2023, 2024}) {
        const std::string dir = "Documents/Reports/" + std::to_string(year);
        for (int i = 1; i <= 24; ++i)
            writer.makeTextFile(dir + "/" + numbered("report-", i, 2, ".txt"),
                                "Monthly report " + std::to_string(i) + " of " +
                                    std::to_string(year) + "\r\n");
    }
    for (int i = 1; i <= 30; ++i)
        writer.makeTextFile("Documents/Letters/" + numbered("letter-", i, 2, ".txt"),
                            "Dear reader,\r\nletter number " + std::to_string(i) + ".\r\n");
    for (int i = 1001; i <= 1040; ++i)
        writer.makeFile("Documents/Invoices/" + numbered("invoice-", i, 4, ".pdf"),
                        content(static_cast<std::uint32_t>(i), 5 * 1024));
}

void writePhotos(NtfsWriter& writer) {
    struct Album {
        const char* dir;
        int first;
        int count;
    };
    const Album albums[] = {
        {"Photos/2023/Summer", 1, 40},
        {"Photos/2023/Winter", 101, 30},
        {"Photos/2024/Spring", 201, 40},
    };
    for (const Album& album : albums)
        for (int i = album.first; i < album.first + album.count; ++i)
            writer.makeFile(std::string(album.dir) + "/" + numbered("IMG_", i, 4, ".jpg"),
                            content(static_cast<std::uint32_t>(0x1000 + i), 9 * 1024));
}

void writeProject(NtfsWriter& writer) {
    const char* const modules[] = {"volume", "record", "table", "paths", "index",
                                   "runs",   "bitmap", "dump",  "owner", "extents"};
    for (const char* module : modules) {
        for (const char* part : {"", "_parse", "_check"}) {
            const std::string name = std::string(module) + part;
            writer.makeTextFile("Projects/kestrow/src/" + name + ".cpp",
                                "// " + name + "\n#include \"" + module + ".h\"\n");
        }
        writer.makeTextFile("Projects/kestrow/include/" + std::string(module) + ".h",
                            "#pragma once\n");
        writer.makeTextFile("Projects/kestrow/include/" + std::string(module) + "_detail.h",
                            "#pragma once\n");
        writer.makeTextFile("Projects/kestrow/tests/" + std::string(module) + "_test.cpp",
                            "// tests of " + std::string(module) + "\n");
        writer.makeTextFile("Projects/kestrow/tests/" + std::string(module) + "_bench.cpp",
                            "// benchmark of " + std::string(module) + "\n");
    }
    writer.makeTextFile("Projects/kestrow/CMakeLists.txt", "project(kestrow)\n");
}

// The allocator keeps a file's clusters together whenever it can, so the log
// is written into one-cluster gaps: all free space but a little is taken by
// fillers, the little is taken by one-cluster object files, every other
// object file is deleted and the log written into the holes; then the
// fillers go.
void writeFragmentedLog(NtfsWriter& writer) {
    const std::uint64_t cluster = writer.bytesPerCluster();
    const std::uint64_t logClusters = 12;
    const std::string build = "Projects/kestrow/build";
    writer.makeDirectory(build + "/obj");
    writer.makeDirectory("Filler");
    writer.makeFile(build + "/kestrow.log");
    const auto fillers = writer.fillFreeSpace("Filler", 2 * 2 * logClusters + 64);
    std::vector<std::string> objects;
    for (std::uint64_t i = 0; i < 2 * 2 * logClusters; ++i) {
        objects.push_back(build + "/obj/" + numbered("unit-", static_cast<int>(i), 2, ".o"));
        writer.makeFile(objects.back(), content(static_cast<std::uint32_t>(0x5000 + i), cluster));
    }
    writer.makeDirectory("Filler/more");
    const auto moreFillers = writer.fillFreeSpace("Filler/more", 0);
    for (std::size_t i = 1; i < objects.size(); i += 2)
        writer.remove(objects[i]);
    const auto log = content(0xB001, logClusters * cluster);
    for (std::uint64_t at = 0; at < log.size(); at += cluster)
        writer.write(build + "/kestrow.log", at,
                     std::span<const std::uint8_t>(log.data() + at, cluster));
    for (const auto& filler : moreFillers)
        writer.remove(filler);
    writer.remove("Filler/more");
    for (const auto& filler : fillers)
        writer.remove(filler);
    writer.remove("Filler");
}

void writeMusicAndUsers(NtfsWriter& writer) {
    for (int i = 1; i <= 12; ++i)
        writer.makeFile("Music/Some Artist/First Album/" + numbered("", i, 2, " - Track.mp3"),
                        content(static_cast<std::uint32_t>(0x2000 + i), 16 * 1024));
    writer.makeTextFile("Users/alice/Desktop/notes.txt", "buy milk\r\ncall Bob\r\n");
    writer.makeTextFile("Users/alice/Documents/todo.txt", "- finish the report\r\n");
    writer.makeFile("Users/bob/Downloads/setup.exe", content(0x3001, 200 * 1024));
    writer.makeTextFile("Readme.txt", "The kestrow demo volume.\r\n");
}

// Made among the live files, then deleted: their records stay in the MFT
// with the in-use flag clear, and their clusters become free.
void writeDeletedFiles(NtfsWriter& writer) {
    writer.makeFile("Documents/draft-to-delete.docx", content(0x4001, 24 * 1024));
    writer.makeTextFile("Documents/Letters/unsent.txt", "never sent\r\n");
    writer.makeDirectory("Users/bob/Old");
    writer.makeFile("Users/bob/Old/old-installer.exe", content(0x4002, 64 * 1024));
}

void removeDeletedFiles(NtfsWriter& writer) {
    writer.remove("Documents/draft-to-delete.docx");
    writer.remove("Documents/Letters/unsent.txt");
    writer.remove("Users/bob/Old/old-installer.exe");
    writer.remove("Users/bob/Old");
}

void buildVolume(const std::filesystem::path& volume) {
    kestrow::images::NtfsFormat format;
    format.size = PARTITION_SECTORS * SECTOR_BYTES;
    format.bytesPerSector = SECTOR_BYTES;
    format.bytesPerCluster = 4096;
    format.label = LABEL;
    format.partitionStartSector = PARTITION_START_SECTOR;
    kestrow::images::formatNtfs(volume, format);

    NtfsWriter writer(volume);
    writeDocuments(writer);
    writeDeletedFiles(writer);
    writePhotos(writer);
    writeProject(writer);
    writeFragmentedLog(writer);
    writeMusicAndUsers(writer);
    removeDeletedFiles(writer);
    writer.close();
}

void buildDisk(const std::filesystem::path& image) {
    const std::filesystem::path work = image.string() + ".parts";
    std::filesystem::remove_all(work);
    std::filesystem::create_directories(work);
    const std::filesystem::path building = image.string() + ".building";
    kestrow::images::createSparseFile(building, DISK_BYTES);
    const auto script = work / "table.sfdisk";
    {
        std::ofstream out(script);
        out << "label: dos\nlabel-id: " << DISK_ID << "\nunit: sectors\n"
            << "start=" << PARTITION_START_SECTOR << ", size=" << PARTITION_SECTORS << ", type=7\n";
    }
    kestrow::images::runTool({"sh", "-c",
                              "sfdisk --quiet --no-reread --no-tell-kernel \"$1\" < \"$2\"",
                              "sfdisk", building.string(), script.string()});
    const auto volume = work / "ntfs.part";
    buildVolume(volume);
    kestrow::images::copyInto(volume, building, PARTITION_START_SECTOR * SECTOR_BYTES);
    std::filesystem::remove_all(work);
    std::filesystem::rename(building, image);
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: kestrow_sample_image <image file>\n";
        return 2;
    }
    try {
        buildDisk(argv[1]);
    } catch (const std::exception& error) {
        std::cerr << "kestrow_sample_image: " << error.what() << "\n";
        return 1;
    }
    std::cout << "made " << argv[1] << "\n";
    return 0;
}
