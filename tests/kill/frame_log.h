// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

/// What a process under test has sent or received, in a file that it shares with the test: it is
/// there to the last frame also when the process is killed.
struct Frame_Log {
    struct Entry {
        std::int64_t ns;  // CLOCK_MONOTONIC
        std::uint64_t epoch;
        std::uint64_t sequence;
        std::uint64_t lost;      // reported with this frame, by all causes
        std::uint64_t failed;    // of a producer's: it was not published
        std::int64_t waited_ns;  // for a processor, since the process began
    };
    static constexpr std::size_t capacity = std::size_t{1} << 14U;  // the newest are kept

    void add(const Entry& entry) {
        const std::uint64_t number = count.load(std::memory_order_relaxed);
        entries[number % capacity] = entry;
        count.store(number + 1, std::memory_order_release);
    }

    std::atomic<std::uint64_t> count;  // one process writes, the test reads
    std::atomic<std::uint64_t> wrong;  // frames handed out as whole whose payload was not theirs

    // The same of frames that nobody called whole: of, or through, the fixed interface.
    std::atomic<std::uint64_t> wrong_unverified;

    std::atomic<std::uint64_t> registrations;  // with a center that was started again
    std::array<Entry, capacity> entries;
};

/// How long the calling thread has waited for a processor that others had; 0 where the kernel does
/// not say.
std::int64_t waited_for_processor_ns();

/// Maps the file, which is made with zero bytes when there is none; null on failure.
Frame_Log* map_frame_log(const std::string& file);
void unmap_frame_log(Frame_Log* log);
