// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <vector>

#include "apps/audio/adts_header.h"
#include "apps/audio/audio_splitter.h"
#include "apps/audio/held_frame.h"

namespace zav_shm::audio {

/// Divides a stream of AAC with ADTS headers into its frames.
///
/// Headers carry 12 bits to find them by, and audio holds such bits by chance. So a frame counts
/// as one when a header stands behind it, or the input ends there. The first frame of a stream, and
/// one that changes rate or channels, needs a header of the same kind behind it. A frame of the
/// stream that is followed by something else is taken, too, unless further frames of the stream
/// begin within it: then it is its own length that is wrong.
///
/// An ID3v2 tag at the beginning is passed over.
class Adts_Splitter : public Audio_Splitter {
public:
    explicit Adts_Splitter(Audio_Receiver& receiver) : receiver_(receiver), held_(receiver) {}

    void feed(std::span<const std::byte> block) override;
    void finish() override;

private:
    // What to do with the first bytes of what is not divided yet.
    enum class Find { needs_more, frame, nothing, cut_frame };
    struct Step {
        Find find = Find::needs_more;
        std::size_t bytes = 0;
    };

    bool pass_tag(bool at_end);
    void divide(bool at_end);
    Step step(std::span<const std::byte> rest, bool at_end) const;
    Step step_at_header(std::span<const std::byte> rest, const Adts_Header& header,
                        bool at_end) const;
    std::size_t frame_within(std::span<const std::byte> rest, const Adts_Header& header,
                             bool at_end) const;
    bool is_of_stream(const Adts_Header& header) const;
    void take(std::span<const std::byte> frame);
    void tell_left_out(const char* what);

    Audio_Receiver& receiver_;
    Held_Frame held_;
    std::vector<std::byte> rest_;  // what is not divided yet
    std::size_t divided_ = 0;      // bytes of rest_ that are
    bool is_begun_ = false;        // the tag, if there is one, lies behind
    std::size_t tag_bytes_ = 0;    // still to come
    std::optional<Adts_Header> stream_;
    std::uint64_t left_out_ = 0;  // bytes since the last frame
};

}  // namespace zav_shm::audio
