// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <gst/rtsp-server/rtsp-server.h>

#include <optional>

#include "apps/rtspd/options.h"
#include "apps/rtspd/problem.h"

namespace zav_shm::rtspd {

/// What passwords belong to, as it is shown to users and stands in the file of users.
inline constexpr const char* realm = "zav_shm";

/// Users may do what their role may; factories let this one play.
inline constexpr const char* viewer_role = "viewer";

/// Sets up who may play, and how connections are protected.
std::optional<Problem> set_up_access(GstRTSPServer* server, const Options& options);

/// Lets viewers play what the factory makes.
void let_viewers_play(GstRTSPMediaFactory* factory);

}  // namespace zav_shm::rtspd
