#include "FakePlatform.h"
#include "Fixtures.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>

namespace kestrow::test {

using platform::DiskExtentInfo;
using platform::RetrievalRun;
using platform::WideString;

WideString widen(const std::string& text) {
    const std::u16string units = utf8ToUtf16(text);
    return WideString(units.begin(), units.end());
}

std::string narrow(const WCHAR* text) {
    std::string out;
    if (text == nullptr)
        return out;
    for (; *text != 0; ++text)
        out.push_back(*text < 0x80 ? static_cast<char>(*text) : '?');
    return out;
}

namespace {

std::string upper(std::string text) {
    for (char& c : text)
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return text;
}

std::string hex(DWORD value) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%X", static_cast<unsigned>(value));
    return text;
}

// "\\Dir\\a.txt" from "Dir/a.txt", "\\Dir\\a.txt\\", "$MFT" ...
std::string normaliseFilePath(std::string path) {
    std::replace(path.begin(), path.end(), '/', '\\');
    std::string out = "\\";
    std::string name;
    for (char c : path + "\\") {
        if (c == '\\') {
            if (!name.empty())
                out += (out.size() > 1 ? "\\" : "") + name;
            name.clear();
        } else {
            name.push_back(c);
        }
    }
    return upper(out);
}

std::string parentOf(const std::string& path) {
    const std::size_t slash = path.rfind('\\');
    return slash == 0 || slash == std::string::npos ? "\\" : path.substr(0, slash);
}

BOOL fail(platform::Api& api, DWORD code) {
    api.SetLastError(code);
    return FALSE;
}

} // namespace

FakePlatform::FakePlatform() = default;
FakePlatform::~FakePlatform() = default;

void FakePlatform::log(std::string line) {
    m_calls.push_back(std::move(line));
}

FakeDisk& FakePlatform::addDisk(std::uint32_t number, std::size_t size,
                                std::uint32_t bytesPerSector) {
    std::lock_guard lock(m_mutex);
    FakeDisk& disk = m_disks[number];
    disk.bytes.assign(size, 0);
    disk.bytesPerSector = bytesPerSector;
    return disk;
}

FakeDisk& FakePlatform::disk(std::uint32_t number) {
    std::lock_guard lock(m_mutex);
    return m_disks.at(number);
}

void FakePlatform::fillNtfsData(FakeVolume& volume, DWORD bytesPerFileRecord) {
    NTFS_VOLUME_DATA_BUFFER& data = volume.ntfsData;
    std::memset(&data, 0, sizeof data);
    const DWORD bytesPerCluster = volume.sectorsPerCluster * volume.bytesPerSector;
    data.VolumeSerialNumber.QuadPart = volume.serialNumber;
    data.NumberSectors.QuadPart =
        static_cast<LONGLONG>(volume.totalClusters) * volume.sectorsPerCluster;
    data.TotalClusters.QuadPart = volume.totalClusters;
    data.FreeClusters.QuadPart = volume.freeClusters;
    data.BytesPerSector = volume.bytesPerSector;
    data.BytesPerCluster = bytesPerCluster;
    data.BytesPerFileRecordSegment = bytesPerFileRecord;
    data.ClustersPerFileRecordSegment =
        bytesPerFileRecord >= bytesPerCluster ? bytesPerFileRecord / bytesPerCluster : 0;
    data.MftStartLcn.QuadPart = 4;
    data.Mft2StartLcn.QuadPart = volume.totalClusters / 2;
}

FakeVolume& FakePlatform::addVolume(char letter) {
    std::lock_guard lock(m_mutex);
    FakeVolume& volume = m_volumes[static_cast<char>(std::toupper(letter))];
    volume = FakeVolume();
    fillNtfsData(volume);
    return volume;
}

FakeVolume& FakePlatform::addFatVolume(char letter, const std::string& fileSystem) {
    FakeVolume& volume = addVolume(letter);
    volume.fileSystem = fileSystem;
    volume.ntfsDataError = ERROR_INVALID_FUNCTION;
    return volume;
}

FakeVolume& FakePlatform::volume(char letter) {
    std::lock_guard lock(m_mutex);
    return m_volumes.at(static_cast<char>(std::toupper(letter)));
}

FakeFile& FakePlatform::addFile(char letter, const std::string& path,
                                std::vector<RetrievalRun> runs) {
    std::lock_guard lock(m_mutex);
    FakeFile& file = volume(letter).files[normaliseFilePath(path)];
    file = FakeFile();
    file.runs = std::move(runs);
    return file;
}

