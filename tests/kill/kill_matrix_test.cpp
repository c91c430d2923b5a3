// SPDX-License-Identifier: Apache-2.0
//
// {center, producer, consumer} x {killed, stopped for 1 s}: what the others make of it. In every
// other run the moment is random, in the rest it is a named point: before or after one of the
// posts, or in the middle of a copy. ZAV_SHM_KILL_RUNS says how many runs a cell has.
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <thread>

#include "device.h"
#include "frame/frame_format.h"
#include "ipc/monotonic_clock.h"
#include "support/threads.h"

using namespace std::chrono_literals;
using std::chrono::milliseconds;

namespace {

constexpr long fps = 60;
constexpr auto stop_time = 1s;
constexpr milliseconds recovery_limit = 10s;

// What is to be reached.
constexpr long center_recovery_ms = 1000;  // of healthy peers, from the restart of the center on
constexpr long greatest_gap_ms = 100;      // of healthy peers, when another consumer dies or stops

class Kill_Matrix : public Device {
protected:
    struct Row {
        int runs = 0;
        int wedged = 0;
        long worst_recovery_ms = 0;
        long worst_gap_ms = 0;  // between two frames of a healthy peer, the machine's stalls aside
        std::uint64_t lost_by_healthy = 0;
    };

    void run_cell(const char* title, Role role, int signal);

    const std::vector<std::string>& points_of(Role role) const {
        static const std::map<Role, std::vector<std::string>> points{
            {Role::center,
             {"before_post SRC_1", "after_post SRC_1", "before_post SRC_2", "after_post SRC_2",
              "before_post DST_0", "after_post DST_0"}},
            {Role::producer, {"before_post SRC_0", "after_post SRC_0", "copy write"}},
            {Role::consumer,
             {"before_post DST_1", "after_post DST_1", "before_post DST_2", "after_post DST_2",
              "copy read"}}};
        return points.at(role);
    }

    /// Where the process of the next run is to end; empty: at a random moment.
    std::string point_of_run(Role role, int run, int signal) {
        if (run % 2 == 0) {
            return "";
        }
        const auto& points = points_of(role);
        const std::string& point = points[static_cast<std::size_t>(run / 2) % points.size()];
        // A consumer announces itself several times per frame.
        const long passes_per_frame = point.ends_with("DST_2") ? 6 : 1;
        const long passes = passes_per_frame * (75 + random(30));  // after more than a second
        return point + " " + std::to_string(passes) + " " + std::to_string(signal);
    }

    /// Waits until the process has ended or stopped at its point, or makes it.
    bool strike(Role role, const std::string& point, int signal) {
        Child_Process& victim = process_of(role);
        if (point.empty()) {
            std::this_thread::sleep_for(std::chrono::microseconds(random(50'000)));
            victim.signal(signal);
        }
        return becomes_true(
            [&] { return state_of(victim.pid()) == (signal == SIGKILL ? 'Z' : 'T'); }, 10s);
    }

    /// Of the healthy subscribers: from the event on.
    void measure(Row& row, Role role, std::int64_t from_ns) {
        for (int i = role == Role::consumer ? 1 : 0; i < subscriber_count; ++i) {
            const Frame_Log& log = log_of(i);
            const std::uint64_t count = log.count.load(std::memory_order_acquire);
            for (std::uint64_t at = count - 1; at > 0; --at) {
                const auto& frame = log.entries[at % Frame_Log::capacity];
                const auto& before = log.entries[(at - 1) % Frame_Log::capacity];
                if (frame.ns < from_ns) {
                    break;
                }
                row.lost_by_healthy += frame.lost;
                const std::int64_t gap =
                    frame.ns - before.ns - machine.stalled_ns(before.ns, frame.ns);
                row.worst_gap_ms = std::max(row.worst_gap_ms, static_cast<long>(gap / 1'000'000));
            }
        }
    }

    /// Files below /dev/shm; the daemon's lock files stay on purpose.
    static int names_left_behind() {
        int left = 0;
        for (const auto& entry : std::filesystem::recursive_directory_iterator("/dev/shm")) {
            const bool is_lock = entry.path().filename().string().find("lock") != std::string::npos;
            left += entry.is_regular_file() && !is_lock ? 1 : 0;
        }
        return left;
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

    std::mt19937_64 random_{std::random_device{}()};
};

void Kill_Matrix::run_once(Row& row, Role role, int signal, const std::string& point,
                           const std::string& next_point) {
    if (signal == SIGSTOP && !point.empty()) {
        process_of(role).kill();
        start_role(role, point);
        ASSERT_TRUE(becomes_full(recovery_limit));
    }
    const std::int64_t event_ns = zav_shm::monotonic_ns();
    ASSERT_TRUE(strike(role, point, signal)) << point;
    std::this_thread::sleep_for(signal == SIGKILL ? 100ms : milliseconds(stop_time));
    const std::int64_t back_ns = zav_shm::monotonic_ns();
    if (signal == SIGKILL) {
        start_role(role, next_point);
    } else {
        process_of(role).signal(SIGCONT);
    }
    ++row.runs;
    if (!becomes_full(recovery_limit)) {
        ++row.wedged;
        return;
    }
    // The rate is full once the window of the last 300 ms is.
    const long recovery_ms =
        static_cast<long>((zav_shm::monotonic_ns() - back_ns) / 1'000'000) - 300;
    row.worst_recovery_ms = std::max(row.worst_recovery_ms, recovery_ms);
    measure(row, role, event_ns);
}

void Kill_Matrix::run_cell(const char* title, Role role, int signal) {
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
    const std::uint64_t torn = wrong_frames();
    end_all();
    const int left = names_left_behind();
    std::printf("| %-28s | %5d | %6d | %8ld ms | %7ld ms | %4llu | %5llu | %4d |\n", title,
                row.runs, row.wedged, row.worst_recovery_ms, row.worst_gap_ms,
                static_cast<unsigned long long>(torn),
                static_cast<unsigned long long>(row.lost_by_healthy), left);
    EXPECT_EQ(left, 0);
    EXPECT_EQ(torn, 0U);
    EXPECT_EQ(row.wedged, 0);
    if (role == Role::center && signal == SIGKILL) {
        EXPECT_LE(row.worst_recovery_ms, center_recovery_ms);
    }
    if (role == Role::consumer) {
        EXPECT_LE(row.worst_gap_ms, greatest_gap_ms);
    }
}

// | cell | runs | wedged | worst time to full rate | greatest gap | torn | lost by healthy peers |
// left behind |
TEST_F(Kill_Matrix, center_killed) { run_cell("center killed", Role::center, SIGKILL); }
TEST_F(Kill_Matrix, center_stopped) { run_cell("center stopped 1 s", Role::center, SIGSTOP); }
TEST_F(Kill_Matrix, producer_killed) { run_cell("producer killed", Role::producer, SIGKILL); }
TEST_F(Kill_Matrix, producer_stopped) { run_cell("producer stopped 1 s", Role::producer, SIGSTOP); }
TEST_F(Kill_Matrix, consumer_killed) { run_cell("consumer killed", Role::consumer, SIGKILL); }
TEST_F(Kill_Matrix, consumer_stopped) { run_cell("consumer stopped 1 s", Role::consumer, SIGSTOP); }

}  // namespace
