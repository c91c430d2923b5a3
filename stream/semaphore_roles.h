// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>

// What the three semaphores of each side of a channel mean: the index in `sem_list`, and the
// number at the end of the semaphore's name. Each has one poster and one waiter.
namespace zav_shm {

namespace producer_side {
inline constexpr std::size_t frame_written = 0;     // producer to relay
inline constexpr std::size_t slot_free = 1;         // relay to producer
inline constexpr std::size_t consumer_present = 2;  // relay to producer
}  // namespace producer_side

namespace consumer_side {
inline constexpr std::size_t frame_ready = 0;       // relay to consumer
inline constexpr std::size_t read_done = 1;         // consumer to relay
inline constexpr std::size_t consumer_present = 2;  // consumer to relay
}  // namespace consumer_side

}  // namespace zav_shm
