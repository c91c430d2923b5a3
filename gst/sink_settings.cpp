// SPDX-License-Identifier: Apache-2.0
#include "gst/sink_settings.h"

#include <limits>

namespace zav_shm::gst {

namespace {

constexpr guint64 bytes_max = std::numeric_limits<guint32>::max();  // as a history can be long
constexpr guint wait_max_ms = 60'000;

constexpr auto read_write = static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS);
constexpr auto read_only = static_cast<GParamFlags>(G_PARAM_READABLE | G_PARAM_STATIC_STRINGS);

void install(GObjectClass* type, Sink_Property id, GParamSpec* property) {
    g_object_class_install_property(type, id, property);
}

void install_names(GObjectClass* type) {
    const Sink_Settings unset;
    install(type, sink_producer,
            g_param_spec_string("producer", "Producer",
                                "The producer's name, as configured in the center; unset: the "
                                "name of the element",
                                nullptr, read_write));
    install(type, sink_channel,
            g_param_spec_int("channel", "Channel", "The producer's channel", 0, G_MAXINT,
                             unset.channel, read_write));
    install(type, sink_stream,
            g_param_spec_int("stream", "Stream", "The channel's stream", 0, G_MAXINT, unset.stream,
                             read_write));
    install(type, sink_folder,
            g_param_spec_string("folder", "Folder",
                                "Of the segments, below /dev/shm, while there is no center",
                                unset.folder.c_str(), read_write));
}

void install_room(GObjectClass* type) {
    install(type, sink_history,
            g_param_spec_uint64("history", "History",
                                "Bytes that late readers find at least; 0: as configured in the "
                                "center, else twice the longest frame",
                                0, bytes_max, 0, read_write));
    install(type, sink_unit_limit,
            g_param_spec_uint64("unit-limit", "Unit limit",
                                "Longest frame in bytes, longer ones are dropped and counted; 0: "
                                "the page size of the stream, 1 MiB while there is no center",
                                0, bytes_max, 0, read_write));
    install(type, sink_lend,
            g_param_spec_boolean("lend", "Lend",
                                 "Let an element upstream write raw pictures into the history "
                                 "itself where that is safe",
                                 TRUE, read_write));
}

void install_times(GObjectClass* type) {
    const Sink_Settings unset;
    install(type, sink_paced,
            g_param_spec_boolean("paced", "Paced",
                                 "Wait for readers that are behind, for what is played back and "
                                 "not live",
                                 FALSE, read_write));
    install(type, sink_pace_limit,
            g_param_spec_uint("pace-limit", "Pace limit",
                              "Milliseconds for which a reader that does not move is waited for", 0,
                              wait_max_ms, unset.pace_limit_ms, read_write));
    install(type, sink_center_wait,
            g_param_spec_uint("center-wait", "Center wait",
                              "Milliseconds for which the start waits for a center at most; the "
                              "element works without one, and joins it when it comes",
                              0, wait_max_ms, unset.center_wait_ms, read_write));
    install(type, sink_utc_from_clock,
            g_param_spec_boolean("utc-from-clock", "UTC from clock",
                                 "Take the wall clock for the time of capture where a buffer "
                                 "has no reference timestamp (timestamp/x-unix)",
                                 FALSE, read_write));
}

}  // namespace

void install_sink_properties(GObjectClass* type) {
    install_names(type);
    install_room(type);
    install_times(type);
    install(type, sink_stats,
            g_param_spec_boxed("stats", "Statistics",
                               "What was published and what was not, and where the element stands",
                               GST_TYPE_STRUCTURE, read_only));
}

ZAV_SHM_Frame_Publisher::Options Sink_Settings::publisher_options() const {
    return {.name = producer,
            .channel = channel,
            .stream = stream,
            .format = {},
            .center_wait = std::chrono::milliseconds(center_wait_ms),
            .folder = folder,
            .history_bytes = static_cast<std::size_t>(history_bytes),
            .frame_bytes_max = static_cast<std::size_t>(unit_limit_bytes),
            .paced = is_paced,
            .pace_limit = std::chrono::milliseconds(pace_limit_ms)};
}

bool set_setting(Sink_Settings& settings, guint id, const GValue* value) {
    const auto text = [value] {
        const char* const given = g_value_get_string(value);
        return std::string(given != nullptr ? given : "");
    };
    switch (id) {
        case sink_producer:
            settings.producer = text();
            return true;
        case sink_channel:
            settings.channel = g_value_get_int(value);
            return true;
        case sink_stream:
            settings.stream = g_value_get_int(value);
            return true;
        case sink_folder:
            settings.folder = text();
            return true;
        case sink_history:
            settings.history_bytes = g_value_get_uint64(value);
            return true;
        case sink_unit_limit:
            settings.unit_limit_bytes = g_value_get_uint64(value);
            return true;
        case sink_paced:
            settings.is_paced = g_value_get_boolean(value) != FALSE;
            return true;
        case sink_pace_limit:
            settings.pace_limit_ms = g_value_get_uint(value);
            return true;
        case sink_center_wait:
            settings.center_wait_ms = g_value_get_uint(value);
            return true;
        case sink_lend:
            settings.lends = g_value_get_boolean(value) != FALSE;
            return true;
        case sink_utc_from_clock:
            settings.takes_utc_from_clock = g_value_get_boolean(value) != FALSE;
            return true;
        default:
            return false;
    }
}

bool get_setting(const Sink_Settings& settings, guint id, GValue* value) {
    switch (id) {
        case sink_producer:
            g_value_set_string(value,
                               settings.producer.empty() ? nullptr : settings.producer.c_str());
            return true;
        case sink_channel:
            g_value_set_int(value, settings.channel);
            return true;
        case sink_stream:
            g_value_set_int(value, settings.stream);
            return true;
        case sink_folder:
            g_value_set_string(value, settings.folder.c_str());
            return true;
        case sink_history:
            g_value_set_uint64(value, settings.history_bytes);
            return true;
        case sink_unit_limit:
            g_value_set_uint64(value, settings.unit_limit_bytes);
            return true;
        case sink_paced:
            g_value_set_boolean(value, settings.is_paced ? TRUE : FALSE);
            return true;
        case sink_pace_limit:
            g_value_set_uint(value, settings.pace_limit_ms);
            return true;
        case sink_center_wait:
            g_value_set_uint(value, settings.center_wait_ms);
            return true;
        case sink_lend:
            g_value_set_boolean(value, settings.lends ? TRUE : FALSE);
            return true;
        case sink_utc_from_clock:
            g_value_set_boolean(value, settings.takes_utc_from_clock ? TRUE : FALSE);
            return true;
        default:
            return false;
    }
}

}  // namespace zav_shm::gst
