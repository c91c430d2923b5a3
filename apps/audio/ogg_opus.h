// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "apps/audio/audio_splitter.h"

// Opus in Ogg (RFC 7845), by libogg where that is installed when this is built.

namespace zav_shm::audio {

/// Whether this was built with libogg.
bool has_ogg();

/// Divides an Ogg stream with Opus into packets: the first stream of mono or stereo that is in it,
/// and each one behind it (a chain). The two header packets of a stream are not handed out. The end
/// of a stream that its last page cuts off within its last packet shortens that packet's time.
///
/// @return null when this was built without libogg.
std::unique_ptr<Audio_Splitter> make_ogg_opus_splitter(Audio_Receiver& receiver);

/// Writes Opus packets as an Ogg stream, each one as a page of its own, so that a file that ends
/// anywhere loses the last packet at most.
class Ogg_Opus_Writer {
public:
    struct Packet {
        std::span<const std::byte> bytes;
        std::uint32_t channels = 0;  // anything but 1 and 2: what the packet itself says
        std::uint32_t pre_skip = 0;  // when the stream begins with it
        std::uint32_t trimmed = 0;   // samples at the end that are not to be heard
        bool is_last = false;        // what comes next begins another stream
    };

    /// Bytes of the file, valid until the next call.
    struct Pages {
        std::span<const std::byte> bytes;
        std::size_t packet_offset = 0;  // of the packet in these bytes
    };

    virtual ~Ogg_Opus_Writer() = default;

    /// The headers come with the first packet, and anew with one of other channels.
    virtual Pages add(const Packet& packet) = 0;
};

/// @return null when this was built without libogg.
std::unique_ptr<Ogg_Opus_Writer> make_ogg_opus_writer();

}  // namespace zav_shm::audio
