// SPDX-License-Identifier: Apache-2.0
#include "apps/tool/pacer.h"

namespace zav_shm::tool {

Pacer::Clock::time_point Pacer::due(std::uint64_t number, Clock::time_point now) {
    if (!rate_.is_paced()) {
        return now;
    }
    const auto offset = time_of(rate_, number);
    if (!begun_ || now - (begin_ + offset) > late_max) {
        begun_ = true;
        begin_ = now - offset;
    }
    return begin_ + offset;
}

bool Pacer::wait_for(std::uint64_t number, const Stop_Signal& stop) {
    return !stop.wait_until(due(number, Clock::now()));
}

}  // namespace zav_shm::tool
