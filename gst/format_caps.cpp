// SPDX-License-Identifier: Apache-2.0
#include "gst/format_caps.h"

#include <gst/video/video.h>

#include <array>
#include <cstring>
#include <limits>
#include <memory>

namespace zav_shm::gst {

namespace {

constexpr unsigned opus_rate = 48000;  // samples per second that Opus counts in
constexpr unsigned g711_rate = 8000;   // samples per second, where none is told

/// One row of the table: a codec and what GStreamer calls it.
struct Row {
    enum class Kind { video, picture, raw_video, aac, opus, g711 };
    std::uint32_t codec;
    Kind kind;
    const char* media;   // name of the caps
    const char* format;  // raw video: GStreamer's
};

constexpr std::array<Row, 14> rows{{
    {codec::h264, Row::Kind::video, "video/x-h264", ""},
    {codec::h265, Row::Kind::video, "video/x-h265", ""},
    {codec::mjpeg, Row::Kind::picture, "image/jpeg", ""},
    {codec::aac, Row::Kind::aac, "audio/mpeg", ""},
    {codec::opus, Row::Kind::opus, "audio/x-opus", ""},
    {codec::pcma, Row::Kind::g711, "audio/x-alaw", ""},
    {codec::pcmu, Row::Kind::g711, "audio/x-mulaw", ""},
    {codec::i420, Row::Kind::raw_video, "video/x-raw", "I420"},
    {codec::nv12, Row::Kind::raw_video, "video/x-raw", "NV12"},
    {codec::yuy2, Row::Kind::raw_video, "video/x-raw", "YUY2"},
    {codec::uyvy, Row::Kind::raw_video, "video/x-raw", "UYVY"},
    {codec::gray8, Row::Kind::raw_video, "video/x-raw", "GRAY8"},
    {codec::rgb, Row::Kind::raw_video, "video/x-raw", "RGB"},
    {codec::bgrx, Row::Kind::raw_video, "video/x-raw", "BGRx"},
}};

const Row* row_of(std::uint32_t codec) {
    for (const Row& row : rows) {
        if (row.codec == codec) {
            return &row;
        }
    }
    return nullptr;
}

std::string text_of(const GstCaps* caps) {
    const std::unique_ptr<char, void (*)(void*)> text(gst_caps_to_string(caps), g_free);
    return text.get();
}

// ---- from caps ----

unsigned whole_number(const GstStructure* structure, const char* field) {
    int value = 0;
    return gst_structure_get_int(structure, field, &value) != FALSE && value > 0
               ? static_cast<unsigned>(value)
               : 0;
}

/// A field that, where it stands, must have this value.
bool is_or_is_missing(const GstStructure* structure, const char* field, const char* wanted) {
    const char* const value = gst_structure_get_string(structure, field);
    return value == nullptr || std::strcmp(value, wanted) == 0;
}

std::string mistake_in(const GstStructure* structure, const Row& row) {
    const auto is = [structure](const char* field, const char* wanted) {
        const char* const value = gst_structure_get_string(structure, field);
        return value != nullptr && std::strcmp(value, wanted) == 0;
    };
    switch (row.kind) {
        case Row::Kind::video:
            return is("stream-format", "byte-stream") && is("alignment", "au")
                       ? ""
                       : "has to be stream-format=byte-stream, alignment=au";
        case Row::Kind::aac:
            return is("stream-format", "adts") ? "" : "has to be stream-format=adts";
        case Row::Kind::opus: {
            int family = 0;
            gst_structure_get_int(structure, "channel-mapping-family", &family);
            return family == 0 ? "" : "has to be channel-mapping-family=0";
        }
        case Row::Kind::raw_video:
            return is_or_is_missing(structure, "interlace-mode", "progressive")
                       ? ""
                       : "has to be interlace-mode=progressive";
        case Row::Kind::picture:
        case Row::Kind::g711:
            break;
    }
    return {};
}

const Row* row_of(const GstStructure* structure) {
    const char* const media = gst_structure_get_name(structure);
    const char* const format = gst_structure_get_string(structure, "format");
    for (const Row& row : rows) {
        const bool is_format = row.kind != Row::Kind::raw_video ||
                               (format != nullptr && std::strcmp(format, row.format) == 0);
        if (std::strcmp(media, row.media) == 0 && is_format) {
            return &row;
        }
    }
    return nullptr;
}

// ---- to caps ----

bool is_number(std::uint32_t value) {
    return value > 0 && value <= std::numeric_limits<int>::max();
}

/// Sets a field whose value is known.
void set_number(GstCaps* caps, const char* field, std::uint32_t value) {
    if (is_number(value)) {
        gst_caps_set_simple(caps, field, G_TYPE_INT, static_cast<int>(value), nullptr);
    }
}

void set_picture(GstCaps* caps, const Frame_Format& format) {
    if (is_number(format.width) && is_number(format.height)) {
        set_number(caps, "width", format.width);
        set_number(caps, "height", format.height);
    }
    if (is_number(format.rate_num) && is_number(format.rate_den)) {
        gst_caps_set_simple(caps, "framerate", GST_TYPE_FRACTION, static_cast<int>(format.rate_num),
                            static_cast<int>(format.rate_den), nullptr);
    }
}

void set_audio(GstCaps* caps, const Frame_Format& format) {
    if (format.rate_den == 1) {
        set_number(caps, "rate", format.rate_num);
    }
    set_number(caps, "channels", format.channels);
}

void fill_opus(GstCaps* caps, const Frame_Format& format) {
    // A decoder of two channels plays a stream of one, too.
    const bool is_mono = format.channels == 1;
    gst_caps_set_simple(caps, "rate", G_TYPE_INT, static_cast<int>(opus_rate), "channels",
                        G_TYPE_INT, is_mono ? 1 : 2, "channel-mapping-family", G_TYPE_INT, 0,
                        "stream-count", G_TYPE_INT, 1, "coupled-count", G_TYPE_INT, is_mono ? 0 : 1,
                        nullptr);
}

void fill_g711(GstCaps* caps, const Frame_Format& format) {
    Frame_Format told = format;
    if (format.rate_den != 1 || !is_number(format.rate_num)) {
        told.rate_num = g711_rate;
        told.rate_den = 1;
    }
    told.channels = is_number(format.channels) ? format.channels : 1;
    set_audio(caps, told);
}

/// @return false when GStreamer cannot have such a picture
bool raw_video_info(const Frame_Format& format, const Row& row, GstVideoInfo& info) {
    if (!is_number(format.width) || !is_number(format.height)) {
        return false;
    }
    return gst_video_info_set_format(&info, gst_video_format_from_string(row.format), format.width,
                                     format.height) != FALSE;
}

bool fill_raw_video(GstCaps* caps, const Frame_Format& format, const Row& row) {
    GstVideoInfo info;
    if (!raw_video_info(format, row, info)) {
        return false;
    }
    gst_caps_set_simple(caps, "format", G_TYPE_STRING, row.format, "framerate", GST_TYPE_FRACTION,
                        0, 1, nullptr);
    set_picture(caps, format);
    return true;
}

void fill_caps(GstCaps* caps, const Frame_Format& format, const Row& row) {
    switch (row.kind) {
        case Row::Kind::video:
            gst_caps_set_simple(caps, "stream-format", G_TYPE_STRING, "byte-stream", "alignment",
                                G_TYPE_STRING, "au", nullptr);
            set_picture(caps, format);
            break;
        case Row::Kind::aac:
            gst_caps_set_simple(caps, "mpegversion", G_TYPE_INT, 4, "stream-format", G_TYPE_STRING,
                                "adts", "framed", G_TYPE_BOOLEAN, TRUE, nullptr);
            set_audio(caps, format);
            break;
        case Row::Kind::picture:
            set_picture(caps, format);
            break;
        case Row::Kind::opus:
            fill_opus(caps, format);
            break;
        case Row::Kind::g711:
            fill_g711(caps, format);
            break;
        case Row::Kind::raw_video:
            break;
    }
}

}  // namespace

GstCaps* all_caps() {
    return gst_caps_from_string(
        "video/x-h264, stream-format=byte-stream, alignment=au; "
        "video/x-h265, stream-format=byte-stream, alignment=au; "
        "image/jpeg; "
        "audio/mpeg, mpegversion={2, 4}, stream-format=adts, framed=true; "
        "audio/x-opus, channel-mapping-family=0; "
        "audio/x-alaw; audio/x-mulaw; "
        "video/x-raw, format={I420, NV12, YUY2, UYVY, GRAY8, RGB, BGRx}");
}

std::optional<Frame_Format> format_of(const GstCaps* caps, std::string& why_not) {
    if (caps == nullptr || gst_caps_is_empty(caps) != FALSE || gst_caps_is_fixed(caps) == FALSE) {
        why_not = "no fixed caps";
        return {};
    }
    const GstStructure* const structure = gst_caps_get_structure(caps, 0);
    const Row* const row = row_of(structure);
    const std::string mistake =
        row != nullptr ? mistake_in(structure, *row) : "is nothing that a stream can carry";
    if (row == nullptr || !mistake.empty()) {
        why_not = "\"" + text_of(caps) + "\" " + mistake;
        return {};
    }
    Frame_Format format;
    format.codec = row->codec;
    format.width = whole_number(structure, "width");
    format.height = whole_number(structure, "height");
    format.channels = whole_number(structure, "channels");
    int numerator = 0;
    int denominator = 1;
    if (gst_structure_get_fraction(structure, "framerate", &numerator, &denominator) != FALSE &&
        numerator > 0 && denominator > 0) {
        format.rate_num = static_cast<std::uint32_t>(numerator);
        format.rate_den = static_cast<std::uint32_t>(denominator);
    } else {
        format.rate_num =
            row->kind == Row::Kind::opus ? opus_rate : whole_number(structure, "rate");
    }
    return format;
}

GstCaps* caps_of(const Frame_Format& format, std::string& why_not) {
    const Row* const row = row_of(format.codec);
    if (row == nullptr) {
        why_not = "codec \"" + codec_name(format.codec) + "\" is none that has caps";
        return nullptr;
    }
    GstCaps* const caps = gst_caps_new_empty_simple(row->media);
    if (row->kind != Row::Kind::raw_video) {
        fill_caps(caps, format, *row);
    } else if (!fill_raw_video(caps, format, *row)) {
        why_not = "raw pictures \"" + codec_name(format.codec) + "\" of " +
                  std::to_string(format.width) + " x " + std::to_string(format.height) +
                  " have no caps";
        gst_caps_unref(caps);
        return nullptr;
    }
    return caps;
}

bool is_every_frame_a_key_frame(std::uint32_t codec) {
    const Row* const row = row_of(codec);
    return row != nullptr && row->kind != Row::Kind::video;
}

std::size_t payload_bytes_of(const Frame_Format& format) {
    const Row* const row = row_of(format.codec);
    GstVideoInfo info;
    return row != nullptr && row->kind == Row::Kind::raw_video && raw_video_info(format, *row, info)
               ? GST_VIDEO_INFO_SIZE(&info)
               : 0;
}

}  // namespace zav_shm::gst
