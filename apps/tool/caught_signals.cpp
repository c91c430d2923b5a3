// SPDX-License-Identifier: Apache-2.0
#include "apps/tool/caught_signals.h"

#include <sys/signalfd.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstddef>

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
    // Each of the signals is pending once at most. One read: somebody may send them without end.
    std::array<signalfd_siginfo, 8> info{};
    const ssize_t got =
        descriptor_.is_open() ? read(descriptor_.get(), info.data(), sizeof info) : 0;
    return got > 0 ? static_cast<std::size_t>(got) / sizeof info[0] : 0;
}

}  // namespace zav_shm::tool
