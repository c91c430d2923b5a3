// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "ipc/annotated_mutex.h"
#include "ipc/name_watch.h"
#include "ring/ring_reader.h"

namespace zav_shm {

/// Follows a ring by its name: waits for it to come, reads it to its end, and changes over when
/// another writer has replaced it.
///
///   Ring_Follower follower("/dev/shm/shm/rings/CAM_LOOP_0_0", Ring_Memory::Reading::mapped);
///   for (;;) {
///       Ring_Reader* const reader = follower.reader();
///       if (reader != nullptr && reader->look(record) == Ring_Reader::Look::record) {
///           ... use it, is_in_reach(), advance() ...
///       } else if (!follower.changes_over()) {
///           follower.wait(deadline_ns);
///       }
///   }
///
/// Threads  one; wake() from any.
/// Blocking wait() alone. Nobody who waits wakes up more than once a second for nothing.
class Ring_Follower {
public:
    Ring_Follower(std::string path, Ring_Memory::Reading reading);

    /// @param where  tells the name, each time that it is looked at
    Ring_Follower(std::function<std::string()> where, Ring_Memory::Reading reading);

    /// Reads this ring and no other.
    explicit Ring_Follower(std::shared_ptr<const Ring_Memory> ring);

    Ring_Follower(const Ring_Follower&) = delete;
    Ring_Follower& operator=(const Ring_Follower&) = delete;

    /// The reader of the present ring; null while there is none.
    Ring_Reader* reader() const { return reader_.get(); }

    /// To be called while there is nothing to read in the present ring, or no ring. Looks at the
    /// name when there is reason to, and takes the ring that has it by now. Where the present ring
    /// has got a last record meanwhile, it stays, to be read to its end.
    ///
    /// @return true when reader() is another one; its cursor is behind its newest record.
    bool changes_over();

    /// Sleeps until there may be something to read or a ring to change over to, until wake(), or
    /// the deadline; a second at most.
    ///
    /// @param deadline_ns  of CLOCK_MONOTONIC
    void wait(std::int64_t deadline_ns);

    /// Ends a wait(), or keeps the next one from beginning.
    void wake();

    /// Gives up the present ring, which is broken. It is not taken again before another second has
    /// passed, or another one has its name.
    void give_up(const std::string& why);

    /// Why there is no ring, or why one that has the name is not read; empty when all is well.
    const Ring_Problem& problem() const { return problem_; }

private:
    bool is_due(std::int64_t now_ns) const { return looks_now_ || now_ns >= next_look_ns_; }
    bool take_ring();
    bool has_more() const;
    void sleep_on_head(std::int64_t deadline_ns);
    void use(std::unique_ptr<Ring_Reader> reader);

    const std::function<std::string()> where_;  // empty: it is always path_
    std::string path_;                          // empty: one ring for ever
    const Ring_Memory::Reading reading_ = Ring_Memory::Reading::mapped;
    Ring_Problem problem_;
    std::uint64_t given_up_ = 0;  // the ring that is broken
    bool looks_now_ = true;
    std::int64_t next_look_ns_ = 0;
    bool ended_early_ = false;  // the latest wait, not by its deadline or a wake()
    int in_vain_ = 0;           // such waits in a row that brought no record
    std::uint64_t found_ = 0;   // records that the reader had found at the latest wait
    Name_Watch names_;

    // Held for a few instructions, where `reader_` changes and where wake() uses it; the reading
    // thread alone changes it, and reads it without the mutex.
    Mutex mutex_;
    std::unique_ptr<Ring_Reader> reader_;
    std::atomic<bool> waits_{false};
    std::atomic<bool> woken_{false};
};

}  // namespace zav_shm
