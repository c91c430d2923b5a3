// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>

#include "frame/frame_subscriber.h"

/// Takes a main or a sub stream of one picture, and changes from one to the other so that what
/// comes out can be decoded throughout.
///
///   ZAV_SHM_Frame_Dual_Subscriber player({.name = "PLAYER", .producer = "CAM_LOOP"}, 1);
///   player.open();
///   player.receive(frame, 1s);                           // of the main stream
///   player.select(ZAV_SHM_Frame_Dual_Subscriber::sub);   // changes at its next key frame
///
/// Owner    owns a subscriber for each stream, one of them open except during a change.
/// Threads  receive() from one thread at a time; select(), state() and close() from the same one.
/// Blocking as the subscriber; select() registers the other stream, within `center_wait`, while
///          the present one waits in its history.
/// Errors   as the subscriber.
class ZAV_SHM_Frame_Dual_Subscriber {
public:
    using Options = ZAV_SHM_Frame_Subscriber::Options;
    using Opened = ZAV_SHM_Frame_Subscriber::Opened;

    enum Stream { main = 0, sub = 1 };

    /// How to change over.
    enum class Change {
        gapless,  // the present stream goes on until a key frame of the wanted one that is not
                  // older; the picture of that moment may come from both
        at_once   // the wanted stream begins with its last key frame, which may be older than what
                  // came out last
    };

    /// @param main        as for the subscriber of the main stream
    /// @param sub_stream  stream number of the sub stream, of the same channel
    ZAV_SHM_Frame_Dual_Subscriber(const Options& main, int sub_stream);
    ZAV_SHM_Frame_Dual_Subscriber(const ZAV_SHM_Frame_Dual_Subscriber&) = delete;
    ZAV_SHM_Frame_Dual_Subscriber& operator=(const ZAV_SHM_Frame_Dual_Subscriber&) = delete;
    ~ZAV_SHM_Frame_Dual_Subscriber();

    /// Opens the stream that was selected, main if none was, where the options begin.
    Opened open();
    void close();

    /// Wants this stream from now on. Selecting the present one again takes a change back.
    Opened select(Stream stream, Change change = Change::gapless);

    /// The stream of the frame received last, or to be received next.
    Stream current() const { return current_; }

    /// A change has been asked for and has not come about yet.
    bool is_changing() const { return wanted_ != current_; }

    /// Changes that came about.
    std::uint64_t changes() const { return changes_; }

    /// The next frame of what is to come out; `current()` tells of which stream it is.
    zav_shm::Receive_Status receive(zav_shm::Received_Frame& frame,
                                    std::chrono::milliseconds timeout);

    zav_shm::Frame_State state() const;
    zav_shm::Subscriber_Counters counters(Stream stream) const;

private:
    bool find_wanted_key_frame();
    bool take_during_change(zav_shm::Received_Frame& frame);
    void change_over(zav_shm::Received_Frame& frame);
    ZAV_SHM_Frame_Subscriber& of(Stream stream) const { return *subscribers_[stream]; }

    std::unique_ptr<ZAV_SHM_Frame_Subscriber> subscribers_[2];
    zav_shm::Start first_;  // where open() begins
    Stream current_ = main;
    Stream wanted_ = main;
    Change change_ = Change::gapless;
    zav_shm::Received_Frame key_frame_;  // the wanted stream's, while the other is ahead of it
    bool has_key_frame_ = false;
    std::int64_t last_published_ns_ = 0;  // of what came out last
    std::uint64_t changes_ = 0;
    bool open_ = false;
};
