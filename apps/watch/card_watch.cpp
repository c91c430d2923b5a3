// SPDX-License-Identifier: Apache-2.0
#include "apps/watch/card_watch.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "ipc/monotonic_clock.h"

namespace zav_shm::watch {

namespace {

// A reader that has frames and takes none for longer than this does not read. With a snapshot a
// second it shows within two.
constexpr std::int64_t pause_max_ns = 700 * ns_per_ms;

// The counters of a card have 32 bits for each bucket, which wrap.
Latency_Histogram between(const Latency_Histogram& now, const Latency_Histogram& before) {
    Latency_Histogram result;
    for (std::size_t i = 0; i < Latency_Histogram::bucket_count; ++i) {
        result.buckets[i] = static_cast<std::uint32_t>(now.buckets[i] - before.buckets[i]);
    }
    return result;
}

std::optional<Consumer::Rates> rates_of(const Reader_Card::Counters& now,
                                        const Reader_Card::Counters& before,
                                        std::int64_t interval_ns) {
    using Counters = Reader_Card::Counters;
    constexpr std::pair<std::uint64_t Counters::*, double Consumer::Rates::*> fields[] = {
        {&Counters::frames, &Consumer::Rates::frames},
        {&Counters::bytes, &Consumer::Rates::bits},
        {&Counters::overtaken, &Consumer::Rates::overtaken},
        {&Counters::left_out, &Consumer::Rates::left_out},
        {&Counters::no_memory, &Consumer::Rates::no_memory},
        {&Counters::dropped, &Consumer::Rates::dropped},
        {&Counters::skipped, &Consumer::Rates::skipped},
        {&Counters::torn, &Consumer::Rates::torn},
        {&Counters::invalid, &Consumer::Rates::invalid},
    };
    Consumer::Rates rates;
    for (const auto& [counter, rate] : fields) {
        const auto found = rate_of(now.*counter, before.*counter, interval_ns);
        if (!found) {
            return std::nullopt;
        }
        rates.*rate = *found;
    }
    rates.bits *= 8;
    return rates;
}

// When the first frame came that it has not taken, or when it took its latest one, if that was
// later; nothing while all are taken.
std::optional<std::int64_t> waiting_since(const Consumer& consumer, const Reader_Card& card,
                                          const Ring_Watch::Look* ring, std::int64_t fed_ns) {
    const std::int64_t active_ns = std::max(card.counters.last_frame_ns, card.since_ns);
    if (ring == nullptr || consumer.is_relayed) {
        return fed_ns > active_ns ? std::optional(active_ns) : std::nullopt;
    }
    const bool is_in_it = card.epoch != 0 && card.epoch == ring->epoch();
    const auto unread_ns =
        is_in_it ? ring->unread_since(card.cursor) : ring->first_time_after(active_ns);
    return unread_ns ? std::optional(std::max(active_ns, *unread_ns)) : std::nullopt;
}

// Two reads that agree show no counter half written: a system call copies in pieces. A reader that
// takes frames faster than that is taken as it is found last.
std::optional<Reader_Card> read_steadily(const Seen_Card& seen) {
    constexpr int attempts_max = 8;
    std::optional<Reader_Card> former = seen.read();
    for (int i = 0; i < attempts_max && former; ++i) {
        auto now = seen.read();
        if (now && std::memcmp(&*now, &*former, sizeof *now) == 0) {
            return now;
        }
        former = now;
    }
    return former;
}

Consumer::State state_of(const Found_Card& found, const Consumer& consumer) {
    if (!found.is_alive) {
        return Consumer::State::gone;
    }
    if (consumer.process.is_stopped) {
        return Consumer::State::stopped;
    }
    return consumer.not_reading_ns > 0 ? Consumer::State::not_reading : Consumer::State::reading;
}

}  // namespace

std::vector<Found_Card> find_cards(const std::string& rings_folder, std::size_t count_max,
                                   std::uint64_t& omitted) {
    std::vector<Found_Card> cards;
    for (const std::string& name : card_names(rings_folder)) {
        if (cards.size() == count_max) {
            ++omitted;
            continue;
        }
        const Seen_Card seen(rings_folder, name);
        const auto card = read_steadily(seen);
        struct stat status {};
        if (card && lstat((rings_folder + "/" + name).c_str(), &status) == 0) {
            cards.push_back({name, *card, status.st_uid, seen.is_alive()});
        }
    }
    return cards;
}

Consumer Card_Watch::look(const Found_Card& found, std::int64_t now_ns, const Stream* stream,
                          const Ring_Watch::Look* ring, Process_Watch& processes) {
    const Reader_Card& card = found.card;
    Consumer consumer;
    consumer.kind =
        (card.flags & Reader_Card::nameless) != 0 ? Consumer::Kind::tap : Consumer::Kind::named;
    consumer.name = card.consumer;
    consumer.of = found.of();
    consumer.channel = card.channel;
    consumer.stream = card.stream;
    consumer.card = found.name;
    consumer.is_relayed = (card.flags & Reader_Card::relayed) != 0;
    consumer.process = processes.look(found.is_alive ? card.pid : 0, found.uid, card.since_ns);
    consumer.process.pid = card.pid;
    consumer.counters = card.counters;
    std::copy(std::begin(card.latency), std::end(card.latency), consumer.latency.buckets.begin());
    consumer.last_frame_age_ns = time_since(card.counters.last_frame_ns, now_ns);
    if (ring != nullptr && card.epoch != 0 && card.epoch == ring->epoch()) {
        consumer.behind = ring->behind(card.cursor);
    }
    if (stream != nullptr && stream->frames != std::exchange(frames_of_stream_, stream->frames) &&
        taken_ns_ != 0) {
        fed_ns_ = now_ns;
    }
    if (const auto since = waiting_since(consumer, card, ring, fed_ns_); since && found.is_alive) {
        const std::int64_t pause_ns = time_since(*since, now_ns).value_or(0);
        consumer.not_reading_ns = pause_ns > pause_max_ns ? pause_ns : 0;
    }
    consumer.state = state_of(found, consumer);
    if (card.since_ns != since_ns_) {
        taken_ns_ = 0;
        latency_ = {};
        since_ns_ = card.since_ns;
    }
    tell_rates(now_ns, consumer);
    return consumer;
}

void Card_Watch::tell_rates(std::int64_t now_ns, Consumer& consumer) {
    if (taken_ns_ != 0) {
        consumer.rates = rates_of(consumer.counters, counters_, now_ns - taken_ns_);
    }
    const Latency_Histogram recent = between(consumer.latency, latency_);
    if (const std::uint64_t frames = recent.count(); frames != 0) {
        consumer.recent_latency =
            Consumer::Latency{frames, recent.percentile_ns(0.5), recent.percentile_ns(0.99)};
    }
    taken_ns_ = now_ns;
    counters_ = consumer.counters;
    latency_ = consumer.latency;
}

}  // namespace zav_shm::watch
