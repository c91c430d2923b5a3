// SPDX-License-Identifier: Apache-2.0
#include "apps/watch/found_files.h"

#include <algorithm>
#include <charconv>
#include <utility>

#include "ipc/ring_place.h"
#include "ipc/shared_memory_folder.h"

namespace zav_shm::watch {

namespace {

// Takes "_17" off the end.
std::optional<int> take_number(std::string_view& text) {
    const std::size_t underscore = text.rfind('_');
    if (underscore == std::string_view::npos) {
        return std::nullopt;
    }
    const std::string_view digits = text.substr(underscore + 1);
    int number = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), number);
    const bool is_number = error == std::errc() && end == digits.data() + digits.size();
    if (!is_number || std::to_string(number) != digits || number < 0) {
        return std::nullopt;
    }
    text = text.substr(0, underscore);
    return number;
}

}  // namespace

std::optional<Stream_Id> stream_named(std::string_view file) {
    const auto stream = take_number(file);
    const auto channel = stream ? take_number(file) : std::nullopt;
    if (!channel || !is_file_name(file)) {
        return std::nullopt;
    }
    return Stream_Id{std::string(file), *channel, *stream};
}

std::vector<Found_Ring> find_rings(const std::string& rings_folder, std::size_t count_max,
                                   std::uint64_t& omitted) {
    std::vector<Found_Ring> rings;
    for (auto& [name, path] : ring_files(rings_folder)) {
        auto id = stream_named(name);
        if (!id) {
            continue;
        }
        if (rings.size() == count_max) {
            ++omitted;
            continue;
        }
        rings.push_back({std::move(*id), std::move(path)});
    }
    std::sort(rings.begin(), rings.end(),
              [](const Found_Ring& a, const Found_Ring& b) { return a.id < b.id; });
    return rings;
}

}  // namespace zav_shm::watch
