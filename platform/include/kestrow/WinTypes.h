// The Windows types, constants and control structures the library uses.
//
// On Windows they come from <windows.h> and <winioctl.h>. Elsewhere this
// header declares the same names with the same sizes and layouts, so that the
// code above the platform boundary reads identically on every system.
#pragma once

#if defined(_WIN32)

#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>
#include <winioctl.h>

#else // !_WIN32

#include <cstdint>

typedef void* HANDLE;
typedef std::uint32_t DWORD;
typedef std::int32_t LONG;
typedef std::int32_t BOOL;
typedef std::uint16_t WORD;
typedef std::uint8_t BYTE;
typedef std::int64_t LONGLONG;
typedef std::uint64_t ULONGLONG;
typedef std::uint64_t DWORDLONG;
typedef std::uintptr_t ULONG_PTR;
typedef ULONG_PTR SIZE_T;
typedef char16_t WCHAR;
typedef WCHAR* LPWSTR;
typedef const WCHAR* LPCWSTR;
typedef DWORD* LPDWORD;
typedef void* LPVOID;
typedef const void* LPCVOID;

struct _SECURITY_ATTRIBUTES;
typedef struct _SECURITY_ATTRIBUTES SECURITY_ATTRIBUTES;
typedef SECURITY_ATTRIBUTES* LPSECURITY_ATTRIBUTES;
struct _OVERLAPPED;
typedef struct _OVERLAPPED OVERLAPPED;
typedef OVERLAPPED* LPOVERLAPPED;

#ifndef TRUE
#define TRUE 1
#endif
#ifndef FALSE
#define FALSE 0
#endif

#define INVALID_HANDLE_VALUE ((HANDLE)(std::intptr_t)-1)
#define INVALID_FILE_ATTRIBUTES ((DWORD)0xFFFFFFFF)

#define GENERIC_READ 0x80000000u
#define GENERIC_WRITE 0x40000000u
#define FILE_SHARE_READ 0x00000001u
#define FILE_SHARE_WRITE 0x00000002u
#define FILE_SHARE_DELETE 0x00000004u
#define CREATE_NEW 1u
#define CREATE_ALWAYS 2u
#define OPEN_EXISTING 3u
#define OPEN_ALWAYS 4u
#define TRUNCATE_EXISTING 5u
#define FILE_FLAG_OVERLAPPED 0x40000000u
#define FILE_FLAG_NO_BUFFERING 0x20000000u
#define FILE_FLAG_BACKUP_SEMANTICS 0x02000000u
#define FILE_ATTRIBUTE_READONLY 0x00000001u
#define FILE_ATTRIBUTE_HIDDEN 0x00000002u
#define FILE_ATTRIBUTE_SYSTEM 0x00000004u
#define FILE_ATTRIBUTE_ARCHIVE 0x00000020u
#define FILE_ATTRIBUTE_DIRECTORY 0x00000010u
#define FILE_ATTRIBUTE_NORMAL 0x00000080u
#define FILE_BEGIN 0u
#define FILE_CURRENT 1u
#define FILE_END 2u

#define FILE_CASE_SENSITIVE_SEARCH 0x00000001u
#define FILE_CASE_PRESERVED_NAMES 0x00000002u
#define FILE_UNICODE_ON_DISK 0x00000004u
#define FILE_PERSISTENT_ACLS 0x00000008u
#define FILE_FILE_COMPRESSION 0x00000010u
#define FILE_VOLUME_QUOTAS 0x00000020u
#define FILE_SUPPORTS_SPARSE_FILES 0x00000040u
#define FILE_SUPPORTS_REPARSE_POINTS 0x00000080u
#define FILE_SUPPORTS_OBJECT_IDS 0x00010000u
#define FILE_SUPPORTS_ENCRYPTION 0x00020000u
#define FILE_NAMED_STREAMS 0x00040000u
#define FILE_READ_ONLY_VOLUME 0x00080000u
#define FILE_SUPPORTS_HARD_LINKS 0x00400000u
#define FILE_SUPPORTS_EXTENDED_ATTRIBUTES 0x00800000u
#define FILE_SUPPORTS_USN_JOURNAL 0x02000000u

#define MEM_COMMIT 0x00001000u
#define MEM_RESERVE 0x00002000u
#define MEM_RELEASE 0x00008000u

#define PAGE_READWRITE 0x04u

#define ERROR_SUCCESS 0L
#define ERROR_INVALID_FUNCTION 1L
#define ERROR_FILE_NOT_FOUND 2L
#define ERROR_PATH_NOT_FOUND 3L
#define ERROR_ACCESS_DENIED 5L
#define ERROR_INVALID_HANDLE 6L
#define ERROR_TOO_MANY_OPEN_FILES 4L
#define ERROR_NOT_ENOUGH_MEMORY 8L
#define ERROR_INVALID_DRIVE 15L
#define ERROR_WRITE_PROTECT 19L
#define ERROR_NOT_READY 21L
#define ERROR_CRC 23L
#define ERROR_BAD_LENGTH 24L
#define ERROR_SECTOR_NOT_FOUND 27L
#define ERROR_READ_FAULT 30L
#define ERROR_HANDLE_EOF 38L
#define ERROR_NOT_SUPPORTED 50L
#define ERROR_BAD_NETPATH 53L
#define ERROR_FILE_EXISTS 80L
#define ERROR_INVALID_PARAMETER 87L
#define ERROR_INSUFFICIENT_BUFFER 122L
#define ERROR_INVALID_NAME 123L
#define ERROR_NEGATIVE_SEEK 131L
#define ERROR_ALREADY_EXISTS 183L
#define ERROR_INVALID_ADDRESS 487L
#define ERROR_FILENAME_EXCED_RANGE 206L
#define ERROR_MORE_DATA 234L
#define ERROR_NO_MORE_ITEMS 259L
#define ERROR_DIRECTORY 267L
#define ERROR_UNRECOGNIZED_VOLUME 1005L
#define ERROR_FILE_INVALID 1006L
#define ERROR_IO_DEVICE 1117L
#define ERROR_FILE_CORRUPT 1392L
#define ERROR_DISK_CORRUPT 1393L
#define ERROR_INVALID_USER_BUFFER 1784L

