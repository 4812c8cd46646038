// The kestrow command line: options, commands and their help texts.
#pragma once

#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace kestrow::tool {

// Exit statuses.
constexpr int EXIT_OK = 0;
constexpr int EXIT_FAILED = 1; // the command could not do its job
constexpr int EXIT_USAGE = 2;  // the command line was wrong

// A failure the user is told about in one line; `status` is the exit status.
class CommandError : public std::runtime_error {
public:
    explicit CommandError(const std::string& message, int status = EXIT_FAILED)
        : std::runtime_error(message), m_status(status) {}
    int status() const { return m_status; }

private:
    int m_status;
};

class UsageError : public CommandError {
public:
    explicit UsageError(const std::string& message) : CommandError(message, EXIT_USAGE) {}
};

struct Options {
    std::vector<std::string> disks;    // --disk PATH, in order
    bool json = false;                 // --json
    bool verbose = false;              // -v
    bool help = false;                 // --help
    bool version = false;              // --version
    std::optional<unsigned int> drive; // --drive N (dump)
    bool all = false;                  // --all (record: the analysts' reader)
    bool csv = false;                  // --csv (timeline)
    bool jsonl = false;                // --jsonl (timeline)
    std::string command;
    std::vector<std::string> arguments;
};

// Options may stand anywhere on the line; "--" ends them.
Options parseCommandLine(int argc, char** argv);

// The general help, or one command's help (empty command: general).
std::string helpText(const std::string& command);
bool isCommand(const std::string& name);
// The usage line(s) of one command.
std::string usageOf(const std::string& command);

// Parses an unsigned decimal or 0x-prefixed hexadecimal number; `what` names
// the argument in the error.
unsigned long long parseNumber(const std::string& text, const char* what);

// "C", "C:", "c:", "C:\" -> 'C'.
char parseDriveLetter(const std::string& text);

} // namespace kestrow::tool
