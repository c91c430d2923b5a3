// SPDX-License-Identifier: Apache-2.0
#include "frame/frame_subscriber.h"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <optional>
#include <thread>
#include <utility>

#include "frame/consumer_link.h"
#include "frame/frame_ledger.h"
#include "frame/frame_queue.h"
#include "frame/in_place_turn.h"
#include "frame/slot_reader.h"
#include "frame/taking_turn.h"
#include "ipc/deadline.h"

using namespace std::chrono_literals;
using zav_shm::Consumer_Link;
using zav_shm::Frame_State;
using zav_shm::Received_Frame;
using zav_shm::Slot_Reader;

namespace {

// What the thread gives the center for one answer; it answers within a few relay cycles.
constexpr auto exchange_limit = 200ms;

// What open() gives it when it is to lose no time.
constexpr std::chrono::milliseconds least_exchange = 20ms;

// A paired consumer's announcement is taken within one cycle of the relay, which lasts 5 ms for
// each consumer that is absent, 30 ms for the producer and 20 ms for each slow reader. Untaken
// for this long, nobody is there to take it: the center is gone or restarted, or has kicked this
// consumer while it was stopped.
constexpr auto unnoticed_limit = 400ms;

// How often it is looked for another producer while the slot does not change.
constexpr auto look_interval = 500ms;

// How often it is tried to settle a pairing that is in doubt.
constexpr auto settle_interval = 150ms;

// How long a wait is that the counters of timeouts count.
constexpr auto wait_counted = 30ms;

// Without a frame for this long the producer is what is waited for.
constexpr auto producer_limit = 1s;

}  // namespace

class ZAV_SHM_Frame_Subscriber::Body {
public:
    explicit Body(Options options)
        : options_(std::move(options)),
          queue_({options_.queue_frames, options_.queue_bytes, options_.overflow}),
          ledger_(options_.start_at_key_frame, options_.key_frame_after_loss),
          link_(options_.name, options_.producer, options_.channel, options_.stream) {}

    Opened open();
    void close(std::chrono::milliseconds limit);
    zav_shm::Receive_Status receive(Received_Frame& frame, std::chrono::milliseconds timeout);
    zav_shm::Receive_Status read_in_place(const In_Place& by, std::chrono::milliseconds time) {
        return in_place_.read(by, time);
    }
    Opened pair(const std::string& producer, std::chrono::milliseconds limit) {
        Opened paired = link_.pair(producer, limit);
        looks_ = looks_ || link_.is_in_doubt();
        return paired;
    }

    Frame_State state() const { return link_.state(); }
    zav_shm::Subscriber_Counters counters() const;

private:
    using Clock = std::chrono::steady_clock;

    bool connect(std::chrono::milliseconds limit);
    void run();
    bool needs_thread() const;
    void take_as_thread();
    bool take_as_application(Received_Frame& frame, Clock::time_point end);
    bool take_one(Slot_Reader& reader, Received_Frame& frame,
                  const Slot_Reader::Patience& patience);
    void take_or_read_one(Slot_Reader& reader, const Slot_Reader::Patience& patience);
    void look_if_repeated();
    void note(const Slot_Reader& reader, Slot_Reader::Take taken);
    bool is_wanted(Slot_Reader::Take taken, Received_Frame& frame);
    void note_time(Slot_Reader::Take taken, const Received_Frame& frame);

    // When it was last so, but not before this registration.
    Clock::time_point since(const std::atomic<Clock::time_point>& event) const {
        return std::max(event.load(), link_.registered_at());
    }

    const Options options_;
    zav_shm::Frame_Queue queue_;
    zav_shm::In_Place_Turn in_place_;
    zav_shm::Taking_Turn turn_;
    zav_shm::Frame_Ledger ledger_;
    Consumer_Link link_;
    std::thread thread_;      // open() and close()
    Received_Frame scratch_;  // of that thread

    // Of whoever has the turn.
    Clock::time_point taken_at_{};  // when the latest take ended
    Clock::time_point next_look_{};
    Clock::time_point wait_began_{};
    bool waits_noticed_ = false;  // since then
    bool repeats_ = false;        // the latest frame had been taken before

    std::atomic<Clock::time_point> last_noticed_{};
    std::atomic<Clock::time_point> last_frame_{};
    std::atomic<bool> looks_{false};  // the thread is to look for another producer
};

// ---- open and close ----

ZAV_SHM_Frame_Subscriber::Opened ZAV_SHM_Frame_Subscriber::Body::open() {
    if (thread_.joinable()) {
        return link_.opened();
    }
    const auto end = zav_shm::moment_after(options_.center_wait);
    const auto left = [&end] {
        return std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
    };
    looks_ = false;
    link_.open();
    ledger_.begin_anew();
    queue_.open();
    in_place_.open();
    turn_.open();
    while (
        !connect(std::clamp<std::chrono::milliseconds>(left(), least_exchange, exchange_limit)) &&
        !link_.opened().refused && left() > 0ms) {
        link_.wait_for_retry(end);
    }
    Opened opened = link_.opened();
    thread_ = std::thread([this] { run(); });
    return opened;
}

