// SPDX-License-Identifier: Apache-2.0
#include "apps/mux/muxer.h"

#include <gst/app/gstappsink.h>
#include <gst/app/gstappsrc.h>
#include <gst/gst.h>

#include <algorithm>
#include <array>
#include <utility>

#include "gst/format_caps.h"

namespace zav_shm::mux {

namespace {

struct Unref {
    void operator()(void* object) const { gst_object_unref(object); }
};

template <class Object>
using Owned = std::unique_ptr<Object, Unref>;

// Pictures of a stream with B frames are decoded before the first one is presented. GStreamer's
// times are not negative, so the begin of the file is here.
constexpr GstClockTime begin_of_file = 3600 * GST_SECOND;

constexpr const char* source = "format=time max-bytes=0 handle-segment-change=true";

// The head says nothing of what comes: it is never written again.
const char* muxer_of(Container container) {
    return container == Container::mp4 ? "mp4mux fragment-duration=1000 streamable=true"
                                       : "matroskamux streamable=true offset-to-zero=false";
}

std::string parser_of(std::uint32_t codec) {
    if (codec == codec::h264) {
        return "! h264parse ";
    }
    if (codec == codec::h265) {
        return "! h265parse ";
    }
    return codec == codec::aac ? "! aacparse " : "";
}

std::string description_of(Container container, const Frame_Format& pictures,
                           const Frame_Format* sounds) {
    std::string text = std::string(muxer_of(container)) +
                       " name=muxer ! appsink name=file sync=false max-buffers=0 "
                       "appsrc name=pictures " +
                       source + " " + parser_of(pictures.codec) + "! muxer.video_0 ";
    if (sounds != nullptr) {
        text += "appsrc name=sounds " + std::string(source) + " " + parser_of(sounds->codec) +
                "! muxer.audio_0";
    }
    return text;
}

GstSegment segment_of_file() {
    GstSegment segment;
    gst_segment_init(&segment, GST_FORMAT_TIME);
    segment.start = segment.position = begin_of_file;
    return segment;
}

GstClockTime time_of(std::chrono::nanoseconds behind_begin) {
    constexpr std::chrono::hours most{24 * 365 * 100};
    constexpr std::chrono::nanoseconds least(-static_cast<std::int64_t>(begin_of_file));
    return begin_of_file +
           static_cast<GstClockTime>(
               std::clamp<std::chrono::nanoseconds>(behind_begin, least, most).count());
}

bool begins_with(std::span<const std::byte> bytes, std::size_t at,
                 std::span<const unsigned char> what) {
    return bytes.size() >= at + what.size() &&
           std::equal(what.begin(), what.end(), bytes.begin() + static_cast<std::ptrdiff_t>(at),
                      [](unsigned char left, std::byte right) { return std::byte{left} == right; });
}

}  // namespace

struct Muxer::Pipeline {
    Owned<GstElement> whole;
    Owned<GstElement> pictures;
    Owned<GstElement> sounds;
    Owned<GstElement> file;
    Owned<GstBus> bus;

    Owned<GstElement> child(const char* name) const {
        return Owned<GstElement>(gst_bin_get_by_name(GST_BIN(whole.get()), name));
    }

    static std::string give_format(GstElement* source, const Frame_Format& format) {
        std::string why_not;
        GstCaps* const caps = gst::caps_of(format, why_not);
        if (caps == nullptr) {
            return why_not;
        }
        gst_app_src_set_caps(GST_APP_SRC(source), caps);
        gst_caps_unref(caps);
        return {};
    }

