// SPDX-License-Identifier: Apache-2.0
//
// A center, producers and consumers as processes of their own, which use the library from
// registration to farewell.
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <map>
#include <sstream>

#include "../center/center_process.h"

namespace {

using std::chrono::seconds;
using Report = std::map<std::string, long>;

// Two streams of the size that the frames' pattern fills.
const char* const configuration = R"({
    "Stream": [{"index": 0, "page_size": 65536}, {"index": 1, "page_size": 65536}],
    "Distributor": [{"name": "CAM_LOOP", "channel": 1, "stream": [0, 1]},
                    {"name": "CAM_REC", "channel": 1, "stream": [0, 1]}],
    "Receiver": [{"name": "PLAYER", "channel": 1, "stream": [0, 1]},
                 {"name": "RECODER", "channel": 1, "stream": [0, 1]}]
})";

Report report_in(const std::string& line) {
    Report report;
    std::istringstream words(line);
    for (std::string word; words >> word;) {
        const std::size_t equals = word.find('=');
        if (equals != std::string::npos) {
            report[word.substr(0, equals)] = std::stol(word.substr(equals + 1));
        }
    }
    return report;
}

class Client_Exchange : public Center_Process {
protected:
    void SetUp() override {
        Center_Process::SetUp();
        ASSERT_TRUE(start_center(configuration));
    }

    static Report report_of(Child_Process& client) {
        const std::string line = client.read_line().value_or("nothing");
        std::printf("%s\n", line.c_str());
        return report_in(line);
    }

    static void expect_left(Child_Process& client) {
        EXPECT_EQ(client.read_line(), "left");
        EXPECT_EQ(client.wait(), 0);
    }

    static void expect_all_right(Child_Process& consumer, int count) {
        Report report = report_of(consumer);
        EXPECT_EQ(report["right"], count);
        EXPECT_EQ(report["wrong"], 0);
        expect_left(consumer);
    }

    // A producer that a consumer has moved away from has perhaps found itself alone.
    static void end(Child_Process& producer) {
        producer.signal(SIGTERM);
        std::optional<std::string> line = producer.read_line();
        for (; line == "alone"; line = producer.read_line()) {
        }
        EXPECT_EQ(line, "left");
        EXPECT_EQ(producer.wait(), 0);
    }
};

TEST_F(Client_Exchange, two_consumers_get_every_byte_and_leave_their_producer_alone) {
    auto producer = start_ready_client({"producer", "CAM_LOOP", "1"});
    auto player = start_ready_client({"consumer", "PLAYER", "CAM_LOOP", "150"});
    auto recorder = start_ready_client({"consumer", "RECODER", "CAM_LOOP", "150"});
    expect_all_right(player, 150);
    expect_all_right(recorder, 150);
    EXPECT_EQ(producer.read_line(), "alone");
    end(producer);
}

TEST_F(Client_Exchange, clients_that_left_come_back) {
    for (int round = 0; round < 3; ++round) {
        auto producer = start_ready_client({"producer", "CAM_LOOP", "1"});
        auto player = start_ready_client({"consumer", "PLAYER", "CAM_LOOP", "30"});
        expect_all_right(player, 30);
        end(producer);
    }
}

TEST_F(Client_Exchange, killed_consumer_registers_again_under_its_name) {
    auto producer = start_ready_client({"producer", "CAM_LOOP", "1"});
    start_ready_client({"consumer", "PLAYER", "CAM_LOOP", "100000"}).kill();
    auto player = start_ready_client({"consumer", "PLAYER", "CAM_LOOP", "50"});
    expect_all_right(player, 50);
    end(producer);
}

// A wake-up that is lost at a move makes every later wait run to its end, and costs some 40 % of
// the frames; two seconds have 100.
TEST_F(Client_Exchange, consumer_that_moves_while_it_reads_is_at_full_rate_at_once) {
    constexpr int moves = 6;
    auto first = start_ready_client({"producer", "CAM_LOOP", "1"});
    auto second = start_ready_client({"producer", "CAM_REC", "10000001"});
    auto player =
        start_ready_client({"mover", "PLAYER", "CAM_LOOP", "CAM_REC", std::to_string(moves)});
    std::vector<long> back_ms;
    std::vector<long> frames;
    for (int i = 0; i < moves; ++i) {
        Report move = report_of(player);
        EXPECT_EQ(move["others"], 0);
        EXPECT_EQ(move["wrong"], 0);
        EXPECT_LT(move["back_ms"], 1500);
        back_ms.push_back(move["back_ms"]);
        frames.push_back(move["frames"]);
    }
    std::sort(back_ms.begin(), back_ms.end());
    std::sort(frames.begin(), frames.end());
    std::printf("rate back after %ld ms in the median, %ld ms at most; %ld of 100 frames\n",
                back_ms[moves / 2], back_ms.back(), frames[moves / 2]);
    EXPECT_LE(back_ms[moves / 2], 200);
    EXPECT_GE(frames[moves / 2], 90);
    expect_left(player);
    end(second);
    end(first);
}

TEST_F(Client_Exchange, consumer_switches_between_main_and_sub_stream) {
    auto producer = start_ready_client({"producer", "CAM_LOOP", "1"});
    auto player = start_ready_client({"dual", "PLAYER", "CAM_LOOP"});
    for (int reading = 0; reading < 3; ++reading) {
        Report report = report_of(player);
        EXPECT_GE(report["right"], 45);
        EXPECT_EQ(report["wrong"], 0);
        EXPECT_EQ(report["foreign"], 0);
    }
    expect_left(player);
    end(producer);
}

}  // namespace
