// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include "tool/split_audio.h"

namespace {

using namespace zav_shm::audio;

Bytes mono() { return stream_file("tone_mono.aac"); }
Bytes stereo() { return stream_file("tone_stereo.aac"); }

Bytes part(const Bytes& bytes, std::size_t begin, std::size_t end) {
    return {bytes.begin() + static_cast<std::ptrdiff_t>(begin),
            bytes.begin() + static_cast<std::ptrdiff_t>(end)};
}

Bytes joined(const std::vector<Kept_Audio>& frames, std::size_t begin, std::size_t end) {
    Bytes all;
    for (std::size_t i = begin; i < end; ++i) {
        all = all + frames[i].bytes;
    }
    return all;
}

// ---- headers ----

TEST(Adts_Header, tells_rate_channels_length_and_samples) {
    const auto header = read_adts_header(bytes({0xFF, 0xF1, 0x50, 0x80, 0x2E, 0x7F, 0xFC}));
    ASSERT_TRUE(header);
    EXPECT_EQ(header->format, (Audio_Format{44100, 2}));
    EXPECT_EQ(header->frame_bytes, 371U);
    EXPECT_EQ(header->samples, 1024U);
    EXPECT_EQ(read_adts_header(bytes({0xFF, 0xF1, 0x50, 0x80, 0x2E, 0x7F, 0xFF}))->samples, 4096U);
    EXPECT_EQ(read_adts_header(bytes({0xFF, 0xF1, 0x51, 0xC0, 0x2E, 0x7F, 0xFC}))->format.channels,
              8U);
}

TEST(Adts_Header, of_what_is_none_is_none) {
    EXPECT_FALSE(read_adts_header({}));
    EXPECT_FALSE(read_adts_header(bytes({0xFF, 0xF1, 0x50, 0x80, 0x2E, 0x7F})));  // cut
    EXPECT_FALSE(read_adts_header(bytes({0xFF, 0xE1, 0x50, 0x80, 0x2E, 0x7F, 0xFC})));
    EXPECT_FALSE(read_adts_header(bytes({0xFF, 0xF3, 0x50, 0x80, 0x2E, 0x7F, 0xFC})));  // layer
    EXPECT_FALSE(read_adts_header(bytes({0xFF, 0xF1, 0x74, 0x80, 0x2E, 0x7F, 0xFC})));  // rate 13
    EXPECT_FALSE(read_adts_header(bytes({0xFF, 0xF1, 0x50, 0x80, 0x00, 0xFF, 0xFC})));  // 7 bytes
    EXPECT_FALSE(read_adts_header(bytes({0xFF, 0xF0, 0x50, 0x80, 0x01, 0x3F, 0xFC})));  // 9 bytes
}

TEST(Adts_Header, a_stream_is_known_by_a_row_of_headers) {
    EXPECT_TRUE(holds_adts(mono(), false));
    EXPECT_TRUE(holds_adts(bytes({1, 2, 0xFF, 0xF1}) + mono(), false));
    const auto frames = split_adts(mono()).frames;
    const Bytes one = frames[0].bytes;
    EXPECT_FALSE(holds_adts(one, false));
    EXPECT_TRUE(holds_adts(one, true));
    EXPECT_TRUE(holds_adts(one + part(frames[1].bytes, 0, 20), true));
    EXPECT_FALSE(holds_adts(part(one, 0, one.size() - 1), true));
    EXPECT_FALSE(holds_adts(stream_file("plain.h264"), true));
    EXPECT_FALSE(holds_adts(stream_file("tone_mono.opus"), true));
    EXPECT_FALSE(holds_adts({}, true));
}

// ---- frames ----

TEST(Adts_Splitter, finds_every_frame_of_an_encoders_stream) {
    const Split_Audio split = split_adts(mono());
    EXPECT_EQ(split.frames.size(), 17U);
    EXPECT_EQ(split.put_together(), mono());
    EXPECT_TRUE(split.complaints.empty());
    for (const Kept_Audio& frame : split.frames) {
        EXPECT_EQ(frame.format, (Audio_Format{16000, 1}));
        EXPECT_EQ(frame.samples, 1024U);
        EXPECT_EQ(frame.begins_stream, &frame == &split.frames.front());
        EXPECT_EQ(frame.is_last, &frame == &split.frames.back());
        EXPECT_FALSE(frame.follows_damage);
    }
    EXPECT_EQ(split_adts(stereo()).frames.size(), 23U);
    EXPECT_EQ(split_adts(stereo()).frames[0].format, (Audio_Format{44100, 2}));
}

TEST(Adts_Splitter, how_the_input_is_cut_makes_no_difference) {
    const Bytes stream =
        bytes({0xFF, 3}) + mono() + Bytes(100, std::byte{0xFF}) + stereo() + part(mono(), 0, 100);
    const Split_Audio whole = split_adts(stream);
    for (const std::size_t block : {std::size_t{1}, std::size_t{7}, std::size_t{1000}}) {
        const Split_Audio pieces = split_adts(stream, block);
        EXPECT_EQ(pieces.frames, whole.frames) << block;
        EXPECT_EQ(pieces.complaints, whole.complaints) << block;
    }
}

TEST(Adts_Splitter, an_empty_input_has_no_frame) {
    EXPECT_TRUE(split_adts({}).frames.empty());
    EXPECT_TRUE(split_adts({}).complaints.empty());
}

TEST(Adts_Splitter, one_frame_alone_is_the_last_one) {
    const auto split = split_adts(split_adts(mono()).frames[0].bytes);
    ASSERT_EQ(split.frames.size(), 1U);
    EXPECT_TRUE(split.frames[0].is_last);
    EXPECT_TRUE(split.complaints.empty());
}

// ---- damage ----

TEST(Adts_Splitter, garbage_between_frames_is_left_out_and_told) {
    const auto frames = split_adts(mono()).frames;
    const Bytes garbage(300, std::byte{0xFF});
    const Split_Audio split =
        split_adts(joined(frames, 0, 5) + garbage + joined(frames, 5, frames.size()));
    EXPECT_EQ(split.put_together(), mono()) << "no whole frame is lost";
    EXPECT_EQ(split.complaints, std::vector<std::string>{"300 bytes that are no AAC frame"});
    for (std::size_t i = 0; i < split.frames.size(); ++i) {
        EXPECT_EQ(split.frames[i].follows_damage, i == 5) << i;
    }
}

TEST(Adts_Splitter, what_stands_before_the_first_frame_is_no_damage_of_it) {
    const Split_Audio split = split_adts(bytes({1, 2, 3}) + mono());
    EXPECT_EQ(split.put_together(), mono());
    EXPECT_EQ(split.complaints, std::vector<std::string>{"3 bytes before the first AAC frame"});
    EXPECT_FALSE(split.frames[0].follows_damage);
}

TEST(Adts_Splitter, a_cut_last_frame_is_told_and_the_one_before_is_the_last) {
    const Bytes stream = mono();
    const std::size_t last = split_adts(stream).frames.back().bytes.size();
    for (std::size_t missing = 1; missing < last; ++missing) {
        const Split_Audio split = split_adts(part(stream, 0, stream.size() - missing));
        ASSERT_EQ(split.frames.size(), 16U) << missing;
        EXPECT_TRUE(split.frames.back().is_last);
        EXPECT_EQ(split.complaints.size(), 1U);
        EXPECT_EQ(split.left_out_bytes, last - missing);
    }
}

TEST(Adts_Splitter, a_wrong_length_costs_no_frame_but_its_own) {
    const auto frames = split_adts(mono()).frames;
    for (const int high : {0x40, 0x43}) {  // much too short or too long
        Bytes stream = mono();
        const std::size_t at = joined(frames, 0, 6).size();
        stream[at + 3] = static_cast<std::byte>(high);
        stream[at + 4] = std::byte{0xFF};
        const Split_Audio split = split_adts(stream);
        EXPECT_EQ(split.frames.size(), 16U);
        EXPECT_EQ(split.left_out_bytes, frames[6].bytes.size());
        EXPECT_EQ(split.put_together(), joined(frames, 0, 6) + joined(frames, 7, frames.size()));
    }
}

TEST(Adts_Splitter, bytes_lost_within_a_frame_cost_that_frame) {
    const auto frames = split_adts(mono()).frames;
    Bytes short_frame = frames[6].bytes;
    short_frame.resize(short_frame.size() - 30);
    const Split_Audio split =
        split_adts(joined(frames, 0, 6) + short_frame + joined(frames, 7, frames.size()));
    EXPECT_EQ(split.put_together(), joined(frames, 0, 6) + joined(frames, 7, frames.size()));
}

// Every single damaged byte: nothing but what it lies in is lost, and the stream's first frame when
// the header behind that one is gone.
TEST(Adts_Splitter, a_damaged_byte_costs_one_frame_at_most) {
    const Bytes stream = mono();
    const std::size_t second = split_adts(stream).frames[0].bytes.size();
    for (std::size_t i = 0; i < stream.size(); ++i) {
        for (const int value : {0, 0x7F, 0xFF}) {
            Bytes damaged = stream;
            damaged[i] = static_cast<std::byte>(value);
            const Split_Audio split = split_adts(damaged);
            const bool is_in_second = i >= second && i < second + adts_header_bytes;
            ASSERT_GE(split.frames.size(), is_in_second ? 15U : 16U) << i << " " << value;
            ASSERT_LE(split.frames.size(), 17U) << i << " " << value;
            ASSERT_EQ(split.put_together().size() + split.left_out_bytes, stream.size());
        }
    }
}

TEST(Adts_Splitter, a_stream_may_change_rate_and_channels) {
    const Split_Audio split = split_adts(mono() + stereo());
    EXPECT_EQ(split.put_together(), mono() + stereo());
    EXPECT_TRUE(split.complaints.empty());
    EXPECT_EQ(split.frames[16].format, (Audio_Format{16000, 1}));
    EXPECT_EQ(split.frames[17].format, (Audio_Format{44100, 2}));
}

TEST(Adts_Splitter, headers_alone_in_a_row_are_bounded_and_no_endless_loop) {
    Bytes stream;
    for (int i = 0; i < 5000; ++i) {
        stream = stream.size() > 30000 ? stream
                                       : stream + bytes({0xFF, 0xF1, 0x50, 0x83, 0xFF, 0xFF, 0xFC});
    }
    const Split_Audio split = split_adts(stream);
    EXPECT_EQ(split.put_together().size() + split.left_out_bytes, stream.size());
}

TEST(Adts_Splitter, a_tag_at_the_beginning_is_passed_over) {
    const Bytes tag = bytes({'I', 'D', '3', 4, 0, 0, 0, 0, 1, 2}) + Bytes(130, std::byte{0xFF});
    EXPECT_EQ(id3_tag_bytes(tag), 140U);
    for (const std::size_t block : {std::size_t{1}, whole_input}) {
        const Split_Audio split = split_adts(tag + mono(), block);
        EXPECT_EQ(split.put_together(), mono());
        EXPECT_TRUE(split.complaints.empty());
    }
    EXPECT_TRUE(split_adts(part(tag, 0, 5)).frames.empty());
}

}  // namespace
