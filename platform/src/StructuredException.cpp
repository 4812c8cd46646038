#include <kestrow/Platform.h>

#include <cstdlib>

namespace kestrow::platform {

void RaiseException(DWORD code, DWORD flags, DWORD numberOfArguments, const ULONG_PTR* arguments) {
#if defined(_WIN32)
    ::RaiseException(code, flags, numberOfArguments, arguments);
    // A continuable exception can come back here; the caller was promised
    // that control never returns, so the process ends rather than resume.
    std::abort();
#else
    (void)flags;
    (void)numberOfArguments;
    (void)arguments;
    throw StructuredException(code);
#endif
}

} // namespace kestrow::platform
