// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <optional>
#include <string>

namespace zav_shm::centerd {

/// Tells the service manager how the daemon does. Without one, or built without its library, does
/// nothing.
class Notifier {
public:
    /// READY=1: clients are answered from now on.
    static void ready(const std::string& status);

    /// What the status says until ready() is called again.
    static void not_ready(const std::string& status);

    /// STOPPING=1: the end has begun.
    static void stopping();

    /// WATCHDOG=1: all is well.
    static void alive();

    /// How often it wants to hear that all is well at the latest; nothing when it does not care.
    static std::optional<std::chrono::milliseconds> watchdog_interval();
};

}  // namespace zav_shm::centerd
