// SPDX-License-Identifier: Apache-2.0
#include "apps/tool/top/top_keys.h"

#include <algorithm>
#include <string_view>
#include <utility>

namespace zav_shm::tool {

namespace {

using watch::Stream;

// The longer ones first.
constexpr std::pair<std::string_view, Top_Key> keys[] = {
    {"\x1b[A", Top_Key::up},    {"\x1bOA", Top_Key::up},       {"\x1b[B", Top_Key::down},
    {"\x1bOB", Top_Key::down},  {"\x1b[5~", Top_Key::page_up}, {"\x1b[6~", Top_Key::page_down},
    {"k", Top_Key::up},         {"j", Top_Key::down},          {"q", Top_Key::quit},
    {"Q", Top_Key::quit},       {"\x03", Top_Key::quit},       {"\x1c", Top_Key::quit},
    {"\x1a", Top_Key::suspend}, {"f", Top_Key::freeze},        {" ", Top_Key::freeze},
    {"s", Top_Key::next_order}, {"\r", Top_Key::enter},        {"\n", Top_Key::enter},
    {"h", Top_Key::help},       {"?", Top_Key::help},          {"\x0c", Top_Key::repaint},
    {"n", Top_Key::by_name},    {"r", Top_Key::by_rate},       {"b", Top_Key::by_bits},
    {"a", Top_Key::by_age},     {"d", Top_Key::by_behind},     {"l", Top_Key::by_lost},
};

constexpr std::size_t page = 8;  // streams

// A control sequence that means nothing here: "\x1b[", parameters, and one final character.
std::size_t sequence_length(std::string_view text) {
    if (text.size() < 2 || text[0] != '\x1b' || (text[1] != '[' && text[1] != 'O')) {
        return 1;
    }
    const std::size_t last = text.find_first_not_of("0123456789;?", 2);
    return last == std::string_view::npos ? text.size() : last + 1;
}

void choose(const std::vector<Stream>& streams, Top_View& view, bool down, std::size_t count) {
    if (streams.empty()) {
        return;
    }
    const auto chosen = std::find_if(streams.begin(), streams.end(), [&view](const Stream& stream) {
        return view.chosen == stream.id;
    });
    if (chosen == streams.end()) {
        view.chosen = (down ? streams.front() : streams.back()).id;
        return;
    }
    const auto at = static_cast<std::size_t>(chosen - streams.begin());
    const std::size_t last = streams.size() - 1;
    view.chosen = streams[down ? std::min(at + count, last) : at - std::min(at, count)].id;
}

}  // namespace

std::vector<Top_Key> keys_in(const std::string& typed) {
    std::vector<Top_Key> found;
    for (std::string_view rest = typed; !rest.empty();) {
        const auto* const key = std::find_if(
            std::begin(keys), std::end(keys),
            [rest](const auto& candidate) { return rest.starts_with(candidate.first); });
        const bool is_known = key != std::end(keys);
        found.push_back(is_known ? key->second : Top_Key::other);
        rest.remove_prefix(is_known ? key->first.size() : sequence_length(rest));
    }
    return found;
}

void act_on(Top_Key key, const std::vector<Stream>& streams, Top_View& view) {
    switch (key) {
        case Top_Key::freeze:
            view.is_frozen = !view.is_frozen;
            return;
        case Top_Key::next_order:
            view.order = static_cast<Top_Order>((static_cast<std::size_t>(view.order) + 1) %
                                                top_order_count);
            return;
        case Top_Key::by_name:
        case Top_Key::by_rate:
        case Top_Key::by_bits:
        case Top_Key::by_age:
        case Top_Key::by_behind:
        case Top_Key::by_lost:
            view.order =
                static_cast<Top_Order>(static_cast<int>(key) - static_cast<int>(Top_Key::by_name));
            return;
        case Top_Key::up:
        case Top_Key::down:
            return choose(streams, view, key == Top_Key::down, 1);
        case Top_Key::page_up:
        case Top_Key::page_down:
            return choose(streams, view, key == Top_Key::page_down, page);
        case Top_Key::enter:
            if (!view.chosen && !streams.empty()) {
                view.chosen = streams.front().id;
            }
            view.shows_one = !view.shows_one && view.chosen;
            return;
        case Top_Key::help:
            view.shows_help = !view.shows_help;
            return;
        case Top_Key::quit:
        case Top_Key::suspend:
        case Top_Key::repaint:
        case Top_Key::other:
            return;
    }
}

}  // namespace zav_shm::tool
