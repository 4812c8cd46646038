// The implementations of the platform Api that current() chooses between,
// and the small pieces they share.
#pragma once

#include <kestrow/Platform.h>

namespace kestrow::platform {

// The disk-image backend (attached images and block devices).
Api& diskImageApi();

#if defined(_WIN32)
// The real Win32 API.
Api& win32Api();
#endif

// Attaches the disks of KESTROW_DISKS the first time it is called in the
// process (and only if the host attached none by then); a failure is
// reported on stderr, since no caller is there to hear it.
void attachDisksFromEnvironmentOnce();

// The calling thread's last error, as the default Api::GetLastError and
// Api::SetLastError keep it. Backends set it through these so that an Api
// installed by a test never sees the backend's bookkeeping.
DWORD threadLastError();
void setThreadLastError(DWORD code);

// Windows' English message text for an error code (with its "\r\n"), or a
// fallback naming the code when the code is not one the library meets.
WideString englishErrorText(DWORD code);

// Fills the memory figures of the host (dwLength must already be 64).
bool queryHostMemory(MEMORYSTATUSEX& status);

} // namespace kestrow::platform
