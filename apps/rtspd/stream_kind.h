// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "apps/rtspd/gst_reference.h"
#include "frame/frame_format.h"
#include "frame/received_frame.h"

namespace zav_shm::rtspd {

/// What a stream carries, as far as a client has to be told before it plays. While it is equal,
/// sessions go on; when it changes, they end.
struct Stream_Kind {
    std::uint32_t codec = 0;
    std::uint32_t width = 0;        // pixels; 0 unknown
    std::uint32_t height = 0;       // pixels; 0 unknown
    std::uint32_t rate = 0;         // of audio: samples per second
    std::uint32_t channels = 0;     // of audio
    std::uint32_t object_type = 0;  // of AAC

    bool operator==(const Stream_Kind&) const = default;
};

/// One frame as it goes to the clients.
struct Stream_Unit {
    Stream_Kind kind;
    std::span<const std::byte> bytes;  // of the frame that was read
};

/// Finds out what a frame is.
///
/// @param reason  why it cannot be sent, in words that follow "its frames", when nothing is
/// returned
std::optional<Stream_Unit> read_unit(const Frame_Facts& frame, std::span<const std::byte> payload,
                                     std::string& reason);

/// What the payloader is told.
Caps_Reference caps_of(const Stream_Kind& kind);

/// The element that makes RTP packets of it.
const char* payloader_of(const Stream_Kind& kind);

}  // namespace zav_shm::rtspd
