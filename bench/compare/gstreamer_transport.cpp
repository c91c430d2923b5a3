// SPDX-License-Identifier: Apache-2.0
//
// GStreamer: appsrc ! shmsink, shmsrc ! appsink. Buffers come from a pool that lies in shmsink's
// own shared memory, as those of an encoder do that asks its sink for an allocator; so no copy is
// made.
//
// A buffer is free again when every connected consumer has given it back. With Flow::drop a frame
// that finds no free buffer is dropped; nothing in shmsink drops for one consumer only.

#include <gst/app/gstappsink.h>
#include <gst/app/gstappsrc.h>
#include <gst/gst.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>

#include "bench/compare/transports.h"

namespace zav_shm::bench::compare {

namespace {

struct Unref {
    void operator()(gpointer object) const { gst_object_unref(object); }
    void operator()(GstSample* sample) const { gst_sample_unref(sample); }
    void operator()(GstQuery* query) const { gst_query_unref(query); }
    void operator()(GstCaps* caps) const { gst_caps_unref(caps); }
};
template <typename Object>
using Owned = std::unique_ptr<Object, Unref>;

// The list of plugins is made once per bench, in its private folder.
void initialise_once() {
    static std::once_flag done;
    std::call_once(done, [] {
        setenv("GST_REGISTRY", "/tmp/gstreamer-registry", 1);
        gst_init(nullptr, nullptr);
    });
}

/// A pipeline that plays as long as it lives.
class Pipeline {
public:
    explicit Pipeline(const std::string& description) {
        initialise_once();
        GError* error = nullptr;
        pipeline_.reset(gst_parse_launch(description.c_str(), &error));
        if (error != nullptr) {
            const std::string reason = error->message;
            g_error_free(error);
            throw std::runtime_error("GStreamer: " + reason);
        }
        if (gst_element_set_state(pipeline_.get(), GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE) {
            throw std::runtime_error("GStreamer: cannot play " + description);
        }
    }
    ~Pipeline() { gst_element_set_state(pipeline_.get(), GST_STATE_NULL); }
    Pipeline(const Pipeline&) = delete;
    Pipeline& operator=(const Pipeline&) = delete;

    Owned<GstElement> element(const char* name) const {
        return Owned<GstElement>(
            // NOLINTNEXTLINE(*-reinterpret-cast): GObject's own cast is a macro of C
            gst_bin_get_by_name(reinterpret_cast<GstBin*>(pipeline_.get()), name));
    }

private:
    Owned<GstElement> pipeline_;
};

// shmsink takes another name when there is one left by a former run.
std::string fresh_socket_path(const Channel& channel) {
    std::string path = channel.socket_path("gst");
    unlink(path.c_str());
    return path;
}

std::string producer_pipeline(const Channel& channel) {
    // Each block is rounded up to pages; two to spare.
    const std::size_t area_bytes = (queue_frames + 3) * (channel.load.payload_bytes + 8192);
    return "appsrc name=in is-live=true block=true format=time caps=application/octet-stream "
           "! shmsink name=out wait-for-connection=false sync=false async=false "
           "enable-last-sample=false shm-size=" +
           std::to_string(area_bytes) + " socket-path=" + fresh_socket_path(channel);
}

std::string consumer_pipeline(const Channel& channel) {
    return "shmsrc is-live=true socket-path=" + channel.socket_path("gst") +
           " ! appsink name=out sync=false enable-last-sample=false max-buffers=" +
           std::to_string(queue_frames) +
           " drop=" + (channel.load.flow == Flow::drop ? "true" : "false");
}

/// Buffers in the shared memory of that sink.
Owned<GstBufferPool> pool_in(GstElement* sink, std::size_t payload_bytes) {
    const Owned<GstCaps> caps(gst_caps_new_empty_simple("application/octet-stream"));
    const Owned<GstQuery> query(gst_query_new_allocation(caps.get(), TRUE));
    const Owned<GstPad> pad(gst_element_get_static_pad(sink, "sink"));
    if (gst_pad_query(pad.get(), query.get()) == FALSE ||
        gst_query_get_n_allocation_params(query.get()) == 0) {
        throw std::runtime_error("GStreamer: shmsink offers no allocator");
    }
    GstAllocator* found = nullptr;
    GstAllocationParams parameters;
    gst_query_parse_nth_allocation_param(query.get(), 0, &found, &parameters);
    const Owned<GstAllocator> allocator(found);

    Owned<GstBufferPool> pool(gst_buffer_pool_new());
    GstStructure* const config = gst_buffer_pool_get_config(pool.get());
    gst_buffer_pool_config_set_params(config, caps.get(), static_cast<guint>(payload_bytes),
                                      queue_frames + 1, queue_frames + 1);
    gst_buffer_pool_config_set_allocator(config, allocator.get(), &parameters);
    gst_buffer_pool_set_config(pool.get(), config);
    gst_buffer_pool_set_active(pool.get(), TRUE);
    return pool;
}

class Gstreamer_Publisher : public Publisher {
public:
    explicit Gstreamer_Publisher(const Channel& channel)
        : drops_(channel.load.flow == Flow::drop),
          pipeline_(producer_pipeline(channel)),
          source_(pipeline_.element("in")),
          pool_(pool_in(pipeline_.element("out").get(), channel.load.payload_bytes)) {}

