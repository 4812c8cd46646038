#include <orv/Assert.h>
#include <orv/Logger.h>
#include <orv/SharedResource.h>
#include <orv/System.h>

#include <kestrow/Platform.h>

#include <cstdio>

namespace orv {

namespace platform = kestrow::platform;

unsigned int System::getSystemError() { return platform::GetLastError(); }

String System::getSystemErrorMsg(unsigned long code, bool) {
    const platform::WideString text = platform::errorMessage(static_cast<DWORD>(code));
    return String(text.data(), static_cast<unsigned int>(text.size()));
}

bool FileSystem::exists(const String& path) {
    return platform::GetFileAttributesW(path.getUCS2Buffer()) != INVALID_FILE_ATTRIBUTES;
}

namespace {
LogArea s_assertionLog("orv.Assertion");
}

void AssertionFailure::logAssert(const char* file, unsigned long long line,
                                 const char* expression) {
    if (Logger* logger = s_assertionLog.enabled(LoggerPriority::LP_FATAL)) {
        char where[32];
        std::snprintf(where, sizeof where, ", line %llu: ", line);
        logger->log(LoggerPriority::LP_FATAL,
                    LoggerStream() << "Assertion failed in " << file << where << expression);
    }
}

void AssertionFailure::fail(const char* file, unsigned long long line, const char* expression) {
    logAssert(file, line, expression);
    platform::RaiseException(static_cast<DWORD>(ASSERTION_EXCEPTION_CODE), 0, 0, nullptr);
}

CreateFileOpenArgs::CreateFileOpenArgs(const String& path, unsigned int desiredAccess,
                                       unsigned int shareMode, unsigned int creationDisposition,
                                       unsigned int flagsAndAttributes)
    : path(path), desiredAccess(desiredAccess), shareMode(shareMode),
      creationDisposition(creationDisposition), flagsAndAttributes(flagsAndAttributes) {}

HANDLE FileHandleResManager::open(const CreateFileOpenArgs& args) {
    return platform::CreateFileW(args.path.getUCS2Buffer(), args.desiredAccess, args.shareMode,
                                 nullptr, args.creationDisposition, args.flagsAndAttributes,
                                 nullptr);
}

void FileHandleResManager::destroy(HANDLE& handle) { platform::CloseHandle(handle); }

SharedResourceManagerCommonBase::~SharedResourceManagerCommonBase() = default;
SharedResourceManagerUnlockedBase::~SharedResourceManagerUnlockedBase() = default;

} // namespace orv
