// SPDX-License-Identifier: Apache-2.0
#include "frame/frame_subscriber.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <limits>
#include <mutex>
#include <thread>
#include <utility>

#include "control/control_protocol.h"
#include "frame/frame_poll.h"
#include "frame/frame_source.h"
#include "frame/link/consumer_route.h"
#include "frame/link/standing.h"
#include "frame/slot/slot_intake.h"
#include "ipc/monotonic_clock.h"
#include "ipc/shared_memory_folder.h"
#include "ring/reader_card.h"
#include "ring/writer_requests.h"

using namespace std::chrono_literals;
using zav_shm::Frame_Facts;
using zav_shm::Frame_Source;
using zav_shm::Frame_State;
using zav_shm::monotonic_ns;
using zav_shm::Reader_Card;
using zav_shm::Receive_Status;
using zav_shm::Route_Page;

namespace {

constexpr std::int64_t ns_per_ms = 1'000'000;
constexpr std::int64_t ns_per_second = 1'000'000'000;

// Without a frame for this long the producer is what is waited for.
constexpr std::int64_t producer_limit_ns = ns_per_second;

// How often it is looked, while frames come, whether somebody has paired this consumer anew. While
// none come, the center wakes it.
constexpr std::int64_t route_look_ns = 50 * ns_per_ms;

// How often it is looked whether a producer of the fixed interface has got a ring.
constexpr std::int64_t ring_look_ns = ns_per_second;

// Between two attempts to wake a receive() that is to end.
constexpr auto wake_again = 50us;

std::int64_t deadline_after(std::int64_t now, std::chrono::milliseconds timeout) {
    const std::int64_t most = (std::numeric_limits<std::int64_t>::max() - now) / ns_per_ms;
    return now + std::clamp<std::int64_t>(timeout.count(), 0, most) * ns_per_ms;
}

template <std::size_t size>
void copy_text(char (&field)[size], const std::string& text) {
    std::memcpy(field, text.data(), std::min(text.size(), size - 1));
}

// True while a publisher writes the ring of this name.
bool is_written(const std::string& ring_path) {
    zav_shm::Ring_Problem problem;
    const auto ring =
        zav_shm::Ring_Memory::open(ring_path, zav_shm::Ring_Memory::Reading::copied, problem);
    return ring && ring->has_writer();
}

}  // namespace

class ZAV_SHM_Frame_Subscriber::Body {
public:
    explicit Body(Options options);

    Opened open();
    void close(std::chrono::milliseconds limit);
    Opened pair(const std::string& producer, std::chrono::milliseconds limit);
    Receive_Status receive(zav_shm::Received_Frame& frame, std::chrono::milliseconds timeout) {
        return take(frame, timeout, [&] { return source_.copy_next(frame); });
    }
    Receive_Status receive_view(zav_shm::Frame_View& view, std::chrono::milliseconds timeout) {
        return take(view, timeout, [&] { return source_.view_next(view); });
    }
    void seek(const zav_shm::Start& from) { source_.seek(from); }
    int descriptor();
    bool request_key_frame() const;

    Frame_State state() const;
    std::string reason() const;
    zav_shm::Subscriber_Counters counters() const;

private:
    using Standing = zav_shm::Standing;

    template <class Next>
    Receive_Status take(Frame_Facts& frame, std::chrono::milliseconds timeout, const Next& next);
    void wake() { source_.wake(); }
    void note(const Frame_Facts& frame);
    void note_missed();
    void begin_card();

    // On the receiving thread: whose frames are read, and where they are.
    void follow_standing();
    void follow_route(std::int64_t now_ns);
    void read_from(const std::string& producer, std::int64_t since_ns);
    void choose_slot_or_ring(std::int64_t now_ns);
    void begin_intake();
    void end_intake();
    void ask_for_key_frame();
    void tell_why_none_comes();
    void tell(std::string trouble, bool refused);

    bool is_tap() const { return options_.name.empty(); }
    std::string rings() const;
    std::string ring_of(const std::string& producer) const;

    const Options options_;
    std::mutex control_;  // open, close and pair; held through exchanges
    std::string card_name_;
    std::atomic<bool> open_{false};
    std::atomic<bool> receiving_{false};
    std::atomic<std::int64_t> opened_ns_{0};
    std::atomic<bool> standing_changed_{false};  // a center has granted or refused something

