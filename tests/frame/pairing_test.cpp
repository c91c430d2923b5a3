// SPDX-License-Identifier: Apache-2.0
//
// Pairing at a center that is slow: the relay of CAM_LOOP serves eight consumers that are absent,
// each for 5 ms, so that a cycle lasts more than 40 ms, and whatever the center is asked about it
// waits for one.
#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include "../center/center_fixture.h"
#include "frame/frame_publisher.h"
#include "frame/frame_subscriber.h"

using namespace std::chrono_literals;
using zav_shm::Receive_Status;
using zav_shm::Received_Frame;

namespace {

constexpr int absent_consumers = 8;

std::string configuration() {
    std::string receivers = R"({"name": "PLAYER", "channel": 4, "stream": [0]},
                               {"name": "TAPE", "channel": 1, "stream": [0]})";
    for (int i = 0; i < absent_consumers; ++i) {
        receivers +=
            R"(, {"name": "ABSENT_)" + std::to_string(i) + R"(", "channel": 1, "stream": [0]})";
    }
    return R"({"Stream": [{"index": 0, "page_size": 4096}],
               "Distributor": [{"name": "CAM_LOOP", "channel": 4, "stream": [0]},
                               {"name": "CAM_REC", "channel": 1, "stream": [0]}],
               "Receiver": [)" +
           receivers + "]}";
}

