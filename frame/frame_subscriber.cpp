// SPDX-License-Identifier: Apache-2.0
#include "frame/frame_subscriber.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <limits>
#include <thread>
#include <utility>

#include "control/control_protocol.h"
#include "frame/frame_poll.h"
#include "frame/frame_source.h"
#include "frame/frame_supply.h"
#include "frame/link/standing.h"
#include "ipc/annotated_mutex.h"
#include "ipc/deadline.h"
#include "ipc/forks.h"
#include "ipc/monotonic_clock.h"
#include "ipc/ring_place.h"
#include "ipc/shared_memory_folder.h"
#include "ring/reader_card.h"
#include "ring/writer_requests.h"

using namespace std::chrono_literals;
using zav_shm::Frame_Facts;
using zav_shm::Frame_Source;
using zav_shm::Frame_State;
using zav_shm::monotonic_ns;
using zav_shm::ns_per_ms;
using zav_shm::ns_per_second;
using zav_shm::of_parent;
using zav_shm::Reader_Card;
using zav_shm::Receive_Status;

namespace {

// Without a frame for this long the producer is what is waited for.
constexpr std::int64_t producer_limit_ns = ns_per_second;

// How often a reader looks whether its card is still where others look for it.
constexpr std::int64_t card_look_ns = ns_per_second;

// Between two attempts to wake a receive() that is to end.
constexpr auto wake_again = 50us;

// Between two attempts to cut short what another thread waits for.
constexpr auto cut_again = 10ms;

std::int64_t deadline_after(std::int64_t now, std::chrono::milliseconds timeout) {
    const std::int64_t most = (std::numeric_limits<std::int64_t>::max() - now) / ns_per_ms;
    return now + std::clamp<std::int64_t>(timeout.count(), 0, most) * ns_per_ms;
}

template <std::size_t size>
void copy_text(char (&field)[size], const std::string& text) {
    std::memcpy(field, text.data(), std::min(text.size(), size - 1));
}

}  // namespace

class ZAV_SHM_Frame_Subscriber::Body {
public:
    explicit Body(Options options);

    Opened open();
    void close(std::chrono::milliseconds limit);
    Opened pair(const std::string& producer, std::chrono::milliseconds limit);
    Receive_Status receive(zav_shm::Received_Frame& frame, std::chrono::milliseconds timeout) {
        return take(frame, timeout, false, [&] { return source_.copy_next(frame); });
    }
    Receive_Status receive_view(zav_shm::Frame_View& view, std::chrono::milliseconds timeout) {
        return take(view, timeout, true, [&] { return source_.view_next(view); });
    }
    void seek(const zav_shm::Start& from) {
        use_source([&] { source_.seek(from); });
    }
    int descriptor();
    bool request_key_frame() const;
    void interrupt() {
        interrupted_ = true;
        supply_.wake();
    }

    Frame_State state() const;
    std::string reason() const;
    zav_shm::Subscriber_Counters counters() const;

    /// True in a child that was forked off the process that opened this. It has neither the threads
    /// nor the right to say anything in its parent's name.
    bool is_parents() const { return open_ && forks_ != zav_shm::forks_so_far(); }

private:
    using Standing = zav_shm::Standing;

    template <class Next>
    Receive_Status take(Frame_Facts& frame, std::chrono::milliseconds timeout, bool in_place,
                        const Next& next);
    template <class Use>
    void use_source(const Use& use);
    void keep_card(std::int64_t now_ns);
    void note(const Frame_Facts& frame);
    void show_progress();
    void note_missed();
    void count_missed(const zav_shm::Frame_Losses& missed);
    void begin_card(const std::string& name);

    void ask_for_key_frame();
    bool is_tap() const { return options_.name.empty(); }
    std::shared_ptr<Standing> standing() const;

    const Options options_;
    zav_shm::Mutex control_;  // of open(), close() and pair(); held through exchanges
    std::atomic<bool> open_{false};
    std::atomic<unsigned> forks_{0};  // when it was opened
    std::atomic<bool> receiving_{false};
    std::atomic<bool> interrupted_{false};
    std::atomic<std::int64_t> opened_ns_{0};