    // Of the receiving thread, and of open() and close().
    Frame_Source source_;
    zav_shm::Consumer_Route route_;
    Route_Page::Source frames_are_in_ = Route_Page::unknown;
    std::unique_ptr<zav_shm::Frame_Poll> poll_;
    std::string producer_;  // that is read; empty: none
    std::string path_;      // of its ring
    std::uint64_t grant_ = 0;
    std::int64_t read_since_ns_ = 0;  // the latest pair() that has been followed
    std::int64_t next_look_ns_ = 0;
    std::int64_t next_choice_ns_ = 0;
    bool asked_ = false;  // for the key frame that is waited for

    // The receiving thread reads these without the mutex, since nobody else changes them while it
    // receives.
    mutable std::mutex mutex_;                      // guards all below; held for a few instructions
    std::shared_ptr<Standing> standing_;            // null: a tap, or closed
    std::unique_ptr<zav_shm::Own_Card> card_;       // null while closed
    Reader_Card kept_;                              // then
    std::unique_ptr<zav_shm::Slot_Intake> intake_;  // of a producer without a ring
    zav_shm::Intake_Counters taken_off_slots_;
    std::string trouble_;  // why no frames can come
    bool is_refused_ = false;
};

ZAV_SHM_Frame_Subscriber::Body::Body(Options options)
    : options_(std::move(options)),
      source_({.from = options_.from,
               .overflow = options_.overflow,
               .start_at_key_frame = options_.start_at_key_frame,
               .key_frame_after_loss = options_.key_frame_after_loss},
              options_.untrusting ? zav_shm::Ring_Memory::Reading::copied
                                  : zav_shm::Ring_Memory::Reading::mapped) {}

// ---- open, close, pair ----

ZAV_SHM_Frame_Subscriber::Opened ZAV_SHM_Frame_Subscriber::Body::open() {
    const std::lock_guard guard(control_);
    if (open_) {
        return {state(), reason(), state() == Frame_State::refused};
    }
    card_name_ = zav_shm::Own_Card::new_name();
    Opened opened{Frame_State::connected, {}, false};
    if (!is_tap()) {
        auto standing = std::make_shared<Standing>(
            zav_shm::Channel_End{.type = zav_shm::control::type::receiver,
                                 .name = options_.name,
                                 .producer = options_.producer,
                                 .channel = options_.channel,
                                 .stream = options_.stream,
                                 .folder = "/" + options_.folder,
                                 .card = card_name_},
            [this] {
                standing_changed_ = true;
                wake();
            });
        opened = standing->open(options_.center_wait);
        zav_shm::Link_Keeper::begin(standing);
        const std::lock_guard small(mutex_);
        standing_ = std::move(standing);
    }
    begin_card();
    opened_ns_ = monotonic_ns();
    grant_ = 0;
    next_look_ns_ = next_choice_ns_ = 0;
    standing_changed_ = false;
    if (is_tap()) {
        read_from(options_.producer, opened_ns_);
    } else {
        follow_standing();
    }
    open_ = true;
    return opened;
}

void ZAV_SHM_Frame_Subscriber::Body::close(std::chrono::milliseconds limit) {
    const std::lock_guard guard(control_);
    if (!open_.exchange(false)) {
        return;
    }
    while (receiving_) {
        wake();
        std::this_thread::sleep_for(wake_again);
    }
    poll_.reset();
    end_intake();
    source_.read_from_nothing(rings());
    if (standing_) {
        zav_shm::Link_Keeper::end(standing_);
        standing_->close(limit);
    }
    const std::lock_guard small(mutex_);
    standing_.reset();
    kept_ = **card_;
    card_.reset();
}

ZAV_SHM_Frame_Subscriber::Opened ZAV_SHM_Frame_Subscriber::Body::pair(
    const std::string& producer, std::chrono::milliseconds limit) {
    const auto end = std::chrono::steady_clock::now() + limit;
    std::unique_lock lock(control_, std::defer_lock);
    while (!lock.try_lock()) {
        if (std::chrono::steady_clock::now() >= end) {
            return {state(), "another call is under way", false};
        }
        std::this_thread::sleep_for(1ms);
    }
    if (!standing_) {
        return {Frame_State::closed, is_tap() ? "a tap is paired with nobody" : "closed", false};
    }
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
    return standing_->pair(producer, std::max(left, 1ms));
}

