// SPDX-License-Identifier: Apache-2.0
#include "apps/tool/recorded_form.h"

#include <algorithm>
#include <utility>

#include "apps/audio/opus_packet.h"
#include "apps/tool/problem.h"

namespace zav_shm::tool {

namespace {

bool is_first(const ZAV_SHM_Frame_Header& header) { return header.sequence == 1; }

bool is_last(const ZAV_SHM_Frame_Header& header) {
    return (header.flags & frame_flag::end_of_stream) != 0;
}

// What is not to be heard. A publisher begins before time 0 by that much. A decoder that begins in
// mid-stream needs 80 ms until what it makes is right (RFC 7845, 4.2).
std::uint32_t pre_skip_of(const ZAV_SHM_Frame_Header& header) {
    constexpr std::int64_t second_ns = 1'000'000'000;
    constexpr std::int64_t pre_skip_max = 65'535;
    constexpr std::uint32_t until_right = audio::opus_rate / 1000 * 80;
    if (header.pts_ns < 0) {
        const std::int64_t before_ns = -std::max(header.pts_ns, -2 * second_ns);
        const std::int64_t samples = (before_ns * audio::opus_rate + second_ns / 2) / second_ns;
        return static_cast<std::uint32_t>(std::min(samples, pre_skip_max));
    }
    return is_first(header) ? 0 : until_right;
}

// By how much the last packet is longer than what is to be heard of it.
std::uint32_t trimmed_of(const Received_Frame& frame) {
    const auto samples = audio::opus_packet_samples(frame.payload());
    const std::uint64_t heard =
        (std::uint64_t{frame.header.duration_us} * audio::opus_rate + 500'000) / 1'000'000;
    const bool is_cut = is_last(frame.header) && samples && heard > 0 && heard < *samples;
    return is_cut ? *samples - static_cast<std::uint32_t>(heard) : 0;
}

}  // namespace

Recorded_Form::Piece Recorded_Form::of(const Received_Frame& frame) {
    const bool is_opus = frame.verified && frame.header.codec == codec::opus;
    return is_opus ? opus(frame) : Piece{frame.payload()};
}

Recorded_Form::Piece Recorded_Form::opus(const Received_Frame& frame) {
    if (!opus_ && !(opus_ = audio::make_ogg_opus_writer())) {
        if (!std::exchange(told_without_ogg_, true)) {
            complain(
                "the stream is Opus, and this zav-shm was built without libogg: its packets are "
                "written one behind the other, and only --index tells where they begin");
        }
        return {frame.payload()};
    }
    const auto pages = opus_->add({.bytes = frame.payload(),
                                   .channels = frame.header.channels,
                                   .pre_skip = pre_skip_of(frame.header),
                                   .trimmed = trimmed_of(frame),
                                   .is_last = is_last(frame.header)});
    return {pages.bytes, pages.packet_offset};
}

}  // namespace zav_shm::tool
