// SPDX-License-Identifier: Apache-2.0
//
// Publishers and subscribers of this process at a center of this process.
#include <algorithm>
#include <atomic>
#include <future>
#include <new>
#include <thread>
#include <utility>
#include <vector>

#include "../center/center_fixture.h"
#include "control/center_page.h"
#include "frame/frame_dual_subscriber.h"
#include "frame/frame_publisher.h"
#include "frame/frame_subscriber.h"
#include "support/pid_namespace.h"

using namespace std::chrono_literals;
using zav_shm::Frame_State;
using zav_shm::Publish_Outcome;
using zav_shm::Receive_Status;
using zav_shm::Received_Frame;

namespace {

class Frames : public Center {
protected:
    void SetUp() override {
        Center::SetUp();
        start();
    }

    static std::vector<std::byte> payload(std::size_t length, int seed) {
        std::vector<std::byte> bytes(length);
        std::generate(bytes.begin(), bytes.end(),
                      [n = seed]() mutable { return static_cast<std::byte>(n += 7); });
        return bytes;
    }

    static bool equal(std::span<const std::byte> left, const std::vector<std::byte>& right) {
        return std::equal(left.begin(), left.end(), right.begin(), right.end());
    }

    // A presence that was announced before may still be taken.
    static bool becomes_lonely(ZAV_SHM_Frame_Publisher& producer) {
        return becomes_true([&] {
            return producer.publish(payload(5, 1)).outcome == Publish_Outcome::no_consumer;
        });
    }