// As the former one, which counted from the begin.
void ZAV_SHM_Frame_Subscriber::Body::begin_card() {
    Reader_Card card = kept_;
    card.flags = is_tap() ? Reader_Card::nameless : 0;
    card.pid = static_cast<std::uint32_t>(getpid());
    card.channel = options_.channel;
    card.stream = options_.stream;
    card.since_ns = monotonic_ns();
    card.cursor = 0;
    card.epoch = 0;
    copy_text(card.consumer, options_.name);
    auto made = std::make_unique<zav_shm::Own_Card>(rings(), card_name_, card);
    const std::lock_guard guard(mutex_);
    card_ = std::move(made);
}

// ---- receiving ----

template <class Next>
Receive_Status ZAV_SHM_Frame_Subscriber::Body::take(Frame_Facts& frame,
                                                    std::chrono::milliseconds timeout,
                                                    const Next& next) {
    // Before the flag is looked at: close() clears it and then waits for this one.
    receiving_ = true;
    Receive_Status status = Receive_Status::timeout;
    std::int64_t now = monotonic_ns();
    const std::int64_t deadline_ns = deadline_after(now, timeout);
    for (bool goes_on = true; goes_on; now = monotonic_ns()) {
        if (!open_) {
            status = Receive_Status::closed;
            break;
        }
        follow_route(now);
        const Frame_Source::Got got = next();
        if (got == Frame_Source::Got::frame) {
            note(frame);
            status = Receive_Status::frame;
            break;
        }
        note_missed();
        if (got == Frame_Source::Got::missed || source_.changes_over()) {
            continue;
        }
        tell_why_none_comes();
        ask_for_key_frame();
        goes_on = now < deadline_ns;
        if (goes_on) {
            source_.wait(deadline_ns);
            next_look_ns_ = source_.has_news() ? next_look_ns_ : 0;
        } else if (poll_) {
            poll_->nothing_left(source_.ring(), source_.next_number(), path_);
        }
    }
    receiving_ = false;
    return status;
}

void ZAV_SHM_Frame_Subscriber::Body::note(const Frame_Facts& frame) {
    Reader_Card::Counters& counters = (*card_)->counters;
    const zav_shm::Frame_Losses& before = frame.before;
    zav_shm::count(counters.frames);
    zav_shm::count(counters.bytes, frame.header.payload_length);
    if (before.any()) {
        zav_shm::count(counters.overtaken, before.overtaken);
        zav_shm::count(counters.left_out, before.left_out);
        zav_shm::count(counters.dropped, before.dropped);
        zav_shm::count(counters.skipped, before.skipped);
    }
    zav_shm::set(counters.last_frame_ns, frame.received_ns);
    if (frame.verified) {
        zav_shm::set(counters.last_publish_ns, frame.header.publish_ns);
        zav_shm::set(counters.last_sequence, frame.header.sequence);
        zav_shm::count((*card_)->latency[zav_shm::Latency_Histogram::bucket_of(frame.age_ns())]);
    } else {
        zav_shm::count(counters.foreign);
    }
    if (frame.is_key_frame()) {
        zav_shm::count(counters.key_frames);
        zav_shm::set(counters.last_key_frame_ns, frame.received_ns);
    }
    asked_ = false;
    card_->move_to(source_.reader()->memory(), source_.reader()->cursor());
}

// What never becomes a frame. The private ring of an intake is nobody's but this reader's.
void ZAV_SHM_Frame_Subscriber::Body::note_missed() {
    Reader_Card::Counters& counters = (*card_)->counters;
    zav_shm::set(counters.invalid, source_.invalid());
    zav_shm::set(counters.no_memory, source_.no_memory());
    zav_shm::set(counters.torn, source_.torn());
    if (const auto* const reader = source_.reader()) {
        card_->move_to(reader->memory(), reader->cursor());
    }
}

void ZAV_SHM_Frame_Subscriber::Body::ask_for_key_frame() {
    if (options_.asks_for_key_frame && source_.waits_for_key_frame() && !asked_) {
        asked_ = request_key_frame();
    }
}

void ZAV_SHM_Frame_Subscriber::Body::tell_why_none_comes() {
    if (intake_) {
        tell(intake_->trouble(), intake_->is_refused());
    } else {
        zav_shm::Ring_Problem problem = source_.problem();
        const bool is_absent = problem.kind == zav_shm::Ring_Problem::Kind::absent;
        tell(is_absent ? std::string() : std::move(problem.text), false);
    }
}

// ---- whose frames, and where they are ----

