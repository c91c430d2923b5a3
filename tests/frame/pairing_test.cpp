// SPDX-License-Identifier: Apache-2.0
//
// Who feeds whom: pairing by the consumer itself and by others, at a center that answers and at one
// that does not.
#include <atomic>
#include <memory>
#include <thread>

#include "control/route_page.h"
#include "frames_fixture.h"
#include "ipc/monotonic_clock.h"

using namespace std::chrono_literals;
using zav_shm::Frame_State;
using zav_shm::Receive_Status;
using zav_shm::Received_Frame;

namespace {

constexpr std::int64_t ms = 1'000'000;

/// Publishes frames until it is destroyed.
class Running_Camera {
public:
    explicit Running_Camera(const char* name, std::chrono::milliseconds interval = 5ms)
        : publisher_({.name = name}) {
        EXPECT_TRUE(publisher_.open());
        thread_ = std::thread([this, interval] {
            while (!ends_) {
                publisher_.publish({});
                std::this_thread::sleep_for(interval);
            }
        });
    }
    ~Running_Camera() {
        ends_ = true;
        thread_.join();
    }
    Running_Camera(const Running_Camera&) = delete;
    Running_Camera& operator=(const Running_Camera&) = delete;

    std::uint64_t epoch() const { return publisher_.epoch(); }

private:
    ZAV_SHM_Frame_Publisher publisher_;
    std::atomic<bool> ends_{false};
    std::thread thread_;
};

class Pairing_Subscriber : public Frames {
protected:
    void SetUp() override {
        Frames::SetUp();
        rec_ = std::make_unique<Running_Camera>("CAM_REC");
    }
    void TearDown() override {
        player_.close();
        rec_.reset();
        Frames::TearDown();
    }

    // As any other process would.
    void pair_by_others(const std::string& producer) const {
        static_cast<void>(output_while([&] {
            EXPECT_EQ(field_of(client.ask(R"({"command":"pair_src","type":"Receiver",)"
                                          R"("name":"PLAYER","channel":0,"stream":0,)"
                                          R"("pair_name":")" +
                                          producer + "\"}"),
                               "status"),
                      "success");
        }));
    }

    std::unique_ptr<Running_Camera> rec_;
    ZAV_SHM_Frame_Subscriber player_{{.name = "PLAYER", .producer = "CAM_LOOP"}};
};

TEST_F(Pairing_Subscriber, moves_it_to_the_other_producer_at_once) {
    const Running_Camera loop("CAM_LOOP");
    ASSERT_TRUE(player_.open());
    Received_Frame frame;
    ASSERT_EQ(player_.receive(frame, 1s), Receive_Status::frame);
    ASSERT_TRUE(player_.pair("CAM_REC"));
    ASSERT_EQ(player_.receive(frame, 1s), Receive_Status::frame);
    EXPECT_EQ(frame.header.epoch, rec_->epoch());
    EXPECT_TRUE(frame.epoch_changed);
    EXPECT_EQ(frame.before.lost(), 0U);
}

// What is published between pair() and receive() is not lost.
TEST_F(Pairing_Subscriber, counts_from_the_moment_of_pairing) {
    ZAV_SHM_Frame_Publisher loop({.name = "CAM_LOOP"});
    ASSERT_TRUE(loop.open());
    ASSERT_TRUE(player_.open());
    publish_numbers(loop, 1, 2);
    EXPECT_EQ(numbers_in(player_).size(), 2U);
    ASSERT_TRUE(player_.pair("CAM_REC"));
    std::this_thread::sleep_for(50ms);
    publish_numbers(loop, 3, 5);
    ASSERT_TRUE(player_.pair("CAM_LOOP"));
    publish_numbers(loop, 6, 8);
    EXPECT_EQ(numbers_in(player_), (std::vector<int>{6, 7, 8}));
}

