// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "apps/tool/options.h"
#include "apps/tool/problem.h"
#include "apps/tool/stop_signal.h"
#include "apps/trace/trace_reader.h"
#include "frame/frame_publisher.h"

namespace zav_shm::tool {

/// One stream of a trace, and the producer that it is published as. Frames keep their sequence
/// numbers, and with them their gaps; where the trace's producer began anew, another publisher
/// begins, so that readers see the change.
class Replayed_Stream {
public:
    struct Counters {
        std::uint64_t offered = 0;   // frames of the trace
        std::uint64_t restarts = 0;  // of the producer, in the trace
        std::uint64_t left_out = 0;  // frames that the trace does not have
        std::uint64_t foreign = 0;   // frames that had no frame header
        Publisher_Counters published;
    };

    /// @param to  the producer, its channel and stream
    Replayed_Stream(const Replay_Options& options, const trace::Trace_Source& source,
                    std::uint16_t number, Channel_Options to, const Stop_Signal& stop);

    /// Reads what the trace says of itself.
    std::optional<trace::Damage> open_trace() { return reader_.open(); }

    /// Registers with the center, which has to know the name.
    std::optional<Problem> open();
    void close();

    /// The next frame is the first one from this offset on.
    void go_to(std::uint64_t offset);

    bool has_frame() const { return has_frame_; }

    /// When that frame was published. Never earlier than the one before, whatever headers say.
    std::int64_t moment_ns() const { return moment_ns_; }

    std::uint64_t offset() const { return reader_.record().offset; }

    /// Publishes the frame, which there is, and goes to the next one.
    ///
    /// @param later     how much later than in the trace its times are to be
    /// @param may_end   keep the flag that the stream ends with this frame
    std::optional<Problem> publish(std::chrono::nanoseconds later, bool may_end);

    /// What stopped the reading: end, not_closed or damage.
    trace::Trace_Reader::Step end() const { return end_; }
    const trace::Damage& damage() const { return reader_.damage(); }

    Counters counters() const;
    const std::string& title() const { return title_; }

private:
    std::optional<Problem> begin_publisher();
    std::optional<Problem> follow_epoch();
    void keep_numbers();
    void next();
    void watch_state();

    const Replay_Options& options_;
    const Channel_Options to_;
    const std::string title_;
    const std::uint16_t number_;
    const Stop_Signal& stop_;
    trace::Trace_Reader reader_;
    bool has_frame_ = false;
    std::int64_t moment_ns_ = 0;
    bool has_moment_ = false;  // of a frame since go_to()
    trace::Trace_Reader::Step end_ = trace::Trace_Reader::Step::end;

    std::unique_ptr<ZAV_SHM_Frame_Publisher> publisher_;
    Frame_State state_ = Frame_State::closed;
    std::uint64_t epoch_ = 0;       // of the trace's frame before; 0 before the first
    std::uint64_t sequence_ = 0;    // likewise
    bool publisher_is_new_ = true;  // it has published nothing
    bool told_too_large_ = false;
    Counters counters_;  // the publisher's are those of former ones
};

}  // namespace zav_shm::tool
