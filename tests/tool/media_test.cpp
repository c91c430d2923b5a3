// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include "apps/media/bit_reader.h"
#include "apps/media/codec_guess.h"
#include "apps/media/nal_scan.h"
#include "apps/media/picture_size.h"
#include "tool/split_streams.h"

namespace {

using namespace zav_shm::media;

// ---- NAL units ----

TEST(Nal_Unit, of_a_slice_needs_the_byte_that_says_whether_it_is_the_first) {
    EXPECT_EQ(meaning_of(Video_Codec::h264, bytes({0x65})), std::nullopt);
    EXPECT_EQ(meaning_of(Video_Codec::h264, {}), std::nullopt);
    EXPECT_EQ(meaning_of(Video_Codec::h265, bytes({0x26, 0x01})), std::nullopt);
    EXPECT_EQ(meaning_of(Video_Codec::h264, bytes({0x65, 0x88}))->place, Nal_Place::opens_picture);
    EXPECT_EQ(meaning_of(Video_Codec::h264, bytes({0x65, 0x40}))->place, Nal_Place::continues);
}

TEST(Nal_Unit, of_every_head_has_a_meaning) {
    for (int first = 0; first < 256; ++first) {
        for (int second = 0; second < 256; ++second) {
            const Bytes head = bytes({first, second, 0x80});
            for (const Video_Codec codec : {Video_Codec::h264, Video_Codec::h265}) {
                const auto meaning = meaning_of(codec, head);
                ASSERT_TRUE(meaning);
                ASSERT_TRUE(meaning->is_slice || !meaning->is_key);
            }
        }
    }
}

TEST(Nal_Scan, walks_over_all_nal_units) {
    const Bytes stream = bytes({9, 9, 0, 0, 1, 0x67, 0, 0, 0, 1, 0x68, 1, 0, 0, 1});
    Nal_Scan scan(stream);
    ASSERT_TRUE(scan.next());
    EXPECT_EQ(scan.nal_unit().size(), 2U);  // with the zero byte of the next start code
    ASSERT_TRUE(scan.next());
    EXPECT_EQ(scan.nal_unit().size(), 2U);
    EXPECT_FALSE(scan.next());
}

// ---- codec ----

TEST(Codec_Guess, knows_the_streams_of_encoders) {
    EXPECT_EQ(guess_codec(stream_file("plain.h264")), Video_Codec::h264);
    EXPECT_EQ(guess_codec(stream_file("slices_aud.h264")), Video_Codec::h264);
    EXPECT_EQ(guess_codec(stream_file("interlaced_444.h264")), Video_Codec::h264);
    EXPECT_EQ(guess_codec(stream_file("plain.h265")), Video_Codec::h265);
    EXPECT_EQ(guess_codec(stream_file("slices_aud.h265")), Video_Codec::h265);
}

TEST(Codec_Guess, waits_for_what_tells) {
    EXPECT_EQ(guess_codec({}), std::nullopt);
    EXPECT_EQ(guess_codec(bytes({0, 0, 1})), std::nullopt);
    EXPECT_EQ(guess_codec(bytes({0, 0, 1, 0x67})), std::nullopt);
    EXPECT_EQ(guess_codec(bytes({0, 0, 1, 0x41, 0x9A})), std::nullopt);
    EXPECT_EQ(guess_codec(bytes({0, 0, 1, 0x41, 0x9A, 0, 0, 1, 0x67, 0x42})), Video_Codec::h264);
}

TEST(Codec_Guess, knows_containers) {
    EXPECT_EQ(guess_container(stream_file("plain.h264")), nullptr);
    EXPECT_EQ(guess_container({}), nullptr);
    EXPECT_STREQ(guess_container(bytes({0, 0, 0, 0x20, 'f', 't', 'y', 'p', 'i', 's'})), "MP4");
    EXPECT_STREQ(guess_container(bytes({0x1A, 0x45, 0xDF, 0xA3})), "Matroska");
    Bytes packets(377, std::byte{0});
    packets[0] = packets[188] = std::byte{'G'};
    EXPECT_STREQ(guess_container(packets), "MPEG transport stream");
}

// ---- sizes ----

TEST(Picture_Size, is_read_from_the_streams_of_encoders) {
    const Picture_Size small{96, 64};
    EXPECT_EQ(picture_size(Video_Codec::h264, stream_file("plain.h264")), small);
    EXPECT_EQ(picture_size(Video_Codec::h264, stream_file("slices_aud.h264")), small);
    EXPECT_EQ(picture_size(Video_Codec::h265, stream_file("plain.h265")), small);
    EXPECT_EQ(picture_size(Video_Codec::h265, stream_file("slices_aud.h265")), small);
    EXPECT_EQ(picture_size(Video_Codec::h264, stream_file("interlaced_444.h264")),
              (Picture_Size{100, 62}));
}

TEST(Picture_Size, of_a_cut_or_missing_set_is_none) {
    EXPECT_EQ(picture_size(Video_Codec::h264, {}), std::nullopt);
    EXPECT_EQ(picture_size(Video_Codec::h264, bytes({0, 0, 1, 0x67})), std::nullopt);
    EXPECT_EQ(picture_size(Video_Codec::h264, bytes({0, 0, 1, 0x67, 0x42, 0, 0x1E, 0x95})),
              std::nullopt);
    EXPECT_EQ(picture_size(Video_Codec::h265, bytes({0, 0, 1, 0x42, 0x01, 0xFF})), std::nullopt);
}

// Every cut and every single damaged byte: what comes out is nothing, or within the limit.
TEST(Picture_Size, of_a_damaged_set_is_none_or_possible) {
    for (const auto& [codec, file] : {std::pair{Video_Codec::h264, "interlaced_444.h264"},
                                      std::pair{Video_Codec::h265, "plain.h265"}}) {
        Bytes stream = stream_file(file);
        stream.resize(120);
        for (std::size_t i = 0; i < stream.size(); ++i) {
            for (const int value : {0, 1, 3, 0x7F, 0xFF}) {
                Bytes damaged = stream;
                damaged[i] = static_cast<std::byte>(value);
                for (const std::size_t length : {i + 1, stream.size()}) {
                    const auto size = picture_size(codec, std::span(damaged).first(length));
                    ASSERT_TRUE(!size || (size->width >= 1 && size->width <= 16384 &&
                                          size->height >= 1 && size->height <= 16384));
                }
            }
        }
    }
}

TEST(Bit_Reader, reads_numbers_and_remembers_the_end) {
    const Bytes payload = bytes({0b1010'0110, 0b0100'0000});
    Bit_Reader reader(payload);
    EXPECT_EQ(reader.unsigned_golomb(), 0U);
    EXPECT_EQ(reader.signed_golomb(), 1);  // 010
    EXPECT_EQ(reader.bits(3), 0b011U);
    EXPECT_EQ(reader.bits(9), 0b001000000U >> 0U & 0x1FFU);
    EXPECT_FALSE(reader.failed());
    EXPECT_FALSE(reader.flag());
    EXPECT_TRUE(reader.failed());
}

TEST(Bit_Reader, an_endless_number_is_a_failure) {
    const Bytes zeros(64, std::byte{0});
    Bit_Reader reader(zeros);
    EXPECT_EQ(reader.unsigned_golomb(), 0U);
    EXPECT_TRUE(reader.failed());
}

TEST(Bit_Reader, escapes_are_taken_out) {
    EXPECT_EQ(without_escapes(bytes({0, 0, 3, 1, 0, 3, 0, 0, 3}), 100),
              bytes({0, 0, 1, 0, 3, 0, 0}));
    EXPECT_EQ(without_escapes(bytes({1, 2, 3}), 2), bytes({1, 2}));
}

}  // namespace
