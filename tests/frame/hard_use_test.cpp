// SPDX-License-Identifier: Apache-2.0
//
// Publishers and subscribers as they are used by mistake, or in an order that nobody thought of.
#include <poll.h>
#include <sys/wait.h>

#include <atomic>
#include <csignal>
#include <filesystem>
#include <functional>
#include <limits>
#include <thread>

#include "frames_fixture.h"
#include "ring/reader_card.h"

using namespace std::chrono_literals;
using zav_shm::Frame_State;
using zav_shm::Publish_Outcome;
using zav_shm::Receive_Status;
using zav_shm::Received_Frame;
namespace start = zav_shm::start;

namespace {

// What a forked child returns; -1 when it did not come to its end within 5 s.
int result_of_child(const std::function<int()>& run) {
    const pid_t child = fork();
    if (child == 0) {
        alarm(5);  // a wait for a thread that is not there has no end
        _exit(run());
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool is_readable(int descriptor, int ms) {
    pollfd waited{descriptor, POLLIN, 0};
    return poll(&waited, 1, ms) == 1;
}

class Hard_Use : public Frames {
protected:
    void SetUp() override {
        Frames::SetUp();
        ASSERT_TRUE(camera.open());
    }
    void TearDown() override {
        camera.close();
        Frames::TearDown();
    }

    ZAV_SHM_Frame_Publisher camera{{.name = "CAM_LOOP"}};
};

TEST_F(Hard_Use, in_a_forked_child_leaves_the_parents_stream_alone) {
    auto player = std::make_unique<ZAV_SHM_Frame_Subscriber>(
        ZAV_SHM_Frame_Subscriber::Options{.name = "PLAYER", .producer = "CAM_LOOP"});
    auto other = std::make_unique<ZAV_SHM_Frame_Publisher>(
        ZAV_SHM_Frame_Publisher::Options{.name = "CAM_REC"});
    ASSERT_TRUE(player->open());
    ASSERT_TRUE(other->open());
    ASSERT_GE(player->descriptor(), 0);  // with a thread that the child does not have
    EXPECT_EQ(result_of_child([&] {
                  Received_Frame frame;
                  const bool is_refused =
                      other->publish({}).outcome == Publish_Outcome::no_ring &&
                      other->reason().find("forked") != std::string::npos &&
                      other->state() == Frame_State::closed && other->loan(1).empty() &&
                      player->receive(frame, 0ms) == Receive_Status::closed &&
                      player->state() == Frame_State::closed && player->descriptor() == -1;
                  player->close();
                  player.reset();
                  other.reset();
                  return is_refused ? 0 : 1;
              }),
              0);
    EXPECT_EQ(zav_shm::card_names(rings).size(), 1U) << "the parent's";
    ASSERT_TRUE(player->pair("CAM_REC"));
    publish_numbers(*other, 1, 1);
    EXPECT_EQ(next(*player).size(), 1U);
}

TEST_F(Hard_Use, interrupt_ends_the_wait_that_there_is_or_the_next_one) {
    ZAV_SHM_Frame_Subscriber player({.name = "PLAYER", .producer = "CAM_LOOP"});
    Received_Frame frame;
    player.interrupt();
    EXPECT_EQ(Receive_Status::closed, player.receive(frame, 1h));
    ASSERT_TRUE(player.open());
    for (int i = 0; i < 20; ++i) {
        std::thread interrupting([&player, i] {
            std::this_thread::sleep_for(1ms * (i % 3));
            player.interrupt();
        });
        EXPECT_EQ(Receive_Status::timeout, player.receive(frame, 1h));
        interrupting.join();
    }
    // One is enough for whatever came of it before, and frames are not held up by it.
    player.interrupt();
    EXPECT_TRUE(camera.publish({}).published());
    EXPECT_EQ(Receive_Status::frame, player.receive(frame, 1h));
    EXPECT_EQ(Receive_Status::timeout, player.receive(frame, 1h));
    player.close();
}

TEST_F(Hard_Use, closes_beside_a_thread_that_seeks) {
    publish_numbers(camera, 1, 50, 10);
    for (int i = 0; i < 100; ++i) {
        ZAV_SHM_Frame_Subscriber tap({.producer = "CAM_LOOP"});
        ASSERT_TRUE(tap.open());
        std::atomic<bool> ends{false};
        std::thread reading([&] {
            Received_Frame frame;
            while (!ends) {
                tap.receive(frame, 0ms);
                tap.seek(start::oldest);
                tap.descriptor();
            }
        });
        std::this_thread::sleep_for(1ms);
        tap.close();
        ends = true;
        reading.join();
        EXPECT_EQ(tap.descriptor(), -1);
    }
}

// The descriptor's thread looks at the name each second; each of these closes about then.
TEST_F(Hard_Use, closes_when_the_thread_of_the_descriptor_looks_around) {
    publish_numbers(camera, 1, 5);
    std::vector<std::thread> closing;
    for (int i = 0; i < 60; ++i) {
        closing.emplace_back([i] {
            ZAV_SHM_Frame_Subscriber tap({.producer = "CAM_LOOP"});
            ASSERT_TRUE(tap.open());
            ASSERT_GE(tap.descriptor(), 0);
            Received_Frame frame;
            const auto begin = std::chrono::steady_clock::now();
            EXPECT_EQ(tap.receive(frame, 0ms), Receive_Status::timeout);
            std::this_thread::sleep_until(begin + 1s + i * 20us);
            tap.close();
        });
    }
    for (std::thread& thread : closing) {
        thread.join();
    }
}

TEST_F(Hard_Use, paces_without_end_when_the_limit_is_the_longest_time) {
    ZAV_SHM_Frame_Publisher file(
        {.name = "CAM_REC", .paced = true, .pace_limit = std::chrono::milliseconds::max()});
    ASSERT_TRUE(file.open());
    ZAV_SHM_Frame_Subscriber recorder(
        {.name = "PLAYER", .producer = "CAM_REC", .from = start::oldest});
    ASSERT_TRUE(recorder.open());
    std::thread publishing([&file] {
        for (int i = 0; i < 100; ++i) {
            EXPECT_TRUE(file.publish(payload(1000, i)).published());
        }
    });
    Received_Frame frame;
    for (int i = 0; i < 100; ++i) {
        ASSERT_EQ(recorder.receive(frame, 5s), Receive_Status::frame) << i;
        EXPECT_TRUE(equal(frame.payload(), payload(1000, i))) << i;
        std::this_thread::sleep_for(1ms);
    }
    publishing.join();
    EXPECT_EQ(file.counters().given_up, 0U);
}

TEST_F(Hard_Use, refuses_a_frame_length_that_fits_into_no_ring) {
    for (const std::size_t most : {std::numeric_limits<std::size_t>::max(),
                                   std::size_t{std::numeric_limits<std::uint32_t>::max()},
                                   std::size_t{std::numeric_limits<std::uint32_t>::max() - 100}}) {
        ZAV_SHM_Frame_Publisher file(
            {.name = "CAM_REC", .history_bytes = 10'000, .frame_bytes_max = most});
        const auto opened = file.open();
        EXPECT_EQ(opened.state, Frame_State::no_ring);
        EXPECT_NE(opened.reason.find(std::to_string(most)), std::string::npos) << opened.reason;
        EXPECT_TRUE(file.loan().empty());
    }
}

TEST_F(Hard_Use, makes_a_removed_card_anew) {
    ZAV_SHM_Frame_Subscriber player({.name = "PLAYER", .producer = "CAM_LOOP"});
    ASSERT_TRUE(player.open());
    publish_numbers(camera, 1, 3);
    ASSERT_EQ(numbers_in(player).size(), 3U);
    const auto names = zav_shm::card_names(rings);
    ASSERT_EQ(names.size(), 1U);
    std::filesystem::remove(std::filesystem::path(rings) / names[0]);
    Received_Frame frame;
    EXPECT_TRUE(becomes_true([&] {
        player.receive(frame, 100ms);
        return zav_shm::card_names(rings) == names;
    }));
    const zav_shm::Seen_Card seen(rings, names[0]);
    EXPECT_TRUE(seen.is_alive());
    EXPECT_EQ(seen.read()->counters.frames, 3U) << "with what it said";
    player.close();
    EXPECT_TRUE(zav_shm::card_names(rings).empty());
}

TEST_F(Hard_Use, shows_by_the_descriptor_that_somebody_pairs_a_consumer_without_a_producer) {
    ZAV_SHM_Frame_Subscriber player({.name = "PLAYER", .producer = "CAM_REC"});
    ASSERT_TRUE(player.open());
    ASSERT_EQ(player.pair("NONE").state, Frame_State::waiting_for_producer);
    const int descriptor = player.descriptor();
    EXPECT_EQ(numbers_in(player).size(), 0U);
    EXPECT_EQ(player.reason(), "");
    for (int i = 0; i < 10; ++i) {
        const std::string producer = i % 2 == 0 ? "CAM_LOOP" : "NONE";
        std::thread pairing([&] { EXPECT_NE(player.pair(producer).state, Frame_State::refused); });
        pairing.join();
        if (i % 2 == 0) {
            EXPECT_TRUE(becomes_true([&] {
                publish_numbers(camera, 1, 1);
                return is_readable(descriptor, 100) && !numbers_in(player).empty();
            })) << i;
        }
        while (is_readable(descriptor, 50)) {
            numbers_in(player);
        }
    }
}

TEST_F(Frames_Without_Center, of_a_name_that_leads_out_of_the_folder_are_refused) {
    for (const std::string name : {"", "..", "../../CAM_LOOP", "a/b"}) {
        ZAV_SHM_Frame_Publisher file({.name = name, .center_wait = 0ms});
        const auto opened = file.open();
        EXPECT_EQ(opened.state, Frame_State::no_ring) << name;
        EXPECT_NE(opened.reason.find("\"" + name + "\""), std::string::npos) << opened.reason;
    }
    EXPECT_FALSE(std::filesystem::exists("/dev/shm/CAM_LOOP_0_0"));
    std::filesystem::remove_all("/dev/shm/shm");
}

// Nothing has made the folder of the rings yet when the recorder begins.
TEST_F(Frames_Without_Center, of_a_paced_publisher_wait_for_a_recorder_that_was_first) {
    ZAV_SHM_Frame_Subscriber recorder({.producer = "CAM_REC", .from = start::oldest});
    ASSERT_TRUE(recorder.open());
    std::atomic<int> received{0};
    std::thread recording([&] {
        Received_Frame frame;
        while (received < 200 && recorder.receive(frame, 5s) == Receive_Status::frame) {
            EXPECT_FALSE(frame.before.any());
            ++received;
            std::this_thread::sleep_for(1ms);
        }
    });
    ZAV_SHM_Frame_Publisher file({.name = "CAM_REC",
                                  .center_wait = 0ms,
                                  .history_bytes = 10'000,
                                  .frame_bytes_max = 1000,
                                  .paced = true,
                                  .pace_limit = 5s});
    EXPECT_FALSE(file.open()) << "without a center, and with a history";
    std::this_thread::sleep_for(100ms);  // for the recorder to see the folder
    for (int i = 0; i < 200; ++i) {
        EXPECT_TRUE(file.publish(payload(1000, i)).published());
    }
    recording.join();
    EXPECT_EQ(received, 200);
    file.close();
    recorder.close();
    std::filesystem::remove_all("/dev/shm/shm");
}

}  // namespace
