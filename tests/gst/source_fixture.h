// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <gst/gst.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "../center/center_fixture.h"
#include "frame/frame_publisher.h"
#include "frame/frame_subscriber.h"
#include "sink_fixture.h"

/// Streams of 64 KiB and 256 KiB.
inline constexpr const char* media_configuration = R"({
    "Stream": [{"index": 0, "page_size": 262144}, {"index": 1, "page_size": 65536}],
    "Distributor": [{"name": "CAM_LOOP", "channel": 2, "stream": [0, 1]}],
    "Receiver": [{"name": "RECODER", "channel": 2, "stream": [0, 1]}]
})";

inline constexpr std::int64_t ms = 1'000'000;  // in nanoseconds

/// What came out of a pipeline.
struct Taken {
    Bytes bytes;
    std::int64_t pts_ns = 0;
    std::int64_t running_ns = 0;  // -1: outside of the segment
    std::int64_t duration_ns = -1;
    std::int64_t utc_ns = 0;
    std::uint64_t sequence = 0;
    bool is_delta = false;
    bool is_discontinuous = false;
    std::string caps;
};

/// A pipeline that ends in elements "appsink name=out sync=false", from which its buffers are
/// taken.
class Taking_Pipeline {
public:
    explicit Taking_Pipeline(const std::string& text);
    ~Taking_Pipeline();
    Taking_Pipeline(const Taking_Pipeline&) = delete;
    Taking_Pipeline& operator=(const Taking_Pipeline&) = delete;

    GstStateChangeReturn set_state(GstState state) const;

    /// The next buffer, or nothing within two seconds, or behind the end.
    std::optional<Taken> next(const char* from = "out") const;
    std::vector<Taken> rest(const char* from = "out") const;

    /// The next element message of this name, or null within two seconds.
    Owned<GstMessage> message(const char* name) const;

    /// True when it comes to its end within twenty seconds.
    bool ends() const;

    /// The text of the error that comes within two seconds, or nothing.
    std::string error() const;

    Owned<GstElement> element(const char* name) const;
    guint64 figure(const char* name) const;

private:
    Owned<GstElement> pipeline_;
    Owned<GstBus> bus_;
};

/// Begins GStreamer as the tests of zavsink do.
class Any_Element : public Sink_Element {
public:
    using Sink_Element::SetUpTestSuite;
};

/// Fixture of tests with producers and a center of this process, and zavsrc in pipelines.
class Source_Element : public Center {
protected:
    static void SetUpTestSuite();
    void SetUp() override;
    void TearDown() override;

    /// Publishes one byte of value `number`; every `keys`th frame is a key frame.
    void publish(unsigned number, std::int64_t pts_ns, unsigned keys = 5);
    void publish(ZAV_SHM_Frame_Publisher& to, const Bytes& bytes,
                 const zav_shm::Frame_Info& info) const;

    /// Another publisher of the same stream, in the former one's place.
    void restart_producer();

    static ZAV_SHM_Frame_Publisher::Options camera_options();

    std::unique_ptr<ZAV_SHM_Frame_Publisher> camera;
};