TEST_F(Pairing_Subscriber, by_others_is_followed_within_100_ms_also_from_a_silent_producer) {
    ZAV_SHM_Frame_Publisher silent({.name = "CAM_LOOP"});
    for (const bool has_ring : {false, true}) {
        if (has_ring) {
            ASSERT_TRUE(silent.open());
        }
        ASSERT_TRUE(player_.open());
        std::atomic<std::int64_t> received_ns{0};
        std::thread reading([&] {
            Received_Frame frame;
            EXPECT_EQ(player_.receive(frame, 10s), Receive_Status::frame);
            EXPECT_EQ(frame.header.epoch, rec_->epoch());
            received_ns = zav_shm::monotonic_ns();
        });
        std::this_thread::sleep_for(50ms);
        const std::int64_t begin = zav_shm::monotonic_ns();
        pair_by_others("CAM_REC");
        reading.join();
        std::printf("first frame %.1f ms after the pairing began\n",
                    static_cast<double>(received_ns - begin) / 1e6);
        EXPECT_LT(received_ns - begin, 500 * ms) << "it does not wait for the look once a second";
        player_.close();
    }
}

TEST_F(Pairing_Subscriber, by_others_is_followed_while_frames_flow) {
    const Running_Camera loop("CAM_LOOP");
    ASSERT_TRUE(player_.open());
    Received_Frame frame;
    for (int i = 0; i < 5; ++i) {
        const Running_Camera& to = i % 2 == 0 ? *rec_ : loop;
        pair_by_others(i % 2 == 0 ? "CAM_REC" : "CAM_LOOP");
        const Stopwatch watch;
        while (player_.receive(frame, 1s) == Receive_Status::frame &&
               frame.header.epoch != to.epoch()) {
            ASSERT_LT(watch.elapsed(), 1s);
        }
    }
    EXPECT_EQ(player_.counters().lost(), 0U);
}

TEST_F(Pairing_Subscriber, with_none_ends_the_frames_and_another_producer_brings_them_again) {
    const Running_Camera loop("CAM_LOOP");
    ASSERT_TRUE(player_.open());
    Received_Frame frame;
    ASSERT_EQ(player_.receive(frame, 1s), Receive_Status::frame);
    const auto paired = player_.pair("NONE");
    EXPECT_EQ(paired.state, Frame_State::waiting_for_producer);
    EXPECT_EQ(paired.reason, "");
    EXPECT_EQ(player_.receive(frame, 50ms), Receive_Status::timeout);
    ASSERT_TRUE(player_.pair("CAM_LOOP"));
    EXPECT_EQ(player_.receive(frame, 1s), Receive_Status::frame);
}

TEST_F(Pairing_Subscriber, with_what_is_not_there_is_refused_and_changes_nothing) {
    const Running_Camera loop("CAM_LOOP");
    ASSERT_TRUE(player_.open());
    const auto paired = player_.pair("NOBODY");
    EXPECT_TRUE(paired.refused);
    EXPECT_EQ(paired.reason, "PLAYER/0/0: Can't Find Shm Pair Name NOBODY");
    Received_Frame frame;
    EXPECT_EQ(player_.receive(frame, 1s), Receive_Status::frame);

    ZAV_SHM_Frame_Subscriber second({.name = "PLAYER", .producer = "CAM_LOOP", .channel = 1});
    ASSERT_TRUE(second.open());
    const auto channel = second.pair("CAM_REC");
    EXPECT_TRUE(channel.refused);
    EXPECT_EQ(channel.reason, "PLAYER/1/0: CAM_REC has no channel 1, stream 0");
    EXPECT_EQ(second.state(), Frame_State::connected);
}

TEST_F(Pairing_Subscriber, by_somebody_before_does_not_count) {
    const Running_Camera loop("CAM_LOOP");
    pair_by_others("CAM_REC");
    ASSERT_TRUE(player_.open());
    Received_Frame frame;
    for (int i = 0; i < 20; ++i) {
        ASSERT_EQ(player_.receive(frame, 1s), Receive_Status::frame);
        EXPECT_EQ(frame.header.epoch, loop.epoch());
    }
}

