// SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>
#include <json/json.h>
#include <sys/eventfd.h>
#include <sys/mount.h>
#include <sys/msg.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <thread>

#include "apps/centerd/access_rights.h"
#include "apps/centerd/clock_watch.h"
#include "apps/centerd/event_loop.h"
#include "apps/centerd/hosted_center.h"
#include "apps/centerd/idle_kicker.h"
#include "apps/centerd/inventory.h"
#include "apps/centerd/object_watch.h"
#include "apps/centerd/self_check.h"
#include "apps/centerd/signals.h"
#include "apps/centerd/status_names.h"
#include "apps/centerd/status_page.h"
#include "ipc/descriptor.h"
#include "parts_fixture.h"
#include "ring/reader_card.h"

namespace {

namespace fs = std::filesystem;
using namespace zav_shm::centerd;
using std::chrono::milliseconds;
using Requests = zav_shm::centerd::Control_Queues::Requests;

const std::string register_player =
    R"({"command":"register","type":"Receiver","name":"PLAYER","pair_name":"CAM_LOOP",)"
    R"("channel":0,"stream":0})";

// ---- inventory ----

TEST_F(Parts, inventory_names_exactly_what_a_center_makes) {
    start();
    const Inventory inventory(*config);
    std::set<std::string> made;
    for (const auto& entry : fs::recursive_directory_iterator("/dev/shm")) {
        if (entry.is_regular_file()) {
            made.insert(entry.path());
        }
    }
    std::set<std::string> named;
    for (const auto* files : {&inventory.segments, &inventory.semaphores}) {
        for (const Shared_File& file : *files) {
            named.insert(file.path);
            EXPECT_EQ(fs::file_size(file.path), file.bytes) << file.path;
        }
    }
    EXPECT_EQ(named, made);
    EXPECT_EQ(inventory.relays, 12);
    EXPECT_EQ(inventory.consumer_channels, 28);
    EXPECT_TRUE(fs::is_directory(inventory.segment_folder));
    EXPECT_TRUE(fs::is_directory(inventory.semaphore_folder));
}

// ---- queues ----

TEST_F(Parts, queues_are_made_with_their_mode_and_found_again) {
    const auto queues = prepared_queues(0660);
    EXPECT_EQ(requests.status().mode, 0660U);
    EXPECT_EQ(replies.status().mode, 0660U);
    EXPECT_FALSE(queues.were_replaced());
    replies.remove();
    EXPECT_TRUE(queues.were_replaced());
    queues.remove();
    EXPECT_FALSE(requests.status().exists);
}

TEST_F(Parts, queues_keep_their_messages_and_size_when_they_are_taken_over) {
    requests.send("waiting");
    const std::size_t bytes_max = requests.status().bytes_max;
    prepared_queues(0600);
    EXPECT_EQ(requests.messages(), 1U);
    EXPECT_EQ(requests.status().bytes_max, bytes_max);
    EXPECT_EQ(requests.status().mode, 0600U);
}

// Root has no privilege here.
TEST_F(Parts, queue_of_requests_that_is_held_takes_none_from_anybody) {
    auto queues = prepared_queues();
    requests.send("from before", 1, milliseconds(0));
    ASSERT_FALSE(queues.prepare({0600, getegid()}, Requests::held));
    EXPECT_FALSE(requests.send(std::string(1028, 'x'), 1, milliseconds(0)));
    EXPECT_FALSE(requests.send("xx", 1, milliseconds(0)));
    EXPECT_EQ(requests.messages(), 1U);
    EXPECT_TRUE(replies.send("reply", 1, milliseconds(0)));
    ASSERT_FALSE(queues.prepare({0660, getegid()}));
    EXPECT_TRUE(requests.send(std::string(1028, 'x'), 1, milliseconds(0)));
    EXPECT_EQ(requests.status().mode, 0660U);
}

TEST_F(Parts, request_that_waits_for_the_hold_to_end_is_answered_then) {
    auto queues = prepared_queues();
    ASSERT_FALSE(queues.prepare({0600, getegid()}, Requests::held));
    std::string reply;
    std::thread early([this, &reply] { reply = client.ask(farewell); });
    start();
    EXPECT_EQ(requests.messages() + replies.messages(), 0U);
    ASSERT_FALSE(queues.prepare({0600, getegid()}));
    early.join();
    EXPECT_EQ(field_of(reply, "status"), "success");
}

TEST_F(Parts, center_is_shut_down_while_requests_are_held) {
    auto queues = prepared_queues();
    ASSERT_FALSE(queues.prepare({0600, getegid()}, Requests::held));
    start();
    const Stopwatch watch;
    stop();
    EXPECT_LT(watch.elapsed(), std::chrono::seconds(10));
}

TEST_F(Parts, queue_that_a_killed_daemon_left_held_is_given_its_room_again) {
    prepared_queues();
    const std::size_t usual = requests.status().bytes_max;
    EXPECT_FALSE(prepared_queues().prepare({0600, getegid()}, Requests::held));
    EXPECT_EQ(requests.status().bytes_max, 1U);
    prepared_queues();
    EXPECT_EQ(requests.status().bytes_max, usual);
}

// It was made under another limit, and only who has the privilege may go beyond the present one.
TEST_F(Parts, queue_larger_than_the_limit_is_given_as_much_as_is_allowed_after_the_hold) {
    auto queues = prepared_queues();
    const std::size_t usual = requests.status().bytes_max;
    std::ofstream("/proc/sys/kernel/msgmnb") << usual / 2;
    std::size_t limit = 0;
    std::ifstream("/proc/sys/kernel/msgmnb") >> limit;
    ASSERT_FALSE(queues.prepare({0600, getegid()}, Requests::held));
    ASSERT_FALSE(queues.prepare({0600, getegid()}));
    EXPECT_TRUE(requests.status().bytes_max == usual || requests.status().bytes_max == limit);
    std::ofstream("/proc/sys/kernel/msgmnb") << usual;
}

// ---- self-check ----

TEST_F(Parts, self_check_finds_that_a_center_answers_and_leaves_no_reply) {
    const auto queues = prepared_queues();
    start();
    Self_Check check(queues);
    for (int i = 0; i < 50; ++i) {
        EXPECT_TRUE(check.answers_within(std::chrono::seconds(10)));
    }
    check.forget();
    EXPECT_EQ(replies.messages(), 0U);
    EXPECT_EQ(requests.messages(), 0U);
}

TEST_F(Parts, self_check_finds_that_nobody_answers_and_asks_once) {
    const auto queues = prepared_queues();
    Self_Check check(queues);
    EXPECT_FALSE(check.answers_within(milliseconds(200)));
    EXPECT_EQ(requests.messages(), 1U);
}

// Whoever took the question did not answer it.
TEST_F(Parts, self_check_asks_again_once_its_question_was_taken) {
    const auto queues = prepared_queues();
    Self_Check check(queues);
    EXPECT_FALSE(check.step());
    ASSERT_TRUE(requests.take());
    EXPECT_EQ(requests.messages(), 0U);
    check.step();
    EXPECT_EQ(requests.messages(), 1U);
}

TEST_F(Parts, self_check_takes_no_room_in_a_queue_that_is_nearly_full) {
    const auto queues = prepared_queues();
    while (requests.send(std::string(1028, '\0'), 1, milliseconds(0))) {
    }
    requests.take();
    Self_Check check(queues);
    const std::size_t before = requests.messages();
    EXPECT_FALSE(check.step());
    EXPECT_EQ(requests.messages(), before);
}

// ---- clock ----

TEST_F(Parts, clock_watch_reports_no_step_when_there_is_none) {
    Clock_Watch watch;
    ASSERT_GE(watch.descriptor(), 0);
    EXPECT_FALSE(watch.was_set());
    EXPECT_FALSE(watch.was_set());
}

// ---- loop ----

TEST_F(Parts, loop_calls_what_is_readable_and_ends_when_told) {
    Event_Loop loop;
    const zav_shm::Descriptor event(eventfd(1, EFD_CLOEXEC | EFD_NONBLOCK));
    int calls = 0;
    loop.on_readable(event.get(), [&] {
        if (++calls == 3) {  // it stays readable
            loop.end();
        }
    });
    loop.on_readable(-1, [] { FAIL(); });
    ASSERT_TRUE(loop.is_open());
    loop.run();
    EXPECT_EQ(calls, 3);
}

TEST_F(Parts, loop_repeats_as_often_as_told_beside_what_goes_on) {
    const Stopwatch watch;
    Event_Loop loop;
    int repeated = 0;
    int ticks = 0;
    loop.every(milliseconds(1), [&] {
        if (++ticks == 200) {
            loop.end();
        }
        if (ticks == 5 || ticks == 7) {  // two series at a time
            loop.repeat(3, milliseconds(2), [&] { ++repeated; });
        }
    });
    ASSERT_TRUE(loop.is_open());
    loop.run();
    EXPECT_EQ(repeated, 6);
    EXPECT_GE(watch.elapsed(), milliseconds(200));
}

// ---- what somebody removes ----

TEST_F(Parts, watch_finds_what_was_gone_before_it_began) {
    start();
    const Inventory inventory(*config);
    EXPECT_FALSE(Object_Watch(inventory).look().lost);
    fs::rename("/dev/shm/shm/CAM_LOOP_3_1", "/dev/shm/shm/away");
    const auto lost = Object_Watch(inventory).look().lost;
    fs::rename("/dev/shm/shm/away", "/dev/shm/shm/CAM_LOOP_3_1");
    EXPECT_EQ(lost, "segment /dev/shm/shm/CAM_LOOP_3_1 was removed");
}

// ---- idle kick ----

TEST_F(Parts, kicker_unpairs_idle_consumers_once_that_is_enabled) {
    start();
    Idle_Kicker kicker(*center, milliseconds(50));
    client.ask(register_player);
    const auto consumers = [this] { return center->manager()->snapshot()[0].consumers; };
    ASSERT_TRUE(
        becomes_true([&] { return !consumers().empty() && consumers()[0].missed_in_row > 12; }));
    EXPECT_FALSE(center->is_kick_idle_enabled());
    center->enable_kick_idle_client(true);
    EXPECT_TRUE(center->is_kick_idle_enabled());
    EXPECT_TRUE(becomes_true([&] { return consumers().empty(); }));
}

TEST_F(Parts, kicker_ends_at_once_whatever_its_interval) {
    start();
    const Stopwatch watch;
    { const Idle_Kicker kicker(*center, std::chrono::hours(24)); }
    EXPECT_LT(watch.elapsed(), std::chrono::seconds(10));
}

// ---- status ----

TEST_F(Parts, status_is_readable_json_with_the_centers_own_words) {
    start();
    client.ask(register_player);
    Status_Page page("/shm", "some \"file\"", {}, account_, {});
    EXPECT_NE(page.page().epoch, 0U);
    Json::Value status;
    const std::string text = page.status_of(*center);
    Json::CharReaderBuilder builder;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    ASSERT_TRUE(reader->parse(text.data(), text.data() + text.size(), &status, nullptr));
    EXPECT_EQ(status["configuration"].asString(), "some \"file\"");
    EXPECT_EQ(status["channels"].size(), 12U);
    EXPECT_EQ(status["channels"][0]["consumers"][0]["name"].asString(), "PLAYER");
    EXPECT_NE(Status_Page("/shm", "", {}, account_, {}).page().epoch, page.page().epoch);
}

TEST_F(Parts, status_lists_names_with_the_streams_that_are_accepted) {
    const auto tricky = parsed(R"({
        "Stream": [{"index": 7, "page_size": 100}, {"index": 8, "page_size": 200}],
        "Distributor": [{"name": "MAIN", "channel": 2, "stream": [1]}],
        "Receiver": [{"name": "LONG", "channel": 3, "stream": [0, 1, 1]},
                     {"name": "NONE", "channel": 1, "stream": []}]
    })");
    const Json::Value names = status_names(*tricky);
    const auto written = [](const Json::Value& value) {
        Json::StreamWriterBuilder builder;
        builder["indentation"] = "";
        return Json::writeString(builder, value);
    };
    const std::string first = R"({"index":7,"page_size":100,"stream":0})";
    EXPECT_EQ(written(names["distributors"]),
              R"([{"channels":2,"name":"MAIN","streams":[)" + first + "]}]");
    EXPECT_EQ(written(names["receivers"]), R"([{"channels":3,"name":"LONG","streams":[)" + first +
                                               R"(,{"index":8,"page_size":200,"stream":1}]},)" +
                                               R"({"channels":1,"name":"NONE","streams":[]}])");
}