#define FILE_DEVICE_FILE_SYSTEM 0x00000009u
#define IOCTL_VOLUME_BASE 0x00000056u
#define METHOD_BUFFERED 0u
#define METHOD_NEITHER 3u
#define FILE_ANY_ACCESS 0u
#define CTL_CODE(DeviceType, Function, Method, Access)                                             \
    (((DeviceType) << 16) | ((Access) << 14) | ((Function) << 2) | (Method))

#define FSCTL_GET_NTFS_VOLUME_DATA                                                                 \
    CTL_CODE(FILE_DEVICE_FILE_SYSTEM, 25, METHOD_BUFFERED, FILE_ANY_ACCESS)
#define FSCTL_GET_VOLUME_BITMAP                                                                    \
    CTL_CODE(FILE_DEVICE_FILE_SYSTEM, 27, METHOD_NEITHER, FILE_ANY_ACCESS)
#define FSCTL_GET_RETRIEVAL_POINTERS                                                               \
    CTL_CODE(FILE_DEVICE_FILE_SYSTEM, 28, METHOD_NEITHER, FILE_ANY_ACCESS)
#define IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS                                                       \
    CTL_CODE(IOCTL_VOLUME_BASE, 0, METHOD_BUFFERED, FILE_ANY_ACCESS)

typedef union _LARGE_INTEGER {
    struct {
        DWORD LowPart;
        LONG HighPart;
    } u;
    LONGLONG QuadPart;
} LARGE_INTEGER, *PLARGE_INTEGER;

typedef struct {
    LARGE_INTEGER VolumeSerialNumber;
    LARGE_INTEGER NumberSectors;
    LARGE_INTEGER TotalClusters;
    LARGE_INTEGER FreeClusters;
    LARGE_INTEGER TotalReserved;
    DWORD BytesPerSector;
    DWORD BytesPerCluster;
    DWORD BytesPerFileRecordSegment;
    DWORD ClustersPerFileRecordSegment;
    LARGE_INTEGER MftValidDataLength;
    LARGE_INTEGER MftStartLcn;
    LARGE_INTEGER Mft2StartLcn;
    LARGE_INTEGER MftZoneStart;
    LARGE_INTEGER MftZoneEnd;
} NTFS_VOLUME_DATA_BUFFER, *PNTFS_VOLUME_DATA_BUFFER;

typedef struct _DISK_EXTENT {
    DWORD DiskNumber;
    LARGE_INTEGER StartingOffset;
    LARGE_INTEGER ExtentLength;
} DISK_EXTENT, *PDISK_EXTENT;

typedef struct _VOLUME_DISK_EXTENTS {
    DWORD NumberOfDiskExtents;
    DISK_EXTENT Extents[1];
} VOLUME_DISK_EXTENTS, *PVOLUME_DISK_EXTENTS;

typedef struct {
    LARGE_INTEGER StartingVcn;
} STARTING_VCN_INPUT_BUFFER, *PSTARTING_VCN_INPUT_BUFFER;

typedef struct RETRIEVAL_POINTERS_BUFFER {
    DWORD ExtentCount;
    LARGE_INTEGER StartingVcn;
    struct {
        LARGE_INTEGER NextVcn;
        LARGE_INTEGER Lcn;
    } Extents[1];
} RETRIEVAL_POINTERS_BUFFER, *PRETRIEVAL_POINTERS_BUFFER;

typedef struct {
    LARGE_INTEGER StartingLcn;
} STARTING_LCN_INPUT_BUFFER, *PSTARTING_LCN_INPUT_BUFFER;

typedef struct {
    LARGE_INTEGER StartingLcn;
    LARGE_INTEGER BitmapSize;
    BYTE Buffer[1];
} VOLUME_BITMAP_BUFFER, *PVOLUME_BITMAP_BUFFER;

typedef struct _MEMORYSTATUSEX {
    DWORD dwLength;
    DWORD dwMemoryLoad;
    DWORDLONG ullTotalPhys;
    DWORDLONG ullAvailPhys;
    DWORDLONG ullTotalPageFile;
    DWORDLONG ullAvailPageFile;
    DWORDLONG ullTotalVirtual;
    DWORDLONG ullAvailVirtual;
    DWORDLONG ullAvailExtendedVirtual;
} MEMORYSTATUSEX, *LPMEMORYSTATUSEX;

#endif // _WIN32

// The sizes the library's arithmetic depends on, on every system.
static_assert(sizeof(NTFS_VOLUME_DATA_BUFFER) == 96, "NTFS_VOLUME_DATA_BUFFER layout");
static_assert(sizeof(DISK_EXTENT) == 24, "DISK_EXTENT layout");
static_assert(sizeof(VOLUME_DISK_EXTENTS) == 32, "VOLUME_DISK_EXTENTS layout");
static_assert(sizeof(RETRIEVAL_POINTERS_BUFFER) == 32, "RETRIEVAL_POINTERS_BUFFER layout");
static_assert(sizeof(VOLUME_BITMAP_BUFFER) == 24, "VOLUME_BITMAP_BUFFER layout");
static_assert(sizeof(MEMORYSTATUSEX) == 64, "MEMORYSTATUSEX layout");
