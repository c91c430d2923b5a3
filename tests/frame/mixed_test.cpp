// SPDX-License-Identifier: Apache-2.0
//
// Publishers and subscribers beside producers and consumers of the fixed interface.
#include <algorithm>
#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <numeric>
#include <set>
#include <thread>
#include <vector>

#include "frame/link/link_keeper.h"
#include "frames_fixture.h"
#include "ipc/monotonic_clock.h"
#include "stream/zav_stream_processor.h"
#include "support/channel.h"

using namespace std::chrono_literals;
using zav_shm::Frame_State;
using zav_shm::Receive_Status;
using zav_shm::Received_Frame;

namespace {

class Mixed : public Frames {
protected:
    void SetUp() override {
        Frames::SetUp();
        IPC_SHMEMORY::set_root_path("/dev/shm");
    }

    template <class Endpoint>
    std::unique_ptr<Endpoint> join(const std::string& request) const {
        const std::string reply =
            other_process.ask(R"({"command":"register","channel":0,"stream":0,)" + request + "}");
        EXPECT_EQ(field_of(reply, "status"), "success") << reply;
        return std::make_unique<Endpoint>(
            field_of(reply, "shm_path"), field_of(reply, "sem_path_src"),
            field_of(reply, "sem_path_dst"), field_of(reply, "sem_path_exist"));
    }

    std::unique_ptr<ZAV_SHM_Stream_Distributor> fixed_producer() const {
        return join<ZAV_SHM_Stream_Distributor>(R"("type":"Distributor","name":"CAM_LOOP")");
    }
    std::unique_ptr<ZAV_SHM_Stream_Receiver> fixed_consumer(
        const char* name = "REMOTE_LOOP") const {
        return join<ZAV_SHM_Stream_Receiver>(
            R"("type":"Receiver","pair_name":"CAM_LOOP","name":")" + std::string(name) + "\"");
    }

    // Replies come by the process: the library's threads in this one take what is for it.
    const Raw_Client other_process{getppid()};

    int relayed() const {
        return center->manager()
            ->get_transmission(Shm_Stream_Transmission_Index{"CAM_LOOP", 0, 0})
            ->get_distributor_num();
    }
};

/// Calls receive_frame() in a loop, as consumers of the fixed interface do.
class Fixed_Reader {
public:
    explicit Fixed_Reader(std::unique_ptr<ZAV_SHM_Stream_Receiver> end) : end_(std::move(end)) {
        thread_ = std::thread([this] {
            std::vector<std::byte> room(8192);
            STREAM_FRAME_FORMAT record{};
            record.payload = room.data();
            while (!ends_) {
                if (end_->receive_frame(&record)) {
                    ZAV_SHM_Frame_Header header;
                    std::memcpy(&header, &record, sizeof header);
                    last_ = header.sequence;
                    length_ = record.payload_length;
                    const auto payload = std::span(room).first(record.payload_length);
                    wrong_ += std::all_of(payload.begin(), payload.end(),
                                          [&](std::byte each) { return each == room.front(); })
                                  ? 0
                                  : 1;
                    ++frames_;
                }
            }
        });
    }
    ~Fixed_Reader() {
        ends_ = true;
        thread_.join();
    }
    Fixed_Reader(const Fixed_Reader&) = delete;
    Fixed_Reader& operator=(const Fixed_Reader&) = delete;

    std::uint64_t frames() const { return frames_; }
    std::uint64_t last() const { return last_; }
    std::uint32_t length() const { return length_; }
    int wrong() const { return wrong_; }

private:
    std::unique_ptr<ZAV_SHM_Stream_Receiver> end_;
    std::thread thread_;
    std::atomic<bool> ends_{false};
    std::atomic<std::uint64_t> frames_{0};
    std::atomic<std::uint64_t> last_{0};
    std::atomic<std::uint32_t> length_{0};
    std::atomic<int> wrong_{0};
};

