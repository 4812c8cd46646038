// Running the Linux oracle tools from a Windows test program under Wine.
//
// The Sleuth Kit and NTFS-3G's tools are Linux programs. Wine starts a Unix
// program handed to CreateProcess, but neither returns its output through
// pipes nor reports when it ends. So the tool runs under /bin/sh with its
// output, errors and exit status sent to files in a private directory; the
// status file is renamed into place last, and its appearance says the tool
// is done. Windows paths among the arguments (the images, scratch copies in
// the Windows temporary directory) are turned into the Unix paths Wine maps
// them to.
#ifdef _WIN32

#include "WineTools.h"

#include <windows.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <sstream>
#include <thread>

namespace kestrow::test::oracle {

namespace {

// Wine's own export: the Unix path of a Windows path, on the process heap.
using UnixFileNameFunction = char* (*)(LPCWSTR);

UnixFileNameFunction unixFileNameFunction() {
    const HMODULE kernel32 = ::GetModuleHandleW(L"kernel32.dll");
    if (kernel32 == nullptr)
        return nullptr;
    return reinterpret_cast<UnixFileNameFunction>(
        reinterpret_cast<void (*)()>(::GetProcAddress(kernel32, "wine_get_unix_file_name")));
}

std::string unixPath(const std::filesystem::path& path) {
    const auto convert = unixFileNameFunction();
    if (convert == nullptr)
        throw OracleError("not running under Wine: cannot reach the Linux tools");
    const std::wstring absolute = std::filesystem::absolute(path).wstring();
    char* converted = convert(absolute.c_str());
    if (converted == nullptr)
        throw OracleError("Wine has no Unix path for " + path.string());
    std::string result(converted);
    ::HeapFree(::GetProcessHeap(), 0, converted);
    return result;
}

// "C:\..." or "Z:/...": an argument that names a file by its Windows path.
bool isWindowsPath(const std::string& argument) {
    return argument.size() >= 3 && std::isalpha(static_cast<unsigned char>(argument[0])) &&
           argument[1] == ':' && (argument[2] == '\\' || argument[2] == '/');
}

// One argument of a Windows command line, as CommandLineToArgvW reads it back.
std::string windowsQuote(const std::string& argument) {
    std::string quoted = "\"";
    std::size_t backslashes = 0;
    for (char c : argument) {
        if (c == '\\') {
            ++backslashes;
            continue;
        }
        if (c == '"')
            quoted.append(backslashes * 2 + 1, '\\');
        else
            quoted.append(backslashes, '\\');
        backslashes = 0;
        quoted += c;
    }
    quoted.append(backslashes * 2, '\\');
    quoted += '"';
    return quoted;
}

std::string readWhole(const std::filesystem::path& file) {
    std::ifstream in(file, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

std::filesystem::path privateDirectory() {
    static std::atomic<unsigned> counter{0};
    const auto base = std::filesystem::temp_directory_path();
    for (int attempt = 0; attempt < 100; ++attempt) {
        const auto candidate = base / ("kestrow-tool-" + std::to_string(::GetCurrentProcessId()) +
                                       "-" + std::to_string(counter++));
        if (std::filesystem::create_directory(candidate))
            return candidate;
    }
    throw OracleError("cannot create a directory in " + base.string());
}

// Removes the directory however the run ends.
struct DirectoryGuard {
    std::filesystem::path path;
    ~DirectoryGuard() {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }
};

constexpr auto kToolTimeout = std::chrono::minutes(5);

} // namespace

ToolOutput runToolUnderWine(const std::vector<std::string>& argv) {
    if (argv.empty())
        throw OracleError("no tool to run");
    const DirectoryGuard directory{privateDirectory()};
    const std::string unixDirectory = unixPath(directory.path);

    std::string script;
    for (const auto& argument : argv)
        script += shellQuote(isWindowsPath(argument) ? unixPath(argument) : argument) + " ";
    const std::string status = unixDirectory + "/status";
    script += ">" + shellQuote(unixDirectory + "/out") + " 2>" +
              shellQuote(unixDirectory + "/err") + "; echo $? >" + shellQuote(status + ".tmp") +
              " && mv " + shellQuote(status + ".tmp") + " " + shellQuote(status);

    std::string commandLine = "/bin/sh -c " + windowsQuote(script);
    STARTUPINFOA startup = {};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION process = {};
    if (!::CreateProcessA(nullptr, commandLine.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr,
                          &startup, &process))
        throw OracleError("cannot start /bin/sh for: " + script + " (error " +
                          std::to_string(::GetLastError()) + ")");
    ::CloseHandle(process.hThread);
    ::CloseHandle(process.hProcess);

    const auto statusFile = directory.path / "status";
    const auto deadline = std::chrono::steady_clock::now() + kToolTimeout;
    while (!std::filesystem::exists(statusFile)) {
        if (std::chrono::steady_clock::now() > deadline)
            throw OracleError("no end after 5 minutes: " + script);
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }

    ToolOutput output;
    output.exitCode = std::stoi(readWhole(statusFile));
    output.out = readWhole(directory.path / "out");
    output.err = readWhole(directory.path / "err");
    return output;
}

} // namespace kestrow::test::oracle

#endif // _WIN32
