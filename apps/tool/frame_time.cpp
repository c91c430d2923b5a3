// SPDX-License-Identifier: Apache-2.0
#include "apps/tool/frame_time.h"

#include <algorithm>
#include <chrono>

#include "ipc/monotonic_clock.h"

namespace zav_shm::tool {

std::int64_t moment_ns_of(const Frame_Facts& frame) {
    return frame.verified ? std::clamp<std::int64_t>(frame.header.publish_ns, 0, frame.received_ns)
                          : frame.received_ns;
}

std::int64_t utc_now_ns() {
    using std::chrono::nanoseconds;
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<nanoseconds>(now).count();
}

std::int64_t utc_ns_of(const Frame_Facts& frame) {
    return frame.verified && frame.header.utc_ns != 0
               ? frame.header.utc_ns
               : utc_now_ns() - (monotonic_ns() - moment_ns_of(frame));
}

}  // namespace zav_shm::tool
