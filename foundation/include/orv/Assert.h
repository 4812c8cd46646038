// Reporting of failed foundation assertions.
#pragma once

#include <kestrow/Export.h>

namespace orv {

// The structured exception code raised after a failed assertion.
constexpr unsigned long ASSERTION_EXCEPTION_CODE = 7;

struct KESTROW_API AssertionFailure {
    // Reports a failed assertion through the log; the caller raises afterwards.
    static void logAssert(const char* file, unsigned long long line, const char* expression);

    // Reports the assertion, then raises the structured exception with code 7,
    // no flags and no arguments (RaiseException on Windows; elsewhere a C++
    // exception of type kestrow::platform::StructuredException).
    [[noreturn]] static void fail(const char* file, unsigned long long line,
                                  const char* expression);
};

} // namespace orv