FakeFile& FakePlatform::addDirectory(char letter, const std::string& path) {
    FakeFile& file = addFile(letter, path);
    file.directory = true;
    file.attributes = FILE_ATTRIBUTE_DIRECTORY;
    return file;
}

void FakePlatform::failOpen(const std::string& path, DWORD code) {
    std::lock_guard lock(m_mutex);
    m_openFailures[upper(path)] = code;
}

void FakePlatform::failSeekAtOrAfter(std::uint64_t offset, DWORD code) {
    std::lock_guard lock(m_mutex);
    m_seekFailure = std::make_pair(offset, code);
}

void FakePlatform::failReadAtSector(std::uint32_t number, std::uint64_t sector, DWORD code,
                                    unsigned times) {
    std::lock_guard lock(m_mutex);
    m_readFailures.push_back({number, sector, code, times, times == 0});
}

void FakePlatform::failAllReads(DWORD code) {
    std::lock_guard lock(m_mutex);
    m_allReadsFail = code;
}

void FakePlatform::failMemoryStatus(DWORD code) {
    std::lock_guard lock(m_mutex);
    m_memoryStatusError = code;
}

void FakePlatform::setAvailablePhysicalMemory(std::uint64_t bytes, std::uint64_t total) {
    std::lock_guard lock(m_mutex);
    m_availablePhysical = bytes;
    m_totalPhysical = std::max(bytes, total);
}

std::vector<std::string> FakePlatform::calls() const {
    std::lock_guard lock(m_mutex);
    return m_calls;
}

std::size_t FakePlatform::callCount(const std::string& name) const {
    std::lock_guard lock(m_mutex);
    return static_cast<std::size_t>(
        std::count_if(m_calls.begin(), m_calls.end(), [&](const std::string& line) {
            return line == name || line.rfind(name + " ", 0) == 0;
        }));
}

std::size_t FakePlatform::deviceIoControlCount(DWORD code) const {
    return callCount("DeviceIoControl " + hex(code));
}

std::size_t FakePlatform::openHandles() const {
    std::lock_guard lock(m_mutex);
    return m_handles.size();
}

std::vector<std::pair<std::uint64_t, std::uint32_t>> FakePlatform::reads() const {
    std::lock_guard lock(m_mutex);
    return m_reads;
}

void FakePlatform::clearLog() {
    std::lock_guard lock(m_mutex);
    m_calls.clear();
    m_reads.clear();
}

std::uint64_t FakePlatform::deviceSize(const Handle& handle) const {
    if (handle.kind == Handle::Kind::Disk)
        return m_disks.at(handle.disk).bytes.size();
    if (handle.kind == Handle::Kind::File)
        return 0; // files have no scripted content
    const FakeVolume& volume = m_volumes.at(handle.letter);
    return volume.extents.empty() ? volume.content.size() : volume.extents[0].extentLength;
}

FakePlatform::Handle* FakePlatform::findHandle(HANDLE handle) {
    auto it = m_handles.find(reinterpret_cast<std::uintptr_t>(handle));
    return it == m_handles.end() ? nullptr : &it->second;
}