// A center that is stopped serves the request when it goes on: then its page says who feeds the
// consumer, and that is where the frames come from.
TEST_F(Pairing_Subscriber, that_is_answered_too_late_is_settled_by_the_centers_page) {
    const Running_Camera loop("CAM_LOOP");
    ASSERT_TRUE(player_.open());
    for (int i = 0; i < 10; ++i) {
        const char* const to = i % 2 == 0 ? "CAM_REC" : "CAM_LOOP";
        static_cast<void>(player_.pair(to, 0ms));
        settle();
        const auto route = zav_shm::read_route("/dev/shm/shm/rings/PLAYER_0_0.route");
        ASSERT_TRUE(route);
        const Running_Camera& from = route->producer == "CAM_REC" ? *rec_ : loop;
        Received_Frame frame;
        EXPECT_TRUE(becomes_true([&] {
            return player_.receive(frame, 1s) == Receive_Status::frame &&
                   frame.header.epoch == from.epoch();
        })) << i;
    }
}

TEST_F(Pairing_Subscriber, waits_for_a_center_that_comes_within_its_time) {
    ASSERT_TRUE(player_.open());
    stop();
    std::thread coming([this] {
        std::this_thread::sleep_for(150ms);
        start();
    });
    const auto paired = player_.pair("CAM_REC", std::chrono::milliseconds::max());
    coming.join();
    EXPECT_TRUE(paired) << paired.reason;
    Received_Frame frame;
    ASSERT_EQ(player_.receive(frame, 5s), Receive_Status::frame);
    EXPECT_EQ(frame.header.epoch, rec_->epoch());
}

// Closes it while another thread waits in this call.
template <class Call>
void expect_closing_ends(ZAV_SHM_Frame_Subscriber& player, Call call) {
    std::atomic<bool> has_begun{false};
    std::thread waiting([&] {
        has_begun = true;
        call();
    });
    EXPECT_TRUE(becomes_true([&] { return has_begun.load(); }));
    std::this_thread::sleep_for(100ms);
    const Stopwatch watch;
    player.close();
    EXPECT_LT(watch.elapsed(), 5s);
    waiting.join();
    EXPECT_EQ(player.state(), Frame_State::closed);
}

TEST_F(Pairing_Subscriber, that_waits_for_ever_ends_when_another_thread_closes) {
    for (const bool is_mute : {false, true}) {
        ASSERT_TRUE(player_.open());
        stop();
        if (is_mute) {
            requests.make();
            replies.make();
        }
        expect_closing_ends(player_, [this] {
            const auto paired = player_.pair("CAM_REC", std::chrono::milliseconds::max());
            EXPECT_FALSE(paired);
        });
        start();
    }
}

TEST_F(Pairing_Subscriber, that_opens_for_ever_ends_when_another_thread_closes) {
    stop();
    ZAV_SHM_Frame_Subscriber player(
        {.name = "PLAYER", .producer = "CAM_REC", .center_wait = std::chrono::milliseconds::max()});
    expect_closing_ends(player, [&player] { EXPECT_FALSE(player.open()); });
    start();
    EXPECT_TRUE(player.open());
}

TEST_F(Pairing_Subscriber, survives_a_center_that_was_started_anew) {
    const Running_Camera loop("CAM_LOOP");
    ASSERT_TRUE(player_.open());
    pair_by_others("CAM_REC");
    Received_Frame frame;
    ASSERT_TRUE(becomes_true([&] {
        return player_.receive(frame, 1s) == Receive_Status::frame &&
               frame.header.epoch == rec_->epoch();
    }));
    stop();
    start();
    ASSERT_TRUE(becomes_true([&] { return player_.counters().recoveries == 1; }));
    for (int i = 0; i < 20; ++i) {
        ASSERT_EQ(player_.receive(frame, 1s), Receive_Status::frame);
        EXPECT_EQ(frame.header.epoch, rec_->epoch()) << i;
    }
    EXPECT_EQ(center->ring_consumers()->snapshot().at(0).producer, "CAM_REC");
}

}  // namespace
