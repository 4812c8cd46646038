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
    try {
        return runCommand(session);
    } catch (const kestrow::platform::StructuredException& error) {
        // The session still holds the assertion's log line: say what failed.
        throw CommandError(internalCheckMessage(error.code(), session.lastLibraryFailure()));
    }
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
