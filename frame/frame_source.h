// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "frame/frame_cursor.h"
#include "frame/frame_view.h"
#include "frame/received_frame.h"
#include "ipc/annotated_mutex.h"
#include "ring/ring_follower.h"

namespace zav_shm {

/// Where a subscriber's frames come from: the ring of a producer, or one of its own that somebody
/// fills for it; and the way through it.
///
/// Threads  one; wake() from any.
class Frame_Source {
public:
    Frame_Source(const Frame_Cursor::Rules& rules, Ring_Memory::Reading reading)
        : reading_(reading), cursor_(rules) {}

    /// Joins the ring that has this name, or takes it as soon as there is one.
    ///
    /// @param where     tells its path, each time that it is looked at
    /// @param since_ns  of CLOCK_MONOTONIC: what was published before is history
    void read_from(std::function<std::string()> where, std::int64_t since_ns);

    /// Reads this ring.
    void read_from(std::shared_ptr<const Ring_Memory> ring);

    /// Reads none, and keeps none.
    ///
    /// @param folder  in which wait() listens for names all the same
    void read_from_nothing(const std::string& folder);

    enum class Got {
        frame,
        nothing,  // there is none now
        missed    // there was one that is lost: for want of memory, or as it was none
    };

    /// The next frame, copied or where it lies. Never waits.
    Got copy_next(Received_Frame& frame);
    Got view_next(Frame_View& view);

    /// When there is nothing: takes the ring of a successor. True when there may be something.
    bool changes_over();

    /// When there is nothing: as Ring_Follower::wait().
    void wait(std::int64_t deadline_ns) { follower_->wait(deadline_ns); }
    void wake();

    void seek(const Start& from);

    /// A frame was left out, since only a key frame is wanted.
    bool waits_for_key_frame() const { return cursor_.waits_for_key_frame(); }

    /// The ring that is read, null while there is none; and the number of the record that is next.
    std::shared_ptr<const Ring_Memory> ring() const {
        return reader() == nullptr ? nullptr : reader()->shared_memory();
    }
    std::uint64_t next_number() const { return reader() == nullptr ? 0 : reader()->cursor(); }

    /// True when the ring has got a record since it was looked at.
    bool has_news() const { return reader() != nullptr && reader()->has_news(); }

    /// Null while there is no ring.
    const Ring_Reader* reader() const { return follower_ ? follower_->reader() : nullptr; }

    /// Why a ring that is there is not read; none when all is well.
    Ring_Problem problem() const { return follower_ ? follower_->problem() : Ring_Problem(); }

    /// What was missed since the frame that was taken last.
    const Frame_Losses& pending() const { return cursor_.pending(); }

    // Since the begin.
    std::uint64_t invalid() const { return invalid_; }
    std::uint64_t no_memory() const { return no_memory_; }
    std::uint64_t torn() const { return torn_; }  // overwritten during the copy

private:
    template <class Use>
    Got next(Frame_Facts& frame, const Use& use);
    void use(std::unique_ptr<Ring_Follower> follower);

    const Ring_Memory::Reading reading_;
    Frame_Cursor cursor_;
    // Held for a few instructions, where `follower_` changes and where wake() uses it; the reading
    // thread alone changes it, and reads it without the mutex.
    Mutex mutex_;
    std::unique_ptr<Ring_Follower> follower_;
    bool joined_ = false;             // a ring of the present name
    std::uint64_t former_epoch_ = 0;  // of the ring that is read, or was read last
    std::uint64_t invalid_ = 0;
    std::uint64_t no_memory_ = 0;
    std::uint64_t torn_ = 0;
};

}  // namespace zav_shm
