// SPDX-License-Identifier: Apache-2.0
//
// Any bytes through the readers of audio, AAC with ADTS headers and Opus in Ogg, cut in two ways,
// and what comes out as Opus through the writer and the reader again. The first two bytes choose
// reader and cut. In an input of Ogg the sums of the pages are made right first, without which
// hardly any would be read.
#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "apps/audio/adts_header.h"
#include "apps/audio/adts_splitter.h"
#include "apps/audio/ogg_opus.h"
#include "apps/audio/opus_head.h"
#include "apps/audio/opus_packet.h"
#include "fuzz/fuzz_target.h"

namespace {

using namespace zav_shm::audio;
using zav_shm::fuzz::require;
using Bytes = std::vector<std::byte>;

constexpr std::size_t opus_packet_max = 3 * 65025;

struct Frame {
    Bytes bytes;
    Audio_Format format;
    std::uint32_t samples;
    std::uint32_t pre_skip;
    bool begins_stream;
    bool follows_damage;
    bool is_last;

    bool operator==(const Frame&) const = default;
};

struct Result : Audio_Receiver {
    void take(const Audio_Frame& frame) override {
        require(frames.empty() || !frames.back().is_last, "nothing comes behind the last frame");
        require(frame.format.sample_rate != 0 && frame.samples != 0, "a frame has a time");
        require(!frame.bytes.empty() && frame.bytes.size() <= opus_packet_max, "memory is bounded");
        frames.push_back({Bytes(frame.bytes.begin(), frame.bytes.end()), frame.format,
                          frame.samples, frame.pre_skip, frame.begins_stream, frame.follows_damage,
                          frame.is_last});
    }
    void left_out(std::uint64_t bytes, const std::string& what) override {
        left_out_bytes += bytes;
        said += what + "\n";
    }
    void remark(const std::string& text) override { said += text + "\n"; }

    std::vector<Frame> frames;
    std::uint64_t left_out_bytes = 0;
    std::string said;
};

void feed(Audio_Splitter& splitter, std::span<const std::byte> input, std::size_t block) {
    for (std::size_t at = 0; at < input.size(); at += block) {
        splitter.feed(input.subspan(at, std::min(block, input.size() - at)));
    }
    splitter.finish();
}

Result split(bool is_ogg, std::span<const std::byte> input, std::size_t block) {
    Result result;
    if (is_ogg) {
        feed(*make_ogg_opus_splitter(result), input, block);
    } else {
        Adts_Splitter splitter(result);
        feed(splitter, input, block);
    }
    return result;
}

std::uint32_t page_sum(std::span<const std::byte> page) {
    std::uint32_t sum = 0;
    for (const std::byte byte : page) {
        sum ^= std::to_integer<std::uint32_t>(byte) << 24U;
        for (int bit = 0; bit < 8; ++bit) {
            sum = (sum & 0x80000000U) != 0 ? sum << 1U ^ 0x04C11DB7U : sum << 1U;
        }
    }
    return sum;
}

// Every page that is whole gets the sum that it ought to have.
void make_sums_right(Bytes& input) {
    constexpr std::size_t head_bytes = 27;
    constexpr std::size_t sum_offset = 22;
    for (std::size_t at = 0; at + head_bytes <= input.size(); ++at) {
        if (std::memcmp(&input[at], "OggS", 4) != 0) {
            continue;
        }
        const auto lacings = std::to_integer<std::size_t>(input[at + head_bytes - 1]);
        std::size_t length = head_bytes + lacings;
        for (std::size_t i = 0; i < lacings && at + head_bytes + i < input.size(); ++i) {
            length += std::to_integer<std::size_t>(input[at + head_bytes + i]);
        }
        if (at + length > input.size()) {
            continue;
        }
        const std::span<std::byte> page = std::span(input).subspan(at, length);
        std::fill_n(page.begin() + sum_offset, 4, std::byte{0});
        const std::uint32_t sum = page_sum(page);
        for (unsigned i = 0; i < 4; ++i) {
            page[sum_offset + i] = static_cast<std::byte>(sum >> 8 * i & 0xFFU);
        }
    }
}

void write_and_read_again(const std::vector<Frame>& frames) {
    const auto writer = make_ogg_opus_writer();
    Bytes file;
    for (const Frame& frame : frames) {
        const std::uint32_t whole = opus_packet_samples(frame.bytes).value_or(0);
        const auto pages = writer->add({.bytes = frame.bytes,
                                        .channels = frame.format.channels,
                                        .pre_skip = frame.pre_skip,
                                        .trimmed = whole - frame.samples});
        file.insert(file.end(), pages.bytes.begin(), pages.bytes.end());
    }
    const Result again = split(true, file, file.size() + 1);
    require(again.left_out_bytes == 0 &&
                std::ranges::equal(again.frames, frames, {}, &Frame::bytes, &Frame::bytes),
            "what is written is read");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) { return 0; }

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) {
        return 0;
    }
    const bool is_ogg = (data[0] & 1U) != 0;
    const std::size_t block = 1 + std::size_t{data[1]};
    const auto given = std::as_bytes(std::span<const uint8_t>(data, size)).subspan(2);
    Bytes input(given.begin(), given.end());
    static_cast<void>(holds_adts(input, is_ogg));
    static_cast<void>(holds_ogg_opus(input));
    if (is_ogg && !has_ogg()) {
        return 0;
    }
    if (is_ogg) {
        make_sums_right(input);
    }
    const Result whole = split(is_ogg, input, input.size() + 1);
    const Result pieces = split(is_ogg, input, block);
    require(whole.frames == pieces.frames && whole.said == pieces.said,
            "how the input is cut makes no difference");
    if (is_ogg) {
        write_and_read_again(whole.frames);
        return 0;
    }
    std::uint64_t bytes = whole.left_out_bytes;
    for (const Frame& frame : whole.frames) {
        bytes += frame.bytes.size();
    }
    const std::size_t tag = id3_tag_bytes(input).value_or(0);
    require(bytes == input.size() - std::min(tag, input.size()),
            "every byte is in a frame, or left out and told");
    return 0;
}
