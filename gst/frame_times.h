// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <gst/base/gstbasesink.h>

#include "frame/frame_format.h"

namespace zav_shm::gst {

/// Presentation time, wall clock and duration of a buffer that a sink is about to render; no flags.
///
/// The presentation time is the buffer's running time: what the streams of one pipeline have in
/// common, whatever their segments are. Where the segment begins at 0 and nobody has sought in it,
/// it is the buffer's PTS. A buffer without PTS has the running time of now.
///
/// @param takes_utc_from_clock  a buffer without reference timestamp gets the wall clock's time
Frame_Info times_of(GstBaseSink* sink, GstBuffer* buffer, bool takes_utc_from_clock);

}  // namespace zav_shm::gst
