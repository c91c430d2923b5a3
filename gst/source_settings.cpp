// SPDX-License-Identifier: Apache-2.0
#include "gst/source_settings.h"

#include <functional>
#include <limits>

#include "apps/text/reading_start.h"

namespace zav_shm::gst {

namespace {

constexpr guint wait_max_ms = 60'000;
constexpr guint silence_max_ms = 86'400'000;  // a day

constexpr auto read_write = static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS);
constexpr auto read_only = static_cast<GParamFlags>(G_PARAM_READABLE | G_PARAM_STATIC_STRINGS);

// ---- enumerations ----

// GLib keeps the tables.
GType overflow_type() {
    static const GEnumValue values[] = {
        {static_cast<int>(Overflow_Policy::drop_oldest),
         "Go on a little behind the oldest frame that is left", "drop-oldest"},
        {static_cast<int>(Overflow_Policy::drop_until_key_frame), "Go on with the next key frame",
         "drop-until-key-frame"},
        {static_cast<int>(Overflow_Policy::newest_only), "Always the newest frame", "newest-only"},
        {0, nullptr, nullptr}};
    static const GType type = g_enum_register_static("ZavSrcOverflow", values);
    return type;
}

GType restart_type() {
    static const GEnumValue values[] = {
        {static_cast<int>(Source_Settings::Restart::wait), "Wait and go on", "wait"},
        {static_cast<int>(Source_Settings::Restart::error), "An error", "error"},
        {0, nullptr, nullptr}};
    static const GType type = g_enum_register_static("ZavSrcRestart", values);
    return type;
}

GType timestamps_type() {
    static const GEnumValue values[] = {
        {static_cast<int>(Stream_Clock::Source::stream),
         "The frame's presentation time; of a producer that tells none, that of publication",
         "stream"},
        {static_cast<int>(Stream_Clock::Source::monotonic),
         "The frame's presentation time, which is CLOCK_MONOTONIC", "monotonic"},
        {static_cast<int>(Stream_Clock::Source::publication), "When the frame was published",
         "publication"},
        {0, nullptr, nullptr}};
    static const GType type = g_enum_register_static("ZavSrcTimestamps", values);
    return type;
}

GType align_type() {
    static const GEnumValue values[] = {
        {static_cast<int>(Source_Settings::Alignment::from_start),
         "live with from=live, else first", "auto"},
        {static_cast<int>(Source_Settings::Alignment::first),
         "The first frame is presented when it is taken, and nothing is late", "first"},
        {static_cast<int>(Source_Settings::Alignment::live),
         "Frames are presented when they are published: what comes out of the history is late",
         "live"},
        {0, nullptr, nullptr}};
    static const GType type = g_enum_register_static("ZavSrcAlign", values);
    return type;
}

// ---- definitions ----

void install_names(GObjectClass* type) {
    const Source_Settings unset;
    const auto text = [type](Source_Property id, const char* name, const char* nick,
                             const char* blurb, const char* value) {
        g_object_class_install_property(type, id,
                                        g_param_spec_string(name, nick, blurb, value, read_write));
    };
    text(source_producer, "producer", "Producer", "Whose frames, by its name in the center",
         nullptr);
    text(source_consumer, "consumer", "Consumer",
         "The name under which the center knows this consumer, checks it and pairs it; unset: see "
         "tap",
         nullptr);
    g_object_class_install_property(
        type, source_tap,
        g_param_spec_boolean("tap", "Tap",
                             "Without a consumer: read without a name and without a center; false: "
                             "the element's name is the consumer's",
                             unset.tap ? TRUE : FALSE, read_write));
    g_object_class_install_property(type, source_channel,
                                    g_param_spec_int("channel", "Channel", "The producer's channel",
                                                     0, G_MAXINT, 0, read_write));
    g_object_class_install_property(
        type, source_stream,
        g_param_spec_int("stream", "Stream", "The channel's stream", 0, G_MAXINT, 0, read_write));
    text(source_folder, "folder", "Folder",
         "Of the segments, below /dev/shm, for a tap and while there is no center",
         unset.folder.c_str());
    g_object_class_install_property(
        type, source_untrusting,
        g_param_spec_boolean("untrusting", "Untrusting",
                             "Read by copying twice: a producer that truncates its history is an "
                             "error, and not the end of this process",
                             unset.untrusting ? TRUE : FALSE, read_write));
}

void install_reading(GObjectClass* type) {
    const Source_Settings unset;
    const auto flag = [type](Source_Property id, const char* name, const char* nick,
                             const char* blurb, bool value) {
        g_object_class_install_property(
            type, id, g_param_spec_boolean(name, nick, blurb, value ? TRUE : FALSE, read_write));
    };
    g_object_class_install_property(
        type, source_from,
        g_param_spec_string("from", "From",
                            "Where reading begins: newest-key, last-key-frame, oldest, live, or a "
                            "time back such as -10s",
                            unset.from.c_str(), read_write));
    g_object_class_install_property(
        type, source_overflow,
        g_param_spec_enum("overflow", "Overflow",
                          "Where it goes on when it was slower than the history is long",
                          overflow_type(), static_cast<int>(unset.overflow), read_write));
    flag(source_any_frame, "any-frame", "Any frame", "Begin with any frame, not with a key frame",
         unset.any_frame);
    flag(source_keep_all, "keep-all", "Keep all",
         "Behind a loss go on at once, and not with the next key frame", unset.keep_all);
    flag(source_ask_for_key_frame, "ask-for-key-frame", "Ask for key frame",
         "Ask the producer for a key frame where one is waited for", unset.asks_for_key_frame);
}

void install_ends(GObjectClass* type) {
    const Source_Settings unset;
    const auto wait = [type](Source_Property id, const char* name, const char* nick,
                             const char* blurb, guint greatest, guint value) {
        g_object_class_install_property(
            type, id, g_param_spec_uint(name, nick, blurb, 0, greatest, value, read_write));
    };
    g_object_class_install_property(
        type, source_restart,
        g_param_spec_enum("restart", "Restart",
                          "What the restart of the producer or the loss of the center is",
                          restart_type(), static_cast<int>(unset.restart), read_write));
    g_object_class_install_property(
        type, source_end_of_stream,
        g_param_spec_boolean("end-of-stream", "End of stream",
                             "End when the producer says that its stream ends; else its next one "
                             "is waited for",
                             unset.ends ? TRUE : FALSE, read_write));
    wait(source_timeout, "timeout", "Timeout",
         "Milliseconds without a frame behind which a message \"zavsrc-timeout\" is posted, an "
         "error with restart=error; 0: never",
         silence_max_ms, unset.timeout_ms);
    wait(source_gap, "gap", "Gap",
         "Milliseconds without a frame behind which gap events are sent, of audio, JPEG and raw "
         "pictures; 0: never",
         silence_max_ms, unset.gap_ms);
    wait(source_center_wait, "center-wait", "Center wait",
         "Milliseconds for which the start waits for a center at most; the element works without "
         "one, and joins it when it comes",
         wait_max_ms, unset.center_wait_ms);
}

void install_times(GObjectClass* type) {
    const Source_Settings unset;
    g_object_class_install_property(
        type, source_timestamps,
        g_param_spec_enum("timestamps", "Timestamps", "What presentation times are made from",
                          timestamps_type(), static_cast<int>(unset.timestamps), read_write));
    g_object_class_install_property(
        type, source_align,
        g_param_spec_enum("align", "Align", "Which running time frames have", align_type(),
                          static_cast<int>(unset.align), read_write));
    g_object_class_install_property(
        type, source_timeline,
        g_param_spec_string("timeline", "Timeline",
                            "Sources of one pipeline and timeline are in sync with each other; "
                            "unset: those of the same producer and channel",
                            nullptr, read_write));
    g_object_class_install_property(
        type, source_latency,
        g_param_spec_int("latency", "Latency",
                         "Milliseconds by which frames may come later than their times say; -1: "
                         "as the first two seconds show",
                         -1, static_cast<int>(wait_max_ms), unset.latency_ms, read_write));
}

// ---- values ----

std::string text_in(const GValue* value) {
    const char* const text = g_value_get_string(value);
    return text != nullptr ? text : "";
}

void put_text(GValue* value, const std::string& text) {
    g_value_set_string(value, text.empty() ? nullptr : text.c_str());
}

/// Calls one of the two with the member that a property stands for.
///
/// @return false when it stands for none
template <class Settings, class Use>
bool with_member(Settings& settings, guint id, const Use& use) {
    switch (id) {
        case source_producer:
            return use(settings.producer);
        case source_consumer:
            return use(settings.consumer);
        case source_tap:
            return use(settings.tap);
        case source_channel:
            return use(settings.channel);
        case source_stream:
            return use(settings.stream);
        case source_folder:
            return use(settings.folder);
        case source_untrusting:
            return use(settings.untrusting);
        case source_from:
            return use(settings.from);
        case source_overflow:
            return use(settings.overflow);
        case source_any_frame:
            return use(settings.any_frame);
        case source_keep_all:
            return use(settings.keep_all);
        case source_ask_for_key_frame:
            return use(settings.asks_for_key_frame);
        case source_restart:
            return use(settings.restart);
        case source_end_of_stream:
            return use(settings.ends);
        case source_timeout:
            return use(settings.timeout_ms);
        case source_gap:
            return use(settings.gap_ms);
        case source_center_wait:
            return use(settings.center_wait_ms);
        case source_timestamps:
            return use(settings.timestamps);
        case source_align:
            return use(settings.align);
        case source_timeline:
            return use(settings.timeline);
        case source_latency:
            return use(settings.latency_ms);
        default:
            return false;
    }
}

struct Set {
    const GValue* value;