bool ZAV_SHM_Frame_Subscriber::Body::connect(std::chrono::milliseconds limit) {
    const Consumer_Link::Attempt attempt = link_.attempt(limit);
    if (attempt == Consumer_Link::Attempt::again) {
        ledger_.recovered();
    }
    return attempt != Consumer_Link::Attempt::failed;
}

void ZAV_SHM_Frame_Subscriber::Body::close(std::chrono::milliseconds limit) {
    if (!thread_.joinable()) {
        return;
    }
    link_.begin_to_close();
    queue_.close();
    in_place_.close();
    turn_.close();
    thread_.join();
    link_.leave(limit);
}

// ---- the thread ----

void ZAV_SHM_Frame_Subscriber::Body::run() {
    pthread_setname_np(pthread_self(), "zav_subscriber");
    while (!link_.is_closing()) {
        if (looks_) {
            link_.follow_pairing();
            looks_ = false;
            turn_.tell();
        } else if (!link_.reader()) {
            if (link_.wait_for_attempt() && connect(exchange_limit)) {
                turn_.tell();
            }
        } else if (turn_.stand_in([this] { return needs_thread(); })) {
            take_as_thread();
            turn_.step_back();
        }
    }
}

// What the application cannot do in receive(), as it may take longer than the time that it gave.
bool ZAV_SHM_Frame_Subscriber::Body::needs_thread() const { return looks_ || !link_.has_reader(); }

void ZAV_SHM_Frame_Subscriber::Body::take_as_thread() {
    const auto patience = [this] {
        return link_.is_closing() || turn_.is_wanted() ? 0ms : producer_limit;
    };
    for (auto current = link_.reader(); current && patience() > 0ms && !looks_;
         current = link_.reader()) {
        take_or_read_one(*current, patience);
        turn_.tell();
    }
}

// Into the application's own frame, past the queue: what a consumer does between its copy and its
// next wait is time that the others on the same processor wait for. True when it got one.
bool ZAV_SHM_Frame_Subscriber::Body::take_as_application(Received_Frame& frame,
                                                         Clock::time_point end) {
    const auto patience = [this, end] {
        const auto now = Clock::now();
        turn_.stay(now);
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - now);
        return link_.is_closing() ? 0ms : left;
    };
    bool goes_on = !looks_;
    while (goes_on) {
        const auto current = link_.reader();
        if (!current) {
            break;
        }
        if (take_one(*current, frame, patience)) {
            if (queue_.let_pass(frame)) {
                return true;
            }
            ledger_.dropped(queue_.push(frame));
            if (queue_.size() > 0) {
                return false;
            }
        }
        goes_on = !looks_ && patience() > 0ms;
    }
    return false;
}

bool ZAV_SHM_Frame_Subscriber::Body::take_one(Slot_Reader& reader, Received_Frame& frame,
                                              const Slot_Reader::Patience& patience) {
    repeats_ = false;
    const Slot_Reader::Take taken = reader.take(frame, patience);
    note_time(taken, frame);
    note(reader, taken);
    const bool wanted = is_wanted(taken, frame);
    look_if_repeated();
    return wanted;
}

// Who gets the frame is decided when it has come: a reader in place that came in the meantime is
// not passed over.
void ZAV_SHM_Frame_Subscriber::Body::take_or_read_one(Slot_Reader& reader,
                                                      const Slot_Reader::Patience& patience) {
    repeats_ = false;
    std::optional<const In_Place*> lent;
    const Slot_Reader::Take taken = reader.take_with(
        scratch_,
        [this, &lent](Received_Frame& frame, std::span<const std::byte> payload) {
            lent = lent ? lent : in_place_.begin();
            if (*lent != nullptr) {
                frame.bytes.clear();
                (*lent)->read(frame, payload);
            } else {
                Slot_Reader::copy(frame, payload);
            }
        },
        patience);
    note_time(taken, scratch_);
    const bool whole = is_wanted(taken, scratch_);
    if (lent && *lent != nullptr) {
        if (whole) {
            ledger_.handed_out();
        }
        in_place_.end(!(*lent)->judged(scratch_, whole));
    } else if (whole) {
        ledger_.dropped(queue_.push(scratch_));
    }
    note(reader, taken);
    look_if_repeated();
}

