// SPDX-License-Identifier: Apache-2.0
#include "apps/tool/frame_output.h"

#include <cinttypes>
#include <cstdio>
#include <utility>

#include "apps/tool/center_request.h"
#include "apps/tool/configured_name.h"
#include "control/control_protocol.h"

namespace zav_shm::tool {

namespace {

// A stream whose frames are all too large would fill the screen.
constexpr std::uint64_t complaints_max = 5;

// So would readers that ask for a key frame all the time.
constexpr std::uint64_t requests_told_max = 5;

ZAV_SHM_Frame_Publisher::Options publisher_options(const Publish_Options& options) {
    return {.name = options.name,
            .channel = options.channel,
            .stream = options.stream,
            .format = {},
            .center_wait = options.wait,
            .history_bytes = options.history,
            .paced = options.paced,
            .pace_limit = options.pace_limit};
}

std::uint16_t flag_if(bool condition, std::uint16_t flag) {
    return condition ? flag : std::uint16_t{0};
}

}  // namespace

Frame_Output::Frame_Output(const Publish_Options& options, int standard_output,
                           const Stop_Signal& stop)
    : options_(options),
      stop_(stop),
      field_rate_(fields_of(options.rate)),
      publisher_(publisher_options(options)),
      pacer_(field_rate_),
      index_(options.index, standard_output, stop),
      channel_(channel_text(options.name, options.channel, options.stream)) {}

std::optional<Problem> Frame_Output::open() {
    if (auto problem = index_.open(Output_File::Clock::time_point::max())) {
        return problem;
    }
    if (auto problem =
            check_channel_end(control::type::distributor, options_.name, options_.channel,
                              options_.stream, {options_.wait, &stop_})) {
        return problem;
    }
    if (auto problem = problem_of(publisher_.open(), channel_, options_.wait)) {
        return problem;
    }
    if (auto problem = index_.begin()) {
        return problem;
    }
    state_ = publisher_.state();
    opened_ = Pacer::Clock::now();
    complain("publishing " + channel_ + ", page size " + std::to_string(page_bytes()));
    return {};
}

void Frame_Output::set_format(Frame_Format format) {
    if (format.rate_num == 0) {
        format.rate_num = options_.rate.num;
        format.rate_den = options_.rate.den;
    }
    publisher_.set_format(format);
}

void Frame_Output::publish(const Frame& frame) {
    if (is_over() || !wait_until_due(frame)) {
        return;
    }
    const Time time = time_of_next(frame);
    Frame_Info info;
    info.pts = time.begin;
    info.duration = std::chrono::duration_cast<std::chrono::microseconds>(time.end - time.begin);
    info.flags = static_cast<std::uint16_t>(
        flag_if(frame.entry == Entry_Point::key_frame, frame_flag::key_frame) |
        flag_if(frame.entry == Entry_Point::recovery_point, frame_flag::recovery_point) |
        flag_if(frame.has_configuration, frame_flag::codec_configuration) |
        flag_if(was_too_large_ || frame.follows_damage, frame_flag::discontinuity) |
        flag_if(frame.is_last, frame_flag::end_of_stream));
    ++frames_;
    fields_ += frame.is_field ? 1 : 2;
    const std::string limit = offer(frame, info);
    index_.add({.stream = options_.stream,
                .sequence = frames_,
                .bytes = frame.size_bytes,
                .entry = frame.entry,
                .times = {}});
    was_too_large_ = !limit.empty();
    if (was_too_large_ && too_large_++ < complaints_max) {
        complain_of(frame, limit);
    }
    watch_state();
    pass_on_key_request();
}

void Frame_Output::pass_on_key_request() {
    if (!publisher_.key_frame_requested()) {
        return;
    }
    if (key_requests_++ < requests_told_max) {
        complain("a reader of " + channel_ + " asks for a key frame, after frame " +
                 std::to_string(frames_) +
                 (key_requests_ == requests_told_max ? "; further ones are only counted" : ""));
    }
    const std::string trouble = carry_out(options_.on_key_request);
    if (!trouble.empty() && !std::exchange(told_key_request_trouble_, true)) {
        complain("--on-key-request: " + trouble);
    }
}

bool Frame_Output::wait_until_due(const Frame& frame) {
    return frame.time ? pacer_.wait_for(frame.time->begin, stop_) : pacer_.wait_for(fields_, stop_);
}

// Without a rate a frame lasts for an unknown time.
Frame_Output::Time Frame_Output::time_of_next(const Frame& frame) {
    if (frame.time) {
        return *frame.time;
    }
    if (options_.rate.is_paced()) {
        return {.begin = time_of(field_rate_, fields_),
                .end = time_of(field_rate_, fields_ + (frame.is_field ? 1 : 2))};
    }
    const auto now = Pacer::Clock::now();
    if (frames_ == 0) {
        first_ = now;
    }
    return {.begin = now - first_, .end = now - first_};
}

bool Frame_Output::is_over() const {
    return stop_.requested() || (options_.count != 0 && frames_ >= options_.count);
}

void Frame_Output::watch_state() {
    const Frame_State now = publisher_.state();
    if (now != state_) {
        complain(channel_ + " is " + name_of(now) + " now, after " + std::to_string(frames_) +
                 " frames");
        state_ = now;
    }
}

// @return the limit that the frame is beyond, for a message; empty when there is none.
std::string Frame_Output::offer(const Frame& frame, const Frame_Info& info) {
    // Of such a frame only the beginning is there, which a stream's larger page would take.
    if (options_.unit_limit != 0 && frame.size_bytes > options_.unit_limit) {
        publisher_.leave_out(1);
        ++over_unit_limit_;
        return "--unit-limit is " + std::to_string(options_.unit_limit);
    }
    const auto result = publisher_.publish(frame.payload, info);
    return result.outcome == Publish_Outcome::too_large
               ? "page size of " + channel_ + " is " + std::to_string(result.limit_bytes) +
                     "; raise page_size in the center's configuration, or lower the bit rate"
               : std::string();
}

void Frame_Output::complain_of(const Frame& frame, const std::string& limit) {
    complain("frame " + std::to_string(frames_) + " of " + std::to_string(frame.size_bytes) +
             " bytes left out, " + limit);
}

Exit_Status Frame_Output::close() {
    const std::string reason = publisher_.reason();
    publisher_.close();
    const Publisher_Counters counters = publisher_.counters();
    const std::chrono::duration<double> seconds = Pacer::Clock::now() - opened_;
    std::fprintf(stderr,
                 "publish: frames=%" PRIu64 " published=%" PRIu64 " too_large=%" PRIu64
                 " refused=%" PRIu64 " recoveries=%" PRIu64 " bytes=%" PRIu64
                 " seconds=%.2f"
                 " key_requests=%" PRIu64 " waits=%" PRIu64 " given_up=%" PRIu64
                 " slot_frames=%" PRIu64 " slot_passed_over=%" PRIu64 " slot_slow_reads=%" PRIu64
                 "\n",
                 counters.frames, counters.published, counters.too_large + over_unit_limit_,
                 counters.refused, counters.recoveries, counters.bytes, seconds.count(),
                 key_requests_, counters.waits, counters.given_up, counters.slot_frames,
                 counters.slot_passed_over, counters.slot_slow_reads);
    if (const auto problem = index_.close(false)) {
        return report(*problem);
    }
    if (too_large_ > 0) {
        complain(std::to_string(too_large_) + " of " + std::to_string(frames_) +
                 " frames were too large for " + channel_ + " and left out");
    }
    if (counters.refused > 0) {
        complain(std::to_string(counters.refused) + " of " + std::to_string(frames_) +
                 " frames could not be published: " + reason);
    }
    return too_large_ + counters.refused == 0 ? Exit_Status::ok : Exit_Status::incomplete;
}

}  // namespace zav_shm::tool
