#include "Fixtures.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <ostream>
#include <random>
#include <stdexcept>

#ifndef KESTROW_FIXTURE_DIR
#define KESTROW_FIXTURE_DIR "fixtures"
#endif

namespace kestrow::test {

namespace {

constexpr std::uint64_t MiB = 1024 * 1024;

constexpr std::array<ImageFacts, 8> kImages = {{
    {FixtureImage::Bare, "bare.img", "KESTROW_BARE", 512, 4096, 1024, 4096, 0, 8 * MiB, 8 * MiB,
     false, false, false, false},
    {FixtureImage::MbrDisk, "disk-mbr.img", "KESTROW_MBR", 512, 4096, 1024, 4096,
     kMbrNtfsStartSector * 512, kMbrNtfsSectors * 512, 64 * MiB, true, true, false, false},
    {FixtureImage::GptDisk, "disk-gpt.img", "KESTROW_GPT", 512, 4096, 1024, 4096,
     kGptNtfsStartSector * 512, kGptNtfsSectors * 512, 40 * MiB, true, true, false, false},
    {FixtureImage::Sector4k, "sector4k.img", "KESTROW_4KN", 4096, 4096, 4096, 4096, 0, 16 * MiB,
     16 * MiB, false, true, true, true},
    {FixtureImage::Cluster512, "cluster512.img", "KESTROW_C512", 512, 512, 1024, 4096, 0, 16 * MiB,
     16 * MiB, false, true, true, false},
    {FixtureImage::Cluster64k, "cluster64k.img", "KESTROW_C64K", 512, 65536, 1024, 4096, 0,
     32 * MiB, 32 * MiB, false, true, true, false},
    {FixtureImage::LegacyMbrDisk, "disk-legacy.img", "KESTROW_LEGACY", 512, 4096, 1024, 4096,
     kLegacyNtfsStartSector * 512, 32 * MiB - kLegacyNtfsStartSector * 512, 32 * MiB, true, true,
     true, true},
    {FixtureImage::Rich, "rich.img", "KESTROW_RICH", 512, 4096, 1024, 4096, 0, 48 * MiB, 48 * MiB,
     false, true, false, false},
}};

std::string numbered(std::string_view prefix, int i, int width, std::string_view suffix) {
    char digits[16];
    std::snprintf(digits, sizeof digits, "%0*d", width, i);
    std::string result(prefix);
    result += digits;
    result += suffix;
    return result;
}

std::uint64_t splitMix64(std::uint64_t x) {
    x += 0x9E3779B97F4A7C15ull;
    x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
    x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
    return x ^ (x >> 31);
}

// Appends the code point as UTF-8.
void appendUtf8(std::string& out, char32_t cp) {
    if (cp < 0x80) {
        out += static_cast<char>(cp);
    } else if (cp < 0x800) {
        out += static_cast<char>(0xC0 | (cp >> 6));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
        out += static_cast<char>(0xE0 | (cp >> 12));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (cp >> 18));
        out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    }
}

std::filesystem::path uniqueScratchDirectory() {
    static std::atomic<unsigned> counter{0};
    std::random_device entropy;
    const auto base = std::filesystem::temp_directory_path();
    for (int attempt = 0; attempt < 100; ++attempt) {
        const auto name =
            "kestrow-scratch-" + std::to_string(entropy()) + "-" + std::to_string(counter++);
        const auto candidate = base / name;
        if (std::filesystem::create_directory(candidate))
            return candidate;
    }
    throw std::runtime_error("cannot create a scratch directory in " + base.string());
}

// Copies `count` bytes at `offset` of `from` (to its end at most) to `to`,
// leaving all-zero blocks as holes so that copies of mostly empty images stay
// cheap.
void copySparse(const std::filesystem::path& from, const std::filesystem::path& to,
                std::uint64_t offset, std::uint64_t count) {
    std::ifstream in(from, std::ios::binary);
    if (!in)
        throw std::runtime_error("cannot open " + from.string());
    std::ofstream out(to, std::ios::binary | std::ios::trunc);
    if (!out)
        throw std::runtime_error("cannot create " + to.string());
    in.seekg(static_cast<std::streamoff>(offset));
    std::vector<char> block(64 * 1024);
    std::uint64_t position = 0;
    while (in && position < count) {
        const auto want = std::min<std::uint64_t>(block.size(), count - position);
        in.read(block.data(), static_cast<std::streamsize>(want));
        const auto got = static_cast<std::size_t>(in.gcount());
        if (got == 0)
            break;
        bool allZero = true;
        for (std::size_t i = 0; i < got && allZero; ++i)
            allZero = block[i] == 0;
        if (!allZero) {
            out.seekp(static_cast<std::streamoff>(position));
            out.write(block.data(), static_cast<std::streamsize>(got));
        }
        position += got;
    }
    out.close();
    if (!out)
        throw std::runtime_error("cannot write " + to.string());
    std::filesystem::resize_file(to, position);
}

} // namespace

