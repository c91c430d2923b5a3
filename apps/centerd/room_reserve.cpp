// SPDX-License-Identifier: Apache-2.0
#include "apps/centerd/room_reserve.h"

#include <fcntl.h>

#include <utility>

namespace zav_shm::centerd {

Room_Reserve::Room_Reserve(std::string folder, std::uint64_t bytes)
    : folder_(std::move(folder)), bytes_(bytes) {
    hold();
}

void Room_Reserve::hold() {
    if (file_.is_open()) {
        return;
    }
    Descriptor file(open(folder_.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600));
    if (file.is_open() && posix_fallocate(file.get(), 0, static_cast<off_t>(bytes_)) == 0) {
        file_ = std::move(file);
    }
}

}  // namespace zav_shm::centerd