    // A frame that the subscriber gets: the first ones may find it not present yet.
    static bool pass_one(ZAV_SHM_Frame_Publisher& from, ZAV_SHM_Frame_Subscriber& to,
                         Received_Frame& frame) {
        const auto sent = payload(100, 3);
        return becomes_true([&] {
            return from.publish(sent).delivered() &&
                   to.receive(frame, 1s) == Receive_Status::frame && equal(frame.payload(), sent);
        });
    }
};

// Of a producer and a consumer that are both at work.
class Flowing_Frames : public Frames {
protected:
    void SetUp() override {
        Frames::SetUp();
        ASSERT_TRUE(player.open());
        ASSERT_TRUE(camera.open());
        ASSERT_TRUE(pass_one(camera, player, frame));
    }
    void TearDown() override {
        player.close();
        camera.close();
        Frames::TearDown();
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
    ASSERT_TRUE(pass_one(camera, player, frame));
    for (int i = 0; i < 200; ++i) {
        const auto sent = payload(static_cast<std::size_t>(i * 20), i);
        const auto result = camera.publish(
            sent, {.flags = zav_shm::frame_flag::key_frame, .pts = std::chrono::nanoseconds(i)});
        ASSERT_TRUE(result.delivered()) << result.reason;
        ASSERT_EQ(player.receive(frame, 5s), Receive_Status::frame);
        EXPECT_TRUE(equal(frame.payload(), sent));
        EXPECT_TRUE(frame.verified && frame.is_key_frame());
        EXPECT_EQ(frame.header.pts_ns, i);
        EXPECT_EQ(frame.header.width, 1280U);
        EXPECT_EQ(frame.lost, 0U);
        EXPECT_EQ(frame.header.epoch, camera.epoch());
    }
    EXPECT_EQ(player.state(), Frame_State::connected);
    EXPECT_EQ(player.counters().lost, 0U);
    EXPECT_GE(player.counters().latency.count(), 201U);
}

TEST_F(Frames, that_nobody_wants_are_counted_and_number_the_next) {
    ZAV_SHM_Frame_Publisher camera({.name = "CAM_LOOP"});
    ASSERT_TRUE(camera.open());
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(camera.publish(payload(10, i)).outcome, Publish_Outcome::no_consumer);
    }
    EXPECT_EQ(camera.counters().no_consumer, 5U);
    EXPECT_EQ(camera.counters().frames, 5U);
    ZAV_SHM_Frame_Subscriber player({.name = "PLAYER", .producer = "CAM_LOOP"});
    ASSERT_TRUE(player.open());
    Received_Frame frame;
    ASSERT_TRUE(pass_one(camera, player, frame));
    EXPECT_GT(frame.header.sequence, 5U);
    EXPECT_EQ(frame.lost, 0U);
}

TEST_F(Frames, longer_than_the_page_are_refused_with_both_sizes) {
    ZAV_SHM_Frame_Publisher camera({.name = "CAM_LOOP"});
    ASSERT_TRUE(camera.open());
    const auto result = camera.publish(payload(4097, 1));
    EXPECT_EQ(result.outcome, Publish_Outcome::too_large);
    EXPECT_EQ(result.payload_bytes, 4097U);
    EXPECT_EQ(result.limit_bytes, 4096U);
    EXPECT_EQ(result.reason, "payload of 4097 bytes, page size of CAM_LOOP/0/0 is 4096");
}

TEST_F(Frames, can_be_written_in_place) {
    ZAV_SHM_Frame_Subscriber player({.name = "PLAYER", .producer = "CAM_LOOP"});
    ZAV_SHM_Frame_Publisher camera({.name = "CAM_LOOP"});
    ASSERT_TRUE(player.open());
    ASSERT_TRUE(camera.open());
    std::span<std::byte> room;
    ASSERT_TRUE(becomes_true([&] { return !(room = camera.loan()).empty(); }));
    EXPECT_EQ(room.size(), 4096U);
    std::fill_n(room.begin(), 10, std::byte{42});
    ASSERT_TRUE(camera.commit(10).delivered());
    Received_Frame frame;
    ASSERT_EQ(player.receive(frame, 5s), Receive_Status::frame);
    EXPECT_TRUE(equal(frame.payload(), std::vector<std::byte>(10, std::byte{42})));
    EXPECT_EQ(camera.commit(10).outcome, Publish_Outcome::no_consumer);
}

TEST_F(Flowing_Frames, may_be_published_after_a_loan_that_was_not_used) {
    const std::uint64_t last = frame.header.sequence;
    EXPECT_TRUE(becomes_true([&] { return !camera.loan().empty(); }));
    EXPECT_EQ(camera.commit(4097).outcome, Publish_Outcome::too_large);
    EXPECT_TRUE(becomes_true([&] { return !camera.loan().empty(); }));
    EXPECT_TRUE(camera.publish(payload(20, 3)).delivered());
    ASSERT_EQ(player.receive(frame, 5s), Receive_Status::frame);
    EXPECT_EQ(frame.payload().size(), 20U);
    EXPECT_EQ(frame.header.sequence, last + 1 + frame.lost);
    camera.close();
    EXPECT_EQ(camera.publish(payload(20, 3)).outcome, Publish_Outcome::no_center);
}

// More milliseconds than the long of a 32-bit target holds, and more than can be added to a clock.
TEST_F(Frames, come_to_a_receive_that_may_take_a_month_or_for_ever) {
    constexpr auto for_ever = std::chrono::milliseconds::max();
    ZAV_SHM_Frame_Subscriber player(
        {.name = "PLAYER", .producer = "CAM_LOOP", .center_wait = for_ever});
    ZAV_SHM_Frame_Publisher camera({.name = "CAM_LOOP", .center_wait = for_ever});
    ASSERT_TRUE(player.open());
    ASSERT_TRUE(camera.open());
    std::atomic<bool> has_come{false};
    std::thread feeding([&] {
        becomes_true([&] {
            camera.publish(payload(10, 1));
            return has_come.load();
        });
        player.close();  // ends the wait for frames that do not come
    });
    Received_Frame frame;
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(player.receive(frame, 24h * 30), Receive_Status::frame);
        EXPECT_EQ(player.receive(frame, for_ever), Receive_Status::frame);
    }
    has_come = true;
    feeding.join();
}

