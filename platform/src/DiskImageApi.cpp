// The disk-image backend: answers the platform calls from the disks that
// attachDisks (or KESTROW_DISKS) attached, with the rules and error codes of
// Windows. Nothing here writes: images and devices are open read-only and
// there is no write path.
#include "Backends.h"
#include "DevicePath.h"
#include "DiskSet.h"
#include "ExtractedMft.h"
#include "Fat.h"

#include <kestrow/ControlReplies.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <optional>

namespace kestrow::platform {

namespace {

using disk::AttachedDisk;
using disk::AttachedVolume;
using disk::DevicePath;
using disk::FileSystemKind;

// Handles are small multiples of four, as Windows hands them out: never 0
// and never INVALID_HANDLE_VALUE.
constexpr std::uintptr_t kHandleStep = 4;
constexpr std::size_t kMaxOpenHandles = 1u << 16;

// Access rights that ask to change the file (FILE_WRITE_DATA,
// FILE_APPEND_DATA, FILE_WRITE_EA, FILE_WRITE_ATTRIBUTES, DELETE,
// GENERIC_WRITE, GENERIC_ALL).
constexpr DWORD kWriteAccess = 0x00000002u | 0x00000004u | 0x00000010u | 0x00000100u | 0x00010000u |
                               GENERIC_WRITE | 0x10000000u;

constexpr DWORD kMaxComponentLength = 255;

constexpr DWORD kNtfsFlags =
    FILE_CASE_SENSITIVE_SEARCH | FILE_CASE_PRESERVED_NAMES | FILE_UNICODE_ON_DISK |
    FILE_PERSISTENT_ACLS | FILE_FILE_COMPRESSION | FILE_VOLUME_QUOTAS | FILE_SUPPORTS_SPARSE_FILES |
    FILE_SUPPORTS_REPARSE_POINTS | FILE_SUPPORTS_OBJECT_IDS | FILE_SUPPORTS_ENCRYPTION |
    FILE_NAMED_STREAMS | FILE_SUPPORTS_HARD_LINKS | FILE_SUPPORTS_EXTENDED_ATTRIBUTES |
    FILE_SUPPORTS_USN_JOURNAL | FILE_READ_ONLY_VOLUME;
constexpr DWORD kFatFlags =
    FILE_CASE_PRESERVED_NAMES | FILE_UNICODE_ON_DISK | FILE_READ_ONLY_VOLUME;

struct OpenObject {
    enum class Kind { Disk, Volume, File } kind = Kind::Disk;
    std::shared_ptr<const AttachedDisk> disk;
    std::shared_ptr<const AttachedVolume> volume;
    disk::NtfsFileInfo file;
    bool noBuffering = false;
    std::uint64_t position = 0;

