// SPDX-License-Identifier: Apache-2.0
#include "apps/media/decoding_clock.h"

#include <gtest/gtest.h>

#include "apps/media/nal_scan.h"
#include "apps/media/nal_types.h"
#include "apps/media/sequence_set.h"
#include "split_streams.h"

using namespace std::chrono_literals;
using namespace zav_shm::media;
using std::chrono::nanoseconds;

namespace {

std::optional<std::uint32_t> depth_of(const std::string& name) {
    const Bytes stream = stream_file(name);
    const bool is_h264 = name.ends_with("h264");
    for (Nal_Scan scan(stream); scan.next();) {
        const auto set = scan.nal_unit();
        if (is_h264 && nal_type(Video_Codec::h264, set[0]) == h264::sps) {
            return read_h264_sequence(set).value().reorder_depth;
        }
        if (!is_h264 && nal_type(Video_Codec::h265, set[0]) == h265::sps) {
            return read_h265_sequence(set).value().reorder_depth;
        }
    }
    return std::nullopt;
}

/// Pictures of 40 ms, in decoding order.
std::vector<nanoseconds> decoded(Decoding_Clock& clock, const Bytes& first,
                                 const std::vector<int>& pictures) {
    std::vector<nanoseconds> times;
    for (const int picture : pictures) {
        times.push_back(clock.next(times.empty() ? first : Bytes{}, picture * 40ms, 40ms));
    }
    return times;
}

const std::vector<int> with_b_frames{0, 3, 1, 2, 6, 4, 5, 9, 7, 8};

}  // namespace

// As ffprobe says, in has_b_frames.
TEST(Sequence_Set, says_by_how_many_pictures_decoding_goes_ahead) {
    EXPECT_EQ(depth_of("plain.h264"), 2U);
    EXPECT_EQ(depth_of("slices_aud.h264"), 0U);
    EXPECT_EQ(depth_of("interlaced_444.h264"), 2U);
    EXPECT_EQ(depth_of("plain.h265"), 2U);
    EXPECT_EQ(depth_of("slices_aud.h265"), 2U);
}

TEST(Decoding_Clock, goes_ahead_of_presentation_in_even_steps) {
    Decoding_Clock clock(Video_Codec::h264);
    const auto times = decoded(clock, stream_file("plain.h264"), with_b_frames);
    for (std::size_t i = 0; i < times.size(); ++i) {
        EXPECT_EQ(times[i], (static_cast<int>(i) - 2) * 40ms) << i;
    }
}

TEST(Decoding_Clock, is_presentation_where_nothing_is_reordered) {
    Decoding_Clock clock(Video_Codec::h264);
    const auto times = decoded(clock, stream_file("slices_aud.h264"), {0, 1, 2, 3, 4});
    for (std::size_t i = 0; i < times.size(); ++i) {
        EXPECT_EQ(times[i], static_cast<int>(i) * 40ms) << i;
    }
}

TEST(Decoding_Clock, learns_what_the_stream_does_not_say) {
    Decoding_Clock clock(Video_Codec::h264);
    const auto times = decoded(clock, {}, with_b_frames);
    for (std::size_t i = 1; i < times.size(); ++i) {
        EXPECT_GT(times[i], times[i - 1]) << i;
    }
    for (std::size_t i = 4; i < times.size(); ++i) {
        EXPECT_LE(times[i], with_b_frames[i] * 40ms) << i;
    }
}

TEST(Decoding_Clock, is_not_before_the_earliest_time) {
    Decoding_Clock clock(Video_Codec::h264, 0ns);
    const auto times = decoded(clock, stream_file("plain.h264"), with_b_frames);
    EXPECT_EQ(times[0], 0ns);
    EXPECT_EQ(times[1], 1ms);
    EXPECT_EQ(times[3], 40ms);
}

TEST(Decoding_Clock, follows_a_jump_in_both_directions) {
    Decoding_Clock clock(Video_Codec::h264);
    decoded(clock, stream_file("plain.h264"), {100, 103, 101, 102});
    clock.restart();
    EXPECT_EQ(clock.next({}, 200s, 40ms), 200s - 80ms);
    clock.restart();
    EXPECT_EQ(clock.next({}, 10s, 40ms), 10s - 80ms);
}
