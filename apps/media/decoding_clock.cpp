// SPDX-License-Identifier: Apache-2.0
#include "apps/media/decoding_clock.h"

#include <algorithm>
#include <cstdint>
#include <optional>

#include "apps/media/nal_scan.h"
#include "apps/media/nal_types.h"
#include "apps/media/sequence_set.h"

using namespace std::chrono_literals;

namespace zav_shm::media {

namespace {

// The least that two times of decoding are apart, where there is no room for more.
constexpr auto apart_min = 1ms;

// A stream may say anything.
constexpr std::chrono::nanoseconds interval_max = 10s;

std::optional<std::uint32_t> reorder_depth(Video_Codec codec,
                                           std::span<const std::byte> sequence_set) {
    if (codec == Video_Codec::h264) {
        const auto sequence = read_h264_sequence(sequence_set);
        return sequence ? sequence->reorder_depth : std::nullopt;
    }
    const auto sequence = read_h265_sequence(sequence_set);
    return sequence ? sequence->reorder_depth : std::nullopt;
}

}  // namespace

// Parameter sets come before the first slice.
void Decoding_Clock::learn_depth(std::span<const std::byte> unit) {
    const unsigned wanted = codec_ == Video_Codec::h264 ? h264::sps : h265::sps;
    for (Nal_Scan scan(unit); scan.next();) {
        const auto nal_unit = scan.nal_unit();
        const auto meaning = meaning_of(codec_, nal_unit);
        if (meaning && meaning->is_slice) {
            return;
        }
        if (!nal_unit.empty() && nal_type(codec_, nal_unit[0]) == wanted) {
            if (const auto said = reorder_depth(codec_, nal_unit)) {
                depth_ = *said;
            }
        }
    }
}

// Of the pictures that are known, the one presented first gives its time to the one decoded next.
std::chrono::nanoseconds Decoding_Clock::next(std::span<const std::byte> unit,
                                              std::chrono::nanoseconds pts,
                                              std::chrono::nanoseconds interval) {
    learn_depth(unit);
    if (!is_begun_) {
        is_begun_ = true;
        next_earliest_ = pts < next_earliest_ ? earliest_ : next_earliest_;
        ahead_.clear();
        for (std::size_t i = 1; i <= depth_; ++i) {
            ahead_.insert(pts - static_cast<std::int64_t>(i) * std::min(interval, interval_max));
        }
    } else if (pts < next_earliest_ && depth_ < reorder_depth_max) {
        ++depth_;
    }
    ahead_.insert(pts);
    while (ahead_.size() > depth_ + 1) {
        ahead_.erase(ahead_.begin());
    }
    auto time = next_earliest_;
    if (ahead_.size() > depth_) {
        time = std::max(time, *ahead_.begin());
        ahead_.erase(ahead_.begin());
    }
    next_earliest_ = time + apart_min;
    return time;
}

}  // namespace zav_shm::media
