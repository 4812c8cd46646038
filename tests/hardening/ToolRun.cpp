#include "ToolRun.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define KESTROW_HARDENING_ASAN 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__)
#define KESTROW_HARDENING_ASAN 1
#endif

extern char** environ;

namespace kestrow::test::hardening {

namespace {

void closeQuietly(int& fd) {
    if (fd >= 0)
        ::close(fd);
    fd = -1;
}

} // namespace

std::string ChildRun::outcome() const {
    if (timedOut)
        return "killed after " + std::to_string(seconds) + " s";
    if (signal != 0)
        return "signal " + std::to_string(signal) + " (" + strsignal(signal) + ")";
    return "exit " + std::to_string(exitCode);
}

bool underAddressSanitizer() {
#if defined(KESTROW_HARDENING_ASAN)
    return true;
#else
    return false;
#endif
}

std::chrono::milliseconds commandTimeout() {
    if (const char* text = std::getenv("KESTROW_CAMPAIGN_TIMEOUT"); text && *text)
        return std::chrono::milliseconds(static_cast<long long>(std::atof(text) * 1000));
    // Small images answer in well under a second; the bound is for hangs.
    return std::chrono::milliseconds(underAddressSanitizer() ? 60000 : 20000);
}

ChildRun runChild(const std::vector<std::string>& arguments, const ChildLimits& limits,
                  const std::vector<std::string>& environment) {
    if (arguments.empty())
        throw std::invalid_argument("runChild needs a program");
    // The launcher runs the program as its own child and reports its peak
    // memory on descriptor 3.
    std::vector<std::string> launched = {KESTROW_HARDENING_LAUNCHER,
                                         std::to_string(limits.addressSpaceBytes)};
    launched.insert(launched.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (const std::string& a : launched)
        argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    std::vector<std::string> envStrings;
    for (char** e = environ; *e != nullptr; ++e)
        envStrings.emplace_back(*e);
    envStrings.insert(envStrings.end(), environment.begin(), environment.end());
    std::vector<char*> envp;
    for (const std::string& e : envStrings)
        envp.push_back(const_cast<char*>(e.c_str()));
    envp.push_back(nullptr);

    int outPipe[2];
    int errPipe[2];
    int rssPipe[2];
    if (::pipe2(outPipe, O_CLOEXEC) != 0 || ::pipe2(errPipe, O_CLOEXEC) != 0 ||
        ::pipe2(rssPipe, O_CLOEXEC) != 0)
        throw std::runtime_error("pipe failed");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, outPipe[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, errPipe[1], STDERR_FILENO);
    posix_spawn_file_actions_adddup2(&actions, rssPipe[1], 3);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    // A group of its own, so that a deadline kills the program too.
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
    posix_spawnattr_setpgroup(&attributes, 0);
    const auto started = std::chrono::steady_clock::now();
    pid_t pid = 0;
    const int spawned =
        ::posix_spawn(&pid, argv[0], &actions, &attributes, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    ::close(rssPipe[1]);
    if (spawned != 0) {
        for (int fd : {outPipe[0], outPipe[1], errPipe[0], errPipe[1], rssPipe[0]})
            ::close(fd);
        throw std::runtime_error(std::string("cannot start ") + argv[0] + ": " +
                                 std::strerror(spawned));
    }

    ::close(outPipe[1]);
    ::close(errPipe[1]);
    int outRead = outPipe[0];
    int errRead = errPipe[0];
    ChildRun run;
    const auto deadline = started + limits.timeout;
    char chunk[65536];
    while (outRead >= 0 || errRead >= 0) {
        const auto now = std::chrono::steady_clock::now();
        if (now >= deadline) {
            ::kill(-pid, SIGKILL);
            run.timedOut = true;
            break;
        }
        pollfd fds[2];
        nfds_t count = 0;
        if (outRead >= 0)
            fds[count++] = {outRead, POLLIN, 0};
        if (errRead >= 0)
            fds[count++] = {errRead, POLLIN, 0};
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - now).count();
        const int ready = ::poll(fds, count, static_cast<int>(left > 1000 ? 1000 : left + 1));
        if (ready < 0 && errno != EINTR)
            break;
        for (nfds_t i = 0; i < count; ++i) {
            if (fds[i].revents == 0)
                continue;
            const ssize_t got = ::read(fds[i].fd, chunk, sizeof chunk);
            const bool isOut = fds[i].fd == outRead;
            if (got <= 0) {
                closeQuietly(isOut ? outRead : errRead);
                continue;
            }
            if (isOut) {
                run.outBytes += static_cast<std::uint64_t>(got);
                const std::size_t room =
                    limits.keptOutputBytes - std::min(limits.keptOutputBytes, run.out.size());
                run.out.append(chunk, std::min<std::size_t>(room, static_cast<std::size_t>(got)));
            } else {
                run.err.append(chunk, static_cast<std::size_t>(got));
            }
        }
    }
    closeQuietly(outRead);
    closeQuietly(errRead);

    // A child that closed its output but goes on running still meets the
    // deadline.
    int status = 0;
    rusage usage{};
    for (;;) {
        const pid_t done = ::wait4(pid, &status, run.timedOut ? 0 : WNOHANG, &usage);
        if (done == pid)
            break;
        if (done < 0 && errno != EINTR)
            throw std::runtime_error(std::string("wait4 failed: ") + std::strerror(errno));
        if (done == 0) {
            if (std::chrono::steady_clock::now() >= deadline) {
                ::kill(-pid, SIGKILL);
                run.timedOut = true;
            } else {
                ::usleep(2000);
            }
        }
    }
    run.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    char rss[32] = {};
    const ssize_t got = ::read(rssPipe[0], rss, sizeof rss - 1);
    ::close(rssPipe[0]);
    run.maxRssKiB = got > 0 ? std::strtoull(rss, nullptr, 10) : 0;
    (void)usage;
    if (WIFEXITED(status))
        run.exitCode = WEXITSTATUS(status);
    else if (WIFSIGNALED(status) && !run.timedOut)
        run.signal = WTERMSIG(status);
    return run;
}

} // namespace kestrow::test::hardening
