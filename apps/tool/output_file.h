// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "apps/tool/stop_signal.h"

namespace zav_shm::tool {

/// Where a recording goes. A regular file is written in large pieces, at the latest a second after
/// a frame came; a pipe, terminal or device gets each frame at once.
///
/// Blocking a pipe that nobody reads holds write() up; a signal ends that after half a second.
/// Errors   false with errno; what was written before stays.
class Output_File {
public:
    /// @param standard_output  what "-" means.
    Output_File(std::string file, int standard_output, const Stop_Signal& stop);
    ~Output_File();
    Output_File(const Output_File&) = delete;
    Output_File& operator=(const Output_File&) = delete;

    /// Makes the file, or opens the one that is there and leaves its content.
    bool open();

    /// Empties a file that was there. Apart from open(), so that a recording that does not come
    /// about costs nobody an earlier one.
    bool empty() const;

    bool write(std::span<const std::byte> bytes);

    /// Writes what is held back when it has been so for a second.
    bool flush_if_due();

    /// Writes what is held back, with `sync` down to the medium, and closes.
    bool close(bool sync);

    /// As messages name it.
    const std::string& title() const { return title_; }

private:
    using Clock = Stop_Signal::Clock;

    bool flush();
    bool write_through(std::span<const std::byte> bytes);
    bool wait_until_writable();

    const std::string file_;
    const std::string title_;
    const int standard_output_;
    const Stop_Signal& stop_;
    int descriptor_ = -1;
    bool is_regular_ = false;
    std::vector<std::byte> held_back_;
    Clock::time_point held_since_{};
};

}  // namespace zav_shm::tool
