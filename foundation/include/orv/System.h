// The operating system as the foundation sees it: error codes and texts,
// file existence.
#pragma once

#include <kestrow/Export.h>

#include <orv/String.h>

namespace orv {

struct KESTROW_API System {
    // The calling thread's last OS error code.
    static unsigned int getSystemError();
    // The OS's text for the code (the flag is accepted and ignored).
    static String getSystemErrorMsg(unsigned long code, bool flag);
};

struct KESTROW_API FileSystem {
    // True when the path names an existing file or directory.
    static bool exists(const String& path);
};

} // namespace orv