void PrintTo(const ImageFacts& facts, std::ostream* out) {
    *out << facts.fileName;
}

std::string testName(const ImageFacts& facts) {
    std::string name(facts.fileName.substr(0, facts.fileName.find('.')));
    std::erase_if(name, [](char c) { return !std::isalnum(static_cast<unsigned char>(c)); });
    return name;
}

std::span<const ImageFacts> allImages() {
    return kImages;
}

const ImageFacts& factsOf(FixtureImage image) {
    for (const auto& facts : kImages)
        if (facts.image == image)
            return facts;
    throw std::invalid_argument("unknown fixture image");
}

std::filesystem::path fixtureDir() {
    if (const char* fromEnvironment = std::getenv("KESTROW_FIXTURE_DIR");
        fromEnvironment && *fromEnvironment)
        return fromEnvironment;
    return KESTROW_FIXTURE_DIR;
}

std::filesystem::path imagePath(FixtureImage image) {
    return fixtureDir() / std::string(factsOf(image).fileName);
}

std::filesystem::path bareVolume() {
    return imagePath(FixtureImage::Bare);
}
std::filesystem::path mbrDisk() {
    return imagePath(FixtureImage::MbrDisk);
}
std::filesystem::path gptDisk() {
    return imagePath(FixtureImage::GptDisk);
}
std::filesystem::path sector4kVolume() {
    return imagePath(FixtureImage::Sector4k);
}
std::filesystem::path cluster512Volume() {
    return imagePath(FixtureImage::Cluster512);
}
std::filesystem::path cluster64kVolume() {
    return imagePath(FixtureImage::Cluster64k);
}
std::filesystem::path richVolume() {
    return imagePath(FixtureImage::Rich);
}

std::string indexedEntryName(int i) {
    return numbered("indexed-entry-with-a-long-name-", i, 4, ".dat");
}

std::string sweepName(int length) {
    std::string name = numbered("sweep-", length, 4, "-");
    name.resize(static_cast<std::size_t>(length), 'x');
    return name;
}

std::string sweepLinkName(int length) {
    std::string name = numbered("link-", length, 4, "-");
    name.resize(static_cast<std::size_t>(length), 'y');
    return name;
}

namespace rich {

std::string bigDirEntryName(int i) {
    return numbered("file-", i, 4, ".dat");
}

std::string hardLinkName(int i) {
    return numbered("Links/another-name-for-the-target-", i, 2, ".txt");
}

std::string streamName(int i) {
    return numbered("stream-", i, 2, "");
}

std::string streamContent(int i) {
    return numbered("content of stream ", i, 2, "\n");
}

std::string deepDirPath(int level) {
    std::string path = "Deep";
    for (int i = 1; i <= level; ++i)
        path += numbered("/level-", i, 2, "");
    return path;
}

std::string deepFilePath() {
    return deepDirPath(kDeepLevels) + "/" + std::string(kDeepFileName);
}

} // namespace rich

std::string windowsPath(std::string_view path) {
    std::string result(path);
    for (auto& c : result)
        if (c == '/')
            c = '\\';
    return result;
}

std::uint8_t patternByte(std::uint32_t seed, std::uint64_t offset) {
    const std::uint64_t word = splitMix64((std::uint64_t{seed} << 32) ^ (offset / 8));
    return static_cast<std::uint8_t>(word >> (8 * (offset % 8)));
}

std::vector<std::uint8_t> patternBytes(std::uint32_t seed, std::uint64_t offset,
                                       std::size_t count) {
    std::vector<std::uint8_t> bytes(count);
    for (std::size_t i = 0; i < count; ++i)
        bytes[i] = patternByte(seed, offset + i);
    return bytes;
}

