// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "frame/frame_counters.h"

// What a Collector has seen at one moment. Plain values. All names and texts are as their writers
// left them: whoever prints them escapes them for where they go (apps/text/printable.h for
// terminals).
//
// What stands in a ring or a card is its writer's word. A false one shows that stream or consumer
// falsely and no other: nothing of it is used to find anything else.

namespace zav_shm::watch {

struct Stream_Id {
    std::string producer;
    int channel = 0;
    int stream = 0;

    auto operator<=>(const Stream_Id&) const = default;
};

/// The process behind a ring or a card.
struct Process {
    std::uint32_t pid = 0;  // as it sees itself; 0 unknown
    uid_t uid = 0;          // owner of the file
    std::string command;  // as the kernel calls it; empty when there is no such process to be seen,
                          // or it cannot be the one that made the file
    bool is_stopped = false;  // by SIGSTOP or a debugger
};

/// One that takes frames.
struct Consumer {
    enum class Kind {
        named,  // registered with the center, reads with a card
        tap,    // reads without a name
        fixed   // of the fixed interface: all that is known of it is what the center tells
    };
    enum class State {
        reading,      // or nothing has come that it could read
        not_reading,  // frames are there, and it has taken none for `not_reading_ns`
        stopped,      // its process does not run
        gone          // it has ended without taking its card away
    };

    /// Per second, between two snapshots.
    struct Rates {
        double frames = 0;
        double bits = 0;
        double overtaken = 0;
        double left_out = 0;
        double no_memory = 0;
        double dropped = 0;
        double skipped = 0;
        double torn = 0;
        double invalid = 0;

        double lost() const { return overtaken + left_out + no_memory; }
    };

    Kind kind = Kind::named;
    State state = State::reading;
    std::string name;  // empty: a tap
    Stream_Id of;      // whose frames; without a producer: nobody's
    int channel = 0;   // its own, of the fixed interface
    int stream = 0;
    std::string card;         // the card's file name; empty without one
    bool is_relayed = false;  // fed through the producer's slot and not its ring
    Process process;
    std::optional<std::uint64_t> behind;  // frames that are there and that it has not taken
    std::int64_t not_reading_ns = 0;      // since when, though there are frames; 0: it reads
    std::optional<std::int64_t> last_frame_age_ns;  // since it was handed a frame; none yet
    std::uint32_t missed_in_row = 0;                // of the fixed interface: waits in vain for it

    Reader_Card::Counters counters;  // since it began; of the fixed interface `frames` alone
    Latency_Histogram latency;       // since it began: from publish() to the frame handed out
    std::optional<Rates> rates;      // nothing in its first snapshot

    /// Of the frames between two snapshots; in the first one, of all.
    struct Latency {
        std::uint64_t frames = 0;
        std::int64_t p50_ns = 0;
        std::int64_t p99_ns = 0;
    };
    std::optional<Latency> recent_latency;  // nothing without a frame

    std::uint64_t lost() const {
        return counters.overtaken + counters.left_out + counters.no_memory;
    }
};

/// What the relay of a producer's slot has done, as the center tells.
struct Relay {
    std::uint64_t cycles = 0;
    std::uint64_t frames = 0;
    std::uint64_t presence_timeouts = 0;
    std::uint64_t frame_timeouts = 0;
    std::uint64_t read_timeouts = 0;
    std::uint64_t late_read_timeouts = 0;
};

/// One stream of a producer, and who takes its frames.
struct Stream {
    enum class State {
        live,    // its writer lives
        closed,  // its writer has ended in order
        left,    // its writer was killed
        slot,    // of the fixed interface, without a ring: whether anybody writes is not known
        unread   // there is a ring, and it cannot be read: see `problem`
    };

    struct Rates {
        double frames = 0;
        double bits = 0;
    };

    /// What can still be read.
    struct History {
        std::uint64_t frames = 0;
        std::int64_t ns = 0;      // between its oldest and its newest frame
        std::uint64_t bytes = 0;  // of the room that they take up, frame headers included
        std::uint64_t bytes_of_room = 0;
    };

    Stream_Id id;
    State state = State::live;
    std::string problem;  // of `unread`, in one line
    Process writer;
    std::uint64_t epoch = 0;             // of the ring, another one for each writer
    std::uint64_t frames = 0;            // so far, by this writer
    std::optional<std::uint64_t> bytes;  // of their payload; nothing when the writer does not tell
    std::uint64_t left_out = 0;          // frames that the producer offered and that are in no ring
    std::optional<std::int64_t> age_ns;  // of the newest frame; nothing before the first
    History history;

    // Of the newest frame, when it is one of ours.
    std::uint32_t codec = 0;  // see codec_name()
    std::uint32_t width = 0;
    std::uint32_t height = 0;

    // Between the two newest key frames that were seen with all that lies between; nothing as long
    // as the history is too short for that.
    std::optional<std::int64_t> key_interval_ns;
    std::optional<std::uint64_t> key_interval_frames;
    std::optional<std::int64_t> key_age_ns;  // of the newest one that was seen
    std::optional<Rates> rates;              // nothing in its first snapshot
    std::optional<Relay> relay;              // nothing without a center
    std::vector<Consumer> consumers;         // by kind, name and process
};

/// The center, as its page and its status tell.
struct Center_Standing {
    bool is_there = false;  // it has written a status
    bool is_alive = false;
    std::uint64_t pid = 0;
    std::int64_t age_ms = 0;  // of the status
    std::string version;
    std::string started_utc;
};

struct Snapshot {
    std::string folder;            // of the segments, as it was asked for
    std::int64_t taken_ns = 0;     // CLOCK_MONOTONIC
    std::int64_t utc_ns = 0;       // the same moment by the wall clock
    std::int64_t interval_ns = 0;  // since the snapshot before; 0 in the first one
    Center_Standing center;
    std::vector<Stream> streams;      // by id
    std::vector<Consumer> elsewhere;  // those whose producer has no stream here, or who have none
    std::uint64_t omitted = 0;        // rings and cards beyond what is looked at
};

}  // namespace zav_shm::watch
