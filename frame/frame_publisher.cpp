// SPDX-License-Identifier: Apache-2.0
#include "frame/frame_publisher.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <optional>
#include <thread>
#include <utility>

#include "control/control_protocol.h"
#include "frame/center_link.h"
#include "frame/slot_writer.h"
#include "ipc/annotated_mutex.h"
#include "ipc/deadline.h"
#include "ipc/monotonic_clock.h"
#include "ipc/random_epoch.h"

using namespace std::chrono_literals;
using zav_shm::Backoff;
using zav_shm::Center_Link;
using zav_shm::Frame_Info;
using zav_shm::Frame_State;
using zav_shm::Publish_Outcome;
using zav_shm::Publisher_Counters;
using zav_shm::Slot_Writer;

namespace {

// What one publish() may spend on registering again. The center answers within one relay cycle
// when it lives.
constexpr auto inline_exchange = 50ms;

// What open() gives it at a time: when it is to lose no time, and so that what a starting center
// has thrown away is asked for again.
constexpr std::chrono::milliseconds least_exchange = 20ms;
constexpr std::chrono::milliseconds open_exchange = 200ms;

// As for every producer: nobody present within 10 ms means that nobody wants this frame.
constexpr long presence_wait_ms = 10;

// Unless somebody read the one before: a reader that has just died costs its relay up to 20 ms for
// that frame and 5 ms for this one, and the others want it all the same.
constexpr long presence_wait_after_delivery_ms = 30;

// While nobody reads, how often it is checked whether the center was restarted.
constexpr auto check_interval = 100ms;

}  // namespace

class ZAV_SHM_Frame_Publisher::Body {
public:
    explicit Body(Options options)
        : options_(std::move(options)),
          link_(zav_shm::control::type::distributor, options_.name, "", options_.channel,
                options_.stream) {}

    Opened open();
    void close(std::chrono::milliseconds limit);
    std::span<std::byte> loan();
    Result commit(std::size_t payload_bytes, const Frame_Info& info);
    Result publish(std::span<const std::byte> payload, const Frame_Info& info);
    void set_format(const zav_shm::Frame_Format& format) { options_.format = format; }

    Frame_State state() const { return state_; }
    Publisher_Counters counters() const;
    std::size_t page_bytes() const { return page_bytes_; }
    std::uint64_t epoch() const { return epoch_; }

private:
    bool connect(std::chrono::milliseconds limit);
    bool be_connected();
    void check_center();
    Result begin_frame();
    Result write(std::size_t payload_bytes, const Frame_Info& info);
    Result counted(Publish_Outcome outcome, std::size_t payload_bytes);
    ZAV_SHM_Frame_Header header_of(std::size_t payload_bytes, const Frame_Info& info) const;

    Options options_;
    Center_Link link_;
    std::optional<Slot_Writer> writer_;
    const std::uint64_t epoch_ = zav_shm::random_epoch();
    std::uint64_t sequence_ = 0;  // of the frame offered last
    Backoff retry_{50ms, 2000ms};
    Backoff check_{check_interval, check_interval};
    bool refused_ = false;
    bool was_connected_ = false;
    bool on_loan_ = false;
    bool was_delivered_ = false;  // the frame before
    std::int64_t loan_ns_ = 0;    // when the write began
    std::string reason_;          // why it is not connected

    std::atomic<Frame_State> state_{Frame_State::closed};
    std::atomic<std::size_t> page_bytes_{0};
    mutable zav_shm::Mutex counters_mutex_;
    Publisher_Counters counters_ ZAV_SHM_GUARDED_BY(counters_mutex_);
};

// ---- standing with the center ----

ZAV_SHM_Frame_Publisher::Opened ZAV_SHM_Frame_Publisher::Body::open() {
    const auto end = zav_shm::moment_after(options_.center_wait);
    const auto left = [&end] {
        return std::chrono::duration_cast<std::chrono::milliseconds>(end - Backoff::Clock::now());
    };
    state_ = Frame_State::waiting_for_center;
    retry_.reset();
    while (!connect(std::clamp<std::chrono::milliseconds>(left(), least_exchange, open_exchange)) &&
           !refused_ && left() > 0ms) {
        link_.wait_for_center(std::min(retry_.next(), end));
    }
    return {state_, reason_, refused_};
}

