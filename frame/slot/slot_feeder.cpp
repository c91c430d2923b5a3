// SPDX-License-Identifier: Apache-2.0
#include "frame/slot/slot_feeder.h"

#include <pthread.h>

#include <algorithm>
#include <chrono>
#include <system_error>
#include <utility>

#include "frame/frame_header.h"
#include "ipc/monotonic_clock.h"

// A producer of the fixed interface has a frame and then waits up to 10 ms for a consumer. Here a
// consumer is waited for, without end, and then a frame: a stream without consumers wakes nobody
// up. A presence is good for the 30 ms that the relay then waits for a frame. Behind that, one that
// is still there is asked for anew, since the relay posts another in each of its cycles.

namespace zav_shm {

namespace {

using std::chrono::milliseconds;

// How long the thread sleeps at a time while nobody is present.
constexpr long idle_wait_ms = 1000;

// What a producer waits for a consumer when it has a frame, and how old its frame is then at most.
constexpr long presence_wait_ms = 10;
constexpr std::int64_t frame_age_max_ns = presence_wait_ms * ns_per_ms;

// Behind a frame: a reader that has just died costs its relay up to 20 ms for that one and 5 ms for
// the next, and the others want it all the same.
constexpr long presence_wait_after_delivery_ms = 30;

// How long the relay waits for a frame once it has said that a consumer is present; less a little.
constexpr std::int64_t presence_good_for_ns = 25 * ns_per_ms;

// A consumer that is slower than the stream is given frames in their order up to this age, as from
// a producer that waits for its slot; then the newest.
constexpr std::int64_t backlog_max_ns = 100 * ns_per_ms;

// Between two attempts to wake the thread out of its sleep to stop it.
constexpr milliseconds wake_again{1};

}  // namespace

Slot_Feeder::Slot_Feeder(std::shared_ptr<const Ring_Memory> ring, bool paced)
    : paced_(paced), reader_(std::move(ring)) {}

// ---- life ----

bool Slot_Feeder::use(const std::string& segment, const std::string& sem_src,
                      const std::string& sem_dst, const std::string& sem_exist) {
    auto slot = std::make_shared<Slot_Writer>(segment, sem_src, sem_dst, sem_exist);
    if (!slot->is_usable()) {
        return false;
    }
    std::shared_ptr<Slot_Writer> former;
    {
        const Guard guard(mutex_);
        former = std::exchange(slot_, std::move(slot));
    }
    if (former) {
        former->end_wait();  // nobody else posts on it any more
    }
    if (!thread_.joinable()) {
        try {
            thread_ = std::thread([this] { run(); });
        } catch (const std::system_error&) {
            return false;
        }
    }
    return true;
}

void Slot_Feeder::stop() {
    if (!thread_.joinable()) {
        return;
    }
    stopping_ = true;
    while (!left_) {
        reader_.wake();
        slot()->end_wait();
        std::this_thread::sleep_for(wake_again);
    }
    thread_.join();
}

std::shared_ptr<Slot_Writer> Slot_Feeder::slot() const {
    const Guard guard(mutex_);
    return slot_;
}

Feeder_Counters Slot_Feeder::counters() const {
    return {fed_, passed_over_, too_large_, slow_reads_};
}

// ---- the thread ----

void Slot_Feeder::run() {
    pthread_setname_np(pthread_self(), "zav_feeder");
    while (!stopping_) {
        const auto current = slot();
        if (current->wait_for_consumer(idle_wait_ms) && current == slot()) {
            serve_present_consumer(*current, monotonic_ns());
            need(0);
        }
    }
    left_ = true;
}

// Until it is not present any more.
void Slot_Feeder::serve_present_consumer(Slot_Writer& slot, std::int64_t present_ns) {
    // A frame of this moment is what a producer would be waiting with.
    const std::int64_t oldest_ns = present_ns - frame_age_max_ns;
    const auto first = reader_.find_on(reader_.cursor(), [oldest_ns](const Ring_Entry& entry) {
        return entry.time_ns >= oldest_ns;
    });
    const std::uint64_t begin = first.value_or(reader_.newest() + 1);
    reader_.move_to(paced_ ? std::max(reader_.cursor(), reader_.oldest()) : begin);
    need(reader_.cursor());
    Ring_Record record;
    while (!stopping_ && find_record(record)) {
        if (!is_presence_fresh(slot, present_ns) && !slot.wait_for_consumer(presence_wait_ms)) {
            passed_over_.fetch_add(1, std::memory_order_relaxed);
            return;
        }
        feed(slot, record);
        if (!slot.wait_for_consumer(presence_wait_after_delivery_ms)) {
            return;
        }
        present_ns = monotonic_ns();
    }
}

// The next record, when it is not too old; waits for one as long as the slot is in use.
bool Slot_Feeder::find_record(Ring_Record& record) {
    while (!stopping_) {
        switch (reader_.look(record)) {
            case Ring_Reader::Look::record:
                if (paced_ || record.entry.time_ns >= monotonic_ns() - backlog_max_ns ||
                    record.number >= reader_.newest()) {
                    return true;
                }
                passed_over_.fetch_add(reader_.newest() - record.number, std::memory_order_relaxed);
                reader_.move_to(reader_.newest());
                break;
            case Ring_Reader::Look::overtaken:
                reader_.move_to(paced_ ? reader_.safe_oldest() : reader_.newest());
                break;
            case Ring_Reader::Look::nothing:
                if (reader_.wait(monotonic_ns() + idle_wait_ms * ns_per_ms) ==
                        Futex_Wait::timed_out &&
                    !reader_.has_news()) {
                    return false;  // is anybody there at all?
                }
                break;
            case Ring_Reader::Look::broken:
                return false;
        }
    }
    return false;
}

bool Slot_Feeder::is_presence_fresh(Slot_Writer& slot, std::int64_t present_ns) const {
    return slot.take_presence() || monotonic_ns() - present_ns < presence_good_for_ns;
}

void Slot_Feeder::feed(Slot_Writer& slot, const Ring_Record& record) {
    ZAV_SHM_Frame_Header header{};
    const std::size_t length = record.entry.length - sizeof header;
    reader_.advance();
    if (record.entry.length < sizeof header || length > slot.capacity()) {
        too_large_.fetch_add(1, std::memory_order_relaxed);
        return;
    }
    slot.begin();
    const bool copied = reader_.copy(record, 0, std::as_writable_bytes(std::span(&header, 1))) &&
                        reader_.copy(record, sizeof header, slot.room().first(length));
    if (!copied || !reader_.is_in_reach(record.number)) {
        passed_over_.fetch_add(1, std::memory_order_relaxed);
        return;
    }
    if (!slot.commit(header)) {
        slow_reads_.fetch_add(1, std::memory_order_relaxed);
    }
    fed_.fetch_add(1, std::memory_order_relaxed);
    need(reader_.cursor());
}

void Slot_Feeder::need(std::uint64_t number) {
    needs_ = number;
    wake_waiting_writer(reader_.memory(), static_cast<std::uint32_t>(number));
}

}  // namespace zav_shm
