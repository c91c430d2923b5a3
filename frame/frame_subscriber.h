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
#include "frame/frame_view.h"
#include "frame/reading_rules.h"
#include "frame/received_frame.h"

namespace zav_shm {

enum class Receive_Status {
    frame,    // here it is
    timeout,  // none within the time, or interrupt() was called; state() tells why
    closed    // close() was called, or open() was not
};

}  // namespace zav_shm

/// What a consumer process builds for each stream that it takes: reads the producer's history from
/// where it is told to, hands out whole frames only, says what was missed and why, and goes on by
/// itself when producer, center or consumer are started again.
///
///   ZAV_SHM_Frame_Subscriber recorder({.name = "RECODER", .producer = "CAM_LOOP"});
///   if (const auto opened = recorder.open(); !opened) { ... opened.reason ... }
///   zav_shm::Received_Frame frame;
///   while (recorder.receive(frame, 1s) == zav_shm::Receive_Status::frame) write(frame.payload());
///
/// Between the producer's memory and the application there is no thread, no queue and no lock: what
/// the application does not take stays in the producer's history, for as long as that is. A
/// producer that has no history, since it uses the fixed interface, is read by a thread into a
/// history of the subscriber's own.
///
/// With a name the consumer is the center's to check and to pair; without one ("tap") it reads any
/// stream that it may open, and no center is asked.
///
/// Owner    of its place in the center's books, its card beside the producer's ring, and, for a
///          producer without a history, a thread and a history.
/// Threads  receive(), receive_view(), seek() and descriptor() from one thread at a time; pair(),
///          request_key_frame(), interrupt(), state(), counters() and close() from any, also while
///          one of the others is blocked.
/// Blocking receive() and receive_view() take at most the time given. So do open() (`center_wait`),
///          pair() and close().
/// Errors   are values. Nothing throws and nothing is printed but the documented lines of the base
///          layers. A frame that there is no memory for is lost, and told.
/// Crash    a killed subscriber leaves its card, which the center's host removes, and costs nobody
///          anything. Its successor simply opens again.
/// Fork     a child cannot use what its parent opened: receive() returns closed, close() and the
///          destructor do nothing. It opens one of its own.
class ZAV_SHM_Frame_Subscriber {
public:
    struct Options {
        std::string name = {};      // this consumer, as configured in the center; empty: a tap
        std::string producer = {};  // whose frames
        int channel = 0;
        int stream = 0;
        zav_shm::Start from = zav_shm::start::newest;
        zav_shm::Overflow_Policy overflow = zav_shm::Overflow_Policy::drop_until_key_frame;
        bool start_at_key_frame = false;    // leave out what comes before the first
        bool key_frame_after_loss = false;  // leave out what comes between a loss, or the begin of
                                            // another publisher, and the next key frame, in a
                                            // stream that has had one
        bool asks_for_key_frame = false;    // ask the publisher for one, then and at the begin

        std::chrono::milliseconds center_wait{2000};  // how long open() looks for a center
        std::string folder = "shm";     // of the segments, for a tap and while there is no center
        bool untrusting = false;        // read by copying: a publisher that shrinks its ring is an
                                        // error, and not the end of this process
        std::size_t history_bytes = 0;  // of the own history for a producer without one;
                                        // 0: four times the page size
    };

    using Opened = zav_shm::Opened;

    explicit ZAV_SHM_Frame_Subscriber(Options options);
    ZAV_SHM_Frame_Subscriber(const ZAV_SHM_Frame_Subscriber&) = delete;
    ZAV_SHM_Frame_Subscriber& operator=(const ZAV_SHM_Frame_Subscriber&) = delete;

    /// close().
    ~ZAV_SHM_Frame_Subscriber();

    /// Registers, waiting up to `center_wait` for a center, and joins the stream. Without a center
    /// frames are read all the same, and it registers as soon as there is one. When it is refused,
    /// no frame is read; it registers again when another center comes.
    Opened open();

    /// Leaves; a blocked receive() returns at once, an open() or pair() of another thread within a
    /// second. Then waits up to `limit` for the center's answer.
    void close(std::chrono::milliseconds limit = std::chrono::milliseconds(200));

    /// Copies the next frame, waiting up to `timeout` for one. Without one nothing of what `frame`
    /// said holds any more; its buffer stays.
    zav_shm::Receive_Status receive(zav_shm::Received_Frame& frame,
                                    std::chrono::milliseconds timeout);

    /// The same without a copy: the view shows the frame where it lies. The publisher may overwrite
    /// it at any moment: what came of it counts only if view.is_whole() says so afterwards.
    zav_shm::Receive_Status receive_view(zav_shm::Frame_View& view,
                                         std::chrono::milliseconds timeout);

    /// Ends a receive() or receive_view() that waits, or else the next one that would: it returns
    /// timeout at once.
    void interrupt();

    /// Goes on somewhere else in the history that there is. What lies between does not count as
    /// lost.
    void seek(const zav_shm::Start& from);

    /// A descriptor that is readable while there may be a frame: poll it, then receive() with a
    /// timeout of 0 until there is none. It belongs to the subscriber, and stays valid until
    /// close(). From the first call on a thread of this subscriber's, "zav_poll", waits for frames.
    ///
    /// @return -1 when it cannot be had.
    int descriptor();

    /// Moves to another producer, or to none with "NONE". Needs a name and a center.
    ///
    /// A producer without this channel or stream is refused. When the center does not answer in
    /// time it may serve the request all the same; the subscriber then asks for the producer that
    /// it had, and stays with that one.
    ///
    /// @return connected; or why not, while the subscriber stays as it was. With "NONE" it is
    ///         waiting_for_producer, without a reason.
    Opened pair(const std::string& producer,
                std::chrono::milliseconds limit = std::chrono::milliseconds(1000));

    /// Asks the publisher for a key frame as soon as it can.
    ///
    /// @return false when there is nobody to ask, or no right to.
    bool request_key_frame();

    zav_shm::Frame_State state() const;
    std::string reason() const;  // why it is not connected, in one line
    zav_shm::Subscriber_Counters counters() const;

private:
    class Body;
    std::unique_ptr<Body> body_;
};
