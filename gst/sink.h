// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <gst/base/gstbasesink.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "gst/sink_settings.h"
#include "gst/sink_stream.h"
#include "ipc/annotated_mutex.h"

namespace zav_shm::gst {

/// What zavsink does, behind its GObject.
///
/// Threads  as GstBaseSink calls: start() and stop() while nothing flows, the rest of the first
///          group on the streaming thread. The second group from any thread.
class Sink {
public:
    explicit Sink(GstBaseSink* element) : element_(element) {}

    bool start();
    void stop();
    bool set_caps(GstCaps* caps);
    GstFlowReturn render(GstBuffer* buffer);
    void see_event(GstEvent* event);
    bool propose_allocation(GstQuery* query);

    bool set_property(guint id, const GValue* value);
    bool get_property(guint id, GValue* value) const;

    /// Posts why the caps are not taken, if the stream runs: asked for before, they are a question.
    void tell_refused_caps(GstCaps* caps) const;

private:
    using Clock = std::chrono::steady_clock;

    Sink_Settings settings() const;
    std::shared_ptr<Sink_Stream> stream() const;
    GstStructure* statistics() const;

    std::optional<std::string> why_not(GstCaps* caps) const;
    Sink_Stream::Frame frame_of(GstBuffer* buffer);
    Sink_Stream::Result offer(GstBuffer* buffer, const Sink_Stream::Frame& frame);
    void tell_state();
    void tell_dropped(const Sink_Stream::Result& result);
    void pass_on_key_request();
    void post(const char* name, GstStructure* fields) const;
    GstStructure* message(const char* name) const;

    GstBaseSink* const element_;

    mutable Mutex mutex_;  // held for some instructions
    Sink_Settings settings_ ZAV_SHM_GUARDED_BY(mutex_);
    std::shared_ptr<Sink_Stream> stream_ ZAV_SHM_GUARDED_BY(mutex_);  // the last one, when stopped
    guint key_requests_ ZAV_SHM_GUARDED_BY(mutex_) = 0;

    // Of the streaming thread, and of start() and stop().
    Sink_Settings used_;
    bool is_discontinuous_ = false;
    std::chrono::nanoseconds end_pts_{0};  // of the last frame
    guint64 dropped_ = 0;                  // since the last message of it
    Clock::time_point dropped_told_{};
};

}  // namespace zav_shm::gst
