// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <algorithm>

#include "apps/audio/opus_head.h"
#include "apps/audio/opus_packet.h"
#include "tool/split_audio.h"

namespace {

using namespace zav_shm::audio;

Bytes opus_mono() { return stream_file("tone_mono.opus"); }
Bytes opus_stereo() { return stream_file("tone_stereo.opus"); }

// ---- packets ----

TEST(Opus_Packet, its_first_bytes_tell_its_time) {
    EXPECT_EQ(opus_packet_samples(bytes({0x00})), 480U);   // SILK, 10 ms
    EXPECT_EQ(opus_packet_samples(bytes({0x18})), 2880U);  // 60 ms
    EXPECT_EQ(opus_packet_samples(bytes({0x68})), 960U);   // hybrid, 20 ms
    EXPECT_EQ(opus_packet_samples(bytes({0x80})), 120U);   // CELT, 2.5 ms
    EXPECT_EQ(opus_packet_samples(bytes({0xFC})), 960U);   // 20 ms, stereo
    EXPECT_EQ(opus_packet_samples(bytes({0xFD})), 1920U);  // two frames
    EXPECT_EQ(opus_packet_samples(bytes({0xFE})), 1920U);
    EXPECT_EQ(opus_packet_samples(bytes({0xFF, 0x03})), 2880U);
    EXPECT_EQ(opus_packet_samples(bytes({0x83, 48})), 5760U);  // 120 ms
}

TEST(Opus_Packet, of_no_time_or_more_than_120_ms_is_none) {
    EXPECT_FALSE(opus_packet_samples({}));
    EXPECT_FALSE(opus_packet_samples(bytes({0xFF})));
    EXPECT_FALSE(opus_packet_samples(bytes({0xFF, 0x00})));
    EXPECT_FALSE(opus_packet_samples(bytes({0x83, 49})));
    EXPECT_FALSE(opus_packet_samples(bytes({0x1B, 3})));
}

TEST(Opus_Head, what_is_written_is_read) {
    const auto head =
        read_opus_head(write_opus_head({.channels = 2, .pre_skip = 312, .input_rate = 48000}));
    ASSERT_TRUE(head);
    EXPECT_EQ(head->channels, 2U);
    EXPECT_EQ(head->pre_skip, 312U);
    EXPECT_TRUE(head->is_mono_or_stereo());
    Bytes later = write_opus_head({.channels = 1});
    later[8] = std::byte{0x10};
    EXPECT_FALSE(read_opus_head(later));
    EXPECT_FALSE(read_opus_head(std::span(later).first(18)));
}

TEST(Opus_Head, a_stream_is_known_by_it) {
    EXPECT_TRUE(holds_ogg_opus(opus_mono()));
    EXPECT_TRUE(holds_ogg_opus(stream_file("beside_flac.opus")));
    EXPECT_TRUE(holds_ogg_opus(bytes({1, 2, 3}) + opus_mono()));
    EXPECT_FALSE(holds_ogg_opus(stream_file("plain.h264")));
    EXPECT_FALSE(holds_ogg_opus(write_opus_head({.channels = 1})));
}

// ---- Ogg ----

class Ogg_Opus : public testing::Test {
protected:
    void SetUp() override {
        if (!has_ogg()) {
            GTEST_SKIP() << "built without libogg";
        }
    }

    // Where the pages of a stream begin, and its end.
    static std::vector<std::size_t> pages(const Bytes& stream) {
        const Bytes mark = bytes({'O', 'g', 'g', 'S', 0});
        std::vector<std::size_t> begins;
        for (auto at = stream.begin();;) {
            at = std::search(at, stream.end(), mark.begin(), mark.end());
            begins.push_back(static_cast<std::size_t>(at - stream.begin()));
            if (at == stream.end()) {
                return begins;
            }
            ++at;
        }
    }

