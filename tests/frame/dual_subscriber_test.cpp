// SPDX-License-Identifier: Apache-2.0
//
// Main and sub stream of one camera: what comes out during a change from one to the other.
#include "frame/frame_dual_subscriber.h"

#include <atomic>
#include <filesystem>
#include <thread>

#include "frames_fixture.h"

using namespace std::chrono_literals;
using Dual = ZAV_SHM_Frame_Dual_Subscriber;
using Change = Dual::Change;
using zav_shm::Receive_Status;
using zav_shm::Received_Frame;

namespace {

/// A camera with two streams.
class Dual_Streams : public Frames {
protected:
    void SetUp() override {
        Frames::SetUp();
        ASSERT_TRUE(main_.open());
        ASSERT_TRUE(sub_.open());
    }
    void TearDown() override {
        main_.close();
        sub_.close();
        Frames::TearDown();
    }

    // Each picture of the sub stream just before that of the main stream.
    void publish_picture(bool is_key) {
        const zav_shm::Frame_Info info{.flags = is_key ? zav_shm::frame_flag::key_frame
                                                       : std::uint16_t{0}};
        EXPECT_TRUE(sub_.publish(payload(200), info).published());
        EXPECT_TRUE(main_.publish(payload(1000), info).published());
    }

    ZAV_SHM_Frame_Publisher main_{{.name = "CAM_LOOP", .history_bytes = 100'000}};
    ZAV_SHM_Frame_Publisher sub_{{.name = "CAM_LOOP", .stream = 1, .history_bytes = 100'000}};
};

/// It writes each picture into both. Payloads are the picture's number, and the key frames of the
/// streams fall apart.
class Two_Streams : public Dual_Streams {
protected:
    void TearDown() override {
        player_.close();
        Dual_Streams::TearDown();
    }

    void take_pictures(int first, int last) {
        for (int number = first; number <= last; ++number) {
            publish_one(main_, number, number % 10 == 0);
            publish_one(sub_, number, number % 10 == 5);
        }
    }

    struct Picture {
        int number;
        Dual::Stream stream;
        bool is_key;
        bool operator==(const Picture& other) const = default;
    };

    std::vector<Picture> pictures() {
        std::vector<Picture> all;
        Received_Frame frame;
        while (player_.receive(frame, 0ms) == Receive_Status::frame) {
            all.push_back({std::to_integer<int>(frame.payload().front()), player_.current(),
                           frame.is_entry_point()});
        }
        return all;
    }

    static constexpr auto main = Dual::main;
    static constexpr auto sub = Dual::sub;

    Dual player_{{.name = "PLAYER", .producer = "CAM_LOOP"}, 1};

private:
    static void publish_one(ZAV_SHM_Frame_Publisher& to, int number, bool is_key) {
        const std::vector<std::byte> one{static_cast<std::byte>(number)};
        EXPECT_TRUE(
            to.publish(one, {.flags = is_key ? zav_shm::frame_flag::key_frame : std::uint16_t{0}})
                .published());
    }
};

TEST_F(Two_Streams, change_over_at_the_next_key_frame_without_a_gap) {
    ASSERT_TRUE(player_.open());
    take_pictures(10, 17);
    EXPECT_EQ(pictures().size(), 8U);
    ASSERT_TRUE(player_.select(sub));
    take_pictures(18, 22);
    const auto before = pictures();
    EXPECT_TRUE(player_.is_changing());
    ASSERT_EQ(before.size(), 5U);
    take_pictures(23, 27);
    const auto after = pictures();
    ASSERT_FALSE(after.empty());
    EXPECT_FALSE(player_.is_changing());
    EXPECT_EQ(player_.changes(), 1U);
    int expected = 23;
    for (const Picture& picture : after) {
        const bool is_twin = picture == Picture{25, sub, true} && expected == 26;
        EXPECT_TRUE(picture.number == expected || is_twin) << picture.number;
        EXPECT_EQ(picture.stream == sub, picture.number > 25 || picture == Picture(25, sub, true));
        expected = picture.number + 1;
    }
    EXPECT_EQ(expected, 28);
}

TEST_F(Two_Streams, change_over_at_once_to_the_last_key_frame_of_the_history) {
    ASSERT_TRUE(player_.open());
    take_pictures(10, 18);
    EXPECT_EQ(pictures().size(), 9U);
    ASSERT_TRUE(player_.select(sub, Change::at_once));
    const std::vector<Picture> expected{
        {15, sub, true}, {16, sub, false}, {17, sub, false}, {18, sub, false}};
    EXPECT_EQ(pictures(), expected);
    EXPECT_EQ(player_.changes(), 1U);
}

TEST_F(Two_Streams, change_at_once_when_the_key_frame_of_the_history_is_new_enough) {
    ASSERT_TRUE(player_.open());
    take_pictures(10, 14);
    EXPECT_EQ(pictures().size(), 5U);
    take_pictures(15, 17);
    ASSERT_TRUE(player_.select(sub)) << "15 has not come out yet";
    const auto after = pictures();
    ASSERT_FALSE(after.empty());
    EXPECT_EQ(player_.current(), sub);
    EXPECT_EQ(after.back(), (Picture{17, sub, false}));
}

TEST_F(Two_Streams, stay_as_they_are_while_the_other_one_has_nothing) {
    ASSERT_TRUE(player_.open());
    sub_.close();
    std::filesystem::remove(std::string(rings) + "/CAM_LOOP_0_1");
    ASSERT_TRUE(player_.select(sub));
    Received_Frame frame;
    EXPECT_EQ(player_.receive(frame, 30ms), Receive_Status::timeout);
    EXPECT_EQ(player_.current(), main);
    EXPECT_TRUE(player_.is_changing());
    ASSERT_TRUE(player_.select(main));
    EXPECT_FALSE(player_.is_changing());
    EXPECT_EQ(player_.changes(), 0U);
}

TEST_F(Two_Streams, can_be_changed_again_and_again_while_pictures_come) {
    ASSERT_TRUE(player_.open());
    int last = 0;
    for (int round = 0; round < 20; ++round) {
        ASSERT_TRUE(player_.select(round % 2 == 0 ? sub : main));
        take_pictures(round * 10 + 10, round * 10 + 19);
        for (const Picture& picture : pictures()) {
            EXPECT_TRUE(picture.number == last + 1 || picture.number == last || last == 0)
                << picture.number << " after " << last;
            last = picture.number;
        }
    }
    EXPECT_EQ(player_.changes(), 20U);
}

TEST_F(Dual_Streams, change_at_the_next_key_frame_without_a_gap) {
    Dual player({.name = "PLAYER", .producer = "CAM_LOOP"}, 1);
    ASSERT_TRUE(player.open());
    std::atomic<bool> ends = false;
    std::thread camera([&] {
        for (int picture = 0; !ends; ++picture) {
            publish_picture(picture % 10 == 0);
            std::this_thread::sleep_for(10ms);
        }
    });
    Received_Frame frame;
    std::uint64_t sequence = 0;
    int pictures = 0;
    for (int change = 0; change < 4; ++change) {
        const std::uint64_t before = player.changes();
        static_cast<void>(player.select(change % 2 == 0 ? Dual::sub : Dual::main));
        for (pictures = 0; player.changes() == before && pictures < 100; ++pictures) {
            ASSERT_EQ(player.receive(frame, 2s), Receive_Status::frame);
            // The picture of the change may come from both.
            EXPECT_TRUE(sequence == 0 || frame.header.sequence == sequence + 1 ||
                        (player.changes() != before && frame.header.sequence == sequence))
                << frame.header.sequence << " after " << sequence;
            sequence = frame.header.sequence;
        }
        EXPECT_LE(pictures, 30) << "a key frame comes with every tenth picture";
        EXPECT_TRUE(frame.is_key_frame());
    }
    ends = true;
    camera.join();
    player.close();
}

}  // namespace