    // Of the receiving thread, and of open() and close().
    zav_shm::Frame_Supply supply_;
    Frame_Source& source_;  // its own
    std::unique_ptr<zav_shm::Frame_Poll> poll_;
    zav_shm::Frame_Losses counted_;  // of what was missed since the frame that was handed out last
    std::int64_t next_card_look_ns_ = 0;
    bool asked_ = false;       // for the key frame that is waited for
    bool holds_view_ = false;  // the frame that was handed out last is read where it lies

    // Held for a few instructions. open() and close() alone change the next three; the receiving
    // thread reads them without the mutex.
    mutable zav_shm::Mutex mutex_;
    std::shared_ptr<Standing> standing_;       // null: a tap, or closed
    std::unique_ptr<zav_shm::Own_Card> card_;  // null while closed
    Reader_Card kept_;                         // then
};

ZAV_SHM_Frame_Subscriber::Body::Body(Options options)
    : options_(std::move(options)),
      supply_({.name = options_.name,
               .channel = options_.channel,
               .stream = options_.stream,
               .folder = options_.folder,
               .history_bytes = static_cast<std::uint32_t>(std::min<std::size_t>(
                   options_.history_bytes, std::numeric_limits<std::uint32_t>::max())),
               .rules = {.from = options_.from,
                         .overflow = options_.overflow,
                         .start_at_key_frame = options_.start_at_key_frame,
                         .key_frame_after_loss = options_.key_frame_after_loss},
               .reading = options_.untrusting ? zav_shm::Ring_Memory::Reading::copied
                                              : zav_shm::Ring_Memory::Reading::mapped}),
      source_(supply_.source()) {}

// ---- open, close, pair ----

ZAV_SHM_Frame_Subscriber::Opened ZAV_SHM_Frame_Subscriber::Body::open() {
    if (is_parents()) {
        return {Frame_State::closed, of_parent, false};
    }
    const zav_shm::Guard guard(control_);
    if (open_) {
        return {state(), reason(), state() == Frame_State::refused};
    }
    const std::string card_name = zav_shm::Own_Card::new_name();
    Opened opened{Frame_State::connected, {}, false};
    if (!is_tap()) {
        auto standing = std::make_shared<Standing>(
            zav_shm::Channel_End{.type = zav_shm::control::type::receiver,
                                 .name = options_.name,
                                 .producer = options_.producer,
                                 .channel = options_.channel,
                                 .stream = options_.stream,
                                 .folder = "/" + options_.folder,
                                 .card = card_name},
            [this] { supply_.note_change(); });
        {
            const zav_shm::Guard small(mutex_);
            standing_ = standing;
        }
        opened = standing->open(options_.center_wait);
        zav_shm::Link_Keeper::begin(standing);
    }
    begin_card(card_name);
    opened_ns_ = monotonic_ns();
    supply_.begin(standing_, options_.producer, card_name, *card_);
    forks_ = zav_shm::forks_so_far();
    open_ = true;
    // Whoever is kept out by a group is told so at once, with or without a center.
    return supply_.is_refused() ? Opened{Frame_State::refused, supply_.trouble(), true} : opened;
}

void ZAV_SHM_Frame_Subscriber::Body::close(std::chrono::milliseconds limit) {
    if (is_parents()) {
        return;
    }
    while (!zav_shm::lock_until(control_, std::chrono::steady_clock::now() + cut_again)) {
        const zav_shm::Guard small(mutex_);
        if (standing_) {
            standing_->cut_short();  // open() or pair() of another thread
        }
    }
    const zav_shm::Guard guard(control_, std::adopt_lock);
    if (!open_.exchange(false)) {
        return;
    }
    while (receiving_) {
        supply_.wake();
        std::this_thread::sleep_for(wake_again);
    }
    poll_.reset();
    supply_.end();
    if (standing_) {
        zav_shm::Link_Keeper::end(standing_);
        standing_->close(limit);
    }
    const zav_shm::Guard small(mutex_);
    standing_.reset();
    kept_ = **card_;
    card_.reset();
}

