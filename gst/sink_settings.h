// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <gst/gst.h>

#include <string>

#include "frame/frame_publisher.h"

namespace zav_shm::gst {

/// The writable properties of zavsink, which take effect when the element is started.
struct Sink_Settings {
    std::string producer;  // empty: the element's name
    int channel = 0;
    int stream = 0;
    std::string folder = "shm";
    guint64 history_bytes = 0;
    guint64 unit_limit_bytes = 0;
    bool is_paced = false;
    guint pace_limit_ms = 200;
    guint center_wait_ms = 200;
    bool lends = true;
    bool takes_utc_from_clock = false;

    ZAV_SHM_Frame_Publisher::Options publisher_options() const;
};

/// The ids of the properties, from 1 on as GObject wants them; `stats` is the last one.
enum Sink_Property : guint {
    sink_producer = 1,
    sink_channel,
    sink_stream,
    sink_folder,
    sink_history,
    sink_unit_limit,
    sink_paced,
    sink_pace_limit,
    sink_center_wait,
    sink_lend,
    sink_utc_from_clock,
    sink_stats
};

void install_sink_properties(GObjectClass* type);

/// Sets or reads one of them; false for `stats` and for an unknown id.
bool set_setting(Sink_Settings& settings, guint id, const GValue* value);
bool get_setting(const Sink_Settings& settings, guint id, GValue* value);

}  // namespace zav_shm::gst
