// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

/// A program started as a process of its own, with its standard output readable here. It is
/// killed when this object or this process ends.
class Child_Process {
public:
    explicit Child_Process(const std::vector<std::string>& command);
    ~Child_Process();
    Child_Process(Child_Process&& other) noexcept;
    Child_Process(const Child_Process&) = delete;
    Child_Process& operator=(const Child_Process&) = delete;
    Child_Process& operator=(Child_Process&&) = delete;

    pid_t pid() const { return pid_; }

    /// Sends a signal: SIGSTOP, SIGCONT, SIGTERM ...
    void signal(int number) const;

    /// SIGKILL, and waits until the process is gone.
    void kill();

    /// The exit status, or 128 + the number of the signal that ended it; nothing when it still
    /// runs after `limit`.
    std::optional<int> wait(std::chrono::milliseconds limit = std::chrono::seconds(60));

    /// The next line of its output without the line end; nothing at the end or after `limit`.
    std::optional<std::string> read_line(
        std::chrono::milliseconds limit = std::chrono::seconds(60));

    /// All of its output up to the end.
    std::string read_rest(std::chrono::milliseconds limit = std::chrono::seconds(60));

private:
    bool fill(std::chrono::steady_clock::time_point end);

    pid_t pid_ = -1;
    int output_ = -1;
    std::string pending_;
    std::optional<int> status_;
};