TEST_F(Frames, come_from_the_next_key_frame_on_after_the_queue_was_full) {
    ZAV_SHM_Frame_Subscriber player({.name = "PLAYER", .producer = "CAM_LOOP", .queue_frames = 1});
    ZAV_SHM_Frame_Publisher camera({.name = "CAM_LOOP"});
    ASSERT_TRUE(player.open());
    ASSERT_TRUE(camera.open());
    const auto deliver = [&camera](std::uint16_t flags) {
        return becomes_true(
            [&] { return camera.publish(payload(100, 1), {.flags = flags}).delivered(); });
    };
    Received_Frame frame;
    ASSERT_TRUE(pass_one(camera, player, frame));
    ASSERT_TRUE(deliver(zav_shm::frame_flag::key_frame));
    ASSERT_EQ(player.receive(frame, 5s), Receive_Status::frame);
    ASSERT_TRUE(deliver(0) && deliver(0));
    ASSERT_TRUE(becomes_true([&] { return player.counters().dropped == 1; }));
    ASSERT_EQ(player.receive(frame, 5s), Receive_Status::frame);
    EXPECT_EQ(frame.dropped, 0U);
    auto received = std::async(std::launch::async, [&] { return player.receive(frame, 5s); });
    std::this_thread::sleep_for(50ms);  // it waits there
    EXPECT_TRUE(deliver(0) && deliver(zav_shm::frame_flag::key_frame));
    ASSERT_EQ(received.get(), Receive_Status::frame);
    EXPECT_TRUE(frame.is_key_frame());
    EXPECT_EQ(frame.dropped, 2U);
    EXPECT_EQ(player.counters().dropped, 2U);
}

TEST_F(Flowing_Frames, go_to_a_reader_in_place_that_came_while_one_was_waited_for) {
    const ZAV_SHM_Frame_Subscriber::In_Place once{
        .read = [](const Received_Frame&, std::span<const std::byte>) {},
        .judged = [](const Received_Frame&, bool whole) { return !whole; }};
    for (int i = 0; i < 20; ++i) {
        std::thread feeding([this] {
            std::this_thread::sleep_for(3ms);
            EXPECT_TRUE(becomes_true([this] { return camera.publish(payload(9, 1)).delivered(); }));
        });
        EXPECT_EQ(player.read_in_place(once, 1s), Receive_Status::frame) << i;
        feeding.join();
    }
    EXPECT_EQ(player.receive(frame, 0ms), Receive_Status::timeout) << "nothing went to the queue";
}

TEST_F(Flowing_Frames, can_be_read_in_place_one_after_the_other) {
    const auto sent = payload(300, 5);
    std::atomic<bool> ends{false};
    std::thread producer([&] {
        while (!ends) {
            camera.publish(sent);
        }
    });
    int whole = 0;
    bool same = true;
    const auto status = player.read_in_place(
        {.read = [&](const Received_Frame&, auto bytes) { same = same && equal(bytes, sent); },
         .judged =
             [&](const Received_Frame& read, bool is_whole) {
                 whole += is_whole ? 1 : 0;
                 EXPECT_TRUE(read.verified);
                 return whole < 15;
             }},
        20s);
    EXPECT_EQ(status, Receive_Status::frame);
    EXPECT_EQ(whole, 15);
    EXPECT_TRUE(same);
    EXPECT_EQ(player.receive(frame, 5s), Receive_Status::frame);  // the queue takes over again
    ends = true;
    producer.join();
}

TEST_F(Flowing_Frames, that_there_is_no_memory_for_are_lost_and_told) {
    std::atomic<bool> ends{false};
    std::thread producer([&] {
        while (!ends) {
            camera.publish(payload(300, 5));
        }
    });
    bool memory_is_out = true;
    std::uint64_t told = 0;
    const auto status = player.read_in_place({.read =
                                                  [&](const Received_Frame&, auto) {
                                                      if (std::exchange(memory_is_out, false)) {
                                                          throw std::bad_alloc();
                                                      }
                                                  },
                                              .judged =
                                                  [&](const Received_Frame& read, bool is_whole) {
                                                      told = read.lost;
                                                      return !is_whole;
                                                  }},
                                             20s);
    ends = true;
    producer.join();
    EXPECT_EQ(status, Receive_Status::frame);
    EXPECT_GE(told, 1U);
    EXPECT_EQ(player.counters().no_memory, 1U);
}

TEST_F(Frames, reading_in_place_ends_in_time_and_when_the_subscriber_is_closed) {
    ZAV_SHM_Frame_Subscriber player({.name = "PLAYER", .producer = "CAM_LOOP"});
    ASSERT_TRUE(player.open());
    const ZAV_SHM_Frame_Subscriber::In_Place reader{
        .read = [](const Received_Frame&, auto) {},
        .judged = [](const Received_Frame&, bool) { return true; }};
    EXPECT_EQ(player.read_in_place(reader, 50ms), Receive_Status::timeout);
    std::thread other(
        [&] { EXPECT_EQ(player.read_in_place(reader, 20s), Receive_Status::closed); });
    std::this_thread::sleep_for(20ms);
    player.close();
    other.join();
    EXPECT_EQ(player.read_in_place(reader, 20s), Receive_Status::closed);
}

