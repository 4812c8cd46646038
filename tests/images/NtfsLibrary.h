// The NTFS-3G library's headers, with the configuration macros of the
// library's own build that they expect.
#pragma once

#define HAVE_STDINT_H 1
#define HAVE_STDARG_H 1
#define HAVE_STDIO_H 1
#define HAVE_STDDEF_H 1
#define HAVE_TIME_H 1
#define HAVE_STRUCT_TIMESPEC 1
#define HAVE_SYS_TYPES_H 1
#define HAVE_SYS_STAT_H 1
#define HAVE_SYS_PARAM_H 1

extern "C" {
#include <ntfs-3g/attrib.h>
#include <ntfs-3g/dir.h>
#include <ntfs-3g/inode.h>
#include <ntfs-3g/logging.h>
#include <ntfs-3g/types.h>
#include <ntfs-3g/volume.h>
}

// The library's support.h defines these as macros, which would break <algorithm>.
#undef min
#undef max
