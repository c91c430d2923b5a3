// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <gst/rtsp-server/rtsp-server.h>

#include <chrono>

#include "apps/rtspd/gst_reference.h"
#include "apps/rtspd/hubs.h"
#include "apps/rtspd/stream_address.h"

namespace zav_shm::rtspd {

/// Makes what one client plays of a stream: a pipeline of its own from the stream's hub to packets.
///
/// @param hubs  outlives the factory and what it makes
/// @param wait  how long a client waits for a first picture
Object_Reference<GstRTSPMediaFactory> new_media_factory(Hubs& hubs, const Stream_Address& stream,
                                                        std::chrono::milliseconds wait);

}  // namespace zav_shm::rtspd
