// SPDX-License-Identifier: Apache-2.0
//
// Where a subscriber begins, what it is told that it has missed, and reading in place.
#include <poll.h>

#include <filesystem>
#include <numeric>
#include <thread>

#include "frames_fixture.h"
#include "ipc/monotonic_clock.h"
#include "ring/reader_card.h"

using namespace std::chrono_literals;
using zav_shm::Frame_State;
using zav_shm::Overflow_Policy;
using zav_shm::Receive_Status;
using zav_shm::Received_Frame;
namespace start = zav_shm::start;

namespace {

std::vector<int> from_to(int first, int last) {
    std::vector<int> numbers(static_cast<std::size_t>(last - first + 1));
    std::iota(numbers.begin(), numbers.end(), first);
    return numbers;
}

class History : public Frames {
protected:
    void SetUp() override {
        Frames::SetUp();
        ASSERT_TRUE(camera.open());
    }
    void TearDown() override {
        camera.close();
        Frames::TearDown();
    }

    // What a subscriber that joins now receives of the history.
    static std::vector<int> read_from(zav_shm::Start from) {
        ZAV_SHM_Frame_Subscriber player({.name = "PLAYER", .producer = "CAM_LOOP", .from = from});
        EXPECT_TRUE(player.open());
        return numbers_in(player);
    }

