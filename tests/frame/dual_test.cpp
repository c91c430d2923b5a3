// SPDX-License-Identifier: Apache-2.0
//
// Changes between the main and the sub stream of one picture.
#include <atomic>
#include <thread>

#include "frame/frame_dual_subscriber.h"
#include "frames_fixture.h"

using namespace std::chrono_literals;
using zav_shm::Receive_Status;
using zav_shm::Received_Frame;
using Dual = ZAV_SHM_Frame_Dual_Subscriber;

namespace {

// A camera's two streams, each picture of the sub stream just before that of the main stream.
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

    void publish_picture(bool is_key) {
        const zav_shm::Frame_Info info{.flags = is_key ? zav_shm::frame_flag::key_frame
                                                       : std::uint16_t{0}};
        EXPECT_TRUE(sub_.publish(payload(200), info).published());
        EXPECT_TRUE(main_.publish(payload(1000), info).published());
    }

    ZAV_SHM_Frame_Publisher main_{{.name = "CAM_LOOP"}};
    ZAV_SHM_Frame_Publisher sub_{{.name = "CAM_LOOP", .stream = 1}};
};

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
