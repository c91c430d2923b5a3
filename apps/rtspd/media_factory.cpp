// SPDX-License-Identifier: Apache-2.0
#include "apps/rtspd/media_factory.h"

#include <gst/base/gstbasesink.h>

#include <functional>
#include <memory>

#include "apps/rtspd/access.h"
#include "apps/rtspd/described_media.h"
#include "apps/rtspd/hub_source.h"
#include "apps/rtspd/problem.h"

namespace zav_shm::rtspd {

namespace {

struct Recipe {
    Hubs& hubs;
    Stream_Address stream;
    std::chrono::milliseconds wait;
};

struct ZavHubFactory {
    GstRTSPMediaFactory parent;
    Recipe* recipe;
};

struct ZavHubFactoryClass {
    GstRTSPMediaFactoryClass parent;
};

// What the macro expands to has casts in the style of C.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wold-style-cast"
G_DEFINE_TYPE(ZavHubFactory, hub_factory, GST_TYPE_RTSP_MEDIA_FACTORY)
#pragma GCC diagnostic pop

// A client, from a thread that does not keep it alive.
class Weak_Client {
public:
    explicit Weak_Client(GstRTSPClient* client) { g_weak_ref_init(&client_, client); }
    ~Weak_Client() { g_weak_ref_clear(&client_); }
    Weak_Client(const Weak_Client&) = delete;
    Weak_Client& operator=(const Weak_Client&) = delete;

    void close() {
        const Object_Reference<GstRTSPClient> client(
            static_cast<GstRTSPClient*>(g_weak_ref_get(&client_)));
        if (client) {
            gst_rtsp_client_close(client.get());
        }
    }

private:
    GWeakRef client_{};
};

// Time for the client to take the goodbye of RTCP before the connection ends.
constexpr guint goodbye_ms = 500;

// Closes the client from the main thread. Nothing is done for one that has left meanwhile.
void close_soon(const std::shared_ptr<Weak_Client>& client) {
    g_timeout_add_full(
        G_PRIORITY_DEFAULT, goodbye_ms,
        [](gpointer held) -> gboolean {
            (*static_cast<std::shared_ptr<Weak_Client>*>(held))->close();
            return G_SOURCE_REMOVE;
        },
        new std::shared_ptr<Weak_Client>(client),
        [](gpointer held) { delete static_cast<std::shared_ptr<Weak_Client>*>(held); });
}

constexpr GstClockTimeDiff long_ago_ns = G_MAXINT64 / 2;

GstElement* bin_of(GstElement* source, GstElement* payloader) {
    GstElement* const bin = gst_bin_new(nullptr);
    gst_bin_add_many(GST_BIN(bin), source, payloader, nullptr);
    if (gst_element_link(source, payloader) == FALSE) {
        gst_object_unref(gst_object_ref_sink(bin));
        return nullptr;
    }
    return bin;
}

GstElement* create_element(GstRTSPMediaFactory* factory, const GstRTSPUrl* /*url*/) {
    const Recipe& recipe = *reinterpret_cast<ZavHubFactory*>(factory)->recipe;
    auto hub = recipe.hubs.hub(recipe.stream);
    const auto run = hub->wait_for_picture(recipe.wait);
    if (!run) {
        return nullptr;
    }
    const char* const kind = payloader_of(run->kind);
    GstElement* const payloader = gst_element_factory_make(kind, "pay0");
    if (payloader == nullptr) {
        write_log(Log_Level::error, std::string("GStreamer's element \"") + kind +
                                        "\" is missing; install the packages of docs/rtsp.md");
        return nullptr;
    }
    std::function<void()> at_end;
    if (GstRTSPContext* const context = gst_rtsp_context_get_current()) {
        at_end = [client = std::make_shared<Weak_Client>(context->client),
                  name = recipe.stream.text()] {
            write_log(Log_Level::notice, name, "has another format now, its sessions end");
            close_soon(client);
        };
    }
    return bin_of(new_hub_source(std::move(hub), *run, std::move(at_end)), payloader);
}

// Nothing has to wait for the time of a frame: frames come when they are due, and what is older
// goes out at once. The server turns synchronization itself on again at each PLAY, so every time is
// made one of the past.
void let_go_at_once(GstBin* /*pipeline*/, GstBin* /*below*/, GstElement* element, gpointer) {
    if (GST_IS_BASE_SINK(element)) {
        gst_base_sink_set_ts_offset(GST_BASE_SINK(element), -long_ago_ns);
    }
}

void configure_media(GstRTSPMediaFactory* factory, GstRTSPMedia* media) {
    const Object_Reference<GstElement> element(gst_rtsp_media_get_element(media));
    const Object_Reference<GstObject> pipeline(gst_object_get_parent(GST_OBJECT(element.get())));
    if (pipeline) {
        g_signal_connect(pipeline.get(), "deep-element-added", G_CALLBACK(let_go_at_once), nullptr);
    }
    GST_RTSP_MEDIA_FACTORY_CLASS(hub_factory_parent_class)->configure(factory, media);
}

void finalize_factory(GObject* object) {
    delete reinterpret_cast<ZavHubFactory*>(object)->recipe;
    G_OBJECT_CLASS(hub_factory_parent_class)->finalize(object);
}

void hub_factory_class_init(ZavHubFactoryClass* type) {
    G_OBJECT_CLASS(type)->finalize = finalize_factory;
    type->parent.create_element = create_element;
    type->parent.configure = configure_media;
}

void hub_factory_init(ZavHubFactory* factory) {
    factory->recipe = nullptr;
    auto* const base = GST_RTSP_MEDIA_FACTORY(factory);
    gst_rtsp_media_factory_set_media_gtype(base, type_of_described_media());
    gst_rtsp_media_factory_set_shared(base, FALSE);
    // What was prepared for the description is thrown away: between it and PLAY any time may pass,
    // and the client wants the picture of then.
    gst_rtsp_media_factory_set_suspend_mode(base, GST_RTSP_SUSPEND_MODE_RESET);
    gst_rtsp_media_factory_set_protocols(
        base, static_cast<GstRTSPLowerTrans>(GST_RTSP_LOWER_TRANS_UDP | GST_RTSP_LOWER_TRANS_TCP));
    gst_rtsp_media_factory_set_stop_on_disconnect(base, TRUE);
    let_viewers_play(base);
}

}  // namespace

Object_Reference<GstRTSPMediaFactory> new_media_factory(Hubs& hubs, const Stream_Address& stream,
                                                        std::chrono::milliseconds wait) {
    auto* const factory =
        static_cast<ZavHubFactory*>(g_object_new(hub_factory_get_type(), nullptr));
    factory->recipe = new Recipe{hubs, stream, wait};
    return Object_Reference<GstRTSPMediaFactory>(GST_RTSP_MEDIA_FACTORY(factory));
}

}  // namespace zav_shm::rtspd
