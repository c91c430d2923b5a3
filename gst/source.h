// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <gst/base/gstbasesrc.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "apps/media/decoding_clock.h"
#include "frame/frame_subscriber.h"
#include "gst/running_clock.h"
#include "gst/source_settings.h"
#include "gst/stream_clock.h"
#include "gst/waker.h"
#include "ipc/annotated_mutex.h"

namespace zav_shm::gst {

/// What zavsrc does, behind its GObject.
///
/// Threads  as GstBaseSrc calls: start() and stop() while nothing flows, create() on the streaming
///          thread. The others from any thread, unlock() also while create() waits.
class Source {
public:
    explicit Source(GstBaseSrc* element) : element_(element), running_(GST_ELEMENT(element)) {}
    ~Source();
    Source(const Source&) = delete;
    Source& operator=(const Source&) = delete;

    bool start();
    void stop();
    GstFlowReturn create(GstBuffer** buffer);

    void unlock() { waker_.wake(); }
    void unlock_stop() { waker_.rest(); }
    void note_flush() { flushed_ = true; }

    /// @return caps of the caller's
    GstCaps* caps() const;

    void answer_latency(GstQuery* query) const;
    void request_key_frame() const;

    bool set_property(guint id, const GValue* value);
    bool get_property(guint id, GValue* value) const;

private:
    std::shared_ptr<ZAV_SHM_Frame_Subscriber> subscriber() const;
    GstStructure* statistics() const;
    void begin_or_go_on();
    GstFlowReturn receive();
    GstFlowReturn wait_for_frame();
    GstFlowReturn look_at_state();
    GstFlowReturn look_at_silence(std::int64_t now_ns);
    void send_gap(std::int64_t now_ns);

    GstFlowReturn take(const Stream_Clock::Presented& presented, GstBuffer** buffer);
    GstFlowReturn follow_format();
    void follow_reordering();
    std::int64_t decoding_running_ns(std::int64_t running_ns);
    void give_times(GstBuffer* buffer, const Stream_Clock::Presented& presented);
    void tell_losses();
    void learn_latency(const Stream_Clock::Presented& presented, std::int64_t now_ns);
    GstFlowReturn fail(int code, const std::string& text, const std::string& detail) const;
    void post(GstStructure* fields) const;

    GstBaseSrc* const element_;
    Waker waker_;
    std::atomic<bool> flushed_{false};
    std::atomic<std::int64_t> latency_ns_{0};
    std::atomic<std::uint64_t> discarded_{0};  // torn behind our back, or of a wrong length

    mutable Mutex mutex_;  // held for some instructions
    Source_Settings settings_ ZAV_SHM_GUARDED_BY(mutex_);
    GstCaps* given_caps_ ZAV_SHM_GUARDED_BY(mutex_) = nullptr;  // the property
    GstCaps* stream_caps_ ZAV_SHM_GUARDED_BY(mutex_) = nullptr;
    std::shared_ptr<ZAV_SHM_Frame_Subscriber> subscriber_ ZAV_SHM_GUARDED_BY(mutex_);

    // Of the streaming thread, and of start() and stop().
    Source_Settings used_;
    std::shared_ptr<ZAV_SHM_Frame_Subscriber> reading_;
    std::unique_ptr<Stream_Clock> clock_;
    Running_Clock running_;
    std::unique_ptr<Frame_View> frame_;
    bool has_frame_ = false;  // that has not been handed on
    bool has_begun_ = false;
    bool has_had_frame_ = false;
    bool is_discontinuous_ = true;
    bool is_over_ = false;
    std::uint64_t discarded_before_ = 0;             // the present frame
    std::optional<Frame_Format> format_;             // of the caps
    std::optional<media::Decoding_Clock> decoding_;  // of codecs that may reorder pictures
    std::size_t payload_bytes_ = 0;                  // of each frame; 0: any
    std::int64_t shift_ns_ = 0;                      // of the segment's begin
    std::int64_t end_ns_ = 0;  // running time at the end of what was handed on
    std::int64_t lag_ns_ = 0;  // of that behind now
    std::int64_t learning_until_ns_ = 0;
    std::int64_t last_frame_ns_ = 0;
    std::int64_t next_look_ns_ = 0;
    bool told_silence_ = false;
    Frame_State told_state_ = Frame_State::closed;
};

}  // namespace zav_shm::gst
