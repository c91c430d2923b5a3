// SPDX-License-Identifier: Apache-2.0
//
// zavsrc, as GStreamer sees it: the element's type, its pad and its virtual functions. What it
// does is in source.h.
#include <gst/base/gstpushsrc.h>
#include <gst/video/video-event.h>

#include "gst/format_caps.h"
#include "gst/plugin.h"
#include "gst/source.h"
#include "gst/source_settings.h"

using zav_shm::gst::Source;

namespace {

struct Element {
    GstPushSrc parent;
    Source* source;
};

GstPushSrcClass* base_class = nullptr;  // set once, before there is an element

GType element_type();

Source& source_of(gpointer object) {
    return *G_TYPE_CHECK_INSTANCE_CAST(object, element_type(), Element)->source;
}

void finalize(GObject* object) {
    delete &source_of(object);
    G_OBJECT_CLASS(base_class)->finalize(object);
}

void set_property(GObject* object, guint id, const GValue* value, GParamSpec* property) {
    if (!source_of(object).set_property(id, value)) {
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, property);
    }
}

void get_property(GObject* object, guint id, GValue* value, GParamSpec* property) {
    if (!source_of(object).get_property(id, value)) {
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, property);
    }
}

gboolean start(GstBaseSrc* element) { return source_of(element).start() ? TRUE : FALSE; }

gboolean stop(GstBaseSrc* element) {
    source_of(element).stop();
    return TRUE;
}

gboolean unlock(GstBaseSrc* element) {
    source_of(element).unlock();
    return TRUE;
}

gboolean unlock_stop(GstBaseSrc* element) {
    source_of(element).unlock_stop();
    return TRUE;
}

gboolean is_seekable(GstBaseSrc* /*element*/) { return FALSE; }

GstFlowReturn create(GstPushSrc* element, GstBuffer** buffer) {
    *buffer = nullptr;
    return source_of(element).create(buffer);
}

GstCaps* get_caps(GstBaseSrc* element, GstCaps* filter) {
    GstCaps* caps = source_of(element).caps();
    if (filter != nullptr) {
        GstCaps* const both = gst_caps_intersect_full(filter, caps, GST_CAPS_INTERSECT_FIRST);
        gst_caps_unref(caps);
        caps = both;
    }
    return caps;
}

// The first frame says what the stream carries; until then there is nothing to agree on.
gboolean negotiate(GstBaseSrc* /*element*/) { return TRUE; }

gboolean query(GstBaseSrc* element, GstQuery* query) {
    if (GST_QUERY_TYPE(query) == GST_QUERY_LATENCY) {
        source_of(element).answer_latency(query);
        return TRUE;
    }
    return GST_BASE_SRC_CLASS(base_class)->query(element, query);
}

gboolean event(GstBaseSrc* element, GstEvent* event) {
    if (gst_video_event_is_force_key_unit(event) != FALSE) {
        source_of(element).request_key_frame();
        return TRUE;
    }
    return GST_BASE_SRC_CLASS(base_class)->event(element, event);
}

gboolean send_event(GstElement* element, GstEvent* event) {
    if (GST_EVENT_TYPE(event) == GST_EVENT_FLUSH_STOP) {
        source_of(element).note_flush();
    }
    return GST_ELEMENT_CLASS(base_class)->send_event(element, event);
}

void init_class(gpointer type, gpointer /*data*/) {
    base_class = GST_PUSH_SRC_CLASS(g_type_class_peek_parent(type));
    GObjectClass* const object = G_OBJECT_CLASS(type);
    object->finalize = finalize;
    object->set_property = set_property;
    object->get_property = get_property;
    zav_shm::gst::install_source_properties(object);

    GstElementClass* const element = GST_ELEMENT_CLASS(type);
    element->send_event = send_event;
    gst_element_class_set_static_metadata(
        element, "Shared-memory stream source", "Source",
        "Takes the frames that another process of this device publishes", "zav_shm");
    GstCaps* const caps = zav_shm::gst::all_caps();
    gst_element_class_add_pad_template(
        element, gst_pad_template_new("src", GST_PAD_SRC, GST_PAD_ALWAYS, caps));
    gst_caps_unref(caps);

    GstBaseSrcClass* const base = GST_BASE_SRC_CLASS(type);
    base->start = start;
    base->stop = stop;
    base->unlock = unlock;
    base->unlock_stop = unlock_stop;
    base->is_seekable = is_seekable;
    base->get_caps = get_caps;
    base->negotiate = negotiate;
    base->query = query;
    base->event = event;
    GST_PUSH_SRC_CLASS(type)->create = create;
}

void init(GTypeInstance* instance, gpointer /*type*/) {
    void* const self = instance;
    auto* const element = static_cast<GstBaseSrc*>(self);
    static_cast<Element*>(self)->source = new Source(element);
    gst_base_src_set_live(element, TRUE);
    gst_base_src_set_format(element, GST_FORMAT_TIME);
    gst_base_src_set_do_timestamp(element, FALSE);
}

GType element_type() {
    static const GType type =
        g_type_register_static_simple(GST_TYPE_PUSH_SRC, "ZavSrc", sizeof(GstPushSrcClass),
                                      init_class, sizeof(Element), init, G_TYPE_FLAG_FINAL);
    return type;
}

}  // namespace

namespace zav_shm::gst {

bool register_zavsrc(GstPlugin* plugin) {
    return gst_element_register(plugin, "zavsrc", GST_RANK_NONE, element_type()) != FALSE;
}

}  // namespace zav_shm::gst
