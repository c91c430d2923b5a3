// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "frame/frame_source.h"
#include "frame/link/consumer_route.h"
#include "frame/link/standing.h"
#include "frame/slot/slot_intake.h"
#include "ipc/annotated_mutex.h"
#include "ring/reader_card.h"

namespace zav_shm {

/// Whose frames a subscriber reads, and where they are: follows what the center grants and what its
/// route page says, and changes between a producer's ring and its slot.
///
/// Threads  the receiving one, and begin() and end() while nobody receives; what is asked at the
/// end
///          of the class from any.
class Frame_Supply {
public:
    struct Consumer {
        std::string name;  // empty: a tap
        int channel = 0;
        int stream = 0;
        std::string folder;               // of the segments, while there is no center
        std::uint32_t history_bytes = 0;  // for a producer without a ring
        Frame_Cursor::Rules rules;
        Ring_Memory::Reading reading = Ring_Memory::Reading::mapped;
    };

    explicit Frame_Supply(Consumer consumer);

    /// @param standing  null for a tap
    /// @param producer  of a tap
    /// @param card      tells others whose frames are read; outlives end()
    void begin(std::shared_ptr<Standing> standing, const std::string& producer,
               const std::string& card_name, Own_Card& card);
    void end();

    /// To be called before each look for a frame: nearly always costs nothing.
    void follow(std::int64_t now_ns);

    /// Nothing has come although it was waited for: the next follow() looks closely.
    void look_closely() { next_look_ns_ = 0; }

    /// Notes why no frames can come, for trouble().
    void tell_trouble();

    Frame_Source& source() { return source_; }

    /// Of the ring that is read, or of what is never one while there is no producer.
    std::string ring_path() const { return path_.empty() ? rings() + "/." : place(); }
    const Consumer_Route& route() const { return route_; }

    // ---- any thread ----

    /// Ends a wait of the receiving thread.
    void wake() { source_.wake(); }

    /// The standing has changed, or what the intake says.
    void note_change() {
        standing_changed_ = true;
        wake();
    }

    Intake_Counters slot_counters() const;
    std::string trouble() const;
    bool is_refused() const;

private:
    void follow_standing();
    void read_from(const std::string& producer, std::int64_t since_ns);
    void choose_slot_or_ring(std::int64_t now_ns);
    void begin_intake();
    void end_intake();
    void tell(std::string trouble, bool refused);
    std::string rings() const;
    std::string name_of_ring(const std::string& producer) const;
    std::string place() const;
    std::string refusal() const;

    const Consumer consumer_;
    Frame_Source source_;
    std::shared_ptr<Standing> standing_;
    std::string card_name_;
    Own_Card* card_ = nullptr;
    Consumer_Route route_;
    Route_Page::Source frames_are_in_ = Route_Page::unknown;
    std::string producer_;  // that is read; empty: none
    std::string path_;      // by which its ring is known; it lies at place()
    std::uint64_t grant_ = 0;
    std::int64_t begun_ns_ = 0;
    std::int64_t read_since_ns_ = 0;  // begin(), or the latest pair() that has been followed
    std::int64_t next_look_ns_ = 0;
    std::int64_t next_choice_ns_ = 0;
    std::atomic<bool> standing_changed_{false};

    // Held for a few instructions. The receiving thread alone changes `intake_`, and reads it
    // without the mutex.
    mutable Mutex mutex_;
    std::unique_ptr<Slot_Intake> intake_;  // of a producer without a ring
    Intake_Counters former_intakes_ ZAV_SHM_GUARDED_BY(mutex_);
    std::string trouble_ ZAV_SHM_GUARDED_BY(mutex_);
    bool is_refused_ ZAV_SHM_GUARDED_BY(mutex_) = false;
};

}  // namespace zav_shm
