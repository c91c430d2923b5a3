// SPDX-License-Identifier: Apache-2.0
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <thread>

#include "../frame/frames_fixture.h"
#include "watched_frames.h"

using namespace std::chrono_literals;

namespace {

using namespace zav_shm::watch;
using watched::stream_of;

// In brackets, in the file that the collector reads: an emulator has a name of its own there.
std::string own_command() {
    std::ifstream file("/proc/" + std::to_string(getpid()) + "/stat");
    const std::string text{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    const std::size_t begin = text.find('(') + 1;
    return text.substr(begin, text.rfind(')') - begin);
}

class Collected : public Frames {
protected:
    static ZAV_SHM_Frame_Publisher::Options camera_options() {
        return {.name = "CAM_LOOP",
                .format = {.codec = zav_shm::codec::h264, .width = 640, .height = 480}};
    }

    Stream look() { return stream_of(collector_.look(), "CAM_LOOP"); }
    Consumer look_at_consumer() {
        const Stream stream = look();
        EXPECT_EQ(stream.consumers.size(), 1U);
        return stream.consumers.empty() ? Consumer{} : stream.consumers.front();
    }

    Collector collector_{"shm"};
};

TEST_F(Collected, folder_without_anything_is_an_empty_snapshot) {
    const Snapshot snapshot = collector_.look();
    EXPECT_TRUE(snapshot.streams.empty());
    EXPECT_TRUE(snapshot.elsewhere.empty());
    EXPECT_FALSE(snapshot.center.is_there);
    EXPECT_EQ(snapshot.interval_ns, 0);
    EXPECT_GT(collector_.look().interval_ns, 0);
    EXPECT_TRUE(Collector("there/is/none").look().streams.empty());
}

TEST_F(Collected, stream_tells_what_its_ring_holds) {
    ZAV_SHM_Frame_Publisher camera(camera_options());
    ASSERT_TRUE(camera.open());
    EXPECT_EQ(look().frames, 0U);
    EXPECT_FALSE(look().age_ns);
    publish_numbers(camera, 1, 10, 5);
    std::this_thread::sleep_for(20ms);
    camera.leave_out(3);
    publish_numbers(camera, 11, 12, 10);
    const Stream stream = look();
    EXPECT_EQ(stream.state, Stream::State::live);
    EXPECT_EQ(stream.writer.pid, static_cast<std::uint32_t>(getpid()));
    EXPECT_EQ(stream.writer.command, own_command());
    EXPECT_NE(stream.epoch, 0U);
    EXPECT_EQ(stream.frames, 12U);
    EXPECT_EQ(stream.bytes, 12U);
    EXPECT_EQ(stream.left_out, 3U);
    EXPECT_EQ(stream.history.frames, 12U);
    EXPECT_GE(stream.history.ns, 20'000'000);
    EXPECT_EQ(stream.history.bytes, 11U * 192 + 129);
    EXPECT_EQ(stream.codec, zav_shm::codec::h264);
    EXPECT_EQ(stream.width, 640U);
    EXPECT_EQ(stream.key_interval_frames, 5U);
    EXPECT_GE(stream.key_age_ns, 0);
    EXPECT_LT(stream.age_ns.value(), 60'000'000'000);
}

TEST_F(Collected, rates_are_those_between_two_snapshots) {
    ZAV_SHM_Frame_Publisher camera(camera_options());
    ASSERT_TRUE(camera.open());
    publish_numbers(camera, 1, 7);
    const Snapshot first = collector_.look();
    EXPECT_FALSE(stream_of(first, "CAM_LOOP").rates);
    publish_numbers(camera, 1, 40);
    std::this_thread::sleep_for(50ms);
    const Snapshot second = collector_.look();
    const auto rates = stream_of(second, "CAM_LOOP").rates;
    ASSERT_TRUE(rates);
    const double seconds = static_cast<double>(second.interval_ns) / 1e9;
    EXPECT_NEAR(rates->frames * seconds, 40, 5);
    EXPECT_NEAR(rates->bits, rates->frames * 8, 1e-6);
    EXPECT_EQ(look().rates->frames, 0);
}

TEST_F(Collected, another_publisher_of_the_stream_begins_anew) {
    const auto publish = [this](int frames) {
        ZAV_SHM_Frame_Publisher camera(camera_options());
        EXPECT_TRUE(camera.open());
        publish_numbers(camera, 1, frames);
        return look();
    };
    EXPECT_EQ(publish(5).frames, 5U);
    EXPECT_EQ(look().state, Stream::State::closed);
    const Stream second = publish(2);
    EXPECT_EQ(second.frames, 2U);
    EXPECT_FALSE(second.rates);
    EXPECT_EQ(second.state, Stream::State::live);
}

TEST_F(Collected, consumers_of_both_kinds_tell_how_they_fare) {
    ZAV_SHM_Frame_Publisher camera(camera_options());
    ASSERT_TRUE(camera.open());
    ZAV_SHM_Frame_Subscriber player(
        {.name = "PLAYER", .producer = "CAM_LOOP", .from = zav_shm::start::oldest});
    ZAV_SHM_Frame_Subscriber tap({.producer = "CAM_LOOP", .from = zav_shm::start::oldest});
    ASSERT_TRUE(player.open());
    ASSERT_TRUE(tap.open());
    publish_numbers(camera, 1, 3);
    EXPECT_EQ(numbers_in(player).size(), 3U);
    EXPECT_EQ(numbers_in(tap).size(), 3U);
    publish_numbers(camera, 4, 8);
    EXPECT_EQ(numbers_in(tap).size(), 5U);
    const Stream stream = look();
    ASSERT_EQ(stream.consumers.size(), 2U);
    const Consumer& named = stream.consumers[0];
    EXPECT_EQ(named.kind, Consumer::Kind::named);
    EXPECT_EQ(named.name, "PLAYER");
    EXPECT_EQ(named.behind, 5U);
    EXPECT_EQ(named.process.pid, static_cast<std::uint32_t>(getpid()));
    EXPECT_EQ(named.process.command, own_command());
    const Consumer& nameless = stream.consumers[1];
    EXPECT_EQ(nameless.kind, Consumer::Kind::tap);
    EXPECT_EQ(nameless.behind, 0U);
    EXPECT_EQ(nameless.counters.frames, 8U);
    EXPECT_EQ(nameless.lost(), 0U);
    ASSERT_TRUE(nameless.recent_latency);
    EXPECT_EQ(nameless.recent_latency->frames, 8U);
    EXPECT_GT(nameless.recent_latency->p50_ns, 0);
    EXPECT_LE(nameless.recent_latency->p50_ns, nameless.recent_latency->p99_ns);
    EXPECT_FALSE(look().consumers[1].recent_latency);
}

TEST_F(Collected, loss_has_its_cause_and_its_rate) {
    ZAV_SHM_Frame_Publisher camera(camera_options());
    ASSERT_TRUE(camera.open());
    ZAV_SHM_Frame_Subscriber player(
        {.name = "PLAYER", .producer = "CAM_LOOP", .from = zav_shm::start::oldest});
    ASSERT_TRUE(player.open());
    publish_numbers(camera, 1, 1);
    EXPECT_EQ(numbers_in(player).size(), 1U);
    look();
    for (int i = 0; i < 8; ++i) {
        ASSERT_TRUE(camera.publish(payload(4000)).published());
    }
    camera.leave_out(2);
    ASSERT_TRUE(camera.publish(payload(4000)).published());
    EXPECT_GT(look_at_consumer().behind.value(), 0U);
    const std::size_t received = numbers_in(player).size();
    const Consumer consumer = look_at_consumer();
    EXPECT_EQ(consumer.counters.left_out, 2U);
    EXPECT_EQ(consumer.counters.overtaken, 9 - received);
    EXPECT_GT(consumer.counters.overtaken, 0U);
    ASSERT_TRUE(consumer.rates);
    EXPECT_GT(consumer.rates->left_out, 0);
    EXPECT_GT(consumer.rates->overtaken, 0);
    EXPECT_EQ(consumer.rates->no_memory, 0);
}

TEST_F(Collected, consumer_that_does_not_read_is_told_until_it_does) {
    ZAV_SHM_Frame_Publisher camera(camera_options());
    ASSERT_TRUE(camera.open());
    ZAV_SHM_Frame_Subscriber player(
        {.name = "PLAYER", .producer = "CAM_LOOP", .from = zav_shm::start::oldest});
    ASSERT_TRUE(player.open());
    std::this_thread::sleep_for(900ms);
    EXPECT_EQ(look_at_consumer().state, Consumer::State::reading) << "there was nothing to read";
    const Stopwatch since_frame;
    publish_numbers(camera, 1, 1);
    const Consumer at_once = look_at_consumer();
    if (since_frame.elapsed() < 600ms) {
        EXPECT_EQ(at_once.state, Consumer::State::reading) << "it has just come";
    }
    std::this_thread::sleep_for(900ms);
    const Consumer waits = look_at_consumer();
    EXPECT_EQ(waits.state, Consumer::State::not_reading);
    EXPECT_GE(waits.not_reading_ns, 700'000'000);
    EXPECT_EQ(numbers_in(player).size(), 1U);
    EXPECT_EQ(look_at_consumer().state, Consumer::State::reading);
    std::this_thread::sleep_for(900ms);
    EXPECT_EQ(look_at_consumer().state, Consumer::State::reading) << "it has read all";
}

// The frame that it waits to take is overwritten long since, and its time with it.
TEST_F(Collected, consumer_that_was_overtaken_does_not_read_either) {
    ZAV_SHM_Frame_Publisher camera({.name = "CAM_LOOP", .history_bytes = 1000});
    ASSERT_TRUE(camera.open());
    ZAV_SHM_Frame_Subscriber player(
        {.name = "PLAYER", .producer = "CAM_LOOP", .from = zav_shm::start::oldest});
    ASSERT_TRUE(player.open());
    publish_numbers(camera, 1, 1);
    EXPECT_EQ(numbers_in(player).size(), 1U);
    for (int i = 0; i < 80; ++i) {
        ASSERT_TRUE(camera.publish(payload(1000)).published());
        std::this_thread::sleep_for(15ms);
    }
    const Consumer consumer = look_at_consumer();
    EXPECT_EQ(consumer.behind, 80U);
    EXPECT_LT(look().history.ns, 500'000'000) << "the history is short";
    EXPECT_EQ(consumer.state, Consumer::State::not_reading);
}

TEST_F(Collected, consumer_of_a_stream_that_is_not_there_stands_elsewhere) {
    ZAV_SHM_Frame_Publisher camera(camera_options());
    ASSERT_TRUE(camera.open());
    ZAV_SHM_Frame_Subscriber tap({.producer = "CAM_REC"});
    ASSERT_TRUE(tap.open());
    zav_shm::Received_Frame frame;
    (void)tap.receive(frame, 0ms);
    const Snapshot snapshot = collector_.look();
    EXPECT_TRUE(stream_of(snapshot, "CAM_LOOP").consumers.empty());
    ASSERT_EQ(snapshot.elsewhere.size(), 1U);
    EXPECT_EQ(snapshot.elsewhere[0].of, (Stream_Id{"CAM_REC", 0, 0}));
    EXPECT_EQ(snapshot.elsewhere[0].state, Consumer::State::reading);
}

}  // namespace