ZAV_SHM_Frame_Subscriber::Opened ZAV_SHM_Frame_Subscriber::Body::pair(
    const std::string& producer, std::chrono::milliseconds limit) {
    if (is_parents()) {
        return {Frame_State::closed, of_parent, false};
    }
    const auto end = zav_shm::moment_after(limit);
    if (!zav_shm::lock_until(control_, end)) {
        return {state(), "another call is under way", false};
    }
    const zav_shm::Guard guard(control_, std::adopt_lock);
    if (!standing_) {
        return {Frame_State::closed, is_tap() ? "a tap is paired with nobody" : "closed", false};
    }
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
    return standing_->pair(producer, std::max(left, 1ms));
}

// As the former one, which counted from the begin.
void ZAV_SHM_Frame_Subscriber::Body::begin_card(const std::string& name) {
    Reader_Card card = kept_;
    card.flags = is_tap() ? Reader_Card::nameless : 0;
    card.pid = static_cast<std::uint32_t>(getpid());
    card.channel = options_.channel;
    card.stream = options_.stream;
    card.since_ns = monotonic_ns();
    card.cursor = 0;
    card.epoch = 0;
    copy_text(card.consumer, options_.name);
    auto made = std::make_unique<zav_shm::Own_Card>(
        zav_shm::rings_folder(standing_ ? standing_->folder() : options_.folder), name, card);
    next_card_look_ns_ = 0;
    const zav_shm::Guard guard(mutex_);
    card_ = std::move(made);
}

// Others find it where the rings are by now: the folder may come only with the publisher, or may
// have been removed and made again.
void ZAV_SHM_Frame_Subscriber::Body::keep_card(std::int64_t now_ns) {
    if (now_ns < next_card_look_ns_) {
        return;
    }
    next_card_look_ns_ = now_ns + card_look_ns;
    const std::string folder =
        zav_shm::rings_folder(standing_ ? standing_->folder() : options_.folder);
    if (!card_->is_in(folder)) {
        const zav_shm::Guard guard(mutex_);
        card_->move_into(folder);
    }
}

// ---- receiving ----

template <class Next>
Receive_Status ZAV_SHM_Frame_Subscriber::Body::take(Frame_Facts& frame,
                                                    std::chrono::milliseconds timeout,
                                                    bool in_place, const Next& next) {
    // Before the flag is looked at: close() clears it and then waits for this one.
    receiving_ = true;
    Receive_Status status = Receive_Status::timeout;
    if (is_parents()) {
        receiving_ = false;
        return Receive_Status::closed;
    }
    if (std::exchange(holds_view_, false) && open_) {
        show_progress();
    }
    std::int64_t now = monotonic_ns();
    const std::int64_t deadline_ns = deadline_after(now, timeout);
    for (bool goes_on = true; goes_on; now = monotonic_ns()) {
        if (!open_) {
            status = Receive_Status::closed;
            break;
        }
        supply_.follow(now);
        keep_card(now);
        const Frame_Source::Got got = next();
        if (got == Frame_Source::Got::frame) {
            note(frame);
            holds_view_ = in_place;
            if (!in_place) {
                show_progress();  // a frame that is viewed is still needed
            }
            status = Receive_Status::frame;
            break;
        }
        note_missed();
        if (got == Frame_Source::Got::missed) {
            continue;
        }
        if (source_.changes_over()) {
            next_card_look_ns_ = 0;  // a publisher has come, perhaps with the folder
            continue;
        }
        supply_.tell_trouble();
        ask_for_key_frame();
        goes_on = now < deadline_ns && !interrupted_.exchange(false);
        if (goes_on) {
            source_.wait(deadline_ns);
            if (!source_.has_news()) {
                supply_.look_closely();
            }
        } else if (poll_) {
            poll_->nothing_left(
                {source_.ring(), source_.next_number(), supply_.ring_path(), supply_.route()});
            supply_.look_closely();  // when it has something to say
        }
    }
    receiving_ = false;
    return status;
}

// What the receiving thread does beside receiving; a close() on another thread waits for it, too.
template <class Use>
void ZAV_SHM_Frame_Subscriber::Body::use_source(const Use& use) {
    receiving_ = true;
    if (open_ && !is_parents()) {
        use();
    }
    receiving_ = false;
}

void ZAV_SHM_Frame_Subscriber::Body::note(const Frame_Facts& frame) {
    Reader_Card::Counters& counters = (*card_)->counters;
    zav_shm::count(counters.frames);
    zav_shm::count(counters.bytes, frame.header.payload_length);
    if (frame.before.any()) {
        count_missed(frame.before);
    }
    counted_ = {};
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
}

