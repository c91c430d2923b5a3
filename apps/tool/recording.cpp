// SPDX-License-Identifier: Apache-2.0
#include "apps/tool/recording.h"

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <utility>

#include "apps/tool/synthetic_pattern.h"

namespace zav_shm::tool {

namespace {

using std::chrono::milliseconds;

// How long one look for a frame may hold up the others: signals, the time limit, and the second
// stream, whose key frame waits for as long.
constexpr milliseconds look{20};

// A stream that loses frames all the time would fill the screen.
constexpr std::uint64_t gaps_told_max = 5;

// Encoders that make key frames at all make one within this time, as a rule.
constexpr std::chrono::seconds waiting_told_after{5};

// A queue holds no more frames than this when it is emptied at the end.
constexpr int queued_max = 64;

}  // namespace

Recording::Recording(const Record_Options& options, int standard_output, const Stop_Signal& stop)
    : options_(options),
      stop_(stop),
      file_(options.file, standard_output, stop),
      index_(options.index, standard_output, stop),
      recorded_(index_),
      begin_(Stop_Signal::Clock::now()),
      switch_(options.switch_every, begin_) {
    for (const int stream : options.streams) {
        const Channel_Options channel{options.name, options.channel, stream};
        inputs_.push_back(std::make_unique<Frame_Input>(options, channel, options.producer, stop));
        gates_.push_back(Entry_Gate(
            {.waits_at_begin = !options.any_frame, .waits_after_gap = !options.keep_all}));
    }
}

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
    for (const auto& input : inputs_) {
        if (auto problem = input->open()) {
            return problem;
        }
    }
    if (!file_.empty()) {
        write_error_ = errno;
        return write_problem();
    }
    begin_ = Clock::now();
    return index_.begin();
}

std::optional<Problem> Recording::run() {
    while (!is_over()) {
        take(switch_.active(), look);
        for (std::size_t other = 0; other < inputs_.size(); ++other) {
            while (other != switch_.active() && !is_over() && take(other, milliseconds(0))) {
            }
        }
        for (const auto& input : inputs_) {
            input->tell_state();
        }
        tell_what_is_waited_for();
        note(write_error_ || file_.flush_if_due());
    }
    return write_error_ ? std::optional(write_problem()) : std::nullopt;
}

std::optional<Problem> Recording::close() {
    for (int i = 0; i < queued_max && !is_full() && !write_error_; ++i) {
        if (!take(switch_.active(), milliseconds(0))) {
            break;
        }
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

// @return whether there was a frame.
bool Recording::take(std::size_t input, milliseconds timeout) {
    if (inputs_[input]->receive(frame_, timeout) != Receive_Status::frame) {
        return false;
    }
    pass_on(input);
    return true;
}

// The gate of the stream that is not written is kept up to date, too: what it lets pass is where a
// change may come about.
void Recording::pass_on(std::size_t input) {
    const auto now = Stop_Signal::Clock::now();
    const bool passes = gates_[input].lets_pass(frame_, now);
    const std::size_t before = switch_.active();
    if (!passes) {
        skipped_ += input == before ? 1U : 0U;
    } else if (switch_.offer(input, frame_.is_entry_point(), now)) {
        if (input == before) {
            tell_gap(inputs_[input]->consumer_channel(), gates_[input].gap());
        }
        told_waiting_ = false;
        write(input, frame_);
    }
}

void Recording::write(std::size_t input, const Received_Frame& frame) {
    tell_change_of_codec(frame);
    const bool written = file_.write(frame.payload());
    if (written) {
        recorded_.add(options_.streams[input], frame);
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
void Recording::tell_gap(const std::string& consumer, const Entry_Gate::Gap& gap) {
    if (gap.is_none() || gaps_++ >= gaps_told_max) {
        return;
    }
    const std::string frame = "frame " + std::to_string(frame_.header.sequence);
    std::string text = consumer + ": ";
    text += gap.other_producer ? frame + " is the first one of another or restarted producer"
                               : "a gap before " + frame;
    for (const auto& [count, fate] :
         {std::pair{gap.lost, " lost"}, std::pair{gap.dropped, " dropped as the queue was full"},
          std::pair{gap.skipped, " left out on the way to a key frame"}}) {
        text += count > 0 ? ", " + std::to_string(count) + fate : "";
    }
    complain(text + (gaps_ == gaps_told_max ? "; further gaps are only counted" : ""));
}

void Recording::tell_what_is_waited_for() {
    const Entry_Gate& gate = gates_[switch_.active()];
    const auto waits = gate.waits_for(Stop_Signal::Clock::now());
    if (told_waiting_ ||
        waits.value_or(waiting_told_after - milliseconds(1)) < waiting_told_after) {
        return;
    }
    told_waiting_ = true;
    complain(inputs_[switch_.active()]->consumer_channel() + ": for " +
             std::to_string(waiting_told_after.count()) + " s neither a key frame nor a recovery " +
             "point has come, " + std::to_string(gate.left_out()) +
             " frames are left out so far; have the encoder make key frames more often, or record "
             "with " +
             (gate.has_begun() ? "--keep-all" : "--any-frame"));
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
    Subscriber_Counters sum;
    for (const auto& input : inputs_) {
        const Subscriber_Counters counters = input->counters();
        sum.lost += counters.lost;
        sum.dropped += counters.dropped;
        sum.torn += counters.torn;
        sum.foreign += counters.foreign;
        sum.recoveries += counters.recoveries;
    }
    std::fprintf(stderr,
                 "record: frames=%" PRIu64 " bytes=%" PRIu64 " lost=%" PRIu64 " dropped=%" PRIu64
                 " torn=%" PRIu64 " key_frames=%" PRIu64 " recovery_points=%" PRIu64
                 " first=%" PRIu64 " last=%" PRIu64 " skipped=%" PRIu64 " gaps=%" PRIu64
                 " foreign=%" PRIu64 " reconnects=%" PRIu64 " switches=%" PRIu64 " damaged=%" PRIu64
                 "\n",
                 recorded_.frames(), recorded_.bytes(), sum.lost, sum.dropped, sum.torn,
                 recorded_.key_frames(), recorded_.recovery_points(), recorded_.first_sequence(),
                 recorded_.last_sequence(), skipped_, gaps_, sum.foreign, sum.recoveries,
                 switch_.switches(), damaged_);
    if (recorded_.handed_over() == 0 && skipped_ > 0) {
        complain(
            "nothing was written: of the " + std::to_string(skipped_) +
            " frames that came none was a key frame or recovery point; record for longer, with "
            "--any-frame, or have the encoder make key frames more often");
    }
    if (damaged_ > 0) {
        complain(std::to_string(damaged_) + " of " + std::to_string(recorded_.frames()) +
                 " frames do not hold the pattern of publish --synthetic");
        return Exit_Status::incomplete;
    }
    const std::uint64_t flaws = sum.lost + sum.dropped + sum.torn + gaps_ + codec_changes_;
    const bool complete = flaws == 0 && recorded_.frames() > 0;
    return complete || !options_.strict ? Exit_Status::ok : Exit_Status::incomplete;
}

}  // namespace zav_shm::tool
