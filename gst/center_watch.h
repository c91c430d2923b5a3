// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <string>

#include "control/center_page.h"

namespace zav_shm::gst {

/// Looks whether a center's host that was there has been killed. A publisher notices a center that
/// ends in order and one that begins; who is killed leaves its page behind, and the publisher,
/// whose frames need no center, does not ask.
///
/// Threads  one.
class Center_Watch {
public:
    /// @param folder  of the segments, as in the publisher's options
    explicit Center_Watch(const std::string& folder) : folder_("/" + folder) {}

    /// Looks once a second at most, for some system calls.
    bool is_gone() {
        const auto now = Clock::now();
        if (now >= next_look_) {
            next_look_ = now + interval;
            const bool lives = is_center_alive(folder_);
            is_gone_ = !lives && (is_gone_ || lived_);
            lived_ = lives;
        }
        return is_gone_;
    }

private:
    using Clock = std::chrono::steady_clock;
    static constexpr std::chrono::seconds interval{1};

    const std::string folder_;
    Clock::time_point next_look_{};
    bool lived_ = false;
    bool is_gone_ = false;
};

}  // namespace zav_shm::gst
