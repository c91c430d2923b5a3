// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "apps/media/nal_unit.h"

namespace zav_shm::tool {

/// What `publish` takes.
enum class Input_Codec { h264, h265, aac, opus };

Input_Codec input_codec_of(media::Video_Codec codec);
bool is_audio(Input_Codec codec);

/// Of pictures.
media::Video_Codec video_codec_of(Input_Codec codec);

/// As the frame header has it.
std::uint32_t header_codec(Input_Codec codec);

/// "H.264", "H.265", "AAC", "Opus".
const char* name_of(Input_Codec codec);

/// As --codec has it: "h264", "h265", "aac", "opus".
std::optional<Input_Codec> parse_input_codec(const std::string& text);

/// Tells from the beginning of an input what it holds.
///
/// @param at_end  nothing comes behind it.
/// @return nothing when `beginning` does not show it.
std::optional<Input_Codec> guess_input_codec(std::span<const std::byte> beginning, bool at_end);

}  // namespace zav_shm::tool
