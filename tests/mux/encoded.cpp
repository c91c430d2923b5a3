// SPDX-License-Identifier: Apache-2.0
#include "mux/encoded.h"

#include <gst/app/gstappsink.h>
#include <gst/gst.h>
#include <gtest/gtest.h>

#include <algorithm>

void start_encoders() {
    gst_init(nullptr, nullptr);
    g_thread_pool_set_max_unused_threads(0);  // they would be left for a while
    EXPECT_EQ(encoded("videotestsrc num-buffers=1").size(), 1U);
}

std::vector<Encoded> encoded(const std::string& pipeline) {
    GError* error = nullptr;
    GstElement* const whole =
        gst_parse_launch((pipeline + " ! appsink name=out sync=false").c_str(), &error);
    if (whole == nullptr) {
        ADD_FAILURE() << error->message;
        g_clear_error(&error);
        return {};
    }
    GstElement* const out = gst_bin_get_by_name(GST_BIN(whole), "out");
    gst_element_set_state(whole, GST_STATE_PLAYING);
    std::vector<Encoded> all;
    while (GstSample* const sample = gst_app_sink_pull_sample(GST_APP_SINK(out))) {
        GstBuffer* const buffer = gst_sample_get_buffer(sample);
        Encoded one;
        one.bytes.resize(gst_buffer_get_size(buffer));
        gst_buffer_extract(buffer, 0, one.bytes.data(), one.bytes.size());
        one.pts_ns = static_cast<std::int64_t>(GST_BUFFER_PTS(buffer));
        one.duration_ns = GST_BUFFER_DURATION_IS_VALID(buffer)
                              ? static_cast<std::int64_t>(GST_BUFFER_DURATION(buffer))
                              : 0;
        one.is_key = !GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_DELTA_UNIT);
        all.push_back(std::move(one));
        gst_sample_unref(sample);
    }
    gst_element_set_state(whole, GST_STATE_NULL);
    gst_object_unref(out);
    gst_object_unref(whole);
    gst_task_cleanup_all();
    EXPECT_FALSE(all.empty());
    const std::int64_t first_ns = all.empty() ? 0 : all.front().pts_ns;
    for (Encoded& one : all) {
        one.pts_ns -= first_ns;
    }
    return all;
}
