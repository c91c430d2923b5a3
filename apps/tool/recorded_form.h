// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <memory>
#include <span>

#include "apps/audio/ogg_opus.h"
#include "frame/received_frame.h"

namespace zav_shm::tool {

/// What the frames of one file look like in it: their payloads as they are, which players take of
/// video and AAC; and packets of Opus, which nothing could divide again, as pages of Ogg.
class Recorded_Form {
public:
    struct Piece {
        std::span<const std::byte> bytes;  // valid until the next call, and as long as the frame
        std::size_t payload_offset = 0;    // of the payload in them
    };

    Piece of(const Received_Frame& frame);

private:
    Piece opus(const Received_Frame& frame);

    std::unique_ptr<audio::Ogg_Opus_Writer> opus_;
    bool told_without_ogg_ = false;
};

}  // namespace zav_shm::tool
