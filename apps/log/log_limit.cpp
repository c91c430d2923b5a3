// SPDX-License-Identifier: Apache-2.0
#include "apps/log/log_limit.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace zav_shm {

namespace {

constexpr double burst_of_one = 10;
constexpr double per_second_of_one = 1;

// A device with 34 streams and three readers of each starts within it.
constexpr double burst_of_all = 300;
constexpr double per_second_of_all = 10;

const std::string all_others;

}  // namespace

void Log_Limit::Allowance::refill(Time now) {
    if (now > counted_) {
        const double passed = std::chrono::duration<double>(now - counted_).count();
        lines_ = std::min(burst_, lines_ + passed * per_second_);
        counted_ = now;
    }
}

std::optional<std::uint64_t> Log_Limit::pass(const std::string& object, Time now) {
    if (!of_all_) {
        of_all_.emplace(burst_of_all, per_second_of_all, now);
    }
    Object& known = object_called(object, now);
    known.allowance.refill(now);
    of_all_->refill(now);
    if (!known.allowance.has_line() || !of_all_->has_line()) {
        ++known.left_out;
        return std::nullopt;
    }
    known.allowance.take();
    of_all_->take();
    return std::exchange(known.left_out, 0);
}

// An object with its whole allowance and nothing to tell is as good as a new one.
Log_Limit::Object& Log_Limit::object_called(const std::string& name, Time now) {
    if (const auto known = objects_.find(name); known != objects_.end()) {
        return known->second;
    }
    if (objects_.size() >= objects_max) {
        for (auto entry = objects_.begin(); entry != objects_.end();) {
            Object& object = entry->second;
            object.allowance.refill(now);
            const bool is_as_new = object.left_out == 0 && object.allowance.is_whole();
            entry = is_as_new ? objects_.erase(entry) : std::next(entry);
        }
    }
    const std::string& kept = objects_.size() >= objects_max ? all_others : name;
    const Allowance allowance(burst_of_one, per_second_of_one, now);
    return objects_.try_emplace(kept, Object{allowance, 0}).first->second;
}

}  // namespace zav_shm
