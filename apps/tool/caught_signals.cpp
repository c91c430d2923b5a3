// SPDX-License-Identifier: Apache-2.0
#include "apps/tool/caught_signals.h"

#include <sys/signalfd.h>
#include <unistd.h>

#include <csignal>

namespace zav_shm::tool {

Caught_Signals::Caught_Signals(const std::vector<int>& numbers) {
    if (numbers.empty()) {
        return;
    }
    sigset_t set;
    sigemptyset(&set);
    for (const int number : numbers) {
        sigaddset(&set, number);
    }
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    descriptor_ = Descriptor(signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
}

std::uint64_t Caught_Signals::take() const {
    std::uint64_t count = 0;
    signalfd_siginfo info{};
    while (descriptor_.is_open() &&
           read(descriptor_.get(), &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
        ++count;
    }
    return count;
}

}  // namespace zav_shm::tool