    std::shared_ptr<const disk::ByteSource> deviceBytes() const {
        return kind == Kind::Disk ? disk->bytes : volume->bytes;
    }
    std::uint32_t sectorSize() const {
        return kind == Kind::Disk ? disk->info.bytesPerSector : volume->sectorSize();
    }
};

BOOL fail(DWORD code) {
    setThreadLastError(code);
    return FALSE;
}

BOOL succeed() {
    setThreadLastError(ERROR_SUCCESS);
    return TRUE;
}

WideString toWide(const std::u16string& text) {
    return WideString(text.begin(), text.end());
}

WideString toWide(const char* text) {
    WideString wide;
    for (; *text != '\0'; ++text)
        wide.push_back(static_cast<WCHAR>(*text));
    return wide;
}

// Copies text and its terminator into a caller's buffer of `size` units.
bool copyOut(const WideString& text, LPWSTR buffer, DWORD size) {
    if (buffer == nullptr)
        return true;
    if (text.size() + 1 > size)
        return false;
    std::copy(text.begin(), text.end(), buffer);
    buffer[text.size()] = 0;
    return true;
}

class DiskImageApi final : public Api {
public:
    HANDLE CreateFileW(LPCWSTR fileName, DWORD desiredAccess, DWORD shareMode,
                       LPSECURITY_ATTRIBUTES securityAttributes, DWORD creationDisposition,
                       DWORD flagsAndAttributes, HANDLE templateFile) override;
    BOOL CloseHandle(HANDLE handle) override;
    BOOL ReadFile(HANDLE handle, LPVOID buffer, DWORD bytesToRead, LPDWORD bytesRead,
                  LPOVERLAPPED overlapped) override;
    BOOL SetFilePointerEx(HANDLE handle, LARGE_INTEGER distance, PLARGE_INTEGER newPosition,
                          DWORD moveMethod) override;
    BOOL DeviceIoControl(HANDLE handle, DWORD ioControlCode, LPVOID inBuffer, DWORD inBufferSize,
                         LPVOID outBuffer, DWORD outBufferSize, LPDWORD bytesReturned,
                         LPOVERLAPPED overlapped) override;
    BOOL GetVolumeInformationW(LPCWSTR rootPathName, LPWSTR volumeNameBuffer, DWORD volumeNameSize,
                               LPDWORD volumeSerialNumber, LPDWORD maximumComponentLength,
                               LPDWORD fileSystemFlags, LPWSTR fileSystemNameBuffer,
                               DWORD fileSystemNameSize) override;
    BOOL GetDiskFreeSpaceW(LPCWSTR rootPathName, LPDWORD sectorsPerCluster, LPDWORD bytesPerSector,
                           LPDWORD numberOfFreeClusters, LPDWORD totalNumberOfClusters) override;
    DWORD GetFileAttributesW(LPCWSTR fileName) override;
    BOOL GlobalMemoryStatusEx(LPMEMORYSTATUSEX buffer) override;

private:
    HANDLE addHandle(OpenObject object);
    std::optional<OpenObject> lookupHandle(HANDLE handle);
    void storePosition(HANDLE handle, std::uint64_t position);

    DWORD resolveVolumeRoot(LPCWSTR rootPathName, std::shared_ptr<const AttachedVolume>& volume);
    DWORD resolveFile(const DevicePath& path, std::shared_ptr<const AttachedVolume>& volume,
                      disk::NtfsFileInfo& file);

    BOOL readDevice(const OpenObject& object, HANDLE handle, LPVOID buffer, DWORD bytesToRead,
                    LPDWORD bytesRead);
    BOOL readFileData(const OpenObject& object, HANDLE handle, LPVOID buffer, DWORD bytesToRead,
                      LPDWORD bytesRead);

    DWORD ntfsVolumeData(const AttachedVolume& volume, NTFS_VOLUME_DATA_BUFFER& data);
    DWORD retrievalPointers(const OpenObject& object, LPVOID inBuffer, DWORD inBufferSize,
                            LPVOID outBuffer, DWORD outBufferSize, LPDWORD bytesReturned);

