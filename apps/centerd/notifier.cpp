// SPDX-License-Identifier: Apache-2.0
#include "apps/centerd/notifier.h"

#include <systemd/sd-daemon.h>

#include <cstdint>

namespace zav_shm::centerd {

void Notifier::ready(const std::string& status) {
    sd_notify(0, ("READY=1\nSTATUS=" + status).c_str());
}

void Notifier::not_ready(const std::string& status) { sd_notify(0, ("STATUS=" + status).c_str()); }

void Notifier::stopping() { sd_notify(0, "STOPPING=1\nSTATUS=ending"); }

void Notifier::alive() { sd_notify(0, "WATCHDOG=1"); }

std::optional<std::chrono::milliseconds> Notifier::watchdog_interval() {
    std::uint64_t microseconds = 0;
    if (sd_watchdog_enabled(0, &microseconds) <= 0) {
        return std::nullopt;
    }
    return std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::microseconds(microseconds));
}

}  // namespace zav_shm::centerd
