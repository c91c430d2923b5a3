// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <gst/gst.h>

#include <cstddef>
#include <optional>
#include <string>

#include "frame/frame_format.h"

// What a stream carries, in the words of GStreamer and in those of the frame header. The table of
// both stands in docs/gstreamer.md.

namespace zav_shm::gst {

/// Everything that streams can carry, for pad templates.
///
/// @return caps of the caller's
GstCaps* all_caps();

/// The format that fixed caps stand for.
///
/// @param why_not  written when there is none: names the caps and what is missing
std::optional<Frame_Format> format_of(const GstCaps* caps, std::string& why_not);

/// Fixed caps of a format that a frame header tells. The format may be anything, as hostile frames
/// have it. Sizes and rates that are unknown are left out where GStreamer can do without.
///
/// @param why_not  written when there are none: names the codec and what is missing
/// @return caps of the caller's, or null
GstCaps* caps_of(const Frame_Format& format, std::string& why_not);

/// True for codecs that have no frames between key frames: audio, JPEG and raw pictures.
bool is_every_frame_a_key_frame(std::uint32_t codec);

/// How long each payload of this format is; 0 where they differ.
std::size_t payload_bytes_of(const Frame_Format& format);

}  // namespace zav_shm::gst
