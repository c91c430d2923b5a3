// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <span>
#include <string>

#include "frame/frame_counters.h"
#include "frame/frame_format.h"
#include "frame/received_frame.h"

namespace zav_shm {

/// What a subscriber does with a frame when the application is slower than the stream and the
/// queue is full.
enum class Overflow_Policy {
    drop_oldest,
    drop_until_key_frame,  // keeps what is queued, which can be decoded, and drops what comes
                           // until the next key frame or recovery point; as drop_oldest while
                           // there was none ever
    newest_only            // never holds more than one frame
};

enum class Receive_Status {
    frame,    // here it is
    timeout,  // none within the time; state() tells why
    closed    // close() was called, or open() was not
};

}  // namespace zav_shm

/// What a consumer process builds for each stream that it takes: registers with the center, takes
/// frames also while the application works, into a bounded queue, hands out whole frames only and
/// says what was lost, and finds its way back when the center or the producer is restarted.
///
///   ZAV_SHM_Frame_Subscriber recorder({.name = "RECODER", .producer = "CAM_LOOP"});
///   if (const auto opened = recorder.open(); !opened) { ... opened.reason ... }
///   zav_shm::Received_Frame frame;
///   while (recorder.receive(frame, 1s) == zav_shm::Receive_Status::frame) write(frame.payload());
///
/// A consumer that is not back within 5 ms after a frame misses the next one. So a thread stands in
/// for the application whenever it is not waiting in receive(), which may take its time between two
/// calls; while it waits, frames come to it without a hand-over from thread to thread.
///
/// Owner    owns its endpoint, thread, queue and one file descriptor. One subscriber per consumer
///          name, channel and stream on a device.
/// Threads  "zav_subscriber" stands in for the application. receive() from one thread at a time;
///          pair(), state(), counters() and close() from any, also while receive() is blocked.
/// Blocking receive() takes at most the time given. open(), pair(), close() and read_in_place()
///          take as long as the time that they are given, plus one wait of the thread (30 ms).
/// Errors   are values. Nothing throws and nothing is printed but the documented lines of the
///          base layers. A frame that there is no memory for is lost.
/// Crash    a killed subscriber costs the other consumers nothing but 20 ms once; the center's
///          idle kick takes it out of its relay. Its successor simply opens again.
class ZAV_SHM_Frame_Subscriber {
public:
    struct Options {
        std::string name;      // this consumer, as configured in the center
        std::string producer;  // whose frames
        int channel = 0;
        int stream = 0;
        std::chrono::milliseconds center_wait{2000};  // how long open() looks for a center

        std::size_t queue_frames = 64;
        std::size_t queue_bytes = std::size_t{16} << 20;  // of payload; one frame always fits
        zav_shm::Overflow_Policy overflow = zav_shm::Overflow_Policy::drop_until_key_frame;
        // Key frames, or recovery points.
        bool start_at_key_frame = false;    // leave out what comes before the first
        bool key_frame_after_loss = false;  // leave out what comes between a loss and the next
    };

    using Opened = zav_shm::Opened;

    explicit ZAV_SHM_Frame_Subscriber(Options options);
    ZAV_SHM_Frame_Subscriber(const ZAV_SHM_Frame_Subscriber&) = delete;
    ZAV_SHM_Frame_Subscriber& operator=(const ZAV_SHM_Frame_Subscriber&) = delete;

    /// close().
    ~ZAV_SHM_Frame_Subscriber();

    /// Registers, waiting up to `center_wait` for a center, and starts the thread. Without a
    /// center, and also when refused, the subscriber stays open and its thread tries again with a
    /// growing delay of 2 s at most, and at once when a center comes.
    Opened open();

    /// Leaves the producer, ends the thread and drops what the queue holds; a blocked receive()
    /// returns.
    void close(std::chrono::milliseconds limit = std::chrono::milliseconds(200));

    /// Takes the next frame, out of the queue or off the slot, waiting up to `timeout` for one.
    /// Without one nothing of what `frame` said holds any more; its buffer stays.
    zav_shm::Receive_Status receive(zav_shm::Received_Frame& frame,
                                    std::chrono::milliseconds timeout);

    /// Reads frames where they lie, for `time` or until `judged` returns false: no copy is made.
    /// Both functions run on the subscriber's thread, one frame after the other, while this call
    /// waits. `read` gets the frame, with an empty `bytes`, and its payload in the slot; it has to
    /// be done within 10 ms, or the producer goes on without this consumer. The payload may be
    /// overwritten meanwhile, and then what came of it is to be thrown away: `judged` tells whether
    /// it was one whole frame. `read` comes a second time when it first was not.
    /// Neither may throw, but for a bad_alloc of `read`: the frame is lost as one is that there is
    /// no memory to copy.
    ///
    /// What the queue holds stays there.
    ///
    /// @return frame when `judged` ended it, timeout, or closed.
    struct In_Place {
        std::function<void(const zav_shm::Received_Frame& frame,
                           std::span<const std::byte> payload)>
            read;
        std::function<bool(const zav_shm::Received_Frame& frame, bool whole)> judged;
    };
    zav_shm::Receive_Status read_in_place(const In_Place& reader, std::chrono::milliseconds time);

    /// Moves to another producer, or to none with "NONE". What the queue holds stays.
    ///
    /// A producer without this channel or stream is refused. When the center does not answer in
    /// time it may serve the request all the same; the subscriber then asks for the producer that
    /// it had, and stays with that one.
    ///
    /// @return connected; or why not, while the subscriber stays as it was. With "NONE" it is
    ///         waiting_for_producer, without a reason.
    Opened pair(const std::string& producer,
                std::chrono::milliseconds limit = std::chrono::milliseconds(1000));

    zav_shm::Frame_State state() const;
    zav_shm::Subscriber_Counters counters() const;

private:
    class Body;
    std::unique_ptr<Body> body_;
};
