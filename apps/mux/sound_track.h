// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "apps/mux/frame_facts.h"
#include "apps/tool/frame_input.h"
#include "apps/tool/options.h"

namespace zav_shm::mux {

/// The sounds that go beside pictures: a second stream, read as a tap, whose history lets each file
/// begin with the sound of its first picture.
///
/// Presentation times of both streams are one clock's, as those of one producer are. Where they
/// are seconds apart for frames of the same moment, the moments decide.
///
/// Threads  one.
class Sound_Track {
public:
    /// Which sound a file begins with, and so which one the file before it ends with. Each is in
    /// one of them.
    enum class Begin {
        behind_picture,     // the first one that is not heard before the first picture is seen
        nearest_to_picture  // where both are taken to begin at once
    };

    Sound_Track(const tool::Common_Options& common, const tool::Consumer_Options& stream,
                Begin begin, const tool::Stop_Signal& stop);

    std::optional<tool::Problem> open() { return input_.open(); }

    /// Goes to the sound that begins with this picture.
    ///
    /// @param limit  how long to wait for it
    /// @return its format; nothing when there is none
    std::optional<Frame_Format> begin(const Received_Frame& picture,
                                      std::chrono::milliseconds limit);

    /// The next sound before a presentation time of the pictures, which the next file may begin
    /// with, of the format that begin() said.
    ///
    /// @param limit  how long to wait for it
    /// @return null when there is none; valid until the next call
    const Received_Frame* next(std::int64_t before_ns, std::chrono::milliseconds limit);

    /// In presentation time of the pictures.
    std::int64_t time_ns_of(const Received_Frame& sound) const {
        return apart_ns(sound.header.pts_ns, -shift_ns_);
    }

    /// As its header says, or else its packet.
    static std::chrono::nanoseconds duration_of(const Received_Frame& sound);

    /// Its format has changed, or its publisher: what comes is for the next file.
    bool is_over() const { return is_over_; }

    std::string title() const { return input_.title(); }

private:
    bool fetch(std::chrono::milliseconds limit);
    std::int64_t place_ns() const;

    const Begin begin_;
    tool::Frame_Input input_;
    Received_Frame frame_;
    bool is_held_ = false;  // the frame has not been handed on
    bool is_over_ = false;
    Frame_Format format_;
    std::int64_t shift_ns_ = 0;
};

}  // namespace zav_shm::mux