bool ZAV_SHM_Frame_Publisher::Body::connect(std::chrono::milliseconds limit) {
    const Center_Link::Registration made = link_.register_end(limit);
    refused_ = made.outcome == Center_Link::Outcome::refused;
    reason_ = made.reason;
    if (made) {
        writer_.emplace(made.segment, made.sem_src, made.sem_dst, made.sem_exist);
        if (!writer_->is_usable()) {
            writer_.reset();
            reason_ = "cannot use the segment or the semaphores of " + made.segment;
        }
    }
    if (!writer_) {
        state_ = Frame_State::waiting_for_center;
        retry_.failed();
        return false;
    }
    reason_.clear();
    retry_.reset();
    check_.failed();
    page_bytes_ = writer_->capacity();
    state_ = Frame_State::connected;
    if (std::exchange(was_connected_, true)) {
        const zav_shm::Guard guard(counters_mutex_);
        ++counters_.recoveries;
    }
    return true;
}

bool ZAV_SHM_Frame_Publisher::Body::be_connected() {
    if (writer_) {
        return true;
    }
    if (state_ == Frame_State::closed) {
        return false;
    }
    if (link_.center_has_come()) {
        retry_.reset();
    }
    return retry_.is_due() && connect(inline_exchange);
}

// Called when nobody wanted a frame, which is also what a producer of a dead center sees.
void ZAV_SHM_Frame_Publisher::Body::check_center() {
    if (!check_.is_due()) {
        return;
    }
    check_.failed();
    if (link_.is_stale()) {
        writer_.reset();
        state_ = Frame_State::waiting_for_center;
        reason_ = "the center was restarted";
        be_connected();
    } else {
        state_ = link_.center_is_gone() ? Frame_State::waiting_for_center : Frame_State::connected;
    }
}

void ZAV_SHM_Frame_Publisher::Body::close(std::chrono::milliseconds limit) {
    if (state_ == Frame_State::closed) {
        return;
    }
    if (writer_) {
        link_.deregister_end(limit);
    }
    writer_.reset();
    on_loan_ = false;
    state_ = Frame_State::closed;
}

// ---- frames ----

// On success the slot is the caller's to fill.
ZAV_SHM_Frame_Publisher::Result ZAV_SHM_Frame_Publisher::Body::begin_frame() {
    if (std::exchange(on_loan_, false)) {
        return {Publish_Outcome::delivered, 0, page_bytes_, {}};
    }
    if (!be_connected()) {
        return counted(refused_ ? Publish_Outcome::refused : Publish_Outcome::no_center, 0);
    }
    const long wait_ms = was_delivered_ ? presence_wait_after_delivery_ms : presence_wait_ms;
    was_delivered_ = false;
    if (!writer_->wait_for_consumer(wait_ms)) {
        check_center();
        const bool gone = state_ == Frame_State::waiting_for_center;
        return counted(gone ? Publish_Outcome::no_center : Publish_Outcome::no_consumer, 0);
    }
    loan_ns_ = zav_shm::monotonic_ns();
    writer_->begin();
    return {Publish_Outcome::delivered, 0, page_bytes_, {}};
}

ZAV_SHM_Frame_Publisher::Result ZAV_SHM_Frame_Publisher::Body::publish(
    std::span<const std::byte> payload, const Frame_Info& info) {
    sequence_ += on_loan_ ? 0 : 1;  // a loan that was given back has its number already
    if (be_connected() && payload.size() > writer_->capacity()) {
        return counted(Publish_Outcome::too_large, payload.size());
    }
    Result begun = begin_frame();
    if (!begun.delivered()) {
        begun.payload_bytes = payload.size();
        return begun;
    }
    writer_->fill(payload);
    return write(payload.size(), info);
}

std::span<std::byte> ZAV_SHM_Frame_Publisher::Body::loan() {
    if (!on_loan_) {
        ++sequence_;
        on_loan_ = begin_frame().delivered();
    }
    return on_loan_ ? writer_->room() : std::span<std::byte>();
}

ZAV_SHM_Frame_Publisher::Result ZAV_SHM_Frame_Publisher::Body::commit(std::size_t payload_bytes,
                                                                      const Frame_Info& info) {
    if (!on_loan_) {
        return {Publish_Outcome::no_consumer, payload_bytes, page_bytes_, "nothing is on loan"};
    }
    on_loan_ = false;
    if (payload_bytes > writer_->capacity()) {
        return counted(Publish_Outcome::too_large, payload_bytes);
    }
    return write(payload_bytes, info);
}