void ZAV_SHM_Frame_Subscriber::Body::follow_route(std::int64_t now_ns) {
    if (is_tap()) {
        return;
    }
    if (standing_changed_.exchange(false)) {
        follow_standing();
    }
    if (now_ns >= next_look_ns_) {
        next_look_ns_ = now_ns + route_look_ns;
        if (const auto route = route_.look()) {
            frames_are_in_ = route->source;
            next_choice_ns_ = 0;
            if (route->producer != producer_) {
                standing_->follow(route->producer);
                read_from(route->producer, now_ns);
            }
        }
        choose_slot_or_ring(now_ns);
    }
}

// A center has come, has granted another producer, or refuses.
void ZAV_SHM_Frame_Subscriber::Body::follow_standing() {
    if (standing_->state() == Frame_State::refused) {
        read_from({}, 0);
        return;
    }
    const auto grant = standing_->grant();
    std::string producer = standing_->producer();
    if (grant.number != grant_) {
        const auto route = route_.begin(
            zav_shm::route_path(rings(), options_.name, options_.channel, options_.stream), true);
        frames_are_in_ = route ? route->source : Route_Page::unknown;
        if (route && grant_ == 0 && route->producer != producer) {
            producer = route->producer;  // somebody was faster
            standing_->follow(producer);
        }
    } else if (grant_ == 0) {
        static_cast<void>(route_.begin(
            zav_shm::route_path(rings(), options_.name, options_.channel, options_.stream), false));
    }
    grant_ = grant.number;
    next_choice_ns_ = 0;
    const std::int64_t since_ns = std::max(opened_ns_.load(), standing_->paired_ns());
    const bool is_paired_anew = std::exchange(read_since_ns_, since_ns) != since_ns;
    if (is_paired_anew || producer != producer_ || ring_of(producer) != path_) {
        read_from(producer, since_ns);
    }
    choose_slot_or_ring(monotonic_ns());
}

void ZAV_SHM_Frame_Subscriber::Body::read_from(const std::string& producer, std::int64_t since_ns) {
    end_intake();
    producer_ = producer;
    path_ = producer.empty() ? std::string() : ring_of(producer);
    card_->set_producer(producer);
    if (producer.empty()) {
        source_.read_from_nothing(rings());
    } else {
        source_.read_from(path_, since_ns);
    }
}

// A ring that is written wins, whatever the center has heard of its producer.
void ZAV_SHM_Frame_Subscriber::Body::choose_slot_or_ring(std::int64_t now_ns) {
    if (now_ns >= next_choice_ns_) {
        next_choice_ns_ = now_ns + ring_look_ns;
        const bool is_in_slot =
            frames_are_in_ == Route_Page::slot && !producer_.empty() && !is_written(path_);
        if (is_in_slot && !intake_) {
            begin_intake();
        } else if (!is_in_slot && intake_) {
            standing_->renew();  // out of the relay
            read_from(producer_, read_since_ns_);
        }
    }
    if (intake_) {
        const auto ring = intake_->ring();
        if (ring && ring != source_.ring()) {
            source_.read_from(ring);
        }
    }
}

void ZAV_SHM_Frame_Subscriber::Body::begin_intake() {
    auto intake = zav_shm::Slot_Intake::begin({.name = options_.name,
                                               .producer = producer_,
                                               .channel = options_.channel,
                                               .stream = options_.stream,
                                               .card = card_name_},
                                              static_cast<std::uint32_t>(options_.history_bytes),
                                              [this] { wake(); });
    if (!intake) {
        tell("no thread can be had for the slot of " + producer_, false);
    }
    const std::lock_guard guard(mutex_);
    intake_ = std::move(intake);
}

void ZAV_SHM_Frame_Subscriber::Body::end_intake() {
    std::unique_ptr<zav_shm::Slot_Intake> intake;
    {
        const std::lock_guard guard(mutex_);
        if (!intake_) {
            return;
        }
        taken_off_slots_ += intake_->counters();
        intake = std::move(intake_);
        trouble_.clear();
        is_refused_ = false;
    }
    intake.reset();  // which may take a while
}

void ZAV_SHM_Frame_Subscriber::Body::tell(std::string trouble, bool refused) {
    const std::lock_guard guard(mutex_);
    trouble_ = std::move(trouble);
    is_refused_ = refused;
}

std::string ZAV_SHM_Frame_Subscriber::Body::rings() const {
    return zav_shm::rings_folder(standing_ ? standing_->folder() : options_.folder);
}

