// SPDX-License-Identifier: Apache-2.0
#include "apps/tool/frame_input.h"

#include <poll.h>

#include <algorithm>

#include "apps/tool/center_request.h"
#include "apps/tool/configured_name.h"
#include "apps/tool/counter_sums.h"
#include "control/control_protocol.h"

namespace zav_shm::tool {

namespace {

// A change of stream asks the center, too, while the present stream waits in its history. By then a
// center has been there.
constexpr std::chrono::milliseconds change_wait_max{500};

// How long a signal may have to wait while frames come. A stream that is silent for longer is
// waited for beside the signals, which costs nothing until something happens; two streams have no
// descriptor for that.
constexpr std::chrono::milliseconds busy_look{100};
constexpr std::chrono::milliseconds look_at_two{20};

ZAV_SHM_Frame_Subscriber::Options subscriber_options(const Consumer_Options& consumer, int stream,
                                                     std::chrono::milliseconds wait,
                                                     const Frame_Input::Key_Frames& key_frames) {
    return {.name = consumer.tap ? std::string() : consumer.name,
            .producer = consumer.producer,
            .channel = consumer.channel,
            .stream = stream,
            .from = consumer.from,
            .overflow = Overflow_Policy::drop_oldest,
            .start_at_key_frame = key_frames.at_begin,
            .key_frame_after_loss = key_frames.after_loss,
            .asks_for_key_frame = key_frames.are_asked_for,
            .center_wait = wait,
            .folder = consumer.folder};
}

}  // namespace

Frame_Input::Frame_Input(const Common_Options& common, const Consumer_Options& consumer,
                         const std::vector<int>& streams, const Key_Frames& key_frames,
                         const Stop_Signal& stop)
    : stop_(stop), wait_(common.wait), consumer_(consumer), streams_(streams) {
    for (const int stream : streams_) {
        producers_.push_back(channel_text(consumer_.producer, consumer_.channel, stream));
        titles_.push_back(consumer_.tap ? "tap of " + producers_.back()
                                        : channel_text(consumer_.name, consumer_.channel, stream));
    }
    if (streams_.size() == 1) {
        one_ = std::make_unique<ZAV_SHM_Frame_Subscriber>(
            subscriber_options(consumer_, streams_[0], wait_, key_frames));
    } else {
        two_ = std::make_unique<ZAV_SHM_Frame_Dual_Subscriber>(
            subscriber_options(consumer_, streams_[0], std::min(wait_, change_wait_max),
                               key_frames),
            streams_[1]);
    }
}

std::optional<Problem> Frame_Input::open() {
    if (auto problem = check_names()) {
        return problem;
    }
    if (auto problem = problem_of(two_ ? two_->open() : one_->open(), titles_[0], wait_)) {
        return problem;
    }
    tell_state();
    return {};
}

Receive_Status Frame_Input::receive(Received_Frame& frame, std::chrono::milliseconds timeout) {
    if (two_) {
        return two_->receive(frame, std::min(timeout, look_at_two));
    }
    const bool waits = is_idle_ && timeout > std::chrono::milliseconds(0);
    if (const int descriptor = waits ? one_->descriptor() : -1; descriptor >= 0) {
        stop_.wait_for(descriptor, POLLIN, Stop_Signal::Clock::now() + timeout);
        timeout = std::chrono::milliseconds(0);
    }
    const Receive_Status status = one_->receive(frame, std::min(timeout, busy_look));
    is_idle_ = status != Receive_Status::frame && (is_idle_ || timeout >= busy_look);
    return status;
}

std::optional<Problem> Frame_Input::check_names() const {
    if (consumer_.tap) {
        return {};
    }
    for (const int stream : streams_) {
        for (const auto& [type, name] :
             {std::pair{control::type::receiver, &consumer_.name},
              std::pair{control::type::distributor, &consumer_.producer}}) {
            if (auto problem =
                    check_channel_end(type, *name, consumer_.channel, stream, {wait_, &stop_})) {
                return problem;
            }
        }
    }
    return {};
}

void Frame_Input::change_stream(ZAV_SHM_Frame_Dual_Subscriber::Change change) {
    using Dual = ZAV_SHM_Frame_Dual_Subscriber;
    const auto other = two_->current() == Dual::main ? Dual::sub : Dual::main;
    const Opened opened = two_->select(other, change);
    if (opened.refused) {
        complain(titles_[other] + ": " + opened.reason);
    }
}

void Frame_Input::tell_state() {
    const Frame_State now = state();
    Frame_State& told = told_[current()];
    if (now == told) {
        return;
    }
    told = now;
    const bool is_without_producer = now == Frame_State::waiting_for_producer;
    const std::string reason = is_without_producer && one_ ? one_->reason() : std::string();
    complain(title() + (consumer_.tap ? "" : " fed by " + producers_[current()]) + ": " +
             name_of(now) + (reason.empty() ? "" : ": " + reason));
}

Subscriber_Counters Frame_Input::counters() const {
    if (one_) {
        return one_->counters();
    }
    Subscriber_Counters sum = two_->counters(ZAV_SHM_Frame_Dual_Subscriber::main);
    add(sum, two_->counters(ZAV_SHM_Frame_Dual_Subscriber::sub));
    return sum;
}

}  // namespace zav_shm::tool