std::u16string utf8ToUtf16(std::string_view text) {
    std::u16string result;
    std::size_t i = 0;
    auto continuation = [&](std::size_t at) -> char32_t {
        if (at >= text.size() || (static_cast<unsigned char>(text[at]) & 0xC0) != 0x80)
            throw std::invalid_argument("malformed UTF-8");
        return static_cast<unsigned char>(text[at]) & 0x3F;
    };
    while (i < text.size()) {
        const auto lead = static_cast<unsigned char>(text[i]);
        char32_t cp;
        if (lead < 0x80) {
            cp = lead;
            i += 1;
        } else if ((lead & 0xE0) == 0xC0) {
            cp = ((lead & 0x1F) << 6) | continuation(i + 1);
            i += 2;
        } else if ((lead & 0xF0) == 0xE0) {
            cp = ((lead & 0x0F) << 12) | (continuation(i + 1) << 6) | continuation(i + 2);
            i += 3;
        } else if ((lead & 0xF8) == 0xF0) {
            cp = ((lead & 0x07) << 18) | (continuation(i + 1) << 12) | (continuation(i + 2) << 6) |
                 continuation(i + 3);
            i += 4;
        } else {
            throw std::invalid_argument("malformed UTF-8");
        }
        if (cp >= 0x10000) {
            cp -= 0x10000;
            result += static_cast<char16_t>(0xD800 + (cp >> 10));
            result += static_cast<char16_t>(0xDC00 + (cp & 0x3FF));
        } else {
            result += static_cast<char16_t>(cp);
        }
    }
    return result;
}

std::string utf16ToUtf8(std::u16string_view text) {
    std::string result;
    for (std::size_t i = 0; i < text.size(); ++i) {
        char32_t cp = text[i];
        const bool highSurrogate = cp >= 0xD800 && cp < 0xDC00;
        if (highSurrogate && i + 1 < text.size() && text[i + 1] >= 0xDC00 && text[i + 1] < 0xE000) {
            cp = 0x10000 + ((cp - 0xD800) << 10) + (text[i + 1] - 0xDC00);
            ++i;
        } else if (cp >= 0xD800 && cp < 0xE000) {
            cp = 0xFFFD; // an unpaired surrogate has no UTF-8 form
        }
        appendUtf8(result, cp);
    }
    return result;
}

// ---- ScratchImage --------------------------------------------------------------

ScratchImage::ScratchImage(const std::filesystem::path& original, std::uint64_t offset,
                           std::uint64_t count) {
    if (!std::filesystem::is_regular_file(original))
        throw std::runtime_error("no image at " + original.string() +
                                 " (is the ntfs_images fixture built?)");
    m_directory = uniqueScratchDirectory();
    m_path = m_directory / original.filename();
    try {
        copySparse(original, m_path, offset, count);
    } catch (...) {
        release();
        throw;
    }
}

ScratchImage::~ScratchImage() {
    release();
}

ScratchImage::ScratchImage(ScratchImage&& other) noexcept
    : m_directory(std::move(other.m_directory)), m_path(std::move(other.m_path)) {
    other.m_directory.clear();
    other.m_path.clear();
}

ScratchImage& ScratchImage::operator=(ScratchImage&& other) noexcept {
    if (this != &other) {
        release();
        m_directory = std::move(other.m_directory);
        m_path = std::move(other.m_path);
        other.m_directory.clear();
        other.m_path.clear();
    }
    return *this;
}

void ScratchImage::release() noexcept {
    if (m_directory.empty())
        return;
    std::error_code ignored;
    std::filesystem::remove_all(m_directory, ignored);
    m_directory.clear();
    m_path.clear();
}

std::uint64_t ScratchImage::size() const {
    return std::filesystem::file_size(m_path);
}

void ScratchImage::patch(std::uint64_t offset, std::span<const std::uint8_t> bytes) {
    const std::uint64_t imageSize = size();
    if (offset > imageSize || bytes.size() > imageSize - offset)
        throw std::runtime_error("patch at " + std::to_string(offset) + " of " +
                                 std::to_string(bytes.size()) + " bytes leaves the " +
                                 std::to_string(imageSize) + "-byte image " + m_path.string());
    std::fstream file(m_path, std::ios::binary | std::ios::in | std::ios::out);
    if (!file)
        throw std::runtime_error("cannot open " + m_path.string());
    file.seekp(static_cast<std::streamoff>(offset));
    file.write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
    file.close();
    if (!file)
        throw std::runtime_error("cannot write " + m_path.string());
}

void ScratchImage::patchLe16(std::uint64_t offset, std::uint16_t value) {
    const std::uint8_t bytes[2] = {static_cast<std::uint8_t>(value),
                                   static_cast<std::uint8_t>(value >> 8)};
    patch(offset, bytes);
}

void ScratchImage::patchLe32(std::uint64_t offset, std::uint32_t value) {
    std::uint8_t bytes[4];
    for (int i = 0; i < 4; ++i)
        bytes[i] = static_cast<std::uint8_t>(value >> (8 * i));
    patch(offset, bytes);
}

void ScratchImage::patchLe64(std::uint64_t offset, std::uint64_t value) {
    std::uint8_t bytes[8];
    for (int i = 0; i < 8; ++i)
        bytes[i] = static_cast<std::uint8_t>(value >> (8 * i));
    patch(offset, bytes);
}

