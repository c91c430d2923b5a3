// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <gst/base/gstbasesrc.h>

#include <cstdint>

#include "frame/frame_view.h"

namespace zav_shm::gst {

/// A copy of the frame in GStreamer's memory, with the facts of its header and without a time:
/// duration, key frame, number (as offset) and the wall clock of its capture.
///
/// @return null when it was overwritten meanwhile, or when there is no memory
GstBuffer* buffer_of(const Frame_View& frame);

/// "frame 17: 3 overtaken"; null when nothing was missed before this frame.
GstStructure* losses_of(const Frame_Facts& frame, std::uint64_t discarded);

}  // namespace zav_shm::gst