    static Bytes part(const Bytes& stream, std::size_t begin, std::size_t end) {
        return {stream.begin() + static_cast<std::ptrdiff_t>(begin),
                stream.begin() + static_cast<std::ptrdiff_t>(end)};
    }
};

TEST_F(Ogg_Opus, every_packet_of_an_encoders_stream_is_found_and_the_last_one_is_trimmed) {
    const Split_Audio split = split_opus(opus_mono());
    ASSERT_EQ(split.frames.size(), 51U);
    EXPECT_TRUE(split.complaints.empty());
    EXPECT_EQ(split.samples(), 48336U + 312U) << "1.007 s and the pre-skip";
    EXPECT_EQ(split.frames.front().pre_skip, 312U);
    EXPECT_EQ(split.frames.front().samples, 960U);
    EXPECT_EQ(split.frames.back().samples, 648U);
    for (const Kept_Audio& frame : split.frames) {
        EXPECT_EQ(frame.format, (Audio_Format{48000, 1}));
        EXPECT_EQ(frame.begins_stream, &frame == &split.frames.front());
        EXPECT_EQ(frame.is_last, &frame == &split.frames.back());
    }
    EXPECT_EQ(split_opus(opus_stereo()).frames[0].format, (Audio_Format{48000, 2}));
    EXPECT_EQ(split_opus(opus_stereo()).frames[0].samples, 2880U);
}

TEST_F(Ogg_Opus, how_the_input_is_cut_makes_no_difference) {
    Bytes stream = opus_mono() + opus_stereo() + opus_mono();
    stream[1500] = std::byte{0x55};
    const Split_Audio whole = split_opus(stream);
    for (const std::size_t block : {std::size_t{1}, std::size_t{13}, std::size_t{1000}}) {
        const Split_Audio pieces = split_opus(stream, block);
        EXPECT_EQ(pieces.frames, whole.frames) << block;
        EXPECT_EQ(pieces.complaints, whole.complaints) << block;
    }
}

TEST_F(Ogg_Opus, streams_in_a_chain_follow_each_other) {
    const Split_Audio split = split_opus(opus_mono() + opus_stereo() + opus_mono());
    EXPECT_TRUE(split.complaints.empty());
    EXPECT_EQ(split.frames.size(), 51U + split_opus(opus_stereo()).frames.size() + 51U);
    EXPECT_TRUE(split.frames[51].begins_stream);
    EXPECT_EQ(split.frames[51].format, (Audio_Format{48000, 2}));
    EXPECT_EQ(split.frames[50].samples, 648U) << "the end of each one is its own";
    EXPECT_FALSE(split.frames[50].is_last);
    EXPECT_TRUE(split.frames.back().is_last);
}

TEST_F(Ogg_Opus, streams_beside_it_are_left_out) {
    const Split_Audio split = split_opus(stream_file("beside_flac.opus"));
    EXPECT_EQ(split.frames.size(), 16U);
    EXPECT_TRUE(split.complaints.empty());
    EXPECT_EQ(split.remarks.size(), 1U);
}

TEST_F(Ogg_Opus, more_than_two_channels_are_refused_with_a_reason) {
    const Split_Audio split = split_opus(stream_file("surround.opus"));
    EXPECT_TRUE(split.frames.empty());
    ASSERT_EQ(split.remarks.size(), 1U);
    EXPECT_NE(split.remarks[0].find("6 channels in mapping family 1"), std::string::npos);
    EXPECT_EQ(split_opus(stream_file("surround.opus") + opus_mono()).frames.size(), 51U)
        << "the next one of the chain is taken";
}

TEST_F(Ogg_Opus, an_empty_input_and_one_without_a_head_have_no_frame) {
    EXPECT_TRUE(split_opus({}).frames.empty());
    const Bytes stream = opus_mono();
    const Split_Audio split = split_opus(part(stream, pages(stream)[1], stream.size()));
    EXPECT_TRUE(split.frames.empty());
    EXPECT_FALSE(split.complaints.empty());
}

// ---- damage ----

TEST_F(Ogg_Opus, a_damaged_page_is_left_out_and_told) {
    Bytes stream = opus_mono();
    const auto begins = pages(stream);
    ASSERT_GT(begins.size(), 6U);
    stream[begins[3] + 60] ^= std::byte{1};
    const Split_Audio split = split_opus(stream);
    EXPECT_LT(split.frames.size(), 51U);
    EXPECT_GT(split.frames.size(), 25U);
    ASSERT_EQ(split.complaints.size(), 2U) << "the bytes, and the hole among the pages";
    EXPECT_EQ(split.complaints[0],
              std::to_string(begins[4] - begins[3]) + " bytes that are no whole Ogg page");
    EXPECT_EQ(std::ranges::count_if(split.frames, &Kept_Audio::follows_damage), 1);
}

TEST_F(Ogg_Opus, a_missing_page_is_told) {
    const Bytes stream = opus_mono();
    const auto begins = pages(stream);
    const Split_Audio split =
        split_opus(part(stream, 0, begins[3]) + part(stream, begins[4], stream.size()));
    EXPECT_EQ(split.complaints, std::vector<std::string>{"a place where Ogg pages are missing"});
    EXPECT_EQ(std::ranges::count_if(split.frames, &Kept_Audio::follows_damage), 1);
}

TEST_F(Ogg_Opus, a_cut_last_page_is_told_and_the_frame_before_is_the_last) {
    const Bytes stream = opus_mono();
    const auto begins = pages(stream);
    const std::size_t last = begins[begins.size() - 2];
    const std::size_t frames = split_opus(part(stream, 0, last)).frames.size();
    for (const std::size_t end : {last + 1, last + 30, stream.size() - 1}) {
        const Split_Audio split = split_opus(part(stream, 0, end));
        EXPECT_EQ(split.frames.size(), frames) << end;
        EXPECT_TRUE(split.frames.back().is_last);
        EXPECT_EQ(split.left_out_bytes, end - last);
    }
}

TEST_F(Ogg_Opus, garbage_between_pages_costs_no_frame) {
    const Bytes stream = opus_mono();
    const auto begins = pages(stream);
    const Split_Audio split = split_opus(part(stream, 0, begins[3]) + bytes({'O', 'g', 1, 2}) +
                                         part(stream, begins[3], stream.size()));
    EXPECT_EQ(split.frames.size(), 51U);
    EXPECT_EQ(split.left_out_bytes, 4U);
}

TEST_F(Ogg_Opus, a_chain_whose_second_head_is_damaged_is_told) {
    Bytes stream = opus_mono() + opus_stereo();
    stream[opus_mono().size() + 40] ^= std::byte{1};
    const Split_Audio split = split_opus(stream);
    EXPECT_EQ(split.frames.size(), 51U);
    EXPECT_FALSE(split.complaints.empty());
}

// ---- writing ----

TEST_F(Ogg_Opus, what_is_written_is_found_again) {
    const Split_Audio split = split_opus(opus_mono());
    const auto writer = make_ogg_opus_writer();
    Bytes file;
    for (const Kept_Audio& frame : split.frames) {
        const auto pages = writer->add({.bytes = frame.bytes,
                                        .channels = frame.format.channels,
                                        .pre_skip = frame.pre_skip,
                                        .trimmed = 960 - frame.samples,
                                        .is_last = frame.is_last});
        EXPECT_TRUE(std::ranges::equal(pages.bytes.subspan(pages.packet_offset, frame.bytes.size()),
                                       frame.bytes));
        file.insert(file.end(), pages.bytes.begin(), pages.bytes.end());
    }
    const Split_Audio again = split_opus(file);
    EXPECT_EQ(again.frames, split.frames);
    EXPECT_TRUE(again.complaints.empty());
}

TEST_F(Ogg_Opus, a_change_of_channels_and_an_end_begin_another_stream) {
    const auto writer = make_ogg_opus_writer();
    Bytes file;
    const auto add = [&](std::uint32_t channels, bool is_last) {
        const Bytes packet = bytes({0xFC, 1, 2});
        const auto pages = writer->add({.bytes = packet, .channels = channels, .is_last = is_last});
        file.insert(file.end(), pages.bytes.begin(), pages.bytes.end());
    };
    add(1, false);
    add(2, false);
    add(2, true);
    add(2, false);
    add(0, false);  // the packet says stereo
    const Split_Audio split = split_opus(file);
    ASSERT_EQ(split.frames.size(), 5U);
    std::vector<bool> begins;
    for (const Kept_Audio& frame : split.frames) {
        begins.push_back(frame.begins_stream);
    }
    EXPECT_EQ(begins, (std::vector<bool>{true, true, false, true, false}));
}

TEST_F(Ogg_Opus, what_is_no_packet_is_written_all_the_same) {
    const auto writer = make_ogg_opus_writer();
    EXPECT_FALSE(writer->add({.bytes = {}}).bytes.empty());
    const Bytes large(200'000, std::byte{0xFC});
    EXPECT_GT(writer->add({.bytes = large}).bytes.size(), large.size());
}

// A packet that goes on for ever must not be kept for ever; the pages are made by the writer, whose
// packets may have any length.
TEST_F(Ogg_Opus, a_packet_of_many_pages_is_left_out) {
    const auto writer = make_ogg_opus_writer();
    const Bytes packet = bytes({0xFC, 1, 2});
    Bytes file;
    for (const Bytes& next : {packet, Bytes(1'000'000, std::byte{0xFC}), packet, packet}) {
        const auto pages = writer->add({.bytes = next, .channels = 2});
        file.insert(file.end(), pages.bytes.begin(), pages.bytes.end());
    }
    const Split_Audio split = split_opus(file);
    EXPECT_EQ(split.frames.size(), 3U);
    EXPECT_FALSE(split.complaints.empty());
}

}  // namespace
