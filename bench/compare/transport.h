// SPDX-License-Identifier: Apache-2.0
#pragma once

// What every compared system is put behind: a publisher, a subscriber, and a broker process where
// the system has one. One file per system implements it; nothing else knows the system.

#include <chrono>
#include <csignal>
#include <cstddef>
#include <memory>
#include <span>
#include <string>

#include "bench/compare/load.h"

namespace zav_shm::bench::compare {

/// Frames that each consumer may have waiting, wherever the system can be told.
inline constexpr int queue_frames = 8;

/// "A while" of a subscriber.
inline constexpr std::chrono::milliseconds idle_time{200};

/// One stream of one camera, and how it is used.
struct Channel {
    int camera = 0;
    int stream = 0;
    const Load& load;

    /// Where a system can have a socket of this channel's: "/tmp/gst-camera3-stream1". The folder
    /// is private to the bench.
    std::string socket_path(const std::string& system) const;
};

/// Who looks at the frames of a subscriber.
class Frame_Reader {
public:
    virtual ~Frame_Reader() = default;
    virtual void read(std::span<const std::byte> payload) = 0;

    /// Follows each read(): whether that was one whole frame, as far as the system can tell.
    ///
    /// @return false when the subscriber is to come back from serve().
    virtual bool judged(bool whole) = 0;
};

class Publisher {
public:
    virtual ~Publisher() = default;

    /// Where the next frame is to be written, `payload_bytes` long: the system's own memory, or a
    /// buffer of this process that publish() copies. Empty when the system has no room for a frame
    /// or nobody to send it to.
    virtual std::span<std::byte> room() = 0;

    /// Sends what was written. Never waits longer than the load's flow says.
    virtual void publish() = 0;
};

class Subscriber {
public:
    virtual ~Subscriber() = default;

    /// Hands each frame that comes to `reader`, until that says so, or none came for a while.
    virtual void serve(Frame_Reader& reader) = 0;
};

/// One compared system.
///
/// Threads  prepare, run_broker and the two makers run in processes of their own, forked from one
///          that has no threads and has not touched the system; publishers and subscribers of one
///          process on a thread each.
/// Errors   of setting up are std::runtime_error and end the process.
class Transport {
public:
    virtual ~Transport() = default;

    virtual std::string name() const = 0;

    /// How often a payload byte is copied between the producer's and the consumer's application.
    virtual std::string copies() const = 0;

    /// What is done once, in a process of its own, before all runs: caches are made.
    virtual void prepare() const {}

    virtual bool has_broker() const { return false; }

    /// Replaces the calling process, or serves in it, until end_signal().
    ///
    /// @return an exit status
    virtual int run_broker(const Load& load) const;
    virtual int end_signal() const { return SIGTERM; }

    /// Whether processes may be started that need it.
    virtual bool broker_is_ready() const { return true; }

    virtual std::unique_ptr<Publisher> make_publisher(const Channel& channel) const = 0;
    virtual std::unique_ptr<Subscriber> make_subscriber(const Channel& channel,
                                                        int consumer) const = 0;
};

}  // namespace zav_shm::bench::compare
