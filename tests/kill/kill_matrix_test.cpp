// SPDX-License-Identifier: Apache-2.0
//
// {center, producer, consumer} x {killed, stopped for 1 s}: what the others make of it, where all
// of them are of the safe layer, and where the producer or a consumer is of the fixed interface. In
// every other run the moment is random, in the rest it is a named point: before or after one of the
// steps of a frame or of its posts, or in the middle of a copy. ZAV_SHM_KILL_RUNS says how many
// runs a cell has.
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <random>
#include <thread>

#include "device.h"
#include "ipc/monotonic_clock.h"
#include "support/threads.h"

using namespace std::chrono_literals;
using std::chrono::milliseconds;

namespace {

constexpr long fps = 60;
constexpr std::int64_t ms = 1'000'000;
constexpr std::int64_t frame_ns = 1'000'000'000 / fps;
constexpr auto stop_time = 1s;
constexpr milliseconds recovery_limit = 30s;  // machines stand still for seconds

// What is to be reached.
constexpr long registration_ms = 1000;  // of all, from the restart of the center on
constexpr std::int64_t greatest_gap_ns = 2 * frame_ns + 5 * ms;  // less is no stall to Stall_Watch
constexpr long greatest_first_frame_ms = 150;  // from a successor's first publish() to its readers

/// Who is of the fixed interface.
enum class Mix { none, producer, consumer_0 };

/// What one subscriber was handed, from run to run: every frame that was published has to be there.
struct Reading {
    std::uint64_t count = 0;  // of its log, up to which it was looked at
    std::uint64_t epoch = 0;  // of the latest frame; 0: none yet, or it is another process
    std::uint64_t sequence = 0;
};

class Kill_Matrix : public Device {
protected:
    struct Row {
        int runs = 0;
        int wedged = 0;
        long worst_recovery_ms = 0;
        std::int64_t worst_gap_ns = 0;       // between two frames of a reader that was not struck
        std::int64_t worst_net_ns = 0;       // the same, the machine's stalls aside
        long worst_first_frame_ms = 0;       // of a successor, the machine's stalls aside
        std::uint64_t unpublished = 0;       // offered by a publisher of the safe layer, and failed
        std::uint64_t missed = 0;            // by readers of the ring, of what was published
        std::uint64_t untold = 0;            // of these gaps, that a reader did not tell rightly
        std::uint64_t missed_by_slot = 0;    // by those whose frames go through the slot
        std::uint64_t missed_by_struck = 0;  // by one of these that was stopped
        std::uint64_t twice = 0;             // by readers of the ring
    };

    void run_cell(const char* title, Role role, int signal, Mix mix = Mix::none);

    bool reads_slot(int subscriber) const {
        return mix_ == Mix::producer || (mix_ == Mix::consumer_0 && subscriber == 0);
    }

    Role fixed_client() const { return mix_ == Mix::producer ? Role::producer : Role::consumer; }

    /// Of a consumer of the fixed interface the relay may demand pauses.
    bool has_steady_frames(int subscriber) const {
        return mix_ == Mix::producer || !reads_slot(subscriber);
    }

    std::vector<std::string> points_of(Role role) const {
        const std::vector<std::string> ring_writing{"copy write",  "ring reserve", "ring tail",
                                                    "ring record", "ring entry",   "ring head"};
        const std::vector<std::string> slot_writing{"before_post SRC_0", "after_post SRC_0"};
        const std::vector<std::string> relaying{"before_post SRC_1", "after_post SRC_1",
                                                "before_post SRC_2", "after_post SRC_2",
                                                "before_post DST_0", "after_post DST_0"};
        const std::vector<std::string> slot_reading{"before_post DST_1", "after_post DST_1",
                                                    "before_post DST_2", "after_post DST_2"};
        std::vector<std::string> points;
        const auto add = [&points](const std::vector<std::string>& more) {
            points.insert(points.end(), more.begin(), more.end());
        };
        switch (role) {
            case Role::center:
                if (mix_ != Mix::none) {
                    add(relaying);  // else no post passes through it
                }
                break;
            case Role::producer:
                if (mix_ != Mix::producer) {
                    add(ring_writing);
                }
                if (mix_ != Mix::none) {
                    add(slot_writing);
                }
                break;
            case Role::consumer:
                if (mix_ != Mix::none) {
                    add(slot_reading);
                }
                if (mix_ == Mix::producer) {
                    add({"copy header"});
                }
                if (mix_ != Mix::consumer_0) {
                    add({"copy read", "ring head_read", "ring entry_read"});
                }
                break;
        }
        return points;
    }

