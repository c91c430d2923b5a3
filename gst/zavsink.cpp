// SPDX-License-Identifier: Apache-2.0
//
// zavsink, as GStreamer sees it: the element's type, its pad and its virtual functions. What it
// does is in sink.h.
#include <gst/base/gstbasesink.h>

#include "gst/format_caps.h"
#include "gst/plugin.h"
#include "gst/sink.h"
#include "gst/sink_settings.h"

using zav_shm::gst::Sink;

namespace {

struct Element {
    GstBaseSink parent;
    Sink* sink;
};

GstBaseSinkClass* base_class = nullptr;  // set once, before there is an element

GType element_type();

Sink& sink_of(gpointer object) {
    return *G_TYPE_CHECK_INSTANCE_CAST(object, element_type(), Element)->sink;
}

void finalize(GObject* object) {
    delete &sink_of(object);
    G_OBJECT_CLASS(base_class)->finalize(object);
}

void set_property(GObject* object, guint id, const GValue* value, GParamSpec* property) {
    if (!sink_of(object).set_property(id, value)) {
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, property);
    }
}

void get_property(GObject* object, guint id, GValue* value, GParamSpec* property) {
    if (!sink_of(object).get_property(id, value)) {
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, property);
    }
}

gboolean start(GstBaseSink* element) { return sink_of(element).start() ? TRUE : FALSE; }

gboolean stop(GstBaseSink* element) {
    sink_of(element).stop();
    return TRUE;
}

gboolean set_caps(GstBaseSink* element, GstCaps* caps) {
    return sink_of(element).set_caps(caps) ? TRUE : FALSE;
}

GstFlowReturn render(GstBaseSink* element, GstBuffer* buffer) {
    return sink_of(element).render(buffer);
}

gboolean propose_allocation(GstBaseSink* element, GstQuery* query) {
    return sink_of(element).propose_allocation(query) ? TRUE : FALSE;
}

gboolean event(GstBaseSink* element, GstEvent* event) {
    sink_of(element).see_event(event);
    return base_class->event(element, event);
}

gboolean query(GstBaseSink* element, GstQuery* query) {
    const gboolean known = base_class->query(element, query);
    if (GST_QUERY_TYPE(query) == GST_QUERY_ACCEPT_CAPS) {
        gboolean accepted = FALSE;
        gst_query_parse_accept_caps_result(query, &accepted);
        if (known != FALSE && accepted == FALSE) {
            GstCaps* caps = nullptr;
            gst_query_parse_accept_caps(query, &caps);
            sink_of(element).tell_refused_caps(caps);
        }
    }
    return known;
}

void init_class(gpointer type, gpointer /*data*/) {
    base_class = GST_BASE_SINK_CLASS(g_type_class_peek_parent(type));
    GObjectClass* const object = G_OBJECT_CLASS(type);
    object->finalize = finalize;
    object->set_property = set_property;
    object->get_property = get_property;
    zav_shm::gst::install_sink_properties(object);

    GstElementClass* const element = GST_ELEMENT_CLASS(type);
    gst_element_class_set_static_metadata(
        element, "Shared-memory stream sink", "Sink",
        "Publishes encoded frames, or raw pictures, to any number of processes of this device",
        "zav_shm");
    GstCaps* const caps = zav_shm::gst::all_caps();
    gst_element_class_add_pad_template(
        element, gst_pad_template_new("sink", GST_PAD_SINK, GST_PAD_ALWAYS, caps));
    gst_caps_unref(caps);

    GstBaseSinkClass* const base = GST_BASE_SINK_CLASS(type);
    base->start = start;
    base->stop = stop;
    base->set_caps = set_caps;
    base->render = render;
    base->propose_allocation = propose_allocation;
    base->event = event;
    base->query = query;
}

void init(GTypeInstance* instance, gpointer /*type*/) {
    void* const self = instance;
    auto* const element = static_cast<GstBaseSink*>(self);
    static_cast<Element*>(self)->sink = new Sink(element);
    // A live source decides when its frames come, and a recording pipeline is not to wait for it.
    gst_base_sink_set_sync(element, FALSE);
    gst_base_sink_set_async_enabled(element, FALSE);
    // The last buffer may lie in the history, which is overwritten.
    gst_base_sink_set_last_sample_enabled(element, FALSE);
}

GType element_type() {
    static const GType type =
        g_type_register_static_simple(GST_TYPE_BASE_SINK, "ZavSink", sizeof(GstBaseSinkClass),
                                      init_class, sizeof(Element), init, G_TYPE_FLAG_FINAL);
    return type;
}

}  // namespace

namespace zav_shm::gst {

bool register_zavsink(GstPlugin* plugin) {
    return gst_element_register(plugin, "zavsink", GST_RANK_NONE, element_type()) != FALSE;
}

}  // namespace zav_shm::gst
