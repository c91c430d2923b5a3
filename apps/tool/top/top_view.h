// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "apps/watch/snapshot.h"

namespace zav_shm::tool {

/// What streams and the consumers of each are ordered by.
enum class Top_Order { name, rate, bits, age, behind, lost };

inline constexpr std::size_t top_order_count = 6;
const char* name_of(Top_Order order);
std::optional<Top_Order> top_order_named(const std::string& name);

/// How the table is looked at.
struct Top_View {
    std::size_t width = 80;  // columns and lines of the screen
    std::size_t height = 24;
    bool has_colours = false;
    Top_Order order = Top_Order::name;
    std::string producer;  // streams of this one alone; empty: all
    std::string every;     // the time between two snapshots, in words

    // On a screen, where somebody chooses.
    bool is_frozen = false;
    bool shows_help = false;
    bool shows_one = false;  // the chosen stream alone, with all that is known of it
    std::optional<watch::Stream_Id> chosen;
};

/// The streams that a view shows, in its order, with their consumers in it, too.
std::vector<watch::Stream> streams_of(const watch::Snapshot& snapshot, const Top_View& view);

/// The table for a file or a pipe, whole, with a line end behind each line.
std::string table_of(const watch::Snapshot& snapshot, const Top_View& view);

/// The screen: `height` lines at most, none longer than `width`.
std::vector<std::string> screen_of(const watch::Snapshot& snapshot, const Top_View& view);

}  // namespace zav_shm::tool