    // Its history of 8192 bytes has entries for 64 frames.
    ZAV_SHM_Frame_Publisher camera{{.name = "CAM_LOOP"}};
};

TEST_F(History, begins_where_it_is_told_to) {
    publish_numbers(camera, 1, 15, 10);
    EXPECT_EQ(read_from(start::oldest), from_to(1, 15));
    EXPECT_EQ(read_from(start::last_key_frame), from_to(11, 15));
    EXPECT_EQ(read_from(start::newest_key), from_to(11, 15));
    EXPECT_EQ(read_from(start::newest), std::vector<int>{});
    EXPECT_EQ(read_from(start::back(1h)), from_to(1, 15)) << "the oldest key frame";
    EXPECT_EQ(read_from(start::back(0s)), from_to(11, 15));
}

TEST_F(History, goes_back_to_the_last_key_frame_before_the_moment) {
    publish_numbers(camera, 1, 15, 5);
    std::this_thread::sleep_for(60ms);
    publish_numbers(camera, 16, 25, 5);
    EXPECT_EQ(read_from(start::back(30ms)), from_to(11, 25));
    std::this_thread::sleep_for(40ms);
    EXPECT_EQ(read_from(start::back(30ms)), from_to(21, 25));
}

TEST_F(History, without_key_frames_goes_back_to_the_moment_itself) {
    publish_numbers(camera, 1, 5);
    std::this_thread::sleep_for(60ms);
    publish_numbers(camera, 6, 9);
    EXPECT_EQ(read_from(start::back(30ms)), from_to(6, 9));
    EXPECT_EQ(read_from(start::last_key_frame), std::vector<int>{});
}

TEST_F(History, hands_out_nothing_that_was_published_before_the_join_unless_asked) {
    publish_numbers(camera, 1, 10, 5);
    ZAV_SHM_Frame_Subscriber player({.name = "PLAYER", .producer = "CAM_LOOP"});
    ASSERT_TRUE(player.open());
    publish_numbers(camera, 11, 13, 5);
    Received_Frame frame;
    ASSERT_EQ(player.receive(frame, 1s), Receive_Status::frame);
    EXPECT_EQ(frame.payload().front(), std::byte{11});
    EXPECT_EQ(frame.before.lost(), 0U) << "losses count from the join";
    EXPECT_EQ(player.counters().lost(), 0U);
}

TEST_F(History, outlives_its_publisher) {
    publish_numbers(camera, 1, 10, 5);
    camera.close();
    EXPECT_EQ(read_from(start::oldest), from_to(1, 10));
    EXPECT_EQ(read_from(start::last_key_frame), from_to(6, 10));
    EXPECT_EQ(read_from(start::newest_key), std::vector<int>{}) << "it is no live stream";
    EXPECT_EQ(read_from(start::newest), std::vector<int>{});
}

TEST_F(History, that_somebody_has_removed_is_made_anew_and_no_reader_misses_anything) {
    ZAV_SHM_Frame_Subscriber player({.name = "PLAYER", .producer = "CAM_LOOP"});
    ASSERT_TRUE(player.open());
    publish_numbers(camera, 1, 3);
    for (const int first : {4, 7}) {
        std::filesystem::remove(std::string(rings) + "/CAM_LOOP_0_0");
        if (first == 7) {
            std::filesystem::remove(std::string(rings) + "/CAM_LOOP_0_0.lock");
        }
        std::this_thread::sleep_for(600ms);
        publish_numbers(camera, first, first + 2);
        EXPECT_EQ(read_from(start::oldest), from_to(first, first + 2)) << "by a newcomer";
        Received_Frame frame;
        for (int number = first == 4 ? 1 : first; number <= first + 2; ++number) {
            ASSERT_EQ(player.receive(frame, 5s), Receive_Status::frame) << number;
            EXPECT_EQ(frame.payload().front(), static_cast<std::byte>(number));
            EXPECT_EQ(frame.before.lost(), 0U) << number;
            EXPECT_FALSE(frame.epoch_changed);
        }
    }
}

TEST_F(History, of_the_successor_follows_when_the_former_one_is_read) {
    ZAV_SHM_Frame_Subscriber player({.name = "PLAYER", .producer = "CAM_LOOP"});
    ASSERT_TRUE(player.open());
    publish_numbers(camera, 1, 3);
    camera.close();
    ZAV_SHM_Frame_Publisher successor({.name = "CAM_LOOP"});
    ASSERT_TRUE(successor.open());
    publish_numbers(successor, 4, 6);
    Received_Frame frame;
    for (int number = 1; number <= 6; ++number) {
        ASSERT_EQ(player.receive(frame, 5s), Receive_Status::frame) << number;
        EXPECT_EQ(frame.payload().front(), static_cast<std::byte>(number));
        EXPECT_EQ(frame.epoch_changed, number == 4);
        EXPECT_EQ(frame.before.lost(), 0U);
    }
}

TEST_F(History, can_be_sought_in_at_any_time) {
    publish_numbers(camera, 1, 20, 10);
    ZAV_SHM_Frame_Subscriber player({.name = "PLAYER", .producer = "CAM_LOOP"});
    ASSERT_TRUE(player.open());
    player.seek(start::last_key_frame);
    EXPECT_EQ(numbers_in(player), from_to(11, 20));
    player.seek(start::oldest);
    EXPECT_EQ(numbers_in(player), from_to(1, 20));
    player.seek(start::oldest);
    player.seek(start::newest);
    publish_numbers(camera, 21, 21, 10);
    Received_Frame frame;
    ASSERT_EQ(player.receive(frame, 1s), Receive_Status::frame);
    EXPECT_EQ(frame.payload().front(), std::byte{21});
    EXPECT_EQ(frame.before.lost(), 0U);
}

class Overtaken : public Frames,
                  public testing::WithParamInterface<std::pair<Overflow_Policy, int>> {};

// 200 frames into a history of 64, with a key frame as every tenth.
TEST_P(Overtaken, subscriber_goes_on_as_it_wants_and_is_told_what_it_has_lost) {
    const auto [policy, first] = GetParam();
    ZAV_SHM_Frame_Publisher camera({.name = "CAM_LOOP"});
    ZAV_SHM_Frame_Subscriber player({.name = "PLAYER", .producer = "CAM_LOOP", .overflow = policy});
    ASSERT_TRUE(camera.open());
    ASSERT_TRUE(player.open());
    publish_numbers(camera, 1, 1, 10);
    Received_Frame frame;
    ASSERT_EQ(player.receive(frame, 1s), Receive_Status::frame);
    publish_numbers(camera, 2, 200, 10);
    ASSERT_EQ(player.receive(frame, 1s), Receive_Status::frame);
    EXPECT_EQ(std::to_integer<int>(frame.payload().front()), first);
    EXPECT_EQ(frame.before.overtaken + frame.before.dropped, static_cast<std::uint64_t>(first - 2));
    EXPECT_EQ(frame.before.left_out + frame.before.skipped + frame.before.no_memory, 0U);
    EXPECT_EQ(player.counters().overtaken + player.counters().dropped,
              frame.before.overtaken + frame.before.dropped);
    EXPECT_EQ(frame.is_key_frame(), policy == Overflow_Policy::drop_until_key_frame);
}

INSTANTIATE_TEST_SUITE_P(With, Overtaken,
                         testing::Values(std::pair{Overflow_Policy::drop_oldest, 146},
                                         std::pair{Overflow_Policy::drop_until_key_frame, 151},
                                         std::pair{Overflow_Policy::newest_only, 200}));

TEST_F(History, of_a_stream_without_key_frames_lets_nobody_starve) {
    ZAV_SHM_Frame_Subscriber player({.name = "PLAYER",
                                     .producer = "CAM_LOOP",
                                     .overflow = Overflow_Policy::drop_until_key_frame});
    ASSERT_TRUE(player.open());
    publish_numbers(camera, 1, 200);
    Received_Frame frame;
    ASSERT_EQ(player.receive(frame, 0s), Receive_Status::frame);
    EXPECT_GT(frame.before.overtaken, 100U);
}

TEST_F(History, leaves_out_what_comes_between_a_loss_and_a_key_frame_when_told_to) {
    ZAV_SHM_Frame_Subscriber player(
        {.name = "PLAYER", .producer = "CAM_LOOP", .key_frame_after_loss = true});
    ASSERT_TRUE(player.open());
    publish_numbers(camera, 1, 3, 10);
    EXPECT_EQ(numbers_in(player), from_to(1, 3));
    EXPECT_EQ(camera.publish(payload(5000)).outcome, zav_shm::Publish_Outcome::too_large);
    publish_numbers(camera, 4, 12, 10);
    Received_Frame frame;
    ASSERT_EQ(player.receive(frame, 0s), Receive_Status::frame);
    EXPECT_EQ(frame.payload().front(), std::byte{11});
    EXPECT_EQ(frame.before.left_out, 1U);
    EXPECT_EQ(frame.before.skipped, 7U);
}

TEST_F(History, of_a_stream_that_never_had_a_key_frame_goes_on_after_a_loss) {
    ZAV_SHM_Frame_Subscriber player(
        {.name = "PLAYER", .producer = "CAM_LOOP", .key_frame_after_loss = true});
    ASSERT_TRUE(player.open());
    publish_numbers(camera, 1, 3);
    EXPECT_EQ(numbers_in(player), from_to(1, 3));
    EXPECT_EQ(camera.publish(payload(5000)).outcome, zav_shm::Publish_Outcome::too_large);
    publish_numbers(camera, 4, 6);
    EXPECT_EQ(numbers_in(player), from_to(4, 6));
    EXPECT_EQ(player.counters().left_out, 1U);
    camera.close();
    ZAV_SHM_Frame_Publisher other({.name = "CAM_LOOP"});
    ASSERT_TRUE(other.open());
    publish_numbers(other, 7, 9);
    Received_Frame frame;
    ASSERT_EQ(player.receive(frame, 2s), Receive_Status::frame);
    EXPECT_EQ(frame.payload().front(), std::byte{7});
}

TEST_F(History, begins_at_a_key_frame_when_told_to) {
    ZAV_SHM_Frame_Subscriber player(
        {.name = "PLAYER", .producer = "CAM_LOOP", .start_at_key_frame = true});
    ASSERT_TRUE(player.open());
    publish_numbers(camera, 2, 9, 10);
    EXPECT_EQ(numbers_in(player), std::vector<int>{});
    EXPECT_EQ(player.counters().skipped, 8U) << "counts before a frame comes";
    publish_numbers(camera, 10, 12, 10);
    EXPECT_EQ(numbers_in(player), from_to(11, 12));
    EXPECT_EQ(player.counters().skipped, 9U);
}

TEST_F(History, can_be_read_where_it_lies) {
    ZAV_SHM_Frame_Subscriber player({.name = "PLAYER", .producer = "CAM_LOOP"});
    ASSERT_TRUE(player.open());
    const auto sent = payload(3000, 5);
    ASSERT_TRUE(camera.publish(sent).published());
    zav_shm::Frame_View view;
    ASSERT_EQ(player.receive_view(view, 1s), Receive_Status::frame);
    EXPECT_TRUE(equal(view.payload(), sent));
    EXPECT_EQ(view.header.sequence, 1U);
    player.close();
    camera.close();
    EXPECT_TRUE(equal(view.payload(), sent)) << "it keeps the history mapped";
    EXPECT_TRUE(view.is_whole());
}

TEST_F(History, tells_in_place_what_was_overwritten_since) {
    ZAV_SHM_Frame_Subscriber player({.name = "PLAYER", .producer = "CAM_LOOP"});
    ASSERT_TRUE(player.open());
    ASSERT_TRUE(camera.publish(payload(3000, 5)).published());
    zav_shm::Frame_View view;
    ASSERT_EQ(player.receive_view(view, 1s), Receive_Status::frame);
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(view.is_whole()) << i;
        ASSERT_TRUE(camera.publish(payload(3000, i)).published());
    }
    EXPECT_FALSE(view.is_whole());
}

