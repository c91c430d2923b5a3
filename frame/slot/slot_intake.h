// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "ring/ring_memory.h"

namespace zav_shm {

/// What happened at a slot. A snapshot.
struct Intake_Counters {
    std::uint64_t torn = 0;      // copies that were overwritten meanwhile, also after a retry
    std::uint64_t invalid = 0;   // a length beyond the slot
    std::uint64_t repeated = 0;  // the slot still held a frame that was taken before
    std::uint64_t timeouts_no_frame = 0;  // waits of 30 ms that a relay noticed: a silent producer
    std::uint64_t timeouts_no_relay = 0;  // not noticed: not paired, or the center is away
    std::uint64_t recoveries = 0;         // registered again

    Intake_Counters& operator+=(const Intake_Counters& other);
};

/// Takes the frames of a producer of the fixed interface off its slot, through its relay, into a
/// ring in private memory, for a reader that need not know the difference. It registers by itself,
/// and again when nobody answers any more.
///
/// What a publisher of the safe layer puts there, for others, is left: its ring has it, too.
///
/// A consumer that is not back within 5 ms after a frame misses the next one: so a thread does this
/// and nothing else.
///
/// Owner    of its thread, the consumer's end of the slot, and the ring.
/// Threads  "zav_intake"; all operations from any.
/// Crash    a killed one costs the other consumers 20 ms once; the center's idle kick takes it
///          out of its relay.
class Slot_Intake {
public:
    struct Consumer {
        std::string name;
        std::string producer;
        int channel = 0;
        int stream = 0;
        std::string card;
        std::string ring;  // that the producer would write if it did
    };

    /// Starts the thread.
    ///
    /// @param history_bytes  of the ring; 0: four times the page size
    /// @param changed        called on the thread when ring() or trouble() is another one, or the
    ///                       producer has begun to write a ring of its own
    /// @return null when no thread can be had
    static std::unique_ptr<Slot_Intake> begin(const Consumer& consumer, std::uint32_t history_bytes,
                                              std::function<void()> changed);

    /// Ends the thread, waiting for it up to 100 ms; one that is in an exchange with the center
    /// ends behind that by itself.
    ~Slot_Intake();
    Slot_Intake(const Slot_Intake&) = delete;
    Slot_Intake& operator=(const Slot_Intake&) = delete;

    /// Where the frames are; null before it has registered. Another one when the pages of the
    /// stream have become larger.
    std::shared_ptr<const Ring_Memory> ring() const;

    /// Why there are none; empty when all is well.
    std::string trouble() const;
    bool is_refused() const;

    Intake_Counters counters() const;

private:
    class Body;
    explicit Slot_Intake(std::shared_ptr<Body> body);
    std::shared_ptr<Body> body_;  // shared with the thread
};

}  // namespace zav_shm
