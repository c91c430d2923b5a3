// SPDX-License-Identifier: Apache-2.0
#include "support/pid_namespace.h"

#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int failed = 101;
constexpr int attempts_max = 40'000;  // process ids are given out one after the other

int status_of(pid_t child) {
    int status = 0;
    return child > 0 && waitpid(child, &status, 0) == child && WIFEXITED(status)
               ? WEXITSTATUS(status)
               : failed;
}

}  // namespace

// The first process of a namespace ends all others with it, so it only waits.
int result_in_pid_namespace(const std::function<int()>& action, int pid) {
    const pid_t outside = fork();
    if (outside != 0) {
        return status_of(outside);
    }
    if (unshare(CLONE_NEWPID) != 0) {
        _exit(failed);
    }
    const pid_t first = fork();
    if (first != 0) {
        _exit(status_of(first));
    }
    for (int i = 0; i < attempts_max; ++i) {
        const pid_t child = fork();
        if (child == 0 && pid != 0 && getpid() != pid) {
            _exit(0);
        }
        if (child == 0) {
            _exit(action());
        }
        const int result = status_of(child);
        if (child < 0 || pid == 0 || child == pid) {
            _exit(result);
        }
    }
    _exit(failed);
}
