// SPDX-License-Identifier: Apache-2.0
#include "frame/slot/slot_intake.h"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstring>
#include <system_error>
#include <thread>
#include <utility>

#include "control/control_protocol.h"
#include "frame/frame_record.h"
#include "frame/link/center_link.h"
#include "frame/slot/slot_reader.h"
#include "ipc/annotated_mutex.h"
#include "ipc/monotonic_clock.h"
#include "ipc/test_point.h"
#include "ring/ring_writer.h"

using namespace std::chrono_literals;

namespace zav_shm {

namespace {

using Clock = std::chrono::steady_clock;

// What the thread gives the center for one answer; it answers within a few relay cycles.
constexpr auto exchange_limit = 200ms;

constexpr auto first_pause = 50ms;
constexpr auto greatest_pause = 2000ms;

// A paired consumer's announcement is taken within one cycle of the relay, which lasts 5 ms for
// each consumer that is absent, 30 ms for the producer and 20 ms for each slow reader. Untaken
// for this long, nobody is there to take it: the center is gone or restarted, or has kicked this
// consumer while it was stopped.
constexpr auto unnoticed_limit = 400ms;

// How long a wait is that the counters of timeouts count.
constexpr auto wait_counted = 30ms;

// How long one take may wait before the thread looks around.
constexpr auto patience_at_a_time = 1000ms;

constexpr auto stop_limit = 100ms;
constexpr auto wake_again = 1ms;

constexpr std::uint32_t pages_of_history = 4;
constexpr std::size_t header_bytes = sizeof(ZAV_SHM_Frame_Header);

}  // namespace

class Slot_Intake::Body {
public:
    Body(const Consumer& consumer, std::uint32_t history_bytes, std::function<void()> changed)
        : history_bytes_(history_bytes),
          ring_path_(consumer.ring),
          changed_(std::move(changed)),
          link_({.type = control::type::receiver,
                 .name = consumer.name,
                 .producer = consumer.producer,
                 .channel = consumer.channel,
                 .stream = consumer.stream,
                 .card = consumer.card},
                Center_Link::Way::relay),
          retry_(first_pause, greatest_pause) {}

    void run();
    bool stop();

    std::shared_ptr<const Ring_Memory> ring() const;
    std::string trouble() const;
    bool is_refused() const { return refused_; }
    Intake_Counters counters() const;

private:
    void register_again();
    void tell(std::string trouble);
    void call_changed();
    bool make_ring(std::size_t payload_max);
    void take_one();
    bool copy_into_ring(const Slot_Frame& frame, std::span<const std::byte> payload);
    void commit(const Slot_Frame& frame);
    void note(Slot_Reader::Take taken);
    std::shared_ptr<Slot_Reader> reader() const;

    const std::uint32_t history_bytes_;
    const std::string ring_path_;
    const std::function<void()> changed_;
    Center_Link link_;
    Backoff retry_;
    std::unique_ptr<Ring_Writer> writer_;
    bool was_registered_ = false;
    std::uint64_t epoch_ = 0;  // of the frame that was taken last
    std::uint64_t sequence_ = 0;
    Clock::time_point noticed_at_{};
    Clock::time_point wait_began_{};
    bool waits_noticed_ = false;  // since then
    bool saw_ring_ = false;       // of the producer, at the frame that was taken last

    mutable Mutex mutex_;
    std::condition_variable woken_;  // notified when one of the last two is set
    std::shared_ptr<Slot_Reader> reader_ ZAV_SHM_GUARDED_BY(mutex_);
    std::shared_ptr<const Ring_Memory> ring_ ZAV_SHM_GUARDED_BY(mutex_);
    std::string trouble_ ZAV_SHM_GUARDED_BY(mutex_);
    bool stopping_ ZAV_SHM_GUARDED_BY(mutex_) = false;
    bool left_ ZAV_SHM_GUARDED_BY(mutex_) = false;

    Mutex telling_;  // held while changed_ is called
    bool is_silent_ ZAV_SHM_GUARDED_BY(telling_) = false;