/// Calls distribute_frame() in a loop, as producers of the fixed interface do, without a header.
class Fixed_Writer {
public:
    explicit Fixed_Writer(std::unique_ptr<ZAV_SHM_Stream_Distributor> end,
                          std::chrono::milliseconds interval = 10ms)
        : end_(std::move(end)) {
        thread_ = std::thread([this, interval] {
            for (int i = 0; !ends_; ++i) {
                Frame frame(static_cast<std::size_t>(100 + i % 50), 0);
                std::memset(frame.get(), 0, 128);
                frame->payload_length = static_cast<std::uint32_t>(frame.payload().size());
                std::fill(frame.payload().begin(), frame.payload().end(),
                          static_cast<unsigned char>(i));
                taken_ += end_->distribute_frame(frame.get()) ? 1 : 0;
                ++offered_;
                std::this_thread::sleep_for(interval);
            }
        });
    }
    ~Fixed_Writer() {
        ends_ = true;
        thread_.join();
    }
    Fixed_Writer(const Fixed_Writer&) = delete;
    Fixed_Writer& operator=(const Fixed_Writer&) = delete;

    int taken() const { return taken_; }
    int offered() const { return offered_; }

private:
    std::unique_ptr<ZAV_SHM_Stream_Distributor> end_;
    std::thread thread_;
    std::atomic<bool> ends_{false};
    std::atomic<int> taken_{0};
    std::atomic<int> offered_{0};
};

TEST_F(Mixed, consumers_of_the_fixed_interface_are_fed) {
    ZAV_SHM_Frame_Publisher camera({.name = "CAM_LOOP"});
    ASSERT_TRUE(camera.open());
    Fixed_Reader one(fixed_consumer());
    Fixed_Reader two(fixed_consumer("PLAYER"));
    ZAV_SHM_Frame_Subscriber player({.producer = "CAM_LOOP"});
    ASSERT_TRUE(player.open());
    std::size_t received = 0;
    for (int i = 0; i < 100; ++i) {
        ASSERT_TRUE(camera
                        .publish(std::vector<std::byte>(static_cast<std::size_t>(i * 40 + 1),
                                                        static_cast<std::byte>(i)))
                        .published());
        received += numbers_in(player).size();
        std::this_thread::sleep_for(15ms);
    }
    EXPECT_TRUE(becomes_true([&] { return one.last() == 100 && two.last() == 100; }));
    EXPECT_GE(one.frames(), 90U);
    EXPECT_GE(two.frames(), 90U);
    EXPECT_EQ(one.wrong() + two.wrong(), 0);
    EXPECT_GE(camera.counters().slot_frames, 90U);
    EXPECT_EQ(received, 100U) << "beside a subscriber that gets all";
}

TEST_F(Mixed, a_slot_that_could_not_be_had_when_granted_is_fed_later) {
    const std::string slot = "/dev/shm/shm/CAM_LOOP_0_0";
    const std::string aside = slot + ".aside";
    ASSERT_EQ(rename(slot.c_str(), aside.c_str()), 0);
    ZAV_SHM_Frame_Publisher camera({.name = "CAM_LOOP"});
    ASSERT_TRUE(camera.open());
    ASSERT_EQ(rename(aside.c_str(), slot.c_str()), 0);
    Fixed_Reader reader(fixed_consumer());
    EXPECT_TRUE(becomes_true([&] {
        std::ignore = camera.publish(std::vector<std::byte>(100));
        return reader.frames() > 3;
    }));
    EXPECT_EQ(reader.wrong(), 0);
}

