// SPDX-License-Identifier: Apache-2.0
#include "apps/tool/recording.h"

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <utility>

#include "apps/tool/synthetic_pattern.h"
#include "ipc/monotonic_clock.h"

namespace zav_shm::tool {

namespace {

using std::chrono::milliseconds;

// How often something else is looked after while no frame comes.
constexpr milliseconds look{1000};

// A stream that loses frames all the time would fill the screen.
constexpr std::uint64_t gaps_told_max = 5;

// Encoders that make key frames at all make one within this time, as a rule.
constexpr std::chrono::seconds waiting_told_after{5};

// Frames without a time of their own that are still taken at the end.
constexpr int undated_max = 64;

}  // namespace

Recording::Recording(const Record_Options& options, int standard_output, const Stop_Signal& stop)
    : options_(options),
      stop_(stop),
      input_(options, options, options.streams,
             {.at_begin = !options.any_frame,
              .after_loss = !options.keep_all,
              .are_asked_for = options.ask_for_key_frame},
             stop),
      file_(options.file, standard_output, stop),
      index_(options.index, standard_output, stop),
      recorded_(index_),
      begin_(Stop_Signal::Clock::now()),
      stream_since_(begin_) {}

std::optional<Problem> Recording::open() {
    using Clock = Stop_Signal::Clock;
    const bool has_limit = options_.duration > milliseconds(0);
    const auto end = has_limit ? Clock::now() + options_.duration : Clock::time_point::max();
    if (auto problem = file_.open(end)) {
        return problem;
    }
    if (auto problem = index_.open(end)) {
        return problem;
    }
    if (auto problem = input_.open()) {
        return problem;
    }
    if (!file_.empty()) {
        write_error_ = errno;
        return write_problem();
    }
    begin_ = stream_since_ = Clock::now();
    return index_.begin();
}

std::optional<Problem> Recording::run() {
    while (!is_over()) {
        if (!take(time_to_look())) {
            tell_what_is_waited_for();
        }
        change_stream_if_due();
        input_.tell_state();
        note(write_error_ || file_.flush_if_due());
    }
    return write_error_ ? std::optional(write_problem()) : std::nullopt;
}

// What was published before the end is still recorded.
std::optional<Problem> Recording::close() {
    const std::int64_t end_ns = monotonic_ns();
    int undated = 0;
    while (!is_full() && !write_error_ && undated < undated_max && take(milliseconds(0)) &&
           frame_.header.publish_ns <= end_ns) {
        undated += frame_.verified ? 0 : 1;
    }
    note(write_error_ || file_.flush());
    // Behind the last whole frame only the beginning of one can be.
    file_.cut_back(recorded_.bytes());
    const bool closed = file_.close(options_.sync);
    const int error = errno;
    const auto index_problem = index_.close(options_.sync);
    if (write_error_) {
        return write_problem();
    }
    return closed ? index_problem : close_problem(error);
}

// Keeps what is told of the recording up with what is in its file.
void Recording::note(bool written) {
    if (!written) {
        write_error_ = errno;
    }
    recorded_.settle(file_.written());
}

bool Recording::is_full() const {
    return options_.frames != 0 && recorded_.handed_over() >= options_.frames;
}

bool Recording::is_over() const {
    const bool late = options_.duration > milliseconds(0) &&
                      Stop_Signal::Clock::now() - begin_ >= options_.duration;
    return late || is_full() || write_error_ || stop_.requested();
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
        tell_gap(gap);
    } else {
        stream_since_ = Stop_Signal::Clock::now();
    }
    write(frame_);
    return true;
}

void Recording::change_stream_if_due() {
    const bool has_two = options_.streams.size() == 2;
    if (has_two && !input_.is_changing() &&
        Stop_Signal::Clock::now() - stream_since_ >= options_.switch_every) {
        input_.change_stream(options_.change);
    }
}

void Recording::write(const Received_Frame& frame) {
    tell_change_of_codec(frame);
    const bool written = file_.write(frame.payload());
    if (written) {
        recorded_.add(options_.streams[stream_], frame);
        const bool is_damaged =
            options_.verify_synthetic && !is_synthetic(frame.payload(), frame.header.sequence);
        damaged_ += is_damaged ? 1U : 0U;
    }
    note(written);
}

