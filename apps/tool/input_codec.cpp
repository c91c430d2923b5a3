// SPDX-License-Identifier: Apache-2.0
#include "apps/tool/input_codec.h"

#include <array>
#include <utility>

#include "apps/audio/adts_header.h"
#include "apps/audio/opus_head.h"
#include "apps/media/codec_guess.h"
#include "frame/frame_header.h"

namespace zav_shm::tool {

Input_Codec input_codec_of(media::Video_Codec codec) {
    return codec == media::Video_Codec::h264 ? Input_Codec::h264 : Input_Codec::h265;
}

bool is_audio(Input_Codec codec) { return codec == Input_Codec::aac || codec == Input_Codec::opus; }

media::Video_Codec video_codec_of(Input_Codec codec) {
    return codec == Input_Codec::h265 ? media::Video_Codec::h265 : media::Video_Codec::h264;
}

std::uint32_t header_codec(Input_Codec codec) {
    switch (codec) {
        case Input_Codec::h264:
            return codec::h264;
        case Input_Codec::h265:
            return codec::h265;
        case Input_Codec::aac:
            return codec::aac;
        case Input_Codec::opus:
            return codec::opus;
    }
    return 0;
}

const char* name_of(Input_Codec codec) {
    switch (codec) {
        case Input_Codec::aac:
            return "AAC";
        case Input_Codec::opus:
            return "Opus";
        default:
            return name_of(video_codec_of(codec));
    }
}

std::optional<Input_Codec> parse_input_codec(const std::string& text) {
    constexpr std::array<std::pair<const char*, Input_Codec>, 4> names{
        {{"h264", Input_Codec::h264},
         {"h265", Input_Codec::h265},
         {"aac", Input_Codec::aac},
         {"opus", Input_Codec::opus}}};
    for (const auto& [name, codec] : names) {
        if (text == name) {
            return codec;
        }
    }
    return std::nullopt;
}

// Comments of an Ogg stream, and a tag before AAC, may hold what looks like a start code; a stream
// with start codes begins with one, or with a few bytes that are cut off.
std::optional<Input_Codec> guess_input_codec(std::span<const std::byte> beginning, bool at_end) {
    if (audio::begins_as_ogg(beginning) || audio::holds_ogg_opus(beginning)) {
        return audio::holds_ogg_opus(beginning) ? std::optional(Input_Codec::opus) : std::nullopt;
    }
    const auto tag = audio::id3_tag_bytes(beginning);
    if (!tag || *tag > beginning.size()) {
        return std::nullopt;
    }
    const auto frames = beginning.subspan(*tag);
    if (const auto video = media::guess_codec(frames)) {
        return input_codec_of(*video);
    }
    return audio::holds_adts(frames, at_end) ? std::optional(Input_Codec::aac) : std::nullopt;
}

}  // namespace zav_shm::tool
