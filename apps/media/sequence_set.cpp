// SPDX-License-Identifier: Apache-2.0
//
// The fields in front of those that are wanted are read only to get past them, in the order in
// which the two standards (ITU-T H.264 7.3.2.1.1 and E.1.1, ITU-T H.265 7.3.2.2) have them.
#include "apps/media/sequence_set.h"

#include <algorithm>
#include <array>

#include "apps/media/bit_reader.h"

namespace zav_shm::media {

namespace {

constexpr std::uint32_t pixels_max = 16384;
constexpr std::uint32_t h264_sequence_id_max = 31;
constexpr std::uint32_t log2_max_frame_num_minus4_max = 12;
constexpr std::uint32_t baseline_profile = 66;
constexpr std::uint32_t order_of_decoding = 2;  // pic_order_cnt_type
constexpr std::uint32_t chroma_420 = 1;
constexpr std::uint32_t chroma_422 = 2;
constexpr std::uint32_t chroma_444 = 3;

// What is cut off on all four sides, in units of `unit_x` by `unit_y` pixels.
struct Window {
    std::uint64_t left = 0;
    std::uint64_t right = 0;
    std::uint64_t top = 0;
    std::uint64_t bottom = 0;
};

Window read_window(Bit_Reader& reader) {
    Window window;
    if (reader.flag()) {
        window.left = reader.unsigned_golomb();
        window.right = reader.unsigned_golomb();
        window.top = reader.unsigned_golomb();
        window.bottom = reader.unsigned_golomb();
    }
    return window;
}

std::optional<Picture_Size> displayed(std::uint64_t width, std::uint64_t height,
                                      const Window& window, std::uint32_t unit_x,
                                      std::uint32_t unit_y) {
    const std::uint64_t cut_x = (window.left + window.right) * unit_x;
    const std::uint64_t cut_y = (window.top + window.bottom) * unit_y;
    if (width > pixels_max || height > pixels_max || cut_x >= width || cut_y >= height) {
        return std::nullopt;
    }
    return Picture_Size{static_cast<std::uint32_t>(width - cut_x),
                        static_cast<std::uint32_t>(height - cut_y)};
}

// ---- H.264 ----

bool has_chroma_fields(std::uint32_t profile) {
    constexpr std::array<std::uint32_t, 13> profiles{100, 110, 122, 244, 44,  83, 86,
                                                     118, 128, 138, 139, 134, 135};
    return std::ranges::find(profiles, profile) != profiles.end();
}

void skip_scaling_list(Bit_Reader& reader, unsigned entries) {
    std::int64_t last = 8;
    std::int64_t next = 8;
    for (unsigned i = 0; i < entries && !reader.failed(); ++i) {
        if (next != 0) {
            next = (last + reader.signed_golomb() + 256) % 256;
        }
        last = next == 0 ? last : next;
    }
}

// @return chroma_format_idc, chroma_444 + 1 for planes that are coded separately.
std::uint32_t read_chroma_fields(Bit_Reader& reader) {
    std::uint32_t chroma = reader.unsigned_golomb();
    const bool separate = chroma == chroma_444 && reader.flag();
    reader.unsigned_golomb();  // bit_depth_luma_minus8
    reader.unsigned_golomb();  // bit_depth_chroma_minus8
    reader.skip(1);            // qpprime_y_zero_transform_bypass_flag
    if (reader.flag()) {       // seq_scaling_matrix_present_flag
        const unsigned lists = chroma == chroma_444 ? 12 : 8;
        for (unsigned i = 0; i < lists && !reader.failed(); ++i) {
            if (reader.flag()) {
                skip_scaling_list(reader, i < 6 ? 16 : 64);
            }
        }
    }
    return separate ? chroma_444 + 1 : chroma;
}

// @return pic_order_cnt_type
std::uint32_t read_picture_order(Bit_Reader& reader) {
    const std::uint32_t type = reader.unsigned_golomb();
    if (type == 0) {
        reader.unsigned_golomb();  // log2_max_pic_order_cnt_lsb_minus4
    } else if (type == 1) {
        reader.skip(1);  // delta_pic_order_always_zero_flag
        reader.signed_golomb();
        reader.signed_golomb();
        const std::uint32_t count = reader.unsigned_golomb();
        for (std::uint32_t i = 0; i < count && !reader.failed(); ++i) {
            reader.signed_golomb();
        }
    }
    return type;
}

void skip_buffering(Bit_Reader& reader) {  // hrd_parameters
    const std::uint32_t buffers = reader.unsigned_golomb();
    reader.skip(8);  // bit_rate_scale, cpb_size_scale
    for (std::uint32_t i = 0; i <= buffers && !reader.failed(); ++i) {
        reader.unsigned_golomb();
        reader.unsigned_golomb();
        reader.skip(1);
    }
    reader.skip(20);  // lengths of delays
}

void skip_display_facts(Bit_Reader& reader) {  // vui_parameters up to the chroma's location
    constexpr std::uint32_t extended_aspect = 255;
    if (reader.flag() && reader.bits(8) == extended_aspect) {
        reader.skip(32);  // sar_width, sar_height
    }
    if (reader.flag()) {  // overscan_info_present_flag
        reader.skip(1);
    }
    if (reader.flag()) {  // video_signal_type_present_flag
        reader.skip(4);
        reader.skip(reader.flag() ? 24 : 0);  // colour description
    }
    if (reader.flag()) {  // chroma_loc_info_present_flag
        reader.unsigned_golomb();
        reader.unsigned_golomb();
    }
}

// The reader stands behind the pictures' size.
std::optional<std::uint32_t> read_h264_reorder_depth(Bit_Reader& reader) {
    if (!reader.flag()) {  // vui_parameters_present_flag
        return std::nullopt;
    }
    skip_display_facts(reader);
    reader.skip(reader.flag() ? 65 : 0);  // timing
    const bool has_nal_buffering = reader.flag();
    if (has_nal_buffering) {
        skip_buffering(reader);
    }
    const bool has_vcl_buffering = reader.flag();
    if (has_vcl_buffering) {
        skip_buffering(reader);
    }
    reader.skip(has_nal_buffering || has_vcl_buffering ? 2 : 1);  // low_delay_hrd, pic_struct
    if (!reader.flag()) {                                         // bitstream_restriction_flag
        return std::nullopt;
    }
    reader.skip(1);  // motion_vectors_over_pic_boundaries_flag
    for (int i = 0; i < 4; ++i) {
        reader.unsigned_golomb();  // bytes, bits, lengths of motion vectors
    }
    return reader.unsigned_golomb();
}

std::optional<std::uint32_t> sane_depth(const Bit_Reader& reader,
                                        std::optional<std::uint32_t> depth) {
    return !reader.failed() && depth && *depth <= reorder_depth_max ? depth : std::nullopt;
}

// ---- H.265 ----

constexpr std::size_t profile_bits = 88;
constexpr std::size_t level_bits = 8;

void skip_profile_tier_level(Bit_Reader& reader, unsigned sub_layers) {
    reader.skip(profile_bits + level_bits);
    std::size_t bits = 0;
    for (unsigned i = 0; i < sub_layers; ++i) {
        bits += reader.flag() ? profile_bits : 0;
        bits += reader.flag() ? level_bits : 0;
    }
    if (sub_layers > 0) {
        reader.skip(std::size_t{2} * (8 - sub_layers));  // reserved
    }
    reader.skip(bits);
}

}  // namespace

std::optional<H264_Sequence> read_h264_sequence(std::span<const std::byte> nal_unit) {
    const auto payload = without_escapes(nal_unit, set_bytes_max);
    Bit_Reader reader(payload);
    H264_Sequence sequence;
    reader.skip(8);  // the NAL unit's header
    const std::uint32_t profile = reader.bits(8);
    reader.skip(16);  // constraint flags, level_idc
    sequence.id = reader.unsigned_golomb();
    const std::uint32_t chroma =
        has_chroma_fields(profile) ? read_chroma_fields(reader) : chroma_420;
    sequence.has_separate_planes = chroma > chroma_444;
    const std::uint32_t log2_max_frame_num_minus4 = reader.unsigned_golomb();
    const std::uint32_t picture_order = read_picture_order(reader);
    reader.unsigned_golomb();  // max_num_ref_frames
    reader.skip(1);            // gaps_in_frame_num_value_allowed_flag
    const std::uint64_t width = (std::uint64_t{reader.unsigned_golomb()} + 1) * 16;
    const std::uint64_t map_height = (std::uint64_t{reader.unsigned_golomb()} + 1) * 16;
    sequence.has_only_frames = reader.flag();
    reader.skip(sequence.has_only_frames ? 1 : 2);  // mb_adaptive_frame_field, direct_8x8_inference
    const Window window = read_window(reader);
    if (reader.failed() || sequence.id > h264_sequence_id_max ||
        log2_max_frame_num_minus4 > log2_max_frame_num_minus4_max) {
        return std::nullopt;
    }
    sequence.frame_number_bits = log2_max_frame_num_minus4 + 4;
    const std::uint32_t fields = sequence.has_only_frames ? 1 : 2;
    const std::uint32_t unit_x = chroma == chroma_420 || chroma == chroma_422 ? 2 : 1;
    const std::uint32_t unit_y = (chroma == chroma_420 ? 2 : 1) * fields;
    sequence.size = displayed(width, map_height * fields, window, unit_x, unit_y);
    const bool is_never_reordered =
        profile == baseline_profile || picture_order == order_of_decoding;
    sequence.reorder_depth = is_never_reordered
                                 ? std::optional<std::uint32_t>(0)
                                 : sane_depth(reader, read_h264_reorder_depth(reader));
    return sequence;
}

std::optional<H265_Sequence> read_h265_sequence(std::span<const std::byte> nal_unit) {
    const auto payload = without_escapes(nal_unit, set_bytes_max);
    Bit_Reader reader(payload);
    reader.skip(16);  // the NAL unit's header
    reader.skip(4);   // sps_video_parameter_set_id
    const unsigned sub_layers = reader.bits(3);
    reader.skip(1);  // sps_temporal_id_nesting_flag
    skip_profile_tier_level(reader, sub_layers);
    reader.unsigned_golomb();  // sps_seq_parameter_set_id
    const std::uint32_t chroma = reader.unsigned_golomb();
    if (chroma == chroma_444) {
        reader.skip(1);  // separate_colour_plane_flag
    }
    const std::uint64_t width = reader.unsigned_golomb();
    const std::uint64_t height = reader.unsigned_golomb();
    const Window window = read_window(reader);
    if (reader.failed()) {
        return std::nullopt;
    }
    const std::uint32_t unit_x = chroma == chroma_420 || chroma == chroma_422 ? 2 : 1;
    H265_Sequence sequence;
    sequence.size = displayed(width, height, window, unit_x, chroma == chroma_420 ? 2 : 1);
    reader.unsigned_golomb();  // bit_depth_luma_minus8
    reader.unsigned_golomb();  // bit_depth_chroma_minus8
    reader.unsigned_golomb();  // log2_max_pic_order_cnt_lsb_minus4
    std::uint32_t depth = 0;   // of the highest sub-layer, which comes last
    for (unsigned layer = reader.flag() ? 0 : sub_layers; layer <= sub_layers; ++layer) {
        reader.unsigned_golomb();  // sps_max_dec_pic_buffering_minus1
        depth = reader.unsigned_golomb();
        reader.unsigned_golomb();  // sps_max_latency_increase_plus1
    }
    sequence.reorder_depth = sane_depth(reader, depth);
    return sequence;
}

}  // namespace zav_shm::media