// What the start reckons with is enough: for the longest names, with all their channels paired.
TEST_F(Parts, status_takes_no_more_than_the_room_that_is_kept_for_it) {
    const std::string name(31, '\x01');
    std::string escaped;
    for (std::size_t i = 0; i < name.size(); ++i) {
        escaped += "\\u0001";
    }
    start(R"({"Stream": [{"index": 2147483647, "page_size": 1}],
              "Distributor": [{"name": ")" +
          escaped + R"(", "channel": 1, "stream": [0]}],
              "Receiver": [{"name": ")" +
          escaped + R"(", "channel": 1, "stream": [0]}]})");
    client.ask(R"({"command":"register","type":"Receiver","channel":0,"stream":0,"name":")" +
               escaped + R"(","pair_name":")" + escaped + "\"}");
    zav_shm::Reader_Card greatest;
    std::memset(static_cast<void*>(&greatest.counters), 0xff, sizeof greatest.counters);
    greatest.pid = greatest.cursor = std::numeric_limits<std::uint32_t>::max();
    greatest.channel = greatest.stream = std::numeric_limits<std::int32_t>::min();
    name.copy(greatest.consumer, name.size());
    name.copy(greatest.producer, name.size());
    fs::create_directory("/dev/shm/shm/rings");
    const zav_shm::Own_Card card("/dev/shm/shm/rings", zav_shm::Own_Card::new_name(), greatest);
    const std::string text =
        Status_Page("/shm", std::string(4000, '/'), status_names(*config), account_, {})
            .status_of(*center);
    EXPECT_NE(text.find("consumers\":[{"), std::string::npos);
    EXPECT_NE(text.find("ring_consumers\":[{"), std::string::npos);
    // The relay, the consumer, and the names.
    EXPECT_LT(text.size() - 4000, 512U + (512U + 1024U) + 2U * (256U + 80U));
}

