// SPDX-License-Identifier: Apache-2.0
#include "support/stall_watch.h"

#include <algorithm>
#include <ctime>

#include "support/threads.h"

namespace {

constexpr std::int64_t interval_ns = 1'000'000;
constexpr std::int64_t tolerated_ns = 5'000'000;

std::int64_t now_ns() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return std::int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

}  // namespace

Stall_Watch::Stall_Watch() {
    for (unsigned each = 0; each < std::thread::hardware_concurrency(); ++each) {
        threads_.emplace_back([this, each] { watch(static_cast<int>(each)); });
    }
}

Stall_Watch::~Stall_Watch() {
    ends_ = true;
    for (std::thread& each : threads_) {
        each.join();
    }
}

void Stall_Watch::watch(int processor) {
    if (!stay_on_processor(processor) || !go_before_all_others()) {
        return;
    }
    while (!ends_) {
        const std::int64_t from = now_ns();
        const timespec interval{0, interval_ns};
        nanosleep(&interval, nullptr);
        const std::int64_t to = now_ns();
        if (to - from > interval_ns + tolerated_ns) {
            const std::lock_guard guard(mutex_);
            stalls_.push_back({from + interval_ns, to});
        }
    }
}

std::int64_t Stall_Watch::stalled_ns(std::int64_t from_ns, std::int64_t to_ns) const {
    std::vector<Stall> stalls;
    {
        const std::lock_guard guard(mutex_);
        stalls = stalls_;
    }
    std::sort(stalls.begin(), stalls.end(),
              [](const Stall& a, const Stall& b) { return a.from_ns < b.from_ns; });
    std::int64_t stalled = 0;
    for (const Stall& each : stalls) {
        const std::int64_t begin = std::max(each.from_ns, from_ns);
        const std::int64_t end = std::min(each.to_ns, to_ns);
        if (end > begin) {
            stalled += end - begin;
            from_ns = end;  // another processor's stall at the same time is not counted again
        }
    }
    return stalled;
}
