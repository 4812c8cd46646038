// Running kestrow as a child process under limits: a deadline (the child is
// killed when it passes it), an optional address-space limit (RLIMIT_AS, set
// in the child before it starts), and its peak resident memory as the kernel
// counted it. Standard output is drained as it comes so that a long listing
// never blocks the child; only its size and a bounded prefix are kept.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace kestrow::test::hardening {

struct ChildLimits {
    std::chrono::milliseconds timeout{10000};
    std::uint64_t addressSpaceBytes = 0; // 0: no limit
    std::size_t keptOutputBytes = 1 << 20;
};

struct ChildRun {
    int exitCode = -1;     // when it exited
    int signal = 0;        // when a signal ended it
    bool timedOut = false; // killed at the deadline
    std::string out;       // stdout, cut to keptOutputBytes
    std::uint64_t outBytes = 0;
    std::string err; // stderr, whole
    std::uint64_t maxRssKiB = 0;
    double seconds = 0;

    bool exited() const { return !timedOut && signal == 0; }
    // "exit 1", "signal 6", "killed after 10.0 s".
    std::string outcome() const;
};

// argv[0] is a path; `environment` entries ("NAME=value") are added to the
// child's inherited environment. Throws std::runtime_error when the child
// cannot be started at all.
ChildRun runChild(const std::vector<std::string>& argv, const ChildLimits& limits,
                  const std::vector<std::string>& environment = {});

// True when this program (and so the kestrow built with it) runs under
// AddressSanitizer, which reserves terabytes of address space: no RLIMIT_AS
// then, and higher memory figures.
bool underAddressSanitizer();

// The time bound of one kestrow run: KESTROW_CAMPAIGN_TIMEOUT seconds when
// set, else a default that allows for the sanitizers' slowdown.
std::chrono::milliseconds commandTimeout();

} // namespace kestrow::test::hardening
