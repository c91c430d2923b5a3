// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <string>
#include <vector>

#include "apps/media/access_unit_splitter.h"

using Bytes = std::vector<std::byte>;

Bytes bytes(std::initializer_list<int> values);
Bytes operator+(Bytes left, const Bytes& right);

/// One of the streams beside the tests.
Bytes stream_file(const std::string& name);

/// An access unit with its bytes kept.
struct Kept_Unit {
    Bytes bytes;
    std::uint64_t size_bytes = 0;
    bool too_long = false;
    bool has_picture = false;
    bool is_key = false;
    bool is_recovery_point = false;
    bool is_field = false;
    bool has_configuration = false;
    bool is_last = false;
    zav_shm::media::Video_Codec codec = zav_shm::media::Video_Codec::h264;

    bool operator==(const Kept_Unit&) const = default;
};

inline constexpr std::size_t no_limit = 1U << 20;

/// How many bytes the next block that is fed has.
using Block_Size = std::function<std::size_t()>;

std::vector<Kept_Unit> split(zav_shm::media::Video_Codec codec, const Bytes& stream,
                             std::size_t limit_bytes = no_limit, const Block_Size& block = nullptr);

Bytes put_together(const std::vector<Kept_Unit>& units);

/// The lengths of the units, which is what most tests look at.
std::vector<std::size_t> lengths(const std::vector<Kept_Unit>& units);
