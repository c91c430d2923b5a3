// SPDX-License-Identifier: Apache-2.0
#include "apps/tool/pacer.h"

namespace zav_shm::tool {

Pacer::Clock::time_point Pacer::due(std::uint64_t number, Clock::time_point now) {
    return due(time_of(rate_, number), now);
}

Pacer::Clock::time_point Pacer::due(std::chrono::nanoseconds time, Clock::time_point now) {
    if (!rate_.is_paced()) {
        return now;
    }
    if (!begun_ || now - (begin_ + time) > late_max) {
        begun_ = true;
        begin_ = now - time;
    }
    return begin_ + time;
}

bool Pacer::wait_for(std::uint64_t number, const Stop_Signal& stop) {
    return !stop.wait_until(due(number, Clock::now()));
}

bool Pacer::wait_for(std::chrono::nanoseconds time, const Stop_Signal& stop) {
    return !stop.wait_until(due(time, Clock::now()));
}

}  // namespace zav_shm::tool
