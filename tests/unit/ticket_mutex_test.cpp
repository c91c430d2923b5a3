// SPDX-License-Identifier: Apache-2.0
#include "stream/ticket_mutex.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <future>
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

// Its ticket must not die with it. Cancelled as a relay is that runs a routine of somebody's own:
// it gets the mutex first, and ends at its next wait.
TEST(Ticket_Mutex, goes_on_to_others_when_a_thread_is_cancelled_while_it_waits) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "cancellation and ThreadSanitizer do not go together";
#endif
    zav_shm::Ticket_Mutex mutex;
    mutex.lock();
    pthread_t cancelled{};
    ASSERT_EQ(pthread_create(
                  &cancelled, nullptr,
                  [](void* of) -> void* {
                      const std::lock_guard guard(*static_cast<zav_shm::Ticket_Mutex*>(of));
                      for (;;) {
                          pause();
                      }
                  },
                  &mutex),
              0);
    while (!mutex.is_awaited()) {
        std::this_thread::yield();
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));  // it sleeps there
    pthread_cancel(cancelled);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    mutex.unlock();
    auto next = std::async(std::launch::async, [&mutex] { const std::lock_guard guard(mutex); });
    const bool came = next.wait_for(std::chrono::seconds(20)) == std::future_status::ready;
    EXPECT_TRUE(came);
    if (!came) {
        std::_Exit(1);  // it waits for ever
    }
    void* result = nullptr;
    pthread_join(cancelled, &result);
    EXPECT_EQ(result, PTHREAD_CANCELED);
}

}  // namespace
