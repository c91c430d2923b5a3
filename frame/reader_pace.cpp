// SPDX-License-Identifier: Apache-2.0
#include "frame/reader_pace.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "ipc/futex.h"
#include "ipc/memory_fence.h"
#include "ipc/monotonic_clock.h"

namespace zav_shm {

namespace {

// How often it is looked for new readers.
constexpr std::int64_t look_interval_ns = 100'000'000;

// The longest sleep at a time: a reader that is killed wakes nobody.
constexpr std::int64_t sleep_max_ns = 10'000'000;

// A writer that has to wait does so until a quarter of the history is free: one wake for many
// records.
constexpr std::uint64_t share_awaited = 4;

// Without end, for whoever says so: milliseconds::max() in nanoseconds does not fit.
constexpr std::chrono::milliseconds limit_max = std::chrono::hours(24 * 365);

}  // namespace

Reader_Pace::Reader_Pace(std::string folder, std::string producer, int channel, int stream,
                         std::chrono::milliseconds limit, std::shared_ptr<const Slot_Feeder> feeder)
    : folder_(std::move(folder)),
      producer_(std::move(producer)),
      channel_(channel),
      stream_(stream),
      limit_ns_(std::chrono::nanoseconds(std::clamp(limit, -limit_max, limit_max)).count()),
      feeder_(std::move(feeder)) {}

void Reader_Pace::wait_for_readers(Ring_Writer& writer, std::size_t bytes) {
    const std::uint64_t oldest = writer.oldest_after(bytes);
    std::int64_t now = monotonic_ns();
    // Before the first record is overwritten, too: who has come by then is waited for.
    const bool begins_to_overwrite = oldest > 1 && !std::exchange(overwrites_, true);
    if (begins_to_overwrite) {
        next_look_ns_ = now;
    }
    if (now >= next_look_ns_) {
        look_for_cards(now);
        all_are_at_ = slowest(writer, now);
    }
    if (oldest <= all_are_at_) {
        return;
    }
    all_are_at_ = slowest(writer, now);
    if (oldest <= all_are_at_) {
        return;
    }
    ++waits_;
    Ring_Memory& ring = *writer.memory();
    const std::uint64_t held = writer.last() + 1 - oldest;
    const std::uint64_t awaited = oldest + held / share_awaited;
    const auto low = std::max(static_cast<std::uint32_t>(awaited), 1U);
    while (all_are_at_ < awaited) {
        // A reader sets its cursor and then looks at this word; pairs with wake_waiting_writer().
        ring.store_release(ring_awaited_offset, low);
        full_fence();
        now = monotonic_ns();
        look_for_cards(now);
        all_are_at_ = slowest(writer, now);
        if (all_are_at_ < awaited) {
            futex_wait(ring.awaited_word(), low, now + sleep_max_ns);
        }
    }
    ring.store_release(ring_awaited_offset, 0);
}

// The number that the slowest reader reads next who is still waited for.
std::uint64_t Reader_Pace::slowest(const Ring_Writer& writer, std::int64_t now) {
    const std::uint64_t next = writer.last() + 1;
    std::uint64_t slowest = std::numeric_limits<std::uint64_t>::max();
    const auto consider = [&](Progress& progress, std::uint64_t at) {
        note(progress, at, next, now);
        if (!progress.is_given_up) {
            slowest = std::min(slowest, at);
        }
    };
    std::erase_if(readers_, [&](Reader& reader) {
        const auto at = position_of(reader, writer);
        if (at) {
            consider(reader.progress, *at);
        }
        return !at;
    });
    if (const std::uint64_t at = feeder_ ? feeder_->needs() : 0; at != 0) {
        consider(feeder_progress_, at);
    }
    return slowest;
}

// Nothing when the reader is gone. Who has not come to this ring yet will want it from its begin.
std::optional<std::uint64_t> Reader_Pace::position_of(const Reader& reader,
                                                      const Ring_Writer& writer) const {
    const auto position = reader.card.position();
    if (!position || !reader.card.is_alive()) {
        return std::nullopt;
    }
    if (position->epoch != writer.memory()->facts().epoch) {
        return 1;
    }
    const std::uint64_t next = writer.last() + 1;
    const std::int32_t behind = ring_distance(static_cast<std::uint32_t>(next), position->cursor);
    return next - std::min<std::uint64_t>(static_cast<std::uint64_t>(std::max(behind, 0)), next);
}

void Reader_Pace::note(Progress& progress, std::uint64_t at, std::uint64_t next, std::int64_t now) {
    if (at != progress.at || at == next) {
        progress = {at, now, false};
    } else if (!progress.is_given_up && now - progress.since_ns >= limit_ns_) {
        progress.is_given_up = true;
        ++given_up_;
    }
}

void Reader_Pace::look_for_cards(std::int64_t now) {
    if (now < next_look_ns_) {
        return;
    }
    next_look_ns_ = now + look_interval_ns;
    std::erase_if(readers_,
                  [this](const Reader& reader) { return !is_of_this_stream(reader.card); });
    for (const std::string& name : card_names(folder_)) {
        const bool is_known =
            std::any_of(readers_.begin(), readers_.end(),
                        [&name](const Reader& reader) { return reader.card.name() == name; });
        Seen_Card card(folder_, name);
        if (!is_known && is_of_this_stream(card)) {
            readers_.push_back({std::move(card), {0, now, false}});
        }
    }
}

// A consumer that is paired anew changes its card.
bool Reader_Pace::is_of_this_stream(const Seen_Card& card) const {
    const auto seen = card.read();
    return seen && producer_ == seen->producer && channel_ == seen->channel &&
           stream_ == seen->stream;
}

}  // namespace zav_shm
