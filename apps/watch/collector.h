// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <map>
#include <string>
#include <vector>

#include "apps/watch/card_watch.h"
#include "apps/watch/center_look.h"
#include "apps/watch/process_watch.h"
#include "apps/watch/ring_watch.h"
#include "apps/watch/snapshot.h"

namespace zav_shm::watch {

/// Looks at all streams of a folder, and at all who take their frames.
///
///   Collector collector("shm");
///   for (;; sleep_for(1s)) {
///       const Snapshot snapshot = collector.look();
///       ...
///   }
///
/// It registers nowhere and needs no center: rings and cards tell it all, but for consumers of the
/// fixed interface, which the center's status tells. What it sees it may read: streams that belong
/// to others are shown with the reason why nothing is known of them.
///
/// Threads  one at a time.
/// Blocking never: some ten system calls for each ring and each card.
/// Costs    those who are looked at nothing: it wakes nobody, takes no lock and writes nothing.
class Collector {
public:
    /// @param folder  of the segments, "shm"
    explicit Collector(std::string folder);

    /// The first snapshot has no rates: those are between two snapshots.
    Snapshot look();

private:
    using Cards = std::map<Stream_Id, std::vector<Found_Card>>;

    void look_at_center(Snapshot& snapshot);
    void look_at_rings(Snapshot& snapshot, Cards& cards);
    void look_at_slots(Snapshot& snapshot, Cards& cards);
    void look_at_rest(Snapshot& snapshot, const Cards& cards);
    void take_consumers(Stream& stream, const Ring_Watch::Look* ring, Cards& cards);
    void take_fixed_consumers(Stream& stream, Center_Channel& channel);
    void forget_others();

    const std::string folder_;
    const std::string rings_folder_;
    std::int64_t taken_ns_ = 0;

    // Of what there was in the latest snapshot.
    std::map<Stream_Id, Ring_Watch> rings_;
    std::map<std::string, Card_Watch> cards_;  // by file
    std::map<Stream_Id, Slot_Watch> slots_;
    Process_Watch processes_;

    std::map<Stream_Id, Center_Channel> channels_;  // of this snapshot
    std::int64_t status_written_ns_ = 0;
};

}  // namespace zav_shm::watch
