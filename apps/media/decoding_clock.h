// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <set>
#include <span>

#include "apps/media/nal_unit.h"

namespace zav_shm::media {

/// Says when the pictures of one H.264 or H.265 stream are decoded. They come in the order of their
/// decoding, each with the time of its presentation only; files and transport streams want both.
///
/// Where no picture is reordered the two are one. Where pictures are, decoding goes ahead of
/// presentation by as many pictures as the sequence parameter set says, so that none is decoded
/// behind its presentation. A stream whose set does not say it is learned: up to the first picture
/// that is presented before its predecessor, decoding is taken for presentation, and that picture
/// alone is decoded too late.
///
/// Memory   a few presentation times.
/// Threads  one.
class Decoding_Clock {
public:
    /// @param earliest  no time of decoding is before this
    explicit Decoding_Clock(Video_Codec codec, std::chrono::nanoseconds earliest = begin_of_time)
        : codec_(codec), earliest_(earliest), next_earliest_(earliest) {}

    /// The next access unit's time of decoding, later than the one before.
    ///
    /// @param interval  between two pictures
    std::chrono::nanoseconds next(std::span<const std::byte> unit, std::chrono::nanoseconds pts,
                                  std::chrono::nanoseconds interval);

    /// What comes does not go on in even steps with what came. Where it is earlier, decoding is
    /// too.
    void restart() { is_begun_ = false; }

private:
    static constexpr std::chrono::nanoseconds begin_of_time = std::chrono::nanoseconds::min();

    void learn_depth(std::span<const std::byte> unit);

    const Video_Codec codec_;
    const std::chrono::nanoseconds earliest_;
    std::chrono::nanoseconds next_earliest_;
    std::size_t depth_ = 0;  // by how many pictures decoding goes ahead
    bool is_begun_ = false;
    std::multiset<std::chrono::nanoseconds> ahead_;  // times that no picture is decoded at yet
};

}  // namespace zav_shm::media
