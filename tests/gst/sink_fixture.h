// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <gst/check/gstharness.h>
#include <gst/gst.h>
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "../center/center_fixture.h"
#include "frame/frame_subscriber.h"

using Bytes = std::vector<std::byte>;

/// Access units that are just long enough to be read: the first bytes of NAL units, and filling.
Bytes key_unit(std::size_t filling = 20);
Bytes key_unit_without_sets(std::size_t filling = 20);
Bytes delta_unit(std::size_t filling = 20);

/// What zavsink takes of H.264.
inline constexpr const char* h264_caps =
    "video/x-h264, stream-format=byte-stream, alignment=au, width=64, height=48, framerate=25/1";

/// Owner of what GStreamer hands out.
struct Unref {
    void operator()(gpointer object) const { gst_object_unref(object); }
    void operator()(GstHarness* harness) const { gst_harness_teardown(harness); }
    void operator()(GstMessage* message) const { gst_message_unref(message); }
    void operator()(GstStructure* structure) const { gst_structure_free(structure); }
};
template <class Object>
using Owned = std::unique_ptr<Object, Unref>;

/// Fixture of tests with a zavsink of this process, and a tap that reads its stream.
class Sink_Element : public Center {
protected:
    static void SetUpTestSuite();
    void TearDown() override;

    /// A zavsink that publishes stream 0 of channel 0 of CAM_LOOP.
    ///
    /// @param properties  as on a command line, "unit-limit=100 lend=false"
    static Owned<GstElement> element(const std::string& properties = "");

    /// Starts it, and feeds it by hand. Its messages go to `bus`.
    void begin(const std::string& properties = "", const char* caps = h264_caps);

    /// A buffer of the stream, pushed.
    struct Sent {
        GstClockTime pts = GST_CLOCK_TIME_NONE;
        GstClockTime duration = GST_CLOCK_TIME_NONE;
        guint flags = 0;
        GstClockTime utc = GST_CLOCK_TIME_NONE;
    };
    GstFlowReturn push(const Bytes& bytes, const Sent& sent) const;
    GstFlowReturn push(const Bytes& bytes) const { return push(bytes, Sent{}); }

    /// The next frame, or nothing within a second.
    std::optional<zav_shm::Received_Frame> next();

    /// The next message of the bus with this name, or null within a second.
    Owned<GstMessage> message(const char* name) const;

    /// Everything that the element counts, or one of its figures.
    Owned<GstStructure> stats() const;
    guint64 figure(const char* name) const;

    /// Runs a pipeline, in which "$SINK" stands for zavsink, to its end.
    ///
    /// @return the message of its error, or an empty text.
    std::string run(std::string pipeline);

    /// Called with the pipeline before it runs.
    std::function<void(GstElement*)> prepare = [](GstElement* /*pipeline*/) {};

    Owned<GstElement> sink;
    Owned<GstHarness> harness;
    Owned<GstBus> bus;
    ZAV_SHM_Frame_Subscriber tap{{.producer = "CAM_LOOP", .from = zav_shm::start::oldest}};
};
