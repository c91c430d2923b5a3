// SPDX-License-Identifier: Apache-2.0
#include "apps/tool/traffic_capture.h"

#include <poll.h>
#include <sys/epoll.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <ctime>
#include <limits>

#include "apps/tool/counter_sums.h"
#include "apps/tool/frame_time.h"
#include "ipc/monotonic_clock.h"
#include "ipc/random_epoch.h"

namespace zav_shm::tool {

namespace {

using std::chrono::milliseconds;
using Clock = Stop_Signal::Clock;

// How often something else is looked after while no frame comes, and how often streams are looked
// at that have no descriptor to wait for.
constexpr milliseconds look{1000};
constexpr milliseconds look_without_descriptor{20};

// One stream's turn, so that none keeps the others waiting for longer.
constexpr int turn_frames = 32;

// A stream that loses frames all the time would fill the screen.
constexpr std::uint64_t gaps_told_max = 5;

// Frames that are still taken at the end if they have no time of their own.
constexpr int undated_max = 64;

// The same moment by both clocks, a stretch of time ago by the steady one.
trace::Moment moment_at(std::int64_t then_ns) {
    return {then_ns, utc_now_ns() - (monotonic_ns() - then_ns)};
}

std::string with_count(std::uint64_t count, const char* what) {
    return count > 0 ? ", " + std::to_string(count) + what : "";
}

}  // namespace

Traffic_Capture::Traffic_Capture(const Capture_Options& options, int standard_output,
                                 const Stop_Signal& stop)
    : options_(options),
      stop_(stop),
      ready_(epoll_create1(EPOLL_CLOEXEC)),
      file_(options.file, standard_output, stop),
      writer_([this](std::span<const std::byte> record) { return file_.write(record); },
              {random_epoch(), moment_at(monotonic_ns())}),
      begin_(Clock::now()) {
    for (const Consumer_Options& stream : options_.streams) {
        inputs_.push_back(std::make_unique<Frame_Input>(
            options_, stream, std::vector<int>{stream.stream}, Frame_Input::Key_Frames{}, stop_));
    }
}

std::optional<Problem> Traffic_Capture::open() {
    const bool has_limit = options_.duration > milliseconds(0);
    if (auto problem =
            file_.open(has_limit ? Clock::now() + options_.duration : Clock::time_point::max())) {
        return problem;
    }
    std::vector<trace::Stream_Name> names;
    for (std::size_t i = 0; i < inputs_.size(); ++i) {
        if (auto problem = inputs_[i]->open()) {
            return problem;
        }
        epoll_event event{};
        event.events = EPOLLIN;
        const int descriptor = inputs_[i]->descriptor();
        has_all_ready_ = has_all_ready_ && descriptor >= 0 &&
                         epoll_ctl(ready_.get(), EPOLL_CTL_ADD, descriptor, &event) == 0;
        const Consumer_Options& stream = options_.streams[i];
        names.push_back({stream.producer, static_cast<std::uint32_t>(stream.channel),
                         static_cast<std::uint32_t>(stream.stream)});
    }
    if (!file_.empty() || !writer_.begin(names)) {
        write_error_ = errno;
        return write_problem();
    }
    pending_.push_back({.end = writer_.offset()});
    begin_ = Clock::now();
    return {};
}

void Traffic_Capture::run() {
    while (!is_over()) {
        bool had_some = false;
        for (std::size_t i = 0; i < inputs_.size() && !is_over(); ++i) {
            had_some = take_some(i, std::numeric_limits<std::int64_t>::max()) || had_some;
            inputs_[i]->tell_state();
        }
        settle(write_error_ || file_.flush_if_due());
        if (!had_some && !is_over()) {
            wait();
        }
    }
}

bool Traffic_Capture::is_over() const {
    const bool late =
        options_.duration > milliseconds(0) && Clock::now() - begin_ >= options_.duration;
    const bool full = options_.frames != 0 && writer_.frames() >= options_.frames;
    return late || full || write_error_ || stop_.requested();
}

void Traffic_Capture::wait() {
    auto end = Clock::now() + (has_all_ready_ ? look : look_without_descriptor);
    if (options_.duration > milliseconds(0)) {
        end = std::min(end, begin_ + options_.duration);
    }
    if (has_all_ready_) {
        stop_.wait_for(ready_.get(), POLLIN, end);
    } else {
        stop_.wait_until(end);
    }
}

// @return whether there was a frame.
bool Traffic_Capture::take_some(std::size_t stream, std::int64_t published_until_ns) {
    int taken = 0;
    const auto is_full = [&] {
        return options_.frames != 0 && writer_.frames() >= options_.frames;
    };
    while (taken < turn_frames && !write_error_ && !is_full() &&
           inputs_[stream]->receive(frame_, milliseconds(0)) == Receive_Status::frame) {
        ++taken;
        write(stream);
        if (frame_.verified && frame_.header.publish_ns > published_until_ns) {
            return false;
        }
    }
    return taken > 0;
}

void Traffic_Capture::write(std::size_t stream) {
    const auto number = static_cast<std::uint16_t>(stream);
    const trace::Moment received = moment_at(frame_.received_ns);
    if (frame_.before.any()) {
        tell_gap(stream);
        if (!writer_.add(number, frame_.before, received)) {
            settle(false);
            return;
        }
        pending_.push_back({.end = writer_.offset()});
    }
    const bool written =
        writer_.add(number, {frame_.header, frame_.payload(), !frame_.verified, received});
    if (written) {
        pending_.push_back({.end = writer_.offset(),
                            .is_frame = true,
                            .is_key_frame = frame_.is_key_frame(),
                            .payload_bytes = frame_.length});
    }
    settle(written);
}

void Traffic_Capture::tell_gap(std::size_t stream) {
    if (gaps_++ >= gaps_told_max) {
        return;
    }
    const Frame_Losses& before = frame_.before;
    const std::string frame =
        frame_.verified ? "frame " + std::to_string(frame_.header.sequence) : "a frame";
    complain(inputs_[stream]->title() + ": a gap before " + frame +
             with_count(before.overtaken, " overwritten before they were read") +
             with_count(before.left_out, " left out by the producer or its relay") +
             with_count(before.no_memory, " without memory for them") +
             with_count(before.dropped + before.skipped, " passed over") +
             (gaps_ == gaps_told_max ? "; further gaps are only counted" : ""));
}

// Keeps what is told of the trace up with what is in its file.
void Traffic_Capture::settle(bool written) {
    if (!written && !write_error_) {
        write_error_ = errno;
    }
    while (!pending_.empty() && pending_.front().end <= file_.written()) {
        const Record& record = pending_.front();
        whole_bytes_ = record.end;
        frames_ += record.is_frame ? 1U : 0U;
        payload_bytes_ += record.payload_bytes;
        key_frames_ += record.is_key_frame ? 1U : 0U;
        pending_.pop_front();
    }
}

std::optional<Problem> Traffic_Capture::close() {
    const std::int64_t end_ns = monotonic_ns();
    for (std::size_t i = 0; i < inputs_.size(); ++i) {
        for (int turn = 0; turn < undated_max && take_some(i, end_ns); ++turn) {
        }
    }
    if (!write_error_) {
        settle(writer_.finish(moment_at(monotonic_ns())));
        pending_.push_back({.end = writer_.offset()});
        settle(write_error_ || file_.flush());
    }
    file_.cut_back(write_error_ ? whole_bytes_ : file_.written());
    const bool closed = file_.close(options_.sync);
    if (!closed && !write_error_) {
        write_error_ = errno;
    }
    return write_error_ ? std::optional(write_problem()) : std::nullopt;
}

Problem Traffic_Capture::write_problem() const {
    return {Exit_Status::input_output,
            "cannot write to " + file_.title() + " after " + std::to_string(frames_) + " frames, " +
                std::to_string(whole_bytes_) + " bytes: " + Output_File::cause(*write_error_) +
                (whole_bytes_ > trace::file_header_bytes ? "; up to there it is a trace" : "")};
}

Exit_Status Traffic_Capture::tell() const {
    Subscriber_Counters sum;
    for (const auto& input : inputs_) {
        add(sum, input->counters());
    }
    std::fprintf(stderr,
                 "capture: streams=%zu frames=%" PRIu64 " bytes=%" PRIu64 " key_frames=%" PRIu64
                 " file_bytes=%" PRIu64 " lost=%" PRIu64 " gaps=%" PRIu64 " foreign=%" PRIu64
                 " reconnects=%" PRIu64 " overtaken=%" PRIu64 " left_out=%" PRIu64
                 " no_memory=%" PRIu64 "\n",
                 inputs_.size(), frames_, payload_bytes_, key_frames_, whole_bytes_, sum.lost(),
                 gaps_, sum.foreign, sum.recoveries, sum.overtaken, sum.left_out, sum.no_memory);
    const bool complete = sum.lost() == 0 && frames_ > 0;
    return complete || !options_.strict ? Exit_Status::ok : Exit_Status::incomplete;
}

}  // namespace zav_shm::tool
