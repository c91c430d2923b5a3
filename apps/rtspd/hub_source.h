// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <gst/gst.h>

#include <cstdint>
#include <functional>
#include <memory>

#include "apps/rtspd/stream_hub.h"

namespace zav_shm::rtspd {

/// A live source element that gives one client what a hub has: at each start first the newest key
/// frame and what followed it, at once, then what comes. It has no queue: a client that does not
/// read stays where it is in the hub's history, and goes on with the newest key frame when that has
/// moved past it. End of stream when the stream's format changes.
///
/// @param at_end  called once, from the element's thread, when the format has changed
/// @return a floating reference, as of every new element
GstElement* new_hub_source(std::shared_ptr<Stream_Hub> hub, const Stream_Hub::Run& run,
                           std::function<void()> at_end);

}  // namespace zav_shm::rtspd
