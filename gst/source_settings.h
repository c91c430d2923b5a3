// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <gst/gst.h>

#include <string>

#include "frame/frame_subscriber.h"
#include "gst/stream_clock.h"

namespace zav_shm::gst {

/// The writable properties of zavsrc, which take effect when the element is started.
struct Source_Settings {
    enum class Restart { wait, error };
    enum class Alignment { from_start, first, live };

    std::string producer;
    std::string consumer;  // empty: the element's name, or none for a tap
    bool tap = true;       // of no effect with a consumer
    int channel = 0;
    int stream = 0;
    std::string folder = "shm";
    bool untrusting = false;

    std::string from = "newest-key";
    Overflow_Policy overflow = Overflow_Policy::drop_until_key_frame;
    bool any_frame = false;
    bool keep_all = false;
    bool asks_for_key_frame = true;

    Restart restart = Restart::wait;
    bool ends = false;     // with the producer's end of stream
    guint timeout_ms = 0;  // 0: no message
    guint gap_ms = 1000;   // 0: no event
    guint center_wait_ms = 200;

    Stream_Clock::Source timestamps = Stream_Clock::Source::stream;
    Alignment align = Alignment::from_start;
    std::string timeline;  // empty: producer and channel
    int latency_ms = -1;   // negative: as is seen

    /// "CAM_LOOP/0/1"
    std::string title() const;
    std::string timeline_name() const;
    Stream_Clock::Align alignment() const;
    bool is_tap() const { return consumer.empty() && tap; }

    ZAV_SHM_Frame_Subscriber::Options subscriber_options(const std::string& element_name) const;
};

/// The ids of the properties, from 1 on as GObject wants them. The element itself has the last two.
enum Source_Property : guint {
    source_producer = 1,
    source_consumer,
    source_tap,
    source_channel,
    source_stream,
    source_folder,
    source_untrusting,
    source_from,
    source_overflow,
    source_any_frame,
    source_keep_all,
    source_ask_for_key_frame,
    source_restart,
    source_end_of_stream,
    source_timeout,
    source_gap,
    source_center_wait,
    source_timestamps,
    source_align,
    source_timeline,
    source_latency,
    source_caps,
    source_stats
};

void install_source_properties(GObjectClass* type);

/// Sets or reads one of them; false for `caps`, `stats` and an unknown id.
bool set_setting(Source_Settings& settings, guint id, const GValue* value);
bool get_setting(const Source_Settings& settings, guint id, GValue* value);

}  // namespace zav_shm::gst