    std::atomic<bool> refused_{false};
    std::atomic<std::uint64_t> torn_{0};
    std::atomic<std::uint64_t> invalid_{0};
    std::atomic<std::uint64_t> repeated_{0};
    std::atomic<std::uint64_t> no_frame_{0};
    std::atomic<std::uint64_t> no_relay_{0};
    std::atomic<std::uint64_t> recoveries_{0};
};

Intake_Counters& Intake_Counters::operator+=(const Intake_Counters& other) {
    torn += other.torn;
    invalid += other.invalid;
    repeated += other.repeated;
    timeouts_no_frame += other.timeouts_no_frame;
    timeouts_no_relay += other.timeouts_no_relay;
    recoveries += other.recoveries;
    return *this;
}

// ---- life ----

std::unique_ptr<Slot_Intake> Slot_Intake::begin(const Consumer& consumer,
                                                std::uint32_t history_bytes,
                                                std::function<void()> changed) {
    auto body = std::make_shared<Body>(consumer, history_bytes, std::move(changed));
    try {
        std::thread([body] { body->run(); }).detach();
    } catch (const std::system_error&) {
        return nullptr;
    }
    return std::unique_ptr<Slot_Intake>(new Slot_Intake(std::move(body)));  // private constructor
}

Slot_Intake::Slot_Intake(std::shared_ptr<Body> body) : body_(std::move(body)) {}

Slot_Intake::~Slot_Intake() { body_->stop(); }

std::shared_ptr<const Ring_Memory> Slot_Intake::ring() const { return body_->ring(); }
std::string Slot_Intake::trouble() const { return body_->trouble(); }
bool Slot_Intake::is_refused() const { return body_->is_refused(); }
Intake_Counters Slot_Intake::counters() const { return body_->counters(); }

// The thread sleeps on a semaphore, or between two attempts.
bool Slot_Intake::Body::stop() {
    {
        const Guard guard(telling_);
        is_silent_ = true;
    }
    const auto end = Clock::now() + stop_limit;
    Waiting_Guard guard(mutex_);
    stopping_ = true;
    woken_.notify_all();
    while (!left_ && Clock::now() < end) {
        if (reader_) {
            reader_->end_wait();
        }
        woken_.wait_for(guard.lock(), wake_again,
                        [this]() ZAV_SHM_REQUIRES(mutex_) { return left_; });
    }
    return left_;
}

void Slot_Intake::Body::run() {
    pthread_setname_np(pthread_self(), "zav_intake");
    for (;;) {
        {
            Waiting_Guard guard(mutex_);
            if (!reader_) {
                woken_.wait_until(guard.lock(), retry_.next(),
                                  [this]() ZAV_SHM_REQUIRES(mutex_) { return stopping_; });
            }
            if (stopping_) {
                break;
            }
        }
        if (reader()) {
            take_one();
        } else {
            register_again();
        }
    }
    const Guard guard(mutex_);
    left_ = true;
    woken_.notify_all();
}

// ---- registering ----

void Slot_Intake::Body::register_again() {
    const Center_Link::Registration made = link_.register_end(exchange_limit);
    refused_ = made.outcome == Center_Link::Outcome::refused;
    if (!made) {
        retry_.failed();
        tell(made.reason);
        return;
    }
    auto fresh =
        std::make_shared<Slot_Reader>(made.segment, made.sem_src, made.sem_dst, made.sem_exist);
    if (!fresh->is_usable()) {
        retry_.failed();
        tell("cannot use the segment or the semaphores of " + made.segment);
        return;
    }
    if (!make_ring(fresh->capacity())) {
        retry_.failed();
        tell("no memory for a history of " + made.segment);
        return;
    }
    retry_.reset();
    noticed_at_ = wait_began_ = Clock::now();
    if (std::exchange(was_registered_, true)) {
        recoveries_.fetch_add(1, std::memory_order_relaxed);
    }
    {
        const Guard guard(mutex_);
        reader_ = std::move(fresh);
    }
    tell({});
}

void Slot_Intake::Body::tell(std::string trouble) {
    {
        const Guard guard(mutex_);
        trouble_ = std::move(trouble);
    }
    call_changed();
}

void Slot_Intake::Body::call_changed() {
    const Guard guard(telling_);
    if (!is_silent_) {
        changed_();
    }
}

bool Slot_Intake::Body::make_ring(std::size_t payload_max) {
    const auto record_max = static_cast<std::uint32_t>(payload_max + header_bytes);
    if (writer_ && writer_->record_max() >= record_max) {
        return true;
    }
    const std::uint32_t history =
        history_bytes_ != 0 ? history_bytes_ : pages_of_history * record_max;
    Ring_Problem problem;
    auto fresh = Ring_Writer::open_private({history, record_max}, problem);
    if (!fresh) {
        return false;
    }
    const Guard guard(mutex_);
    writer_ = std::move(fresh);
    ring_ = writer_->memory();
    return true;
}

// ---- frames ----

void Slot_Intake::Body::take_one() {
    const auto current = reader();
    const auto patience = [this] {
        const Guard guard(mutex_);
        return stopping_ ? 0ms : patience_at_a_time;
    };
    Slot_Frame frame;
    const Slot_Reader::Take taken = current->take(
        frame,
        [this](const Slot_Frame& found, std::span<const std::byte> payload) {
            return copy_into_ring(found, payload);
        },
        patience);
    if (taken == Slot_Reader::Take::frame) {
        // What a publisher feeds into the slot is in its ring, where the reader of this intake
        // finds it: handed out from both, it would come twice.
        const bool is_in_ring = frame.verified && is_ring_written(ring_path_);
        if (!is_in_ring) {
            commit(frame);
        } else if (!saw_ring_) {
            call_changed();
        }
        saw_ring_ = is_in_ring;
    }
    note(taken);
    if (current->is_noticed() || taken != Slot_Reader::Take::nothing) {
        noticed_at_ = Clock::now();
        waits_noticed_ = true;
    } else if (Clock::now() - noticed_at_ > unnoticed_limit) {
        const Guard guard(mutex_);
        reader_.reset();
    }
}

// Without a commit behind it the room is the next frame's.
bool Slot_Intake::Body::copy_into_ring(const Slot_Frame& frame,
                                       std::span<const std::byte> payload) {
    const auto room = writer_->reserve(header_bytes + payload.size());
    if (room.empty()) {
        return false;
    }
    std::memcpy(room.data(), &frame.header, header_bytes);
    const std::size_t half = payload.size() / 2;
    if (!payload.empty()) {
        std::memcpy(room.data() + header_bytes, payload.data(), half);
        test_point("copy", "read");
        std::memcpy(room.data() + header_bytes + half, payload.data() + half,
                    payload.size() - half);
    }
    return true;
}

void Slot_Intake::Body::commit(const Slot_Frame& frame) {
    const ZAV_SHM_Frame_Header& header = frame.header;
    if (frame.verified && header.epoch == epoch_ && header.sequence <= sequence_) {
        repeated_.fetch_add(1, std::memory_order_relaxed);
        return;
    }
    Record_Tags tags;
    tags.time_ns = monotonic_ns();
    if (frame.verified) {
        epoch_ = header.epoch;
        sequence_ = header.sequence;
        tags.pts_ns = header.pts_ns;
        tags.flags = frame_record::flags_of(header.flags);
    } else {
        tags.flags = frame_record::foreign;
    }
    writer_->commit(header_bytes + header.payload_length, tags);
}

void Slot_Intake::Body::note(Slot_Reader::Take taken) {
    const auto now = Clock::now();
    switch (taken) {
        case Slot_Reader::Take::torn:
            torn_.fetch_add(1, std::memory_order_relaxed);
            break;
        case Slot_Reader::Take::invalid:
        case Slot_Reader::Take::no_memory:
            invalid_.fetch_add(1, std::memory_order_relaxed);
            break;
        case Slot_Reader::Take::nothing:
            if (now - wait_began_ < wait_counted) {
                return;
            }
            (waits_noticed_ ? no_frame_ : no_relay_).fetch_add(1, std::memory_order_relaxed);
            break;
        case Slot_Reader::Take::frame:
        case Slot_Reader::Take::unmapped:
        case Slot_Reader::Take::unwritten:
            break;
    }
    wait_began_ = now;
    waits_noticed_ = false;
}

// ---- for others ----

std::shared_ptr<Slot_Reader> Slot_Intake::Body::reader() const {
    const Guard guard(mutex_);
    return reader_;
}

std::shared_ptr<const Ring_Memory> Slot_Intake::Body::ring() const {
    const Guard guard(mutex_);
    return ring_;
}

std::string Slot_Intake::Body::trouble() const {
    const Guard guard(mutex_);
    return trouble_;
}

Intake_Counters Slot_Intake::Body::counters() const {
    return {torn_, invalid_, repeated_, no_frame_, no_relay_, recoveries_};
}

}  // namespace zav_shm
