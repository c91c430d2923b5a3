// SPDX-License-Identifier: Apache-2.0
#include "apps/rtspd/stream_kind.h"

#include <array>

#include "apps/audio/adts_header.h"
#include "apps/rtspd/jpeg_header.h"
#include "apps/rtspd/nal_check.h"
#include "frame/frame_header.h"
#include "gst/format_caps.h"

namespace zav_shm::rtspd {

namespace {

// What RTP's own format for JPEG can say, in its two bytes of 8 pixels each.
constexpr std::uint32_t jpeg_pixels_max = 2040;
constexpr std::uint32_t g711_rate = 8000;

// 120 ms at 510 kbit/s. RTP does not divide packets of Opus, and cannot carry any length.
constexpr std::size_t opus_bytes_max = 7650;

constexpr std::array<std::uint32_t, 13> adts_rates{96000, 88200, 64000, 48000, 44100, 32000, 24000,
                                                   22050, 16000, 12000, 11025, 8000,  7350};
constexpr std::size_t checksum_bytes = 2;

unsigned at(std::span<const std::byte> bytes, std::size_t index) {
    return std::to_integer<unsigned>(bytes[index]);
}

std::optional<Stream_Unit> read_video(const ZAV_SHM_Frame_Header& header,
                                      std::span<const std::byte> payload, std::string& reason) {
    if (!is_sendable(header.codec, payload)) {
        reason = "are no access units with start codes";
        return std::nullopt;
    }
    Stream_Kind kind;
    kind.codec = header.codec;
    kind.width = header.width;
    kind.height = header.height;
    return Stream_Unit{kind, payload};
}

// The picture itself tells its size: RTP repeats it, and a header may lack it.
std::optional<Stream_Unit> read_jpeg(std::span<const std::byte> payload, std::string& reason) {
    const auto header = read_jpeg_header(payload);
    if (!header) {
        reason = "are no baseline JPEG pictures in colour";
        return std::nullopt;
    }
    Stream_Kind kind;
    kind.codec = codec::mjpeg;
    kind.width = header->width;
    kind.height = header->height;
    if (kind.width > jpeg_pixels_max || kind.height > jpeg_pixels_max) {
        reason = "have " + std::to_string(kind.width) + "x" + std::to_string(kind.height) +
                 " pixels, and RTP carries JPEG of up to 2040x2040";
        return std::nullopt;
    }
    return Stream_Unit{kind, payload};
}

// RTP carries AAC without the header of ADTS; what stood there goes into the description.
std::optional<Stream_Unit> read_aac(std::span<const std::byte> payload, std::string& reason) {
    const auto header = audio::read_adts_header(payload);
    const bool has_checksum = header && (at(payload, 1) & 1U) == 0;
    const std::size_t front = audio::adts_header_bytes + (has_checksum ? checksum_bytes : 0);
    if (!header || header->frame_bytes != payload.size() || payload.size() <= front) {
        reason = "are no AAC with one ADTS header each";
        return std::nullopt;
    }
    const unsigned blocks = (at(payload, 6) & 3U) + 1;
    const unsigned rate_index = (at(payload, 2) >> 2U) & 15U;
    const unsigned layout = ((at(payload, 2) & 1U) << 2U) | (at(payload, 3) >> 6U);
    if (blocks != 1 || rate_index >= adts_rates.size() || layout == 0) {
        reason =
            "are AAC with several blocks in a frame, or of a rate or layout that ADTS does not "
            "name";
        return std::nullopt;
    }
    Stream_Kind kind;
    kind.codec = codec::aac;
    kind.rate = adts_rates.at(rate_index);
    kind.channels = layout == 7 ? 8 : layout;
    kind.object_type = (at(payload, 2) >> 6U) + 1;
    return Stream_Unit{kind, payload.subspan(front)};
}

std::optional<Stream_Unit> read_opus(const ZAV_SHM_Frame_Header& header,
                                     std::span<const std::byte> payload, std::string& reason) {
    if (header.channels > 2) {
        reason =
            "are Opus of " + std::to_string(header.channels) + " channels, and RTP carries up to 2";
        return std::nullopt;
    }
    if (payload.size() > opus_bytes_max) {
        reason = "are Opus of " + std::to_string(payload.size()) +
                 " bytes, and a packet has up to " + std::to_string(opus_bytes_max);
        return std::nullopt;
    }
    Stream_Kind kind;
    kind.codec = codec::opus;
    kind.rate = 48'000;  // of RTP's clock, whatever the encoder was fed with
    kind.channels = header.channels == 1 ? 1 : 2;
    return Stream_Unit{kind, payload};
}

std::optional<Stream_Unit> read_g711(const ZAV_SHM_Frame_Header& header,
                                     std::span<const std::byte> payload, std::string& reason) {
    const bool is_known = header.rate_num != 0 && header.rate_den != 0;
    if ((is_known && header.rate_num / header.rate_den != g711_rate) || header.channels > 1) {
        reason = "are G.711 of another kind than 8000 samples per second and one channel";
        return std::nullopt;
    }
    Stream_Kind kind;
    kind.codec = header.codec;
    kind.rate = g711_rate;
    kind.channels = 1;
    return Stream_Unit{kind, payload};
}

Caps_Reference aac_caps(const Stream_Kind& kind) {
    unsigned index = 0;
    while (index + 1 < adts_rates.size() && adts_rates.at(index) != kind.rate) {
        ++index;
    }
    const unsigned layout = kind.channels == 8 ? 7 : kind.channels;
    const unsigned bits = (kind.object_type << 11U) | (index << 7U) | (layout << 3U);
    const std::array<std::uint8_t, 2> configuration{static_cast<std::uint8_t>(bits >> 8U),
                                                    static_cast<std::uint8_t>(bits)};
    GstBuffer* const data = gst_buffer_new_memdup(configuration.data(), configuration.size());
    Caps_Reference caps(gst_caps_new_simple(
        "audio/mpeg", "mpegversion", G_TYPE_INT, 4, "stream-format", G_TYPE_STRING, "raw", "framed",
        G_TYPE_BOOLEAN, TRUE, "rate", G_TYPE_INT, static_cast<int>(kind.rate), "channels",
        G_TYPE_INT, static_cast<int>(kind.channels), "codec_data", GST_TYPE_BUFFER, data, nullptr));
    gst_buffer_unref(data);
    return caps;
}

}  // namespace

std::optional<Stream_Unit> read_unit(const Frame_Facts& frame, std::span<const std::byte> payload,
                                     std::string& reason) {
    if (!frame.verified) {
        reason = "come from a producer of the fixed interface, which does not say what they are";
        return std::nullopt;
    }
    switch (frame.header.codec) {
        case codec::h264:
        case codec::h265:
            return read_video(frame.header, payload, reason);
        case codec::mjpeg:
            return read_jpeg(payload, reason);
        case codec::aac:
            return read_aac(payload, reason);
        case codec::opus:
            return read_opus(frame.header, payload, reason);
        case codec::pcma:
        case codec::pcmu:
            return read_g711(frame.header, payload, reason);
        default:
            reason = "are " + codec_name(frame.header.codec) +
                     ", and H264, H265, MJPG, AAC, OPUS, PCMA and PCMU can be sent";
            return std::nullopt;
    }
}

Caps_Reference caps_of(const Stream_Kind& kind) {
    if (kind.codec == codec::aac) {
        return aac_caps(kind);
    }
    std::string why_not;
    return Caps_Reference(gst::caps_of({.codec = kind.codec,
                                        .width = kind.width,
                                        .height = kind.height,
                                        .rate_num = kind.rate,
                                        .channels = kind.channels},
                                       why_not));
}

const char* payloader_of(const Stream_Kind& kind) {
    switch (kind.codec) {
        case codec::h264:
            return "rtph264pay";
        case codec::h265:
            return "rtph265pay";
        case codec::mjpeg:
            return "rtpjpegpay";
        case codec::aac:
            return "rtpmp4gpay";
        case codec::opus:
            return "rtpopuspay";
        case codec::pcma:
            return "rtppcmapay";
        default:
            return "rtppcmupay";
    }
}

}  // namespace zav_shm::rtspd
