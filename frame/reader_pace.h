// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "frame/slot/slot_feeder.h"
#include "ring/reader_card.h"
#include "ring/ring_writer.h"

namespace zav_shm {

/// Keeps a writer from overtaking the readers that have cards: for what is played back and not
/// live. Each of them is waited for, but none for longer than the limit without moving: a stopped
/// reader holds the writer up once, a killed one not at all.
///
/// Threads  the writer's.
/// Blocking as said; without a reader that is behind nothing but, ten times a second, the reading
/// of
///          the folder.
class Reader_Pace {
public:
    /// @param folder  of the rings
    /// @param feeder  a reader without a card
    Reader_Pace(std::string folder, std::string producer, int channel, int stream,
                std::chrono::milliseconds limit, std::shared_ptr<const Slot_Feeder> feeder);

    /// Returns when a record of `bytes` would overtake nobody who is still waited for.
    void wait_for_readers(Ring_Writer& writer, std::size_t bytes);

    std::uint64_t waits() const { return waits_; }
    std::uint64_t given_up() const { return given_up_; }

private:
    // How far one reader is.
    struct Progress {
        std::uint64_t at = 0;       // the number that it reads next, when it was last looked at
        std::int64_t since_ns = 0;  // when it got there
        bool is_given_up = false;   // until it moves
    };
    struct Reader {
        Seen_Card card;
        Progress progress;
    };

    std::uint64_t slowest(const Ring_Writer& writer, std::int64_t now);
    void look_for_cards(std::int64_t now);
    std::optional<std::uint64_t> position_of(const Reader& reader, const Ring_Writer& writer) const;
    void note(Progress& progress, std::uint64_t at, std::uint64_t next, std::int64_t now);
    bool is_of_this_stream(const Seen_Card& card) const;

    const std::string folder_;
    const std::string producer_;
    const int channel_;
    const int stream_;
    const std::int64_t limit_ns_;
    const std::shared_ptr<const Slot_Feeder> feeder_;
    Progress feeder_progress_;
    std::vector<Reader> readers_;
    std::int64_t next_look_ns_ = 0;
    bool overwrites_ = false;              // the history is full
    std::uint64_t all_are_at_ = 0;         // no reader was behind this
    std::atomic<std::uint64_t> waits_{0};  // read by any thread, as the next
    std::atomic<std::uint64_t> given_up_{0};
};

}  // namespace zav_shm