TEST_F(History, read_by_copying_is_never_overwritten_under_the_reader) {
    ZAV_SHM_Frame_Subscriber player({.name = "PLAYER", .producer = "CAM_LOOP", .untrusting = true});
    ASSERT_TRUE(player.open());
    const auto sent = payload(3000, 5);
    ASSERT_TRUE(camera.publish(sent).published());
    zav_shm::Frame_View view;
    ASSERT_EQ(player.receive_view(view, 1s), Receive_Status::frame);
    publish_numbers(camera, 1, 200);
    EXPECT_TRUE(view.is_whole());
    EXPECT_TRUE(equal(view.payload(), sent));
    Received_Frame frame;
    EXPECT_EQ(player.receive(frame, 1s), Receive_Status::frame);
}

TEST_F(History, shows_by_its_descriptor_that_there_is_something) {
    ZAV_SHM_Frame_Subscriber player({.name = "PLAYER", .producer = "CAM_LOOP"});
    EXPECT_EQ(player.descriptor(), -1) << "not open";
    ASSERT_TRUE(player.open());
    const int descriptor = player.descriptor();
    ASSERT_GE(descriptor, 0);
    EXPECT_EQ(player.descriptor(), descriptor);
    const auto is_readable = [descriptor](int ms) {
        pollfd waited{descriptor, POLLIN, 0};
        return poll(&waited, 1, ms) == 1;
    };
    EXPECT_TRUE(is_readable(0)) << "at first: there may be";
    for (int i = 1; i <= 50; ++i) {
        EXPECT_EQ(numbers_in(player), std::vector<int>{});
        EXPECT_FALSE(is_readable(i % 10 == 0 ? 20 : 0)) << i;
        publish_numbers(camera, i, i);
        ASSERT_TRUE(is_readable(5000)) << i;
        EXPECT_EQ(numbers_in(player), std::vector<int>{i});
    }
    EXPECT_EQ(numbers_in(player), std::vector<int>{});
    camera.close();
    ZAV_SHM_Frame_Publisher successor({.name = "CAM_LOOP"});
    ASSERT_TRUE(successor.open());
    publish_numbers(successor, 51, 51);
    ASSERT_TRUE(becomes_true(
        [&] { return is_readable(5000) && numbers_in(player) == std::vector<int>{51}; }));
}