ZAV_SHM_Frame_Publisher::Result ZAV_SHM_Frame_Publisher::Body::write(std::size_t payload_bytes,
                                                                     const Frame_Info& info) {
    const bool read_in_time = writer_->commit(header_of(payload_bytes, info));
    state_ = Frame_State::connected;
    was_delivered_ = true;
    if (!read_in_time) {
        const zav_shm::Guard guard(counters_mutex_);
        ++counters_.slow_reads;
    }
    return counted(Publish_Outcome::delivered, payload_bytes);
}

ZAV_SHM_Frame_Header ZAV_SHM_Frame_Publisher::Body::header_of(std::size_t payload_bytes,
                                                              const Frame_Info& info) const {
    ZAV_SHM_Frame_Header header = {};
    header.magic = zav_shm::frame_magic;
    header.version = zav_shm::frame_version;
    header.flags = info.flags;
    header.sequence = sequence_;
    header.payload_length = static_cast<std::uint32_t>(payload_bytes);
    header.codec = options_.format.codec;
    header.epoch = epoch_;
    header.publish_ns = loan_ns_;
    header.pts_ns = info.pts.count();
    header.utc_ns = info.utc.count();
    header.width = options_.format.width;
    header.height = options_.format.height;
    header.rate_num = options_.format.rate_num;
    header.rate_den = options_.format.rate_den;
    header.channels = options_.format.channels;
    header.duration_us = static_cast<std::uint32_t>(info.duration.count());
    return header;
}

ZAV_SHM_Frame_Publisher::Result ZAV_SHM_Frame_Publisher::Body::counted(Publish_Outcome outcome,
                                                                       std::size_t payload_bytes) {
    const zav_shm::Guard guard(counters_mutex_);
    counters_.frames = sequence_;
    switch (outcome) {
        case Publish_Outcome::delivered:
            ++counters_.delivered;
            counters_.bytes += payload_bytes;
            return {outcome, payload_bytes, page_bytes_, {}};
        case Publish_Outcome::no_consumer:
            ++counters_.no_consumer;
            return {outcome, payload_bytes, page_bytes_, "no consumer is present"};
        case Publish_Outcome::too_large:
            ++counters_.too_large;
            return {outcome, payload_bytes, page_bytes_,
                    "payload of " + std::to_string(payload_bytes) + " bytes, page size of " +
                        options_.name + "/" + std::to_string(options_.channel) + "/" +
                        std::to_string(options_.stream) + " is " + std::to_string(page_bytes_)};
        case Publish_Outcome::no_center:
        case Publish_Outcome::refused:
            ++counters_.no_center;
            return {outcome, payload_bytes, page_bytes_,
                    reason_.empty() ? "the center is gone" : reason_};
    }
    return {};
}

Publisher_Counters ZAV_SHM_Frame_Publisher::Body::counters() const {
    const zav_shm::Guard guard(counters_mutex_);
    return counters_;
}

// ---- the public class ----

ZAV_SHM_Frame_Publisher::ZAV_SHM_Frame_Publisher(Options options)
    : body_(std::make_unique<Body>(std::move(options))) {}

ZAV_SHM_Frame_Publisher::~ZAV_SHM_Frame_Publisher() { close(); }

ZAV_SHM_Frame_Publisher::Opened ZAV_SHM_Frame_Publisher::open() { return body_->open(); }

void ZAV_SHM_Frame_Publisher::close(std::chrono::milliseconds limit) { body_->close(limit); }

ZAV_SHM_Frame_Publisher::Result ZAV_SHM_Frame_Publisher::publish(std::span<const std::byte> payload,
                                                                 const Frame_Info& info) {
    return body_->publish(payload, info);
}

std::span<std::byte> ZAV_SHM_Frame_Publisher::loan() { return body_->loan(); }

ZAV_SHM_Frame_Publisher::Result ZAV_SHM_Frame_Publisher::commit(std::size_t payload_bytes,
                                                                const Frame_Info& info) {
    return body_->commit(payload_bytes, info);
}

void ZAV_SHM_Frame_Publisher::set_format(const zav_shm::Frame_Format& format) {
    body_->set_format(format);
}

Frame_State ZAV_SHM_Frame_Publisher::state() const { return body_->state(); }

Publisher_Counters ZAV_SHM_Frame_Publisher::counters() const { return body_->counters(); }

std::size_t ZAV_SHM_Frame_Publisher::page_bytes() const { return body_->page_bytes(); }

std::uint64_t ZAV_SHM_Frame_Publisher::epoch() const { return body_->epoch(); }