    static void push(GstElement* source, std::span<const std::byte> bytes, const Times& times,
                     guint flags) {
        GstBuffer* const buffer = gst_buffer_new_memdup(bytes.data(), bytes.size());
        GST_BUFFER_PTS(buffer) = time_of(times.presented);
        GST_BUFFER_DTS(buffer) = time_of(times.decoded);
        GST_BUFFER_DURATION(buffer) = static_cast<GstClockTime>(times.duration.count());
        GST_BUFFER_FLAG_SET(buffer, flags);
        const GstSegment segment = segment_of_file();
        GstSample* const sample = gst_sample_new(buffer, nullptr, &segment, nullptr);
        gst_buffer_unref(buffer);
        gst_app_src_push_sample(GST_APP_SRC(source), sample);
        gst_sample_unref(sample);
    }
};

Muxer::Muxer(Container container, const Frame_Format& pictures, const Frame_Format* sounds)
    : pipeline_(std::make_unique<Pipeline>()) {
    GError* error = nullptr;
    GstElement* const whole =
        gst_parse_launch_full(description_of(container, pictures, sounds).c_str(), nullptr,
                              GST_PARSE_FLAG_FATAL_ERRORS, &error);
    if (whole == nullptr) {
        failure_ = error != nullptr ? error->message : "no pipeline can be made";
        g_clear_error(&error);
        return;
    }
    pipeline_->whole.reset(GST_ELEMENT(gst_object_ref_sink(whole)));
    pipeline_->pictures = pipeline_->child("pictures");
    pipeline_->sounds = pipeline_->child("sounds");
    pipeline_->file = pipeline_->child("file");
    pipeline_->bus.reset(gst_element_get_bus(whole));
    failure_ = Pipeline::give_format(pipeline_->pictures.get(), pictures);
    if (failure_.empty() && sounds != nullptr) {
        failure_ = Pipeline::give_format(pipeline_->sounds.get(), *sounds);
    }
    if (failure_.empty() &&
        gst_element_set_state(whole, GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE) {
        failure_ = "the pipeline does not start";
    }
}

Muxer::~Muxer() {
    if (pipeline_->whole) {
        gst_element_set_state(pipeline_->whole.get(), GST_STATE_NULL);
    }
}

bool Muxer::can_hold(Container container, std::uint32_t sounds) {
    return sounds == codec::aac || sounds == codec::opus ||
           (container == Container::matroska && (sounds == codec::pcma || sounds == codec::pcmu));
}

void Muxer::add_picture(std::span<const std::byte> unit, const Times& times, bool is_key_frame) {
    if (failure_.empty()) {
        Pipeline::push(pipeline_->pictures.get(), unit, times,
                       is_key_frame ? 0U : guint{GST_BUFFER_FLAG_DELTA_UNIT});
    }
}

void Muxer::add_sound(std::span<const std::byte> packet, const Times& times) {
    if (failure_.empty() && pipeline_->sounds && !packet.empty()) {
        Pipeline::push(pipeline_->sounds.get(), packet, times, 0);
    }
}

void Muxer::end_sounds() {
    if (pipeline_->sounds) {
        gst_app_src_end_of_stream(GST_APP_SRC(pipeline_->sounds.get()));
    }
}

void Muxer::finish() {
    if (failure_.empty()) {
        gst_app_src_end_of_stream(GST_APP_SRC(pipeline_->pictures.get()));
        end_sounds();
    }
}

std::optional<Muxer::Piece> Muxer::take(std::chrono::milliseconds limit) {
    if (!failure_.empty()) {
        return {};
    }
    GstSample* const sample =
        gst_app_sink_try_pull_sample(GST_APP_SINK(pipeline_->file.get()),
                                     static_cast<GstClockTime>(limit.count()) * GST_MSECOND);
    return sample != nullptr ? std::optional<Piece>(sample) : std::nullopt;
}

bool Muxer::is_at_end() const {
    return pipeline_->file && gst_app_sink_is_eos(GST_APP_SINK(pipeline_->file.get())) != FALSE;
}

const std::string& Muxer::failure() {
    if (!failure_.empty()) {
        return failure_;
    }
    if (GstMessage* const message = gst_bus_pop_filtered(pipeline_->bus.get(), GST_MESSAGE_ERROR)) {
        GError* error = nullptr;
        gst_message_parse_error(message, &error, nullptr);
        failure_ = error->message;
        g_clear_error(&error);
        gst_message_unref(message);
    }
    return failure_;
}

// ---- a piece ----

struct Muxer::Piece::Mapped {
    explicit Mapped(GstSample* taken) : sample(taken), buffer(gst_sample_get_buffer(taken)) {
        is_mapped = gst_buffer_map(buffer, &map, GST_MAP_READ) != FALSE;
    }
    ~Mapped() {
        if (is_mapped) {
            gst_buffer_unmap(buffer, &map);
        }
        gst_sample_unref(sample);
    }
    Mapped(const Mapped&) = delete;
    Mapped& operator=(const Mapped&) = delete;

    GstSample* const sample;
    GstBuffer* const buffer;
    GstMapInfo map = GST_MAP_INFO_INIT;
    bool is_mapped = false;
};

Muxer::Piece::Piece(GstSample* sample) : mapped_(std::make_shared<Mapped>(sample)) {}

std::span<const std::byte> Muxer::Piece::bytes() const {
    if (!mapped_->is_mapped) {
        return {};
    }
    return std::as_bytes(std::span(mapped_->map.data, mapped_->map.size));
}

// The box "moof" of MP4, and the element Cluster of Matroska.
bool Muxer::Piece::begins_fragment() const {
    constexpr std::array<unsigned char, 4> movie_fragment{'m', 'o', 'o', 'f'};
    constexpr std::array<unsigned char, 4> cluster{0x1f, 0x43, 0xb6, 0x75};
    return !is_picture() &&
           (begins_with(bytes(), 4, movie_fragment) || begins_with(bytes(), 0, cluster));
}

// The parsers mark the end of each picture so.
bool Muxer::Piece::is_picture() const {
    return GST_BUFFER_FLAG_IS_SET(mapped_->buffer, GST_BUFFER_FLAG_MARKER);
}

}  // namespace zav_shm::mux
