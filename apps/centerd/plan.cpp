// SPDX-License-Identifier: Apache-2.0
#include "apps/centerd/plan.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <span>

#include "apps/centerd/configuration.h"
#include "apps/centerd/former_segments.h"
#include "apps/centerd/limits.h"
#include "apps/text/printable.h"
#include "stream/frame_slot.h"

namespace zav_shm::centerd {

namespace {

using Records = std::span<_SHM_DIST_RECV_CONFIG_* const>;

constexpr std::uint64_t semaphores_per_channel = 3;

// The receive thread and the main thread; beside them one for the idle kick.
constexpr int other_threads = 2;

std::string count(std::uint64_t number, const std::string& what) {
    return std::to_string(number) + " " + what + (number == 1 ? "" : "s");
}

std::string quoted(const _SHM_DIST_RECV_CONFIG_& record) {
    return "\"" + printable(record.name) + "\"";
}

bool all_are_refused(Records records) {
    return std::all_of(records.begin(), records.end(),
                       [](const auto* record) { return record->stream.empty(); });
}

void warn_of_refused(std::vector<std::string>& warnings, const char* side, Records records) {
    for (const auto* const record : records) {
        if (record->stream.empty()) {
            warnings.push_back(std::string(side) + " " + quoted(*record) +
                               " is refused every stream: its stream list is empty");
        }
    }
}

std::string accepted(const _SHM_DIST_RECV_CONFIG_& record) {
    return record.stream.empty()
               ? "refused every stream"
               : "may have streams 0 to " + std::to_string(record.stream.size() - 1);
}

// Nothing where there is no group.
std::string groups_text(const ZAV_SHM_CONFIG& config, const _SHM_DIST_RECV_CONFIG_& producer) {
    std::string text;
    if (!producer.producers.empty()) {
        text += "; for producers of group " + printable(producer.producers);
    }
    int number = 0;
    for (const auto* const stream : config.streams()) {
        const std::string& group = readers_group(producer, *stream);
        if (!group.empty()) {
            text +=
                "; stream " + std::to_string(number) + " for readers of group " + printable(group);
        }
        ++number;
    }
    return text;
}

std::string or_no_limit(std::uint64_t available) {
    return available == Room::unlimited ? "no limit" : std::to_string(available) + " are available";
}

}  // namespace

Plan::Plan(const Options& options, const ZAV_SHM_CONFIG& config, const Inventory& inventory)
    : options_(options), config_(config), inventory_(inventory) {}

std::string Plan::text(const Room& room) const {
    const std::uint64_t segment_bytes = Inventory::in_pages(inventory_.segments);
    const std::uint64_t semaphore_bytes = Inventory::in_pages(inventory_.semaphores);
    const int kickers = options_.kick_interval.count() > 0 ? 1 : 0;
    const int threads = inventory_.relays + other_threads + kickers;
    std::string text = "configuration  " + printable(title_of(options_.config_path)) + "\n";
    text += "segments       " + std::to_string(inventory_.segments.size()) + " in " +
            printable(inventory_.segment_folder) + ", " + std::to_string(segment_bytes) +
            " bytes\n";
    if (const auto replaced = Former_Segments(inventory_).of_another_length; replaced > 0) {
        text += "replaced       " + count(replaced, "segment") +
                " of another length; clients keep the former ones until they register again\n";
    }
    text += "semaphores     " + std::to_string(inventory_.semaphores.size()) + " in /dev/shm, " +
            std::to_string(semaphore_bytes) + " bytes\n";
    text += "rings          up to " + std::to_string(inventory_.rings.size()) + " in " +
            printable(inventory_.rings_folder) + ", " +
            std::to_string(Inventory::in_pages(inventory_.rings)) +
            " bytes; publishers make them\n";
    text += "threads        " + std::to_string(threads) + ", " + std::to_string(inventory_.relays) +
            " of them relays\n";
    text += "idle kick      " + kick_text() + "\n";
    text += "room           " + std::to_string(room.needed_bytes) + " bytes more are needed, " +
            or_no_limit(room.available_bytes) + " in /dev/shm\n";
    text += "files          " + std::to_string(room.needed_files) + " more are needed, " +
            or_no_limit(room.available_files) + " in /dev/shm\n";
    text += "for clients    up to " + std::to_string(room.ring_bytes) + " bytes and " +
            std::to_string(room.ring_files) + " files more, for rings and what lies beside them\n";
    text += names_text();
    for (const auto& found : {refusals(), warnings(room)}) {
        for (const std::string& warning : found) {
            text += "warning: " + printable(warning) + "\n";
        }
    }
    return text;
}

std::string Plan::names_text() const {
    std::string text;
    const std::uint64_t streams = config_.streams().size();
    std::uint64_t stream_bytes = 0;  // one channel of every stream
    std::uint64_t ring_bytes = 0;
    for (const auto* const stream : config_.streams()) {
        stream_bytes +=
            Inventory::in_pages(static_cast<std::uint64_t>(stream->page_size) + frame_header_bytes);
        ring_bytes += Inventory::in_pages(Inventory::ring_bytes(*stream));
    }
    for (const auto* const record : config_.distributors()) {
        const auto channels = static_cast<std::uint64_t>(record->channel);
        text += "producer " + quoted(*record) + ": " + count(channels, "channel") + ", " +
                count(channels * streams, "segment") + " of " +
                std::to_string(channels * stream_bytes) + " bytes, " +
                count(channels * streams * semaphores_per_channel, "semaphore") + ", " +
                count(channels * streams, "thread") + ", up to " +
                count(channels * streams, "ring") + " of " + std::to_string(channels * ring_bytes) +
                " bytes; " + accepted(*record) + groups_text(config_, *record) + "\n";
    }
    for (const auto* const record : config_.receivers()) {
        const auto channels = static_cast<std::uint64_t>(record->channel);
        text += "consumer " + quoted(*record) + ": " + count(channels, "channel") + ", " +
                count(channels * streams * semaphores_per_channel, "semaphore") + "; " +
                accepted(*record) + "\n";
    }
    return text;
}

std::string Plan::kick_text() const {
    if (options_.kick_interval.count() == 0) {
        return "never";
    }
    std::array<char, 32> seconds{};
    std::snprintf(seconds.data(), seconds.size(), "%g",
                  std::chrono::duration<double>(options_.kick_interval).count());
    return std::string("every ") + seconds.data() + " s, " + (config_.kick_idle ? "on" : "off") +
           " at the start";
}

std::string Plan::summary() const {
    std::string text = std::to_string(inventory_.relays) + " producer and " +
                       std::to_string(inventory_.consumer_channels) + " consumer channels of " +
                       title_of(options_.config_path) + ", " +
                       std::to_string(Inventory::in_pages(inventory_.segments)) +
                       " bytes of segments and up to " +
                       std::to_string(Inventory::in_pages(inventory_.rings)) + " of rings in " +
                       inventory_.segment_folder + ", idle kick " + kick_text();
    for (const std::string& refusal : refusals()) {
        text += "; warning: " + refusal;
    }
    return text;
}

std::vector<std::string> Plan::refusals() const {
    std::vector<std::string> found;
    if (all_are_refused(config_.distributors()) && all_are_refused(config_.receivers())) {
        found.emplace_back(
            "all clients are refused every stream, since no name lists any; --config names a file "
            "that does, such as share/zav_shm/recorder.json of the installation");
    } else {
        warn_of_refused(found, "producer", config_.distributors());
        warn_of_refused(found, "consumer", config_.receivers());
    }
    return found;
}

std::vector<std::string> Plan::warnings(const Room& room) const {
    std::vector<std::string> found = config_.warnings();
    const auto limits = limit_warnings(inventory_);
    found.insert(found.end(), limits.begin(), limits.end());
    const bool is_for_own_user =
        options_.mode.value_or(options_.group.empty() ? 0600 : 0660) == 0600;
    if (is_for_own_user && !inventory_.guarded.empty()) {
        found.emplace_back(
            "groups of the configuration have no effect: only processes of the own "
            "user may be clients; --group or --mode lets others in");
    }
    if (const auto full = room.warning()) {
        found.push_back(*full);
    }
    return found;
}

}  // namespace zav_shm::centerd
