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

/// What a producer process builds for each of its streams: registers the stream with the center,
/// writes its frames into the slot so that a reader can tell a whole frame from a torn one, and
/// finds its way back when the center is restarted.
///
///   ZAV_SHM_Frame_Publisher camera({.name = "CAM_LOOP", .channel = 0, .stream = 0});
///   if (const auto opened = camera.open(); !opened) { ... opened.reason ... }
///   camera.publish(payload, {.flags = zav_shm::frame_flag::key_frame, .pts = pts});
///
/// Owner    owns its endpoint. One publisher per stream and device: a second one of the same
///          stream writes over the first one's frames.
/// Threads  publish(), loan() and commit() from one thread at a time; state() and counters() from
///          any. Several publishers of one process may be used from several threads.
/// Blocking publish() takes at most 10 ms when nobody reads, 30 ms when the last reader has just
///          gone, 33 ms more when the slowest reader is slow, and 50 ms more at a moment when it
///          registers again. The first one after that, and one behind a relay that has not given
///          the slot back, takes up to 40 ms instead of 10. open() and close() take as long as the
///          time that they are given.
/// Errors   are values. Nothing throws and nothing is printed but the documented lines of the
///          base layers.
/// Crash    a publisher killed in mid-frame leaves a slot that no reader takes for a frame. Its
///          successor has another epoch, by which readers tell a restart from a loss.
class ZAV_SHM_Frame_Publisher {
public:
    struct Options {
        std::string name;  // as configured in the center
        int channel = 0;
        int stream = 0;
        zav_shm::Frame_Format format = {};
        std::chrono::milliseconds center_wait{2000};  // how long open() looks for a center
    };

    struct Result {
        zav_shm::Publish_Outcome outcome = zav_shm::Publish_Outcome::no_center;
        std::size_t payload_bytes = 0;
        std::size_t limit_bytes = 0;  // the stream's page size, 0 while it is unknown
        std::string reason;           // why not, in one line; empty when delivered

        bool delivered() const { return outcome == zav_shm::Publish_Outcome::delivered; }
    };

    using Opened = zav_shm::Opened;

    explicit ZAV_SHM_Frame_Publisher(Options options);
    ZAV_SHM_Frame_Publisher(const ZAV_SHM_Frame_Publisher&) = delete;
    ZAV_SHM_Frame_Publisher& operator=(const ZAV_SHM_Frame_Publisher&) = delete;

    /// close().
    ~ZAV_SHM_Frame_Publisher();

    /// Registers, and waits up to `center_wait` for a center. Without one, and also when refused,
    /// the publisher stays open: publish() tries again from time to time.
    Opened open();

    /// Takes the stream out of the center's books; waits up to `limit` for its answer.
    void close(std::chrono::milliseconds limit = std::chrono::milliseconds(200));

    /// Writes one frame, header and payload.
    Result publish(std::span<const std::byte> payload, const zav_shm::Frame_Info& info = {});

    /// Lends the slot itself, so that an encoder can write in place: waits for a consumer as
    /// publish() does. Empty when there is none, or no center; that was a frame which nobody
    /// wanted, and it is not committed. Between loan() and commit() readers see no frame. A loan
    /// that was not committed is what the next loan() or publish() uses.
    std::span<std::byte> loan();

    /// Publishes the first `payload_bytes` of the loan. Without one nothing happens, and the
    /// result is no_consumer.
    Result commit(std::size_t payload_bytes, const zav_shm::Frame_Info& info = {});

    /// Changes what the next frames say of the stream.
    void set_format(const zav_shm::Frame_Format& format);

    zav_shm::Frame_State state() const;
    zav_shm::Publisher_Counters counters() const;
    std::size_t page_bytes() const;  // the largest payload; 0 while it is unknown
    std::uint64_t epoch() const;     // of this instance, as in its frames' headers

private:
    class Body;
    std::unique_ptr<Body> body_;
};