    std::mutex m_mutex;
    std::vector<std::optional<OpenObject>> m_handles;
};

HANDLE DiskImageApi::addHandle(OpenObject object) {
    std::lock_guard<std::mutex> lock(m_mutex);
    std::size_t slot = 0;
    while (slot < m_handles.size() && m_handles[slot].has_value())
        ++slot;
    if (slot == m_handles.size()) {
        if (m_handles.size() >= kMaxOpenHandles)
            return nullptr;
        m_handles.emplace_back();
    }
    m_handles[slot] = std::move(object);
    return reinterpret_cast<HANDLE>((slot + 1) * kHandleStep);
}

std::optional<OpenObject> DiskImageApi::lookupHandle(HANDLE handle) {
    const auto value = reinterpret_cast<std::uintptr_t>(handle);
    if (value == 0 || value % kHandleStep != 0)
        return std::nullopt;
    const std::size_t slot = value / kHandleStep - 1;
    std::lock_guard<std::mutex> lock(m_mutex);
    if (slot >= m_handles.size())
        return std::nullopt;
    return m_handles[slot];
}

void DiskImageApi::storePosition(HANDLE handle, std::uint64_t position) {
    const std::size_t slot = reinterpret_cast<std::uintptr_t>(handle) / kHandleStep - 1;
    std::lock_guard<std::mutex> lock(m_mutex);
    if (slot < m_handles.size() && m_handles[slot].has_value())
        m_handles[slot]->position = position;
}

DWORD DiskImageApi::resolveFile(const DevicePath& path,
                                std::shared_ptr<const AttachedVolume>& volume,
                                disk::NtfsFileInfo& file) {
    volume = disk::currentDiskSet()->volumeByLetter(path.letter);
    if (!volume)
        return ERROR_PATH_NOT_FOUND;
    if (volume->boot.kind == FileSystemKind::Ntfs) {
        if (!volume->ntfs)
            return ERROR_UNRECOGNIZED_VOLUME;
        if (const DWORD error = disk::lookupNtfsPath(*volume, path.components, file))
            return error;
    } else {
        // Only the root directory of a FAT or exFAT volume is offered.
        if (!path.components.empty())
            return ERROR_NOT_SUPPORTED;
        file.directory = true;
        file.attributes = FILE_ATTRIBUTE_DIRECTORY;
    }
    if (path.trailingSeparator && !file.directory)
        return ERROR_INVALID_NAME;
    return 0;
}

HANDLE DiskImageApi::CreateFileW(LPCWSTR fileName, DWORD desiredAccess, DWORD shareMode,
                                 LPSECURITY_ATTRIBUTES securityAttributes,
                                 DWORD creationDisposition, DWORD flagsAndAttributes,
                                 HANDLE templateFile) {
    (void)shareMode;
    (void)securityAttributes;
    (void)templateFile;
    if (creationDisposition < CREATE_NEW || creationDisposition > TRUNCATE_EXISTING) {
        setThreadLastError(ERROR_INVALID_PARAMETER);
        return INVALID_HANDLE_VALUE;
    }
    const DevicePath path = disk::parseDevicePath(fileName);
    const auto set = disk::currentDiskSet();
    OpenObject object;
    object.noBuffering = (flagsAndAttributes & FILE_FLAG_NO_BUFFERING) != 0;
    DWORD error = 0;
    DWORD successCode = ERROR_SUCCESS;
    switch (path.kind) {
    case DevicePath::Kind::Invalid:
        error = path.error;
        break;
    case DevicePath::Kind::Other:
        error = ERROR_FILE_NOT_FOUND;
        break;
    case DevicePath::Kind::Disk:
        object.kind = OpenObject::Kind::Disk;
        object.disk = set->diskByNumber(path.disk);
        if (!object.disk)
            error = ERROR_FILE_NOT_FOUND;
        break;
    case DevicePath::Kind::Volume:
        object.kind = OpenObject::Kind::Volume;
        object.volume = set->volumeByLetter(path.letter);
        if (!object.volume)
            error = ERROR_FILE_NOT_FOUND;
        else
            object.disk = object.volume->disk;
        break;
    case DevicePath::Kind::File:
        object.kind = OpenObject::Kind::File;
        error = resolveFile(path, object.volume, object.file);
        if (error == 0) {
            object.disk = object.volume->disk;
            if (object.file.directory && (flagsAndAttributes & FILE_FLAG_BACKUP_SEMANTICS) == 0)
                error = ERROR_ACCESS_DENIED; // directories open only with backup semantics
        }
        // The volume cannot be changed, so nothing may be created, truncated
        // or opened for writing; an existing file opened to be created new
        // is the one exception Windows reports differently.
        if (error == 0 && creationDisposition == CREATE_NEW)
            error = ERROR_FILE_EXISTS;
        else if (error == ERROR_FILE_NOT_FOUND && creationDisposition != OPEN_EXISTING &&
                 creationDisposition != TRUNCATE_EXISTING)
            error = ERROR_WRITE_PROTECT;
        else if (error == 0 &&
                 ((desiredAccess & kWriteAccess) != 0 || creationDisposition == CREATE_ALWAYS ||
                  creationDisposition == TRUNCATE_EXISTING))
            error = ERROR_WRITE_PROTECT;
        else if (error == 0 && creationDisposition == OPEN_ALWAYS)
            successCode = ERROR_ALREADY_EXISTS;
        break;
    }
    if (error == 0 && object.kind != OpenObject::Kind::File &&
        creationDisposition != OPEN_EXISTING && creationDisposition != OPEN_ALWAYS)
        error = ERROR_INVALID_PARAMETER; // devices are never created
    if (error != 0) {
        setThreadLastError(error);
        return INVALID_HANDLE_VALUE;
    }
    HANDLE handle = addHandle(std::move(object));
    if (handle == nullptr) {
        setThreadLastError(ERROR_TOO_MANY_OPEN_FILES);
        return INVALID_HANDLE_VALUE;
    }
    setThreadLastError(successCode);
    return handle;
}

BOOL DiskImageApi::CloseHandle(HANDLE handle) {
    const auto value = reinterpret_cast<std::uintptr_t>(handle);
    if (value == 0 || value % kHandleStep != 0)
        return fail(ERROR_INVALID_HANDLE);
    const std::size_t slot = value / kHandleStep - 1;
    std::lock_guard<std::mutex> lock(m_mutex);
    if (slot >= m_handles.size() || !m_handles[slot].has_value())
        return fail(ERROR_INVALID_HANDLE);
    m_handles[slot].reset();
    return succeed();
}

BOOL DiskImageApi::ReadFile(HANDLE handle, LPVOID buffer, DWORD bytesToRead, LPDWORD bytesRead,
                            LPOVERLAPPED overlapped) {
    if (bytesRead != nullptr)
        *bytesRead = 0;
    const auto object = lookupHandle(handle);
    if (!object)
        return fail(ERROR_INVALID_HANDLE);
    // Overlapped I/O would need completion events this backend does not have.
    if (overlapped != nullptr)
        return fail(ERROR_NOT_SUPPORTED);
    if (buffer == nullptr && bytesToRead != 0)
        return fail(ERROR_INVALID_USER_BUFFER);
    if (object->kind == OpenObject::Kind::File)
        return readFileData(*object, handle, buffer, bytesToRead, bytesRead);
    return readDevice(*object, handle, buffer, bytesToRead, bytesRead);
}

BOOL DiskImageApi::readDevice(const OpenObject& object, HANDLE handle, LPVOID buffer,
                              DWORD bytesToRead, LPDWORD bytesRead) {
    // Disks and volumes move whole sectors from sector boundaries only.
    const std::uint32_t sector = object.sectorSize();
    if (bytesToRead % sector != 0 || object.position % sector != 0)
        return fail(ERROR_INVALID_PARAMETER);
    const auto bytes = object.deviceBytes();
    if (object.position >= bytes->size())
        return succeed();
    const std::size_t wanted = static_cast<std::size_t>(
        std::min<std::uint64_t>(bytesToRead, bytes->size() - object.position));
    const disk::ReadResult result = bytes->readAt(object.position, buffer, wanted);
    if (result.error != 0)
        return fail(result.error);
    storePosition(handle, object.position + result.bytes);
    if (bytesRead != nullptr)
        *bytesRead = static_cast<DWORD>(result.bytes);
    return succeed();
}

BOOL DiskImageApi::readFileData(const OpenObject& object, HANDLE handle, LPVOID buffer,
                                DWORD bytesToRead, LPDWORD bytesRead) {
    if (object.file.directory || !object.volume->ntfs)
        return fail(ERROR_INVALID_FUNCTION);
    if (object.noBuffering) {
        const std::uint32_t sector = object.volume->sectorSize();
        if (bytesToRead % sector != 0 || object.position % sector != 0)
            return fail(ERROR_INVALID_PARAMETER);
    }
    std::vector<disk::NtfsAttribute> attributes;
    if (const DWORD error = object.volume->ntfs->attributes(object.file.record, attributes))
        return fail(error);
    const auto data = std::find_if(attributes.begin(), attributes.end(), [](const auto& a) {
        return a.type == disk::attr::kData && a.name.empty();
    });
    // Compressed and encrypted streams would need decoding this reader does
    // not do: refuse them rather than hand out their raw clusters as content.
    if (data != attributes.end() &&
        (data->flags & (disk::attrFlag::kCompressed | disk::attrFlag::kEncrypted)) != 0)
        return fail(ERROR_NOT_SUPPORTED);
    std::size_t got = 0;
    if (data != attributes.end()) {
        if (const DWORD error = object.volume->ntfs->readAttribute(*data, object.position, buffer,
                                                                   bytesToRead, got))
            return fail(error);
    }
    storePosition(handle, object.position + got);
    if (bytesRead != nullptr)
        *bytesRead = static_cast<DWORD>(got);
    return succeed();
}

BOOL DiskImageApi::SetFilePointerEx(HANDLE handle, LARGE_INTEGER distance,
                                    PLARGE_INTEGER newPosition, DWORD moveMethod) {
    const auto object = lookupHandle(handle);
    if (!object)
        return fail(ERROR_INVALID_HANDLE);
    LONGLONG base = 0;
    switch (moveMethod) {
    case FILE_BEGIN:
        break;
    case FILE_CURRENT:
        base = static_cast<LONGLONG>(object->position);
        break;
    case FILE_END:
        if (object->kind == OpenObject::Kind::File) {
            std::vector<disk::NtfsAttribute> attributes;
            if (object->volume->ntfs &&
                object->volume->ntfs->attributes(object->file.record, attributes) == 0) {
                for (const auto& a : attributes) {
                    if (a.type == disk::attr::kData && a.name.empty())
                        base = static_cast<LONGLONG>(a.nonResident ? a.dataSize : a.value.size());
                }
            }
        } else {
            base = static_cast<LONGLONG>(object->deviceBytes()->size());
        }
        break;
    default:
        return fail(ERROR_INVALID_PARAMETER);
    }
    const LONGLONG move = distance.QuadPart;
    if ((move > 0 && base > INT64_MAX - move) || base + move < 0)
        return fail(ERROR_NEGATIVE_SEEK);
    const LONGLONG target = base + move;
    storePosition(handle, static_cast<std::uint64_t>(target));
    if (newPosition != nullptr)
        newPosition->QuadPart = target;
    return succeed();
}

DWORD DiskImageApi::ntfsVolumeData(const AttachedVolume& volume, NTFS_VOLUME_DATA_BUFFER& data) {
    const disk::NtfsVolume& ntfs = *volume.ntfs;
    const disk::BootSector& boot = ntfs.boot();
    std::uint64_t freeClusters = 0;
    if (const DWORD error = disk::countNtfsFreeClusters(volume, freeClusters))
        return error;
    std::memset(&data, 0, sizeof data);
    data.VolumeSerialNumber.QuadPart = static_cast<LONGLONG>(boot.serialNumber);
    data.NumberSectors.QuadPart = static_cast<LONGLONG>(boot.totalSectors);
    data.TotalClusters.QuadPart = static_cast<LONGLONG>(boot.totalClusters);
    data.FreeClusters.QuadPart = static_cast<LONGLONG>(freeClusters);
    data.TotalReserved.QuadPart = 0;
    data.BytesPerSector = boot.bytesPerSector;
    data.BytesPerCluster = boot.bytesPerCluster();
    data.BytesPerFileRecordSegment = boot.bytesPerFileRecord;
    data.ClustersPerFileRecordSegment = boot.bytesPerFileRecord >= boot.bytesPerCluster()
                                            ? boot.bytesPerFileRecord / boot.bytesPerCluster()
                                            : 0;
    data.MftValidDataLength.QuadPart = static_cast<LONGLONG>(ntfs.mftValidDataLength());
    data.MftStartLcn.QuadPart = static_cast<LONGLONG>(boot.mftLcn);
    data.Mft2StartLcn.QuadPart = static_cast<LONGLONG>(boot.mftMirrorLcn);
    // The driver keeps its MFT zone in memory only; the nearest thing on
    // disk is the space right after the MFT's first run.
    const disk::DataRun& first = ntfs.mftRuns().front();
    data.MftZoneStart.QuadPart =
        static_cast<LONGLONG>(first.lcn) + static_cast<LONGLONG>(first.length);
    data.MftZoneEnd.QuadPart = data.MftZoneStart.QuadPart;
    return 0;
}

DWORD DiskImageApi::retrievalPointers(const OpenObject& object, LPVOID inBuffer, DWORD inBufferSize,
                                      LPVOID outBuffer, DWORD outBufferSize,
                                      LPDWORD bytesReturned) {
    std::vector<disk::NtfsAttribute> attributes;
    if (const DWORD error = object.volume->ntfs->attributes(object.file.record, attributes))
        return error;
    // A directory's stream is its index allocation; a file's, its unnamed data.
    const std::uint32_t type =
        object.file.directory ? disk::attr::kIndexAllocation : disk::attr::kData;
    const std::u16string name = object.file.directory ? u"$I30" : u"";
    std::vector<RetrievalRun> runs;
    std::uint64_t allocatedClusters = 0;
    for (const auto& a : attributes) {
        if (a.type != type || a.name != name || !a.nonResident)
            continue;
        for (const disk::DataRun& run : a.runs)
            runs.push_back({static_cast<std::int64_t>(run.vcn + run.length), run.lcn});
        allocatedClusters = a.runs.empty() ? 0 : a.runs.back().vcn + a.runs.back().length;
    }
    return replyRetrievalPointers(runs, allocatedClusters, inBuffer, inBufferSize, outBuffer,
                                  outBufferSize, bytesReturned);
}

DWORD readBitmapBytes(void* context, std::uint64_t firstByte, std::uint8_t* out,
                      std::size_t length) {
    const auto& bitmap = *static_cast<const std::vector<std::uint8_t>*>(context);
    for (std::size_t i = 0; i < length; ++i)
        out[i] = firstByte + i < bitmap.size() ? bitmap[firstByte + i] : 0xFF;
    return 0;
}

DWORD fatBitmap(const AttachedVolume& volume, LPVOID inBuffer, DWORD inBufferSize, LPVOID outBuffer,
                DWORD outBufferSize, LPDWORD bytesReturned) {
    std::vector<std::uint8_t> bitmap;
    if (const DWORD error = disk::fatAllocationBitmap(*volume.bytes, volume.boot, bitmap))
        return error;
    return replyVolumeBitmap(volume.boot.totalClusters, readBitmapBytes, &bitmap, inBuffer,
                             inBufferSize, outBuffer, outBufferSize, bytesReturned);
}

DWORD readNtfsBitmap(void* context, std::uint64_t firstByte, std::uint8_t* out,
                     std::size_t length) {
    return static_cast<const disk::NtfsVolume*>(context)->readBitmap(firstByte, out, length);
}

BOOL DiskImageApi::DeviceIoControl(HANDLE handle, DWORD ioControlCode, LPVOID inBuffer,
                                   DWORD inBufferSize, LPVOID outBuffer, DWORD outBufferSize,
                                   LPDWORD bytesReturned, LPOVERLAPPED overlapped) {
    const auto object = lookupHandle(handle);
    if (!object)
        return fail(ERROR_INVALID_HANDLE);
    if (overlapped != nullptr)
        return fail(ERROR_NOT_SUPPORTED);
    DWORD returned = 0;
    DWORD error = ERROR_INVALID_FUNCTION;
    const bool onVolume = object->kind == OpenObject::Kind::Volume;
    const bool onFile = object->kind == OpenObject::Kind::File;
    const bool ntfs = (onVolume || onFile) && object->volume->boot.kind == FileSystemKind::Ntfs;
    const bool mounted = ntfs && object->volume->ntfs != nullptr;
    switch (ioControlCode) {
    case IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS:
        if (onVolume) {
            const VolumeInfo& info = object->volume->info;
            error = replyDiskExtents({{info.diskNumber, info.offset, info.length}}, outBuffer,
                                     outBufferSize, &returned);
        }
        break;
    case FSCTL_GET_NTFS_VOLUME_DATA:
        // File systems other than NTFS do not know the request
        // (STATUS_INVALID_DEVICE_REQUEST, i.e. ERROR_INVALID_FUNCTION).
        if (ntfs && !mounted) {
            error = ERROR_UNRECOGNIZED_VOLUME;
        } else if (mounted && onFile) {
            error = ERROR_INVALID_PARAMETER; // NTFS answers on a volume handle only
        } else if (mounted) {
            NTFS_VOLUME_DATA_BUFFER data;
            error = ntfsVolumeData(*object->volume, data);
            if (error == 0)
                error = replyNtfsVolumeData(data, outBuffer, outBufferSize, &returned);
        }
        break;
    case FSCTL_GET_RETRIEVAL_POINTERS:
        if (ntfs && !mounted)
            error = ERROR_UNRECOGNIZED_VOLUME;
        else if (mounted && onFile)
            error = retrievalPointers(*object, inBuffer, inBufferSize, outBuffer, outBufferSize,
                                      &returned);
        else if (mounted)
            error = ERROR_INVALID_PARAMETER; // the bad-cluster map of a volume is not offered
        else if (onVolume || onFile)
            error = ERROR_NOT_SUPPORTED; // FAT and exFAT files are not resolved here
        break;
    case FSCTL_GET_VOLUME_BITMAP:
        if (ntfs && !mounted)
            error = ERROR_UNRECOGNIZED_VOLUME;
        else if (mounted && onVolume)
            error = replyVolumeBitmap(object->volume->ntfs->boot().totalClusters, readNtfsBitmap,
                                      const_cast<disk::NtfsVolume*>(object->volume->ntfs.get()),
                                      inBuffer, inBufferSize, outBuffer, outBufferSize, &returned);
        else if (mounted)
            error = ERROR_INVALID_PARAMETER; // needs a volume handle
        else if (onVolume)
            error = fatBitmap(*object->volume, inBuffer, inBufferSize, outBuffer, outBufferSize,
                              &returned);
        break;
    default:
        break;
    }
    if (bytesReturned != nullptr)
        *bytesReturned = returned;
    if (error != 0)
        return fail(error);
    return succeed();
}

DWORD DiskImageApi::resolveVolumeRoot(LPCWSTR rootPathName,
                                      std::shared_ptr<const AttachedVolume>& volume) {
    const DevicePath path = disk::parseDevicePath(rootPathName);
    if (path.kind == DevicePath::Kind::Invalid)
        return path.error;
    // Volume information is asked of a root directory: "X:\" or "\\.\X:\".
    if (path.kind != DevicePath::Kind::File || !path.components.empty() || !path.trailingSeparator)
        return ERROR_INVALID_NAME;
    volume = disk::currentDiskSet()->volumeByLetter(path.letter);
    if (!volume)
        return ERROR_PATH_NOT_FOUND;
    if (volume->boot.kind == FileSystemKind::Ntfs && !volume->ntfs)
        return ERROR_UNRECOGNIZED_VOLUME;
    return 0;
}

BOOL DiskImageApi::GetVolumeInformationW(LPCWSTR rootPathName, LPWSTR volumeNameBuffer,
                                         DWORD volumeNameSize, LPDWORD volumeSerialNumber,
                                         LPDWORD maximumComponentLength, LPDWORD fileSystemFlags,
                                         LPWSTR fileSystemNameBuffer, DWORD fileSystemNameSize) {
    std::shared_ptr<const AttachedVolume> volume;
    if (const DWORD error = resolveVolumeRoot(rootPathName, volume))
        return fail(error);
    const bool ntfs = volume->boot.kind == FileSystemKind::Ntfs;
    const WideString label = toWide(ntfs ? volume->ntfs->label() : volume->label);
    const WideString name = toWide(disk::fileSystemName(volume->boot.kind));
    if (!copyOut(label, volumeNameBuffer, volumeNameSize) ||
        !copyOut(name, fileSystemNameBuffer, fileSystemNameSize))
        return fail(ERROR_BAD_LENGTH);
    if (volumeSerialNumber != nullptr)
        *volumeSerialNumber = static_cast<DWORD>(volume->boot.serialNumber & 0xFFFFFFFFu);
    if (maximumComponentLength != nullptr)
        *maximumComponentLength = kMaxComponentLength;
    if (fileSystemFlags != nullptr)
        *fileSystemFlags = ntfs ? kNtfsFlags : kFatFlags;
    return succeed();
}

BOOL DiskImageApi::GetDiskFreeSpaceW(LPCWSTR rootPathName, LPDWORD sectorsPerCluster,
                                     LPDWORD bytesPerSector, LPDWORD numberOfFreeClusters,
                                     LPDWORD totalNumberOfClusters) {
    std::shared_ptr<const AttachedVolume> volume;
    if (const DWORD error = resolveVolumeRoot(rootPathName, volume))
        return fail(error);
    std::uint64_t freeClusters = 0;
    const DWORD error = volume->ntfs
                            ? disk::countNtfsFreeClusters(*volume, freeClusters)
                            : disk::fatFreeClusters(*volume->bytes, volume->boot, freeClusters);
    if (error != 0)
        return fail(error);
    // The 32-bit counts of this call saturate on volumes with more clusters.
    constexpr std::uint64_t kMax = 0xFFFFFFFFu;
    if (sectorsPerCluster != nullptr)
        *sectorsPerCluster = volume->boot.sectorsPerCluster;
    if (bytesPerSector != nullptr)
        *bytesPerSector = volume->boot.bytesPerSector;
    if (numberOfFreeClusters != nullptr)
        *numberOfFreeClusters = static_cast<DWORD>(std::min(freeClusters, kMax));
    if (totalNumberOfClusters != nullptr)
        *totalNumberOfClusters = static_cast<DWORD>(std::min(volume->boot.totalClusters, kMax));
    return succeed();
}

DWORD DiskImageApi::GetFileAttributesW(LPCWSTR fileName) {
    const DevicePath path = disk::parseDevicePath(fileName);
    DWORD error = 0;
    if (path.kind == DevicePath::Kind::Invalid)
        error = path.error;
    else if (path.kind != DevicePath::Kind::File)
        error = ERROR_INVALID_FUNCTION; // devices have no file attributes
    std::shared_ptr<const AttachedVolume> volume;
    disk::NtfsFileInfo file;
    if (error == 0)
        error = resolveFile(path, volume, file);
    if (error != 0) {
        setThreadLastError(error);
        return INVALID_FILE_ATTRIBUTES;
    }
    setThreadLastError(ERROR_SUCCESS);
    return file.attributes;
}

BOOL DiskImageApi::GlobalMemoryStatusEx(LPMEMORYSTATUSEX buffer) {
    if (buffer == nullptr || buffer->dwLength != sizeof(MEMORYSTATUSEX))
        return fail(ERROR_INVALID_PARAMETER);
#if defined(_WIN32)
    if (!::GlobalMemoryStatusEx(buffer))
        return FALSE;
#else
    if (!queryHostMemory(*buffer))
        return fail(ERROR_NOT_ENOUGH_MEMORY);
#endif
    return succeed();
}

} // namespace

Api& diskImageApi() {
    static DiskImageApi api;
    attachDisksFromEnvironmentOnce();
    return api;
}

} // namespace kestrow::platform