TEST_F(Mixed, a_consumer_that_comes_late_gets_what_is_published_then) {
    ZAV_SHM_Frame_Publisher camera({.name = "CAM_LOOP"});
    ASSERT_TRUE(camera.open());
    for (int i = 0; i < 20; ++i) {
        ASSERT_TRUE(camera.publish(payload(10)).published());
    }
    EXPECT_EQ(camera.counters().slot_frames, 0U);
    std::this_thread::sleep_for(30ms);
    {
        Fixed_Reader reader(fixed_consumer());
        std::this_thread::sleep_for(50ms);
        EXPECT_EQ(reader.frames(), 0U) << "nothing old";
        for (int i = 0; i < 20; ++i) {
            ASSERT_TRUE(camera.publish(payload(1)).published());
            std::this_thread::sleep_for(20ms);
        }
        EXPECT_TRUE(becomes_true([&] { return reader.last() == 40; }));
        EXPECT_GE(reader.frames(), 15U);
    }
    const Stopwatch watch;
    for (int i = 0; i < 1000; ++i) {
        ASSERT_TRUE(camera.publish(payload(1)).published());
    }
    EXPECT_LT(watch.elapsed(), 1s) << "a consumer that has gone holds nobody up";
}

TEST_F(Mixed, a_producer_of_the_fixed_interface_is_read_through_its_relay) {
    ZAV_SHM_Frame_Subscriber player({.name = "PLAYER", .producer = "CAM_LOOP"});
    ASSERT_TRUE(player.open());
    Received_Frame frame;
    EXPECT_EQ(player.receive(frame, 50ms), Receive_Status::timeout);
    EXPECT_EQ(relayed(), 0) << "nobody is in a relay for a producer that is not there";
    const Fixed_Writer camera(fixed_producer());
    for (int i = 0; i < 100; ++i) {
        ASSERT_EQ(player.receive(frame, 5s), Receive_Status::frame) << i << player.reason();
        EXPECT_FALSE(frame.verified);
        ASSERT_GE(frame.payload().size(), 100U);
        EXPECT_EQ(frame.payload().front(), frame.payload().back());
        EXPECT_EQ(frame.before.lost(), 0U);
    }
    EXPECT_EQ(relayed(), 1);
    EXPECT_EQ(player.counters().foreign, 100U);
    player.close();
    EXPECT_EQ(relayed(), 0);
}

TEST_F(Mixed, a_second_process_of_one_consumer_is_refused_the_slot) {
    const Fixed_Writer camera(fixed_producer());
    ZAV_SHM_Frame_Subscriber one({.name = "PLAYER", .producer = "CAM_LOOP"});
    ZAV_SHM_Frame_Subscriber two({.name = "PLAYER", .producer = "CAM_LOOP"});
    ASSERT_TRUE(one.open());
    Received_Frame frame;
    ASSERT_EQ(one.receive(frame, 5s), Receive_Status::frame);
    ASSERT_TRUE(two.open());
    EXPECT_TRUE(becomes_true([&] {
        two.receive(frame, 10ms);
        return two.state() == Frame_State::refused;
    }));
    EXPECT_EQ(two.reason(),
              "PLAYER/0/0: PLAYER is fed through its relay to process " + std::to_string(getpid()));
    ASSERT_EQ(one.receive(frame, 5s), Receive_Status::frame);
    one.close();
    EXPECT_TRUE(becomes_true([&] { return two.receive(frame, 100ms) == Receive_Status::frame; }));
}

TEST_F(Mixed, a_producer_that_changes_between_slot_and_ring_is_read_on) {
    ZAV_SHM_Frame_Subscriber player({.name = "PLAYER", .producer = "CAM_LOOP"});
    ASSERT_TRUE(player.open());
    Received_Frame frame;
    for (int round = 0; round < 3; ++round) {
        {
            const Fixed_Writer camera(fixed_producer());
            ASSERT_TRUE(becomes_true([&] {
                return player.receive(frame, 1s) == Receive_Status::frame && !frame.verified;
            })) << round;
        }
        ZAV_SHM_Frame_Publisher camera({.name = "CAM_LOOP"});
        ASSERT_TRUE(camera.open());
        for (int i = 0; i < 10; ++i) {
            ASSERT_TRUE(camera.publish(payload(50, i)).published());
        }
        for (int i = 0; i < 10; ++i) {
            while (player.receive(frame, 5s) == Receive_Status::frame && !frame.verified) {
            }
            ASSERT_TRUE(equal(frame.payload(), payload(50, i))) << round << " " << i;
        }
        EXPECT_TRUE(becomes_true([this] { return relayed() == 0; }));
    }
}

