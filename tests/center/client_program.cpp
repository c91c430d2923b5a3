// SPDX-License-Identifier: Apache-2.0
//
// zav_test_client ROLE ...: the clients of a center as processes, without code of the library.
//
//   producer NAME SOURCE         registers channel 0, stream 0, prints "ready", and offers a
//                                frame every 10 ms until it is killed
//   consumer NAME PRODUCER COUNT registers, prints "ready", takes frames until COUNT were right
//                                or 60 s are over, deregisters and prints what it got
//   asker COUNT                  asks COUNT different things and prints how many replies were its
//   leaver COUNT                 asks COUNT times and leaves without taking a reply
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "frame_tally.h"
#include "raw_channel.h"
#include "support/raw_client.h"

namespace {

using Arguments = std::vector<std::string>;

constexpr int period_ms = 10;

void print_ready() {
    std::puts("ready");
    std::fflush(stdout);
}

int produce(const Arguments& arguments) {
    const std::string reply = Raw_Client().ask(
        R"({"command":"register","type":"Distributor","channel":0,"stream":0,"name":")" +
        arguments[1] + "\"}");
    Raw_Channel channel(reply, Raw_Channel::Side::producer);
    if (!channel.is_open()) {
        return EXIT_FAILURE;
    }
    print_ready();
    const auto source = static_cast<std::uint8_t>(std::stoi(arguments[2]));
    auto due = std::chrono::steady_clock::now();
    for (std::uint64_t number = 1;;) {
        number += channel.send(number, source) ? 1U : 0U;
        due += std::chrono::milliseconds(period_ms);
        std::this_thread::sleep_until(due);
    }
}

int consume(const Arguments& arguments) {
    const std::string end =
        R"("type":"Receiver","channel":0,"stream":0,"name":")" + arguments[1] + "\"";
    const Raw_Client client;
    const std::string reply =
        client.ask(R"({"command":"register","pair_name":")" + arguments[2] + "\"," + end + "}");
    Raw_Channel channel(reply, Raw_Channel::Side::consumer);
    if (!channel.is_open()) {
        return EXIT_FAILURE;
    }
    print_ready();
    Frame_Tally tally(period_ms);
    const auto over = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (tally.right < std::stoi(arguments[3]) && std::chrono::steady_clock::now() < over) {
        if (const auto frame = channel.take()) {
            tally.add(*frame);
        }
    }
    const std::string farewell = client.ask(R"({"command":"deregister",)" + end + "}");
    std::printf("right=%d wrong=%d disordered=%d left=%s\n", tally.right, tally.wrong,
                tally.disordered, field_of(farewell, "status").c_str());
    return EXIT_SUCCESS;
}

int ask(const Arguments& arguments) {
    const Raw_Client client;
    const int count = std::stoi(arguments[1]);
    int mine = 0;
    for (int i = 0; i < count; ++i) {
        const std::string type = "of " + std::to_string(client.pid()) + ", " + std::to_string(i);
        const std::string reply = client.ask(R"({"command":"query_shm","type":")" + type + "\"}");
        mine += field_of(reply, "reason") == "Invalid Type " + type ? 1 : 0;
    }
    const bool another =
        Raw_Queue::of_replies().take(client.pid(), std::chrono::milliseconds(0)).has_value();
    std::printf("mine=%d another=%d\n", mine, another ? 1 : 0);
    return EXIT_SUCCESS;
}

int leave(const Arguments& arguments) {
    const Raw_Client client;
    for (int i = std::stoi(arguments[1]); i > 0; --i) {
        client.send_signed(R"({"command":"query_shm","type":")" + std::string(430, 'x') + "\"}");
    }
    return EXIT_SUCCESS;
}

}  // namespace

int main(int argc, char** argv) {
    const Arguments arguments(argv + 1, argv + argc);
    const std::string role = arguments.empty() ? "" : arguments[0];
    if (role == "producer" && arguments.size() == 3) {
        return produce(arguments);
    }
    if (role == "consumer" && arguments.size() == 4) {
        return consume(arguments);
    }
    if (role == "asker" && arguments.size() == 2) {
        return ask(arguments);
    }
    if (role == "leaver" && arguments.size() == 2) {
        return leave(arguments);
    }
    std::fputs(
        "usage: producer NAME SOURCE | consumer NAME PRODUCER COUNT | asker COUNT | leaver COUNT\n",
        stderr);
    return EXIT_FAILURE;
}
