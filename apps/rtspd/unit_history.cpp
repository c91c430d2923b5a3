// SPDX-License-Identifier: Apache-2.0
#include "apps/rtspd/unit_history.h"

#include <utility>

namespace zav_shm::rtspd {

void Unit_History::add(Unit unit) {
    const std::int64_t now = unit.time_ns;
    if (unit.is_entry) {
        entry_before_ = newest_entry_;
        newest_entry_ = end();
    }
    bytes_ += unit.buffer.bytes();
    units_.push_back(std::move(unit));
    while (units_.size() > 1 && bytes_ > bytes_max_) {
        forget_oldest();
    }
    while (first_ < entry_before_ && now - units_.front().time_ns > least_span_ns) {
        forget_oldest();
    }
}

void Unit_History::clear() {
    while (!units_.empty()) {
        forget_oldest();
    }
    newest_entry_ = 0;
    entry_before_ = 0;
}

void Unit_History::forget_oldest() {
    bytes_ -= units_.front().buffer.bytes();
    units_.pop_front();
    ++first_;
}

}  // namespace zav_shm::rtspd
