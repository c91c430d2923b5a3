// SPDX-License-Identifier: Apache-2.0
#include "tool/split_streams.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <iterator>

using zav_shm::media::Access_Unit;
using zav_shm::media::Access_Unit_Splitter;

Bytes bytes(std::initializer_list<int> values) {
    Bytes result;
    for (const int value : values) {
        result.push_back(static_cast<std::byte>(value));
    }
    return result;
}

Bytes operator+(Bytes left, const Bytes& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

Bytes stream_file(const std::string& name) {
    std::ifstream file(std::string(ZAV_TEST_STREAMS) + "/" + name, std::ios::binary);
    const std::string text((std::istreambuf_iterator<char>(file)),
                           std::istreambuf_iterator<char>());
    EXPECT_FALSE(text.empty()) << name;
    Bytes result(text.size());
    std::transform(text.begin(), text.end(), result.begin(),
                   [](char character) { return static_cast<std::byte>(character); });
    return result;
}

std::vector<Kept_Unit> split(zav_shm::media::Video_Codec codec, const Bytes& stream,
                             std::size_t limit_bytes, const Block_Size& block) {
    std::vector<Kept_Unit> units;
    Access_Unit_Splitter splitter(codec, limit_bytes, [&units](const Access_Unit& unit) {
        units.push_back({.bytes = Bytes(unit.bytes.begin(), unit.bytes.end()),
                         .size_bytes = unit.size_bytes,
                         .too_long = unit.too_long,
                         .has_picture = unit.has_picture,
                         .is_key = unit.is_key,
                         .is_recovery_point = unit.is_recovery_point,
                         .is_field = unit.is_field,
                         .has_configuration = unit.has_configuration,
                         .is_last = unit.is_last,
                         .codec = unit.codec});
    });
    std::span<const std::byte> rest(stream);
    while (!rest.empty()) {
        const std::size_t size = block ? std::min(block(), rest.size()) : rest.size();
        splitter.feed(rest.first(size));
        rest = rest.subspan(size);
    }
    splitter.finish();
    return units;
}

Bytes put_together(const std::vector<Kept_Unit>& units) {
    Bytes result;
    for (const Kept_Unit& unit : units) {
        result.insert(result.end(), unit.bytes.begin(), unit.bytes.end());
    }
    return result;
}

std::vector<std::size_t> lengths(const std::vector<Kept_Unit>& units) {
    std::vector<std::size_t> result;
    for (const Kept_Unit& unit : units) {
        result.push_back(unit.bytes.size());
    }
    return result;
}
