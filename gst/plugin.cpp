// SPDX-License-Identifier: Apache-2.0
#include "gst/plugin.h"

#define PACKAGE "zav_shm"  // for the macro. NOLINT(cppcoreguidelines-macro-usage)

namespace {

gboolean begin_plugin(GstPlugin* plugin) {
    using namespace zav_shm::gst;
    return register_zavsrc(plugin) && register_zavsink(plugin) ? TRUE : FALSE;
}

}  // namespace

GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, zavshm,
                  "Frames of other processes of this device, through shared memory", begin_plugin,
                  ZAV_SHM_VERSION, "Apache 2.0", "zav_shm", "zav_shm")
