// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "frame/frame_header.h"

namespace zav_shm {

/// What a stream carries, the same for all of its frames until its publisher says otherwise.
/// What is unknown or does not apply stays 0.
struct Frame_Format {
    std::uint32_t codec = 0;     // codec::h264 ... or four_characters("...")
    std::uint32_t width = 0;     // pixels
    std::uint32_t height = 0;    // pixels
    std::uint32_t rate_num = 0;  // frames or samples per second ...
    std::uint32_t rate_den = 1;  // ... as a fraction
    std::uint32_t channels = 0;  // audio
};

/// What an application says of one frame.
struct Frame_Info {
    std::uint16_t flags = 0;  // of frame_flag
    std::chrono::nanoseconds pts{0};
    std::chrono::nanoseconds utc{0};  // wall clock at capture since 1970; 0 unknown
    std::chrono::microseconds duration{0};
};

/// What became of one frame.
enum class Publish_Outcome {
    published,  // it is in the history, for whoever reads
    too_large,  // longer than the stream's frames may be; nothing was written
    refused,    // the center does not know this name, channel or stream; `reason` says it
    no_ring     // there is no history to write: `reason` says why
};

/// Where a publisher or subscriber stands.
enum class Frame_State {
    closed,                // never opened, or closed
    connected,             // registered, or a tap; frames flow when there are any
    waiting_for_center,    // none is running, or it does not answer: frames flow all the same
    waiting_for_producer,  // no frame has come for a second
    refused,               // the center's configuration does not know what was asked for
    no_ring                // a publisher that cannot have its history: reason() says why
};

/// What opening or pairing came to.
struct [[nodiscard]] Opened {
    Frame_State state = Frame_State::closed;
    std::string reason;    // why it is not connected, in one line
    bool refused = false;  // the configuration does not know what was asked for, or keeps it for a
                           // group that this process is not in

    explicit operator bool() const { return state == Frame_State::connected; }
};

const char* name_of(Publish_Outcome outcome);
const char* name_of(Frame_State state);

}  // namespace zav_shm