    ~Gstreamer_Publisher() override { gst_buffer_pool_set_active(pool_.get(), FALSE); }
    Gstreamer_Publisher(const Gstreamer_Publisher&) = delete;
    Gstreamer_Publisher& operator=(const Gstreamer_Publisher&) = delete;

    std::span<std::byte> room() override {
        GstBufferPoolAcquireParams how{};
        how.flags =
            drops_ ? GST_BUFFER_POOL_ACQUIRE_FLAG_DONTWAIT : GST_BUFFER_POOL_ACQUIRE_FLAG_NONE;
        if (gst_buffer_pool_acquire_buffer(pool_.get(), &buffer_, &how) != GST_FLOW_OK) {
            return {};
        }
        gst_buffer_map(buffer_, &map_, GST_MAP_WRITE);
        return std::as_writable_bytes(std::span(map_.data, map_.size));
    }

    void publish() override {
        gst_buffer_unmap(buffer_, &map_);
        // NOLINTNEXTLINE(*-reinterpret-cast): GObject's own cast is a macro of C
        gst_app_src_push_buffer(reinterpret_cast<GstAppSrc*>(source_.get()), buffer_);
    }

private:
    const bool drops_;
    Pipeline pipeline_;
    Owned<GstElement> source_;
    Owned<GstBufferPool> pool_;
    GstBuffer* buffer_ = nullptr;  // between room() and publish(), which gives it away
    GstMapInfo map_{};
};

class Gstreamer_Subscriber : public Subscriber {
public:
    explicit Gstreamer_Subscriber(const Channel& channel)
        : pipeline_(consumer_pipeline(channel)), sink_(pipeline_.element("out")) {}

    void serve(Frame_Reader& reader) override {
        bool goes_on = true;
        while (goes_on) {
            const auto sample = pull();
            if (!sample) {
                return;
            }
            GstBuffer* const buffer = gst_sample_get_buffer(sample.get());
            GstMapInfo map{};
            gst_buffer_map(buffer, &map, GST_MAP_READ);
            reader.read(std::as_bytes(std::span(map.data, map.size)));
            goes_on = reader.judged(true);
            gst_buffer_unmap(buffer, &map);
        }
    }

private:
    Owned<GstSample> pull() const {
        const std::chrono::nanoseconds limit = idle_time;
        // NOLINTNEXTLINE(*-reinterpret-cast): GObject's own cast is a macro of C
        auto* const sink = reinterpret_cast<GstAppSink*>(sink_.get());
        return Owned<GstSample>(
            gst_app_sink_try_pull_sample(sink, static_cast<GstClockTime>(limit.count())));
    }

    Pipeline pipeline_;
    Owned<GstElement> sink_;
};

class Gstreamer_Transport : public Transport {
public:
    std::string name() const override { return "GStreamer shm"; }
    std::string copies() const override { return "0"; }

    // Looks at every plugin of the machine, which takes a second.
    void prepare() const override { initialise_once(); }

    std::unique_ptr<Publisher> make_publisher(const Channel& channel) const override {
        return std::make_unique<Gstreamer_Publisher>(channel);
    }
    std::unique_ptr<Subscriber> make_subscriber(const Channel& channel,
                                                int /*consumer*/) const override {
        return std::make_unique<Gstreamer_Subscriber>(channel);
    }
};

}  // namespace

std::unique_ptr<Transport> make_gstreamer_transport() {
    return std::make_unique<Gstreamer_Transport>();
}

}  // namespace zav_shm::bench::compare