    bool operator()(std::string& text) const { return text = text_in(value), true; }
    bool operator()(bool& flag) const { return flag = g_value_get_boolean(value) != FALSE, true; }
    bool operator()(int& number) const { return number = g_value_get_int(value), true; }
    bool operator()(guint& number) const { return number = g_value_get_uint(value), true; }
    template <class Enum>
    bool operator()(Enum& choice) const {
        return choice = static_cast<Enum>(g_value_get_enum(value)), true;
    }
};

struct Get {
    GValue* value;

    bool operator()(const std::string& text) const { return put_text(value, text), true; }
    bool operator()(const bool& flag) const {
        return g_value_set_boolean(value, flag ? TRUE : FALSE), true;
    }
    bool operator()(const int& number) const { return g_value_set_int(value, number), true; }
    bool operator()(const guint& number) const { return g_value_set_uint(value, number), true; }
    template <class Enum>
    bool operator()(const Enum& choice) const {
        return g_value_set_enum(value, static_cast<int>(choice)), true;
    }
};

}  // namespace

void install_source_properties(GObjectClass* type) {
    install_names(type);
    install_reading(type);
    install_ends(type);
    install_times(type);
    g_object_class_install_property(
        type, source_caps,
        g_param_spec_boxed("caps", "Caps",
                           "What the stream carries, where its frames do not say it or are to be "
                           "taken for something else; unset: as the frames say",
                           GST_TYPE_CAPS, read_write));
    g_object_class_install_property(
        type, source_stats,
        g_param_spec_boxed("stats", "Statistics",
                           "What was taken and what was lost, and where the element stands",
                           GST_TYPE_STRUCTURE, read_only));
}

