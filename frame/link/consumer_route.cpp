// SPDX-License-Identifier: Apache-2.0
#include "frame/link/consumer_route.h"

#include <sys/stat.h>

#include <utility>

namespace zav_shm {

std::optional<Route> Consumer_Route::begin(const std::string& path, bool is_ours) {
    path_ = path;
    file_ = {};
    static_cast<void>(has_changed());
    auto route = read_route(path_);
    serial_ = route ? route->serial : 0;
    return is_ours ? route : std::nullopt;
}

std::optional<Route> Consumer_Route::look() {
    if (path_.empty() || !has_changed()) {
        return std::nullopt;
    }
    auto route = read_route(path_);
    if (!route || std::exchange(serial_, route->serial) == route->serial) {
        return std::nullopt;
    }
    return route;
}

// Each page is a file of its own. The time tells two apart that happen to have the same number.
bool Consumer_Route::has_changed() {
    struct stat status {};
    if (stat(path_.c_str(), &status) != 0) {
        return false;
    }
    const File found{status.st_ino, status.st_ctim};
    const File former = std::exchange(file_, found);
    return found.inode != former.inode || found.changed.tv_sec != former.changed.tv_sec ||
           found.changed.tv_nsec != former.changed.tv_nsec;
}

}  // namespace zav_shm
