// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <string>

#include "frame/center_link.h"
#include "frame/frame_format.h"
#include "frame/slot_reader.h"
#include "ipc/annotated_mutex.h"

namespace zav_shm {

/// A subscriber's standing with the center: registers and pairs it, says when it is time to try
/// again, and holds the reader of the slot that came of it.
///
/// Threads  one attempts and waits for attempts; everything else from any.
class Consumer_Link {
public:
    Consumer_Link(std::string name, std::string producer, int channel, int stream);

    void open();

    /// Nobody waits any more; leave() follows when nobody attempts any more.
    void begin_to_close();
    bool is_closing() const { return closing_; }

    /// Takes leave of the center within the time, and gives up the reader.
    void leave(std::chrono::milliseconds limit);

    enum class Attempt { failed, first, again };  // again: it had been registered since open()

    /// Registers; afterwards there is a reader unless it failed. Does nothing while not paired on
    /// purpose.
    Attempt attempt(std::chrono::milliseconds limit);

    /// What came of the latest attempt.
    Opened opened() const;

    /// Sleeps until the next attempt is due or a center has come, but not beyond `end`.
    void wait_for_retry(std::chrono::steady_clock::time_point end);

    /// Waits a little for the next attempt to be due, a center to come or pair() to ask for one;
    /// for as long as it takes while not paired on purpose.
    ///
    /// @return true when it is time for an attempt.
    bool wait_for_attempt();

    /// As ZAV_SHM_Frame_Subscriber::pair().
    Opened pair(const std::string& producer, std::chrono::milliseconds limit);

    /// Looks whether somebody else has paired this consumer, and moves the reader to that slot;
    /// while a pairing is in doubt, tries to settle it. Takes 15 ms at most.
    void follow_pairing();

    /// pair() got no answer: nobody knows whose posts come. follow_pairing() is to be called.
    bool is_in_doubt() const { return in_doubt_; }

    /// Null while not registered. It stays usable for who has it.
    std::shared_ptr<Slot_Reader> reader() const;
    bool has_reader() const;
    Backoff::Clock::time_point registered_at() const { return registered_at_; }

    // What the reader meets.
    void frame_has_come() { state_ = Frame_State::connected; }
    void no_frame_comes() { state_ = Frame_State::waiting_for_producer; }
    void nobody_answers();

    Frame_State state() const { return state_; }

private:
    bool use(const Center_Link::Registration& made) ZAV_SHM_REQUIRES(control_);
    bool is_unpaired() const;
    Backoff::Clock::time_point next_retry() const;
    bool center_has_come();
    void read_from(const Center_Link::Registration& granted) ZAV_SHM_REQUIRES(control_);
    void settle() ZAV_SHM_REQUIRES(control_);

    std::atomic<Frame_State> state_{Frame_State::closed};
    std::atomic<Backoff::Clock::time_point> registered_at_{};
    std::atomic<bool> in_doubt_{false};  // as the link says, to be read without control_

    mutable Mutex control_;  // held through exchanges; taken before small_
    Center_Link link_ ZAV_SHM_GUARDED_BY(control_);
    Backoff retry_ ZAV_SHM_GUARDED_BY(control_);
    bool refused_ ZAV_SHM_GUARDED_BY(control_) = false;
    bool was_registered_ ZAV_SHM_GUARDED_BY(control_) = false;
    std::string reason_ ZAV_SHM_GUARDED_BY(control_);  // why it is not registered

    mutable Mutex small_;  // never held while waiting for anything
    std::condition_variable wake_;
    std::shared_ptr<Slot_Reader> reader_ ZAV_SHM_GUARDED_BY(small_);
    std::atomic<bool> closing_{false};                     // written with small_ held
    bool retries_now_ ZAV_SHM_GUARDED_BY(small_) = false;  // pair() wants an attempt at once
    bool unpaired_ ZAV_SHM_GUARDED_BY(small_) = false;     // by pair("NONE"): on purpose
};

}  // namespace zav_shm
