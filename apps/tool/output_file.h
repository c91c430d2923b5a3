// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "apps/tool/problem.h"
#include "apps/tool/stop_signal.h"

namespace zav_shm::tool {

/// Where a recording or an index goes. A regular file is written in large pieces, at the latest a
/// second after something came; a pipe, terminal or device gets it at once.
///
/// Blocking open() waits for whoever reads a named pipe, and a pipe that nobody reads holds write()
///          up; a signal ends the first at once and the second after half a second.
/// Errors   of open() are problems in words. The others return false with errno; what written()
///          counts stays.
class Output_File {
public:
    using Clock = Stop_Signal::Clock;

    /// @param standard_output  what "-" means.
    Output_File(std::string file, int standard_output, const Stop_Signal& stop);
    ~Output_File();
    Output_File(const Output_File&) = delete;
    Output_File& operator=(const Output_File&) = delete;

    /// Makes the file, or opens the one that is there and leaves its content.
    ///
    /// @param end  how long to wait for the reader of a named pipe.
    std::optional<Problem> open(Clock::time_point end = Clock::time_point::max());

    /// Empties a file that was there. Apart from open(), so that a recording that does not come
    /// about costs nobody an earlier one.
    bool empty() const;

    bool write(std::span<const std::byte> bytes);

    /// Writes what is held back.
    bool flush();

    /// Writes what is held back when it has been so for a second.
    bool flush_if_due();

    /// How many bytes the file has taken since open().
    std::uint64_t written() const { return written_; }

    /// Takes what lies behind the first `bytes` out of a regular file again; anything else is left
    /// as it is. What is held back is forgotten.
    ///
    /// @return whether the file ends there now.
    bool cut_back(std::uint64_t bytes);

    /// Writes what is held back, with `sync` down to the medium with the file's name, and closes.
    bool close(bool sync);

    /// What messages say of an errno that one of these operations has left.
    static std::string cause(int error);

    /// As messages name it.
    const std::string& title() const { return title_; }

private:
    bool is_named_file() const;
    std::optional<Problem> open_named(Clock::time_point end);
    std::optional<Problem> open_standard_output();
    bool write_through(std::span<const std::byte> bytes);
    bool wait_until_writable();
    bool sync_to_medium() const;
    Problem cannot_open() const;

    const std::string file_;
    const std::string title_;
    const int standard_output_;
    const Stop_Signal& stop_;
    int descriptor_ = -1;
    bool is_regular_ = false;
    std::uint64_t written_ = 0;
    std::vector<std::byte> held_back_;
    Clock::time_point held_since_{};
};

}  // namespace zav_shm::tool
