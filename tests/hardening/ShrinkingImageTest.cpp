// An image that shrinks under a running kestrow: another program truncates or
// rewrites it, an acquisition restarts. Whatever kestrow was reading then, the
// reads that come after fail, and it must end in exit status 1 with one
// `kestrow:` line: never a signal (as a page of a mapped file past its new end
// would raise), never a hang, never a silently shorter result.
//
// The moment of the truncation is set by kestrow's own diagnostic log (-v) on
// a pipe of one page: a writer cannot get more than a page of text ahead of
// what the test has read, so truncating once the test has read up to a point
// well before a log line means that line, and the read that follows it, have
// not happened yet. The log is the same in every run on the same image, so a
// first run without truncation tells where the reads are.
#include "ToolRun.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace kestrow::test::hardening {
namespace {

namespace fs = std::filesystem;

// Enough files for an MFT of several runs, read by the record buffer in
// several refreshes with pages of log between them.
constexpr int kFiles = 20000;
constexpr std::size_t kPipeBytes = 4096;
// A cluster the tree volume leaves free: its owner search reads every record.
constexpr const char* kFreeCluster = "5000";

struct Outcome {
    int exitCode = -1;
    int signal = 0;
    bool timedOut = false;
    std::string out;
    std::string err;

    std::string describe() const {
        if (timedOut)
            return "killed at the deadline";
        if (signal != 0)
            return "signal " + std::to_string(signal) + " (" + strsignal(signal) + ")";
        return "exit " + std::to_string(exitCode);
    }
};

// When to truncate: with kestrow blocked on its first log line (everything
// it reads from the volume comes after), or once the test has read this many
// bytes of its log.
struct Moment {
    bool atFirstLogLine = false;
    std::size_t afterLogBytes = 0;
};

// True while the process sits in write(2) on its standard error.
bool blockedOnStderr(pid_t pid) {
    std::ifstream syscall("/proc/" + std::to_string(pid) + "/syscall");
    long number = -1;
    std::string fd;
    return syscall >> number >> fd && number == SYS_write && fd == "0x2";
}

void readAvailable(int fd, std::string& into, bool& open) {
    char chunk[65536];
    const ssize_t got = ::read(fd, chunk, sizeof chunk);
    if (got > 0)
        into.append(chunk, static_cast<std::size_t>(got));
    else if (got == 0 || (errno != EINTR && errno != EAGAIN))
        open = false;
}

// Runs kestrow -v with its log on a one-page pipe and truncates `image` to 0
// bytes at the moment given (never, when `moment` is null).
Outcome runTruncating(const std::vector<std::string>& arguments, const fs::path& image,
                      const Moment* moment) {
    std::vector<std::string> command = {KESTROW_TOOL_PATH, "-v", "--disk", image.string()};
    command.insert(command.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (const std::string& a : command)
        argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);

    int outPipe[2];
    int errPipe[2];
    if (::pipe2(outPipe, O_CLOEXEC) != 0 || ::pipe2(errPipe, O_CLOEXEC) != 0)
        throw std::runtime_error("pipe failed");
    // One page: the pipe's size bounds how far kestrow runs ahead of the test.
    if (::fcntl(errPipe[1], F_SETPIPE_SZ, static_cast<int>(kPipeBytes)) !=
        static_cast<int>(kPipeBytes))
        throw std::runtime_error("cannot make a one-page pipe");
    std::string junk;
    if (moment != nullptr && moment->atFirstLogLine) {
        // All but one byte of the page taken: the first line kestrow logs
        // does not fit, and it waits there until the test reads.
        junk.assign(kPipeBytes - 1, '#');
        if (::write(errPipe[1], junk.data(), junk.size()) != static_cast<ssize_t>(junk.size()))
            throw std::runtime_error("cannot fill the pipe");
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, outPipe[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, errPipe[1], STDERR_FILENO);
    pid_t pid = 0;
    const int spawned = ::posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(outPipe[1]);
    ::close(errPipe[1]);
    if (spawned != 0)
        throw std::runtime_error(std::string("cannot start kestrow: ") + std::strerror(spawned));

    Outcome outcome;
    const auto deadline = std::chrono::steady_clock::now() + commandTimeout();
    bool truncated = moment == nullptr;
    auto truncateNow = [&] {
        fs::resize_file(image, 0);
        truncated = true;
    };
    if (!truncated && moment->atFirstLogLine) {
        while (!blockedOnStderr(pid) && std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        truncateNow();
    }
    bool outOpen = true;
    bool errOpen = true;
    std::string log;
    while ((outOpen || errOpen) && !outcome.timedOut) {
        if (std::chrono::steady_clock::now() >= deadline) {
            ::kill(pid, SIGKILL);
            outcome.timedOut = true;
            break;
        }
        pollfd fds[2] = {{outOpen ? outPipe[0] : -1, POLLIN, 0},
                         {errOpen ? errPipe[0] : -1, POLLIN, 0}};
        if (::poll(fds, 2, 100) <= 0)
            continue;
        if (fds[0].revents != 0)
            readAvailable(outPipe[0], outcome.out, outOpen);
        if (fds[1].revents != 0) {
            readAvailable(errPipe[0], log, errOpen);
            if (!truncated && log.size() >= moment->afterLogBytes)
                truncateNow();
        }
    }
    ::close(outPipe[0]);
    ::close(errPipe[0]);
    int status = 0;
    ::waitpid(pid, &status, 0);
    if (WIFEXITED(status))
        outcome.exitCode = WEXITSTATUS(status);
    else if (WIFSIGNALED(status) && !outcome.timedOut)
        outcome.signal = WTERMSIG(status);
    outcome.err = log.substr(std::min(junk.size(), log.size()));
    return outcome;
}

// The lines of kestrow's own (not the library's) messages.
std::vector<std::string> kestrowLines(const std::string& err) {
    std::vector<std::string> lines;
    std::istringstream in(err);
    std::string line;
    while (std::getline(in, line))
        if (line.rfind("kestrow:", 0) == 0)
            lines.push_back(line);
    return lines;
}

// Where truncating makes a read of the record buffer fail: for each refresh
// logged at least two pages into the log, the log offset two pages before
// it (the read follows its "219" line, which kestrow cannot have written by
// then).
std::vector<std::size_t> momentsBeforeRefreshes(const std::string& log) {
    std::vector<std::size_t> moments;
    const std::regex refresh("219 Refreshing buffer from index");
    for (std::sregex_iterator it(log.begin(), log.end(), refresh), end; it != end; ++it) {
        const std::size_t at = static_cast<std::size_t>(it->position());
        if (at >= 2 * kPipeBytes)
            moments.push_back(at - 2 * kPipeBytes);
    }
    return moments;
}

class ShrinkingImage : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        char pattern[] = "/tmp/kestrow-shrink-XXXXXX";
        ASSERT_NE(::mkdtemp(pattern), nullptr);
        directory = pattern;
        pristine = directory / "tree.img";
        const ChildRun built =
            runChild({KESTROW_IMAGE_BUILDER, "tree", pristine.string(), std::to_string(kFiles)},
                     ChildLimits{std::chrono::milliseconds(300000), 0, 4096});
        ASSERT_EQ(built.exitCode, 0) << built.err;
    }
    static void TearDownTestSuite() {
        std::error_code ignored;
        if (!directory.empty())
            fs::remove_all(directory, ignored);
    }

    // A fresh copy for a run to truncate.
    static fs::path copy() {
        const fs::path target = directory / "copy.img";
        fs::copy_file(pristine, target, fs::copy_options::overwrite_existing);
        return target;
    }

    // Truncates a copy under `arguments` at the moment given and expects the
    // one-line failure.
    static void expectOneLineFailure(const std::vector<std::string>& arguments,
                                     const Moment& moment, const std::string& when) {
        const Outcome outcome = runTruncating(arguments, copy(), &moment);
        std::string command;
        for (const std::string& a : arguments)
            command += " " + a;
        const std::vector<std::string> lines = kestrowLines(outcome.err);
        EXPECT_EQ(outcome.exitCode, 1)
            << "kestrow" << command << ", truncated " << when << ": " << outcome.describe() << "\n"
            << outcome.err.substr(outcome.err.size() > 2000 ? outcome.err.size() - 2000 : 0);
        ASSERT_EQ(lines.size(), 1u) << "kestrow" << command << ", truncated " << when;
        EXPECT_NE(lines[0].find("cannot read"), std::string::npos) << lines[0];
        std::cout << "kestrow" << command << ", truncated " << when << ": " << lines[0] << "\n";
    }

    static fs::path directory;
    static fs::path pristine;
};

fs::path ShrinkingImage::directory;
fs::path ShrinkingImage::pristine;

// Truncated once kestrow has attached the image and before the library reads
// any of it: every command that reads the volume fails in one line.
TEST_F(ShrinkingImage, EveryCommandFailsInOneLineWhenTheImageShrinksAtTheStart) {
    const std::vector<std::vector<std::string>> commands = {
        {"info", "C:"},
        {"record", "C:", "5"},
        {"ls", "C:", "5"},
        {"paths", "C:"},
        {"find", "C:", "/$MFT"},
        {"owner", "C:", "100"},
        {"extents", "C:", "/$MFT"},
        {"dump", "C:", "2048"},
        {"bitmap", "C:"},
    };
    Moment start;
    start.atFirstLogLine = true;
    for (const std::vector<std::string>& command : commands)
        expectOneLineFailure(command, start, "at its first log line");
}

// Truncated in the middle of a walk over the whole MFT, before each of its
// refreshes of the record buffer in turn.
TEST_F(ShrinkingImage, WholeTableWalksFailInOneLineWhenTheImageShrinksMidway) {
    const std::vector<std::vector<std::string>> commands = {
        {"paths", "C:"}, {"find", "C:", "/no/such/file"}, {"owner", "C:", kFreeCluster}};
    for (const std::vector<std::string>& command : commands) {
        const fs::path image = copy();
        const Outcome whole = runTruncating(command, image, nullptr);
        ASSERT_TRUE(whole.exitCode == 0 || kestrowLines(whole.err).size() == 1)
            << whole.describe() << "\n"
            << whole.err.substr(0, 2000);
        const std::vector<std::size_t> moments = momentsBeforeRefreshes(whole.err);
        ASSERT_FALSE(moments.empty()) << command[0] << ": no refresh two pages into the log";
        for (const std::size_t bytes : moments) {
            Moment midway;
            midway.afterLogBytes = bytes;
            expectOneLineFailure(command, midway,
                                 "after " + std::to_string(bytes) + " bytes of its log");
        }
    }
}

} // namespace
} // namespace kestrow::test::hardening
