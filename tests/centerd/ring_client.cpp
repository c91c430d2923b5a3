// SPDX-License-Identifier: Apache-2.0
//
// zav_test_ring_client publish NAME HISTORY
// zav_test_ring_client subscribe NAME PRODUCER   (NAME "-": a tap)
// zav_test_ring_client ask PRODUCER
//
// A client of the safe layer on channel 0, stream 0, as a process of its own. It prints a line once
// it is open, and, at SIGTERM, another one of what it did. A publisher publishes 100 frames a
// second; a subscriber counts frames by their sequence, and takes what is left before it ends. The
// last one asks the publisher for a key frame, and a publisher prints that it was asked.
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "frame/frame_publisher.h"
#include "frame/frame_subscriber.h"

using namespace std::chrono_literals;

namespace {

std::atomic<bool> ends{false};

void tell(const std::string& line) {
    std::puts(line.c_str());
    std::fflush(stdout);
}

int publish(const std::string& name, std::size_t history) {
    ZAV_SHM_Frame_Publisher publisher({.name = name, .history_bytes = history});
    const auto opened = publisher.open();
    tell(opened ? "ready" : opened.reason);
    const std::vector<std::byte> payload(500);
    auto next = std::chrono::steady_clock::now();
    std::uint64_t published = 0;
    while (!ends) {
        published += publisher.publish(payload).published() ? 1U : 0U;
        if (publisher.key_frame_requested()) {
            tell("asked for a key frame");
        }
        next += 10ms;
        std::this_thread::sleep_until(next);
    }
    const auto counters = publisher.counters();
    tell("published=" + std::to_string(published) +
         " not=" + std::to_string(counters.frames - published) +
         " recoveries=" + std::to_string(counters.recoveries));
    return 0;
}

int subscribe(const std::string& name, const std::string& producer) {
    ZAV_SHM_Frame_Subscriber subscriber({.name = name == "-" ? "" : name,
                                         .producer = producer,
                                         .overflow = zav_shm::Overflow_Policy::drop_oldest});
    const auto opened = subscriber.open();
    tell(opened ? "ready" : opened.reason);
    zav_shm::Received_Frame frame;
    std::uint64_t received = 0;
    std::uint64_t missing = 0;
    std::uint64_t last = 0;
    for (;;) {
        const bool last_look = ends;
        if (subscriber.receive(frame, last_look ? 0ms : 100ms) == zav_shm::Receive_Status::frame) {
            if (received == 0) {
                tell("first");
            }
            ++received;
            missing += last != 0 ? frame.header.sequence - last - 1 : 0;
            last = frame.header.sequence;
        } else if (last_look) {
            break;
        }
    }
    const auto counters = subscriber.counters();
    tell("received=" + std::to_string(received) + " missing=" + std::to_string(missing) +
         " lost=" + std::to_string(counters.lost()) + " last=" + std::to_string(last) +
         " recoveries=" + std::to_string(counters.recoveries));
    return 0;
}

int ask(const std::string& producer) {
    ZAV_SHM_Frame_Subscriber subscriber({.producer = producer});
    zav_shm::Received_Frame frame;
    const bool reads =
        subscriber.open() && subscriber.receive(frame, 5s) == zav_shm::Receive_Status::frame;
    tell(reads && subscriber.request_key_frame() ? "asked" : "no right to");
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    struct sigaction action {};
    action.sa_handler = [](int) { ends = true; };
    sigaction(SIGTERM, &action, nullptr);
    const std::string role = argc > 2 ? argv[1] : "";
    if (role == "publish" && argc == 4) {
        return publish(argv[2], std::strtoul(argv[3], nullptr, 10));
    }
    if (role == "subscribe" && argc == 4) {
        return subscribe(argv[2], argv[3]);
    }
    return role == "ask" ? ask(argv[2]) : 2;
}