void Recording::tell_change_of_codec(const Received_Frame& frame) {
    const std::uint32_t before = std::exchange(codec_, frame.header.codec);
    if (before != 0 && codec_ != 0 && before != codec_) {
        ++codec_changes_;
        complain("the stream changes from " + codec_name(before) + " to " + codec_name(codec_) +
                 " at frame " + std::to_string(frame.header.sequence) + ": players of " +
                 file_.title() + " stop there");
    }
}

// @param gap  lies before the frame that is about to be written.
void Recording::tell_gap(const Gap_Finder::Gap& gap) {
    if (gap.is_none() || gaps_++ >= gaps_told_max) {
        return;
    }
    const std::string frame = "frame " + std::to_string(frame_.header.sequence);
    std::string text = input_.title() + ": ";
    text += gap.other_producer ? frame + " is the first one of another or restarted producer"
                               : "a gap before " + frame;
    for (const auto& [count, fate] :
         {std::pair{gap.lost, " lost"}, std::pair{gap.dropped, " dropped for newer ones"},
          std::pair{gap.skipped, " left out on the way to a key frame"}}) {
        text += count > 0 ? ", " + std::to_string(count) + fate : "";
    }
    complain(text + (gaps_ == gaps_told_max ? "; further gaps are only counted" : ""));
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
             (recorded_.handed_over() > 0 ? "--keep-all" : "--any-frame"));
}

Problem Recording::write_problem() const {
    return {Exit_Status::input_output, "cannot write to " + file_.title() + " after " + amount() +
                                           ": " + Output_File::cause(*write_error_)};
}

// What the system has taken may still be lost on the way to the medium.
Problem Recording::close_problem(int error) const {
    return {Exit_Status::input_output, "cannot write " + file_.title() +
                                           " down to the medium, which may lack a part of " +
                                           amount() + ": " + Output_File::cause(error)};
}

std::string Recording::amount() const {
    return std::to_string(recorded_.frames()) + " frames, " + std::to_string(recorded_.bytes()) +
           " bytes";
}

Exit_Status Recording::tell() const {
    const Subscriber_Counters sum = input_.counters();
    std::fprintf(stderr,
                 "record: frames=%" PRIu64 " bytes=%" PRIu64 " lost=%" PRIu64 " dropped=%" PRIu64
                 " torn=%" PRIu64 " key_frames=%" PRIu64 " recovery_points=%" PRIu64
                 " first=%" PRIu64 " last=%" PRIu64 " skipped=%" PRIu64 " gaps=%" PRIu64
                 " foreign=%" PRIu64 " reconnects=%" PRIu64 " switches=%" PRIu64 " damaged=%" PRIu64
                 " overtaken=%" PRIu64 " left_out=%" PRIu64 " no_memory=%" PRIu64 "\n",
                 recorded_.frames(), recorded_.bytes(), sum.lost(), sum.dropped, sum.torn,
                 recorded_.key_frames(), recorded_.recovery_points(), recorded_.first_sequence(),
                 recorded_.last_sequence(), sum.skipped, gaps_, sum.foreign, sum.recoveries,
                 input_.changes(), damaged_, sum.overtaken, sum.left_out, sum.no_memory);
    if (recorded_.handed_over() == 0 && sum.skipped > 0) {
        complain(
            "nothing was written: of the " + std::to_string(sum.skipped) +
            " frames that came none was a key frame or recovery point; record for longer, with "
            "--any-frame, or have the encoder make key frames more often");
    }
    if (damaged_ > 0) {
        complain(std::to_string(damaged_) + " of " + std::to_string(recorded_.frames()) +
                 " frames do not hold the pattern of publish --synthetic");
        return Exit_Status::incomplete;
    }
    const std::uint64_t flaws = sum.lost() + sum.dropped + sum.torn + gaps_ + codec_changes_;
    const bool complete = flaws == 0 && recorded_.frames() > 0;
    return complete || !options_.strict ? Exit_Status::ok : Exit_Status::incomplete;
}

}  // namespace zav_shm::tool
