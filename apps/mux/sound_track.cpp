// SPDX-License-Identifier: Apache-2.0
#include "apps/mux/sound_track.h"

#include <algorithm>

#include "apps/audio/opus_packet.h"
#include "ipc/monotonic_clock.h"

namespace zav_shm::mux {

namespace {

using std::chrono::milliseconds;

// Times of two streams of one clock are never further apart.
constexpr std::int64_t origin_max_ns = 3'000'000'000;

// Sounds may be published before the picture of their moment.
constexpr std::int64_t ahead_ns = 2'000'000'000;

// Of AAC, in each packet.
constexpr std::uint64_t aac_samples = 1024;

std::uint64_t samples_of(const Received_Frame& sound) {
    switch (sound.header.codec) {
        case codec::aac:
            return aac_samples;
        case codec::opus:
            return audio::opus_packet_samples(sound.payload()).value_or(0);
        default:  // G.711 has a byte for each
            return sound.length / std::max(sound.header.channels, 1U);
    }
}

}  // namespace

Sound_Track::Sound_Track(const tool::Common_Options& common, const tool::Consumer_Options& stream,
                         Begin begin, const tool::Stop_Signal& stop)
    : begin_(begin), input_(common, stream, {stream.stream}, {}, stop) {}

std::chrono::nanoseconds Sound_Track::duration_of(const Received_Frame& sound) {
    const ZAV_SHM_Frame_Header& header = sound.header;
    if (header.duration_us != 0) {
        return std::chrono::microseconds(header.duration_us);
    }
    const std::uint64_t rate = header.codec == codec::opus ? audio::opus_rate : header.rate_num;
    return std::chrono::nanoseconds(
        rate != 0 ? static_cast<std::int64_t>(samples_of(sound) * ns_per_second / rate) : 0);
}

// Of the frame that is held, for the question in which file it is.
std::int64_t Sound_Track::place_ns() const {
    const auto half =
        begin_ == Begin::nearest_to_picture ? duration_of(frame_) / 2 : std::chrono::nanoseconds(0);
    return apart_ns(time_ns_of(frame_), -half.count());
}

bool Sound_Track::fetch(milliseconds limit) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!is_held_) {
        const auto left = std::chrono::ceil<milliseconds>(end - std::chrono::steady_clock::now());
        is_held_ = input_.receive(frame_, std::clamp(left, milliseconds(0), limit)) ==
                   Receive_Status::frame;
        if (!is_held_ && left <= milliseconds(0)) {
            return false;
        }
    }
    return true;
}

std::optional<Frame_Format> Sound_Track::begin(const Received_Frame& picture, milliseconds limit) {
    const std::int64_t ago_ns =
        std::max<std::int64_t>(monotonic_ns() - picture.header.publish_ns, 0);
    input_.seek(start::back(std::chrono::nanoseconds(ago_ns + ahead_ns)));
    input_.tell_state();
    is_held_ = is_over_ = false;
    const auto end = std::chrono::steady_clock::now() + limit;
    bool is_first = true;
    for (;;) {
        const auto left = std::chrono::ceil<milliseconds>(end - std::chrono::steady_clock::now());
        if (!fetch(std::max(left, milliseconds(0)))) {
            return {};
        }
        if (is_first) {
            const std::int64_t shift_ns =
                apart_ns(apart_ns(picture.header.pts_ns, frame_.header.pts_ns),
                         apart_ns(picture.header.publish_ns, frame_.header.publish_ns));
            shift_ns_ = shift_ns < origin_max_ns && shift_ns > -origin_max_ns ? 0 : shift_ns;
            is_first = false;
        }
        if (frame_.verified && place_ns() >= picture.header.pts_ns) {
            format_ = format_of(frame_.header);
            return format_;
        }
        is_held_ = false;
    }
}

const Received_Frame* Sound_Track::next(std::int64_t before_ns, milliseconds limit) {
    if (is_over_ || !fetch(limit)) {
        return nullptr;
    }
    if (!frame_.verified || !is_same(format_of(frame_.header), format_)) {
        is_over_ = true;
        return nullptr;
    }
    if (place_ns() >= before_ns) {
        return nullptr;
    }
    is_held_ = false;
    return &frame_;
}

}  // namespace zav_shm::mux
