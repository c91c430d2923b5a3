// SPDX-License-Identifier: Apache-2.0
#include "apps/watch/collector.h"

#include <algorithm>
#include <ctime>
#include <tuple>
#include <utility>

#include "apps/watch/found_files.h"
#include "control/center_status.h"
#include "ipc/monotonic_clock.h"
#include "ipc/shared_memory_folder.h"

namespace zav_shm::watch {

namespace {

// More than any device has, so that files which somebody makes for fun cost a bounded time.
constexpr std::size_t rings_max = 4096;
constexpr std::size_t cards_max = 4096;

std::int64_t utc_ns() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return std::int64_t{now.tv_sec} * ns_per_second + now.tv_nsec;
}

void sort(std::vector<Consumer>& consumers) {
    const auto key = [](const Consumer& consumer) {
        return std::tie(consumer.kind, consumer.name, consumer.channel, consumer.stream,
                        consumer.process.pid, consumer.card);
    };
    std::sort(consumers.begin(), consumers.end(),
              [&key](const Consumer& a, const Consumer& b) { return key(a) < key(b); });
}

// A subscriber that is fed through the slot is one of the relay's consumers, too. Its card says
// more.
bool has_card(const std::vector<Consumer>& consumers, const Consumer& fixed) {
    return std::any_of(consumers.begin(), consumers.end(), [&fixed](const Consumer& consumer) {
        return consumer.kind == Consumer::Kind::named && consumer.state != Consumer::State::gone &&
               consumer.name == fixed.name && consumer.channel == fixed.channel &&
               consumer.stream == fixed.stream;
    });
}

template <class Watches>
void forget_unseen(Watches& watches) {
    std::erase_if(watches, [](const auto& watch) { return !watch.second.was_seen; });
    for (auto& [key, watch] : watches) {
        watch.was_seen = false;
    }
}

}  // namespace

Collector::Collector(std::string folder)
    : folder_(std::move(folder)), rings_folder_(rings_folder(folder_)) {}

Snapshot Collector::look() {
    Snapshot snapshot;
    snapshot.folder = folder_;
    snapshot.taken_ns = monotonic_ns();
    snapshot.utc_ns = utc_ns();
    snapshot.interval_ns = taken_ns_ != 0 ? snapshot.taken_ns - taken_ns_ : 0;
    taken_ns_ = snapshot.taken_ns;
    Cards cards;
    for (Found_Card& card : find_cards(rings_folder_, cards_max, snapshot.omitted)) {
        cards[card.of()].push_back(std::move(card));
    }
    look_at_center(snapshot);
    look_at_rings(snapshot, cards);
    look_at_slots(snapshot, cards);
    look_at_rest(snapshot, cards);
    std::sort(snapshot.streams.begin(), snapshot.streams.end(),
              [](const Stream& a, const Stream& b) { return a.id < b.id; });
    forget_others();
    return snapshot;
}

void Collector::look_at_center(Snapshot& snapshot) {
    channels_.clear();
    const auto file = read_center_file(center_status_path(folder_));
    if (!file) {
        return;
    }
    snapshot.center = standing_of(*file);
    if (!file->is_alive) {
        return;  // what it says was true once
    }
    status_written_ns_ = file->written_ns;
    for (Center_Channel& channel : channels_of(*file)) {
        channels_.insert_or_assign(channel.id, std::move(channel));
    }
}

// A snapshot is as of the moment at which the ring was looked at: rates would be wrong by what a
// busy machine does in between.
void Collector::look_at_rings(Snapshot& snapshot, Cards& cards) {
    for (const Found_Ring& found : find_rings(rings_folder_, rings_max, snapshot.omitted)) {
        Stream stream;
        stream.id = found.id;
        Ring_Watch& watch = rings_[found.id];
        watch.was_seen = true;
        const auto ring = watch.look(found.path, monotonic_ns(), processes_, stream);
        take_consumers(stream, ring ? &*ring : nullptr, cards);
        if (const auto channel = channels_.find(found.id); channel != channels_.end()) {
            take_fixed_consumers(stream, channel->second);
            channels_.erase(channel);
        }
        sort(stream.consumers);
        snapshot.streams.push_back(std::move(stream));
    }
}

void Collector::look_at_slots(Snapshot& snapshot, Cards& cards) {
    for (auto& [id, channel] : channels_) {
        Stream stream;
        stream.id = id;
        stream.state = Stream::State::slot;
        stream.frames = channel.relay.frames;
        take_consumers(stream, nullptr, cards);
        take_fixed_consumers(stream, channel);
        const Slot_Watch& watch = slots_.at(id);
        stream.rates = watch.rates();
        if (const auto changed_ns = watch.last_change_ns()) {
            stream.age_ns = time_since(*changed_ns, snapshot.taken_ns);
        }
        sort(stream.consumers);
        snapshot.streams.push_back(std::move(stream));
    }
}

void Collector::look_at_rest(Snapshot& snapshot, const Cards& cards) {
    for (const auto& [id, found] : cards) {
        for (const Found_Card& card : found) {
            Card_Watch& watch = cards_[card.name];
            watch.was_seen = true;
            snapshot.elsewhere.push_back(
                watch.look(card, monotonic_ns(), nullptr, nullptr, processes_));
        }
    }
    sort(snapshot.elsewhere);
}

void Collector::take_consumers(Stream& stream, const Ring_Watch::Look* ring, Cards& cards) {
    const auto found = cards.find(stream.id);
    if (found == cards.end()) {
        return;
    }
    for (const Found_Card& card : found->second) {
        Card_Watch& watch = cards_[card.name];
        watch.was_seen = true;
        stream.consumers.push_back(watch.look(card, monotonic_ns(), &stream, ring, processes_));
    }
    cards.erase(found);
}

void Collector::take_fixed_consumers(Stream& stream, Center_Channel& channel) {
    Slot_Watch& watch = slots_[channel.id];
    watch.was_seen = true;
    watch.look(channel, status_written_ns_, monotonic_ns());
    stream.relay = channel.relay;
    for (Consumer& consumer : channel.consumers) {
        if (!has_card(stream.consumers, consumer)) {
            stream.consumers.push_back(std::move(consumer));
        }
    }
}

void Collector::forget_others() {
    forget_unseen(rings_);
    forget_unseen(cards_);
    forget_unseen(slots_);
    processes_.forget_others();
}

}  // namespace zav_shm::watch
