// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "apps/watch/ring_watch.h"
#include "apps/watch/snapshot.h"

namespace zav_shm::watch {

/// A card as it was found.
struct Found_Card {
    std::string name;  // of the file
    Reader_Card card;
    uid_t uid = 0;  // its owner
    bool is_alive = false;

    Stream_Id of() const { return {card.producer, card.channel, card.stream}; }
};

/// Every card beside the rings that can be read.
std::vector<Found_Card> find_cards(const std::string& rings_folder, std::size_t count_max,
                                   std::uint64_t& omitted);

/// One reader, by its card, looked at from time to time.
///
/// Threads  one at a time.
class Card_Watch {
public:
    /// @param stream  whose frames it reads; null when there is no such stream
    /// @param ring    the ring of that stream; null when it has none
    Consumer look(const Found_Card& found, std::int64_t now_ns, const Stream* stream,
                  const Ring_Watch::Look* ring, Process_Watch& processes);

    bool was_seen = false;  // the collector's

private:
    void tell_rates(std::int64_t now_ns, Consumer& consumer);

    std::int64_t taken_ns_ = 0;
    std::int64_t since_ns_ = 0;
    Reader_Card::Counters counters_;
    Latency_Histogram latency_;
    std::uint64_t frames_of_stream_ = 0;
    std::int64_t fed_ns_ = 0;  // when frames of the stream were last seen to come
};

}  // namespace zav_shm::watch
