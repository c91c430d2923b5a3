// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

namespace zav_shm::audio {

struct Audio_Format {
    std::uint32_t sample_rate = 0;  // per second, never 0 in a frame
    std::uint32_t channels = 0;     // 0: only the frame itself says how many

    bool operator==(const Audio_Format&) const = default;
};

/// One ADTS frame with its header, or one Opus packet: what a decoder takes at once.
struct Audio_Frame {
    std::span<const std::byte> bytes;  // valid during the call
    Audio_Format format;
    std::uint32_t samples = 0;    // of each channel
    std::uint32_t pre_skip = 0;   // of the samples from here on so many are not to be heard
    bool begins_stream = false;   // the first one of the input, or of a further Opus stream in it
    bool follows_damage = false;  // something is missing before it
    bool is_last = false;         // handed out by finish()
};

/// Takes what a splitter finds, in the order of the input.
class Audio_Receiver {
public:
    virtual ~Audio_Receiver() = default;

    virtual void take(const Audio_Frame& frame) = 0;

    /// A place where bytes of the input are in no frame, or frames are missing in the input.
    ///
    /// @param bytes  of the input; 0 when the input lacks something
    /// @param what   "1200 bytes that are no AAC frame"
    virtual void left_out(std::uint64_t bytes, const std::string& what) = 0;

    /// Something of the input that the frames do not tell, in one line.
    virtual void remark(const std::string& text) = 0;
};

/// Divides a stream of audio into frames. How the input is cut into blocks makes no difference.
///
/// A frame is handed out when the one behind it has come: only then it is known not to be the last.
///
/// Memory   some hundred kilobytes at most, whatever the input.
/// Threads  one. The receiver may not call the splitter.
class Audio_Splitter {
public:
    virtual ~Audio_Splitter() = default;

    virtual void feed(std::span<const std::byte> block) = 0;

    /// Hands out the last frame, and is ready for another stream.
    virtual void finish() = 0;
};

}  // namespace zav_shm::audio
