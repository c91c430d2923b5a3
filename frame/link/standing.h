// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "frame/frame_format.h"
#include "frame/link/center_link.h"
#include "frame/link/link_keeper.h"
#include "ipc/annotated_mutex.h"

namespace zav_shm {

/// A publisher's or subscriber's standing with the center: registered when it is opened, and from
/// then on kept by the process's thread for that (Link_Keeper), which sees a center come and
/// registers again. Frames wait for none of it.
///
/// Threads  any. An exchange with the center is made under a lock that the frames' way never takes.
class Standing : public Link_Keeper::End {
public:
    /// @param changed  called, on any thread, when a center has granted, refused or moved
    ///                 something; never after close() has returned.
    Standing(Channel_End end, std::function<void()> changed);

    /// Looks for a center for up to `wait`, and goes on looking in the background.
    Opened open(std::chrono::milliseconds wait);

    /// Leaves, waiting up to `limit` for the center's answer. When the thread is in an exchange for
    /// this end that lasts longer, it leaves behind that.
    void close(std::chrono::milliseconds limit);

    /// Ends what open() or pair() of another thread waits for, within a second. For who is about to
    /// close(), and has to wait for that thread.
    void cut_short() { is_cut_short_ = true; }

    /// A consumer's own wish for another producer; "NONE" for none.
    Opened pair(const std::string& producer, std::chrono::milliseconds limit);

    /// Somebody else has paired this consumer: it registers with that producer from now on.
    void follow(const std::string& producer);

    /// Has it registered once more, soon: a consumer that reads rings is out of its relay then.
    void renew();

    /// False from renew() until a center has granted that.
    bool is_renewed() const { return renewals_granted_ == renewals_wanted_; }

    /// What the center has granted last; `number` is another one each time, and 0 before the first.
    struct Grant {
        std::uint64_t number = 0;
        Center_Link::Registration names;
    };
    Grant grant() const;

    std::string producer() const;  // empty: none
    std::string folder() const;    // of the segments, "/shm"
    std::string reason() const;    // why it is not connected
    std::uint64_t recoveries() const { return recoveries_; }

    /// CLOCK_MONOTONIC when pair() was called that has been granted last; 0 before the first.
    std::int64_t paired_ns() const { return paired_ns_; }

    /// connected, waiting_for_center, refused or closed.
    Frame_State state() const { return state_; }

    // ---- for the keeper ----

    std::string watched_folder() const override { return folder(); }
    Link_Keeper::Clock::time_point keep(std::chrono::milliseconds limit) override;

private:
    bool attempt(std::chrono::milliseconds limit) ZAV_SHM_REQUIRES(exchange_);
    Center_Link::Registration ask_for_pairing(const std::string& producer,
                                              Link_Keeper::Clock::time_point end)
        ZAV_SHM_REQUIRES(exchange_);
    bool take_note(const Center_Link::Registration& made) ZAV_SHM_REQUIRES(exchange_);
    Opened opened() const;
    void tell_change();

    Mutex exchange_;  // held through exchanges
    Center_Link link_ ZAV_SHM_GUARDED_BY(exchange_);
    Backoff retry_ ZAV_SHM_GUARDED_BY(exchange_);

    Mutex telling_;  // held while changed_ is called
    std::function<void()> changed_ ZAV_SHM_GUARDED_BY(telling_);

    mutable Mutex mutex_;  // held for a few instructions
    Grant grant_ ZAV_SHM_GUARDED_BY(mutex_);
    std::string producer_ ZAV_SHM_GUARDED_BY(mutex_);
    std::string folder_ ZAV_SHM_GUARDED_BY(mutex_);
    std::string reason_ ZAV_SHM_GUARDED_BY(mutex_);

    std::atomic<Frame_State> state_{Frame_State::closed};
    std::atomic<bool> is_cut_short_{false};
    std::atomic<bool> leaves_{false};  // as soon as the thread is done with this end
    std::atomic<std::uint64_t> renewals_wanted_{0};
    std::atomic<std::uint64_t> renewals_granted_{0};  // how many of them
    std::atomic<std::uint64_t> recoveries_{0};
    std::atomic<std::int64_t> paired_ns_{0};
};

}  // namespace zav_shm
