// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>

#include "control/route_page.h"

namespace zav_shm {

/// Watches the page by which the center tells a consumer whose frames it is to read.
///
/// Threads  one.
class Consumer_Route {
public:
    /// Begins with the page as it is. What an earlier center left there says nothing.
    ///
    /// @param is_ours  a center has just written it
    /// @return what it says, when that counts
    std::optional<Route> begin(const std::string& path, bool is_ours);

    /// @return what the page says, when that is something else than before. Costs one system call
    ///         while nothing has changed.
    std::optional<Route> look();

private:
    struct File {
        ino_t inode = 0;
        timespec changed{};
    };
    bool has_changed();

    std::string path_;
    File file_;
    std::uint64_t serial_ = 0;
};

}  // namespace zav_shm
