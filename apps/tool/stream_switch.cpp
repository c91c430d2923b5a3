// SPDX-License-Identifier: Apache-2.0
#include "apps/tool/stream_switch.h"

namespace zav_shm::tool {

bool Stream_Switch::offer(std::size_t stream, bool is_entry, Clock::time_point now) {
    if (stream == active_) {
        return true;
    }
    if (!is_entry || now - since_ < every_) {
        return false;
    }
    active_ = stream;
    since_ = now;
    ++switches_;
    return true;
}

}  // namespace zav_shm::tool
