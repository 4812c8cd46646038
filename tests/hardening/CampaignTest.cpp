// The corruption campaign: private copies of the fixture images damaged in
// every way a disk can be (random bytes over MFT records, INDX blocks, the
// boot sector, the partition table and $Bitmap; truncated images; parent
// references that loop; attribute lengths of 0 or past the record; attribute
// lists that name their own record; run lists outside the volume), and every
// kestrow command run on each. Each run must end within its time bound, with
// status 0 and nothing on stderr, or with status 1 or 2 and one line
// "kestrow: ..."; never a signal, a sanitizer report or more memory than the
// bound. Without AddressSanitizer each run also gets a 1 GiB address space.
//
// The default run is a small share (KESTROW_CAMPAIGN_MUTANTS per kind, 3
// unless set). The full campaign: KESTROW_CAMPAIGN_MUTANTS=300, with
// KESTROW_CAMPAIGN_JOBS=N runs in parallel and KESTROW_CAMPAIGN_SEED for
// another sample. A failure names its kind, image, mutant number and seed;
// KESTROW_CAMPAIGN_MUTANT=n makes that one mutant again, and
// KESTROW_CAMPAIGN_KEEP=DIR keeps the damaged image of every failure there.
// KESTROW_CAMPAIGN_REPORT=FILE appends each kind's figures to FILE.
#include "Corruptions.h"
#include "ImageMap.h"
#include "ToolRun.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace kestrow::test::hardening {
namespace {

namespace fs = std::filesystem;

constexpr std::uint64_t kDefaultSeed = 0x4B45535452415348ull; // "KESTRASH"
constexpr unsigned kDefaultMutantsPerKind = 3;
constexpr std::uint64_t MiB = 1024 * 1024;

// What one kestrow run may use. The images are at most 64 MiB; the record
// buffer is at most the MFT's largest run.
constexpr std::uint64_t kAddressSpace = 1024 * MiB;
std::uint64_t rssLimitKiB() {
    return (underAddressSanitizer() ? 512 * MiB : 256 * MiB) / 1024;
}

std::uint64_t environmentNumber(const char* name, std::uint64_t fallback) {
    const char* text = std::getenv(name);
    if (text == nullptr || *text == '\0')
        return fallback;
    return std::strtoull(text, nullptr, 0);
}

std::uint64_t mix(std::uint64_t x) {
    x += 0x9E3779B97F4A7C15ull;
    x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
    x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
    return x ^ (x >> 31);
}

std::string joined(const std::vector<std::string>& words) {
    std::string text;
    for (const std::string& word : words)
        text += (text.empty() ? "" : " ") + word;
    return text;
}

// Every command of kestrow, aimed at what the undamaged image holds.
std::vector<std::vector<std::string>> commandsFor(const ImageMap& map, Random& random) {
    const std::string c = "C:";
    auto number = [](std::uint64_t n) { return std::to_string(n); };
    std::uint64_t directory = 5;
    for (const char* name : {"Big", "Indexed", "Docs"})
        if (const auto record = map.record(name)) {
            directory = *record;
            break;
        }
    const std::uint64_t anyRecord =
        map.inUseRecords().empty() ? 1 : random.pick(map.inUseRecords());
    const std::uint64_t cluster = map.reportCluster().value_or(random.below(map.totalClusters()));
    const std::string file = map.record("Docs/report.bin") ? "\\Docs\\report.bin" : "\\$MFT";
    const std::string lsTarget = map.record("Docs") ? "Docs" : number(directory);
    const std::uint64_t sectors = map.imageSize() / map.sectorSize();

    std::vector<std::vector<std::string>> commands = {
        {"volumes"},
        {"info", c},
        {"record", c, "0"},
        {"record", c, number(directory)},
        {"record", c, number(anyRecord)},
        {"ls", c, "\\"},
        {"ls", c, lsTarget},
        {"paths", c},
        {"timeline", c},
        {"timeline", c, random.chance(50) ? "--csv" : "--jsonl"},
        {"record", c, number(anyRecord), "--all"},
        {"find", c, file},
        {"owner", c, number(map.mftClusters().front())},
        {"owner", c, number(cluster)},
        {"extents", c, file},
        {"extents", c, "\\$MFT"},
        {"dump", c, "0"},
        {"dump", "--drive", "0", number(random.below(sectors)), "4"},
        {"bitmap", c},
    };
    for (auto& command : commands)
        if (random.chance(30))
            command.push_back("--json");
    return commands;
}

struct KindFigures {
    unsigned mutants = 0;
    unsigned runs = 0;
    std::map<std::string, unsigned> outcomes; // "exit 0" ...
    double slowest = 0;
    std::string slowestCommand;
    std::uint64_t peakRssKiB = 0;
    std::vector<std::string> failures;
};

// The reasons a run is not acceptable; empty when it is.
std::string judge(const ChildRun& run) {
    if (run.timedOut)
        return "did not finish in time (" + run.outcome() + ")";
    if (run.signal != 0)
        return "ended by " + run.outcome();
    if (run.exitCode < 0 || run.exitCode > 2)
        return "unexpected " + run.outcome();
    for (const char* marker : {"Sanitizer", "runtime error", "ERROR:"})
        if (run.err.find(marker) != std::string::npos)
            return "sanitizer report";
    if (run.maxRssKiB > rssLimitKiB())
        return "peak memory " + std::to_string(run.maxRssKiB / 1024) + " MiB";
    if (run.exitCode == 0) {
        if (!run.err.empty())
            return "exit 0 with text on stderr";
        return {};
    }
    const bool oneLine = run.err.size() > 10 && run.err.rfind("kestrow: ", 0) == 0 &&
                         run.err.back() == '\n' &&
                         std::count(run.err.begin(), run.err.end(), '\n') == 1;
    if (!oneLine)
        return run.outcome() + " without a one-line message";
    return {};
}

class Campaign : public ::testing::TestWithParam<Corruption> {};

TEST_P(Campaign, EveryCommandEndsCleanly) {
    const Corruption kind = GetParam();
    const std::uint64_t seed = environmentNumber("KESTROW_CAMPAIGN_SEED", kDefaultSeed);
    const unsigned perKind = static_cast<unsigned>(
        environmentNumber("KESTROW_CAMPAIGN_MUTANTS", kDefaultMutantsPerKind));
    const unsigned jobs =
        std::max(1u, static_cast<unsigned>(environmentNumber("KESTROW_CAMPAIGN_JOBS", 1)));
    const char* only = std::getenv("KESTROW_CAMPAIGN_MUTANT");
    const char* keep = std::getenv("KESTROW_CAMPAIGN_KEEP");

    std::vector<unsigned> mutants;
    if (only != nullptr && *only != '\0')
        mutants.push_back(static_cast<unsigned>(std::strtoul(only, nullptr, 0)));
    else
        for (unsigned n = 0; n < perKind; ++n)
            mutants.push_back(n);

    const auto images = imagesFor(kind);
    auto seedOf = [&](unsigned number) {
        return mix(seed ^ (std::uint64_t{static_cast<unsigned>(kind)} << 40) ^ number);
    };
    // The maps of the images the mutants use first, one at a time: they ask
    // The Sleuth Kit. A mutant's first draw picks its image.
    for (unsigned number : mutants) {
        Random random(seedOf(number));
        ImageMap::of(random.pick(images));
    }

    ChildLimits limits;
    limits.timeout = commandTimeout();
    limits.addressSpaceBytes = underAddressSanitizer() ? 0 : kAddressSpace;
    limits.keptOutputBytes = 4096;

    KindFigures figures;
    std::mutex mutex;
    std::atomic<std::size_t> next{0};
    auto worker = [&] {
        for (std::size_t i = next++; i < mutants.size(); i = next++) {
            const unsigned number = mutants[i];
            Random random(seedOf(number));
            const FixtureImage image = random.pick(images);
            const ImageMap& map = ImageMap::of(image);
            std::string description;
            std::vector<std::pair<std::string, ChildRun>> runs;
            std::string setupError;
            try {
                ScratchImage scratch(map.path());
                description = corrupt(kind, map, scratch, random);
                for (const auto& command : commandsFor(map, random)) {
                    std::vector<std::string> argv = {KESTROW_TOOL_PATH, "--disk",
                                                     scratch.path().string()};
                    argv.insert(argv.end(), command.begin(), command.end());
                    runs.emplace_back(joined(command), runChild(argv, limits));
                }
                std::lock_guard<std::mutex> lock(mutex);
                for (const auto& [command, run] : runs) {
                    const std::string verdict = judge(run);
                    if (!verdict.empty() && keep != nullptr && *keep != '\0') {
                        std::error_code ignored;
                        fs::create_directories(keep, ignored);
                        fs::copy_file(scratch.path(),
                                      fs::path(keep) / (std::string(nameOf(kind)) + "-" +
                                                        std::to_string(number) + ".img"),
                                      fs::copy_options::overwrite_existing, ignored);
                    }
                }
            } catch (const std::exception& error) {
                setupError = error.what();
            }

            std::lock_guard<std::mutex> lock(mutex);
            ++figures.mutants;
            const std::string where =
                std::string(nameOf(kind)) + " mutant " + std::to_string(number) + " of " +
                std::string(map.facts().fileName) + " (seed " + std::to_string(seed) + ")";
            if (!setupError.empty()) {
                figures.failures.push_back(where + ": could not be made: " + setupError);
                continue;
            }
            for (const auto& [command, run] : runs) {
                ++figures.runs;
                ++figures.outcomes[run.outcome().substr(0, run.timedOut ? 6 : std::string::npos)];
                if (run.seconds > figures.slowest) {
                    figures.slowest = run.seconds;
                    figures.slowestCommand = where + ": " + command;
                }
                figures.peakRssKiB = std::max(figures.peakRssKiB, run.maxRssKiB);
                const std::string verdict = judge(run);
                if (verdict.empty())
                    continue;
                figures.failures.push_back(where + ": kestrow " + command + ": " + verdict +
                                           "\n  damage:\n    " + description + "  stderr (" +
                                           std::to_string(run.err.size()) +
                                           " bytes): " + run.err.substr(0, 3000));
            }
        }
    };
    std::vector<std::thread> threads;
    for (unsigned j = 1; j < jobs; ++j)
        threads.emplace_back(worker);
    worker();
    for (auto& thread : threads)
        thread.join();

    std::ostringstream summary;
    summary << nameOf(kind) << ": " << figures.mutants << " mutants, " << figures.runs << " runs;";
    for (const auto& [outcome, count] : figures.outcomes)
        summary << " " << outcome << ": " << count << ";";
    summary << " slowest " << figures.slowest << " s (" << figures.slowestCommand << ");"
            << " peak RSS " << figures.peakRssKiB / 1024 << " MiB; failures "
            << figures.failures.size() << "\n";
    std::cout << summary.str();
    if (const char* report = std::getenv("KESTROW_CAMPAIGN_REPORT"); report && *report) {
        std::ofstream out(report, std::ios::app);
        out << summary.str();
        for (const std::string& failure : figures.failures)
            out << "  FAIL " << failure << "\n";
    }
    EXPECT_EQ(figures.mutants, mutants.size());
    for (std::size_t i = 0; i < figures.failures.size() && i < 20; ++i)
        ADD_FAILURE() << figures.failures[i];
    EXPECT_TRUE(figures.failures.empty()) << figures.failures.size() << " failed runs";
}

INSTANTIATE_TEST_SUITE_P(Corruptions, Campaign,
                         ::testing::ValuesIn(allCorruptions().begin(), allCorruptions().end()),
                         [](const ::testing::TestParamInfo<Corruption>& info) {
                             return std::string(nameOf(info.param));
                         });

} // namespace
} // namespace kestrow::test::hardening
