#include "FieldDisk.h"

#include "Oracle.h"

#include <cstdlib>
#include <random>

namespace kestrow::test {

namespace {

constexpr const char* ARCHIVE = "vss_3_volstor.tar.gz";
constexpr const char* IMAGE = "vss_3_volstor.raw";

std::filesystem::path archiveDirectory() {
    if (const char* fromEnvironment = std::getenv("KESTROW_FIELD_DIR");
        fromEnvironment != nullptr && *fromEnvironment != '\0')
        return fromEnvironment;
    return KESTROW_FIELD_DIR;
}

struct Extracted {
    std::optional<std::filesystem::path> image;
    std::string absence;
};

Extracted extract() {
    // Absolute paths: under Wine they come out with a drive letter, which the
    // tool runner turns into the Unix path that tar and The Sleuth Kit open.
    std::error_code error;
    const std::filesystem::path archive =
        std::filesystem::absolute(archiveDirectory() / ARCHIVE, error);
    const std::filesystem::path directory =
        std::filesystem::absolute(KESTROW_FIELD_EXTRACT_DIR, error);
    const std::filesystem::path image = directory / IMAGE;
    if (!std::filesystem::exists(archive, error))
        return {std::nullopt, "needs: the disk written by Windows, " + archive.string() +
                                  " (KESTROW_FIELD_DIR names the directory that holds it)"};
    // Extracted once per build tree; a half-extracted image never keeps its name.
    if (!std::filesystem::exists(image, error)) {
        // Test programs may run side by side: each extracts into its own place.
        const std::filesystem::path partial =
            directory / ("partial-" + std::to_string(std::random_device{}()));
        std::filesystem::remove_all(partial, error);
        std::filesystem::create_directories(partial, error);
        const oracle::ToolOutput tar =
            oracle::runTool({"tar", "-xzf", archive.string(), "-C", partial.string(), IMAGE});
        if (tar.exitCode != 0)
            return {std::nullopt, "needs: tar to extract " + archive.string() + ": " + tar.err};
        // Windows refuses to rename onto a file: another test program that
        // finished its extraction first has put the same image there.
        std::filesystem::rename(partial / IMAGE, image, error);
        if (error && !std::filesystem::exists(image))
            return {std::nullopt, "needs: room to extract the disk to " + image.string()};
        std::filesystem::remove_all(partial, error);
    }
    return {image, {}};
}

const Extracted& extracted() {
    static const Extracted result = extract();
    return result;
}

} // namespace

std::optional<std::filesystem::path> fieldDisk() {
    return extracted().image;
}

std::string fieldDiskAbsence() {
    return extracted().absence;
}

} // namespace kestrow::test
