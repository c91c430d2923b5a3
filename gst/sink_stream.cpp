// SPDX-License-Identifier: Apache-2.0
#include "gst/sink_stream.h"

#include <utility>

namespace zav_shm::gst {

namespace {

std::optional<media::Video_Codec> video_codec(std::uint32_t codec) {
    switch (codec) {
        case codec::h264:
            return media::Video_Codec::h264;
        case codec::h265:
            return media::Video_Codec::h265;
        default:
            return std::nullopt;
    }
}

std::uint16_t flag_if(bool condition, std::uint16_t flag) {
    return condition ? flag : std::uint16_t{0};
}

}  // namespace

Sink_Stream::Sink_Stream(const Options& options) : publisher_(options), center_(options.folder) {}

Opened Sink_Stream::open() { return publisher_.open(); }

void Sink_Stream::close() {
    const Guard guard(mutex_);
    is_closing_ = true;
    lending_.end();
    if (loan_ == no_loan) {
        publisher_.close();
    }
}

void Sink_Stream::set_format(const Frame_Format& format) {
    const Guard guard(mutex_);
    if (format.codec != codec_) {
        codec_ = format.codec;
        units_.reset();
        if (const auto codec = video_codec(codec_)) {
            units_.emplace(*codec);
        }
    }
    publisher_.set_format(format);
}

// ---- frames ----

Sink_Stream::Result Sink_Stream::write(std::span<const std::byte> payload, const Frame& frame) {
    const Guard guard(mutex_);
    lending_.arrive(frame.is_of_pool, frame.is_alone);
    if (loan_ != no_loan) {
        return leave_out_locked(payload.size(), "the room for it is lent to an element upstream");
    }
    return publish(payload, frame);
}

Sink_Stream::Result Sink_Stream::publish(std::span<const std::byte> payload, const Frame& frame) {
    Frame_Info info = frame.info;
    info.flags = flags_of(payload, frame);
    if (units_) {
        const auto completed = units_->completed(payload);
        if (completed.data() != payload.data()) {
            info.flags |= frame_flag::codec_configuration;
            ++completed_;
            payload = completed;
        }
    }
    return noted(publisher_.publish(payload, info));
}

Sink_Stream::Result Sink_Stream::commit(const Loan& loan, std::size_t payload_bytes,
                                        const Frame& frame) {
    const Guard guard(mutex_);
    lending_.arrive(frame.is_of_pool, frame.is_alone);
    if (!loan.is_of(*this) || loan.number() != loan_) {
        return leave_out_locked(payload_bytes, "it has been published before, in place");
    }
    Frame_Info info = frame.info;
    info.flags = flags_of(loan.room().first(payload_bytes), frame);
    loan_ = no_loan;
    Result result = publisher_.commit(payload_bytes, info);
    in_place_ += result.published() ? 1 : 0;
    return noted(std::move(result));
}

std::uint16_t Sink_Stream::flags_of(std::span<const std::byte> payload, const Frame& frame) {
    // Audio, JPEG and raw pictures: every frame stands alone. The head of an ADTS frame is what a
    // decoder is configured by.
    Unit_Facts facts{.is_key = true, .has_configuration = codec_ == codec::aac};
    if (units_) {
        facts = units_->read(payload, frame.is_entry);
    }
    has_delta_frames_ |= !facts.is_key;
    // In front of the first frame there is nothing that it could be torn from.
    const auto given = static_cast<std::uint16_t>(
        has_begun_ ? frame.info.flags : frame.info.flags & ~frame_flag::discontinuity);
    return static_cast<std::uint16_t>(
        given | flag_if(facts.is_key, frame_flag::key_frame) |
        flag_if(facts.is_recovery_point, frame_flag::recovery_point) |
        flag_if(facts.has_configuration, frame_flag::codec_configuration) |
        flag_if(is_discontinuous_, frame_flag::discontinuity));
}

Sink_Stream::Result Sink_Stream::noted(Result result) {
    is_discontinuous_ = !result.published();
    has_frames_ |= result.published();
    has_begun_ |= result.published();
    return result;
}

void Sink_Stream::write_end(std::chrono::nanoseconds pts) {
    const Guard guard(mutex_);
    if (has_frames_ && loan_ == no_loan) {
        publisher_.publish({}, {.flags = frame_flag::end_of_stream, .pts = pts});
        has_frames_ = false;
    }
}

Sink_Stream::Result Sink_Stream::leave_out(std::size_t payload_bytes, const std::string& reason) {
    const Guard guard(mutex_);
    return leave_out_locked(payload_bytes, reason);
}

// It has a number all the same, so that readers are told.
Sink_Stream::Result Sink_Stream::leave_out_locked(std::size_t payload_bytes,
                                                  const std::string& reason) {
    lending_.end();
    publisher_.leave_out(1);
    ++left_out_;
    is_discontinuous_ = true;
    return {Publish_Outcome::no_ring, payload_bytes, publisher_.page_bytes(), reason};
}

// ---- loans ----

std::unique_ptr<Sink_Stream::Loan> Sink_Stream::lend(std::size_t bytes) {
    const Guard guard(mutex_);
    if (is_closing_ || loan_ != no_loan || !lending_.may_lend()) {
        return nullptr;
    }
    const auto room = publisher_.loan(bytes);
    if (room.size() < bytes) {
        return nullptr;
    }
    loan_ = ++loans_;
    return std::make_unique<Loan>(shared_from_this(), room, loan_);
}

void Sink_Stream::give_back(std::uint64_t number) {
    const Guard guard(mutex_);
    if (loan_ != number) {
        return;  // it was published
    }
    loan_ = no_loan;
    if (is_closing_) {
        publisher_.close();
    }
}

void Sink_Stream::begin_lending() {
    const Guard guard(mutex_);
    lending_.begin();
}

void Sink_Stream::acquire_buffer() {
    const Guard guard(mutex_);
    lending_.acquire();
}

void Sink_Stream::release_buffer() {
    const Guard guard(mutex_);
    lending_.release();
}

// ---- what others want to know ----

bool Sink_Stream::key_frame_requested() {
    const Guard guard(mutex_);
    // Asked first: a request from a time without delta frames is answered by the next frame.
    return publisher_.key_frame_requested() && has_delta_frames_;
}

std::optional<Sink_Stream::Change> Sink_Stream::changed_state() {
    const Guard guard(mutex_);
    Frame_State now = publisher_.state();
    const bool is_killed = now == Frame_State::connected && center_.is_gone();
    if (is_killed) {
        now = Frame_State::waiting_for_center;
    }
    if (now == std::exchange(told_state_, now)) {
        return std::nullopt;
    }
    return Change{now, is_killed ? "the center has been killed" : publisher_.reason()};
}

}  // namespace zav_shm::gst
