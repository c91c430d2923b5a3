// SPDX-License-Identifier: Apache-2.0
//
// Frames from producer processes to consumer processes, whose channels were set up by a center
// process. Producers offer a frame every 10 ms.
#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <mutex>
#include <thread>
#include <utility>

#include "center_process.h"
#include "frame_tally.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr int period_ms = 10;

// Two producers and two consumers of one channel.
const char* const two_pairs = R"({
    "Stream": [{"index": 0, "page_size": 4096}],
    "Distributor": [{"name": "CAM_LOOP", "channel": 1, "stream": [0]},
                    {"name": "CAM_REC", "channel": 1, "stream": [0]}],
    "Receiver": [{"name": "PLAYER", "channel": 1, "stream": [0]},
                 {"name": "RECODER", "channel": 1, "stream": [0]}]
})";
constexpr int relays = 2;

class Frames_Through_Center : public Center_Process {
protected:
    void SetUp() override {
        Center_Process::SetUp();
        ASSERT_TRUE(start_center(two_pairs));
    }

    std::string register_consumer(const std::string& name) const {
        return client.ask(R"({"command":"register","type":"Receiver","name":")" + name +
                          R"(","pair_name":"CAM_LOOP"})");
    }

    static void expect_all_frames(Child_Process& consumer, int count) {
        EXPECT_EQ(consumer.read_rest(seconds(120)),
                  "right=" + std::to_string(count) + " wrong=0 disordered=0 left=success\n");
    }

    // Consumers that relays serve: each is an empty line more in the relays' section.
    int paired_consumers() {
        client.send(R"({"command":"query_status"})");
        int empty_lines = 0;
        bool among_relays = false;
        std::optional<std::string> line = center->read_line();
        for (; line && line != "======== Receiver ======="; line = center->read_line()) {
            empty_lines += among_relays && line->empty() ? 1 : 0;
            among_relays = among_relays || line == "======== Transmission ========";
        }
        while (line && !line->empty()) {
            line = center->read_line();
        }
        return empty_lines - 2 * relays;
    }

    // The line comes before the switch; an answer to the next request comes after it.
    void switch_kicking_on() {
        client.send(R"({"command":"kick_idle","enable":true})");
        EXPECT_EQ(center->read_line(), "In SHM_CENTER_KICK_IDLE execute, 1");
        client.ask(R"({"command":"deregister","type":"Distributor"})");
    }

    void kick() {
        center->signal(SIGUSR1);
        EXPECT_EQ(center->read_line(), "kicked");
    }
};

TEST_F(Frames_Through_Center, two_hundred_arrive_with_every_byte_right) {
    const auto producer = start_ready_client({"producer", "CAM_LOOP", "1"});
    auto consumer = start_ready_client({"consumer", "PLAYER", "CAM_LOOP", "200"});
    expect_all_frames(consumer, 200);
    EXPECT_EQ(paired_consumers(), 0);
}

TEST_F(Frames_Through_Center, consumer_may_register_before_its_producer) {
    auto consumer = start_ready_client({"consumer", "PLAYER", "CAM_LOOP", "50"});
    const auto producer = start_ready_client({"producer", "CAM_LOOP", "1"});
    expect_all_frames(consumer, 50);
}

TEST_F(Frames_Through_Center, two_consumers_of_one_producer_get_them) {
    const auto producer = start_ready_client({"producer", "CAM_LOOP", "1"});
    auto player = start_ready_client({"consumer", "PLAYER", "CAM_LOOP", "100"});
    auto recorder = start_ready_client({"consumer", "RECODER", "CAM_LOOP", "100"});
    expect_all_frames(player, 100);
    expect_all_frames(recorder, 100);
}

TEST_F(Frames_Through_Center, killed_producer_that_registers_again_is_heard_again) {
    start_ready_client({"producer", "CAM_LOOP", "1"}).kill();
    auto consumer = start_ready_client({"consumer", "PLAYER", "CAM_LOOP", "50"});
    const auto producer = start_ready_client({"producer", "CAM_LOOP", "1"});
    expect_all_frames(consumer, 50);
}

TEST_F(Frames_Through_Center, center_that_was_killed_is_replaced_and_clients_register_again) {
    for (int i = 0; i < 2; ++i) {
        const auto producer = start_ready_client({"producer", "CAM_LOOP", "1"});
        auto consumer = start_ready_client({"consumer", "PLAYER", "CAM_LOOP", "100000"});
        center->kill();
        ASSERT_TRUE(start_center(two_pairs));
    }
    const auto producer = start_ready_client({"producer", "CAM_LOOP", "1"});
    auto consumer = start_ready_client({"consumer", "PLAYER", "CAM_LOOP", "100"});
    expect_all_frames(consumer, 100);
}

// ---- another producer while reading ----

struct Reader_Count {
    Frame_Tally frames{period_ms};
    int of_source[3] = {};
};

// A consumer in this process that takes frames all the time.
class Reader {
public:
    using Count = Reader_Count;

