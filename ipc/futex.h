// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace zav_shm {

// A futex is a 32-bit word of shared memory on whose change threads of any process can sleep. Both
// calls name the word by its file and offset, never by its address (no FUTEX_PRIVATE): each process
// has a mapping of its own, and 32- and 64-bit processes meet on the same word.
//
// Sleeping and waking need no right to write: both work on a read-only mapping.

/// Why a sleep ended.
enum class Futex_Wait {
    look_again,  // woken, interrupted by a signal, or the word had another value already
    timed_out,
    gone  // the word's memory is gone: its file was truncated
};

/// A set of sleepers; a wake reaches those whose set shares a bit with its own.
inline constexpr std::uint32_t futex_everybody = 0xFFFFFFFFU;

/// Sleeps while the word holds `expected`.
///
/// @param deadline_ns  of CLOCK_MONOTONIC
/// @param set          to which wakes this sleeper listens; not 0
Futex_Wait futex_wait(const std::uint32_t* word, std::uint32_t expected, std::int64_t deadline_ns,
                      std::uint32_t set = futex_everybody);

/// Wakes all who sleep on the word; about 0.2 us when nobody does.
void futex_wake(const std::uint32_t* word, std::uint32_t set = futex_everybody);

/// The same for a word in a file that this process has not mapped: who sleeps on it in any process
/// is woken. A file that is not there, or too short, has no sleepers.
void futex_wake_in_file(const std::string& path, std::size_t offset);

}  // namespace zav_shm
