// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "frame/frame_format.h"

typedef struct _GstSample GstSample;

namespace zav_shm::mux {

enum class Container { mp4, matroska };

/// Puts pictures, and sounds beside them, into fragmented MP4 or Matroska, by GStreamer. What comes
/// out is only ever appended to: a file is readable up to its last whole fragment.
///
/// Owner    of a pipeline with threads of its own.
/// Threads  one at a time.
/// Blocking only take(), up to the time given.
/// Errors   end it; failure() says why.
class Muxer {
public:
    using nanoseconds = std::chrono::nanoseconds;

    /// Whether sounds of this codec can be in it.
    static bool can_hold(Container container, std::uint32_t sounds);

    /// @param sounds  their format; null without them
    Muxer(Container container, const Frame_Format& pictures, const Frame_Format* sounds);
    ~Muxer();
    Muxer(const Muxer&) = delete;
    Muxer& operator=(const Muxer&) = delete;

    /// When something is presented, counted from the file's begin, and when it is decoded.
    struct Times {
        nanoseconds presented{0};
        nanoseconds decoded{0};
        nanoseconds duration{0};
    };

    /// @param unit  an access unit with start codes, not empty; the first one has its parameter
    /// sets.
    void add_picture(std::span<const std::byte> unit, const Times& times, bool is_key_frame);

    void add_sound(std::span<const std::byte> packet, const Times& times);

    /// No more sounds will come.
    void end_sounds();

    /// Nothing more will come.
    void finish();

    /// A piece of the file.
    class Piece {
    public:
        explicit Piece(GstSample* sample);
        std::span<const std::byte> bytes() const;

        /// A whole fragment, or the file's head, lies before it.
        bool begins_fragment() const;
        bool is_picture() const;

    private:
        struct Mapped;
        std::shared_ptr<Mapped> mapped_;
    };

    /// The next piece.
    ///
    /// @return nothing when there is none within the time, at the end, and after a failure.
    std::optional<Piece> take(std::chrono::milliseconds limit);

    /// Everything has been taken.
    bool is_at_end() const;

    /// Empty as long as all is well.
    const std::string& failure();

private:
    struct Pipeline;

    std::unique_ptr<Pipeline> pipeline_;
    std::string failure_;
};

}  // namespace zav_shm::mux
