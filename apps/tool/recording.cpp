// SPDX-License-Identifier: Apache-2.0
#include "apps/tool/recording.h"

#include <algorithm>
#include <utility>

#include "ipc/monotonic_clock.h"

namespace zav_shm::tool {

namespace {

using std::chrono::milliseconds;

// How often something else is looked after while no frame comes.
constexpr milliseconds look{1000};

// Encoders that make key frames at all make one within this time, as a rule.
constexpr std::chrono::seconds waiting_told_after{5};

// Frames without a time of their own that are still taken at the end.
constexpr int undated_max = 64;

}  // namespace

Recording::Recording(const Record_Options& options, std::unique_ptr<Recording_Target> target,
                     const Stop_Signal& stop)
    : options_(options),
      stop_(stop),
      input_(options, options, options.streams,
             {.at_begin = !options.any_frame,
              .after_loss = !options.keep_all,
              .are_asked_for = options.ask_for_key_frame},
             stop),
      target_(std::move(target)),
      account_(options),
      begin_(Stop_Signal::Clock::now()),
      stream_since_(begin_) {}

std::optional<Problem> Recording::open() {
    using Clock = Stop_Signal::Clock;
    const bool has_limit = options_.duration > milliseconds(0);
    const auto end = has_limit ? Clock::now() + options_.duration : Clock::time_point::max();
    if (auto problem = target_->open(end)) {
        return problem;
    }
    if (auto problem = input_.open()) {
        return problem;
    }
    begin_ = stream_since_ = Clock::now();
    return target_->begin();
}

void Recording::run() {
    while (!is_over()) {
        if (!take(time_to_look())) {
            tell_what_is_waited_for();
        }
        change_stream_if_due();
        input_.tell_state();
        failed_ = !target_->flush_if_due() || failed_;
    }
}

// What was published before the end is still recorded.
std::optional<Problem> Recording::close() {
    const std::int64_t end_ns = monotonic_ns();
    int undated = 0;
    while (!is_full() && !failed_ && undated < undated_max && take(milliseconds(0)) &&
           frame_.header.publish_ns <= end_ns) {
        undated += frame_.verified ? 0 : 1;
    }
    return target_->close();
}

bool Recording::is_full() const {
    return options_.frames != 0 && target_->totals().handed_over >= options_.frames;
}

bool Recording::is_over() const {
    const bool late = options_.duration > milliseconds(0) &&
                      Stop_Signal::Clock::now() - begin_ >= options_.duration;
    return late || is_full() || failed_ || stop_.requested();
}

// A wait ends with the time that the recording is to last.
milliseconds Recording::time_to_look() const {
    if (options_.duration <= milliseconds(0)) {
        return look;
    }
    const auto left = begin_ + options_.duration - Stop_Signal::Clock::now();
    return std::clamp(std::chrono::ceil<milliseconds>(left), milliseconds(0), look);
}

// @return whether there was a frame.
bool Recording::take(milliseconds timeout) {
    if (input_.receive(frame_, timeout) != Receive_Status::frame) {
        return false;
    }
    if (waits_since_ || frame_.before.skipped > 0) {
        skipped_before_ = input_.counters().skipped;
    }
    waits_since_.reset();
    told_waiting_ = false;
    const std::size_t stream = input_.current();
    const Gap_Finder::Gap gap = gap_finders_[stream].before(frame_);
    if (std::exchange(stream_, stream) == stream) {
        write(frame_, gap);
    } else {
        stream_since_ = Stop_Signal::Clock::now();
        write(frame_, {});
    }
    return true;
}

void Recording::change_stream_if_due() {
    const bool has_two = options_.streams.size() == 2;
    if (has_two && !input_.is_changing() &&
        Stop_Signal::Clock::now() - stream_since_ >= options_.switch_every) {
        input_.change_stream(options_.change);
    }
}

// @param gap  lies before the frame.
void Recording::write(const Received_Frame& frame, const Gap_Finder::Gap& gap) {
    account_.note(frame, gap, input_.title(), target_->title());
    if (target_->write(options_.streams[stream_], frame)) {
        account_.note_written(frame);
    } else {
        failed_ = true;
    }
}

// Called when no frame is there.
void Recording::tell_what_is_waited_for() {
    const std::uint64_t skipped = input_.counters().skipped;
    const auto now = Stop_Signal::Clock::now();
    if (!waits_since_) {
        if (skipped > skipped_before_) {
            waits_since_ = now;
        }
        return;
    }
    if (told_waiting_ || now - *waits_since_ < waiting_told_after) {
        return;
    }
    told_waiting_ = true;
    complain(input_.title() + ": for " + std::to_string(waiting_told_after.count()) +
             " s neither a key frame nor a recovery point has come, " +
             std::to_string(skipped - skipped_before_) +
             " frames are left out so far; have the encoder make key frames more often, or record "
             "with " +
             (target_->totals().handed_over > 0 ? "--keep-all" : "--any-frame"));
}

Exit_Status Recording::tell() const {
    const Subscriber_Counters sum = input_.counters();
    const Recorded_Totals totals = target_->totals();
    const Exit_Status status =
        account_.tell(totals, sum, " switches=" + std::to_string(input_.changes()));
    if (totals.handed_over == 0 && sum.skipped > 0) {
        complain(
            "nothing was written: of the " + std::to_string(sum.skipped) +
            " frames that came none was a key frame or recovery point; record for longer, with "
            "--any-frame, or have the encoder make key frames more often");
    }
    return status;
}

}  // namespace zav_shm::tool