TEST_F(History, is_read_by_taps_that_no_center_knows) {
    ZAV_SHM_Frame_Subscriber tap({.producer = "CAM_LOOP", .from = start::oldest});
    publish_numbers(camera, 1, 5);
    ASSERT_TRUE(tap.open());
    EXPECT_EQ(numbers_in(tap), from_to(1, 5));
    EXPECT_TRUE(center->ring_consumers()->snapshot().empty());
    EXPECT_EQ(tap.state(), Frame_State::connected);
    EXPECT_FALSE(tap.pair("CAM_REC"));
    EXPECT_EQ(tap.pair("CAM_REC").reason, "a tap is paired with nobody");
}

TEST_F(History, shows_its_readers_on_their_cards) {
    publish_numbers(camera, 1, 5);
    ZAV_SHM_Frame_Subscriber player(
        {.name = "PLAYER", .producer = "CAM_LOOP", .from = start::oldest});
    ASSERT_TRUE(player.open());
    EXPECT_EQ(numbers_in(player).size(), 5U);
    publish_numbers(camera, 6, 8);
    const auto names = zav_shm::card_names(rings);
    ASSERT_EQ(names.size(), 1U);
    const zav_shm::Seen_Card seen(rings, names[0]);
    EXPECT_TRUE(seen.is_alive());
    const auto card = seen.read();
    ASSERT_TRUE(card);
    EXPECT_STREQ(card->consumer, "PLAYER");
    EXPECT_STREQ(card->producer, "CAM_LOOP");
    EXPECT_EQ(card->pid, static_cast<std::uint32_t>(getpid()));
    EXPECT_EQ(card->cursor, 6U);
    EXPECT_EQ(card->counters.frames, 5U);
    player.close();
    EXPECT_TRUE(zav_shm::card_names(rings).empty());
    EXPECT_EQ(player.counters().frames, 5U) << "the counters go on";
    ASSERT_TRUE(player.open());
    EXPECT_EQ(player.counters().frames, 5U);
}

