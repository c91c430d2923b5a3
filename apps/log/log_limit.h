// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>

namespace zav_shm {

/// How many lines about one object pass: ten at once, then one a second; and of all together 300,
/// then ten a second. Somebody who connects, asks or fails without end, also under ever new names,
/// fills no log, and a name alone does not hide what others do.
///
/// Memory   of `objects_max` objects. Those beyond share one limit.
/// Threads  one at a time.
class Log_Limit {
public:
    using Time = std::chrono::steady_clock::time_point;

    static constexpr std::size_t objects_max = 256;

    /// Asks for one line more about `object`.
    ///
    /// @return how many lines were left out since the last one that passed; nothing when this one
    ///         is left out, too.
    std::optional<std::uint64_t> pass(const std::string& object, Time now);

private:
    /// Lines that may be written at once, and how they come back.
    class Allowance {
    public:
        Allowance(double burst, double per_second, Time now)
            : burst_(burst), per_second_(per_second), lines_(burst), counted_(now) {}

        void refill(Time now);
        bool has_line() const { return lines_ >= 1; }
        bool is_whole() const { return lines_ >= burst_; }
        void take() { lines_ -= 1; }

    private:
        double burst_;
        double per_second_;
        double lines_;
        Time counted_;
    };

    struct Object {
        Allowance allowance;
        std::uint64_t left_out = 0;
    };

    Object& object_called(const std::string& name, Time now);

    std::map<std::string, Object> objects_;
    std::optional<Allowance> of_all_;
};

}  // namespace zav_shm