bool FakePlatform::resolve(const std::string& rawPath, Handle& handle, DWORD& error) {
    std::string path = rawPath;
    std::replace(path.begin(), path.end(), '/', '\\');
    bool device = false;
    if (path.rfind("\\\\.\\", 0) == 0 || path.rfind("\\\\?\\", 0) == 0) {
        device = true;
        path = path.substr(4);
    }
    const std::string upperPath = upper(path);
    if (device && upperPath.rfind("PHYSICALDRIVE", 0) == 0 && upperPath.size() > 13) {
        const std::string digits = upperPath.substr(13);
        if (std::all_of(digits.begin(), digits.end(),
                        [](char c) { return c >= '0' && c <= '9'; })) {
            handle.kind = Handle::Kind::Disk;
            handle.disk = static_cast<std::uint32_t>(std::stoul(digits));
            if (m_disks.count(handle.disk) == 0) {
                error = ERROR_FILE_NOT_FOUND;
                return false;
            }
            return true;
        }
    }
    if (upperPath.size() < 2 || upperPath[1] != ':' ||
        !std::isalpha(static_cast<unsigned char>(upperPath[0]))) {
        error = device ? ERROR_FILE_NOT_FOUND : ERROR_PATH_NOT_FOUND;
        return false;
    }
    handle.letter = upperPath[0];
    auto volume = m_volumes.find(handle.letter);
    if (device && upperPath.size() == 2) {
        handle.kind = Handle::Kind::Volume;
        if (volume == m_volumes.end()) {
            error = ERROR_FILE_NOT_FOUND;
            return false;
        }
        if (volume->second.openError != 0) {
            error = volume->second.openError;
            return false;
        }
        return true;
    }
    if (volume == m_volumes.end()) {
        error = ERROR_PATH_NOT_FOUND;
        return false;
    }
    handle.kind = Handle::Kind::File;
    handle.file = normaliseFilePath(path.substr(2));
    if (handle.file == "\\")
        return true; // the root directory
    const auto& files = volume->second.files;
    const auto file = files.find(handle.file);
    if (file == files.end()) {
        const std::string parent = parentOf(handle.file);
        const auto dir = files.find(parent);
        const bool parentExists = parent == "\\" || (dir != files.end() && dir->second.directory);
        error = parentExists ? ERROR_FILE_NOT_FOUND : ERROR_PATH_NOT_FOUND;
        return false;
    }
    if (file->second.openError != 0) {
        error = file->second.openError;
        return false;
    }
    return true;
}

HANDLE FakePlatform::CreateFileW(LPCWSTR fileName, DWORD desiredAccess, DWORD shareMode,
                                 LPSECURITY_ATTRIBUTES securityAttributes,
                                 DWORD creationDisposition, DWORD flagsAndAttributes,
                                 HANDLE templateFile) {
    (void)shareMode;
    (void)securityAttributes;
    (void)templateFile;
    std::lock_guard lock(m_mutex);
    const std::string path = narrow(fileName);
    log("CreateFileW " + path + " " + hex(desiredAccess) + " " + hex(creationDisposition) + " " +
        hex(flagsAndAttributes));
    DWORD error = 0;
    Handle handle;
    handle.path = path;
    const auto injected = m_openFailures.find(upper(path));
    if (injected != m_openFailures.end() && injected->second != 0)
        error = injected->second;
    else if (fileName == nullptr)
        error = ERROR_INVALID_PARAMETER;
    else
        resolve(path, handle, error);
    if (error != 0) {
        SetLastError(error);
        return INVALID_HANDLE_VALUE;
    }
    const std::uintptr_t value = m_nextHandle;
    m_nextHandle += 4;
    m_handles[value] = handle;
    SetLastError(ERROR_SUCCESS);
    return reinterpret_cast<HANDLE>(value);
}

BOOL FakePlatform::CloseHandle(HANDLE handle) {
    std::lock_guard lock(m_mutex);
    log("CloseHandle " + hex(static_cast<DWORD>(reinterpret_cast<std::uintptr_t>(handle))));
    if (m_handles.erase(reinterpret_cast<std::uintptr_t>(handle)) == 0)
        return fail(*this, ERROR_INVALID_HANDLE);
    SetLastError(ERROR_SUCCESS);
    return TRUE;
}

BOOL FakePlatform::readDevice(Handle& handle, LPVOID buffer, DWORD bytesToRead, LPDWORD bytesRead) {
    // Where the handle's bytes come from: a disk, a volume's first extent on
    // its disk, or the volume's own content.
    const std::vector<std::uint8_t>* bytes = nullptr;
    std::uint64_t base = 0;
    std::uint64_t limit = 0;
    std::uint32_t sectorSize = 512;
    std::optional<std::uint32_t> diskNumber;
    if (handle.kind == Handle::Kind::Disk) {
        FakeDisk& disk = m_disks.at(handle.disk);
        bytes = &disk.bytes;
        limit = disk.bytes.size();
        sectorSize = disk.bytesPerSector;
        diskNumber = handle.disk;
    } else {
        FakeVolume& volume = m_volumes.at(handle.letter);
        if (!volume.extents.empty() && m_disks.count(volume.extents[0].diskNumber) != 0) {
            FakeDisk& disk = m_disks.at(volume.extents[0].diskNumber);
            bytes = &disk.bytes;
            base = volume.extents[0].startingOffset;
            limit =
                std::min<std::uint64_t>(base + volume.extents[0].extentLength, disk.bytes.size());
            sectorSize = disk.bytesPerSector;
            diskNumber = volume.extents[0].diskNumber;
        } else {
            bytes = &volume.content;
            limit = volume.content.size();
            sectorSize = volume.bytesPerSector;
        }
    }
    if (m_deviceRules && (bytesToRead % sectorSize != 0 || handle.position % sectorSize != 0))
        return fail(*this, ERROR_INVALID_PARAMETER);
    const std::uint64_t start = base + handle.position;
    const std::uint64_t end = start + bytesToRead;
    if (diskNumber) {
        const std::uint32_t diskSector = m_disks.at(*diskNumber).bytesPerSector;
        for (auto it = m_readFailures.begin(); it != m_readFailures.end(); ++it) {
            const std::uint64_t at = it->sector * diskSector;
            if (it->disk != *diskNumber || at < start || at >= end)
                continue;
            const DWORD code = it->code;
            if (!it->permanent && --it->remaining == 0)
                m_readFailures.erase(it);
            return fail(*this, code);
        }
    }
    std::size_t count = 0;
    if (start < limit) {
        count = static_cast<std::size_t>(std::min<std::uint64_t>(bytesToRead, limit - start));
        std::memcpy(buffer, bytes->data() + start, count);
    }
    handle.position += count;
    if (bytesRead != nullptr)
        *bytesRead = static_cast<DWORD>(count);
    SetLastError(ERROR_SUCCESS);
    return TRUE;
}