TEST_F(Parts, status_that_cannot_be_written_leaves_the_former_one) {
    start();
    Status_Page page("/shm", "file", {}, account_, {});
    ASSERT_TRUE(page.write_page());
    ASSERT_TRUE(page.write_status(*center));
    fs::create_directories("/dev/shm/shm/center_status.json.new/inner");
    EXPECT_FALSE(page.write_status(*center));
    EXPECT_TRUE(exists("shm/center_status.json"));
    fs::remove_all("/dev/shm/shm/center_status.json.new");
    page.remove();
    EXPECT_FALSE(exists("shm/center_page"));
    EXPECT_FALSE(exists("shm/center_status.json"));
}

// ---- what the center could not make ----

class Started : public Parts {
protected:
    Access_Rights rights() const {
        Access_Rights rights;
        EXPECT_FALSE(Access_Rights::resolve(Options{}, rights));
        return rights;
    }
};

TEST_F(Started, missing_segment_is_named) {
    start();
    const Inventory inventory(*config);
    EXPECT_FALSE(rights().apply(inventory));
    fs::rename("/dev/shm/shm/CAM_LOOP_0_0", "/dev/shm/shm/away");
    const auto failed = rights().apply(inventory);
    fs::rename("/dev/shm/shm/away", "/dev/shm/shm/CAM_LOOP_0_0");
    ASSERT_TRUE(failed);
    EXPECT_NE(failed->lines[0].find("segment /dev/shm/shm/CAM_LOOP_0_0"), std::string::npos);
}

