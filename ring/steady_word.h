// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <optional>

namespace zav_shm {

// A system call copies the four bytes of a word in pieces: on many x86-64 processors one by one.
// While another process counts the word up, 255 and 256 may so be read as 511. A head that is too
// great shows records that are not there, a tail that is too small hides that one was overwritten.

/// A value that a growing word had, or was between, while it was read several times.
///
/// Two reads that agree are right: a byte that is the same in both, below bytes that are the same,
/// stood still between the two. Where a writer is faster than that, three reads are, whose upper
/// bytes agree and whose lowest one does not go down: the first bounds the value of the second from
/// below, and the third from above.
///
/// @param read  reads the word once; nothing when it is gone
/// @return nothing when it is gone, and when somebody plays with it
template <typename Read>
std::optional<std::uint32_t> steady_word(const Read& read) {
    constexpr int attempts_max = 1000;  // beside the fastest writer one in fifty fails
    constexpr std::uint32_t upper_bytes = ~0xFFU;
    std::optional<std::uint32_t> first = read();
    for (int i = 0; i < attempts_max && first; ++i) {
        const std::optional<std::uint32_t> second = read();
        if (!second || *second == *first) {
            return second;
        }
        const std::optional<std::uint32_t> third = read();
        if (!third) {
            return third;
        }
        const bool upper_agree =
            ((*first ^ *second) & upper_bytes) == 0 && ((*second ^ *third) & upper_bytes) == 0;
        if (upper_agree && *first <= *second && *second <= *third) {
            return second;
        }
        first = third;
    }
    return std::nullopt;
}

}  // namespace zav_shm
