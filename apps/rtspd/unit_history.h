// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>

#include "apps/rtspd/gst_reference.h"

namespace zav_shm::rtspd {

/// One access unit, or one frame of audio.
struct Unit {
    Buffer_Reference buffer;       // its bytes, shared by all clients; its own times mean nothing
    std::int64_t time_ns = 0;      // of the Timeline
    std::int64_t duration_ns = 0;  // 0 unknown
    bool is_entry = false;         // a decoder may begin here
    bool is_discontinuous = false;
};

/// The newest units of one stream: what a late client gets first, and what a slow one may be
/// behind. It goes back to the key frame before the newest one, and at least `least_span_ns`,
/// unless that takes more than the bytes that it may have.
///
/// Threads  the owner locks.
class Unit_History {
public:
    static constexpr std::int64_t least_span_ns = 2'000'000'000;

    explicit Unit_History(std::size_t bytes_max) : bytes_max_(bytes_max) {}

    void add(Unit unit);
    void clear();

    /// Units are numbered from 1 on, also across clear().
    std::uint64_t first() const { return first_; }
    std::uint64_t end() const { return first_ + units_.size(); }

    /// The newest unit at which a decoder may begin; end() when there is none.
    std::uint64_t newest_entry() const { return newest_entry_ >= first_ ? newest_entry_ : end(); }

    /// @param number  from first(), below end()
    const Unit& at(std::uint64_t number) const {
        return units_[static_cast<std::size_t>(number - first_)];
    }

    std::size_t bytes() const { return bytes_; }

private:
    void forget_oldest();

    const std::size_t bytes_max_;
    std::deque<Unit> units_;
    std::uint64_t first_ = 1;         // number of the oldest
    std::uint64_t newest_entry_ = 0;  // 0: there has been none
    std::uint64_t entry_before_ = 0;
    std::size_t bytes_ = 0;
};

}  // namespace zav_shm::rtspd