TEST_F(Started, segment_of_another_length_is_named_with_both) {
    start();
    const Inventory inventory(*config);
    fs::resize_file("/dev/shm/shm/CAM_REC_0_1", 100);
    const auto failed = rights().apply(inventory);
    ASSERT_TRUE(failed);
    EXPECT_NE(failed->lines[0].find("CAM_REC_0_1 has 100 bytes, not 8320"), std::string::npos)
        << failed->lines[0];
}

// Others may take the room between the look at it and the start.
TEST_F(Started, room_that_is_gone_by_the_time_of_the_start_is_named_as_the_cause) {
    ASSERT_EQ(mount("tmpfs", "/dev/shm", "tmpfs", 0, "nr_inodes=100"), 0);
    config = parsed(small_configuration);
    const Inventory inventory(*config);
    Outcome failed;
    {
        const auto queues = prepared_queues();
        std::unique_ptr<Hosted_Center> hosted;
        output_of([&] { hosted = std::make_unique<Hosted_Center>(*config, inventory, queues); });
        failed = hosted->make_ready(rights());
    }
    EXPECT_EQ(umount("/dev/shm"), 0);
    ASSERT_TRUE(failed);
    EXPECT_EQ(failed->status, Exit_Status::no_room);
    EXPECT_NE(failed->lines[0].find("more files (inodes), 36 are needed"), std::string::npos)
        << failed->lines[0];
}

TEST_F(Started, folder_that_is_a_link_is_refused) {
    make_folder("elsewhere");
    fs::create_directory_symlink("/dev/shm/elsewhere", "/dev/shm/link");
    const auto failed = Access_Rights::prepare_folder("/dev/shm/link");
    ASSERT_TRUE(failed);
    EXPECT_NE(failed->lines[0].find("folder /dev/shm/link"), std::string::npos);
    fs::remove("/dev/shm/link");
}

}  // namespace
