// SPDX-License-Identifier: Apache-2.0
#include "apps/centerd/signals.h"

#include <poll.h>
#include <pthread.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <initializer_list>

#include "apps/centerd/outcome.h"

namespace zav_shm::centerd {

namespace {

sigset_t set_of(std::initializer_list<int> numbers) {
    sigset_t set;
    sigemptyset(&set);
    for (const int number : numbers) {
        sigaddset(&set, number);
    }
    return set;
}

sigset_t ending_signals() { return set_of({SIGTERM, SIGINT, SIGHUP}); }

// The touch that raised the signal is made again when the handler returns, and ends the process.
void explain_bus_error(int /*signal*/) {
    static constexpr char line[] =
        "zav-shm-centerd: SIGBUS: somebody has cut a semaphore or segment below /dev/shm that was "
        "in "
        "use, or there is no memory for it; the next start makes all of them anew\n";
    if (write(STDERR_FILENO, line, sizeof line - 1) < 0) {
        return;  // with nobody to tell
    }
}

}  // namespace

void set_up_signals() {
    const sigset_t all = set_of({SIGTERM, SIGINT, SIGHUP, SIGPIPE, SIGUSR1, SIGUSR2, SIGXFSZ});
    pthread_sigmask(SIG_BLOCK, &all, nullptr);
    struct sigaction interrupting {};
    interrupting.sa_handler = [](int) {};  // and no SA_RESTART: waits end with EINTR
    sigaction(interrupting_signal, &interrupting, nullptr);
    struct sigaction explaining {};
    explaining.sa_handler = explain_bus_error;
    explaining.sa_flags = static_cast<int>(SA_RESETHAND);
    sigaction(SIGBUS, &explaining, nullptr);
}

void block_interrupting_signal() {
    const sigset_t one = set_of({interrupting_signal});
    pthread_sigmask(SIG_BLOCK, &one, nullptr);
}

void limit_the_end(unsigned seconds) {
    struct sigaction giving_up {};
    giving_up.sa_handler = [](int) {
        static constexpr char line[] =
            "zav-shm-centerd: the center's receive thread does not end; see whether somebody takes "
            "what it prints. Ended without it\n";
        if (write(STDERR_FILENO, line, sizeof line - 1) < 0) {
            _exit(static_cast<int>(Exit_Status::system_error));  // with nobody to tell
        }
        _exit(static_cast<int>(Exit_Status::system_error));
    };
    sigaction(SIGALRM, &giving_up, nullptr);
    alarm(seconds);
}

bool is_end_wanted_within(std::chrono::milliseconds limit) {
    const Descriptor end = make_end_descriptor();
    pollfd wanted{end.get(), POLLIN, 0};
    return poll(&wanted, 1, static_cast<int>(limit.count())) > 0;
}

void lift_the_limit() { alarm(0); }

Descriptor make_end_descriptor() {
    const sigset_t ending = ending_signals();
    return Descriptor(signalfd(-1, &ending, SFD_NONBLOCK | SFD_CLOEXEC));
}

}  // namespace zav_shm::centerd
