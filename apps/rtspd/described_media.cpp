// SPDX-License-Identifier: Apache-2.0
#include "apps/rtspd/described_media.h"

#include <cstring>

namespace zav_shm::rtspd {

namespace {

struct ZavDescribedMedia {
    GstRTSPMedia parent;
    char* description;  // nullptr: not described yet
};

struct ZavDescribedMediaClass {
    GstRTSPMediaClass parent;
};

// What the macro expands to has casts in the style of C.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wold-style-cast"
G_DEFINE_TYPE(ZavDescribedMedia, described_media, GST_TYPE_RTSP_MEDIA)
#pragma GCC diagnostic pop

// The caller holds the lock of the media's state.
gboolean setup_sdp(GstRTSPMedia* media, GstSDPMessage* message, GstSDPInfo* info) {
    char*& kept = reinterpret_cast<ZavDescribedMedia*>(media)->description;
    if (kept != nullptr && gst_rtsp_media_get_status(media) == GST_RTSP_MEDIA_STATUS_SUSPENDED) {
        gst_sdp_message_uninit(message);
        gst_sdp_message_init(message);
        return gst_sdp_message_parse_buffer(reinterpret_cast<const guint8*>(kept),
                                            static_cast<guint>(std::strlen(kept)),
                                            message) == GST_SDP_OK
                   ? TRUE
                   : FALSE;
    }
    if (GST_RTSP_MEDIA_CLASS(described_media_parent_class)->setup_sdp(media, message, info) ==
        FALSE) {
        return FALSE;
    }
    g_free(kept);
    kept = gst_sdp_message_as_text(message);
    return TRUE;
}

void finalize_media(GObject* object) {
    g_free(reinterpret_cast<ZavDescribedMedia*>(object)->description);
    G_OBJECT_CLASS(described_media_parent_class)->finalize(object);
}

void described_media_class_init(ZavDescribedMediaClass* type) {
    G_OBJECT_CLASS(type)->finalize = finalize_media;
    type->parent.setup_sdp = setup_sdp;
}

void described_media_init(ZavDescribedMedia* media) { media->description = nullptr; }

}  // namespace

GType type_of_described_media() { return described_media_get_type(); }

}  // namespace zav_shm::rtspd
