// SPDX-License-Identifier: Apache-2.0
#include "apps/rtspd/hub_source.h"

#include <gst/base/gstpushsrc.h>

#include <algorithm>
#include <atomic>
#include <utility>

namespace zav_shm::rtspd {

namespace {

// Frames that are shown before the one that is sent first have smaller times.
constexpr std::int64_t first_time_ns = 1'000'000'000;

// What the element does; the object of GLib around it is a shell.
class Feed {
public:
    Feed(std::shared_ptr<Stream_Hub> hub, const Stream_Hub::Run& run, std::function<void()> at_end)
        : hub_(std::move(hub)), run_(run), at_end_(std::move(at_end)) {}

    void begin() {
        place_ = {};
        place_.run = run_.number;
        has_begun_ = false;
        interrupted_ = false;
    }

    void interrupt(bool is_interrupted) {
        interrupted_ = is_interrupted;
        hub_->wake();
    }

    GstFlowReturn next(GstBuffer** buffer) {
        Unit unit;
        switch (hub_->read(place_, unit, interrupted_)) {
            case Stream_Hub::Read::interrupted:
                return GST_FLOW_FLUSHING;
            case Stream_Hub::Read::ended:
                // The server ends the process when a stream ends before it has begun.
                if (!has_begun_) {
                    unit = run_.first;
                    break;
                }
                if (at_end_) {
                    std::exchange(at_end_, nullptr)();
                }
                return GST_FLOW_EOS;
            case Stream_Hub::Read::unit:
                break;
        }
        if (!std::exchange(has_begun_, true)) {
            origin_ns_ = unit.time_ns - first_time_ns;
        }
        // Another header of its own, the same bytes.
        *buffer = gst_buffer_copy(unit.buffer.get());
        GST_BUFFER_PTS(*buffer) =
            static_cast<GstClockTime>(std::max<std::int64_t>(unit.time_ns - origin_ns_, 0));
        if (unit.duration_ns > 0) {
            GST_BUFFER_DURATION(*buffer) = static_cast<GstClockTime>(unit.duration_ns);
        }
        if (unit.is_discontinuous) {
            GST_BUFFER_FLAG_SET(*buffer, GST_BUFFER_FLAG_DISCONT);
        }
        if (!unit.is_entry) {
            GST_BUFFER_FLAG_SET(*buffer, GST_BUFFER_FLAG_DELTA_UNIT);
        }
        return GST_FLOW_OK;
    }

    GstCaps* caps() const { return caps_of(run_.kind).release(); }

private:
    const std::shared_ptr<Stream_Hub> hub_;
    const Stream_Hub::Run run_;
    std::function<void()> at_end_;
    std::atomic<bool> interrupted_{false};
    Stream_Hub::Place place_;
    bool has_begun_ = false;
    std::int64_t origin_ns_ = 0;
};

struct ZavHubSource {
    GstPushSrc parent;
    Feed* feed;
};

struct ZavHubSourceClass {
    GstPushSrcClass parent;
};

// What the macro expands to has casts in the style of C.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wold-style-cast"
G_DEFINE_TYPE(ZavHubSource, hub_source, GST_TYPE_PUSH_SRC)
#pragma GCC diagnostic pop

Feed& feed_of(gpointer source) { return *static_cast<ZavHubSource*>(source)->feed; }

gboolean start_source(GstBaseSrc* source) {
    feed_of(source).begin();
    return TRUE;
}

gboolean unlock_source(GstBaseSrc* source) {
    feed_of(source).interrupt(true);
    return TRUE;
}

gboolean unlock_source_stop(GstBaseSrc* source) {
    feed_of(source).interrupt(false);
    return TRUE;
}

GstFlowReturn create_buffer(GstPushSrc* source, GstBuffer** buffer) {
    return feed_of(source).next(buffer);
}

GstCaps* source_caps(GstBaseSrc* source, GstCaps* filter) {
    GstCaps* const caps = feed_of(source).caps();
    if (filter == nullptr) {
        return caps;
    }
    GstCaps* const both = gst_caps_intersect_full(filter, caps, GST_CAPS_INTERSECT_FIRST);
    gst_caps_unref(caps);
    return both;
}

void finalize_source(GObject* object) {
    delete reinterpret_cast<ZavHubSource*>(object)->feed;
    G_OBJECT_CLASS(hub_source_parent_class)->finalize(object);
}

void hub_source_class_init(ZavHubSourceClass* type) {
    static GstStaticPadTemplate pad =
        GST_STATIC_PAD_TEMPLATE("src", GST_PAD_SRC, GST_PAD_ALWAYS, GST_STATIC_CAPS_ANY);
    auto* const element = GST_ELEMENT_CLASS(type);
    gst_element_class_add_static_pad_template(element, &pad);
    gst_element_class_set_static_metadata(element, "Stream of a history ring", "Source",
                                          "Gives one client what the hub of a stream has",
                                          "zav_shm");
    G_OBJECT_CLASS(type)->finalize = finalize_source;
    auto* const base = GST_BASE_SRC_CLASS(type);
    base->start = start_source;
    base->unlock = unlock_source;
    base->unlock_stop = unlock_source_stop;
    base->get_caps = source_caps;
    GST_PUSH_SRC_CLASS(type)->create = create_buffer;
}

void hub_source_init(ZavHubSource* source) {
    source->feed = nullptr;
    auto* const base = GST_BASE_SRC(source);
    gst_base_src_set_live(base, TRUE);
    gst_base_src_set_format(base, GST_FORMAT_TIME);
}

}  // namespace

GstElement* new_hub_source(std::shared_ptr<Stream_Hub> hub, const Stream_Hub::Run& run,
                           std::function<void()> at_end) {
    auto* const source = static_cast<ZavHubSource*>(g_object_new(hub_source_get_type(), nullptr));
    source->feed = new Feed(std::move(hub), run, std::move(at_end));
    return GST_ELEMENT(source);
}

}  // namespace zav_shm::rtspd
