// A "realistic tree" volume for the benchmarks: many directories of very
// different sizes (most small, some with thousands of entries), some deep
// paths, names of varied length and script. The same file count always gives
// the same tree (a fixed random seed).
#include "ImageBuilder.h"

#include "NtfsLibrary.h"
#include "Fixtures.h"

#include <algorithm>
#include <chrono>
#include <iostream>
#include <random>
#include <stdexcept>

namespace kestrow::images {

namespace {

struct TreeDirectory {
    std::size_t parent = 0; // index into the directory list; the root is its own parent
    int depth = 0;
    std::u16string name;
    std::uint64_t files = 0;
    std::uint64_t reference = 0;
    std::vector<std::size_t> children;
};

constexpr int kMaxRandomDepth = 14;
constexpr int kDeepChainLevels = 40;

const char* const kStems[] = {"report",   "IMG",   "invoice", "setup",   "data",  "notes", "backup",
                              "Document", "thumb", "config",  "libcore", "track", "scan",  "Budget",
                              "readme",   "x",     "archive", "draft",   "model", "résumé"};
const char* const kExtensions[] = {".txt", ".jpg", ".dll",  ".pdf", ".log", ".xml",
                                   ".dat", "",     ".json", ".png", ".exe", ".docx"};
const char* const kDirStems[] = {"Users", "Photos",  "Projects", "src",  "bin",
                                 "cache", "2023",    "Music",    "Temp", "Windows",
                                 "Logs",  "Données", "модули",   "資料"};

std::u16string makeName(std::mt19937_64& random, const char* const* stems, std::size_t stemCount,
                        const char* suffix, std::uint64_t serial) {
    std::string name = stems[random() % stemCount];
    // Every fifth name is long, to give the index entries varied sizes.
    if (random() % 5 == 0)
        name += " with a rather longer descriptive part";
    name += '_';
    name += std::to_string(serial);
    name += suffix;
    return kestrow::test::utf8ToUtf16(name);
}

std::vector<TreeDirectory> planTree(std::uint64_t fileCount, std::mt19937_64& random) {
    const std::size_t directoryCount = std::max<std::uint64_t>(8, fileCount / 16);
    std::vector<TreeDirectory> dirs(1); // the root
    std::uint64_t serial = 0;
    auto addDirectory = [&](std::size_t parent) {
        TreeDirectory dir;
        dir.parent = parent;
        dir.depth = dirs[parent].depth + 1;
        dir.name = makeName(random, kDirStems, std::size(kDirStems), "", serial++);
        dirs[parent].children.push_back(dirs.size());
        dirs.push_back(std::move(dir));
    };
    // One deliberately deep chain.
    for (int level = 0; level < kDeepChainLevels; ++level)
        addDirectory(level == 0 ? 0 : dirs.size() - 1);
    while (dirs.size() < directoryCount) {
        // Mostly below a recent directory, which makes paths deep; sometimes
        // anywhere, which makes the tree wide.
        std::size_t parent =
            random() % 10 < 7 ? dirs.size() - 1 - random() % std::min<std::size_t>(dirs.size(), 40)
                              : random() % dirs.size();
        if (dirs[parent].depth >= kMaxRandomDepth)
            parent = 0;
        addDirectory(parent);
    }
    // Files: a few huge directories, then a heavy-tailed spread over the rest.
    std::uint64_t left = fileCount;
    for (int huge = 0; huge < 3 && left > 0; ++huge) {
        const std::uint64_t share = std::min(left, fileCount / 40);
        dirs[1 + random() % (dirs.size() - 1)].files += share;
        left -= share;
    }
    std::vector<double> weights(dirs.size());
    std::exponential_distribution<double> spread(1.0);
    for (auto& weight : weights) {
        const double e = spread(random);
        weight = e * e * e; // most directories small, some large
    }
    std::discrete_distribution<std::size_t> pick(weights.begin(), weights.end());
    for (; left > 0; --left)
        dirs[pick(random)].files++;
    return dirs;
}

std::uint64_t volumeSizeFor(std::uint64_t fileCount) {
    // A file record, its index entry (in half-full INDX blocks) and room to spare.
    const std::uint64_t perFile = 1024 + 2 * 160;
    const std::uint64_t bytes = 64 * 1024 * 1024 + fileCount * perFile * 3 / 2;
    return (bytes + (1 << 20) - 1) & ~std::uint64_t((1 << 20) - 1);
}

} // namespace

void buildTreeImage(const std::filesystem::path& image, std::uint64_t fileCount) {
    const auto started = std::chrono::steady_clock::now();
    std::mt19937_64 random(0x4B455354524F57ull ^ fileCount);
    auto dirs = planTree(fileCount, random);

    const auto building = image.string() + ".building";
    NtfsFormat format;
    format.size = volumeSizeFor(fileCount);
    format.label = "KESTROW_TREE";
    formatNtfs(building, format);

    NtfsWriter writer(building);
    dirs[0].reference = MK_MREF(FILE_root, FILE_root);
    std::uint64_t serial = 0;
    std::uint64_t withContent = 0;
    // Directories are made in plan order, so a parent always exists before
    // its children; each is opened once and gets all its entries.
    for (std::size_t index = 0; index < dirs.size(); ++index) {
        ntfs_inode* dir = writer.openInode(dirs[index].reference);
        for (std::size_t child : dirs[index].children)
            dirs[child].reference = writer.createIn(dir, dirs[child].name, true);
        for (std::uint64_t f = 0; f < dirs[index].files; ++f) {
            const auto name = makeName(random, kStems, std::size(kStems),
                                       kExtensions[random() % std::size(kExtensions)], serial++);
            // One file in 16 gets a little resident content.
            std::string text;
            if (random() % 16 == 0) {
                text = "content " + std::to_string(serial) + "\n";
                ++withContent;
            }
            writer.createIn(dir, name, false,
                            {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()});
        }
        if (ntfs_inode_close(dir) != 0)
            throw std::runtime_error("cannot close a directory of the tree image");
    }
    writer.close();
    std::filesystem::rename(building, image);

    const auto seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started);
    std::cout << "built " << image.string() << ": " << fileCount << " files (" << withContent
              << " with content) in " << dirs.size() << " directories, " << format.size
              << " bytes, " << seconds.count() << " s\n";
}

} // namespace kestrow::images
