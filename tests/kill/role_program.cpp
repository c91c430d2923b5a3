// SPDX-License-Identifier: Apache-2.0
//
// zav_test_role producer FPS LOG
// zav_test_role subscriber NAME WORK_MS LOG
//
// The processes under test. A producer publishes frames of changing length whose payload follows
// from epoch and sequence; a subscriber checks each that it is handed. Both write down what they
// did. SIGTERM ends them in order. WORK_MS is how long a subscriber works on each frame.
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

#include "frame/frame_publisher.h"
#include "frame/frame_subscriber.h"
#include "frame_log.h"
#include "ipc/monotonic_clock.h"

using namespace std::chrono_literals;

namespace {

constexpr std::size_t least_bytes = 512;
constexpr std::size_t greatest_bytes = 60'000;  // below the page size of the tests' stream

std::atomic<bool> ends{false};

void end_at_sigterm() {
    struct sigaction action = {};
    action.sa_handler = [](int) { ends = true; };
    sigaction(SIGTERM, &action, nullptr);
}

// A generator of words that no other frame has.
class Pattern {
public:
    Pattern(std::uint64_t epoch, std::uint64_t sequence)
        : state_((epoch ^ (sequence * 0x9E3779B97F4A7C15U)) | 1U) {}
    std::uint64_t next() {
        state_ ^= state_ << 13U;
        state_ ^= state_ >> 7U;
        state_ ^= state_ << 17U;
        return state_;
    }

private:
    std::uint64_t state_;
};

std::size_t length_of(std::uint64_t sequence) {
    const auto beyond_least =
        static_cast<std::size_t>(sequence * 7919 % (greatest_bytes - least_bytes));
    return (least_bytes + beyond_least) / sizeof(std::uint64_t) * sizeof(std::uint64_t);
}

void fill(std::vector<std::byte>& payload, std::uint64_t epoch, std::uint64_t sequence) {
    payload.resize(length_of(sequence));
    Pattern pattern(epoch, sequence);
    for (std::size_t at = 0; at < payload.size(); at += sizeof(std::uint64_t)) {
        const std::uint64_t word = pattern.next();
        std::memcpy(payload.data() + at, &word, sizeof word);
    }
}

bool is_right(const zav_shm::Received_Frame& frame) {
    const auto payload = frame.payload();
    if (!frame.verified || payload.size() != length_of(frame.header.sequence)) {
        return false;
    }
    Pattern pattern(frame.header.epoch, frame.header.sequence);
    for (std::size_t at = 0; at < payload.size(); at += sizeof(std::uint64_t)) {
        const std::uint64_t word = pattern.next();
        if (std::memcmp(payload.data() + at, &word, sizeof word) != 0) {
            return false;
        }
    }
    return true;
}

void produce(long fps, Frame_Log& log) {
    ZAV_SHM_Frame_Publisher camera({.name = "CAM_LOOP", .center_wait = 0ms});
    static_cast<void>(camera.open());
    std::vector<std::byte> payload;
    auto due = std::chrono::steady_clock::now();
    for (std::uint64_t sequence = 1; !ends; ++sequence) {
        fill(payload, camera.epoch(), sequence);
        const std::int64_t begin = zav_shm::monotonic_ns();
        const auto result = camera.publish(
            payload,
            {.flags = sequence % 30 == 1 ? zav_shm::frame_flag::key_frame : std::uint16_t{0}});
        log.add({begin, camera.epoch(), sequence, 0, static_cast<std::uint64_t>(result.outcome)});
        due += std::chrono::nanoseconds(1'000'000'000 / fps);
        if (due < std::chrono::steady_clock::now()) {
            due = std::chrono::steady_clock::now();  // a stopped producer does not catch up
        }
        std::this_thread::sleep_until(due);
    }
}

void subscribe(const std::string& name, long work_ms, Frame_Log& log) {
    ZAV_SHM_Frame_Subscriber consumer({.name = name,
                                       .producer = "CAM_LOOP",
                                       .center_wait = 0ms,
                                       .queue_frames = 16,
                                       .overflow = zav_shm::Overflow_Policy::drop_oldest});
    static_cast<void>(consumer.open());
    zav_shm::Received_Frame frame;
    while (!ends) {
        if (consumer.receive(frame, 20ms) != zav_shm::Receive_Status::frame) {
            continue;
        }
        log.wrong += is_right(frame) ? 0U : 1U;
        log.add({frame.received_ns, frame.header.epoch, frame.header.sequence,
                 frame.lost + frame.dropped + frame.skipped, 0});
        std::this_thread::sleep_for(std::chrono::milliseconds(work_ms));
    }
}

}  // namespace

int main(int argc, char** argv) {
    const std::string role = argc > 1 ? argv[1] : "";
    const bool produces = role == "producer" && argc == 4;
    if (!produces && (role != "subscriber" || argc != 5)) {
        std::fputs("usage: zav_test_role producer FPS LOG | subscriber NAME WORK_MS LOG\n", stderr);
        return EXIT_FAILURE;
    }
    end_at_sigterm();
    Frame_Log* const log = map_frame_log(argv[argc - 1]);
    if (log == nullptr) {
        return EXIT_FAILURE;
    }
    if (produces) {
        produce(std::strtol(argv[2], nullptr, 10), *log);
    } else {
        subscribe(argv[2], std::strtol(argv[3], nullptr, 10), *log);
    }
    return EXIT_SUCCESS;
}