/// Holds up the thread that registers the ends of this process again.
class Slow_End : public zav_shm::Link_Keeper::End {
public:
    std::string watched_folder() const override { return "/shm"; }
    zav_shm::Link_Keeper::Clock::time_point keep(std::chrono::milliseconds) override {
        is_slow_ = true;
        while (is_held) {
            std::this_thread::sleep_for(1ms);
        }
        is_slow_ = false;
        return zav_shm::Link_Keeper::Clock::time_point::max();
    }
    bool is_slow() const { return is_slow_; }

    std::atomic<bool> is_held{false};

private:
    std::atomic<bool> is_slow_{false};
};

// What takes a subscriber out of the relay of a producer that went must not come after what brings
// it into the relay of the one that came: a restarted center hears of a producer a moment later
// than of its subscribers, who lost the frames of 400 ms by that.
TEST_F(Mixed, a_subscriber_stays_in_the_relay_of_a_producer_that_comes_again) {
    const Fixed_Writer camera(fixed_producer());
    ZAV_SHM_Frame_Subscriber player({.name = "PLAYER", .producer = "CAM_LOOP"});
    ASSERT_TRUE(player.open());
    Received_Frame frame;
    ASSERT_EQ(player.receive(frame, 5s), Receive_Status::frame);
    const auto slow = std::make_shared<Slow_End>();
    slow->is_held = true;
    ASSERT_TRUE(zav_shm::Link_Keeper::begin(slow));
    ASSERT_TRUE(becomes_true([&] { return slow->is_slow(); }));
    const std::uint64_t recoveries = player.counters().recoveries;
    const std::string camera_0 =
        R"("type":"Distributor","name":"CAM_LOOP","channel":0,"stream":0})";
    ASSERT_EQ(field_of(client.ask(R"({"command":"deregister",)" + camera_0), "status"), "success");
    while (player.receive(frame, 150ms) == Receive_Status::frame) {
    }
    ASSERT_EQ(field_of(client.ask(R"({"command":"register",)" + camera_0), "status"), "success");
    player.receive(frame, 200ms);
    slow->is_held = false;
    const Stopwatch watch;
    int frames = 0;
    while (watch.elapsed() < 1s) {
        frames += player.receive(frame, 50ms) == Receive_Status::frame ? 1 : 0;
    }
    zav_shm::Link_Keeper::end(slow);
    EXPECT_GT(frames, 0);
    EXPECT_EQ(relayed(), 1);
    EXPECT_EQ(player.counters().recoveries, recoveries + 1) << "the one out of the relay";
}

