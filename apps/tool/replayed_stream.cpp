// SPDX-License-Identifier: Apache-2.0
#include "apps/tool/replayed_stream.h"

#include <algorithm>
#include <utility>

#include "apps/tool/center_request.h"
#include "apps/tool/configured_name.h"
#include "apps/tool/counter_sums.h"
#include "apps/tool/replay_clock.h"
#include "control/control_protocol.h"

namespace zav_shm::tool {

namespace {

using Step = trace::Trace_Reader::Step;

Frame_Format format_of(const ZAV_SHM_Frame_Header& header) {
    return {.codec = header.codec,
            .width = header.width,
            .height = header.height,
            .rate_num = header.rate_num,
            .rate_den = header.rate_den,
            .channels = header.channels};
}

}  // namespace

Replayed_Stream::Replayed_Stream(const Replay_Options& options, const trace::Trace_Source& source,
                                 std::uint16_t number, Channel_Options to, const Stop_Signal& stop)
    : options_(options),
      to_(std::move(to)),
      title_(channel_text(to_.name, to_.channel, to_.stream)),
      number_(number),
      stop_(stop),
      reader_(source) {
    reader_.read_only(number_);
}

std::optional<Problem> Replayed_Stream::open() {
    if (auto problem = check_channel_end(control::type::distributor, to_.name, to_.channel,
                                         to_.stream, {options_.wait, &stop_})) {
        return problem;
    }
    if (auto problem = begin_publisher()) {
        return problem;
    }
    complain("replaying " + title_ + ", page size " + std::to_string(publisher_->page_bytes()));
    return {};
}

std::optional<Problem> Replayed_Stream::begin_publisher() {
    close();
    publisher_ = std::make_unique<ZAV_SHM_Frame_Publisher>(
        ZAV_SHM_Frame_Publisher::Options{.name = to_.name,
                                         .channel = to_.channel,
                                         .stream = to_.stream,
                                         .format = {},
                                         .center_wait = options_.wait,
                                         .history_bytes = options_.history,
                                         .paced = options_.paced,
                                         .pace_limit = options_.pace_limit});
    publisher_is_new_ = true;
    auto problem = problem_of(publisher_->open(), title_, options_.wait);
    state_ = publisher_->state();
    return problem;
}

void Replayed_Stream::close() {
    if (publisher_) {
        publisher_->close();
        add(counters_.published, publisher_->counters());
        publisher_.reset();
    }
}

void Replayed_Stream::go_to(std::uint64_t offset) {
    reader_.go_to(offset);
    epoch_ = 0;
    has_moment_ = false;
    next();
}

void Replayed_Stream::next() {
    do {
        end_ = reader_.next();
    } while (end_ == Step::record && reader_.record().head.type != trace::Record_Type::frame);
    has_frame_ = end_ == Step::record;
    if (has_frame_) {
        const std::int64_t moment_ns = reader_.record().moment_ns();
        moment_ns_ = std::exchange(has_moment_, true) ? std::max(moment_ns, moment_ns_) : moment_ns;
    }
}

std::optional<Problem> Replayed_Stream::publish(std::chrono::nanoseconds later, bool may_end) {
    const trace::Trace_Record& record = reader_.record();
    const ZAV_SHM_Frame_Header& header = record.frame;
    if (record.is_foreign()) {
        ++counters_.foreign;
        publisher_->set_format({});
    } else {
        if (auto problem = follow_epoch()) {
            return problem;
        }
        keep_numbers();
        publisher_->set_format(format_of(header));
    }
    Frame_Info info;
    if (!record.is_foreign()) {
        info.flags = static_cast<std::uint16_t>(
            may_end ? header.flags : header.flags & ~frame_flag::end_of_stream);
        info.pts = std::chrono::nanoseconds(later_by(header.pts_ns, later));
        info.utc =
            std::chrono::nanoseconds(header.utc_ns == 0 ? 0 : later_by(header.utc_ns, later));
        info.duration = std::chrono::microseconds(header.duration_us);
    }
    ++counters_.offered;
    publisher_is_new_ = false;
    const auto result = publisher_->publish(record.payload, info);
    if (result.outcome == Publish_Outcome::too_large && !std::exchange(told_too_large_, true)) {
        complain("a frame of " + std::to_string(record.payload.size()) +
                 " bytes left out, page size of " + title_ + " is " +
                 std::to_string(result.limit_bytes) +
                 "; raise page_size in the center's configuration; further ones are only counted");
    }
    watch_state();
    next();
    return {};
}

// Another instance of the producer in the trace is another one here.
std::optional<Problem> Replayed_Stream::follow_epoch() {
    const std::uint64_t epoch = reader_.record().frame.epoch;
    const std::uint64_t before = std::exchange(epoch_, epoch);
    if (before == epoch || before == 0) {
        return {};
    }
    sequence_ = 0;
    ++counters_.restarts;
    return begin_publisher();
}

// What the trace has no frame for is left out here, too. Before the first frame nobody misses any.
void Replayed_Stream::keep_numbers() {
    const std::uint64_t sequence = reader_.record().frame.sequence;
    const std::uint64_t before = std::exchange(sequence_, sequence);
    const bool goes_on = !publisher_is_new_;
    const std::uint64_t expected = goes_on ? before + 1 : 1;
    if (sequence > expected) {
        publisher_->leave_out(sequence - expected);
        counters_.left_out += goes_on ? sequence - expected : 0;
    }
}

void Replayed_Stream::watch_state() {
    const Frame_State now = publisher_->state();
    if (std::exchange(state_, now) != now) {
        complain(title_ + " is " + name_of(now) + " now, after " +
                 std::to_string(counters_.offered) + " frames");
    }
}

Replayed_Stream::Counters Replayed_Stream::counters() const {
    Counters sum = counters_;
    if (publisher_) {
        add(sum.published, publisher_->counters());
    }
    return sum;
}

}  // namespace zav_shm::tool
