// SPDX-License-Identifier: Apache-2.0
//
// Publishers and subscribers of this process at a center of this process.
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <thread>
#include <vector>

#include "frames_fixture.h"
#include "ipc/monotonic_clock.h"

using namespace std::chrono_literals;
using zav_shm::Frame_State;
using zav_shm::Publish_Outcome;
using zav_shm::Receive_Status;
using zav_shm::Received_Frame;

namespace {

// Of a producer and a consumer that are both at work.
class Flowing_Frames : public Frames {
protected:
    void SetUp() override {
        Frames::SetUp();
        ASSERT_TRUE(player.open());
        ASSERT_TRUE(camera.open());
        ASSERT_TRUE(passes_one());
    }
    void TearDown() override {
        player.close();
        camera.close();
        Frames::TearDown();
    }

    bool passes_one() {
        const auto sent = payload(100, 3);
        return camera.publish(sent).published() &&
               player.receive(frame, 1s) == Receive_Status::frame && equal(frame.payload(), sent);
    }

    ZAV_SHM_Frame_Subscriber player{{.name = "PLAYER", .producer = "CAM_LOOP"}};
    ZAV_SHM_Frame_Publisher camera{{.name = "CAM_LOOP"}};
    Received_Frame frame;
};

TEST_F(Frames, arrive_byte_for_byte_with_what_was_said_of_them) {
    ZAV_SHM_Frame_Subscriber player({.name = "PLAYER", .producer = "CAM_LOOP"});
    ZAV_SHM_Frame_Publisher camera(
        {.name = "CAM_LOOP",
         .format = {.codec = zav_shm::codec::h264, .width = 1280, .height = 720}});
    ASSERT_TRUE(player.open());
    ASSERT_TRUE(camera.open());
    Received_Frame frame;
    for (int i = 0; i < 200; ++i) {
        const auto sent = payload(static_cast<std::size_t>(i * 20), i);
        const auto result = camera.publish(
            sent, {.flags = zav_shm::frame_flag::key_frame, .pts = std::chrono::nanoseconds(i)});
        ASSERT_TRUE(result.published()) << result.reason;
        ASSERT_EQ(player.receive(frame, 5s), Receive_Status::frame);
        EXPECT_TRUE(equal(frame.payload(), sent));
        EXPECT_TRUE(frame.verified && frame.is_key_frame());
        EXPECT_EQ(frame.header.pts_ns, i);
        EXPECT_EQ(frame.header.width, 1280U);
        EXPECT_FALSE(frame.before.any());
        EXPECT_EQ(frame.header.epoch, camera.epoch());
    }
    EXPECT_EQ(player.state(), Frame_State::connected);
    EXPECT_EQ(player.counters().lost(), 0U);
    EXPECT_EQ(player.counters().latency.count(), 200U);
    EXPECT_EQ(camera.counters().published, 200U);
    EXPECT_EQ(camera.counters().frames, 200U);
}

TEST_F(Frames, longer_than_the_page_are_refused_with_both_sizes_and_told_to_the_reader) {
    ZAV_SHM_Frame_Subscriber player({.name = "PLAYER", .producer = "CAM_LOOP"});
    ZAV_SHM_Frame_Publisher camera({.name = "CAM_LOOP"});
    ASSERT_TRUE(camera.open());
    ASSERT_TRUE(player.open());
    EXPECT_TRUE(camera.publish(payload(4096)).published());
    const auto result = camera.publish(payload(4097));
    EXPECT_EQ(result.outcome, Publish_Outcome::too_large);
    EXPECT_EQ(result.payload_bytes, 4097U);
    EXPECT_EQ(result.limit_bytes, 4096U);
    EXPECT_EQ(result.reason, "payload of 4097 bytes, page size of CAM_LOOP/0/0 is 4096");
    EXPECT_TRUE(camera.publish({}).published());
    Received_Frame frame;
    ASSERT_EQ(player.receive(frame, 1s), Receive_Status::frame);
    EXPECT_EQ(frame.payload().size(), 4096U);
    ASSERT_EQ(player.receive(frame, 1s), Receive_Status::frame);
    EXPECT_EQ(frame.payload().size(), 0U);
    EXPECT_EQ(frame.before.left_out, 1U);
}

TEST_F(Flowing_Frames, that_an_encoder_left_out_are_counted_and_told) {
    const std::uint64_t last = frame.header.sequence;
    camera.leave_out(0);
    camera.leave_out(std::uint64_t{1} << 33U);
    EXPECT_TRUE(camera.publish(payload(20, 3)).published());
    ASSERT_EQ(player.receive(frame, 5s), Receive_Status::frame);
    EXPECT_EQ(frame.header.sequence, last + 1 + (std::uint64_t{1} << 33U));
    EXPECT_EQ(frame.before.left_out, std::uint64_t{1} << 33U);
    EXPECT_EQ(camera.counters().frames, frame.header.sequence);
}

// Whoever waited for the first frame has missed none before it.
TEST_F(Frames, that_were_left_out_before_the_first_are_no_loss) {
    ZAV_SHM_Frame_Subscriber player({.name = "PLAYER", .producer = "CAM_LOOP"});
    ZAV_SHM_Frame_Publisher camera({.name = "CAM_LOOP"});
    ASSERT_TRUE(player.open());
    ASSERT_TRUE(camera.open());
    camera.leave_out(99);
    ASSERT_TRUE(camera.publish(payload(20)).published());
    Received_Frame frame;
    ASSERT_EQ(player.receive(frame, 5s), Receive_Status::frame);
    EXPECT_EQ(frame.header.sequence, 100U);
    EXPECT_FALSE(frame.before.any());
}

TEST_F(Frames, can_be_written_in_place_whether_anybody_reads_or_not) {
    ZAV_SHM_Frame_Publisher camera({.name = "CAM_LOOP"});
    EXPECT_TRUE(camera.loan().empty()) << "not open";
    ASSERT_TRUE(camera.open());
    for (const bool is_read : {false, true}) {
        ZAV_SHM_Frame_Subscriber player({.name = "PLAYER", .producer = "CAM_LOOP"});
        if (is_read) {
            ASSERT_TRUE(player.open());
        }
        const std::span<std::byte> room = camera.loan();
        ASSERT_EQ(room.size(), 4096U);
        std::fill_n(room.begin(), 10, std::byte{42});
        ASSERT_TRUE(camera.commit(10).published());
        if (is_read) {
            EXPECT_TRUE(equal(next(player), std::vector<std::byte>(10, std::byte{42})));
        }
    }
    EXPECT_EQ(camera.loan(100).size(), 100U);
    EXPECT_TRUE(camera.loan(4097).empty());
    EXPECT_EQ(camera.commit(10).reason, "nothing is on loan");
}

TEST_F(Flowing_Frames, may_be_published_after_a_loan_that_was_not_used) {
    const std::uint64_t last = frame.header.sequence;
    EXPECT_FALSE(camera.loan(100).empty());
    EXPECT_EQ(camera.commit(101).outcome, Publish_Outcome::too_large);
    EXPECT_FALSE(camera.loan().empty());
    EXPECT_TRUE(camera.publish(payload(20, 3)).published());
    ASSERT_EQ(player.receive(frame, 5s), Receive_Status::frame);
    EXPECT_EQ(frame.payload().size(), 20U);
    EXPECT_EQ(frame.header.sequence, last + 2);
    EXPECT_EQ(frame.before.left_out, 1U);
    camera.close();
    EXPECT_EQ(camera.publish(payload(20, 3)).reason, "closed");
}

// More milliseconds than the long of a 32-bit target holds, and more than any clock.
TEST_F(Frames, come_to_a_receive_that_may_take_for_ever) {
    ZAV_SHM_Frame_Subscriber player({.name = "PLAYER", .producer = "CAM_LOOP"});
    ZAV_SHM_Frame_Publisher camera({.name = "CAM_LOOP"});
    ASSERT_TRUE(player.open());
    ASSERT_TRUE(camera.open());
    for (const auto timeout :
         {std::chrono::milliseconds(24h * 30), std::chrono::milliseconds::max()}) {
        std::thread feeding([&] {
            std::this_thread::sleep_for(20ms);
            EXPECT_TRUE(camera.publish(payload(10)).published());
        });
        Received_Frame frame;
        EXPECT_EQ(player.receive(frame, timeout), Receive_Status::frame);
        feeding.join();
    }
    Received_Frame frame;
    EXPECT_EQ(player.receive(frame, std::chrono::milliseconds::min()), Receive_Status::timeout);
}

TEST_F(Frames, go_to_every_subscriber_of_one_name) {
    ZAV_SHM_Frame_Subscriber one({.name = "PLAYER", .producer = "CAM_LOOP"});
    ZAV_SHM_Frame_Subscriber two({.name = "PLAYER", .producer = "CAM_LOOP"});
    ZAV_SHM_Frame_Publisher camera({.name = "CAM_LOOP"});
    ASSERT_TRUE(one.open());
    ASSERT_TRUE(two.open());
    ASSERT_TRUE(camera.open());
    publish_numbers(camera, 1, 40);
    EXPECT_EQ(numbers_in(one).size(), 40U);
    EXPECT_EQ(numbers_in(two).size(), 40U);
    one.close();
    publish_numbers(camera, 1, 3);
    EXPECT_EQ(numbers_in(two).size(), 3U);
    EXPECT_EQ(center->ring_consumers()->snapshot().size(), 1U);
}

TEST_F(Frames, of_a_second_publisher_are_refused_while_the_first_one_lives) {
    ZAV_SHM_Frame_Publisher first({.name = "CAM_LOOP"});
    ZAV_SHM_Frame_Publisher second({.name = "CAM_LOOP"});
    ASSERT_TRUE(first.open());
    const auto opened = second.open();
    EXPECT_FALSE(opened);
    EXPECT_EQ(opened.state, Frame_State::no_ring);
    EXPECT_EQ(opened.reason, "process " + std::to_string(getpid()) + " publishes CAM_LOOP/0/0");
    EXPECT_EQ(second.publish(payload(1)).outcome, Publish_Outcome::no_ring);
    EXPECT_EQ(second.publish(payload(1)).reason, opened.reason);
    first.close();
    EXPECT_TRUE(becomes_true([&] { return second.publish(payload(1)).published(); }));
    EXPECT_EQ(second.state(), Frame_State::connected);
}

TEST_F(Frames, of_a_publisher_wait_for_nobody) {
    ZAV_SHM_Frame_Publisher camera({.name = "CAM_LOOP"});
    ASSERT_TRUE(camera.open());
    ZAV_SHM_Frame_Subscriber lazy({.name = "PLAYER", .producer = "CAM_LOOP"});
    ASSERT_TRUE(lazy.open());
    const Stopwatch watch;
    for (int i = 0; i < 10'000; ++i) {
        ASSERT_TRUE(camera.publish(payload(100, i)).published());
    }
    EXPECT_LT(watch.elapsed(), 2s) << "a wait of a millisecond for each would take 10";
}

TEST_F(Frames, refused_names_are_told_with_the_centers_reason) {
    ZAV_SHM_Frame_Publisher camera({.name = "NOBODY"});
    const auto opened = camera.open();
    EXPECT_FALSE(opened);
    EXPECT_TRUE(opened.refused);
    EXPECT_EQ(opened.reason, "NOBODY/0/0: Can't Find Channel 0, Stream 0 Distributor");
    EXPECT_EQ(camera.publish(payload(1)).outcome, Publish_Outcome::refused);
    EXPECT_EQ(camera.publish(payload(1)).reason, opened.reason);
    ZAV_SHM_Frame_Subscriber player({.name = "PLAYER", .producer = "CAM_LOOP", .channel = 9});
    EXPECT_FALSE(player.open());
    EXPECT_EQ(player.state(), Frame_State::refused);
    Received_Frame frame;
    EXPECT_EQ(player.receive(frame, 0ms), Receive_Status::timeout);
}

TEST_F(Frames, closing_ends_a_blocked_receive_in_time) {
    ZAV_SHM_Frame_Publisher camera({.name = "CAM_LOOP"});
    for (const bool has_ring : {false, true}) {
        ZAV_SHM_Frame_Subscriber player({.name = "PLAYER", .producer = "CAM_LOOP"});
        if (has_ring) {
            ASSERT_TRUE(camera.open());
        }
        ASSERT_TRUE(player.open());
        Received_Frame frame;
        std::thread reader([&] { EXPECT_EQ(player.receive(frame, 20s), Receive_Status::closed); });
        std::this_thread::sleep_for(20ms);
        const Stopwatch watch;
        player.close(10ms);
        EXPECT_LT(watch.elapsed(), 500ms);
        reader.join();
        EXPECT_EQ(player.receive(frame, 0ms), Receive_Status::closed);
        EXPECT_EQ(player.state(), Frame_State::closed);
    }
}

TEST_F(Flowing_Frames, go_on_while_the_center_is_away_and_is_found_again) {
    stop();
    for (int i = 0; i < 50; ++i) {
        ASSERT_TRUE(passes_one());
        EXPECT_EQ(frame.before.lost(), 0U);
    }
    start();
    EXPECT_TRUE(becomes_true([this] { return camera.counters().recoveries == 1; }));
    EXPECT_TRUE(becomes_true([this] { return player.counters().recoveries == 1; }));
    ASSERT_TRUE(passes_one());
    EXPECT_FALSE(frame.epoch_changed);
    EXPECT_EQ(frame.before.lost(), 0U);
    EXPECT_EQ(center->ring_consumers()->snapshot().size(), 1U);
}

TEST_F(Flowing_Frames, of_a_silent_producer_are_waited_for) {
    EXPECT_EQ(player.state(), Frame_State::connected);
    EXPECT_EQ(player.receive(frame, 1100ms), Receive_Status::timeout);
    EXPECT_EQ(player.state(), Frame_State::waiting_for_producer);
    ASSERT_TRUE(passes_one());
    EXPECT_EQ(player.state(), Frame_State::connected);
}

TEST_F(Frames_Without_Center, flow_all_the_same_and_are_registered_when_one_comes) {
    ZAV_SHM_Frame_Publisher camera({.name = "CAM_LOOP", .center_wait = 100ms});
    const Stopwatch watch;
    const auto opened = camera.open();
    EXPECT_GE(watch.elapsed(), 100ms);
    EXPECT_FALSE(opened);
    EXPECT_EQ(opened.reason, "no center is running");
    EXPECT_FALSE(opened.refused);
    EXPECT_EQ(opened.state, Frame_State::waiting_for_center);
    make_folder("shm");
    ZAV_SHM_Frame_Subscriber player({.name = "PLAYER", .producer = "CAM_LOOP", .center_wait = 0ms});
    EXPECT_FALSE(player.open());
    EXPECT_EQ(player.state(), Frame_State::waiting_for_center);
    Received_Frame frame;
    for (int i = 0; i < 20; ++i) {
        ASSERT_TRUE(camera.publish(payload(100, i)).published());
        ASSERT_EQ(player.receive(frame, 1s), Receive_Status::frame);
        EXPECT_TRUE(equal(frame.payload(), payload(100, i)));
    }
    auto config = parsed(small_configuration);
    ZAV_SHM_CONFIG* borrowed = config.get();
    std::unique_ptr<ZAV_SHM_CENTER> center;
    output_of([&] { center = std::make_unique<ZAV_SHM_CENTER>(borrowed); });
    announce_leftovers_of(*config);
    EXPECT_TRUE(becomes_true([&] { return camera.state() == Frame_State::connected; }));
    EXPECT_TRUE(becomes_true([&] { return !center->ring_consumers()->snapshot().empty(); }));
    ASSERT_TRUE(camera.publish(payload(100)).published());
    ASSERT_EQ(player.receive(frame, 1s), Receive_Status::frame);
    EXPECT_EQ(frame.before.lost(), 0U);
    player.close();
    camera.close();
    center->shutdown();
}

// A center that does not know them is obeyed, also when it comes later.
TEST_F(Frames_Without_Center, end_when_a_center_comes_that_refuses) {
    ZAV_SHM_Frame_Publisher camera({.name = "UNKNOWN", .center_wait = 0ms});
    ZAV_SHM_Frame_Subscriber player({.name = "PLAYER", .producer = "UNKNOWN", .center_wait = 0ms});
    EXPECT_FALSE(camera.open());
    EXPECT_FALSE(player.open());
    make_folder("shm");
    ASSERT_TRUE(camera.publish(payload(1)).published());
    auto config = parsed(small_configuration);
    ZAV_SHM_CONFIG* borrowed = config.get();
    std::unique_ptr<ZAV_SHM_CENTER> center;
    output_of([&] { center = std::make_unique<ZAV_SHM_CENTER>(borrowed); });
    announce_leftovers_of(*config);
    EXPECT_TRUE(becomes_true(
        [&] { return camera.publish(payload(1)).outcome == Publish_Outcome::refused; }));
    EXPECT_TRUE(becomes_true([&] { return player.state() == Frame_State::refused; }));
    player.close();
    camera.close();
    center->shutdown();
}

// The sanitizers need address space for themselves.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

// Leaves this process so much address space beside what it has.
bool limit_address_space(std::size_t bytes) {
    std::ifstream file("/proc/self/statm");
    std::size_t pages = 0;
    file >> pages;
    rlimit limit{};
    limit.rlim_cur = pages * static_cast<std::size_t>(sysconf(_SC_PAGESIZE)) + bytes;
    limit.rlim_max = limit.rlim_cur;
    return pages > 0 && setrlimit(RLIMIT_AS, &limit) == 0;
}

// A small frame, a great one that there is no memory for, a small one. Returns 0 when all was told.
int receive_without_memory(std::size_t great, std::size_t memory) {
    ZAV_SHM_Frame_Subscriber tap({.producer = "CAM_LOOP", .from = zav_shm::start::oldest});
    Received_Frame frame;
    if (!tap.open() || tap.receive(frame, 5s) != Receive_Status::frame || frame.length != 100) {
        return 1;
    }
    if (!limit_address_space(memory)) {
        return 2;
    }
    if (tap.receive(frame, 5s) != Receive_Status::frame || frame.length != 200) {
        return 3;
    }
    if (frame.before.no_memory != 1 || frame.before.lost() != 1 || frame.header.sequence != 3) {
        return 4;
    }
    const auto counters = tap.counters();
    return counters.no_memory == 1 && counters.lost() == 1 && counters.frames == 2 && great > memory
               ? 0
               : 5;
}

TEST_F(Frames, that_there_is_no_memory_for_are_lost_and_told) {
    // More than the 64 MiB of address space that malloc keeps in reserve for each thread.
    constexpr std::size_t great = std::size_t{80} << 20U;
    ZAV_SHM_Frame_Publisher camera({.name = "CAM_LOOP", .frame_bytes_max = great});
    ASSERT_TRUE(camera.open());
    for (const std::size_t length : {std::size_t{100}, great, std::size_t{200}}) {
        ASSERT_EQ(camera.loan(length).size(), length);  // in the ring: nothing is left in the heap
        ASSERT_TRUE(camera.commit(length).published());
    }
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        _exit(receive_without_memory(great, great / 2));
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0) << "exit status " << WEXITSTATUS(status);
}

#endif

}  // namespace
