// SPDX-License-Identifier: Apache-2.0
//
// Consumers that work on frames for long, and consumers that are kept from the processor: nothing
// is lost that is still in the history, what is lost is told, frame by frame, and nobody else
// notices.
#include <csignal>
#include <cstdio>
#include <map>
#include <thread>

#include "device.h"
#include "ipc/monotonic_clock.h"
#include "support/threads.h"

using namespace std::chrono_literals;

namespace {

class Slow_Consumer : public Device {
protected:
    void start_with(long fps, int work_ms, bool beside_a_fast_one) {
        fps_ = fps;
        start_role(Role::center);
        start_subscriber(0, "", work_ms);
        if (beside_a_fast_one) {
            start_subscriber(1);
        }
        start_role(Role::producer);
    }

    /// Every frame from the first that a subscriber got to its last: the sum of what it was told
    /// to have lost and what it got has to be what the producer offered, gap by gap.
    struct Account {
        std::uint64_t received = 0;
        std::uint64_t told = 0;    // lost, by the subscriber
        std::uint64_t missed = 0;  // lost, by the producer's log
        std::uint64_t wrong_gaps = 0;
    };

    Account account_of(int subscriber) {
        std::map<std::uint64_t, int> offered;
        const Frame_Log& sent = log_of_producer();
        for (std::size_t i = 0; i < sent.count; ++i) {
            ++offered[sent.entries.at(i).sequence];
        }
        Account account;
        const Frame_Log& log = log_of(subscriber);
        account.received = log.count;
        for (std::size_t i = 1; i < log.count; ++i) {
            const auto& before = log.entries.at(i - 1);
            const auto& frame = log.entries.at(i);
            const auto missed = static_cast<std::uint64_t>(std::distance(
                offered.upper_bound(before.sequence), offered.lower_bound(frame.sequence)));
            account.told += frame.lost;
            account.missed += missed;
            account.wrong_gaps += missed == frame.lost ? 0U : 1U;
        }
        return account;
    }

    /// Three seconds with an application that works on each frame.
    void expect_every_frame(long fps, int work_ms, bool beside_a_fast_one) {
        const std::int64_t begin_ns = zav_shm::monotonic_ns();
        start_with(fps, work_ms, beside_a_fast_one);
        const auto wanted = static_cast<std::uint64_t>(3 * fps);
        EXPECT_TRUE(becomes_true([&] { return log_of(0).count >= wanted; }, 6s))
            << log_of(0).count << " of " << wanted;
        end_all();
        const Account account = account_of(0);
        std::printf("%ld fps, %d ms of work, %s: %llu frames, %llu lost\n", fps, work_ms,
                    beside_a_fast_one ? "beside a fast one" : "alone",
                    static_cast<unsigned long long>(account.received),
                    static_cast<unsigned long long>(account.missed));
        EXPECT_LE(account.missed, lost_to_stalls(begin_ns));
        EXPECT_EQ(wrong_frames(), 0U);
    }

    /// Five stalls of the whole process; with a history that is as long as the longest of them, or
    /// of some frames only.
    void expect_true_losses(long fps, std::chrono::milliseconds stall, bool long_history) {
        history_bytes_ = std::size_t{long_history ? 64U : 1U} * 131'072;
        const std::int64_t begin_ns = zav_shm::monotonic_ns();
        start_all(fps);
        ASSERT_TRUE(becomes_full(10s));
        for (int i = 0; i < 5; ++i) {
            subscribers.at(0).signal(SIGSTOP);
            std::this_thread::sleep_for(stall);
            subscribers.at(0).signal(SIGCONT);
            std::this_thread::sleep_for(150ms);
        }
        end_all();
        const Account stalled = account_of(0);
        std::printf("%ld fps, stalls of %ld ms, %s: %llu frames, %llu told to be lost, %llu lost\n",
                    fps, static_cast<long>(stall.count()),
                    long_history ? "long history" : "short history",
                    static_cast<unsigned long long>(stalled.received),
                    static_cast<unsigned long long>(stalled.told),
                    static_cast<unsigned long long>(stalled.missed));
        EXPECT_EQ(stalled.wrong_gaps, 0U);
        EXPECT_EQ(stalled.told, stalled.missed);
        if (long_history) {
            EXPECT_EQ(stalled.missed, 0U);
        } else if (stall >= 500ms) {
            EXPECT_GT(stalled.missed, 0U);  // else nothing of the above was tested
        }
        for (int other = 1; other < subscriber_count; ++other) {
            const Account account = account_of(other);
            EXPECT_EQ(account.wrong_gaps, 0U) << other;
            EXPECT_LE(account.missed, lost_to_stalls(begin_ns)) << other;
        }
        EXPECT_EQ(wrong_frames(), 0U);
    }
};

struct Work {
    long fps;
    int ms;
    bool beside_a_fast_one;
};

class Working_Consumer : public Slow_Consumer, public testing::WithParamInterface<Work> {};

TEST_P(Working_Consumer, gets_every_frame) {
    expect_every_frame(GetParam().fps, GetParam().ms, GetParam().beside_a_fast_one);
}
INSTANTIATE_TEST_SUITE_P(With, Working_Consumer,
                         testing::Values(Work{30, 6, true}, Work{30, 12, true}, Work{30, 25, true},
                                         Work{60, 6, true}, Work{60, 12, true}, Work{30, 25, false},
                                         Work{60, 12, false}),
                         [](const auto& cell) {
                             return std::to_string(cell.param.ms) + "_ms_at_" +
                                    std::to_string(cell.param.fps) + "_fps" +
                                    (cell.param.beside_a_fast_one ? "" : "_alone");
                         });

class Stalled_Consumer : public Slow_Consumer,
                         public testing::WithParamInterface<std::tuple<long, int, bool>> {};

TEST_P(Stalled_Consumer, is_told_its_losses) {
    const auto [fps, stall_ms, long_history] = GetParam();
    expect_true_losses(fps, std::chrono::milliseconds(stall_ms), long_history);
}
INSTANTIATE_TEST_SUITE_P(With, Stalled_Consumer,
                         testing::Combine(testing::Values(30L, 60L), testing::Values(40, 100, 500),
                                          testing::Bool()),
                         [](const auto& cell) {
                             return std::to_string(std::get<1>(cell.param)) + "_ms_at_" +
                                    std::to_string(std::get<0>(cell.param)) + "_fps" +
                                    (std::get<2>(cell.param) ? "_with_a_long_history" : "");
                         });

}  // namespace