BOOL FakePlatform::ReadFile(HANDLE handle, LPVOID buffer, DWORD bytesToRead, LPDWORD bytesRead,
                            LPOVERLAPPED overlapped) {
    std::lock_guard lock(m_mutex);
    Handle* open = findHandle(handle);
    log("ReadFile " + std::to_string(open != nullptr ? open->position : 0) + " " +
        std::to_string(bytesToRead));
    if (bytesRead != nullptr)
        *bytesRead = 0;
    if (open == nullptr)
        return fail(*this, ERROR_INVALID_HANDLE);
    if (overlapped != nullptr)
        return fail(*this, ERROR_NOT_SUPPORTED);
    if (open->kind == Handle::Kind::File)
        return fail(*this, ERROR_INVALID_FUNCTION); // files have no scripted content
    m_reads.emplace_back(open->position, bytesToRead);
    if (m_allReadsFail != 0)
        return fail(*this, m_allReadsFail);
    return readDevice(*open, buffer, bytesToRead, bytesRead);
}

BOOL FakePlatform::SetFilePointerEx(HANDLE handle, LARGE_INTEGER distance,
                                    PLARGE_INTEGER newPosition, DWORD moveMethod) {
    std::lock_guard lock(m_mutex);
    log("SetFilePointerEx " + std::to_string(distance.QuadPart) + " " + std::to_string(moveMethod));
    Handle* open = findHandle(handle);
    if (open == nullptr)
        return fail(*this, ERROR_INVALID_HANDLE);
    LONGLONG base = 0;
    if (moveMethod == FILE_CURRENT)
        base = static_cast<LONGLONG>(open->position);
    else if (moveMethod == FILE_END)
        base = static_cast<LONGLONG>(deviceSize(*open));
    else if (moveMethod != FILE_BEGIN)
        return fail(*this, ERROR_INVALID_PARAMETER);
    const LONGLONG target = base + distance.QuadPart;
    if (target < 0)
        return fail(*this, ERROR_NEGATIVE_SEEK);
    if (m_seekFailure && static_cast<std::uint64_t>(target) >= m_seekFailure->first)
        return fail(*this, m_seekFailure->second);
    open->position = static_cast<std::uint64_t>(target);
    if (newPosition != nullptr)
        newPosition->QuadPart = target;
    SetLastError(ERROR_SUCCESS);
    return TRUE;
}

namespace {

struct BitmapSource {
    const std::vector<std::uint8_t>* bytes;
};

DWORD readFakeBitmap(void* context, std::uint64_t firstByte, std::uint8_t* out,
                     std::size_t length) {
    const auto& bytes = *static_cast<BitmapSource*>(context)->bytes;
    for (std::size_t i = 0; i < length; ++i)
        out[i] = firstByte + i < bytes.size() ? bytes[firstByte + i] : 0xFF;
    return 0;
}

} // namespace