// What the feeder puts into the slot before the subscriber has gone over to the ring is in the
// ring, too.
TEST_F(Mixed, frames_come_once_while_a_producer_changes_from_slot_to_ring) {
    ZAV_SHM_Frame_Subscriber player({.name = "PLAYER", .producer = "CAM_LOOP"});
    ASSERT_TRUE(player.open());
    std::atomic<bool> sees_slot{false};
    std::atomic<std::uint64_t> sees_last{0};  // epoch of the publisher whose last frame has come
    std::map<std::uint64_t, std::vector<std::uint64_t>> sequences;  // by epoch
    std::thread reading([&] {
        Received_Frame frame;
        for (auto got = Receive_Status::frame; got != Receive_Status::closed;) {
            got = player.receive(frame, 1s);
            if (got == Receive_Status::frame && frame.verified) {
                sequences[frame.header.epoch].push_back(frame.header.sequence);
                sees_last = frame.header.sequence == 30 ? frame.header.epoch : sees_last.load();
            } else if (got == Receive_Status::frame) {
                sees_slot = true;
            }
        }
    });
    std::vector<std::uint64_t> expected(30);
    std::iota(expected.begin(), expected.end(), 1U);
    std::set<std::uint64_t> epochs;
    for (int round = 0; round < 6; ++round) {
        {
            const Fixed_Writer camera(fixed_producer());
            sees_slot = false;
            EXPECT_TRUE(becomes_true([&] { return sees_slot.load(); })) << round;
        }
        ZAV_SHM_Frame_Publisher camera({.name = "CAM_LOOP", .history_bytes = 100'000});
        EXPECT_TRUE(camera.open());
        epochs.insert(camera.epoch());
        for (std::size_t i = 0; i < expected.size(); ++i) {
            EXPECT_TRUE(camera.publish(payload(50)).published());
            std::this_thread::sleep_for(3ms);
        }
        EXPECT_TRUE(becomes_true([&] { return sees_last == camera.epoch(); })) << round;
        std::this_thread::sleep_for(100ms);  // for what should not come
    }
    player.close();
    reading.join();
    ASSERT_EQ(sequences.size(), epochs.size());
    for (const auto& [epoch, of_epoch] : sequences) {
        EXPECT_EQ(of_epoch, expected);
    }
}

TEST_F(Mixed, a_subscriber_is_paired_from_a_ring_to_a_slot_and_back) {
    const Fixed_Writer fixed(fixed_producer());
    ZAV_SHM_Frame_Publisher recorded({.name = "CAM_REC"});
    ASSERT_TRUE(recorded.open());
    ZAV_SHM_Frame_Subscriber player({.name = "PLAYER", .producer = "CAM_REC"});
    ASSERT_TRUE(player.open());
    Received_Frame frame;
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(recorded.publish(payload(10, i)).published());
        ASSERT_EQ(player.receive(frame, 1s), Receive_Status::frame);
        EXPECT_TRUE(frame.verified);
        ASSERT_TRUE(player.pair("CAM_LOOP"));
        ASSERT_EQ(player.receive(frame, 5s), Receive_Status::frame);
        EXPECT_FALSE(frame.verified);
        ASSERT_TRUE(player.pair("CAM_REC"));
    }
    EXPECT_TRUE(becomes_true([this] { return relayed() == 0; }));
}

// With nobody of the fixed interface there, and a producer that is silent, nobody wakes up.
TEST_F(Mixed, idle_ends_wake_up_once_a_second_at_most) {
    ZAV_SHM_Frame_Publisher camera({.name = "CAM_LOOP"});
    ZAV_SHM_Frame_Subscriber player({.name = "PLAYER", .producer = "CAM_LOOP"});
    ASSERT_TRUE(camera.open());
    ASSERT_TRUE(player.open());
    Received_Frame frame;
    std::thread waiting([&] { player.receive(frame, 3s); });
    std::this_thread::sleep_for(500ms);
    const auto switches = [](const char* thread) {
        long sum = 0;
        for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
            std::ifstream name(task.path() / "comm");
            std::string text;
            std::getline(name, text);
            if (text != thread) {
                continue;
            }
            std::ifstream status(task.path() / "status");
            for (std::string line; std::getline(status, line);) {
                if (line.starts_with("voluntary_ctxt_switches:")) {
                    sum += std::stol(line.substr(line.find(':') + 1));
                }
            }
        }
        return sum;
    };
    const long feeder = switches("zav_feeder");
    const long link = switches("zav_link");
    const long relays = switches("zav_relay");
    std::this_thread::sleep_for(2s);
    EXPECT_LE(switches("zav_feeder") - feeder, 3);
    EXPECT_LE(switches("zav_link") - link, 3) << "this center has no page";
    const long relay_count = static_cast<long>(center->manager()->snapshot().size());
    EXPECT_GT(relay_count, 0);
    // A wake-up that meets a lock sleeps twice. Relays that are not idle sleep 200 times a second.
    EXPECT_LE(switches("zav_relay") - relays, 6 * relay_count);
    player.close();
    waiting.join();
}

}  // namespace
