// kestrow: the host's view of libKestrow on the command line.
//
// Every failure ends in one line on stderr and a non-zero exit status: the
// library's own exceptions (a failed internal check, a missing map key) are
// caught here like any other, so that bad disk data never shows as a crash.
#include "Cli.h"
#include "Commands.h"
#include "Output.h"
#include "Session.h"

#include <libKestrow/Version.h>

#include <kestrow/Platform.h>

#include <orv/Exception.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <new>
#include <string>

#if defined(_WIN32)
#include <windows.h>
#endif

namespace {

using namespace kestrow::tool;

#if defined(_WIN32)
// On Windows a failed check of the library raises a real structured
// exception, which no C++ handler sees: this last-chance filter gives it the
// same one line and exit status as every other failure.
LONG WINAPI reportStructuredException(EXCEPTION_POINTERS* info) {
    std::fflush(stdout);
    std::fprintf(stderr,
                 "kestrow: the library stopped on a failed internal check (code %lu); the "
                 "volume's data may be damaged\n",
                 static_cast<unsigned long>(info->ExceptionRecord->ExceptionCode));
    std::fflush(stderr);
    std::_Exit(EXIT_FAILED);
}
#endif

void printError(const std::string& message) {
    std::fflush(stdout);
    std::fprintf(stderr, "kestrow: %s\n", message.c_str());
}

std::string internalCheckMessage(unsigned long code, const std::string& reason) {
    return "the library stopped on a failed internal check (code " + std::to_string(code) + ")" +
           (reason.empty() ? std::string() : ": " + reason) + "; the volume's data may be damaged";
}

#if defined(__SANITIZE_ADDRESS__)
#define KESTROW_LEAK_CHECKED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define KESTROW_LEAK_CHECKED 1
#endif
#endif

// Once the command has printed everything, the process ends here without
// taking down what it built: a whole-MFT command holds hundreds of thousands
// of record summaries, and freeing them one by one (with the record buffer's
// pages) only costs time on the way out; the system takes the memory back
// at once. Nothing is left to write: the drives are open read-only. Builds
// that check for leaks take the long way, so that the checker still sees
// every block returned.
void exitWithoutTeardown([[maybe_unused]] Session& session, [[maybe_unused]] int status) {
#if !defined(KESTROW_LEAK_CHECKED)
    session.finishOutput();
    std::fflush(stdout);
    std::fflush(stderr);
    std::_Exit(status);
#endif
}

int run(int argc, char** argv) {
    const Options options = parseCommandLine(argc, argv);
    if (options.version) {
        std::printf("kestrow %s\n", kestrowVersion());
        return EXIT_OK;
    }
    if (options.help || options.command.empty()) {
        const std::string text = helpText(options.command);
        std::fputs(text.c_str(), options.help ? stdout : stderr);
        return options.help ? EXIT_OK : EXIT_USAGE;
    }
    Session session(options);
    int status = EXIT_FAILED;
    try {
        status = runCommand(session);
    } catch (const kestrow::platform::StructuredException& error) {
        // The session still holds the assertion's log line: say what failed.
        throw CommandError(internalCheckMessage(error.code(), session.lastLibraryFailure()));
    }
    exitWithoutTeardown(session, status);
    return status;
}

} // namespace

int main(int argc, char** argv) {
#if defined(_WIN32)
    SetUnhandledExceptionFilter(&reportStructuredException);
#endif
    try {
        return run(argc, argv);
    } catch (const CommandError& error) {
        printError(error.what());
        return error.status();
    } catch (const kestrow::platform::StructuredException& error) {
        printError(internalCheckMessage(error.code(), std::string()));
        return EXIT_FAILED;
    } catch (const orv::HashKeyMissing& error) {
        printError("the library looked up a missing entry: " + utf8(error.key()));
        return EXIT_FAILED;
    } catch (const orv::Exception& error) {
        printError("library error: " + utf8(error.message()));
        return EXIT_FAILED;
    } catch (const std::bad_alloc&) {
        printError("out of memory");
        return EXIT_FAILED;
    } catch (const std::exception& error) {
        printError(error.what());
        return EXIT_FAILED;
    } catch (...) {
        printError("unexpected error");
        return EXIT_FAILED;
    }
}