BOOL FakePlatform::DeviceIoControl(HANDLE handle, DWORD ioControlCode, LPVOID inBuffer,
                                   DWORD inBufferSize, LPVOID outBuffer, DWORD outBufferSize,
                                   LPDWORD bytesReturned, LPOVERLAPPED overlapped) {
    std::lock_guard lock(m_mutex);
    log("DeviceIoControl " + hex(ioControlCode) + " " + std::to_string(outBufferSize));
    Handle* open = findHandle(handle);
    if (open == nullptr)
        return fail(*this, ERROR_INVALID_HANDLE);
    if (overlapped != nullptr)
        return fail(*this, ERROR_NOT_SUPPORTED);
    DWORD returned = 0;
    DWORD error = ERROR_INVALID_FUNCTION;
    FakeVolume* volume = open->kind == Handle::Kind::Disk ? nullptr : &m_volumes.at(open->letter);
    const bool onVolume = open->kind == Handle::Kind::Volume;
    switch (ioControlCode) {
    case IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS:
        if (onVolume)
            error = volume->diskExtentsError != 0
                        ? volume->diskExtentsError
                        : platform::replyDiskExtents(volume->extents, outBuffer, outBufferSize,
                                                     &returned);
        break;
    case FSCTL_GET_NTFS_VOLUME_DATA:
        if (onVolume)
            error = volume->ntfsDataError != 0
                        ? volume->ntfsDataError
                        : platform::replyNtfsVolumeData(volume->ntfsData, outBuffer, outBufferSize,
                                                        &returned);
        else if (volume != nullptr)
            error = ERROR_INVALID_PARAMETER;
        break;
    case FSCTL_GET_RETRIEVAL_POINTERS:
        if (open->kind == Handle::Kind::File) {
            const auto file = volume->files.find(open->file);
            if (file == volume->files.end()) {
                error = ERROR_HANDLE_EOF; // the root directory has no scripted runs
            } else if (file->second.retrievalError != 0) {
                error = file->second.retrievalError;
            } else {
                const auto& runs = file->second.runs;
                const std::uint64_t clusters =
                    runs.empty() ? 0 : static_cast<std::uint64_t>(runs.back().nextVcn);
                error = platform::replyRetrievalPointers(runs, clusters, inBuffer, inBufferSize,
                                                         outBuffer, outBufferSize, &returned);
            }
        } else if (onVolume) {
            error = ERROR_INVALID_PARAMETER;
        }
        break;
    case FSCTL_GET_VOLUME_BITMAP:
        if (onVolume) {
            BitmapSource source{&volume->bitmap};
            error = volume->bitmapError != 0
                        ? volume->bitmapError
                        : platform::replyVolumeBitmap(volume->bitmapClusters, readFakeBitmap,
                                                      &source, inBuffer, inBufferSize, outBuffer,
                                                      outBufferSize, &returned);
        } else if (volume != nullptr) {
            error = ERROR_INVALID_PARAMETER;
        }
        break;
    default:
        break;
    }
    if (bytesReturned != nullptr)
        *bytesReturned = returned;
    if (error != 0)
        return fail(*this, error);
    SetLastError(ERROR_SUCCESS);
    return TRUE;
}

FakeVolume* FakePlatform::volumeOfRoot(LPCWSTR rootPathName, DWORD& error) {
    std::string path = narrow(rootPathName);
    if (path.rfind("\\\\.\\", 0) == 0 || path.rfind("\\\\?\\", 0) == 0)
        path = path.substr(4);
    if (path.size() != 3 || path[1] != ':' || (path[2] != '\\' && path[2] != '/')) {
        error = ERROR_INVALID_NAME;
        return nullptr;
    }
    auto it = m_volumes.find(static_cast<char>(std::toupper(static_cast<unsigned char>(path[0]))));
    if (it == m_volumes.end()) {
        error = ERROR_PATH_NOT_FOUND;
        return nullptr;
    }
    return &it->second;
}

