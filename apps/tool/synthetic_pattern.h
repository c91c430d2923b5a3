// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace zav_shm::tool {

/// Fills a frame with pseudo-random bytes that follow from its sequence number alone, so that
/// whoever receives it can tell whether each byte is the one that was sent.
void fill_synthetic(std::span<std::byte> payload, std::uint64_t sequence);

/// Whether the payload is what fill_synthetic() makes for this sequence number.
bool is_synthetic(std::span<const std::byte> payload, std::uint64_t sequence);

}  // namespace zav_shm::tool