    /// Where the process of the next run is to end; empty: at a random moment.
    std::string point_of_run(Role role, int run, int signal) {
        const auto points = points_of(role);
        if (run % 2 == 0 || points.empty()) {
            return "";
        }
        const std::string& point = points[static_cast<std::size_t>(run / 2) % points.size()];
        long passes_per_frame = 1;
        if (point.ends_with("DST_2") || point.ends_with("head_read")) {
            passes_per_frame = 2;
        } else if (point.ends_with("DST_0") && mix_ == Mix::producer) {
            passes_per_frame = subscriber_count;
        }
        const long passes = passes_per_frame * (1 + random(30));  // once all is well, arm()
        return point + " " + std::to_string(passes) + " " + std::to_string(signal);
    }

    /// Waits until the process has ended or stopped at its point, or makes it.
    bool strike(Role role, const std::string& point, int signal) {
        Child_Process& victim = process_of(role);
        if (point.empty()) {
            std::this_thread::sleep_for(std::chrono::microseconds(random(50'000)));
            victim.signal(signal);
        }
        arm();
        return becomes_true(
            [&] { return state_of(victim.pid()) == (signal == SIGKILL ? 'Z' : 'T'); },
            recovery_limit);
    }

    // ---- what it came to ----

    void read_producer(Row& row) {
        const Frame_Log& log = log_of_producer();
        const std::uint64_t count = log.count.load(std::memory_order_acquire);
        for (; producer_read_ < count; ++producer_read_) {
            const auto& frame = log.entries[producer_read_ % Frame_Log::capacity];
            row.unpublished += producer_is_fixed_ ? 0U : frame.failed;
            last_of_[frame.epoch] = frame.sequence;
            if (frame.sequence == 1) {
                begin_of_[frame.epoch] = frame.ns;
            }
        }
    }

    /// @param with_gaps  not where the producer was struck
    void read_subscriber(Row& row, int subscriber, bool is_struck, bool with_gaps,
                         std::int64_t from_ns) {
        const Frame_Log& log = log_of(subscriber);
        Reading& reading = readings_[subscriber];
        const std::uint64_t count = log.count.load(std::memory_order_acquire);
        for (; reading.count < count; ++reading.count) {
            const auto& frame = log.entries[reading.count % Frame_Log::capacity];
            if (reading.epoch != 0) {
                auto& missed = !reads_slot(subscriber) ? row.missed
                               : is_struck             ? row.missed_by_struck
                                                       : row.missed_by_slot;
                missed += compare(row, subscriber, reading, frame);
                const auto& former = log.entries[(reading.count - 1) % Frame_Log::capacity];
                if (with_gaps && has_steady_frames(subscriber) && !is_struck &&
                    frame.ns >= from_ns) {
                    measure_gap(row, former, frame);
                }
            }
            reading.epoch = frame.epoch;
            reading.sequence = frame.sequence;
        }
    }

    /// @return how many frames lie between the two that were published
    std::uint64_t compare(Row& row, int subscriber, const Reading& former,
                          const Frame_Log::Entry& frame) {
        std::uint64_t missed = 0;
        if (frame.epoch == former.epoch) {
            // Frames without a header cannot be told from one another by who reads the slot.
            row.twice += !reads_slot(subscriber) && frame.sequence <= former.sequence ? 1U : 0U;
            missed = frame.sequence - std::min(frame.sequence, former.sequence + 1);
            row.untold += !reads_slot(subscriber) && frame.lost != missed ? 1U : 0U;
        } else {
            // What was noted was published before; a killed producer may not have noted its last.
            const std::uint64_t last = last_of_[former.epoch];
            missed = last - std::min(last, former.sequence) + frame.sequence - 1;
            const auto begin = begin_of_.find(frame.epoch);
            if (begin != begin_of_.end() && frame.sequence == 1) {
                const std::int64_t time =
                    frame.ns - begin->second - machine.stalled_ns(begin->second, frame.ns);
                row.worst_first_frame_ms =
                    std::max(row.worst_first_frame_ms, static_cast<long>(time / ms));
            }
        }
        return missed;
    }

    void measure_gap(Row& row, const Frame_Log::Entry& former, const Frame_Log::Entry& frame) {
        const std::int64_t gap = frame.ns - former.ns;
        row.worst_gap_ns = std::max(row.worst_gap_ns, gap);
        if (gap > row.worst_net_ns) {
            row.worst_net_ns = std::max(row.worst_net_ns, gap - stalled(former, frame));
        }
    }

    /// How much of the time between these frames the machine was not there for their producer and
    /// their reader.
    std::int64_t stalled(const Frame_Log::Entry& former, const Frame_Log::Entry& frame) {
        std::int64_t waited = frame.waited_ns - former.waited_ns;
        const auto* const sent = find_sent(frame);
        const auto* const sent_before = find_sent(former);
        if (sent != nullptr && sent_before != nullptr && frame.epoch == former.epoch) {
            waited += sent->waited_ns - sent_before->waited_ns;
        }
        return std::max(waited, machine.stalled_ns(former.ns, frame.ns));
    }

    /// Null when its producer has not noted it.
    const Frame_Log::Entry* find_sent(const Frame_Log::Entry& frame) {
        const Frame_Log& log = log_of_producer();
        for (std::uint64_t back = 1; back <= std::min<std::uint64_t>(producer_read_, 2000);
             ++back) {
            const auto& sent = log.entries[(producer_read_ - back) % Frame_Log::capacity];
            if (sent.epoch == frame.epoch && sent.sequence == frame.sequence) {
                return &sent;
            }
        }
        return nullptr;
    }

    long random(long below) { return std::uniform_int_distribution<long>(0, below - 1)(random_); }

    static char state_of(pid_t process) {
        std::ifstream status("/proc/" + std::to_string(process) + "/stat");
        std::string text{std::istreambuf_iterator<char>(status), {}};
        const std::size_t name_end = text.rfind(')');
        return name_end == std::string::npos ? 'Z' : text.at(name_end + 2);
    }

    static int wanted_runs() {
        const char* const text = std::getenv("ZAV_SHM_KILL_RUNS");
        return text == nullptr ? 20 : std::atoi(text);
    }

private:
    void run_once(Row& row, Role role, int signal, const std::string& point,
                  const std::string& next_point);
    void start_again(Role role, const std::string& point);
    bool recovers(Row& row, Role role, int signal, std::int64_t back_ns);
    void measure(Row& row, Role role, std::int64_t event_ns);
    void judge(const Row& row, Role role, int signal);

    Mix mix_ = Mix::none;
    std::map<std::string, std::uint64_t> registered_;  // before the event
    std::uint64_t producer_read_ = 0;
    std::map<std::uint64_t, std::uint64_t> last_of_;  // sequence, by epoch
    std::map<std::uint64_t, std::int64_t> begin_of_;  // of the first publish(), by epoch
    std::map<int, Reading> readings_;
    std::mt19937_64 random_{std::random_device{}()};
};

/// Where the same process goes on, every frame counts; another one begins with what comes. Clients
/// of the fixed interface do not find another center by themselves.
void Kill_Matrix::start_again(Role role, const std::string& point) {
    const bool with_client = role == Role::center && has_fixed_client();
    if (with_client) {
        process_of(fixed_client()).kill();
    }
    start_role(role, point);
    if (with_client) {
        wait_for_center();
        start_role(fixed_client());
    }
    if (role == Role::consumer || (with_client && fixed_client() == Role::consumer)) {
        readings_[0] = {log_of(0).count, 0, 0};
    }
}

void Kill_Matrix::run_once(Row& row, Role role, int signal, const std::string& point,
                           const std::string& next_point) {
    if (signal == SIGSTOP && !point.empty()) {
        measure(row, role, zav_shm::monotonic_ns());
        process_of(role).kill();
        start_again(role, point);
        ASSERT_TRUE(becomes_full(recovery_limit)) << point;
    }
    registered_ = registrations();
    const std::int64_t event_ns = zav_shm::monotonic_ns();
    ASSERT_TRUE(strike(role, point, signal)) << point;
    std::this_thread::sleep_for(signal == SIGKILL ? 100ms : milliseconds(stop_time));
    if (role == Role::center && signal == SIGKILL && row.runs % 2 == 1) {
        start_role(role);  // and once more, while its clients register
        std::this_thread::sleep_for(std::chrono::microseconds(random(300'000)));
        process_of(role).kill();
    }
    const std::int64_t back_ns = zav_shm::monotonic_ns();
    if (signal == SIGKILL) {
        start_again(role, next_point);
    } else {
        process_of(role).signal(SIGCONT);
    }
    ++row.runs;
    if (!recovers(row, role, signal, back_ns)) {
        ++row.wedged;
    }
    measure(row, role, event_ns);
}

bool Kill_Matrix::recovers(Row& row, Role role, int signal, std::int64_t back_ns) {
    const auto since_ms = [back_ns] {
        return static_cast<long>((zav_shm::monotonic_ns() - back_ns) / ms);
    };
    if (role == Role::center && signal == SIGKILL) {
        if (!all_register_again(registered_, recovery_limit)) {
            return false;
        }
        row.worst_recovery_ms = std::max(row.worst_recovery_ms, since_ms());
        return becomes_full(recovery_limit);
    }
    if (!becomes_full(recovery_limit)) {
        return false;
    }
    // The rate is full once the window of the last 300 ms is.
    row.worst_recovery_ms = std::max(row.worst_recovery_ms, since_ms() - 300);
    return true;
}

void Kill_Matrix::measure(Row& row, Role role, std::int64_t event_ns) {
    read_producer(row);
    for (int i = 0; i < subscriber_count; ++i) {
        const bool is_struck = role == Role::consumer && i == 0;
        read_subscriber(row, i, is_struck, role != Role::producer, event_ns);
    }
}

void Kill_Matrix::run_cell(const char* title, Role role, int signal, Mix mix) {
    mix_ = mix;
    producer_is_fixed_ = mix == Mix::producer;
    consumer_0_is_fixed_ = mix == Mix::consumer_0;
    history_bytes_ = std::size_t{8}
                     << 20U;  // more than four seconds: what is in it is not to be lost
    start_all(fps);
    ASSERT_TRUE(becomes_full(recovery_limit));
    Row row;
    const int runs = wanted_runs();
    std::string point = point_of_run(role, 0, signal);
    for (int run = 0; run < runs && !HasFatalFailure(); ++run) {
        const std::string next = point_of_run(role, run + 1, signal);
        run_once(row, role, signal, point, run + 1 < runs ? next : "");
        point = next;
    }
    end_all();
    const auto left = left_behind();
    std::printf(
        "| %-42s | %5d | %6d | %5ld ms | %4ld ms | %4ld ms | %5ld ms | %4llu | %10llu | %4llu | "
        "%4llu | %5llu | %5llu | %4zu |\n",
        title, row.runs, row.wedged, row.worst_recovery_ms,
        static_cast<long>(row.worst_gap_ns / ms), static_cast<long>(row.worst_net_ns / ms),
        row.worst_first_frame_ms, static_cast<unsigned long long>(wrong_frames()),
        static_cast<unsigned long long>(wrong_unverified_frames()),
        static_cast<unsigned long long>(row.unpublished),
        static_cast<unsigned long long>(row.missed),
        static_cast<unsigned long long>(row.missed_by_slot),
        static_cast<unsigned long long>(row.missed_by_struck), left.size());
    EXPECT_TRUE(left.empty()) << left.front();
    judge(row, role, signal);
}

void Kill_Matrix::judge(const Row& row, Role role, int signal) {
    EXPECT_EQ(wrong_frames(), 0U);
    EXPECT_EQ(row.wedged, 0);
    EXPECT_EQ(row.unpublished, 0U);
    EXPECT_EQ(row.missed, 0U);
    EXPECT_EQ(row.untold, 0U);
    EXPECT_EQ(row.twice, 0U);
    if (std::getenv("ZAV_SHM_KILL_RUNS") == nullptr) {
        return;  // beside other tests the times are the machine's; they are printed
    }
    if (role == Role::center && signal == SIGKILL) {
        EXPECT_LE(row.worst_recovery_ms, registration_ms);
    }
    if (mix_ == Mix::producer) {
        return;  // the slot and its relay promise no more
    }
    if (role == Role::producer) {
        EXPECT_LE(row.worst_first_frame_ms, greatest_first_frame_ms);
    } else {
        EXPECT_LE(row.worst_net_ns, greatest_gap_ns);
    }
}

// The figures of a row, the greatest of all runs each:
//
//   runs, wedged, time to full rate (of a killed center: until all have registered), gap of a
//   reader that was not struck, the same without the machine's stalls, a successor's first frame,
//   torn, torn of or through the fixed interface, offered and not published, published and missed
//   by readers of the ring, missed by those whose frames go through the slot, by the one of them
//   that was stopped, left behind
TEST_F(Kill_Matrix, center_killed) { run_cell("center killed", Role::center, SIGKILL); }
TEST_F(Kill_Matrix, center_stopped) { run_cell("center stopped 1 s", Role::center, SIGSTOP); }
TEST_F(Kill_Matrix, producer_killed) { run_cell("producer killed", Role::producer, SIGKILL); }
TEST_F(Kill_Matrix, producer_stopped) { run_cell("producer stopped 1 s", Role::producer, SIGSTOP); }
TEST_F(Kill_Matrix, consumer_killed) { run_cell("consumer killed", Role::consumer, SIGKILL); }
TEST_F(Kill_Matrix, consumer_stopped) { run_cell("consumer stopped 1 s", Role::consumer, SIGSTOP); }

// A center that died while the others were still coming back would find nobody to start it again,
// and the run would count as wedged. Here its point is passed some 30 times a second from the
// first subscriber on.
TEST_F(Device, point_strikes_nobody_before_it_is_armed) {
    producer_is_fixed_ = true;
    start_role(Role::center, "before_post SRC_2 1 9");
    wait_for_center();
    start_role(Role::producer);
    for (int i = 0; i < subscriber_count; ++i) {
        start_subscriber(i);
    }
    EXPECT_TRUE(becomes_full(recovery_limit));
    EXPECT_EQ(daemon->wait(300ms), std::nullopt);
    arm();
    EXPECT_EQ(daemon->wait(recovery_limit), 128 + SIGKILL);
    start_role(Role::center);
    wait_for_center();  // the producer takes its leave of it
    end_all();
}

// A producer of the fixed interface, whose frames come through the relay to three subscribers.
TEST_F(Kill_Matrix, fixed_producer_killed) {
    run_cell("fixed producer: itself killed", Role::producer, SIGKILL, Mix::producer);
}
TEST_F(Kill_Matrix, fixed_producer_stopped) {
    run_cell("fixed producer: itself stopped 1 s", Role::producer, SIGSTOP, Mix::producer);
}
TEST_F(Kill_Matrix, center_of_fixed_producer_killed) {
    run_cell("fixed producer: center killed", Role::center, SIGKILL, Mix::producer);
}
TEST_F(Kill_Matrix, center_of_fixed_producer_stopped) {
    run_cell("fixed producer: center stopped 1 s", Role::center, SIGSTOP, Mix::producer);
}
TEST_F(Kill_Matrix, consumer_of_fixed_producer_killed) {
    run_cell("fixed producer: a subscriber killed", Role::consumer, SIGKILL, Mix::producer);
}
TEST_F(Kill_Matrix, consumer_of_fixed_producer_stopped) {
    run_cell("fixed producer: a subscriber stopped 1 s", Role::consumer, SIGSTOP, Mix::producer);
}

// A consumer of the fixed interface beside two subscribers, and the publisher that feeds it.
TEST_F(Kill_Matrix, fixed_consumer_killed) {
    run_cell("fixed consumer: itself killed", Role::consumer, SIGKILL, Mix::consumer_0);
}
TEST_F(Kill_Matrix, fixed_consumer_stopped) {
    run_cell("fixed consumer: itself stopped 1 s", Role::consumer, SIGSTOP, Mix::consumer_0);
}
TEST_F(Kill_Matrix, center_of_fixed_consumer_killed) {
    run_cell("fixed consumer: center killed", Role::center, SIGKILL, Mix::consumer_0);
}
TEST_F(Kill_Matrix, center_of_fixed_consumer_stopped) {
    run_cell("fixed consumer: center stopped 1 s", Role::center, SIGSTOP, Mix::consumer_0);
}
TEST_F(Kill_Matrix, producer_of_fixed_consumer_killed) {
    run_cell("fixed consumer: publisher killed", Role::producer, SIGKILL, Mix::consumer_0);
}
TEST_F(Kill_Matrix, producer_of_fixed_consumer_stopped) {
    run_cell("fixed consumer: publisher stopped 1 s", Role::producer, SIGSTOP, Mix::consumer_0);
}

}  // namespace
