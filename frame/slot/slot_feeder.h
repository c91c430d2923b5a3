// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "frame/slot/slot_writer.h"
#include "ipc/annotated_mutex.h"
#include "ring/ring_reader.h"

namespace zav_shm {

/// What became of the frames of a ring in the slot beside it. A snapshot.
struct Feeder_Counters {
    std::uint64_t fed = 0;          // written while a consumer was present
    std::uint64_t passed_over = 0;  // while one was present: it was not back in time
    std::uint64_t too_large = 0;    // for the slot
    std::uint64_t slow_reads = 0;   // the slot was not free again within 33 ms
};

/// Feeds the consumers of the fixed interface: reads the publisher's own ring as any reader would,
/// and drives the stream's slot through its relay.
///
/// While no such consumer is present it sleeps, and wakes up once a second.
///
/// Owner    of its thread and of the slot's end.
/// Threads  "zav_feeder"; use(), stop() and counters() from any.
/// Blocking stop() and use() take as long as one step of the thread, 40 ms at most.
/// Crash    goes with the publisher. The slot then holds no frame, or a whole one.
class Slot_Feeder {
public:
    /// @param ring   the publisher's
    /// @param paced  its publisher waits for this: no frame is passed over for being old
    Slot_Feeder(std::shared_ptr<const Ring_Memory> ring, bool paced);
    ~Slot_Feeder() { stop(); }
    Slot_Feeder(const Slot_Feeder&) = delete;
    Slot_Feeder& operator=(const Slot_Feeder&) = delete;

    /// Drives this slot from now on; the first time, starts the thread.
    ///
    /// @return false when segment, semaphores or the thread cannot be had.
    bool use(const std::string& segment, const std::string& sem_src, const std::string& sem_dst,
             const std::string& sem_exist);

    /// Ends the thread. Frames that are published now are still fed when a consumer is waiting.
    void stop();

    /// The number of the record that a present consumer is to get next; 0 while none is present.
    std::uint64_t needs() const { return needs_; }

    Feeder_Counters counters() const;

private:
    void run();
    void serve_present_consumer(Slot_Writer& slot, std::int64_t present_ns);
    bool find_record(Ring_Record& record);
    bool is_presence_fresh(Slot_Writer& slot, std::int64_t present_ns) const;
    void feed(Slot_Writer& slot, const Ring_Record& record);
    void need(std::uint64_t number);
    std::shared_ptr<Slot_Writer> slot() const;

    const bool paced_;
    Ring_Reader reader_;  // of the thread
    std::atomic<std::uint64_t> needs_{0};
    std::thread thread_;
    std::atomic<bool> stopping_{false};
    std::atomic<bool> left_{false};

    mutable Mutex mutex_;  // held for a few instructions
    std::shared_ptr<Slot_Writer> slot_ ZAV_SHM_GUARDED_BY(mutex_);

    std::atomic<std::uint64_t> fed_{0};
    std::atomic<std::uint64_t> passed_over_{0};
    std::atomic<std::uint64_t> too_large_{0};
    std::atomic<std::uint64_t> slow_reads_{0};
};

}  // namespace zav_shm
