// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <memory>
#include <string>

namespace zav_shm {

/// The process's one thread for the center: keeps the channel ends of all publishers and
/// subscribers registered. It sleeps until the center's page changes, or an attempt is due.
///
/// Owner    of the thread "zav_link", from the first end to the last.
/// Threads  any.
/// Crash    goes with the process. A child that was forked has none, until an end of its own
/// begins.
class Link_Keeper {
public:
    using Clock = std::chrono::steady_clock;

    /// What is kept.
    class End {
    public:
        End() = default;
        virtual ~End() = default;
        End(const End&) = delete;
        End& operator=(const End&) = delete;

        /// Where the page of its center lies, "/shm".
        virtual std::string watched_folder() const = 0;

        /// Does what is due, taking up to `limit` for an exchange.
        ///
        /// @return when it wants to be called again, at the latest
        virtual Clock::time_point keep(std::chrono::milliseconds limit) = 0;
    };

    /// Keeps this end from now on.
    ///
    /// @return false when no thread can be had: then nobody registers it again
    static bool begin(const std::shared_ptr<End>& end);

    /// Keeps it no more. A last keep() may be under way, which the thread ends in peace.
    static void end(const std::shared_ptr<End>& end);

    /// Has each end looked at, now.
    static void wake();
};

}  // namespace zav_shm
