// SPDX-License-Identifier: Apache-2.0
#include "stream/ticket_mutex.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <thread>
#include <vector>

namespace {

TEST(Ticket_Mutex, lets_one_in_at_a_time) {
    zav_shm::Ticket_Mutex mutex;
    long count = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            for (int turn = 0; turn < 5000; ++turn) {
                const std::lock_guard guard(mutex);
                ++count;
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(count, 20000);
}

// A holder that asks again at once, as the relay does, comes after whoever asked meanwhile.
TEST(Ticket_Mutex, serves_a_waiter_before_a_holder_that_asks_again) {
    zav_shm::Ticket_Mutex mutex;
    std::atomic<bool> served{false};
    for (int round = 0; round < 50; ++round) {
        served = false;
        mutex.lock();
        std::thread waiter([&] {
            const std::lock_guard guard(mutex);
            served = true;
        });
        while (!mutex.is_awaited()) {
            std::this_thread::yield();
        }
        mutex.unlock();
        mutex.lock();
        EXPECT_TRUE(served);
        mutex.unlock();
        waiter.join();
    }
}

}  // namespace
