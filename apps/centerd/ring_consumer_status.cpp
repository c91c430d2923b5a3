// SPDX-License-Identifier: Apache-2.0
#include "apps/centerd/ring_consumer_status.h"

#include <algorithm>
#include <map>
#include <memory>
#include <optional>

#include "ipc/ring_place.h"
#include "ipc/shared_memory_folder.h"
#include "ring/reader_card.h"

namespace zav_shm::centerd {

namespace {

// More readers than any device has, so that cards which somebody makes for fun cannot fill the
// memory with the status.
constexpr std::size_t readers_max = 4096;

/// The rings that cards are about; several cards may be about the same one.
class Rings {
public:
    explicit Rings(const std::string& folder) : folder_(folder) {}

    /// How many records the reader has not come to yet. Nothing when its cursor is not of the ring
    /// that has the name now.
    std::optional<std::uint32_t> behind(const Reader_Card& card) {
        const std::shared_ptr<Ring_Memory>& ring = ring_of(ring_path(
            folder_, is_file_name(card.producer) ? card.producer : ".", card.channel, card.stream));
        if (!ring || card.epoch == 0 || card.epoch != ring->facts().epoch) {
            return std::nullopt;
        }
        const auto head = ring->load(ring_head_offset);
        return head ? std::optional(static_cast<std::uint32_t>(
                          std::max(ring_distance(*head + 1, card.cursor), 0)))
                    : std::nullopt;
    }

private:
    const std::shared_ptr<Ring_Memory>& ring_of(const std::string& path) {
        const auto [ring, is_new] = rings_.try_emplace(path);
        if (is_new) {
            Ring_Problem problem;
            ring->second = Ring_Memory::open(path, Ring_Memory::Reading::copied, problem);
        }
        return ring->second;
    }

    const std::string& folder_;
    std::map<std::string, std::shared_ptr<Ring_Memory>> rings_;
};

Json::Value json_of(const Reader_Card& card, std::optional<std::uint32_t> behind) {
    const Reader_Card::Counters& counters = card.counters;
    Json::Value value;
    value["consumer"] = card.consumer;
    value["producer"] = card.producer;
    value["channel"] = card.channel;
    value["stream"] = card.stream;
    value["pid"] = card.pid;
    value["tap"] = (card.flags & Reader_Card::nameless) != 0;
    value["relayed"] = (card.flags & Reader_Card::relayed) != 0;
    value["behind"] = behind ? Json::Value(*behind) : Json::Value();
    value["received"] = Json::UInt64{counters.frames};
    value["bytes"] = Json::UInt64{counters.bytes};
    value["lost"] = Json::UInt64{counters.overtaken + counters.left_out + counters.no_memory};
    value["overtaken"] = Json::UInt64{counters.overtaken};
    value["left_out"] = Json::UInt64{counters.left_out};
    value["no_memory"] = Json::UInt64{counters.no_memory};
    value["dropped"] = Json::UInt64{counters.dropped};
    value["skipped"] = Json::UInt64{counters.skipped};
    value["torn"] = Json::UInt64{counters.torn};
    value["invalid"] = Json::UInt64{counters.invalid};
    return value;
}

bool is_of(const Reader_Card& card, const Ring_Consumer_Snapshot& consumer, long pid) {
    return consumer.name == card.consumer && consumer.channel == card.channel &&
           consumer.stream == card.stream && pid == static_cast<long>(card.pid);
}

// Nobody knows more of it.
Json::Value json_without_card(const Ring_Consumer_Snapshot& consumer, long pid) {
    Json::Value value;
    value["consumer"] = consumer.name;
    value["producer"] = consumer.producer;
    value["channel"] = consumer.channel;
    value["stream"] = consumer.stream;
    value["pid"] = Json::Int64{pid};
    return value;
}

std::vector<Reader_Card> cards_in(const std::string& folder) {
    std::vector<Reader_Card> cards;
    for (const std::string& name : card_names(folder)) {
        const Seen_Card seen(folder, name);
        const auto card = seen.is_alive() ? seen.read() : std::nullopt;
        if (card && cards.size() < readers_max) {
            cards.push_back(*card);
        }
    }
    return cards;
}

}  // namespace

Json::Value ring_consumer_status(const std::string& rings_folder,
                                 const std::vector<Ring_Consumer_Snapshot>& registered) {
    Json::Value list(Json::arrayValue);
    Rings rings(rings_folder);
    const std::vector<Reader_Card> cards = cards_in(rings_folder);
    for (const Reader_Card& card : cards) {
        list.append(json_of(card, rings.behind(card)));
    }
    for (const Ring_Consumer_Snapshot& consumer : registered) {
        for (const long pid : consumer.pids) {
            const bool has_card =
                std::any_of(cards.begin(), cards.end(),
                            [&](const Reader_Card& card) { return is_of(card, consumer, pid); });
            if (!has_card) {
                list.append(json_without_card(consumer, pid));
            }
        }
    }
    return list;
}

}  // namespace zav_shm::centerd
