// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "apps/media/decoding_clock.h"

namespace zav_shm::web {

/// Puts access units of H.264 into fragmented MP4, a fragment for each, by GStreamer.
///
/// Owner    of a pipeline with threads of its own.
/// Threads  add() and take() from one at a time.
/// Blocking add() never; take() up to the time given.
/// Errors   are what take() returns nothing for, with failure() saying why.
class Fragmented_Mp4 {
public:
    /// Once in the program, before the first one.
    static void set_up();

    Fragmented_Mp4();
    ~Fragmented_Mp4();
    Fragmented_Mp4(const Fragmented_Mp4&) = delete;
    Fragmented_Mp4& operator=(const Fragmented_Mp4&) = delete;

    /// @param unit      with start codes; the first one is a key frame with its parameter sets.
    /// @param pts       from the first unit on, which has 0.
    /// @param interval  between two pictures.
    void add(std::span<const std::byte> unit, std::chrono::nanoseconds pts,
             std::chrono::nanoseconds interval, bool is_key_frame);

    /// What is finished: at first the head of the file.
    ///
    /// @return empty when nothing is within the time; nothing when the pipeline has failed.
    std::optional<std::string> take(std::chrono::milliseconds limit);

    const std::string& failure() const { return failure_; }

private:
    struct Pipeline;
    bool has_failed();

    std::unique_ptr<Pipeline> pipeline_;
    std::string failure_;
    media::Decoding_Clock decoding_{media::Video_Codec::h264, {}};
};

}  // namespace zav_shm::web
