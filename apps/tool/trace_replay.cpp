// SPDX-License-Identifier: Apache-2.0
#include "apps/tool/trace_replay.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>

#include "apps/tool/counter_sums.h"
#include "apps/trace/trace_seek.h"

namespace zav_shm::tool {

namespace {

using std::chrono::nanoseconds;
using Step = trace::Trace_Reader::Step;

// A longer silence is told, lest it be taken for a fault.
constexpr std::chrono::seconds silence_told_from{10};

// From the last frame of a lap to the first one of the next in a trace of one frame.
constexpr nanoseconds lone_frame{40'000'000};

const Replay_Options::Name* renaming_of(const Replay_Options& options, const std::string& name) {
    const Replay_Options::Name* found = nullptr;
    for (const auto& renaming : options.names) {
        if (renaming.from == name || (renaming.from.empty() && found == nullptr)) {
            found = &renaming;
        }
    }
    return found;
}

}  // namespace

Trace_Replay::Trace_Replay(const Replay_Options& options, const Stop_Signal& stop)
    : options_(options), stop_(stop), title_("\"" + options.file + "\""), clock_(options.speed) {}

// ---- before the first frame ----

std::optional<Problem> Trace_Replay::open() {
    if (const std::string trouble = file_.open(options_.file); !trouble.empty()) {
        return Problem{Exit_Status::input_output, "cannot open " + title_ + ": " + trouble};
    }
    trace::Trace_Reader reader(file_);
    if (const auto damage = reader.open()) {
        return Problem{Exit_Status::input_output, "cannot read " + title_ + " " + damage->text()};
    }
    if (reader.streams().empty()) {
        return Problem{
            Exit_Status::input_output,
            "there is no stream in " + title_ +
                (reader.next() == Step::damage ? " " + reader.damage().text() : std::string())};
    }
    if (auto problem = make_streams(reader.streams())) {
        return problem;
    }
    begins_.assign(streams_.size(), reader.begin());
    for (const auto& stream : streams_) {
        if (const auto damage = stream->open_trace()) {  // the file has changed meanwhile
            return Problem{Exit_Status::input_output,
                           "cannot read " + title_ + " " + damage->text()};
        }
        stream->go_to(reader.begin());
    }
    find_begins();
    for (const auto& stream : streams_) {
        if (auto problem = stream->open()) {
            return problem;
        }
    }
    opened_ = Clock::now();
    return {};
}

std::optional<Problem> Trace_Replay::make_streams(const std::vector<trace::Stream_Name>& names) {
    for (const auto& renaming : options_.names) {
        const bool is_there =
            renaming.from.empty() || std::any_of(names.begin(), names.end(), [&](const auto& name) {
                return name.producer == renaming.from;
            });
        if (!is_there) {
            return Problem{Exit_Status::usage, "--name: no stream of " + title_ + " is of '" +
                                                   renaming.from + "'; the first one is " +
                                                   names[0].text()};
        }
    }
    std::vector<std::string> titles;
    for (const trace::Stream_Name& name : names) {
        constexpr auto greatest = static_cast<std::uint32_t>(std::min(channel_max, stream_max));
        if (name.channel > greatest || name.stream > greatest) {
            return Problem{Exit_Status::input_output, title_ + " has " + name.text() +
                                                          "; the greatest channel and stream is " +
                                                          std::to_string(greatest)};
        }
        const auto* const renaming = renaming_of(options_, name.producer);
        const Channel_Options to{renaming != nullptr ? renaming->to : name.producer,
                                 static_cast<int>(name.channel), static_cast<int>(name.stream)};
        const auto number = static_cast<std::uint16_t>(streams_.size());
        streams_.push_back(std::make_unique<Replayed_Stream>(options_, file_, number, to, stop_));
        const std::string& title = streams_.back()->title();
        const auto twin = std::find(titles.begin(), titles.end(), title);
        if (twin != titles.end()) {
            return Problem{Exit_Status::usage,
                           names[static_cast<std::size_t>(twin - titles.begin())].text() + " and " +
                               name.text() + " of " + title_ + " would both be " + title +
                               "; give each a name of its own with --name OLD=NEW"};
        }
        titles.push_back(title);
    }
    return {};
}

// The streams stand at the trace's begin, and know its first moments.
void Trace_Replay::find_begins() {
    const Replayed_Stream* const first = earliest();
    if (first == nullptr || options_.from <= std::chrono::milliseconds(0)) {
        return;
    }
    const std::int64_t first_ns = first->moment_ns();
    begins_ = trace::find_begins(file_, first_ns + nanoseconds(options_.from).count());
    begins_.resize(streams_.size(), file_.size_bytes());
    for (std::size_t i = 0; i < streams_.size(); ++i) {
        streams_[i]->go_to(begins_[i]);
    }
    tell_begin(first_ns);
}

// The user asked for a moment, and gets the key frame before it.
void Trace_Replay::tell_begin(std::int64_t first_ns) {
    const Replayed_Stream* const first = earliest();
    if (first != nullptr) {
        char seconds[32];
        std::snprintf(seconds, sizeof seconds, "%.3f",
                      static_cast<double>(first->moment_ns() - first_ns) / 1e9);
        complain(title_ + ": beginning at " + seconds + " s");
    }
}

// ---- frames ----

std::optional<Problem> Trace_Replay::run() {
    while (!is_over()) {
        Replayed_Stream* const stream = earliest();
        if (stream == nullptr) {
            tell_end();
            if (!begin_next_lap()) {
                return {};
            }
            continue;
        }
        const std::int64_t moment_ns = stream->moment_ns();
        if (!wait_for(later_by(moment_ns, later_))) {
            return {};
        }
        lap_first_ns_ = lap_frames_++ == 0 ? moment_ns : lap_first_ns_;
        lap_last_ns_ = moment_ns;
        ++frames_;
        if (auto problem = stream->publish(later_, !options_.loop)) {
            return problem;
        }
    }
    return {};
}

bool Trace_Replay::is_over() const {
    return stop_.requested() || (options_.count != 0 && frames_ >= options_.count);
}

// Each stream has its frames in their order; beside each other they are in that of their moments.
Replayed_Stream* Trace_Replay::earliest() {
    Replayed_Stream* found = nullptr;
    for (const auto& stream : streams_) {
        if (stream->has_frame() && (found == nullptr || stream->moment_ns() < found->moment_ns())) {
            found = stream.get();
        }
    }
    return found;
}

// @return false when a signal came first.
bool Trace_Replay::wait_for(std::int64_t moment_ns) {
    const auto now = Clock::now();
    const auto due = clock_.due(moment_ns, now);
    if (due - now > silence_told_from) {
        const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(due - now).count();
        complain(title_ + ": the next frame is due in " + std::to_string(seconds) + " s");
    }
    if (stop_.wait_until(due)) {
        return false;
    }
    late_max_ = std::max<nanoseconds>(late_max_, Clock::now() - due);
    return true;
}

// @return false when there is none.
bool Trace_Replay::begin_next_lap() {
    if (!options_.loop || is_damaged_ || lap_frames_ == 0) {
        return false;
    }
    // The first frame comes behind the last one as far as frames are from each other.
    const nanoseconds length(lap_last_ns_ - lap_first_ns_);
    const auto intervals = static_cast<std::int64_t>(lap_frames_) - 1;
    const nanoseconds interval =
        intervals > 0 && length.count() > 0 ? length / intervals : lone_frame;
    later_ = nanoseconds(later_by(later_by(later_.count(), length), interval));
    ++laps_;
    lap_frames_ = 0;
    for (std::size_t i = 0; i < streams_.size(); ++i) {
        streams_[i]->go_to(begins_[i]);
    }
    return true;
}

// All streams have come to the same end, apart from one with damage of its own.
void Trace_Replay::tell_end() {
    const trace::Damage* damage = nullptr;
    bool is_closed = true;
    for (const auto& stream : streams_) {
        if (stream->end() == Step::damage &&
            (damage == nullptr || stream->damage().offset < damage->offset)) {
            damage = &stream->damage();
        }
        is_closed = is_closed && stream->end() == Step::end;
    }
    if (damage != nullptr) {
        is_damaged_ = true;
        complain(title_ + (damage->is_cut ? " is cut " : " is damaged ") + damage->text());
    } else if (!is_closed && laps_ == 0) {
        complain(title_ + " was not closed: its capture was killed, or is still at work");
    }
}

Exit_Status Trace_Replay::close() {
    Replayed_Stream::Counters sum;
    for (const auto& stream : streams_) {
        stream->close();
        const auto counters = stream->counters();
        sum.restarts += counters.restarts;
        sum.left_out += counters.left_out;
        sum.foreign += counters.foreign;
        add(sum.published, counters.published);
    }
    const std::chrono::duration<double> seconds = Clock::now() - opened_;
    const std::chrono::duration<double, std::milli> late = late_max_;
    std::fprintf(stderr,
                 "replay: streams=%zu frames=%" PRIu64 " published=%" PRIu64 " too_large=%" PRIu64
                 " refused=%" PRIu64 " left_out=%" PRIu64 " foreign=%" PRIu64 " bytes=%" PRIu64
                 " seconds=%.2f laps=%" PRIu64 " restarts=%" PRIu64
                 " late_max_ms=%.2f"
                 " waits=%" PRIu64 " given_up=%" PRIu64 "\n",
                 streams_.size(), frames_, sum.published.published, sum.published.too_large,
                 sum.published.refused, sum.left_out, sum.foreign, sum.published.bytes,
                 seconds.count(), laps_, sum.restarts, late.count(), sum.published.waits,
                 sum.published.given_up);
    const bool complete = !is_damaged_ && sum.published.too_large + sum.published.refused == 0;
    return complete ? Exit_Status::ok : Exit_Status::incomplete;
}

}  // namespace zav_shm::tool
