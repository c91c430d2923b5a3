// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "frame/frame_publisher.h"
#include "gst/center_watch.h"
#include "gst/lending.h"
#include "gst/unit_reader.h"
#include "ipc/annotated_mutex.h"

namespace zav_shm::gst {

/// What zavsink publishes, without anything of GStreamer: flags by the codec's own rules, parameter
/// sets in front of key frames that come without, and the room that is lent to an element upstream.
///
/// Owner    of the publisher. A loan holds the stream: the history stays mapped until the last one
///          has come back, also after close().
/// Threads  any; write(), commit() and lend() exclude each other.
/// Blocking as the publisher: only a paced one waits, for its readers.
class Sink_Stream : public std::enable_shared_from_this<Sink_Stream> {
public:
    using Options = ZAV_SHM_Frame_Publisher::Options;
    using Result = ZAV_SHM_Frame_Publisher::Result;

    struct Frame {
        Frame_Info info;        // flags: only those that the caller knows of
        bool is_entry = false;  // the source says that a decoder may begin here (H.264, H.265)
        bool is_of_pool = false;
        bool is_alone = true;  // nobody else holds the buffer or its memory
    };

    /// Room in the history while somebody upstream writes into it. Given back by its destruction,
    /// or by commit().
    class Loan {
    public:
        Loan(std::shared_ptr<Sink_Stream> stream, std::span<std::byte> room, std::uint64_t number)
            : stream_(std::move(stream)), room_(room), number_(number) {}
        Loan(const Loan&) = delete;
        Loan& operator=(const Loan&) = delete;
        ~Loan() { stream_->give_back(number_); }

        std::span<std::byte> room() const { return room_; }
        std::uint64_t number() const { return number_; }
        bool is_of(const Sink_Stream& stream) const { return stream_.get() == &stream; }

    private:
        const std::shared_ptr<Sink_Stream> stream_;
        const std::span<std::byte> room_;
        const std::uint64_t number_;
    };

    explicit Sink_Stream(const Options& options);

    Opened open();

    /// Ends the stream for its readers; with a loan out, as soon as that has come back.
    void close();

    void set_format(const Frame_Format& format);

    /// Publishes a frame by copying it. While room is lent there is none for it: it is left out.
    Result write(std::span<const std::byte> payload, const Frame& frame);

    /// Publishes a frame that was written into the room of a loan, from the room's begin on. One
    /// that was published before belongs to the readers and is left out.
    Result commit(const Loan& loan, std::size_t payload_bytes, const Frame& frame);

    /// Publishes a frame without payload that says that no other follows.
    ///
    /// @param pts  of the end
    void write_end(std::chrono::nanoseconds pts);

    /// Counts a frame that cannot be published, and ends the lending that is in its way.
    Result leave_out(std::size_t payload_bytes, const std::string& reason);

    /// Lends room for one frame; null when there is none now.
    std::unique_ptr<Loan> lend(std::size_t bytes);

    /// The pool's buffers on their way: see Lending.
    void begin_lending();
    void acquire_buffer();
    void release_buffer();

    /// True when a reader has asked for a key frame since the last call, in a stream where not
    /// every frame is one.
    bool key_frame_requested();

    /// Where the publisher stands, when that is another state than at the last call.
    struct Change {
        Frame_State state;
        std::string reason;
    };
    std::optional<Change> changed_state();

    Publisher_Counters counters() const { return publisher_.counters(); }
    Frame_State state() const { return publisher_.state(); }
    std::string reason() const { return publisher_.reason(); }
    std::size_t page_bytes() const { return publisher_.page_bytes(); }
    std::uint64_t epoch() const { return publisher_.epoch(); }
    std::uint64_t in_place() const { return in_place_; }
    std::uint64_t completed() const { return completed_; }
    std::uint64_t left_out() const { return left_out_; }

private:
    static constexpr std::uint64_t no_loan = 0;

    std::uint16_t flags_of(std::span<const std::byte> payload, const Frame& frame)
        ZAV_SHM_REQUIRES(mutex_);
    Result publish(std::span<const std::byte> payload, const Frame& frame) ZAV_SHM_REQUIRES(mutex_);
    Result leave_out_locked(std::size_t payload_bytes, const std::string& reason)
        ZAV_SHM_REQUIRES(mutex_);
    Result noted(Result result) ZAV_SHM_REQUIRES(mutex_);
    void give_back(std::uint64_t number);

    ZAV_SHM_Frame_Publisher publisher_;
    Mutex mutex_;  // held through a copy, and through the wait of a paced publisher

    std::optional<Unit_Reader> units_ ZAV_SHM_GUARDED_BY(mutex_);  // of H.264 and H.265
    std::uint32_t codec_ ZAV_SHM_GUARDED_BY(mutex_) = 0;
    bool has_delta_frames_ ZAV_SHM_GUARDED_BY(mutex_) = false;  // some frames are no key frames
    bool is_discontinuous_ ZAV_SHM_GUARDED_BY(mutex_) = false;  // a frame was left out
    bool has_begun_ ZAV_SHM_GUARDED_BY(mutex_) = false;         // a frame was published
    bool has_frames_ ZAV_SHM_GUARDED_BY(mutex_) = false;        // that no end has followed yet
    bool is_closing_ ZAV_SHM_GUARDED_BY(mutex_) = false;
    Lending lending_ ZAV_SHM_GUARDED_BY(mutex_);
    std::uint64_t loan_ ZAV_SHM_GUARDED_BY(mutex_) = no_loan;  // the one that is out
    std::uint64_t loans_ ZAV_SHM_GUARDED_BY(mutex_) = 0;
    Center_Watch center_ ZAV_SHM_GUARDED_BY(mutex_);
    Frame_State told_state_ ZAV_SHM_GUARDED_BY(mutex_) = Frame_State::closed;

    // For those who look at figures.
    std::atomic<std::uint64_t> in_place_{0};   // frames that were published without a copy
    std::atomic<std::uint64_t> completed_{0};  // frames that were given parameter sets
    std::atomic<std::uint64_t> left_out_{0};   // frames that lending was in the way of
};

}  // namespace zav_shm::gst
