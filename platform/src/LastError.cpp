#include "Backends.h"

namespace kestrow::platform {

#if defined(_WIN32)

DWORD threadLastError() {
    return ::GetLastError();
}

void setThreadLastError(DWORD code) {
    ::SetLastError(code);
}

#else

namespace {
// One slot per thread, as Windows keeps it in the thread environment block.
thread_local DWORD t_lastError = ERROR_SUCCESS;
} // namespace

DWORD threadLastError() {
    return t_lastError;
}

void setThreadLastError(DWORD code) {
    t_lastError = code;
}

#endif

DWORD Api::GetLastError() {
    return threadLastError();
}

void Api::SetLastError(DWORD code) {
    setThreadLastError(code);
}

WideString Api::errorMessage(DWORD code) {
    return englishErrorText(code);
}

} // namespace kestrow::platform