    explicit Reader(const std::string& reply)
        : channel_(reply, Raw_Channel::Side::consumer), reading_([this] { read(); }) {}
    ~Reader() {
        stopping_ = true;
        reading_.join();
    }
    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;

    // The reader goes over to this segment before its next frame, and counts anew from there.
    void use_segment_of(const std::string& reply) {
        const std::lock_guard guard(lock_);
        next_segment_ = reply;
        count_.reset();
    }

    // What it has got, once so many frames were right.
    Count count_of(int frames) {
        becomes_true(
            [&] {
                const std::lock_guard guard(lock_);
                return count_ && count_->frames.right >= frames;
            },
            seconds(60));
        const std::lock_guard guard(lock_);
        return count_.value_or(Count());
    }

private:
    void read() {
        while (!stopping_) {
            change_segment();
            if (const auto frame = channel_.take()) {
                count(*frame);
            }
        }
    }

    void change_segment() {
        const std::lock_guard guard(lock_);
        if (!next_segment_.empty()) {
            EXPECT_TRUE(channel_.use_segment_of(std::exchange(next_segment_, {})));
            count_.emplace();
        }
    }

    // A frame that was taken while the change was ordered belongs to neither count.
    void count(const Raw_Channel::Frame& frame) {
        const std::lock_guard guard(lock_);
        if (count_) {
            count_->frames.add(frame);
            ++count_->of_source[std::min<int>(frame.source, 2)];
        }
    }

    Raw_Channel channel_;  // the reading thread's
    std::mutex lock_;      // guards the next two
    std::optional<Count> count_{std::in_place};
    std::string next_segment_;
    std::atomic<bool> stopping_{false};
    std::thread reading_;
};

TEST_F(Frames_Through_Center, consumer_that_is_paired_anew_while_it_reads_sees_the_other_producer) {
    const auto first = start_ready_client({"producer", "CAM_LOOP", "1"});
    const auto second = start_ready_client({"producer", "CAM_REC", "2"});
    Reader reader(register_consumer("PLAYER"));
    const auto before = reader.count_of(50);
    EXPECT_GE(before.of_source[1], 50);
    EXPECT_EQ(before.of_source[2], 0);
    for (const int source : {2, 1, 2}) {
        const std::string reply =
            client.ask(R"({"command":"pair_src","type":"Receiver","name":"PLAYER","pair_name":")" +
                       std::string(source == 1 ? "CAM_LOOP" : "CAM_REC") + "\"}");
        reader.use_segment_of(reply);
        const auto after = reader.count_of(50);
        EXPECT_GE(after.of_source[source], 50);
        EXPECT_EQ(after.of_source[3 - source], 0);
        EXPECT_EQ(after.frames.wrong, 0);
    }
    EXPECT_EQ(paired_consumers(), 1);
}

// ---- idle consumers ----

TEST_F(Frames_Through_Center, stopped_consumer_is_unpaired_once_kicking_is_on) {
    const auto producer = start_ready_client({"producer", "CAM_LOOP", "1"});
    const auto consumer = start_ready_client({"consumer", "PLAYER", "CAM_LOOP", "100000"});
    consumer.signal(SIGSTOP);
    std::this_thread::sleep_for(seconds(1));  // some 30 of the relay's waits
    kick();
    EXPECT_EQ(paired_consumers(), 1);
    switch_kicking_on();
    kick();
    EXPECT_EQ(paired_consumers(), 0);
}

// A reader that is kept from the processor for 175 ms is idle; so a second try is granted.
TEST_F(Frames_Through_Center, consumer_that_takes_frames_is_not_unpaired) {
    switch_kicking_on();
    const auto producer = start_ready_client({"producer", "CAM_LOOP", "1"});
    const auto stays_paired = [this] {
        Reader reader(register_consumer("PLAYER"));
        for (int i = 1; i <= 10; ++i) {
            reader.count_of(10 * i);
            kick();
        }
        return paired_consumers() == 1;
    };
    EXPECT_TRUE(stays_paired() || stays_paired());
}

// ---- commands beside a busy relay ----

// The relay keeps its list through the waits of a cycle, some 10 ms here, and lets a command in
// between two of them.
TEST_F(Frames_Through_Center, consumer_leaves_a_busy_relay_within_about_a_cycle) {
    const auto producer = start_ready_client({"producer", "CAM_LOOP", "1"});
    Reader reader(register_consumer("PLAYER"));
    ASSERT_GE(reader.count_of(20).frames.right, 20);
    std::vector<milliseconds> times;
    for (int i = 0; i < 15; ++i) {
        register_consumer("RECODER");
        const Stopwatch watch;
        const std::string reply =
            client.ask(R"({"command":"deregister","type":"Receiver","name":"RECODER"})");
        times.push_back(watch.elapsed());
        EXPECT_EQ(field_of(reply, "status"), "success");
        EXPECT_LT(times.back(), seconds(2));
    }
    std::sort(times.begin(), times.end());
    std::printf("left after %ld ms in the median, %ld ms at most\n",
                static_cast<long>(times[times.size() / 2].count()),
                static_cast<long>(times.back().count()));
}

}  // namespace
