// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <json/json.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "apps/watch/snapshot.h"

namespace zav_shm::watch {

/// The status file of a center's host.
struct Center_File {
    Json::Value content;          // an object
    std::int64_t age_ms = 0;      // since it was written, by the wall clock; never below 0
    std::int64_t written_ns = 0;  // when, by the wall clock
    bool is_alive = false;        // the center that wrote it lives
};

/// Reads it from where center_status_path() has it.
///
/// @return nothing, with errno, when it cannot be read; EBADMSG: it is no JSON object, of
///         `bytes_read` bytes.
std::optional<Center_File> read_center_file(const std::string& path,
                                            std::size_t* bytes_read = nullptr);

/// What it says of one producer's slot: the relay, and the consumers of the fixed interface.
struct Center_Channel {
    Stream_Id id;
    Relay relay;
    std::vector<Consumer> consumers;
};

Center_Standing standing_of(const Center_File& file);

/// Of each configured channel. Those of which nothing is to be seen are left out.
std::vector<Center_Channel> channels_of(const Center_File& file);

/// One slot over time. The center writes its status once a second, whenever one looks: rates are
/// those between two writings.
class Slot_Watch {
public:
    /// @param written_ns  when the status was written
    void look(Center_Channel& channel, std::int64_t written_ns, std::int64_t now_ns);

    std::optional<Stream::Rates> rates() const { return rates_; }
    std::optional<std::int64_t> last_change_ns() const { return changed_ns_; }

    bool was_seen = false;  // the collector's

private:
    struct Consumer_Memory {
        std::uint64_t frames = 0;
        std::int64_t changed_ns = 0;  // when frames were last seen to have been announced to it
        std::optional<Consumer::Rates> rates;
    };

    void look_at(Consumer& consumer, std::int64_t interval_ns, std::int64_t now_ns);

    std::int64_t written_ns_ = 0;
    std::uint64_t frames_ = 0;
    std::optional<std::int64_t> changed_ns_;  // when frames were last seen to have come
    std::optional<Stream::Rates> rates_;
    std::map<std::string, Consumer_Memory> consumers_;  // by channel end
};

}  // namespace zav_shm::watch
