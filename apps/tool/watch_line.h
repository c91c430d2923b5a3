// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "frame/frame_counters.h"
#include "frame/frame_format.h"

namespace zav_shm::tool {

/// What one line of `zav-shm watch` says: the stretch since the line before, and totals.
struct Watch_Sample {
    Frame_State state = Frame_State::closed;
    double seconds = 0;  // the stretch's length
    std::uint64_t frames = 0;
    double frames_per_s = 0;
    double mbit_per_s = 0;
    double latency_p50_us = 0;
    double latency_p99_us = 0;
    std::uint64_t lost = 0;
    std::uint64_t lost_total = 0;
    std::uint64_t torn_total = 0;
    std::uint64_t dropped_total = 0;
    std::uint64_t damaged_total = 0;  // by --verify-synthetic
    std::uint64_t reconnects = 0;
    std::optional<double> key_frame_age_s;       // nothing before the first one
    std::optional<double> recovery_point_age_s;  // likewise
};

/// @param now_ns  CLOCK_MONOTONIC when `now` was taken.
Watch_Sample sample_of(const Subscriber_Counters& before, const Subscriber_Counters& now,
                       std::chrono::nanoseconds stretch, std::int64_t now_ns, Frame_State state);

/// One line for people, without a line end.
std::string text_of(const Watch_Sample& sample);

/// One JSON object on one line, without a line end.
std::string json_of(const Watch_Sample& sample);

}  // namespace zav_shm::tool
