// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <gst/rtsp-server/rtsp-server.h>

namespace zav_shm::rtspd {

/// Type of a media that can be described again. Its pipeline is thrown away after a description,
/// and with it what a description is made of; so the first one is kept for as long as the media is.
GType type_of_described_media();

}  // namespace zav_shm::rtspd
