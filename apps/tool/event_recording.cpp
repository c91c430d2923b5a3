// SPDX-License-Identifier: Apache-2.0
#include "apps/tool/event_recording.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <utility>

#include "apps/tool/frame_time.h"
#include "ipc/monotonic_clock.h"

namespace zav_shm::tool {

namespace {

using std::chrono::milliseconds;

// Between events: how often the stream is looked at.
constexpr std::chrono::seconds look{1};

// How long a trigger, or the end, may go unnoticed while no frame comes in an event.
constexpr milliseconds busy_look{100};

// How long the end of an event is put off for want of a key frame to end before.
constexpr std::int64_t key_wait_ns = 10'000'000'000;

// A stream that is silent for so long has nothing more for an event whose time is over.
constexpr std::chrono::seconds silence{1};

std::string seconds_text(std::int64_t ns) {
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%.1f s", static_cast<double>(ns) / 1e9);
    return text.data();
}

}  // namespace

Event_Recording::Event_Recording(const Record_Options& options, std::unique_ptr<Series_Form> form,
                                 int standard_output, const Stop_Signal& stop)
    : options_(options),
      stop_(stop),
      triggers_(options),
      files_(options, std::move(form), standard_output),
      input_(options, options, options.streams,
             {.at_begin = !options.any_frame,
              .after_loss = !options.keep_all,
              .are_asked_for = options.ask_for_key_frame},
             stop),
      account_(options),
      begin_(Stop_Signal::Clock::now()),
      next_look_(begin_) {}

std::optional<Problem> Event_Recording::open() {
    if (auto problem = files_.open(Stop_Signal::Clock::now())) {
        return problem;
    }
    if (auto problem = input_.open()) {
        return problem;
    }
    begin_ = Stop_Signal::Clock::now();
    complain("waiting for a trigger: " + triggers_.title());
    return {};
}

bool Event_Recording::is_over() const {
    return stop_.requested() || (options_.duration > milliseconds(0) &&
                                 Stop_Signal::Clock::now() - begin_ >= options_.duration);
}

void Event_Recording::run() {
    while (!is_over()) {
        if (const std::uint64_t count = triggers_.take()) {
            note_triggers(count);
        }
        if (event_) {
            go_on();
        } else {
            rest();
        }
    }
}

// ---- between events ----

void Event_Recording::rest() {
    follow_stream();
    const bool has_limit = options_.duration > milliseconds(0);
    triggers_.wait_until(has_limit ? std::min(next_look_, begin_ + options_.duration) : next_look_,
                         stop_);
}

void Event_Recording::follow_stream() {
    const auto now = Stop_Signal::Clock::now();
    if (now < next_look_) {
        return;
    }
    next_look_ = now + look;
    input_.seek(start::newest_key);
    static_cast<void>(input_.receive(frame_, milliseconds(0)));
    input_.tell_state();
}

void Event_Recording::note_triggers(std::uint64_t count) {
    if (!event_) {
        begin_event();
        event_->triggers = count;
    } else {
        event_->last_trigger_ns = monotonic_ns();
        event_->triggers += count;
    }
}

// ---- an event ----

void Event_Recording::begin_event() {
    const std::int64_t now_ns = monotonic_ns();
    ++events_;
    files_.begin_file(utc_now_ns());
    gap_finder_ = {};
    event_.emplace(Event{.last_trigger_ns = now_ns,
                         .history = Event_History(now_ns, options_.before),
                         .frames_before = files_.totals().frames,
                         .files_before = files_.files(),
                         .last = {}});
    input_.seek(start::back(options_.before));
    complain(event_title() + ": triggered");
}

void Event_Recording::go_on() {
    if (input_.receive(frame_, busy_look) == Receive_Status::frame) {
        event_->heard = Stop_Signal::Clock::now();
        take(frame_);
    } else if (monotonic_ns() >= end_ns() && Stop_Signal::Clock::now() - event_->heard >= silence) {
        end_event(false);
    }
    input_.tell_state();
    if (event_ && !files_.flush_if_due()) {
        end_event(false);
    }
}

void Event_Recording::take(const Received_Frame& frame) {
    if (is_in_former_file(frame)) {
        event_->goes_on = true;
        return;
    }
    if (is_behind_end(frame)) {
        end_event(frame.is_entry_point() || !event_->has_entry_points);
        return;
    }
    account_.note(frame, gap_finder_.before(frame), input_.title(), files_.title());
    if (!files_.write(options_.streams[0], frame)) {
        end_event(false);
        return;
    }
    account_.note_written(frame);
    event_->has_entry_points = event_->has_entry_points || frame.is_entry_point();
    if (frame.verified) {
        event_->last = {.epoch = frame.header.epoch, .sequence = frame.header.sequence};
    }
    event_->last_ns = moment_ns_of(frame);
    event_->history.note(frame);
    tell_history();
}

bool Event_Recording::is_in_former_file(const Received_Frame& frame) const {
    return former_end_ && frame.verified && frame.header.epoch == former_end_->epoch &&
           frame.header.sequence <= former_end_->sequence;
}

bool Event_Recording::is_behind_end(const Received_Frame& frame) const {
    const std::int64_t late_ns = moment_ns_of(frame) - end_ns();
    return late_ns >= 0 &&
           (frame.is_entry_point() || !event_->has_entry_points || late_ns >= key_wait_ns);
}

// Once the frames from before the trigger are written: that comes first.
void Event_Recording::tell_history() {
    if (event_->told_history || !event_->history.is_known()) {
        return;
    }
    event_->told_history = true;
    const std::string text = event_->goes_on ? std::string() : event_->history.shortfall();
    if (!text.empty()) {
        complain(event_title() + ": " + text);
    }
}

// SIGHUP, and the limits of a file, divide an event.
std::string Event_Recording::files_text() const {
    const std::uint64_t count = files_.files() - event_->files_before;
    return (count > 1 ? std::to_string(count) + " files, the last one " : std::string()) +
           files_.title();
}

// @param next_can_go_on  a file that begins here can be decoded as well as any other
void Event_Recording::end_event(bool next_can_go_on) {
    const auto problem = files_.close();
    const std::uint64_t frames = files_.totals().frames - event_->frames_before;
    former_end_ = next_can_go_on && !problem ? event_->last : std::nullopt;
    failed_events_ += problem ? 1U : 0U;
    if (problem) {
        complain(problem->text + "; the event ends there, and the next trigger begins another");
    }
    if (frames == 0) {
        complain(event_title() + ": no frame was written");
    } else {
        complain(event_title() + ": " + std::to_string(frames) + " frames, from " +
                 seconds_text(event_->history.reach().count()) + " before the trigger to " +
                 seconds_text(event_->last_ns - event_->last_trigger_ns) + " after " +
                 (event_->triggers == 1 ? std::string("it")
                                        : "the last of " + std::to_string(event_->triggers)) +
                 ", in " + files_text());
    }
    event_.reset();
    next_look_ = Stop_Signal::Clock::now();
}

// ---- the end ----

std::optional<Problem> Event_Recording::close() {
    const std::int64_t now_ns = monotonic_ns();
    while (event_ && input_.receive(frame_, milliseconds(0)) == Receive_Status::frame &&
           moment_ns_of(frame_) <= now_ns) {
        take(frame_);
    }
    if (event_) {
        end_event(false);
    }
    if (failed_events_ == 0) {
        return {};
    }
    return Problem{Exit_Status::input_output, std::to_string(failed_events_) + " of " +
                                                  std::to_string(events_) +
                                                  " events could not be written whole"};
}

Exit_Status Event_Recording::tell() const {
    const Exit_Status status = account_.tell(
        files_.totals(), input_.counters(),
        " files=" + std::to_string(files_.files()) + " events=" + std::to_string(events_));
    return events_ == 0 ? Exit_Status::ok : status;
}

}  // namespace zav_shm::tool