/// Publishes frames until it is destroyed.
class Running_Camera {
public:
    explicit Running_Camera(const char* name) : publisher_({.name = name}) {
        EXPECT_TRUE(publisher_.open());
        thread_ = std::thread([this] {
            while (!ends_) {
                publisher_.publish({});
                std::this_thread::sleep_for(5ms);
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

class Slow_Pairing : public Center {
protected:
    void SetUp() override {
        Center::SetUp();
        start(configuration());
        for (int i = 0; i < absent_consumers; ++i) {
            client.ask(R"({"command":"register","type":"Receiver","pair_name":"CAM_LOOP",)"
                       R"("channel":0,"stream":0,"name":"ABSENT_)" +
                       std::to_string(i) + "\"}");
        }
        if (loop_runs_) {
            loop_ = std::make_unique<Running_Camera>("CAM_LOOP");
        }
        rec_ = std::make_unique<Running_Camera>("CAM_REC");
        ASSERT_TRUE(player_.open());
    }
    void TearDown() override {
        player_.close(5s);
        loop_.reset();
        rec_.reset();
        Center::TearDown();
    }

    /// Asks until the answer does not come in time; the center serves that pairing a moment later.
    void pair_in_vain() {
        while (player_.pair("CAM_REC", 10ms)) {
            ASSERT_TRUE(player_.pair("CAM_LOOP", 20s));
        }
    }

    /// Which producer the center feeds a consumer from, as it sees it.
    std::string feeds(const std::string& consumer) const {
        for (const auto& relay : center->manager()->snapshot()) {
            for (const auto& fed : relay.consumers) {
                if (fed.name == consumer) {
                    return relay.name;
                }
            }
        }
        return "nobody";
    }

    /// True when one frame after the other comes from the producer that the center says.
    bool frames_come_from_whom_the_center_says() {
        const auto right = [this] {
            Received_Frame frame;
            if (player_.receive(frame, 1s) != Receive_Status::frame) {
                return false;
            }
            const std::string feeding = feeds("PLAYER");
            return frame.header.epoch == loop_->epoch() ? feeding == "CAM_LOOP"
                                                        : feeding == "CAM_REC";
        };
        return becomes_true([&right] {
            for (int i = 0; i < 10; ++i) {
                if (!right()) {
                    return false;
                }
            }
            return true;
        });
    }

    bool loop_runs_ = true;
    std::unique_ptr<Running_Camera> loop_;
    std::unique_ptr<Running_Camera> rec_;
    ZAV_SHM_Frame_Subscriber player_{{.name = "PLAYER", .producer = "CAM_LOOP", .queue_frames = 4}};
};

TEST_F(Slow_Pairing, that_is_answered_too_late_leaves_the_subscriber_as_it_was) {
    pair_in_vain();
    EXPECT_TRUE(frames_come_from_whom_the_center_says());
    EXPECT_EQ(feeds("PLAYER"), "CAM_LOOP");
    EXPECT_EQ(player_.state(), zav_shm::Frame_State::connected);
}

// The other one keeps the frames of CAM_LOOP coming, so that nothing seems wrong with the slot.
TEST_F(Slow_Pairing, that_is_answered_too_late_is_settled_beside_another_consumer) {
    ZAV_SHM_Frame_Subscriber tape({.name = "TAPE", .producer = "CAM_LOOP"});
    ASSERT_TRUE(tape.open());
    pair_in_vain();
    EXPECT_TRUE(becomes_true([this] { return feeds("PLAYER") == "CAM_REC"; }, 300ms) ||
                feeds("PLAYER") == "CAM_LOOP");
    EXPECT_TRUE(frames_come_from_whom_the_center_says());
    EXPECT_EQ(feeds("PLAYER"), "CAM_LOOP");
}

TEST_F(Slow_Pairing, that_is_asked_for_again_comes_about) {
    pair_in_vain();
    ASSERT_TRUE(player_.pair("CAM_REC", 20s));
    EXPECT_TRUE(frames_come_from_whom_the_center_says());
    EXPECT_EQ(feeds("PLAYER"), "CAM_REC");
}

// Replies say nothing of whom they are for but in their names.
TEST_F(Slow_Pairing, of_one_channel_does_not_take_the_late_answer_for_another_one) {
    ZAV_SHM_Frame_Subscriber second({.name = "PLAYER", .producer = "CAM_LOOP", .channel = 1});
    ASSERT_TRUE(second.open());
    ZAV_SHM_Frame_Publisher other({.name = "CAM_LOOP", .channel = 1});
    ASSERT_TRUE(other.open());
    for (int i = 0; i < 3; ++i) {
        pair_in_vain();
        ASSERT_TRUE(second.pair("CAM_LOOP", 20s));
        Received_Frame frame;
        ASSERT_TRUE(becomes_true([&] {
            other.publish({});
            return second.receive(frame, 100ms) == Receive_Status::frame &&
                   frame.header.epoch == other.epoch();
        })) << i;
        EXPECT_EQ(second.counters().foreign, 0U);
    }
}

TEST_F(Slow_Pairing, with_a_channel_that_the_producer_does_not_have_is_refused_and_harmless) {
    ZAV_SHM_Frame_Subscriber second({.name = "PLAYER", .producer = "CAM_LOOP", .channel = 1});
    ASSERT_TRUE(second.open());
    const auto paired = second.pair("CAM_REC");
    EXPECT_TRUE(paired.refused);
    EXPECT_EQ(paired.reason, "PLAYER/1/0: CAM_REC has 1 channels with 1 streams");
    EXPECT_EQ(second.state(), zav_shm::Frame_State::connected);
    EXPECT_TRUE(becomes_true([this] { return feeds("PLAYER") == "CAM_LOOP"; }));
}

class Slow_Pairing_Of_A_Silent_Camera : public Slow_Pairing {
protected:
    Slow_Pairing_Of_A_Silent_Camera() { loop_runs_ = false; }
};

// Until it is settled, the posts of CAM_REC lead to the slot of CAM_LOOP, which is as it was made.
TEST_F(Slow_Pairing_Of_A_Silent_Camera, hands_out_no_frame_from_a_slot_that_nobody_has_written) {
    for (int i = 0; i < 3; ++i) {
        pair_in_vain();
        Received_Frame frame;
        while (player_.receive(frame, 500ms) == Receive_Status::frame) {
            EXPECT_TRUE(frame.verified) << frame.length << " bytes";
        }
    }
    EXPECT_EQ(player_.counters().foreign, 0U);
}

}  // namespace
