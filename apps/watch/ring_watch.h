// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "apps/watch/process_watch.h"
#include "apps/watch/snapshot.h"
#include "ring/ring_reader.h"

namespace zav_shm::watch {

/// How much time lies between, never below 0; nothing when `then` cannot have been.
std::optional<std::int64_t> time_since(std::int64_t then_ns, std::int64_t now_ns);

/// How fast something has grown; nothing when it has not been growing all the time.
std::optional<double> rate_of(std::uint64_t now, std::uint64_t before, std::int64_t interval_ns);

/// One stream's ring, looked at from time to time: opened anew each time, and read by pread, so
/// that the file may be replaced, cut or of anybody's making.
///
/// Threads  one at a time.
/// Costs    its writer and its readers nothing: no lock that they meet, no wake, no write.
class Ring_Watch {
public:
    /// A look at the ring as it is when this is built, for those who ask for single records of it.
    class Look {
    public:
        explicit Look(std::shared_ptr<const Ring_Memory> memory)
            : reader_(std::move(memory)), oldest_(reader_.oldest()), newest_(reader_.newest()) {}

        std::uint64_t epoch() const { return reader_.memory().facts().epoch; }
        std::uint64_t oldest() const { return oldest_; }
        std::uint64_t newest() const { return newest_; }

        /// Frames that one has not read who reads this number next, of which it tells the lower
        /// half.
        std::uint64_t behind(std::uint32_t cursor) const;

        /// When the first frame was published that one has not read who reads this number next;
        /// nothing when all are read. An estimate where that frame is overwritten.
        std::optional<std::int64_t> unread_since(std::uint32_t cursor) const;

        /// When the first frame in reach was published that is newer than this.
        std::optional<std::int64_t> first_time_after(std::int64_t time_ns) const;

        /// Nothing when the record is not, or no longer, in reach.
        std::optional<Ring_Entry> entry(std::uint64_t number) const;

        /// Entries of these numbers, as far as they are sound and in reach: the number of the first
        /// one, and all up to `last`.
        std::vector<Ring_Entry> entries(std::uint64_t& first, std::uint64_t last) const;

        const Ring_Reader& reader() const { return reader_; }

    private:
        Ring_Reader reader_;
        std::uint64_t oldest_;  // the tail is loaded before the head
        std::uint64_t newest_;
    };

    /// Fills in what the ring says of its stream.
    ///
    /// @return nothing when it cannot be read: the stream then tells why.
    std::optional<Look> look(const std::string& path, std::int64_t now_ns, Process_Watch& processes,
                             Stream& stream);

    bool was_seen = false;  // the collector's

private:
    struct Key_Frame {
        std::uint64_t number = 0;
        std::int64_t time_ns = 0;
    };

    /// What is known from the looks before, at the ring of this epoch.
    struct Past {
        std::uint64_t epoch = 0;
        std::int64_t taken_ns = 0;
        std::uint64_t frames = 0;
        std::uint64_t bytes = 0;
        std::uint64_t noted = 0;       // number of the newest entry that was noted
        std::optional<Key_Frame> key;  // the newest one, when all behind it has been noted, too
        std::int64_t key_ns = 0;       // when the newest one was published that was seen
        std::optional<std::int64_t> key_interval_ns;
        std::optional<std::uint64_t> key_interval_frames;
        std::int64_t newest_ns = 0;  // when the newest frame was published
    };

    /// Entries of the latest look that were not noted before.
    struct News {
        std::uint64_t count = 0;
        std::uint64_t bytes = 0;
    };

    News note_entries(const Look& look);
    void note_key_frame(const Key_Frame& key);
    void tell_rates(std::int64_t now_ns, const Look& look, const News& news, Stream& stream);
    void tell_key_frames(std::int64_t now_ns, Stream& stream) const;

    Past past_;
};

}  // namespace zav_shm::watch
