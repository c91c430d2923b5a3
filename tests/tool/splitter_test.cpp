// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <random>

#include "tool/split_streams.h"

namespace {

using zav_shm::media::Access_Unit;
using zav_shm::media::Access_Unit_Splitter;
using zav_shm::media::Video_Codec;
using Lengths = std::vector<std::size_t>;

// NAL units of H.264 with their start codes.
const Bytes delimiter = bytes({0, 0, 0, 1, 0x09, 0xF0});
const Bytes sps = bytes({0, 0, 0, 1, 0x67, 0x42, 0x00});
const Bytes pps = bytes({0, 0, 0, 1, 0x68, 0xCE});
const Bytes sei = bytes({0, 0, 1, 0x06, 0x05, 0x80});
const Bytes idr = bytes({0, 0, 0, 1, 0x65, 0x88, 0x11, 0x22});
const Bytes idr_next_slice = bytes({0, 0, 1, 0x65, 0x40, 0x33});
const Bytes slice = bytes({0, 0, 0, 1, 0x41, 0x9A, 0x44});
const Bytes next_slice = bytes({0, 0, 1, 0x41, 0x5A, 0x55});
const Bytes prefix = bytes({0, 0, 1, 0x6E, 0x40, 0x01});

std::vector<Kept_Unit> split_h264(const Bytes& stream, std::size_t limit = no_limit) {
    const auto units = split(Video_Codec::h264, stream, limit);
    const Block_Size one_byte = [] { return std::size_t{1}; };
    EXPECT_EQ(units, split(Video_Codec::h264, stream, limit, one_byte)) << "byte by byte";
    return units;
}

// ---- division ----

TEST(Splitter, nothing_from_an_empty_input) { EXPECT_TRUE(split_h264({}).empty()); }

TEST(Splitter, one_picture_is_one_access_unit) {
    const auto units = split_h264(idr);
    ASSERT_EQ(units.size(), 1U);
    EXPECT_EQ(units[0].bytes, idr);
    EXPECT_TRUE(units[0].is_key);
    EXPECT_TRUE(units[0].has_picture);
    EXPECT_TRUE(units[0].is_last);
    EXPECT_FALSE(units[0].has_configuration);
}

TEST(Splitter, parameter_sets_and_messages_go_with_the_picture_behind_them) {
    const Bytes first = sps + pps + sei + idr;
    const auto units = split_h264(first + slice + sei + slice);
    EXPECT_EQ(lengths(units), (Lengths{first.size(), slice.size(), (sei + slice).size()}));
    EXPECT_TRUE(units[0].is_key);
    EXPECT_TRUE(units[0].has_configuration);
    EXPECT_FALSE(units[1].is_key);
    EXPECT_FALSE(units[1].has_configuration);
}

TEST(Splitter, a_delimiter_begins_an_access_unit) {
    const auto units = split_h264(delimiter + idr + delimiter + slice);
    EXPECT_EQ(lengths(units), (Lengths{(delimiter + idr).size(), (delimiter + slice).size()}));
}

TEST(Splitter, all_slices_of_a_picture_are_one_access_unit) {
    const Bytes first = idr + idr_next_slice + idr_next_slice;
    const Bytes second = slice + next_slice;
    EXPECT_EQ(lengths(split_h264(first + second + slice)),
              (Lengths{first.size(), second.size(), slice.size()}));
}

TEST(Splitter, data_partitions_b_and_c_belong_to_their_picture) {
    const Bytes a = bytes({0, 0, 1, 0x42, 0x9A});
    const Bytes b = bytes({0, 0, 1, 0x43, 0x9A});
    const Bytes c = bytes({0, 0, 1, 0x44, 0x9A});
    EXPECT_EQ(lengths(split_h264(a + b + c + a)), (Lengths{15, 5}));
}

TEST(Splitter, end_of_sequence_and_filler_belong_to_the_picture_before_them) {
    const Bytes end = bytes({0, 0, 1, 0x0A});
    const Bytes filler = bytes({0, 0, 1, 0x0C, 0xFF, 0x80});
    EXPECT_EQ(lengths(split_h264(idr + filler + end + slice)),
              (Lengths{(idr + filler + end).size(), slice.size()}));
}

TEST(Splitter, a_prefix_goes_with_the_slice_behind_it) {
    const Bytes first = prefix + idr + prefix + idr_next_slice;
    const Bytes second = prefix + slice;
    EXPECT_EQ(lengths(split_h264(first + second)), (Lengths{first.size(), second.size()}));
}

TEST(Splitter, a_prefix_of_unusual_length_costs_no_memory_and_no_byte) {
    const Bytes stream = idr + prefix + Bytes(100'000, std::byte{7}) + slice;
    const auto units = split_h264(stream);
    EXPECT_EQ(units.size(), 2U);
    EXPECT_EQ(put_together(units), stream);
}

// ---- bytes between NAL units ----

TEST(Splitter, the_zero_byte_of_a_long_start_code_goes_with_it) {
    const Bytes short_slice = bytes({0, 0, 1, 0x41, 0x9A, 0x44});
    EXPECT_EQ(lengths(split_h264(idr + short_slice + slice)),
              (Lengths{idr.size(), short_slice.size(), slice.size()}));
}

TEST(Splitter, further_zero_bytes_stay_with_the_access_unit_before_them) {
    const auto units = split_h264(idr + Bytes(5, std::byte{0}) + slice + Bytes(2, std::byte{0}));
    EXPECT_EQ(lengths(units), (Lengths{idr.size() + 5, slice.size() + 2}));
}

TEST(Splitter, bytes_before_the_first_start_code_go_with_the_first_access_unit) {
    const Bytes before = bytes({0x41, 0x00, 0x12, 0x00, 0x00, 0x02, 0x00});
    const auto units = split_h264(before + idr + slice);
    EXPECT_EQ(lengths(units), (Lengths{before.size() + idr.size(), slice.size()}));
}

TEST(Splitter, what_ends_within_a_start_code_or_a_head_loses_nothing) {
    for (const Bytes& rest : {bytes({0}), bytes({0, 0}), bytes({0, 0, 1}), bytes({0, 0, 1, 0x65}),
                              bytes({0, 0, 0, 1, 0x41})}) {
        const auto units = split_h264(idr + rest);
        EXPECT_EQ(put_together(units), idr + rest);
        EXPECT_EQ(units.size(), 1U);
    }
}

TEST(Splitter, every_cut_of_a_stream_loses_nothing) {
    const Bytes stream = delimiter + sps + pps + sei + idr + idr_next_slice + prefix + slice;
    for (std::size_t length = 4; length <= stream.size(); ++length) {
        const Bytes cut(stream.begin(), stream.begin() + static_cast<std::ptrdiff_t>(length));
        EXPECT_EQ(put_together(split_h264(cut)), cut) << length;
    }
}

TEST(Splitter, start_codes_in_a_row_lose_nothing) {
    const Bytes empty = bytes({0, 0, 1});
    const Bytes stream = empty + empty + idr + empty + empty + slice + empty;
    const auto units = split_h264(stream);
    EXPECT_EQ(put_together(units), stream);
    EXPECT_EQ(units.size(), 2U);
}

TEST(Splitter, what_is_left_without_a_picture_is_an_access_unit_of_its_own) {
    const auto units = split_h264(idr + delimiter + sps);
    ASSERT_EQ(units.size(), 2U);
    EXPECT_FALSE(units[1].has_picture);
    EXPECT_FALSE(units[1].is_key);
    EXPECT_TRUE(units[1].has_configuration);
}

// ---- input that is none ----

TEST(Splitter, hands_out_nothing_without_a_start_code) {
    const Bytes noise(1000, std::byte{0x55});
    EXPECT_TRUE(split_h264(noise).empty());
    Access_Unit_Splitter splitter(Video_Codec::h264, 10, [](const Access_Unit&) {});
    splitter.feed(noise);
    EXPECT_FALSE(splitter.found_start_code());
    splitter.feed(idr);
    EXPECT_TRUE(splitter.found_start_code());
}

TEST(Splitter, begins_anew_after_the_end) {
    std::vector<std::size_t> sizes;
    Access_Unit_Splitter splitter(Video_Codec::h264, no_limit, [&sizes](const Access_Unit& unit) {
        sizes.push_back(unit.bytes.size());
    });
    for (int i = 0; i < 3; ++i) {
        splitter.feed(idr);
        splitter.feed(slice);
        splitter.finish();
    }
    EXPECT_EQ(sizes, (Lengths{8, 7, 8, 7, 8, 7}));
}

// ---- limit ----

TEST(Splitter, an_access_unit_of_exactly_the_limit_is_whole) {
    const auto units = split_h264(idr + slice, idr.size());
    ASSERT_EQ(units.size(), 2U);
    EXPECT_FALSE(units[0].too_long);
    EXPECT_EQ(units[0].bytes, idr);
}

TEST(Splitter, one_beyond_the_limit_tells_its_length_and_costs_no_other) {
    const Bytes large = idr + Bytes(1000, std::byte{0x33}) + idr_next_slice;
    const auto units = split_h264(slice + large + slice + slice, 20);
    ASSERT_EQ(units.size(), 4U);
    EXPECT_TRUE(units[1].too_long);
    EXPECT_EQ(units[1].size_bytes, large.size());
    EXPECT_EQ(units[1].bytes, Bytes(large.begin(), large.begin() + 21));
    EXPECT_TRUE(units[1].is_key);
    for (const std::size_t whole : {0U, 2U, 3U}) {
        EXPECT_FALSE(units[whole].too_long);
        EXPECT_EQ(units[whole].bytes, slice);
    }
}

TEST(Splitter, a_limit_of_0_lets_none_through_and_counts_all) {
    const auto units = split_h264(idr + slice, 0);
    ASSERT_EQ(units.size(), 2U);
    EXPECT_TRUE(units[0].too_long);
    EXPECT_EQ(units[0].size_bytes, idr.size());
    EXPECT_EQ(units[1].size_bytes, slice.size());
}

// ---- at once ----

TEST(Splitter, hands_out_a_picture_when_the_head_of_the_next_one_is_there) {
    std::size_t count = 0;
    Access_Unit_Splitter splitter(Video_Codec::h264, no_limit,
                                  [&count](const Access_Unit&) { ++count; });
    splitter.feed(idr);
    EXPECT_EQ(count, 0U);
    splitter.feed(bytes({0, 0, 0, 1, 0x41}));
    EXPECT_EQ(count, 0U);
    splitter.feed(bytes({0x9A}));
    EXPECT_EQ(count, 1U);
    splitter.feed(bytes({0x44, 0, 0, 1, 0x09}));  // a delimiter needs no second byte
    EXPECT_EQ(count, 2U);
}

// ---- H.265 ----

const Bytes vps265 = bytes({0, 0, 0, 1, 0x40, 0x01, 0x0C});
const Bytes sps265 = bytes({0, 0, 0, 1, 0x42, 0x01, 0x01});
const Bytes pps265 = bytes({0, 0, 0, 1, 0x44, 0x01, 0xC1});
const Bytes idr265 = bytes({0, 0, 1, 0x26, 0x01, 0xAF, 0x11});
const Bytes idr265_next_slice = bytes({0, 0, 1, 0x26, 0x01, 0x2F, 0x11});
const Bytes cra265 = bytes({0, 0, 1, 0x2A, 0x01, 0xAF, 0x11});
const Bytes trail265 = bytes({0, 0, 1, 0x02, 0x01, 0xD0, 0x22});
const Bytes suffix_sei265 = bytes({0, 0, 1, 0x50, 0x01, 0x84});

std::vector<Kept_Unit> split_h265(const Bytes& stream) {
    const auto units = split(Video_Codec::h265, stream);
    const Block_Size one_byte = [] { return std::size_t{1}; };
    EXPECT_EQ(units, split(Video_Codec::h265, stream, no_limit, one_byte)) << "byte by byte";
    return units;
}

TEST(Splitter_H265, parameter_sets_go_with_the_picture_behind_them) {
    const Bytes first = vps265 + sps265 + pps265 + idr265 + idr265_next_slice + suffix_sei265;
    const auto units = split_h265(first + trail265 + vps265 + sps265 + pps265 + cra265);
    ASSERT_EQ(units.size(), 3U);
    EXPECT_EQ(units[0].bytes, first);
    EXPECT_TRUE(units[0].is_key && units[0].has_configuration);
    EXPECT_EQ(units[1].bytes, trail265);
    EXPECT_FALSE(units[1].is_key || units[1].is_recovery_point || units[1].has_configuration);
    EXPECT_TRUE(units[2].is_recovery_point && units[2].has_configuration);
    EXPECT_FALSE(units[2].is_key) << "a CRA picture is no IDR picture";
}

TEST(Splitter_H265, further_layers_belong_to_the_same_access_unit) {
    const Bytes layer_1 = bytes({0, 0, 1, 0x02, 0x09, 0xD0, 0x22});
    EXPECT_EQ(lengths(split_h265(idr265 + layer_1 + trail265 + layer_1)), (Lengths{14, 14}));
}

TEST(Splitter_H265, zero_bytes_behind_a_start_code_are_no_picture) {
    const Bytes nothing = bytes({0, 0, 1, 0, 0, 0, 0});
    const auto units = split_h265(nothing + vps265 + idr265 + trail265);
    EXPECT_EQ(lengths(units),
              (Lengths{nothing.size() + vps265.size() + idr265.size(), trail265.size()}));
}

// ---- a stream that changes its codec ----

TEST(Splitter, follows_a_change_of_codec_in_mid_stream) {
    const Bytes head265 = vps265 + sps265 + pps265 + idr265;
    const Bytes delimiter265 = bytes({0, 0, 0, 1, 0x46, 0x01, 0x50});
    const auto units = split_h264(sps + pps + idr + slice + delimiter265 + head265 + trail265 +
                                  sps + pps + idr + slice);
    EXPECT_EQ(lengths(units),
              (Lengths{(sps + pps + idr).size(), slice.size(), (delimiter265 + head265).size(),
                       trail265.size(), (sps + pps + idr).size(), slice.size()}));
    const auto codec_at = [&units](std::size_t i) { return units.at(i).codec; };
    EXPECT_EQ(codec_at(1), Video_Codec::h264);
    EXPECT_EQ(codec_at(2), Video_Codec::h265);
    EXPECT_EQ(codec_at(3), Video_Codec::h265);
    EXPECT_EQ(codec_at(4), Video_Codec::h264);
    EXPECT_TRUE(units[2].is_key && units[4].is_key);
}

// ---- streams of real encoders ----

struct Real_Stream {
    const char* file;
    Video_Codec codec;
    std::size_t pictures;
    std::size_t key_frames;
    std::size_t recovery_points;
};

class Splitter_Of_Real_Streams : public testing::TestWithParam<Real_Stream> {
protected:
    const Bytes stream = stream_file(GetParam().file);
    const std::vector<Kept_Unit> units = split(GetParam().codec, stream);
};

TEST_P(Splitter_Of_Real_Streams, finds_every_picture_and_keeps_every_byte) {
    EXPECT_EQ(units.size(), GetParam().pictures);
    EXPECT_EQ(put_together(units), stream);
    std::size_t key_frames = 0;
    std::size_t recovery_points = 0;
    for (const Kept_Unit& unit : units) {
        EXPECT_TRUE(unit.has_picture);
        EXPECT_FALSE(unit.too_long || unit.is_field);
        EXPECT_EQ(unit.codec, GetParam().codec);
        key_frames += unit.is_key ? 1U : 0U;
        recovery_points += unit.is_recovery_point ? 1U : 0U;
    }
    EXPECT_EQ(key_frames, GetParam().key_frames);
    EXPECT_EQ(recovery_points, GetParam().recovery_points);
    EXPECT_TRUE(units.front().is_key && units.front().has_configuration);
}

TEST_P(Splitter_Of_Real_Streams, divides_alike_however_the_input_is_cut) {
    EXPECT_EQ(split(GetParam().codec, stream, no_limit, [] { return std::size_t{1}; }), units);
    std::mt19937 random(1);
    for (const std::size_t greatest : {3U, 7U, 50U, 4000U}) {
        std::uniform_int_distribution<std::size_t> size(1, greatest);
        const auto block = [&] { return size(random); };
        for (int i = 0; i < 20; ++i) {
            ASSERT_EQ(split(GetParam().codec, stream, no_limit, block), units) << greatest;
        }
    }
}

TEST_P(Splitter_Of_Real_Streams, survives_damage_and_keeps_every_byte) {
    std::mt19937 random(2);
    for (int i = 0; i < 200; ++i) {
        Bytes damaged = stream;
        for (int change = 0; change < 20; ++change) {
            damaged[random() % damaged.size()] = static_cast<std::byte>(random() % 3);
        }
        damaged.resize(1 + random() % damaged.size());
        const auto broken = split(GetParam().codec, damaged);
        const auto sevens = [] { return std::size_t{7}; };
        ASSERT_EQ(broken, split(GetParam().codec, damaged, no_limit, sevens));
        if (!broken.empty()) {
            ASSERT_EQ(put_together(broken), damaged);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(
    Splitter, Splitter_Of_Real_Streams,
    testing::Values(Real_Stream{"plain.h264", Video_Codec::h264, 20, 3, 0},
                    Real_Stream{"slices_aud.h264", Video_Codec::h264, 20, 3, 0},
                    Real_Stream{"plain.h265", Video_Codec::h265, 12, 1, 1},
                    Real_Stream{"slices_aud.h265", Video_Codec::h265, 12, 1, 1}),
    [](const auto& stream) {
        std::string name = stream.param.file;
        name[name.find('.')] = '_';
        return name;
    });

}  // namespace
