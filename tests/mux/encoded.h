// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

/// What a real encoder made: an access unit, or a packet of sound.
struct Encoded {
    std::vector<std::byte> bytes;
    std::int64_t pts_ns = 0;       // from the first one on, in the order of decoding
    std::int64_t duration_ns = 0;  // 0: the encoder does not say it
    bool is_key = false;
};

/// Starts GStreamer, with the threads and descriptors that it keeps from its first pipeline on.
void start_encoders();

/// Runs an encoder to its end.
///
/// @param pipeline  GStreamer's words for a source and an encoder
std::vector<Encoded> encoded(const std::string& pipeline);