// Both cameras of a picture in a thread of their own, with a key frame as every fifth.
class Camera {
public:
    Camera() : main_({.name = "CAM_LOOP"}), sub_({.name = "CAM_LOOP", .stream = 1}) {
        EXPECT_TRUE(main_.open());
        EXPECT_TRUE(sub_.open());
        thread_ = std::thread([this] {
            for (int number = 0; !ends_; ++number) {
                const auto flags =
                    number % 5 == 0 ? zav_shm::frame_flag::key_frame : std::uint16_t{0};
                main_.publish({}, {.flags = flags});
                sub_.publish({}, {.flags = flags});
                std::this_thread::sleep_for(10ms);
            }
        });
    }
    ~Camera() {
        ends_ = true;
        thread_.join();
    }
    Camera(const Camera&) = delete;
    Camera& operator=(const Camera&) = delete;

    std::uint64_t epoch(int stream) const { return stream == 0 ? main_.epoch() : sub_.epoch(); }

private:
    ZAV_SHM_Frame_Publisher main_;
    ZAV_SHM_Frame_Publisher sub_;
    std::atomic<bool> ends_{false};
    std::thread thread_;
};

TEST_F(Frames, of_main_and_sub_change_over_at_a_key_frame_and_without_a_gap) {
    const Camera camera;
    ZAV_SHM_Frame_Dual_Subscriber player({.name = "PLAYER", .producer = "CAM_LOOP"}, 1);
    ASSERT_TRUE(player.open());
    Received_Frame frame;
    std::uint64_t last_epoch = 0;
    std::uint64_t last_sequence = 0;
    std::int64_t last_published = 0;
    for (int number = 0; number < 120; ++number) {
        if (number % 30 == 20) {
            ASSERT_TRUE(player.select(number % 60 == 20 ? ZAV_SHM_Frame_Dual_Subscriber::sub
                                                        : ZAV_SHM_Frame_Dual_Subscriber::main));
        }
        ASSERT_EQ(player.receive(frame, 5s), Receive_Status::frame) << number;
        EXPECT_EQ(frame.header.epoch, camera.epoch(player.current()));
        if (frame.header.epoch == last_epoch) {
            EXPECT_EQ(frame.header.sequence, last_sequence + 1) << number;
        } else {
            EXPECT_TRUE(frame.is_key_frame()) << number;
        }
        // The picture at a change may come from both streams, one right after the other.
        EXPECT_GT(frame.header.publish_ns, last_published - 9'000'000) << number;
        EXPECT_LT(last_published == 0 ? 0 : frame.header.publish_ns - last_published, 100'000'000);
        last_epoch = frame.header.epoch;
        last_sequence = frame.header.sequence;
        last_published = frame.header.publish_ns;
    }
    EXPECT_EQ(player.changes(), 4U);
    EXPECT_EQ(player.counters(ZAV_SHM_Frame_Dual_Subscriber::main).recoveries, 0U);
}

TEST_F(Frames, of_the_present_stream_go_on_when_a_change_is_taken_back) {
    const Camera camera;
    ZAV_SHM_Frame_Dual_Subscriber player({.name = "PLAYER", .producer = "CAM_LOOP"}, 1);
    ASSERT_TRUE(player.open());
    Received_Frame frame;
    ASSERT_EQ(player.receive(frame, 5s), Receive_Status::frame);
    ASSERT_TRUE(player.select(ZAV_SHM_Frame_Dual_Subscriber::sub));
    EXPECT_TRUE(player.is_changing());
    ASSERT_TRUE(player.select(ZAV_SHM_Frame_Dual_Subscriber::main));
    EXPECT_FALSE(player.is_changing());
    for (int number = 0; number < 10; ++number) {
        ASSERT_EQ(player.receive(frame, 5s), Receive_Status::frame);
        EXPECT_EQ(frame.header.epoch, camera.epoch(0));
        EXPECT_EQ(frame.lost, 0U);
    }
    player.close();
    EXPECT_EQ(player.receive(frame, 1s), Receive_Status::closed);
}

