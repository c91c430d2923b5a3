// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace zav_shm::rtspd {

/// Tells whether an access unit of H.264 or H.265 may go to a payloader: start codes with a NAL
/// unit behind each, whose heads are those of a stream and long enough to be looked into.
/// Payloaders trust what they get, and one of them ends the process over a NAL unit without a byte.
///
/// @param codec  codec::h264 or codec::h265
bool is_sendable(std::uint32_t codec, std::span<const std::byte> access_unit);

}  // namespace zav_shm::rtspd
