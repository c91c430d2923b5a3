// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <memory>
#include <span>
#include <utility>
#include <vector>

#include "frame/received_frame.h"
#include "ring/ring_reader.h"

namespace zav_shm {

/// One frame where it lies in its producer's history. The header is a copy and stays.
///
///   if (subscriber.receive_view(view, 1s) == Receive_Status::frame) {
///       decode(view.payload());
///       if (!view.is_whole()) { ... throw away what came of it ... }
///   }
///
/// Owner    keeps the history mapped, also when publisher and subscriber are gone. The next
///          receive_view() into the same object shows another frame.
/// Threads  one at a time.
class Frame_View : public Frame_Facts {
public:
    /// May be overwritten at any moment.
    std::span<const std::byte> payload() const { return payload_; }

    /// True when no byte of the payload has been overwritten up to now.
    bool is_whole() const {
        return ring_ == nullptr || is_in_reach(*ring_, static_cast<std::uint32_t>(number));
    }

private:
    friend class Frame_Source;

    std::shared_ptr<const Ring_Memory> ring_;  // null: the payload is a copy, and stays
    std::span<const std::byte> payload_;
    std::vector<std::byte> copy_;
};

}  // namespace zav_shm
