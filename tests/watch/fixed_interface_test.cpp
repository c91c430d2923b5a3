// SPDX-License-Identifier: Apache-2.0
//
// What the center's status tells, put there as its host writes it.
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "../frame/frames_fixture.h"
#include "control/center_page.h"
#include "watched_frames.h"

namespace {

using namespace zav_shm::watch;
using watched::stream_of;

class Fixed_Interface : public Frames {
protected:
    void TearDown() override {
        zav_shm::remove_center_page("/shm");
        std::filesystem::remove(status_);
        Frames::TearDown();
    }

    void put_page() {
        zav_shm::Center_Page page;
        page.epoch = 1;
        page.pid = static_cast<std::uint32_t>(getpid());
        ASSERT_TRUE(zav_shm::write_center_page("/shm", page));
    }

    void put_status(int frames, int consumer_frames, int missed) {
        std::ofstream(status_) << R"({"pid":)" << getpid() << R"(,"version":"9.9","channels":[
            {"name":"CAM_LOOP","channel":0,"stream":0,"cycles":9,"frames":)"
                               << frames
                               << R"(,"consumers":[{"name":"PLAYER","channel":3,"stream":0,
                "frames":)" << consumer_frames
                               << R"(,"missed_in_row":)" << missed << R"(}]},
            {"name":"CAM_REC","channel":0,"stream":0,"frames":0,"consumers":[]}]})";
    }

    // As if it were so many seconds old.
    void age_status(int seconds) {
        std::filesystem::last_write_time(
            status_, std::filesystem::file_time_type::clock::now() - std::chrono::seconds(seconds));
    }

    const std::string status_ = "/dev/shm/shm/center_status.json";
    Collector collector_{"shm"};
};

TEST_F(Fixed_Interface, streams_and_consumers_are_as_the_center_tells) {
    put_page();
    put_status(50, 40, 0);
    age_status(1);
    const Snapshot first = collector_.look();
    EXPECT_TRUE(first.center.is_alive);
    EXPECT_EQ(first.center.version, "9.9");
    ASSERT_EQ(first.streams.size(), 1U) << "nobody uses the other one";
    put_status(75, 60, 0);
    const Stream stream = stream_of(collector_.look(), "CAM_LOOP");
    EXPECT_EQ(stream.state, Stream::State::slot);
    EXPECT_EQ(stream.frames, 75U);
    ASSERT_TRUE(stream.rates);
    EXPECT_NEAR(stream.rates->frames, 25, 5);
    ASSERT_EQ(stream.consumers.size(), 1U);
    const Consumer& consumer = stream.consumers.front();
    EXPECT_EQ(consumer.kind, Consumer::Kind::fixed);
    EXPECT_EQ(consumer.name, "PLAYER");
    EXPECT_EQ(consumer.channel, 3);
    EXPECT_EQ(consumer.counters.frames, 60U);
    EXPECT_EQ(consumer.state, Consumer::State::reading);
    EXPECT_FALSE(consumer.behind);
}

TEST_F(Fixed_Interface, consumer_that_is_not_back_does_not_read) {
    put_page();
    put_status(50, 40, 0);
    collector_.look();
    sleep(2);
    put_status(100, 40, 9);
    const Stream stream = stream_of(collector_.look(), "CAM_LOOP");
    ASSERT_EQ(stream.consumers.size(), 1U);
    EXPECT_EQ(stream.consumers.front().state, Consumer::State::not_reading);
    EXPECT_EQ(stream.consumers.front().missed_in_row, 9U);
    put_status(101, 41, 0);
    EXPECT_EQ(stream_of(collector_.look(), "CAM_LOOP").consumers.front().state,
              Consumer::State::reading);
}

TEST_F(Fixed_Interface, stands_beside_the_readers_of_the_ring) {
    ZAV_SHM_Frame_Publisher camera({.name = "CAM_LOOP"});
    ASSERT_TRUE(camera.open());
    publish_numbers(camera, 1, 2);
    put_page();
    put_status(2, 2, 0);
    const Stream stream = stream_of(collector_.look(), "CAM_LOOP");
    EXPECT_EQ(stream.state, Stream::State::live);
    EXPECT_EQ(stream.frames, 2U);
    ASSERT_TRUE(stream.relay);
    EXPECT_EQ(stream.relay->cycles, 9U);
    ASSERT_EQ(stream.consumers.size(), 1U);
    EXPECT_EQ(stream.consumers.front().kind, Consumer::Kind::fixed);
}

TEST_F(Fixed_Interface, status_of_a_center_that_is_gone_says_nothing_of_consumers) {
    put_status(50, 40, 0);
    std::ofstream(status_, std::ios::trunc) << R"({"pid":4194304,"channels":[{"name":"CAM_LOOP",
        "channel":0,"stream":0,"frames":3,"consumers":[]}]})";
    const Snapshot snapshot = collector_.look();
    EXPECT_TRUE(snapshot.center.is_there);
    EXPECT_FALSE(snapshot.center.is_alive);
    EXPECT_TRUE(snapshot.streams.empty());
}

}  // namespace
