// SPDX-License-Identifier: Apache-2.0
#include "apps/centerd/signals.h"

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

}  // namespace

void set_up_signals() {
    const sigset_t all = set_of({SIGTERM, SIGINT, SIGHUP, SIGPIPE, SIGUSR1, SIGUSR2, SIGXFSZ});
    pthread_sigmask(SIG_BLOCK, &all, nullptr);
    struct sigaction interrupting {};
    interrupting.sa_handler = [](int) {};  // and no SA_RESTART: waits end with EINTR
    sigaction(interrupting_signal, &interrupting, nullptr);
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

Descriptor make_end_descriptor() {
    const sigset_t ending = ending_signals();
    return Descriptor(signalfd(-1, &ending, SFD_NONBLOCK | SFD_CLOEXEC));
}

}  // namespace zav_shm::centerd