TEST_F(History, of_a_paced_publisher_loses_nothing_for_a_slow_reader) {
    ZAV_SHM_Frame_Publisher file({.name = "CAM_REC", .paced = true, .pace_limit = 5s});
    ZAV_SHM_Frame_Subscriber recorder({.name = "PLAYER", .producer = "CAM_REC"});
    ASSERT_TRUE(recorder.open());
    ASSERT_TRUE(file.open());
    std::thread publishing([&file] {
        for (int i = 0; i < 1000; ++i) {
            EXPECT_TRUE(file.publish(payload(1000, i)).published());
        }
    });
    Received_Frame frame;
    for (int i = 0; i < 1000; ++i) {
        ASSERT_EQ(recorder.receive(frame, 5s), Receive_Status::frame) << i;
        ASSERT_TRUE(equal(frame.payload(), payload(1000, i))) << i;
        ASSERT_EQ(frame.before.lost(), 0U) << i;
        if (i % 50 == 0) {
            std::this_thread::sleep_for(2ms);
        }
    }
    publishing.join();
    EXPECT_GT(file.counters().waits, 10U);
    EXPECT_EQ(file.counters().given_up, 0U);
}

TEST_F(History, of_a_paced_publisher_keeps_what_is_being_viewed) {
    ZAV_SHM_Frame_Publisher file({.name = "CAM_REC", .paced = true, .pace_limit = 5s});
    ZAV_SHM_Frame_Subscriber recorder({.name = "PLAYER", .producer = "CAM_REC"});
    ASSERT_TRUE(recorder.open());
    ASSERT_TRUE(file.open());
    std::thread publishing([&file] {
        for (int i = 0; i < 500; ++i) {
            EXPECT_TRUE(file.publish(payload(1000, i)).published());
        }
    });
    zav_shm::Frame_View view;
    for (int i = 0; i < 500; ++i) {
        ASSERT_EQ(recorder.receive_view(view, 5s), Receive_Status::frame) << i;
        if (i % 50 == 0) {
            std::this_thread::sleep_for(5ms);
        }
        ASSERT_TRUE(equal(view.payload(), payload(1000, i))) << i;
        ASSERT_TRUE(view.is_whole()) << i;
    }
    publishing.join();
}

