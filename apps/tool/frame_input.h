// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "apps/tool/options.h"
#include "apps/tool/problem.h"
#include "apps/tool/stop_signal.h"
#include "frame/frame_dual_subscriber.h"
#include "frame/frame_subscriber.h"

namespace zav_shm::tool {

/// A subscriber of one stream, or of two in turn, that tells the user where it stands.
class Frame_Input {
public:
    /// Where decoding may begin, and what is done for it.
    struct Key_Frames {
        bool at_begin = false;
        bool after_loss = false;
        bool are_asked_for = false;
    };

    /// @param streams  one, or two; the first one comes first
    Frame_Input(const Common_Options& common, const Consumer_Options& consumer,
                const std::vector<int>& streams, const Key_Frames& key_frames,
                const Stop_Signal& stop);

    /// Registers with the center, which has to know both names; as a tap, without it.
    std::optional<Problem> open();

    /// The next frame. Returns earlier than it is told to when a signal has come, and once in a
    /// while for no reason.
    Receive_Status receive(Received_Frame& frame, std::chrono::milliseconds timeout);

    /// Goes on somewhere else in the history. Of one stream only.
    void seek(const Start& from) { one_->seek(from); }

    /// Of one stream: readable while there may be a frame; -1 when it cannot be had. After it was,
    /// receive() without a wait until there is none.
    int descriptor() { return one_ ? one_->descriptor() : -1; }

    // ---- of two streams ----

    bool is_changing() const { return two_ && two_->is_changing(); }

    /// Wants the other one.
    void change_stream(ZAV_SHM_Frame_Dual_Subscriber::Change change);

    /// Which of the streams, by its place among them, the frame received last is of.
    std::size_t current() const {
        return two_ && two_->current() == ZAV_SHM_Frame_Dual_Subscriber::sub ? 1 : 0;
    }

    std::uint64_t changes() const { return two_ ? two_->changes() : 0; }

    // ---- what is told ----

    /// Writes a line to standard error when the state is another one than before.
    void tell_state();

    Frame_State state() const { return two_ ? two_->state() : one_->state(); }

    /// Of all streams, without the latencies of the second.
    Subscriber_Counters counters() const;

    /// "RECODER/0/0", or of a tap what it reads.
    std::string title() const { return titles_[current()]; }

private:
    std::optional<Problem> check_names() const;

    const Stop_Signal& stop_;
    const std::chrono::milliseconds wait_;
    const Consumer_Options consumer_;
    const std::vector<int> streams_;
    std::vector<std::string> titles_;     // of each stream
    std::vector<std::string> producers_;  // likewise, "CAM_LOOP/0/0"
    std::unique_ptr<ZAV_SHM_Frame_Subscriber> one_;
    std::unique_ptr<ZAV_SHM_Frame_Dual_Subscriber> two_;
    bool is_idle_ = false;  // no frame came within the time that one is waited for
    std::array<Frame_State, 2> told_{Frame_State::closed, Frame_State::closed};
};

}  // namespace zav_shm::tool