std::vector<std::uint8_t> ScratchImage::read(std::uint64_t offset, std::size_t count) const {
    return readFileBytes(m_path, offset, count);
}

std::vector<std::uint8_t> readFileBytes(const std::filesystem::path& file, std::uint64_t offset,
                                        std::size_t count) {
    std::ifstream in(file, std::ios::binary);
    if (!in)
        throw std::runtime_error("cannot open " + file.string());
    in.seekg(static_cast<std::streamoff>(offset));
    std::vector<std::uint8_t> bytes(count);
    in.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(count));
    if (static_cast<std::size_t>(in.gcount()) != count)
        throw std::runtime_error("short read of " + std::to_string(count) + " bytes at " +
                                 std::to_string(offset) + " in " + file.string());
    return bytes;
}

namespace {

std::uint32_t le16At(std::span<const std::uint8_t> bytes, std::size_t at) {
    if (at + 2 > bytes.size())
        throw std::runtime_error("record field at " + std::to_string(at) + " leaves the record");
    return bytes[at] | (std::uint32_t{bytes[at + 1]} << 8);
}

std::uint32_t le32At(std::span<const std::uint8_t> bytes, std::size_t at) {
    return le16At(bytes, at) | (le16At(bytes, at + 2) << 16);
}

constexpr std::uint32_t kFileNameType = 0x30;
constexpr std::uint32_t kEndMarker = 0xFFFFFFFF;

} // namespace

std::optional<std::vector<std::uint8_t>> applyFixups(std::span<const std::uint8_t> raw) {
    constexpr std::size_t STRIDE = 512;
    if (raw.size() < 0x30)
        return std::nullopt;
    const std::size_t usaOffset = le16At(raw, 4);
    const std::size_t usaCount = le16At(raw, 6);
    if (usaCount == 0 || usaOffset + 2 * usaCount > raw.size() ||
        (usaCount - 1) * STRIDE > raw.size())
        return std::nullopt;
    std::vector<std::uint8_t> fixed(raw.begin(), raw.end());
    for (std::size_t i = 1; i < usaCount; ++i) {
        const std::size_t at = i * STRIDE - 2;
        if (fixed[at] != raw[usaOffset] || fixed[at + 1] != raw[usaOffset + 1])
            return std::nullopt;
        fixed[at] = raw[usaOffset + 2 * i];
        fixed[at + 1] = raw[usaOffset + 2 * i + 1];
    }
    return fixed;
}

std::vector<RawAttribute> rawAttributes(std::span<const std::uint8_t> record) {
    if (record.size() < 0x30 || record[0] != 'F' || record[1] != 'I' || record[2] != 'L' ||
        record[3] != 'E')
        throw std::runtime_error("not a FILE record");
    std::vector<RawAttribute> attributes;
    std::size_t offset = le16At(record, 0x14); // first attribute
    // A record holds at most record.size() / 24 attributes: a bound on the walk
    // even if lengths were damaged.
    while (attributes.size() <= record.size() / 24) {
        const std::uint32_t type = le32At(record, offset);
        if (type == kEndMarker)
            return attributes;
        RawAttribute attribute;
        attribute.type = type;
        attribute.offset = static_cast<std::uint32_t>(offset);
        attribute.length = le32At(record, offset + 4);
        if (attribute.length < 24 || offset + attribute.length > record.size())
            throw std::runtime_error("attribute at " + std::to_string(offset) +
                                     " has a bad length " + std::to_string(attribute.length));
        attribute.resident = record[offset + 8] == 0;
        if (attribute.resident) {
            attribute.valueLength = le32At(record, offset + 0x10);
            attribute.valueOffset =
                static_cast<std::uint32_t>(offset) + le16At(record, offset + 0x14);
            if (attribute.valueOffset + std::uint64_t{attribute.valueLength} >
                offset + attribute.length)
                throw std::runtime_error("value of the attribute at " + std::to_string(offset) +
                                         " leaves it");
        }
        attributes.push_back(attribute);
        offset += attribute.length;
    }
    throw std::runtime_error("no end marker among the attributes");
}

int patchFileNameParents(ScratchImage& image, std::uint64_t recordOffset,
                         std::uint32_t bytesPerRecord, std::uint64_t parentReference) {
    const auto record = image.read(recordOffset, bytesPerRecord);
    int patched = 0;
    for (const auto& attribute : rawAttributes(record)) {
        if (attribute.type != kFileNameType || !attribute.resident || attribute.valueLength < 8)
            continue;
        // The parent reference is the first field of a $FILE_NAME value.
        image.patchLe64(recordOffset + attribute.valueOffset, parentReference);
        ++patched;
    }
    return patched;
}

} // namespace kestrow::test
