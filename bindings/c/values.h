// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <string>

#include "bindings/c/errors.h"
#include "bindings/c/zav_shm.h"
#include "frame/frame_format.h"
#include "frame/reading_rules.h"
#include "frame/received_frame.h"

// What the C interface says, as the safe layer says it, and the other way round. Values out of
// their range are refused with a message.

namespace zav_shm::c_interface {

zav_shm_status read_format(const zav_shm_format* from, Frame_Format& into);

/// @param from  null: nothing is said of the frame
zav_shm_status read_info(const zav_shm_frame_info* from, Frame_Info& into);

zav_shm_status read_start(std::uint32_t start, std::int64_t back_ns, Start& into);
zav_shm_status read_overflow(std::uint32_t overflow, Overflow_Policy& into);

/// The channel and stream of one that is opened.
zav_shm_status check_numbers(std::int32_t channel, std::int32_t stream);

/// 0: 2 s; below: none.
std::chrono::milliseconds center_wait_of(std::int32_t ms);

std::string text_of(const char* text, const char* unless_null);

zav_shm_frame frame_of(const Frame_Facts& facts, const void* payload, std::size_t payload_bytes);

/// What opening came to: OK or NOT_CONNECTED with a message.
zav_shm_status status_of(const Opened& opened);

/// Writes the state, and as much of the reason as has room.
zav_shm_status tell_state(Frame_State now, const std::string& why, zav_shm_state* state,
                          char* reason, std::size_t reason_bytes);

}  // namespace zav_shm::c_interface