std::string ZAV_SHM_Frame_Subscriber::Body::ring_of(const std::string& producer) const {
    return rings() + "/" + zav_shm::channel_file_name(producer, options_.channel, options_.stream);
}

// ---- asked from any thread ----

int ZAV_SHM_Frame_Subscriber::Body::descriptor() {
    if (!poll_ && open_) {
        poll_ = zav_shm::Frame_Poll::begin();
    }
    return poll_ ? poll_->descriptor() : -1;
}

bool ZAV_SHM_Frame_Subscriber::Body::request_key_frame() const {
    std::shared_ptr<Standing> standing;
    {
        const std::lock_guard guard(mutex_);
        standing = standing_;
    }
    const std::string producer = standing ? standing->producer() : options_.producer;
    return open_ &&
           zav_shm::send_writer_request(
               zav_shm::rings_folder(standing ? standing->folder() : options_.folder) + "/" +
               zav_shm::channel_file_name(producer, options_.channel, options_.stream));
}

Frame_State ZAV_SHM_Frame_Subscriber::Body::state() const {
    const std::lock_guard guard(mutex_);
    if (!open_) {
        return Frame_State::closed;
    }
    if (is_refused_) {
        return Frame_State::refused;
    }
    if (standing_ && standing_->state() != Frame_State::connected) {
        return standing_->state();
    }
    const std::int64_t last = std::max(
        __atomic_load_n(&(*card_)->counters.last_frame_ns, __ATOMIC_RELAXED), opened_ns_.load());
    return monotonic_ns() - last > producer_limit_ns ? Frame_State::waiting_for_producer
                                                     : Frame_State::connected;
}

std::string ZAV_SHM_Frame_Subscriber::Body::reason() const {
    const std::lock_guard guard(mutex_);
    const std::string reason = standing_ ? standing_->reason() : std::string();
    return reason.empty() ? trouble_ : reason;
}

zav_shm::Subscriber_Counters ZAV_SHM_Frame_Subscriber::Body::counters() const {
    const std::lock_guard guard(mutex_);
    zav_shm::Subscriber_Counters now;
    now.take_from(card_ ? **card_ : kept_);
    zav_shm::Intake_Counters slots = taken_off_slots_;
    if (intake_) {
        slots += intake_->counters();
    }
    now.torn += slots.torn;
    now.invalid += slots.invalid;
    now.repeated = slots.repeated;
    now.recoveries = slots.recoveries + (standing_ ? standing_->recoveries() : 0);
    now.timeouts_no_frame = slots.timeouts_no_frame;
    now.timeouts_no_relay = slots.timeouts_no_relay;
    return now;
}

// ---- the public class ----

ZAV_SHM_Frame_Subscriber::ZAV_SHM_Frame_Subscriber(Options options)
    : body_(std::make_unique<Body>(std::move(options))) {}

ZAV_SHM_Frame_Subscriber::~ZAV_SHM_Frame_Subscriber() { close(); }

ZAV_SHM_Frame_Subscriber::Opened ZAV_SHM_Frame_Subscriber::open() { return body_->open(); }

void ZAV_SHM_Frame_Subscriber::close(std::chrono::milliseconds limit) { body_->close(limit); }

Receive_Status ZAV_SHM_Frame_Subscriber::receive(zav_shm::Received_Frame& frame,
                                                 std::chrono::milliseconds timeout) {
    return body_->receive(frame, timeout);
}

Receive_Status ZAV_SHM_Frame_Subscriber::receive_view(zav_shm::Frame_View& view,
                                                      std::chrono::milliseconds timeout) {
    return body_->receive_view(view, timeout);
}

void ZAV_SHM_Frame_Subscriber::seek(const zav_shm::Start& from) { body_->seek(from); }

int ZAV_SHM_Frame_Subscriber::descriptor() { return body_->descriptor(); }

ZAV_SHM_Frame_Subscriber::Opened ZAV_SHM_Frame_Subscriber::pair(const std::string& producer,
                                                                std::chrono::milliseconds limit) {
    return body_->pair(producer, limit);
}

bool ZAV_SHM_Frame_Subscriber::request_key_frame() { return body_->request_key_frame(); }

Frame_State ZAV_SHM_Frame_Subscriber::state() const { return body_->state(); }

std::string ZAV_SHM_Frame_Subscriber::reason() const { return body_->reason(); }

zav_shm::Subscriber_Counters ZAV_SHM_Frame_Subscriber::counters() const {
    return body_->counters();
}