// To a publisher that waits for its readers.
void ZAV_SHM_Frame_Subscriber::Body::show_progress() {
    if (const auto* const reader = source_.reader()) {
        card_->move_to(reader->memory(), reader->cursor());
    }
}

// What is missed counts at once: nobody knows when a frame comes again. What was before a seek()
// was missed all the same.
void ZAV_SHM_Frame_Subscriber::Body::count_missed(const zav_shm::Frame_Losses& missed) {
    const auto count_new = [](std::uint64_t& counter, std::uint64_t now, std::uint64_t& counted) {
        const std::uint64_t before = std::exchange(counted, now);
        zav_shm::count(counter, now >= before ? now - before : now);
    };
    Reader_Card::Counters& counters = (*card_)->counters;
    count_new(counters.overtaken, missed.overtaken, counted_.overtaken);
    count_new(counters.left_out, missed.left_out, counted_.left_out);
    count_new(counters.dropped, missed.dropped, counted_.dropped);
    count_new(counters.skipped, missed.skipped, counted_.skipped);
}

// What never becomes a frame. The private ring of an intake is nobody's but this reader's.
void ZAV_SHM_Frame_Subscriber::Body::note_missed() {
    Reader_Card::Counters& counters = (*card_)->counters;
    zav_shm::set(counters.invalid, source_.invalid());
    zav_shm::set(counters.no_memory, source_.no_memory());
    zav_shm::set(counters.torn, source_.torn());
    if (source_.pending().any() || counted_.any()) {
        count_missed(source_.pending());
    }
    show_progress();
}

void ZAV_SHM_Frame_Subscriber::Body::ask_for_key_frame() {
    if (options_.asks_for_key_frame && source_.waits_for_key_frame() && !asked_) {
        asked_ = request_key_frame();
    }
}

// ---- asked from any thread ----

int ZAV_SHM_Frame_Subscriber::Body::descriptor() {
    int descriptor = -1;
    use_source([&] {
        if (!poll_) {
            poll_ = zav_shm::Frame_Poll::begin();
        }
        descriptor = poll_ ? poll_->descriptor() : -1;
    });
    return descriptor;
}

bool ZAV_SHM_Frame_Subscriber::Body::request_key_frame() const {
    const auto standing = this->standing();
    const std::string producer = standing ? standing->producer() : options_.producer;
    return open_ && zav_shm::send_writer_request(zav_shm::ring_path(
                        zav_shm::rings_folder(standing ? standing->folder() : options_.folder),
                        producer, options_.channel, options_.stream));
}

std::shared_ptr<zav_shm::Standing> ZAV_SHM_Frame_Subscriber::Body::standing() const {
    const zav_shm::Guard guard(mutex_);
    return standing_;
}

Frame_State ZAV_SHM_Frame_Subscriber::Body::state() const {
    if (is_parents()) {
        return Frame_State::closed;
    }
    const zav_shm::Guard guard(mutex_);
    if (!open_) {
        return Frame_State::closed;
    }
    if (supply_.is_refused()) {
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
    if (is_parents()) {
        return of_parent;
    }
    const zav_shm::Guard guard(mutex_);
    const std::string reason = standing_ ? standing_->reason() : std::string();
    return reason.empty() || supply_.is_refused() ? supply_.trouble() : reason;
}

zav_shm::Subscriber_Counters ZAV_SHM_Frame_Subscriber::Body::counters() const {
    const zav_shm::Guard guard(mutex_);
    zav_shm::Subscriber_Counters now;
    now.take_from(card_ ? **card_ : kept_);
    const zav_shm::Intake_Counters slots = supply_.slot_counters();
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

// What a parent opened is left as it is: its threads, which the members would wait for, are not in
// the child, and its card is to stay.
ZAV_SHM_Frame_Subscriber::~ZAV_SHM_Frame_Subscriber() {
    if (body_->is_parents()) {
        static_cast<void>(body_.release());
        return;
    }
    close();
}

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

void ZAV_SHM_Frame_Subscriber::interrupt() { body_->interrupt(); }

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
