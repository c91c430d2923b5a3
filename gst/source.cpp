// SPDX-License-Identifier: Apache-2.0
#include "gst/source.h"

#include <algorithm>
#include <utility>

#include "apps/text/reading_start.h"
#include "gst/format_caps.h"
#include "gst/frame_buffer.h"
#include "ipc/monotonic_clock.h"

using namespace std::chrono_literals;

namespace zav_shm::gst {

namespace {

constexpr std::size_t name_bytes_max = 31;

// How often it is looked at while no frame comes where the element stands.
constexpr std::int64_t look_interval_ns = ns_per_second;

// While the other streams of the timeline are waited for.
constexpr auto timeline_look = 2ms;

std::string mistake_in(const Source_Settings& settings) {
    for (const std::string* name : {&settings.producer, &settings.consumer}) {
        if (name->size() > name_bytes_max || name->find('/') != std::string::npos) {
            return "\"" + *name + "\" is no name: it has a slash, or more than " +
                   std::to_string(name_bytes_max) + " bytes";
        }
    }
    if (settings.producer.empty()) {
        return "property \"producer\" has to say whose frames are wanted";
    }
    const std::string mistake = start_mistake(settings.from);
    return mistake.empty() ? mistake : "property \"from\": " + mistake;
}

// The pipeline, or what the element is in.
const void* top_of(GstElement* element) {
    GstObject* top = GST_OBJECT(gst_object_ref(element));
    while (GstObject* const parent = gst_object_get_parent(top)) {
        gst_object_unref(top);
        top = parent;
    }
    gst_object_unref(top);
    return top;
}

bool is_same(const Frame_Format& left, const Frame_Format& right) {
    return left.codec == right.codec && left.width == right.width && left.height == right.height &&
           left.rate_num == right.rate_num && left.rate_den == right.rate_den &&
           left.channels == right.channels;
}

}  // namespace

Source::~Source() {
    gst_clear_caps(&given_caps_);
    gst_clear_caps(&stream_caps_);
}

// ---- start and stop ----

bool Source::start() {
    {
        const Guard guard(mutex_);
        used_ = settings_;
    }
    const std::string mistake = mistake_in(used_);
    if (!mistake.empty() || !waker_.is_open()) {
        GST_ELEMENT_ERROR(element_, RESOURCE, SETTINGS, ("%s", mistake.c_str()), (nullptr));
        return false;
    }
    char* const name = gst_element_get_name(element_);
    auto opening = std::make_shared<ZAV_SHM_Frame_Subscriber>(used_.subscriber_options(name));
    g_free(name);
    const Opened opened = opening->open();
    if (opened.refused) {
        GST_ELEMENT_ERROR(
            element_, RESOURCE, NOT_AUTHORIZED,
            ("The center refuses to let this element read %s.", used_.title().c_str()),
            ("%s", opened.reason.c_str()));
        return false;
    }
    clock_ = std::make_unique<Stream_Clock>(
        Timeline::of(top_of(GST_ELEMENT(element_)), used_.timeline_name()), used_.alignment(),
        used_.timestamps);
    frame_ = std::make_unique<Frame_View>();
    reading_ = opening;
    has_frame_ = has_begun_ = has_had_frame_ = is_over_ = told_silence_ = false;
    is_discontinuous_ = true;
    format_.reset();
    shift_ns_ = 0;
    told_state_ = Frame_State::closed;
    latency_ns_ = std::max<std::int64_t>(used_.latency_ms, 0) * ns_per_ms;
    discarded_ = 0;
    const Guard guard(mutex_);
    subscriber_ = std::move(opening);
    gst_clear_caps(&stream_caps_);
    return true;
}

void Source::stop() {
    reading_->close();
    reading_.reset();
    frame_.reset();
    clock_.reset();
}

// ---- create ----

GstFlowReturn Source::create(GstBuffer** buffer) {
    for (;;) {
        if (waker_.is_awake()) {
            return GST_FLOW_FLUSHING;
        }
        if (is_over_) {
            return GST_FLOW_EOS;
        }
        begin_or_go_on();
        GstFlowReturn flow = has_frame_ ? GST_FLOW_OK : receive();
        if (flow != GST_FLOW_OK) {
            return flow;
        }
        if (!has_frame_) {
            continue;
        }
        const std::int64_t now_ns = monotonic_ns();
        const auto presented = clock_->present(*frame_, now_ns);
        if (!presented) {
            waker_.wait(-1, timeline_look);
            continue;
        }
        has_frame_ = false;
        learn_latency(*presented, now_ns);
        flow = take(*presented, buffer);
        if (flow != GST_FLOW_OK || *buffer != nullptr) {
            return flow;
        }
    }
}

// When the pipeline begins to play, and when it does again.
void Source::begin_or_go_on() {
    const bool was_flushed = flushed_.exchange(false);
    if (has_begun_ && !was_flushed && !running_.was_restarted()) {
        return;
    }
    // A stream that is live goes on where it is now, and one that is read from its past where it
    // was left, as behind in its running time as before.
    const bool is_live = used_.alignment() == Stream_Clock::Align::live;
    const Start from = parse_start(used_.from).value_or(start::newest_key);
    const bool goes_on_now = from.at == Start::At::newest || from.at == Start::At::newest_key;
    if (!has_begun_ || (is_live && goes_on_now)) {
        reading_->seek(from);
        has_frame_ = false;
    }
    if (!has_begun_ || is_live || was_flushed) {
        running_.take();
    } else {
        running_.keep_running_time();
    }
    if (was_flushed) {
        clock_->begin_anew();
    }
    is_discontinuous_ = true;
    has_begun_ = true;
    last_frame_ns_ = monotonic_ns();
}

// The next frame, or nothing once in a while.
GstFlowReturn Source::receive() {
    switch (reading_->receive_view(*frame_, 0ms)) {
        case Receive_Status::frame:
            break;
        case Receive_Status::timeout:
            return wait_for_frame();
        case Receive_Status::closed:
            return fail(GST_RESOURCE_ERROR_READ, "The stream cannot be read in this process.",
                        reading_->reason());
    }
    const std::int64_t now_ns = monotonic_ns();
    last_frame_ns_ = now_ns;
    told_silence_ = false;
    has_frame_ = true;
    if (frame_->epoch_changed && has_had_frame_) {
        if (used_.restart == Source_Settings::Restart::error) {
            return fail(GST_RESOURCE_ERROR_READ,
                        "The producer of " + used_.title() + " was started again.",
                        "property restart is error");
        }
        post(gst_structure_new("zavsrc-restart", "epoch", G_TYPE_UINT64, frame_->header.epoch,
                               nullptr));
    }
    if (now_ns >= next_look_ns_) {
        return look_at_state();
    }
    return GST_FLOW_OK;
}

GstFlowReturn Source::wait_for_frame() {
    std::int64_t until_ns = last_frame_ns_ + look_interval_ns;
    const std::int64_t now_ns = monotonic_ns();
    for (const guint silence_ms : {used_.timeout_ms, used_.gap_ms}) {
        if (silence_ms != 0 && last_frame_ns_ + silence_ms * ns_per_ms > now_ns) {
            until_ns = std::min(until_ns, last_frame_ns_ + silence_ms * ns_per_ms);
        }
    }
    const std::int64_t wait_ms = (until_ns - now_ns + ns_per_ms - 1) / ns_per_ms;
    const int descriptor = reading_->descriptor();
    waker_.wait(descriptor, descriptor >= 0 ? std::chrono::milliseconds(std::clamp<std::int64_t>(
                                                  wait_ms, 100, look_interval_ns / ns_per_ms))
                                            : 5ms);
    const GstFlowReturn flow = look_at_state();
    return flow == GST_FLOW_OK ? look_at_silence(monotonic_ns()) : flow;
}

// Where the element stands, told when it changes.
GstFlowReturn Source::look_at_state() {
    next_look_ns_ = monotonic_ns() + look_interval_ns;
    const Frame_State state = reading_->state();
    if (state == told_state_) {
        return GST_FLOW_OK;
    }
    const bool has_been_there = told_state_ != Frame_State::closed;
    told_state_ = state;
    const std::string reason = reading_->reason();
    post(gst_structure_new("zavsrc-state", "state", G_TYPE_STRING, name_of(state), "reason",
                           G_TYPE_STRING, reason.c_str(), nullptr));
    const bool is_bad = state == Frame_State::waiting_for_center || state == Frame_State::refused;
    if (is_bad && has_been_there && used_.restart == Source_Settings::Restart::error) {
        return fail(GST_RESOURCE_ERROR_READ,
                    "The center of " + used_.title() + " is gone, or refuses this element.",
                    reason);
    }
    return GST_FLOW_OK;
}

GstFlowReturn Source::look_at_silence(std::int64_t now_ns) {
    const std::int64_t silent_ms = (now_ns - last_frame_ns_) / ns_per_ms;
    if (used_.timeout_ms != 0 && silent_ms >= used_.timeout_ms && !told_silence_) {
        told_silence_ = true;
        if (used_.restart == Source_Settings::Restart::error) {
            return fail(GST_RESOURCE_ERROR_READ,
                        "No frame of " + used_.title() + " has come for " +
                            std::to_string(used_.timeout_ms) + " ms.",
                        reading_->reason());
        }
        post(gst_structure_new("zavsrc-timeout", "timeout", G_TYPE_UINT64,
                               guint64{used_.timeout_ms}, nullptr));
    }
    if (used_.gap_ms != 0 && silent_ms >= used_.gap_ms) {
        send_gap(now_ns);
    }
    return GST_FLOW_OK;
}

// ---- from frame to buffer ----

// No buffer when this frame is none.
GstFlowReturn Source::take(const Stream_Clock::Presented& presented, GstBuffer** buffer) {
    const bool says_end =
        frame_->verified && (frame_->header.flags & frame_flag::end_of_stream) != 0;
    is_over_ = says_end && used_.ends;
    if (const GstFlowReturn flow = follow_format(); flow != GST_FLOW_OK) {
        return flow;
    }
    const std::size_t length = frame_->payload().size();
    const bool has_length = length != 0 && (payload_bytes_ == 0 || length == payload_bytes_);
    GstBuffer* const made = has_length ? buffer_of(*frame_) : nullptr;
    if (frame_->before.any() || frame_->epoch_changed || !presented.goes_on ||
        presented.is_another_time || (frame_->header.flags & frame_flag::discontinuity) != 0) {
        is_discontinuous_ = true;
    }
    if (decoding_ && !presented.goes_on) {
        decoding_->restart();
    }
    tell_losses();
    if (made == nullptr) {
        if (!(length == 0 && says_end)) {
            ++discarded_;
            ++discarded_before_;
            is_discontinuous_ = true;
        }
        return GST_FLOW_OK;
    }
    give_times(made, presented);
    if (std::exchange(is_discontinuous_, false)) {
        GST_BUFFER_FLAG_SET(made, GST_BUFFER_FLAG_DISCONT);
    }
    has_had_frame_ = true;
    *buffer = made;
    return GST_FLOW_OK;
}

// In the order of the stream: this runs before the frame's buffer is pushed.
GstFlowReturn Source::follow_format() {
    const ZAV_SHM_Frame_Header& header = frame_->header;
    const Frame_Format format{header.codec,    header.width,    header.height,
                              header.rate_num, header.rate_den, header.channels};
    if (format_ && is_same(*format_, format)) {
        return GST_FLOW_OK;
    }
    GstCaps* caps = nullptr;
    {
        const Guard guard(mutex_);
        caps = given_caps_ != nullptr ? gst_caps_ref(given_caps_) : nullptr;
    }
    std::string why_not =
        frame_->verified ? "" : "its frames have no header: property caps has to say what they are";
    if (caps == nullptr && frame_->verified) {
        caps = caps_of(format, why_not);
    }
    if (caps == nullptr) {
        GST_ELEMENT_ERROR(element_, STREAM, WRONG_TYPE,
                          ("Nothing is known of what %s carries.", used_.title().c_str()),
                          ("%s", why_not.c_str()));
        return GST_FLOW_ERROR;
    }
    format_ = format;
    follow_reordering();
    payload_bytes_ = payload_bytes_of(format);
    GstCaps* const former = gst_pad_get_current_caps(GST_BASE_SRC_PAD(element_));
    const bool is_news = former == nullptr || gst_caps_is_equal(former, caps) == FALSE;
    if (former != nullptr) {
        gst_caps_unref(former);
    }
    {
        const Guard guard(mutex_);
        gst_caps_replace(&stream_caps_, caps);
    }
    const bool accepted = !is_news || gst_base_src_set_caps(element_, caps) != FALSE;
    gst_caps_unref(caps);
    return accepted ? GST_FLOW_OK : GST_FLOW_NOT_NEGOTIATED;
}

// What lies before the first frame was not to be taken.
void Source::tell_losses() {
    const std::uint64_t discarded = std::exchange(discarded_before_, 0);
    GstStructure* const losses = losses_of(*frame_, discarded);
    if (losses != nullptr && has_had_frame_) {
        post(losses);
    } else if (losses != nullptr) {
        gst_structure_free(losses);
    }
}

}  // namespace zav_shm::gst
