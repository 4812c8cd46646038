/* kestrow_hardening_launcher ADDRESS_SPACE_BYTES PROGRAM [ARGUMENTS...]
 *
 * Runs PROGRAM as its child under an address-space limit (RLIMIT_AS; 0 for
 * none) and writes the child's peak resident memory in KiB to descriptor 3.
 * The child's peak is counted from a process this small: a child forked
 * straight from a large test process would carry that process's figure. The
 * launcher exits as the child did (same status, or the same signal). It is
 * built without sanitizers so that its own footprint stays a few pages. */
#define _GNU_SOURCE
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

int main(int argc, char** argv) {
    if (argc < 3) {
        fprintf(stderr, "usage: %s ADDRESS_SPACE_BYTES PROGRAM [ARGUMENTS...]\n", argv[0]);
        return 125;
    }
    const unsigned long long addressSpace = strtoull(argv[1], NULL, 0);
    const pid_t pid = fork();
    if (pid < 0)
        return 125;
    if (pid == 0) {
        if (addressSpace != 0) {
            struct rlimit limit = {(rlim_t)addressSpace, (rlim_t)addressSpace};
            if (setrlimit(RLIMIT_AS, &limit) != 0)
                _exit(125);
        }
        close(3);
        execv(argv[2], argv + 2);
        _exit(127);
    }
    int status = 0;
    struct rusage usage;
    while (wait4(pid, &status, 0, &usage) < 0) {
        if (errno != EINTR)
            return 125;
    }
    dprintf(3, "%ld\n", usage.ru_maxrss);
    if (WIFSIGNALED(status)) {
        signal(WTERMSIG(status), SIG_DFL);
        raise(WTERMSIG(status));
        return 128 + WTERMSIG(status);
    }
    return WEXITSTATUS(status);
}
