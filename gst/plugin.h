// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <gst/gst.h>

namespace zav_shm::gst {

// Each in the file of its element.
bool register_zavsrc(GstPlugin* plugin);
bool register_zavsink(GstPlugin* plugin);

}  // namespace zav_shm::gst
