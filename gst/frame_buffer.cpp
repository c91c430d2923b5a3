// SPDX-License-Identifier: Apache-2.0
#include "gst/frame_buffer.h"

#include "gst/format_caps.h"

namespace zav_shm::gst {

namespace {

void add_capture_time(GstBuffer* buffer, std::int64_t utc_ns) {
    static GstStaticCaps unix_time = GST_STATIC_CAPS("timestamp/x-unix");
    GstCaps* const caps = gst_static_caps_get(&unix_time);
    gst_buffer_add_reference_timestamp_meta(buffer, caps, static_cast<GstClockTime>(utc_ns),
                                            GST_CLOCK_TIME_NONE);
    gst_caps_unref(caps);
}

/// The greatest of the causes; what else was missed stands beside it.
const char* cause_of(const Frame_Losses& losses, std::uint64_t discarded) {
    struct {
        const char* name;
        std::uint64_t count;
    } greatest{"overtaken", losses.overtaken};
    const auto compare = [&greatest](const char* name, std::uint64_t count) {
        if (count > greatest.count) {
            greatest = {name, count};
        }
    };
    compare("left-out", losses.left_out);
    compare("no-memory", losses.no_memory);
    compare("dropped", losses.dropped);
    compare("skipped", losses.skipped);
    compare("discarded", discarded);
    return greatest.name;
}

}  // namespace

GstBuffer* buffer_of(const Frame_View& frame) {
    const auto payload = frame.payload();
    GstBuffer* const buffer = gst_buffer_new_allocate(nullptr, payload.size(), nullptr);
    if (buffer == nullptr) {
        return nullptr;
    }
    gst_buffer_fill(buffer, 0, payload.data(), payload.size());
    if (!frame.is_whole()) {
        gst_buffer_unref(buffer);
        return nullptr;
    }
    const ZAV_SHM_Frame_Header& header = frame.header;
    if (header.duration_us != 0) {
        GST_BUFFER_DURATION(buffer) = header.duration_us * GST_USECOND;
    }
    if (frame.verified) {
        GST_BUFFER_OFFSET(buffer) = header.sequence;
        GST_BUFFER_OFFSET_END(buffer) = header.sequence + 1;
    }
    const bool stands_alone =
        !frame.verified || frame.is_entry_point() || is_every_frame_a_key_frame(header.codec);
    if (!stands_alone) {
        GST_BUFFER_FLAG_SET(buffer, GST_BUFFER_FLAG_DELTA_UNIT);
    }
    if (header.utc_ns > 0) {
        add_capture_time(buffer, header.utc_ns);
    }
    return buffer;
}

GstStructure* losses_of(const Frame_Facts& frame, std::uint64_t discarded) {
    const Frame_Losses& losses = frame.before;
    if (!losses.any() && discarded == 0) {
        return nullptr;
    }
    const std::uint64_t count = losses.lost() + losses.dropped + losses.skipped + discarded;
    return gst_structure_new(
        "zavsrc-loss", "cause", G_TYPE_STRING, cause_of(losses, discarded), "count", G_TYPE_UINT64,
        count, "sequence", G_TYPE_UINT64, frame.header.sequence, "overtaken", G_TYPE_UINT64,
        losses.overtaken, "left-out", G_TYPE_UINT64, losses.left_out, "no-memory", G_TYPE_UINT64,
        losses.no_memory, "dropped", G_TYPE_UINT64, losses.dropped, "skipped", G_TYPE_UINT64,
        losses.skipped, "discarded", G_TYPE_UINT64, discarded, nullptr);
}

}  // namespace zav_shm::gst
