// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "frame/frame_counters.h"
#include "frame/frame_format.h"

/// What a producer process builds for each of its streams: writes its frames into a history from
/// which any number of consumers read, and feeds those of the fixed interface. It waits for none of
/// them, and finds its way back when the center is restarted.
///
///   ZAV_SHM_Frame_Publisher camera({.name = "CAM_LOOP", .channel = 0, .stream = 0});
///   if (const auto opened = camera.open(); !opened) { ... opened.reason ... }
///   camera.publish(payload, {.flags = zav_shm::frame_flag::key_frame, .pts = pts});
///
/// Owner    of the stream's history, one file in shared memory that outlives it: one publisher per
///          stream and device, and a second one is told which process has it.
/// Threads  publish(), loan(), commit(), leave_out(), set_format() and key_frame_requested() from
///          one thread at a time; state(), reason() and counters() from any. Several publishers of
///          one process may be used from several threads. Each has a thread of its own for
///          consumers of the fixed interface, which sleeps while there are none; the process has
///          one for the center.
/// Blocking publish() and commit() take the time of the copy and of waking who waits, whatever
///          consumers, relay and center do; a `paced` publisher waits for its readers as well.
///          open() takes up to `center_wait`, close() up to its limit and 100 ms.
/// Errors   are values. Nothing throws and nothing is printed but the documented lines of the
///          base layers.
/// Crash    what a killed publisher has published stays readable; a frame that it was writing is
///          never seen. Its successor has another epoch, by which readers tell a restart from a
///          loss.
/// Fork     a child cannot use what its parent opened: publish() is refused, close() and the
///          destructor do nothing. It opens one of its own, of another stream.
class ZAV_SHM_Frame_Publisher {
public:
    struct Options {
        std::string name = {};  // as configured in the center
        int channel = 0;
        int stream = 0;
        zav_shm::Frame_Format format = {};
        std::chrono::milliseconds center_wait{2000};  // how long open() looks for a center
        std::string folder = "shm";                   // of the segments, while there is no center

        std::size_t history_bytes = 0;    // that are kept at least; 0: as configured in the center,
                                          // else twice the greatest frame
        std::size_t frame_bytes_max = 0;  // 0: the page size of the stream, else 1 MiB

        // For what is played back and not live: wait for readers that are behind, each for up to
        // the limit without moving.
        bool paced = false;
        std::chrono::milliseconds pace_limit{200};
    };

    struct Result {
        zav_shm::Publish_Outcome outcome = zav_shm::Publish_Outcome::no_ring;
        std::size_t payload_bytes = 0;
        std::size_t limit_bytes = 0;  // of a payload; 0 while it is unknown
        std::string reason;           // why not, in one line; empty when published

        bool published() const { return outcome == zav_shm::Publish_Outcome::published; }
    };

    using Opened = zav_shm::Opened;

    explicit ZAV_SHM_Frame_Publisher(Options options);
    ZAV_SHM_Frame_Publisher(const ZAV_SHM_Frame_Publisher&) = delete;
    ZAV_SHM_Frame_Publisher& operator=(const ZAV_SHM_Frame_Publisher&) = delete;

    /// close().
    ~ZAV_SHM_Frame_Publisher();

    /// Registers, waiting up to `center_wait` for a center, and makes the history. Without a center
    /// frames are published all the same, and it registers as soon as there is one. Refused, or
    /// without a history, it stays open: publish() tries again from time to time.
    Opened open();

    /// Ends the stream: readers come to the end of the history, which stays. Takes it out of the
    /// center's books, waiting up to `limit` for the answer.
    void close(std::chrono::milliseconds limit = std::chrono::milliseconds(200));

    /// Writes one frame, header and payload.
    Result publish(std::span<const std::byte> payload, const zav_shm::Frame_Info& info = {});

    /// Lends room in the history, so that an encoder can write in place; empty when there is none.
    /// A loan that was not committed is what the next loan() or publish() uses.
    ///
    /// @param bytes  how long the payload may become; 0: as long as possible, which may for a while
    ///               cost as much of the history
    std::span<std::byte> loan(std::size_t bytes = 0);

    /// Publishes the first `payload_bytes` of the loan. Without one nothing happens, and the
    /// result is no_ring.
    Result commit(std::size_t payload_bytes, const zav_shm::Frame_Info& info = {});

    /// Counts frames that the application has not got to publish, as when an encoder dropped them:
    /// they have numbers as any other, and readers are told of them as lost (left out).
    void leave_out(std::uint64_t frames);

    /// Changes what the next frames say of the stream.
    void set_format(const zav_shm::Frame_Format& format);

    /// True when a reader has asked for a key frame since the last call. Costs a system call.
    bool key_frame_requested();

    zav_shm::Frame_State state() const;
    std::string reason() const;  // why it is not connected, in one line
    zav_shm::Publisher_Counters counters() const;
    std::size_t page_bytes() const;  // the largest payload; 0 while it is unknown
    std::uint64_t epoch() const;     // of this instance, as in its frames' headers

private:
    class Body;
    std::unique_ptr<Body> body_;
};