// Both streams have been taken when the application comes: the older pictures are not lost.
TEST_F(Frames, of_the_present_stream_from_before_the_change_come_first) {
    ZAV_SHM_Frame_Publisher main({.name = "CAM_LOOP"});
    ZAV_SHM_Frame_Publisher sub({.name = "CAM_LOOP", .stream = 1});
    ASSERT_TRUE(main.open());
    ASSERT_TRUE(sub.open());
    ZAV_SHM_Frame_Dual_Subscriber player({.name = "PLAYER", .producer = "CAM_LOOP"}, 1);
    EXPECT_EQ(player.state(), Frame_State::closed);
    ASSERT_TRUE(player.open());
    ASSERT_TRUE(player.select(ZAV_SHM_Frame_Dual_Subscriber::sub));
    const zav_shm::Frame_Info key{.flags = zav_shm::frame_flag::key_frame};
    // One more may be on its way when the third is seen.
    EXPECT_TRUE(becomes_true([&] {
        static_cast<void>(main.publish(payload(10, 1), key));
        return player.counters(ZAV_SHM_Frame_Dual_Subscriber::main).queued >= 3;
    }));
    EXPECT_TRUE(becomes_true([&] {
        static_cast<void>(sub.publish(payload(10, 2), key));
        return player.counters(ZAV_SHM_Frame_Dual_Subscriber::sub).queued >= 1;
    }));
    Received_Frame frame;
    int of_main = 0;
    ASSERT_EQ(player.receive(frame, 5s), Receive_Status::frame);
    for (; frame.header.epoch == main.epoch(); ++of_main) {
        EXPECT_EQ(player.changes(), 0U);
        ASSERT_EQ(player.receive(frame, 5s), Receive_Status::frame);
    }
    EXPECT_GE(of_main, 3);
    EXPECT_EQ(frame.header.epoch, sub.epoch());
    EXPECT_EQ(player.changes(), 1U);
    EXPECT_EQ(player.state(), Frame_State::connected);
}

TEST_F(Frames, of_the_stream_that_was_chosen_before_opening_come) {
    ZAV_SHM_Frame_Dual_Subscriber player({.name = "PLAYER", .producer = "CAM_LOOP"}, 1);
    EXPECT_FALSE(player.select(ZAV_SHM_Frame_Dual_Subscriber::sub));
    const Camera camera;
    ASSERT_TRUE(player.open());
    Received_Frame frame;
    EXPECT_TRUE(becomes_true([&] {
        return player.receive(frame, 1s) == Receive_Status::frame &&
               frame.header.epoch == camera.epoch(1);
    }));
}

TEST_F(Frames, of_another_producer_come_after_pairing_while_a_thread_is_receiving) {
    ZAV_SHM_Frame_Subscriber player({.name = "PLAYER", .producer = "CAM_LOOP"});
    ZAV_SHM_Frame_Publisher loop({.name = "CAM_LOOP"});
    ZAV_SHM_Frame_Publisher rec({.name = "CAM_REC"});
    ASSERT_TRUE(player.open());
    ASSERT_TRUE(loop.open());
    ASSERT_TRUE(rec.open());
    Received_Frame frame;
    ASSERT_TRUE(pass_one(loop, player, frame));
    std::thread reader([&] { EXPECT_EQ(player.receive(frame, 20s), Receive_Status::frame); });
    output_of([&] { EXPECT_TRUE(player.pair("CAM_REC")); });
    EXPECT_TRUE(becomes_true([&] { return rec.publish(payload(5, 1)).delivered(); }));
    reader.join();
    EXPECT_EQ(frame.header.epoch, rec.epoch());
    EXPECT_TRUE(frame.epoch_changed);
    EXPECT_TRUE(becomes_lonely(loop));
}

// The semaphores of the former center are of no use with the slot that the new one grants.
TEST_F(Flowing_Frames, of_another_producer_come_after_pairing_at_a_center_that_has_just_started) {
    ZAV_SHM_Frame_Publisher rec({.name = "CAM_REC"});
    stop();
    start();
    ASSERT_TRUE(player.pair("CAM_REC", 20s));
    const auto before = player.counters().timeouts_no_frame;
    EXPECT_TRUE(becomes_true([&] { return player.counters().timeouts_no_frame > before + 1; }))
        << "the relay notices the new handles";
    ASSERT_TRUE(rec.open());
    EXPECT_TRUE(becomes_true([&] {
        rec.publish(payload(5, 1));
        return player.receive(frame, 100ms) == Receive_Status::frame &&
               frame.header.epoch == rec.epoch();
    }));
    EXPECT_EQ(player.counters().recoveries, 0U) << "it was not without a center";
}

