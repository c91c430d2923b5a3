// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "apps/tool/options.h"
#include "apps/tool/problem.h"
#include "apps/tool/stop_signal.h"
#include "frame/frame_subscriber.h"

namespace zav_shm::tool {

/// A subscriber that tells the user where it stands.
class Frame_Input {
public:
    Frame_Input(const Common_Options& common, const Channel_Options& channel,
                const std::string& producer, const Stop_Signal& stop);

    /// Registers with the center, which has to know both names.
    std::optional<Problem> open();

    Receive_Status receive(Received_Frame& frame, std::chrono::milliseconds timeout) {
        return subscriber_.receive(frame, timeout);
    }

    /// Writes a line to standard error when the state is another one than before.
    void tell_state();

    Frame_State state() const { return subscriber_.state(); }
    Subscriber_Counters counters() const { return subscriber_.counters(); }
    const std::string& consumer_channel() const { return consumer_channel_; }

private:
    const Stop_Signal& stop_;
    const std::chrono::milliseconds wait_;
    const Channel_Options channel_;
    const std::string producer_;
    const std::string consumer_channel_;
    const std::string producer_channel_;
    ZAV_SHM_Frame_Subscriber subscriber_;
    Frame_State told_ = Frame_State::closed;
};

}  // namespace zav_shm::tool
