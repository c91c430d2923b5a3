// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

#include "apps/tool/top/top_view.h"

namespace zav_shm::tool {

enum class Top_Key {
    other,
    quit,
    suspend,
    freeze,
    next_order,
    up,
    down,
    page_up,
    page_down,
    enter,
    help,
    repaint,
    by_name,
    by_rate,
    by_bits,
    by_age,
    by_behind,
    by_lost
};

/// The keys in what a terminal has sent. Cursor keys come as several characters, in one piece.
std::vector<Top_Key> keys_in(const std::string& typed);

/// What the key changes of the view. Streams stand in the view's order.
void act_on(Top_Key key, const std::vector<watch::Stream>& streams, Top_View& view);

}  // namespace zav_shm::tool