TEST_F(Flowing_Frames, end_when_the_consumer_is_paired_with_none_and_come_again) {
    EXPECT_FALSE(player.pair("NONE"));
    EXPECT_TRUE(becomes_lonely(camera));
    EXPECT_EQ(player.state(), Frame_State::waiting_for_producer);
    EXPECT_TRUE(player.pair("CAM_LOOP"));
    EXPECT_TRUE(pass_one(camera, player, frame));
}

TEST_F(Frames, pairing_with_an_unknown_producer_is_refused_and_changes_nothing) {
    ZAV_SHM_Frame_Subscriber player({.name = "PLAYER", .producer = "CAM_LOOP"});
    ZAV_SHM_Frame_Publisher camera({.name = "CAM_LOOP"});
    ASSERT_TRUE(player.open());
    ASSERT_TRUE(camera.open());
    const auto paired = player.pair("NOBODY");
    EXPECT_FALSE(paired);
    EXPECT_EQ(paired.reason, "PLAYER/0/0: Can't Find Shm Pair Name NOBODY");
    Received_Frame frame;
    EXPECT_TRUE(pass_one(camera, player, frame));
}

TEST_F(Frames, come_from_one_producer_only_whoever_fed_the_consumer_before) {
    ZAV_SHM_Frame_Publisher loop({.name = "CAM_LOOP"});
    ZAV_SHM_Frame_Publisher rec({.name = "CAM_REC"});
    ASSERT_TRUE(loop.open());
    ASSERT_TRUE(rec.open());
    client.ask(R"({"command":"pair_src","type":"Receiver","name":"PLAYER","pair_name":"CAM_REC",
                   "channel":0,"stream":0})");
    ZAV_SHM_Frame_Subscriber player({.name = "PLAYER", .producer = "CAM_LOOP"});
    ASSERT_TRUE(player.open());
    Received_Frame frame;
    ASSERT_TRUE(pass_one(loop, player, frame));
    EXPECT_TRUE(becomes_lonely(rec));
    for (int i = 0; i < 50; ++i) {
        EXPECT_EQ(rec.publish(payload(5, 1)).outcome, Publish_Outcome::no_consumer);
        ASSERT_TRUE(loop.publish(payload(5, 1)).delivered()) << i;
        ASSERT_EQ(player.receive(frame, 1s), Receive_Status::frame);
        EXPECT_EQ(frame.lost, 0U);
    }
}

TEST_F(Frames, refused_names_are_told_with_the_centers_reason) {
    ZAV_SHM_Frame_Publisher camera({.name = "NOBODY"});
    const auto opened = camera.open();
    EXPECT_FALSE(opened);
    EXPECT_TRUE(opened.refused);
    EXPECT_EQ(opened.reason, "NOBODY/0/0: Can't Find Channel 0, Stream 0 Distributor");
    EXPECT_EQ(camera.publish(payload(1, 1)).outcome, Publish_Outcome::refused);
    ZAV_SHM_Frame_Subscriber player({.name = "PLAYER", .producer = "CAM_LOOP", .channel = 9});
    EXPECT_FALSE(player.open());
}

TEST_F(Frames, closing_ends_a_blocked_receive_and_leaves_the_producer) {
    ZAV_SHM_Frame_Subscriber player({.name = "PLAYER", .producer = "CAM_LOOP"});
    ZAV_SHM_Frame_Publisher camera({.name = "CAM_LOOP"});
    ASSERT_TRUE(player.open());
    ASSERT_TRUE(camera.open());
    Received_Frame frame;
    std::thread reader([&] { EXPECT_EQ(player.receive(frame, 20s), Receive_Status::closed); });
    std::this_thread::sleep_for(20ms);
    player.close();
    reader.join();
    EXPECT_TRUE(becomes_lonely(camera));
    EXPECT_EQ(player.receive(frame, 0ms), Receive_Status::closed);
}

