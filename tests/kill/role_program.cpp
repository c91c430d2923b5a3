// SPDX-License-Identifier: Apache-2.0
//
// zav_test_role producer FPS HISTORY_BYTES LOG
// zav_test_role subscriber NAME WORK_MS LOG
// zav_test_role fixed_producer FPS LOG
// zav_test_role fixed_consumer NAME LOG
//
// The processes under test. A producer publishes frames of changing length whose payload follows
// from epoch and sequence, which it begins with; a subscriber checks each that it is handed. Both
// write down what they did. SIGTERM ends them in order. WORK_MS is how long a subscriber works on
// each frame, HISTORY_BYTES how long the history is, 0 for what a publisher takes by itself. The
// fixed ones do the same with the classes of the fixed interface: such a producer has no frame
// header, and such a consumer does not look at it.
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <random>
#include <span>
#include <thread>
#include <vector>

#include "client/shm_client_distributor.h"
#include "client/shm_client_receiver.h"
#include "frame/frame_publisher.h"
#include "frame/frame_subscriber.h"
#include "frame_log.h"
#include "ipc/monotonic_clock.h"

using namespace std::chrono_literals;

namespace {

constexpr std::size_t least_bytes = 512;
constexpr std::size_t greatest_bytes = 60'000;
constexpr std::size_t page_bytes = 65'536;  // of the tests' stream

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

/// What a payload begins with.
struct Identity {
    std::uint64_t epoch = 0;
    std::uint64_t sequence = 0;
};

void fill(std::span<std::byte> payload, const Identity& identity) {
    std::memcpy(payload.data(), &identity, sizeof identity);
    Pattern pattern(identity.epoch, identity.sequence);
    for (std::size_t at = sizeof identity; at < payload.size(); at += sizeof(std::uint64_t)) {
        const std::uint64_t word = pattern.next();
        std::memcpy(payload.data() + at, &word, sizeof word);
    }
}

Identity identity_of(std::span<const std::byte> payload) {
    Identity identity;
    if (payload.size() >= sizeof identity) {
        std::memcpy(&identity, payload.data(), sizeof identity);
    }
    return identity;
}

bool is_right(std::span<const std::byte> payload) {
    const Identity identity = identity_of(payload);
    if (payload.size() != length_of(identity.sequence)) {
        return false;
    }
    Pattern pattern(identity.epoch, identity.sequence);
    for (std::size_t at = sizeof identity; at < payload.size(); at += sizeof(std::uint64_t)) {
        const std::uint64_t word = pattern.next();
        if (std::memcmp(payload.data() + at, &word, sizeof word) != 0) {
            return false;
        }
    }
    return true;
}

bool is_right(const zav_shm::Received_Frame& frame) {
    const Identity identity = identity_of(frame.payload());
    const bool is_its_own = !frame.verified || (identity.epoch == frame.header.epoch &&
                                                identity.sequence == frame.header.sequence);
    return is_its_own && is_right(frame.payload());
}

/// Offers a frame at each due time.
///
/// @param publish  false when it failed
void offer(
    long fps, std::uint64_t epoch, Frame_Log& log,
    const std::function<bool(std::span<std::byte> payload, std::uint64_t sequence)>& publish) {
    std::vector<std::byte> room(greatest_bytes);
    auto due = std::chrono::steady_clock::now();
    for (std::uint64_t sequence = 1; !ends; ++sequence) {
        const auto payload = std::span(room).first(length_of(sequence));
        fill(payload, {epoch, sequence});
        const std::int64_t begin = zav_shm::monotonic_ns();
        const bool published = publish(payload, sequence);
        log.add({begin, epoch, sequence, 0, published ? 0U : 1U, waited_for_processor_ns()});
        due += std::chrono::nanoseconds(1'000'000'000 / fps);
        if (due < std::chrono::steady_clock::now()) {
            due = std::chrono::steady_clock::now();  // a stopped producer does not catch up
        }
        std::this_thread::sleep_until(due);
    }
}

void produce(long fps, std::size_t history_bytes, Frame_Log& log) {
    ZAV_SHM_Frame_Publisher camera({.name = "CAM_LOOP",
                                    .center_wait = 0ms,
                                    .history_bytes = history_bytes,
                                    .frame_bytes_max = page_bytes});
    static_cast<void>(camera.open());
    offer(fps, camera.epoch(), log, [&](std::span<std::byte> payload, std::uint64_t sequence) {
        const bool is_key = sequence % 30 == 1;
        log.registrations = camera.counters().recoveries;
        return camera
            .publish(payload, {.flags = is_key ? zav_shm::frame_flag::key_frame : std::uint16_t{0}})
            .published();
    });
}

void produce_by_fixed_interface(long fps, Frame_Log& log) {
    ZAV_SHM_CLIENT_DISTRIBUTOR client("CAM_LOOP", true);
    const std::uint64_t epoch = std::random_device{}();
    STREAM_FRAME_FORMAT record{};
    offer(fps, epoch, log, [&](std::span<std::byte> payload, std::uint64_t) {
        record.payload_length = static_cast<std::uint32_t>(payload.size());
        record.payload = payload.data();
        return client.get_distributor(0, 0)->distribute_frame(&record);
    });
}

void subscribe(const std::string& name, long work_ms, Frame_Log& log) {
    ZAV_SHM_Frame_Subscriber consumer({.name = name,
                                       .producer = "CAM_LOOP",
                                       .overflow = zav_shm::Overflow_Policy::drop_oldest,
                                       .center_wait = 0ms});
    static_cast<void>(consumer.open());
    zav_shm::Received_Frame frame;
    while (!ends) {
        const auto status = consumer.receive(frame, 20ms);
        log.registrations = consumer.counters().recoveries;
        if (status != zav_shm::Receive_Status::frame) {
            continue;
        }
        if (!is_right(frame)) {
            ++(frame.verified ? log.wrong : log.wrong_unverified);
        }
        const Identity identity = identity_of(frame.payload());
        log.add({frame.received_ns, identity.epoch, identity.sequence,
                 frame.before.lost() + frame.before.dropped + frame.before.skipped, 0,
                 waited_for_processor_ns()});
        std::this_thread::sleep_for(std::chrono::milliseconds(work_ms));
    }
}

void consume_by_fixed_interface(const std::string& name, Frame_Log& log) {
    ZAV_SHM_CLIENT_RECEIVER client(name, "CAM_LOOP");
    std::vector<std::byte> room(page_bytes);
    STREAM_FRAME_FORMAT record{};
    record.payload = room.data();
    while (!ends) {
        if (!client.get_receiver(0, 0)->receive_frame(&record)) {
            continue;
        }
        const auto payload = std::span<const std::byte>(room).first(
            std::min<std::size_t>(record.payload_length, room.size()));
        log.wrong_unverified += is_right(payload) ? 0U : 1U;
        const Identity identity = identity_of(payload);
        log.add({zav_shm::monotonic_ns(), identity.epoch, identity.sequence, 0, 0,
                 waited_for_processor_ns()});
    }
}

}  // namespace

int main(int argc, char** argv) {
    const std::string role = argc > 1 ? argv[1] : "";
    const std::map<std::string, int> words{
        {"producer", 5}, {"subscriber", 5}, {"fixed_producer", 4}, {"fixed_consumer", 4}};
    const auto found = words.find(role);
    if (found == words.end() || argc != found->second) {
        std::fputs(
            "usage: zav_test_role producer FPS HISTORY_BYTES LOG |\n"
            "                     subscriber NAME WORK_MS LOG |\n"
            "                     fixed_producer FPS LOG | fixed_consumer NAME LOG\n",
            stderr);
        return EXIT_FAILURE;
    }
    end_at_sigterm();
    Frame_Log* const log = map_frame_log(argv[argc - 1]);
    if (log == nullptr) {
        return EXIT_FAILURE;
    }
    if (role.starts_with("fixed") && std::freopen("/dev/null", "w", stdout) == nullptr) {
        return EXIT_FAILURE;  // nobody reads what those classes print
    }
    if (role == "producer") {
        produce(std::strtol(argv[2], nullptr, 10), std::strtoul(argv[3], nullptr, 10), *log);
    } else if (role == "subscriber") {
        subscribe(argv[2], std::strtol(argv[3], nullptr, 10), *log);
    } else if (role == "fixed_producer") {
        produce_by_fixed_interface(std::strtol(argv[2], nullptr, 10), *log);
    } else {
        consume_by_fixed_interface(argv[2], *log);
    }
    return EXIT_SUCCESS;
}