std::string Source_Settings::title() const {
    return producer + "/" + std::to_string(channel) + "/" + std::to_string(stream);
}

std::string Source_Settings::timeline_name() const {
    return timeline.empty() ? producer + "/" + std::to_string(channel) : timeline;
}

Stream_Clock::Align Source_Settings::alignment() const {
    if (align == Alignment::from_start) {
        const auto begin = parse_start(from);
        return begin && begin->at == Start::At::newest ? Stream_Clock::Align::live
                                                       : Stream_Clock::Align::first;
    }
    return align == Alignment::live ? Stream_Clock::Align::live : Stream_Clock::Align::first;
}

ZAV_SHM_Frame_Subscriber::Options Source_Settings::subscriber_options(
    const std::string& element_name) const {
    return {.name = is_tap()           ? std::string()
                    : consumer.empty() ? element_name
                                       : consumer,
            .producer = producer,
            .channel = channel,
            .stream = stream,
            .from = parse_start(from).value_or(start::newest_key),
            .overflow = overflow,
            .start_at_key_frame = !any_frame,
            .key_frame_after_loss = !keep_all,
            .asks_for_key_frame = asks_for_key_frame,
            .center_wait = std::chrono::milliseconds(center_wait_ms),
            .folder = folder,
            .untrusting = untrusting};
}

bool set_setting(Source_Settings& settings, guint id, const GValue* value) {
    return with_member(settings, id, Set{value});
}

bool get_setting(const Source_Settings& settings, guint id, GValue* value) {
    return with_member(settings, id, Get{value});
}

}  // namespace zav_shm::gst