void ZAV_SHM_Frame_Subscriber::Body::note_time(Slot_Reader::Take taken,
                                               const Received_Frame& frame) {
    taken_at_ = taken == Slot_Reader::Take::frame
                    ? Clock::time_point(std::chrono::nanoseconds(frame.received_ns))
                    : Clock::now();
}

void ZAV_SHM_Frame_Subscriber::Body::note(const Slot_Reader& reader, Slot_Reader::Take taken) {
    const auto now = taken_at_;
    if (taken != Slot_Reader::Take::nothing || reader.is_noticed()) {
        last_noticed_ = now;
        waits_noticed_ = true;
    }
    if (taken != Slot_Reader::Take::nothing || now - wait_began_ >= wait_counted) {
        ledger_.count(taken, waits_noticed_);
        wait_began_ = now;
        waits_noticed_ = false;
    }
    if (now - since(last_frame_) > producer_limit) {
        link_.no_frame_comes();
    }
    if (now - since(last_noticed_) > unnoticed_limit) {
        link_.nobody_answers();
    }
}

// A slot that does not change while frames are announced may not be the one that they are in:
// somebody else has paired this consumer with another producer, whose slot is looked for and taken.
// Where others keep the old producer going, its frames come more often or more seldom than the
// posts, and sooner or later one comes twice.
void ZAV_SHM_Frame_Subscriber::Body::look_if_repeated() {
    const bool in_doubt = link_.is_in_doubt();
    if ((repeats_ || in_doubt) && taken_at_ >= next_look_) {
        next_look_ = taken_at_ + (in_doubt ? settle_interval : look_interval);
        looks_ = true;
    }
}

// True when what was taken is for the application.
bool ZAV_SHM_Frame_Subscriber::Body::is_wanted(Slot_Reader::Take taken, Received_Frame& frame) {
    if (taken != Slot_Reader::Take::frame) {
        return false;
    }
    using Verdict = zav_shm::Sequence_Watch::Verdict;
    const Verdict verdict = ledger_.judge(frame);
    repeats_ = verdict == Verdict::repeated;
    if (!repeats_) {
        last_frame_ = taken_at_;
        link_.frame_has_come();
    }
    return verdict == Verdict::hand_out;
}

// ---- the application's side ----

zav_shm::Receive_Status ZAV_SHM_Frame_Subscriber::Body::receive(Received_Frame& frame,
                                                                std::chrono::milliseconds timeout) {
    const auto end = zav_shm::moment_after(timeout);
    auto now = Clock::now();
    const zav_shm::Taking_Turn::Reasons reasons{.is_queued = [this] { return queue_.size() > 0; },
                                                .is_in_the_way = [this] { return needs_thread(); }};
    zav_shm::Receive_Status status = queue_.pop(frame, 0ms);
    for (; status == zav_shm::Receive_Status::timeout && now < end; now = Clock::now()) {
        bool taken = false;
        if (turn_.enter(now, end, reasons)) {
            taken = take_as_application(frame, end);
            turn_.leave(taken_at_);
        }
        status = taken ? zav_shm::Receive_Status::frame : queue_.pop(frame, 0ms);
    }
    if (status == zav_shm::Receive_Status::frame) {
        ledger_.handed_out();
    }
    return status;
}

zav_shm::Subscriber_Counters ZAV_SHM_Frame_Subscriber::Body::counters() const {
    zav_shm::Subscriber_Counters now = ledger_.counters();
    now.queued = queue_.size();
    return now;
}

// ---- the public class ----

ZAV_SHM_Frame_Subscriber::ZAV_SHM_Frame_Subscriber(Options options)
    : body_(std::make_unique<Body>(std::move(options))) {}

ZAV_SHM_Frame_Subscriber::~ZAV_SHM_Frame_Subscriber() { close(); }

ZAV_SHM_Frame_Subscriber::Opened ZAV_SHM_Frame_Subscriber::open() { return body_->open(); }

void ZAV_SHM_Frame_Subscriber::close(std::chrono::milliseconds limit) { body_->close(limit); }

zav_shm::Receive_Status ZAV_SHM_Frame_Subscriber::receive(Received_Frame& frame,
                                                          std::chrono::milliseconds timeout) {
    return body_->receive(frame, timeout);
}

zav_shm::Receive_Status ZAV_SHM_Frame_Subscriber::read_in_place(const In_Place& reader,
                                                                std::chrono::milliseconds time) {
    return body_->read_in_place(reader, time);
}

ZAV_SHM_Frame_Subscriber::Opened ZAV_SHM_Frame_Subscriber::pair(const std::string& producer,
                                                                std::chrono::milliseconds limit) {
    return body_->pair(producer, limit);
}

Frame_State ZAV_SHM_Frame_Subscriber::state() const { return body_->state(); }

zav_shm::Subscriber_Counters ZAV_SHM_Frame_Subscriber::counters() const {
    return body_->counters();
}