TEST_F(History, of_a_paced_publisher_is_held_up_once_by_a_reader_that_stands_still) {
    ZAV_SHM_Frame_Publisher file({.name = "CAM_REC", .paced = true, .pace_limit = 100ms});
    ZAV_SHM_Frame_Subscriber recorder({.name = "PLAYER", .producer = "CAM_REC"});
    ASSERT_TRUE(recorder.open());
    ASSERT_TRUE(file.open());
    const Stopwatch watch;
    for (int i = 0; i < 500; ++i) {
        EXPECT_TRUE(file.publish(payload(1000, i)).published());
    }
    EXPECT_GE(watch.elapsed(), 100ms);
    EXPECT_LT(watch.elapsed(), 1000ms) << "once, and not for each history";
    EXPECT_EQ(file.counters().given_up, 1U);
    recorder.close();
    const Stopwatch second;
    for (int i = 0; i < 500; ++i) {
        EXPECT_TRUE(file.publish(payload(1000, i)).published());
    }
    EXPECT_LT(second.elapsed(), 90ms);
}

TEST_F(History, is_asked_for_a_key_frame) {
    ZAV_SHM_Frame_Subscriber player({.name = "PLAYER", .producer = "CAM_LOOP"});
    EXPECT_FALSE(player.request_key_frame()) << "not open";
    ASSERT_TRUE(player.open());
    EXPECT_FALSE(camera.key_frame_requested());
    EXPECT_TRUE(player.request_key_frame());
    EXPECT_TRUE(camera.key_frame_requested());
    EXPECT_FALSE(camera.key_frame_requested());
    ZAV_SHM_Frame_Subscriber waiting({.name = "PLAYER",
                                      .producer = "CAM_LOOP",
                                      .start_at_key_frame = true,
                                      .asks_for_key_frame = true});
    ASSERT_TRUE(waiting.open());
    publish_numbers(camera, 2, 3, 10);
    Received_Frame frame;
    EXPECT_EQ(waiting.receive(frame, 0ms), Receive_Status::timeout);
    EXPECT_TRUE(camera.key_frame_requested());
    publish_numbers(camera, 4, 5, 10);
    EXPECT_EQ(waiting.receive(frame, 0ms), Receive_Status::timeout);
    EXPECT_FALSE(camera.key_frame_requested()) << "once";
}

TEST_F(History, hears_requests_again_after_their_file_was_removed) {
    ZAV_SHM_Frame_Subscriber player({.name = "PLAYER", .producer = "CAM_LOOP"});
    ASSERT_TRUE(player.open());
    const std::string file = std::string(rings) + "/CAM_LOOP_0_0.request";
    ASSERT_EQ(unlink(file.c_str()), 0);
    ASSERT_EQ(symlink("/dev/null", file.c_str()), 0) << "nor is what stands there in the way";
    EXPECT_FALSE(player.request_key_frame());
    EXPECT_TRUE(becomes_true([&] {
        publish_numbers(camera, 1, 1, 10);
        return player.request_key_frame() && camera.key_frame_requested();
    }));
}

#if SIZE_MAX > UINT32_MAX
TEST_F(History, that_does_not_fit_is_told_with_both_figures) {
    ZAV_SHM_Frame_Publisher greedy({.name = "CAM_REC", .history_bytes = std::size_t{1} << 32U});
    const auto opened = greedy.open();
    EXPECT_FALSE(opened);
    EXPECT_EQ(opened.state, Frame_State::no_ring);
    EXPECT_EQ(opened.reason,
              "a history of 4294967296 bytes for frames of 4096 is more than 4294967295");
    EXPECT_EQ(greedy.publish(payload(1)).outcome, zav_shm::Publish_Outcome::no_ring);
}
#endif

}  // namespace