BOOL FakePlatform::GetVolumeInformationW(LPCWSTR rootPathName, LPWSTR volumeNameBuffer,
                                         DWORD volumeNameSize, LPDWORD volumeSerialNumber,
                                         LPDWORD maximumComponentLength, LPDWORD fileSystemFlags,
                                         LPWSTR fileSystemNameBuffer, DWORD fileSystemNameSize) {
    std::lock_guard lock(m_mutex);
    log("GetVolumeInformationW " + narrow(rootPathName));
    DWORD error = 0;
    FakeVolume* volume = volumeOfRoot(rootPathName, error);
    if (volume == nullptr)
        return fail(*this, error);
    if (volume->volumeInformationError != 0)
        return fail(*this, volume->volumeInformationError);
    auto copyOut = [](const std::string& text, LPWSTR buffer, DWORD size) {
        if (buffer == nullptr)
            return true;
        if (text.size() + 1 > size)
            return false;
        const WideString wide = widen(text);
        std::copy(wide.begin(), wide.end(), buffer);
        buffer[wide.size()] = 0;
        return true;
    };
    if (!copyOut(volume->label, volumeNameBuffer, volumeNameSize) ||
        !copyOut(volume->fileSystem, fileSystemNameBuffer, fileSystemNameSize))
        return fail(*this, ERROR_BAD_LENGTH);
    if (volumeSerialNumber != nullptr)
        *volumeSerialNumber = volume->serialNumber;
    if (maximumComponentLength != nullptr)
        *maximumComponentLength = 255;
    if (fileSystemFlags != nullptr)
        *fileSystemFlags = FILE_CASE_PRESERVED_NAMES | FILE_UNICODE_ON_DISK;
    SetLastError(ERROR_SUCCESS);
    return TRUE;
}

BOOL FakePlatform::GetDiskFreeSpaceW(LPCWSTR rootPathName, LPDWORD sectorsPerCluster,
                                     LPDWORD bytesPerSector, LPDWORD numberOfFreeClusters,
                                     LPDWORD totalNumberOfClusters) {
    std::lock_guard lock(m_mutex);
    log("GetDiskFreeSpaceW " + narrow(rootPathName));
    DWORD error = 0;
    FakeVolume* volume = volumeOfRoot(rootPathName, error);
    if (volume == nullptr)
        return fail(*this, error);
    if (volume->freeSpaceError != 0)
        return fail(*this, volume->freeSpaceError);
    if (sectorsPerCluster != nullptr)
        *sectorsPerCluster = volume->sectorsPerCluster;
    if (bytesPerSector != nullptr)
        *bytesPerSector = volume->bytesPerSector;
    if (numberOfFreeClusters != nullptr)
        *numberOfFreeClusters = volume->freeClusters;
    if (totalNumberOfClusters != nullptr)
        *totalNumberOfClusters = volume->totalClusters;
    SetLastError(ERROR_SUCCESS);
    return TRUE;
}

DWORD FakePlatform::GetFileAttributesW(LPCWSTR fileName) {
    std::lock_guard lock(m_mutex);
    const std::string path = narrow(fileName);
    log("GetFileAttributesW " + path);
    Handle handle;
    DWORD error = 0;
    if (fileName == nullptr || !resolve(path, handle, error) || handle.kind != Handle::Kind::File) {
        SetLastError(error != 0 ? error : ERROR_INVALID_FUNCTION);
        return INVALID_FILE_ATTRIBUTES;
    }
    SetLastError(ERROR_SUCCESS);
    if (handle.file == "\\")
        return FILE_ATTRIBUTE_DIRECTORY;
    const FakeFile& file = m_volumes.at(handle.letter).files.at(handle.file);
    return file.attributes | (file.directory ? FILE_ATTRIBUTE_DIRECTORY : 0);
}

BOOL FakePlatform::GlobalMemoryStatusEx(LPMEMORYSTATUSEX buffer) {
    std::lock_guard lock(m_mutex);
    log("GlobalMemoryStatusEx");
    if (m_memoryStatusError != 0)
        return fail(*this, m_memoryStatusError);
    if (buffer == nullptr || buffer->dwLength != sizeof(MEMORYSTATUSEX))
        return fail(*this, ERROR_INVALID_PARAMETER);
    const DWORD length = buffer->dwLength;
    std::memset(buffer, 0, sizeof *buffer);
    buffer->dwLength = length;
    const std::uint64_t avail = m_availablePhysical.value_or(4ull << 30);
    const std::uint64_t total = m_availablePhysical ? m_totalPhysical : (16ull << 30);
    buffer->ullTotalPhys = total;
    buffer->ullAvailPhys = avail;
    buffer->ullTotalPageFile = total;
    buffer->ullAvailPageFile = avail;
    buffer->ullTotalVirtual = 0x00007FFFFFFE0000ull;
    buffer->ullAvailVirtual = 0x00007FFFFFFE0000ull;
    buffer->dwMemoryLoad = total == 0 ? 0 : static_cast<DWORD>(100 - avail * 100 / total);
    SetLastError(ERROR_SUCCESS);
    return TRUE;
}

} // namespace kestrow::test
