#include "DiskSet.h"

#include "Backends.h"
#include "ExtractedMft.h"

#include "Fat.h"
#include "PartitionTable.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <set>

namespace kestrow::platform {

namespace disk {

namespace {

std::mutex g_mutex;
std::shared_ptr<const DiskSet> g_current;

constexpr char kFirstLetter = 'C';
constexpr char kLastLetter = 'Z';

#if defined(_WIN32)
constexpr char kPathSeparator = ';';
#else
constexpr char kPathSeparator = ':';
#endif

// Mounts what is on [offset, offset + length) of `disk`, if its first
// sector is a boot sector we know.
std::shared_ptr<AttachedVolume> recogniseVolume(const std::shared_ptr<const AttachedDisk>& disk,
                                                std::uint32_t partition, std::uint64_t offset,
                                                std::uint64_t length) {
    std::vector<std::uint8_t> sector(512);
    if (disk->bytes->readExactly(offset, sector.data(), sector.size()) != 0)
        return nullptr;
    const auto boot = parseBootSector(sector.data(), sector.size());
    if (!boot)
        return nullptr;
    auto volume = std::make_shared<AttachedVolume>();
    volume->disk = disk;
    volume->boot = *boot;
    volume->bytes = std::make_shared<SliceSource>(disk->bytes, offset, length);
    volume->info.diskNumber = disk->info.number;
    volume->info.partition = partition;
    volume->info.offset = offset;
    volume->info.length = length;
    volume->info.fileSystem = fileSystemName(boot->kind);
    if (boot->kind == FileSystemKind::Ntfs)
        volume->ntfs = NtfsVolume::mount(volume->bytes, *boot, volume->mountError);
    else
        volume->label = fatVolumeLabel(*volume->bytes, *boot);
    return volume;
}

} // namespace

std::shared_ptr<const AttachedVolume> DiskSet::volumeByLetter(char letter) const {
    const char upper = static_cast<char>(std::toupper(static_cast<unsigned char>(letter)));
    for (const auto& volume : volumes) {
        if (volume->info.letter != 0 && volume->info.letter == upper)
            return volume;
    }
    return nullptr;
}

std::shared_ptr<const AttachedDisk> DiskSet::diskByNumber(std::uint32_t number) const {
    return number < disks.size() ? disks[number] : nullptr;
}

bool buildDiskSet(const std::vector<std::shared_ptr<const ByteSource>>& sources,
                  const std::vector<std::string>& paths,
                  const std::vector<std::uint32_t>& deviceSectorSizes,
                  const std::vector<PinnedLetter>& pinned, DiskSet& set, std::string& error) {
    std::vector<std::shared_ptr<AttachedVolume>> found;
    for (std::size_t i = 0; i < sources.size(); ++i) {
        auto disk = std::make_shared<AttachedDisk>();
        disk->bytes = sources[i];
        disk->info.number = static_cast<std::uint32_t>(i);
        disk->info.path = i < paths.size() ? paths[i] : std::string();
        disk->info.size = sources[i]->size();
        if (startsWithFileRecord(*sources[i])) {
            if (auto volume = attachExtractedMft(*disk)) {
                volume->disk = disk;
                found.push_back(volume);
            }
            set.disks.push_back(disk);
            continue;
        }
        const std::uint32_t deviceSize = i < deviceSectorSizes.size() ? deviceSectorSizes[i] : 0;
        disk->info.bytesPerSector = deviceSize != 0 ? deviceSize : detectSectorSize(*sources[i]);
        const PartitionTable table = readPartitionTable(*sources[i], disk->info.bytesPerSector);
        disk->info.partitionTable = table.kind;
        set.disks.push_back(disk);

        if (table.kind == "none") {
            if (auto volume = recogniseVolume(disk, 0, 0, disk->info.size))
                found.push_back(volume);
            continue;
        }
        for (const PartitionEntry& entry : table.entries) {
            if (auto volume = recogniseVolume(disk, entry.number, entry.offset, entry.length))
                found.push_back(volume);
        }
    }

    std::set<char> taken;
    for (const PinnedLetter& pin : pinned) {
        const char letter = static_cast<char>(std::toupper(static_cast<unsigned char>(pin.letter)));
        if (letter < 'A' || letter > 'Z' || !taken.insert(letter).second) {
            error = std::string("drive letter ") + pin.letter + ": is invalid or pinned twice";
            return false;
        }
        bool matched = false;
        for (auto& volume : found) {
            if (volume->info.diskNumber == pin.diskNumber &&
                volume->info.partition == pin.partition && volume->info.letter == 0) {
                volume->info.letter = letter;
                matched = true;
                break;
            }
        }
        if (!matched) {
            error = std::string("drive letter ") + letter + ": is pinned to disk " +
                    std::to_string(pin.diskNumber) + " partition " + std::to_string(pin.partition) +
                    ", which holds no recognised volume";
            return false;
        }
    }
    char next = kFirstLetter;
    for (auto& volume : found) {
        if (volume->info.letter != 0)
            continue;
        while (next <= kLastLetter && taken.count(next) != 0)
            ++next;
        if (next > kLastLetter)
            break; // out of letters: the volume stays reachable only by disk
        volume->info.letter = next;
        taken.insert(next);
    }
    set.volumes.assign(found.begin(), found.end());
    return true;
}

std::shared_ptr<const DiskSet> currentDiskSet() {
    std::lock_guard<std::mutex> lock(g_mutex);
    if (!g_current)
        g_current = std::make_shared<DiskSet>();
    return g_current;
}

namespace {

bool attachLocked(const std::vector<std::string>& paths, const std::vector<PinnedLetter>& pinned,
                  std::string& error) {
    std::vector<std::shared_ptr<const ByteSource>> sources;
    std::vector<std::uint32_t> sectorSizes;
    for (const std::string& path : paths) {
        auto file = HostFile::open(path, error);
        if (!file)
            return false;
        sectorSizes.push_back(file->deviceSectorSize());
        sources.push_back(std::move(file));
    }
    auto set = std::make_shared<DiskSet>();
    if (!buildDiskSet(sources, paths, sectorSizes, pinned, *set, error))
        return false;
    g_current = std::move(set);
    return true;
}

std::vector<std::string> splitList(const std::string& text) {
    std::vector<std::string> parts;
    std::string part;
    for (char c : text) {
        if (c == kPathSeparator) {
            if (!part.empty())
                parts.push_back(part);
            part.clear();
        } else {
            part.push_back(c);
        }
    }
    if (!part.empty())
        parts.push_back(part);
    return parts;
}

} // namespace

} // namespace disk

bool attachDisks(const std::vector<std::string>& paths, const std::vector<PinnedLetter>& pinned,
                 std::string& error) {
    std::lock_guard<std::mutex> lock(disk::g_mutex);
    return disk::attachLocked(paths, pinned, error);
}

bool attachDisks(const std::vector<std::string>& paths, std::string& error) {
    return attachDisks(paths, {}, error);
}

bool attachDisksFromEnvironment(std::string& error) {
    std::lock_guard<std::mutex> lock(disk::g_mutex);
    if (disk::g_current && !disk::g_current->disks.empty())
        return true;
    const char* value = std::getenv("KESTROW_DISKS");
    if (value == nullptr || *value == '\0')
        return true;
    return disk::attachLocked(disk::splitList(value), {}, error);
}

void attachDisksFromEnvironmentOnce() {
    // The first platform call of the process reads the variable; a host that
    // attaches disks itself before that call is not overridden.
    static const bool done = [] {
        std::string error;
        if (!attachDisksFromEnvironment(error))
            std::fprintf(stderr, "kestrow: KESTROW_DISKS: %s\n", error.c_str());
        return true;
    }();
    (void)done;
}

bool disksAttached() {
    return !disk::currentDiskSet()->disks.empty();
}

std::vector<DiskInfo> attachedDisks() {
    std::vector<DiskInfo> result;
    for (const auto& attached : disk::currentDiskSet()->disks)
        result.push_back(attached->info);
    return result;
}

std::vector<VolumeInfo> attachedVolumes() {
    std::vector<VolumeInfo> result;
    for (const auto& volume : disk::currentDiskSet()->volumes)
        result.push_back(volume->info);
    return result;
}

} // namespace kestrow::platform
