// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <functional>
#include <memory>
#include <numeric>
#include <string>
#include <vector>

#include "apps/audio/adts_splitter.h"
#include "apps/audio/ogg_opus.h"
#include "tool/split_streams.h"

/// A frame of audio with its bytes kept.
struct Kept_Audio {
    Bytes bytes;
    zav_shm::audio::Audio_Format format;
    std::uint32_t samples = 0;
    std::uint32_t pre_skip = 0;
    bool begins_stream = false;
    bool follows_damage = false;
    bool is_last = false;

    bool operator==(const Kept_Audio&) const = default;
};

/// All that a splitter says of a stream.
struct Split_Audio : zav_shm::audio::Audio_Receiver {
    void take(const zav_shm::audio::Audio_Frame& frame) override {
        frames.push_back({Bytes(frame.bytes.begin(), frame.bytes.end()), frame.format,
                          frame.samples, frame.pre_skip, frame.begins_stream, frame.follows_damage,
                          frame.is_last});
    }
    void left_out(std::uint64_t bytes, const std::string& what) override {
        left_out_bytes += bytes;
        complaints.push_back(what);
    }
    void remark(const std::string& text) override { remarks.push_back(text); }

    std::uint64_t samples() const {
        return std::accumulate(
            frames.begin(), frames.end(), std::uint64_t{0},
            [](std::uint64_t sum, const Kept_Audio& frame) { return sum + frame.samples; });
    }
    Bytes put_together() const {
        Bytes all;
        for (const Kept_Audio& frame : frames) {
            all.insert(all.end(), frame.bytes.begin(), frame.bytes.end());
        }
        return all;
    }

    std::vector<Kept_Audio> frames;
    std::vector<std::string> complaints;
    std::vector<std::string> remarks;
    std::uint64_t left_out_bytes = 0;
};

inline void feed(zav_shm::audio::Audio_Splitter& splitter, const Bytes& stream,
                 std::size_t block_bytes) {
    for (std::span<const std::byte> rest(stream); !rest.empty();) {
        const auto block = rest.first(std::min(rest.size(), block_bytes));
        splitter.feed(block);
        rest = rest.subspan(block.size());
    }
    splitter.finish();
}

inline constexpr std::size_t whole_input = std::size_t{1} << 30U;

inline Split_Audio split_adts(const Bytes& stream, std::size_t block_bytes = whole_input) {
    Split_Audio result;
    zav_shm::audio::Adts_Splitter splitter(result);
    feed(splitter, stream, block_bytes);
    return result;
}

inline Split_Audio split_opus(const Bytes& stream, std::size_t block_bytes = whole_input) {
    Split_Audio result;
    feed(*zav_shm::audio::make_ogg_opus_splitter(result), stream, block_bytes);
    return result;
}
