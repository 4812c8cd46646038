#include "ImageBuilder.h"

#include "NtfsLibrary.h"
#include "Fixtures.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <sys/stat.h>

namespace kestrow::images {

namespace {

[[noreturn]] void fail(std::string_view what, std::string_view path) {
    const int error = errno;
    throw std::runtime_error(std::string(what) + " failed for \"" + std::string(path) +
                             "\": " + std::strerror(error));
}

std::vector<ntfschar> toNtfsName(std::u16string_view name) {
    if (name.empty() || name.size() > 255)
        throw std::invalid_argument("an NTFS name has 1 to 255 UTF-16 code units");
    std::vector<ntfschar> result;
    result.reserve(name.size());
    for (char16_t unit : name)
        result.push_back(cpu_to_le16(static_cast<u16>(unit)));
    return result;
}

std::vector<ntfschar> toNtfsName(std::string_view utf8) {
    return toNtfsName(kestrow::test::utf8ToUtf16(utf8));
}

std::pair<std::string_view, std::string_view> splitParent(std::string_view path) {
    const auto slash = path.rfind('/');
    if (slash == std::string_view::npos)
        return {std::string_view{}, path};
    return {path.substr(0, slash), path.substr(slash + 1)};
}

u64 referenceOf(ntfs_inode* inode) {
    return MK_MREF(inode->mft_no, le16_to_cpu(inode->mrec->sequence_number));
}

// Closes an inode and its open $DATA on every path out of a scope.
struct OpenData {
    ntfs_inode* inode = nullptr;
    ntfs_attr* data = nullptr;
    ~OpenData() {
        if (data)
            ntfs_attr_close(data);
        if (inode)
            ntfs_inode_close(inode);
    }
};

void writeAll(ntfs_attr* data, std::uint64_t offset, std::span<const std::uint8_t> bytes,
              std::string_view path) {
    std::size_t done = 0;
    while (done < bytes.size()) {
        const s64 wrote =
            ntfs_attr_pwrite(data, static_cast<s64>(offset + done),
                             static_cast<s64>(bytes.size() - done), bytes.data() + done);
        if (wrote <= 0)
            fail("ntfs_attr_pwrite", path);
        done += static_cast<std::size_t>(wrote);
    }
}

} // namespace

NtfsWriter::NtfsWriter(const std::filesystem::path& image) : m_image(image) {
    static const bool quietLibrary = [] {
        // Only real problems are worth a line; the library is chatty otherwise.
        ntfs_log_set_handler(ntfs_log_handler_stderr);
        ntfs_log_clear_levels(NTFS_LOG_LEVEL_INFO | NTFS_LOG_LEVEL_VERBOSE | NTFS_LOG_LEVEL_QUIET |
                              NTFS_LOG_LEVEL_PROGRESS);
        return true;
    }();
    (void)quietLibrary;
    m_volume = ntfs_mount(image.c_str(), NTFS_MNT_NONE);
    if (!m_volume)
        fail("ntfs_mount", image.string());
    m_records[""] = MK_MREF(FILE_root, FILE_root);
}

NtfsWriter::~NtfsWriter() {
    if (m_volume)
        ntfs_umount(m_volume, FALSE);
}

void NtfsWriter::close() {
    if (!m_volume)
        return;
    ntfs_volume* volume = m_volume;
    m_volume = nullptr;
    if (ntfs_umount(volume, FALSE) != 0)
        fail("ntfs_umount", m_image.string());
}

ntfs_inode* NtfsWriter::openInode(std::uint64_t reference) {
    ntfs_inode* inode = ntfs_inode_open(m_volume, MREF(reference));
    if (!inode)
        fail("ntfs_inode_open", "record " + std::to_string(MREF(reference)));
    return inode;
}

ntfs_inode* NtfsWriter::openPath(std::string_view path) {
    return openInode(recordOf(path));
}

std::uint64_t NtfsWriter::recordOf(std::string_view path) const {
    const auto found = m_records.find(path);
    if (found == m_records.end())
        throw std::runtime_error("the builder has not made \"" + std::string(path) + "\"");
    return found->second;
}

std::uint32_t NtfsWriter::bytesPerCluster() const {
    return m_volume->cluster_size;
}

std::uint64_t NtfsWriter::freeClusters() const {
    if (ntfs_volume_get_free_space(m_volume) != 0)
        fail("ntfs_volume_get_free_space", m_image.string());
    return static_cast<std::uint64_t>(m_volume->free_clusters);
}

std::uint64_t NtfsWriter::createIn(ntfs_inode* parent, std::u16string_view name, bool directory,
                                   std::span<const std::uint8_t> content) {
    auto ntfsName = toNtfsName(name);
    ntfs_inode* inode =
        ntfs_create(parent, const_cpu_to_le32(0), ntfsName.data(), static_cast<u8>(ntfsName.size()),
                    directory ? S_IFDIR : S_IFREG);
    if (!inode)
        fail("ntfs_create", kestrow::test::utf16ToUtf8(name));
    const u64 reference = referenceOf(inode);
    bool wrote = true;
    if (!content.empty()) {
        // Written while the new inode is still open against this very parent:
        // closing it then updates the parent's index entry through `parent`.
        // Reopening the file later would make the library open a second,
        // independent copy of a directory that is still open here.
        ntfs_attr* data = ntfs_attr_open(inode, AT_DATA, AT_UNNAMED, 0);
        wrote = data != nullptr;
        if (data) {
            try {
                writeAll(data, 0, content, kestrow::test::utf16ToUtf8(name));
            } catch (...) {
                wrote = false;
            }
            ntfs_attr_close(data);
        }
    }
    if (ntfs_inode_close_in_dir(inode, parent) != 0)
        fail("ntfs_inode_close", kestrow::test::utf16ToUtf8(name));
    if (!wrote)
        fail("writing the content of", kestrow::test::utf16ToUtf8(name));
    return reference;
}

std::uint64_t NtfsWriter::create(std::string_view path, bool directory) {
    if (m_records.contains(path))
        throw std::runtime_error("\"" + std::string(path) + "\" is made twice");
    const auto [parentPath, name] = splitParent(path);
    const std::uint64_t parentRecord = ensureDirectory(parentPath);
    ntfs_inode* parent = openInode(parentRecord);
    std::uint64_t reference;
    try {
        reference = createIn(parent, kestrow::test::utf8ToUtf16(name), directory);
    } catch (...) {
        ntfs_inode_close(parent);
        throw;
    }
    if (ntfs_inode_close(parent) != 0)
        fail("ntfs_inode_close", parentPath);
    m_records.emplace(std::string(path), reference);
    return reference;
}

std::uint64_t NtfsWriter::ensureDirectory(std::string_view path) {
    if (const auto found = m_records.find(path); found != m_records.end())
        return found->second;
    return create(path, true);
}

std::uint64_t NtfsWriter::makeDirectory(std::string_view path) {
    return create(path, true);
}

std::uint64_t NtfsWriter::makeFile(std::string_view path, std::span<const std::uint8_t> content) {
    const auto reference = create(path, false);
    if (!content.empty())
        write(path, 0, content);
    return reference;
}

std::uint64_t NtfsWriter::makeTextFile(std::string_view path, std::string_view text) {
    return makeFile(path, {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()});
}

void NtfsWriter::write(std::string_view path, std::uint64_t offset,
                       std::span<const std::uint8_t> bytes) {
    OpenData open;
    open.inode = openPath(path);
    open.data = ntfs_attr_open(open.inode, AT_DATA, AT_UNNAMED, 0);
    if (!open.data)
        fail("ntfs_attr_open", path);
    writeAll(open.data, offset, bytes, path);
}

void NtfsWriter::allocate(std::string_view path, std::uint64_t size) {
    if (!tryAllocate(path, size))
        fail("ntfs_attr_truncate_solid", path);
}

bool NtfsWriter::tryAllocate(std::string_view path, std::uint64_t size) {
    OpenData open;
    open.inode = openPath(path);
    open.data = ntfs_attr_open(open.inode, AT_DATA, AT_UNNAMED, 0);
    if (!open.data)
        fail("ntfs_attr_open", path);
    if (ntfs_attr_truncate_solid(open.data, static_cast<s64>(size)) == 0)
        return true;
    if (errno != ENOSPC)
        fail("ntfs_attr_truncate_solid", path);
    return false;
}

std::vector<std::string> NtfsWriter::fillFreeSpace(std::string_view directory,
                                                   std::uint64_t keepClusters) {
    // The allocator cannot always hand out every free cluster in one request
    // (zones, a fragmented bitmap), so the space is taken in ever smaller
    // pieces, spread over several files to keep each run list short.
    const std::uint64_t cluster = bytesPerCluster();
    std::vector<std::string> fillers;
    std::uint64_t piece = 4096;
    std::uint64_t size = 0;
    while (piece > 0) {
        const std::uint64_t free = freeClusters();
        if (free <= keepClusters)
            break;
        piece = std::min(piece, free - keepClusters);
        if (fillers.empty() || size >= 64ull * 1024 * 1024) {
            fillers.push_back(std::string(directory) + "/filler-" + std::to_string(fillers.size()) +
                              ".bin");
            makeFile(fillers.back());
            size = 0;
        }
        if (tryAllocate(fillers.back(), size + piece * cluster))
            size += piece * cluster;
        else
            piece /= 2;
    }
    return fillers;
}

void NtfsWriter::writeInterleaved(std::string_view first,
                                  std::span<const std::uint8_t> firstContent,
                                  std::string_view second,
                                  std::span<const std::uint8_t> secondContent, std::size_t chunk) {
    OpenData a;
    a.inode = openPath(first);
    a.data = ntfs_attr_open(a.inode, AT_DATA, AT_UNNAMED, 0);
    if (!a.data)
        fail("ntfs_attr_open", first);
    OpenData b;
    b.inode = openPath(second);
    b.data = ntfs_attr_open(b.inode, AT_DATA, AT_UNNAMED, 0);
    if (!b.data)
        fail("ntfs_attr_open", second);
    const std::size_t longest = std::max(firstContent.size(), secondContent.size());
    for (std::size_t at = 0; at < longest; at += chunk) {
        if (at < firstContent.size())
            writeAll(a.data, at,
                     firstContent.subspan(at, std::min(chunk, firstContent.size() - at)), first);
        if (at < secondContent.size())
            writeAll(b.data, at,
                     secondContent.subspan(at, std::min(chunk, secondContent.size() - at)), second);
    }
}

void NtfsWriter::moveDataToExtensionRecord(std::string_view path) {
    ntfs_inode* inode = openPath(path);
    auto closeAndFail = [&](std::string_view what) {
        const int error = errno;
        ntfs_inode_close(inode);
        errno = error;
        fail(what, path);
    };
    if (!NInoAttrList(inode) && ntfs_inode_add_attrlist(inode) != 0)
        closeAndFail("ntfs_inode_add_attrlist");
    ntfs_attr_search_ctx* context = ntfs_attr_get_search_ctx(inode, nullptr);
    if (!context)
        closeAndFail("ntfs_attr_get_search_ctx");
    const bool moved =
        ntfs_attr_lookup(AT_DATA, AT_UNNAMED, 0, CASE_SENSITIVE, 0, nullptr, 0, context) == 0 &&
        ntfs_attr_record_move_away(context, 0) == 0;
    ntfs_attr_put_search_ctx(context);
    if (!moved)
        closeAndFail("moving $DATA out of the base record of");
    ntfs_inode_mark_dirty(inode);
    if (ntfs_inode_close(inode) != 0)
        fail("ntfs_inode_close", path);
}

void NtfsWriter::addNamedStream(std::string_view path, std::string_view streamName,
                                std::string_view content) {
    auto name = toNtfsName(streamName);
    ntfs_inode* inode = openPath(path);
    const int added = ntfs_attr_add(inode, AT_DATA, name.data(), static_cast<u8>(name.size()),
                                    reinterpret_cast<const u8*>(content.data()),
                                    static_cast<s64>(content.size()));
    if (added != 0) {
        const int error = errno;
        ntfs_inode_close(inode);
        errno = error;
        fail("ntfs_attr_add", std::string(path) + ":" + std::string(streamName));
    }
    if (ntfs_inode_close(inode) != 0)
        fail("ntfs_inode_close", path);
}

void NtfsWriter::addHardLink(std::string_view existing, std::string_view newPath) {
    if (m_records.contains(newPath))
        throw std::runtime_error("\"" + std::string(newPath) + "\" is made twice");
    const auto [parentPath, name] = splitParent(newPath);
    const std::uint64_t parentRecord = ensureDirectory(parentPath);
    auto ntfsName = toNtfsName(name);
    ntfs_inode* inode = openPath(existing);
    ntfs_inode* parent = openInode(parentRecord);
    const int linked = ntfs_link(inode, parent, ntfsName.data(), static_cast<u8>(ntfsName.size()));
    const int error = errno;
    const int closedInode = ntfs_inode_close_in_dir(inode, parent);
    const int closedParent = ntfs_inode_close(parent);
    errno = error;
    if (linked != 0)
        fail("ntfs_link", newPath);
    if (closedInode != 0 || closedParent != 0)
        fail("ntfs_inode_close", newPath);
    m_records.emplace(std::string(newPath), recordOf(existing));
}

void NtfsWriter::setShortName(std::string_view path, std::string_view shortName) {
    const auto [parentPath, name] = splitParent(path);
    (void)name;
    ntfs_inode* inode = openPath(path);
    ntfs_inode* parent = openInode(recordOf(parentPath));
    // The library closes both inodes itself, whatever the outcome.
    const int result = ntfs_set_ntfs_dos_name(inode, parent, shortName.data(), shortName.size(), 0);
    if (result != 0) {
        errno = result < 0 ? -result : result;
        fail("ntfs_set_ntfs_dos_name", path);
    }
}

void NtfsWriter::remove(std::string_view path) {
    const auto [parentPath, name] = splitParent(path);
    auto ntfsName = toNtfsName(name);
    ntfs_inode* inode = openPath(path);
    ntfs_inode* parent = openInode(recordOf(parentPath));
    // ntfs_delete closes both inodes itself, whatever the outcome.
    if (ntfs_delete(m_volume, nullptr, inode, parent, ntfsName.data(),
                    static_cast<u8>(ntfsName.size())) != 0)
        fail("ntfs_delete", path);
    m_records.erase(m_records.find(path));
}

} // namespace kestrow::images
