// SPDX-License-Identifier: Apache-2.0
//
// Which streams are shown, and in which order they and their consumers stand.
#include <algorithm>
#include <array>

#include "apps/tool/top/top_view.h"

namespace zav_shm::tool {

namespace {

using watch::Consumer;
using watch::Stream;

constexpr std::array<const char*, top_order_count> order_names = {"name", "rate",   "bits",
                                                                  "age",  "behind", "lost"};

double loss_of(const Consumer& consumer) { return consumer.rates ? consumer.rates->lost() : 0; }

// What is worth looking at comes first: more of anything stands above less of it.
double weight_of(const Consumer& consumer, Top_Order order) {
    switch (order) {
        case Top_Order::name:
            return 0;
        case Top_Order::rate:
            return consumer.rates ? consumer.rates->frames : 0;
        case Top_Order::bits:
            return consumer.rates ? consumer.rates->bits : 0;
        case Top_Order::age:
            return static_cast<double>(consumer.last_frame_age_ns.value_or(0));
        case Top_Order::behind:
            return static_cast<double>(consumer.behind.value_or(0));
        case Top_Order::lost:
            break;
    }
    return loss_of(consumer);
}

double weight_of(const Stream& stream, Top_Order order) {
    double weight = 0;
    switch (order) {
        case Top_Order::name:
            return 0;
        case Top_Order::rate:
            return stream.rates ? stream.rates->frames : 0;
        case Top_Order::bits:
            return stream.rates ? stream.rates->bits : 0;
        case Top_Order::age:
            return static_cast<double>(stream.age_ns.value_or(0));
        case Top_Order::behind:
            for (const Consumer& consumer : stream.consumers) {
                weight = std::max(weight, weight_of(consumer, order));
            }
            return weight;
        case Top_Order::lost:
            break;
    }
    for (const Consumer& consumer : stream.consumers) {
        weight += loss_of(consumer);
    }
    return weight;
}

template <class Item>
void put_in_order(std::vector<Item>& items, Top_Order order) {
    std::stable_sort(items.begin(), items.end(), [order](const Item& a, const Item& b) {
        return weight_of(a, order) > weight_of(b, order);
    });
}

}  // namespace

const char* name_of(Top_Order order) { return order_names[static_cast<std::size_t>(order)]; }

std::optional<Top_Order> top_order_named(const std::string& name) {
    const auto found = std::find(order_names.begin(), order_names.end(), name);
    return found != order_names.end()
               ? std::optional(static_cast<Top_Order>(std::distance(order_names.begin(), found)))
               : std::nullopt;
}

std::vector<Stream> streams_of(const watch::Snapshot& snapshot, const Top_View& view) {
    std::vector<Stream> streams;
    for (const Stream& stream : snapshot.streams) {
        if (view.producer.empty() || stream.id.producer == view.producer) {
            streams.push_back(stream);
            put_in_order(streams.back().consumers, view.order);
        }
    }
    put_in_order(streams, view.order);
    return streams;
}

}  // namespace zav_shm::tool
