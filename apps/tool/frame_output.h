// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "apps/tool/frame_index.h"
#include "apps/tool/options.h"
#include "apps/tool/pacer.h"
#include "apps/tool/problem.h"
#include "apps/tool/stop_signal.h"
#include "frame/frame_publisher.h"

namespace zav_shm::tool {

/// The publishing end of `zav-shm publish`: each frame at its time, and an account of all.
class Frame_Output {
public:
    /// From the stream's time 0 on.
    struct Time {
        std::chrono::nanoseconds begin{0};
        std::chrono::nanoseconds end{0};
    };

    struct Frame {
        std::span<const std::byte> payload;
        std::uint64_t size_bytes = 0;  // of the whole frame when `payload` is its beginning only
        Entry_Point entry = Entry_Point::none;
        bool has_configuration = false;
        bool follows_damage = false;  // something is missing before it
        bool is_last = false;
        bool is_field = false;                    // it lasts for half of a frame's time
        std::optional<Time> time = std::nullopt;  // of its own, and not by the rate
    };

    Frame_Output(const Publish_Options& options, int standard_output, const Stop_Signal& stop);

    /// Registers with the center, which has to know the name.
    std::optional<Problem> open();

    /// The longest payload that the stream takes.
    std::size_t page_bytes() const { return publisher_.page_bytes(); }

    /// What the following frames say of themselves; the rate is added where there is none.
    void set_format(Frame_Format format);

    /// The number that the next frame will have in its header.
    std::uint64_t next_sequence() const { return frames_ + 1; }

    /// Waits until the frame is due and offers it. Does nothing once it is over.
    void publish(const Frame& frame);

    /// A signal came, or as many frames as wanted were offered.
    bool is_over() const;

    /// Deregisters and writes the account to standard error.
    Exit_Status close();

private:
    bool wait_until_due(const Frame& frame);
    Time time_of_next(const Frame& frame);
    void watch_state();
    void pass_on_key_request();
    std::string offer(const Frame& frame, const Frame_Info& info);
    void complain_of(const Frame& frame, const std::string& limit);

    const Publish_Options& options_;
    const Stop_Signal& stop_;
    const Rate field_rate_;
    ZAV_SHM_Frame_Publisher publisher_;
    Pacer pacer_;
    Frame_Index index_;
    const std::string channel_;
    std::uint64_t frames_ = 0;
    std::uint64_t fields_ = 0;  // the time of a frame is that of two fields
    std::uint64_t too_large_ = 0;
    std::uint64_t over_unit_limit_ = 0;  // those of them that the publisher did not see
    std::uint64_t key_requests_ = 0;
    bool told_key_request_trouble_ = false;
    bool was_too_large_ = false;  // the frame before
    Frame_State state_ = Frame_State::closed;
    Pacer::Clock::time_point first_{};
    Pacer::Clock::time_point opened_{};
};

}  // namespace zav_shm::tool