TEST_F(Flowing_Frames, go_on_by_themselves_after_the_center_was_restarted) {
    stop();
    EXPECT_TRUE(becomes_lonely(camera));
    start();
    ASSERT_TRUE(pass_one(camera, player, frame));
    EXPECT_FALSE(frame.epoch_changed);
    EXPECT_GT(frame.lost, 0U);
    EXPECT_EQ(camera.counters().recoveries, 1U);
    EXPECT_EQ(player.counters().recoveries, 1U);
}

TEST_F(Flowing_Frames, go_on_after_the_consumer_was_kicked) {
    client.ask(
        R"({"command":"deregister","type":"Receiver","name":"PLAYER","channel":0,"stream":0})");
    ASSERT_TRUE(pass_one(camera, player, frame));
    EXPECT_EQ(player.counters().recoveries, 1U);
}

TEST_F(Frames, that_do_not_come_are_counted_by_cause) {
    ZAV_SHM_Frame_Subscriber player({.name = "PLAYER", .producer = "CAM_LOOP"});
    ASSERT_TRUE(player.open());
    EXPECT_TRUE(becomes_true([&] { return player.counters().timeouts_no_frame >= 3; }));
    const auto before = player.counters().timeouts_no_relay;
    client.ask(
        R"({"command":"deregister","type":"Receiver","name":"PLAYER","channel":0,"stream":0})");
    EXPECT_TRUE(becomes_true([&] { return player.counters().timeouts_no_relay >= before + 3; }));
}

// As in a container: the center's process id means nothing there.
TEST_F(Frames, that_nobody_wants_are_no_sign_of_a_dead_center_in_another_pid_namespace) {
    leaves_segment("shm/center_page");
    zav_shm::Center_Page page;
    page.epoch = 1;
    page.pid = static_cast<std::uint32_t>(getpid());
    const auto held = zav_shm::hold_center_page("/shm", page);
    const auto idle_outcome = [] {
        ZAV_SHM_Frame_Publisher camera({.name = "CAM_LOOP"});
        if (!camera.open()) {
            return 99;
        }
        auto outcome = Publish_Outcome::no_consumer;
        for (int i = 0; i < 15; ++i) {
            const auto now = camera.publish(payload(10, i)).outcome;
            outcome = now == Publish_Outcome::no_consumer ? outcome : now;
            std::this_thread::sleep_for(10ms);
        }
        return static_cast<int>(outcome);
    };
    EXPECT_EQ(result_in_pid_namespace(idle_outcome),
              static_cast<int>(Publish_Outcome::no_consumer));
}

class Frames_Without_Center : public Control_Queues {};

using Late_Center = Center;

TEST_F(Frames_Without_Center, are_told_so_within_the_time_given) {
    ZAV_SHM_Frame_Publisher camera({.name = "CAM_LOOP", .center_wait = 200ms});
    const Stopwatch watch;
    const auto opened = camera.open();
    EXPECT_FALSE(opened);
    EXPECT_EQ(opened.reason, "no center is running");
    EXPECT_FALSE(opened.refused);
    EXPECT_EQ(opened.state, Frame_State::waiting_for_center);
    EXPECT_GE(watch.elapsed(), 200ms);
    EXPECT_EQ(camera.publish({}).outcome, Publish_Outcome::no_center);
    ZAV_SHM_Frame_Subscriber player(
        {.name = "PLAYER", .producer = "CAM_LOOP", .center_wait = 100ms});
    EXPECT_FALSE(player.open());
    Received_Frame frame;
    EXPECT_EQ(player.receive(frame, 10ms), Receive_Status::timeout);
    EXPECT_EQ(player.state(), Frame_State::waiting_for_center);
}

// Both deal with the center then. For the thread sanitizer.
TEST_F(Late_Center, grants_a_pairing_while_the_subscriber_is_being_opened) {
    ZAV_SHM_Frame_Subscriber player({.name = "PLAYER", .producer = "CAM_LOOP", .center_wait = 30s});
    std::thread opening([&player] { EXPECT_TRUE(player.open()); });
    std::this_thread::sleep_for(200ms);  // it looks more seldom by then
    start();
    EXPECT_TRUE(player.pair("CAM_REC", 20s));
    opening.join();
}

}  // namespace
