// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>

#include "frame/reading_rules.h"
#include "frame/received_frame.h"
#include "ring/ring_reader.h"

namespace zav_shm {

/// A subscriber's way through a ring of frames: where it begins, what it leaves out, what it has
/// missed. Each record is a frame header with the payload behind it.
///
/// Threads  one.
class Frame_Cursor {
public:
    struct Rules {
        Start from = start::newest;
        Overflow_Policy overflow = Overflow_Policy::drop_until_key_frame;
        bool start_at_key_frame = false;
        bool key_frame_after_loss = false;
    };

    explicit Frame_Cursor(const Rules& rules) : rules_(rules) {}

    /// Puts the reader where the rules begin, in a ring that was there already.
    ///
    /// @param since_ns  of CLOCK_MONOTONIC: what was published before is history
    void join(Ring_Reader& reader, std::int64_t since_ns);

    /// The same for the ring of a successor, or of a producer that has only just come: all of its
    /// frames are wanted.
    void go_on_in(Ring_Reader& reader);

    /// Puts the reader somewhere else. What lies between is not counted.
    void seek(Ring_Reader& reader, const Start& from);

    enum class Found {
        frame,
        nothing,  // behind the newest frame
        invalid,  // a record that is no frame; it was passed over
        broken    // the ring
    };

    /// Finds the next frame that is wanted, and copies its header.
    ///
    /// @param frame  changed also when nothing was found
    Found find(Ring_Reader& reader, Ring_Record& record, Frame_Facts& frame);

    /// The frame that was found has been used and was whole: says what was missed before it, and
    /// moves on. One that was not whole is simply not taken: find() goes on behind it.
    void take(Ring_Reader& reader, Frame_Facts& frame);

    /// The frame that was found cannot be used for want of memory: it is lost.
    void lose(Ring_Reader& reader);

    /// True while what comes is left out, up to a key frame.
    bool waits_for_key_frame() const { return wait_ != Wait::none; }

    /// What was missed since the frame that was taken last.
    const Frame_Losses& pending() const { return losses_; }

private:
    void begin(Ring_Reader& reader, const Start& from, std::int64_t now_ns);
    void place(Ring_Reader& reader, const Start& from, std::int64_t now_ns);
    void recover(Ring_Reader& reader);
    bool is_left_out(Ring_Reader& reader, const Ring_Record& record);
    bool begins_behind_gap(const Frame_Facts& frame) const;
    std::uint64_t left_out_before(const Frame_Facts& frame) const;
    void pass_over(Ring_Reader& reader, std::uint64_t to, std::uint64_t& cause);

    // Why frames are left out up to the next key frame.
    enum class Wait {
        none,
        while_there_are_any,  // unless the stream has had no key frame since its publisher began
        firm
    };

    const Rules rules_;
    Frame_Losses losses_;
    Wait wait_ = Wait::none;
    bool seen_key_ = false;          // in this ring
    bool had_key_ = false;           // or in one before
    bool handed_out_ = false;        // any frame since join() or seek()
    std::uint64_t joined_at_ = 0;    // until then only what was published since counts as lost
    std::uint64_t passed_over_ = 0;  // records since the frame that was taken last
    std::uint64_t epoch_ = 0;        // of the frame that was taken last; 0 before the first
    std::uint64_t sequence_ = 0;
};

}  // namespace zav_shm
