// SPDX-License-Identifier: Apache-2.0
#include "frame/control_exchange.h"

#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <thread>
#include <vector>

#include "../center/center_fixture.h"
#include "control/json_text.h"

using namespace std::chrono_literals;
using zav_shm::Control_Exchange;

namespace {

Json::Value query(const std::string& name, const char* type = "Distributor") {
    Json::Value request;
    request["command"] = "query_shm";
    request["type"] = type;
    request["name"] = name;
    return request;
}

using Exchange = Center;

TEST_F(Exchange, hands_on_what_the_center_replies) {
    start();
    const auto answer = Control_Exchange::ask(query("CAM_LOOP"), 5s);
    EXPECT_EQ(answer.outcome, Control_Exchange::Outcome::replied);
    EXPECT_TRUE(answer.granted());
    EXPECT_EQ(answer.reply["channel"].asInt(), 4);
}

TEST_F(Exchange, hands_on_why_the_center_refused) {
    start();
    const auto answer = Control_Exchange::ask(query("NOBODY"), 5s);
    EXPECT_EQ(answer.outcome, Control_Exchange::Outcome::replied);
    EXPECT_FALSE(answer.granted());
    EXPECT_EQ(answer.reason(), "Can't Find Shm Name NOBODY Distributor");
}

TEST_F(Exchange, without_queues_tells_at_once_that_no_center_is_running) {
    const Stopwatch watch;
    const auto answer = Control_Exchange::ask(query("CAM_LOOP"), 10s);
    EXPECT_EQ(answer.outcome, Control_Exchange::Outcome::no_center);
    EXPECT_EQ(answer.reason(), "no center is running");
    EXPECT_LT(watch.elapsed(), 5s);
    EXPECT_FALSE(requests.status().exists);
}

TEST_F(Exchange, without_an_answer_ends_in_time) {
    requests.make();
    replies.make();
    const Stopwatch watch;
    const auto answer = Control_Exchange::ask(query("CAM_LOOP"), 150ms);
    EXPECT_EQ(answer.outcome, Control_Exchange::Outcome::no_center);
    EXPECT_EQ(answer.reason(), "no answer from the center within 150 ms");
    EXPECT_GE(watch.elapsed(), 150ms);
}

// Served twice, a registration would start the consumer's channel anew in the middle of a frame.
TEST_F(Exchange, does_not_repeat_a_request_that_may_still_be_answered) {
    requests.make();
    replies.make();
    EXPECT_EQ(Control_Exchange::ask(query("ASKED_TWICE"), 20ms).outcome,
              Control_Exchange::Outcome::no_center);
    EXPECT_EQ(Control_Exchange::ask(query("ASKED_TWICE"), 20ms).outcome,
              Control_Exchange::Outcome::no_center);
    EXPECT_EQ(requests.messages(), 1U);
    requests.take(1);
    replies.send(R"({"command":"query_shm","status":"success"})", getpid());
    EXPECT_TRUE(Control_Exchange::ask(query("ASKED_TWICE"), 5s).granted());
    EXPECT_EQ(requests.messages(), 0U);
}

TEST_F(Exchange, repeats_a_request_that_a_starting_center_has_thrown_away) {
    requests.make();
    replies.make();
    EXPECT_EQ(Control_Exchange::ask(query("THROWN_AWAY"), 20ms).outcome,
              Control_Exchange::Outcome::no_center);
    requests.take(1);
    EXPECT_TRUE(becomes_true([this] {
        static_cast<void>(Control_Exchange::ask(query("THROWN_AWAY"), 20ms));
        return requests.messages() == 1;
    }));
}

// What was sent before the center came is thrown away by it, and answered by nobody.
TEST_F(Exchange, asks_again_within_its_time_when_a_center_starts) {
    requests.make();
    replies.make();
    const Stopwatch watch;
    std::thread asking(
        [] { EXPECT_TRUE(Control_Exchange::ask(query("CAM_LOOP"), 60s).granted()); });
    EXPECT_TRUE(becomes_true([this] { return requests.messages() == 1; }));
    start();
    asking.join();
    EXPECT_LT(watch.elapsed(), 30s);
}

TEST_F(Exchange, tells_again_within_its_time_when_a_center_starts) {
    requests.make();
    replies.make();
    Json::Value request;
    request["command"] = "kick_idle";
    request["enable"] = true;
    std::thread telling([request] {
        EXPECT_EQ(Control_Exchange::tell(request, 60s).outcome, Control_Exchange::Outcome::replied);
    });
    EXPECT_TRUE(becomes_true([this] { return requests.messages() == 2; }));
    start();
    telling.join();
    EXPECT_TRUE(center->is_kick_idle_enabled());
}

// The center is slow, or stopped: another copy in its queue makes it no faster.
TEST_F(Exchange, asks_once_while_nobody_takes_anything_off_the_queue) {
    requests.make();
    replies.make();
    EXPECT_EQ(Control_Exchange::ask(query("CAM_LOOP"), 5500ms).outcome,
              Control_Exchange::Outcome::no_center);
    EXPECT_EQ(requests.messages(), 1U);
}

// The last request about a channel end decides, so an earlier one does not stand for it.
TEST_F(Exchange, repeats_a_request_behind_another_one_about_the_same_end) {
    requests.make();
    replies.make();
    Json::Value request = query("PLAYER", "Receiver");
    request["channel"] = 0;
    request["stream"] = 0;
    for (const char* command : {"register", "deregister", "register"}) {
        request["command"] = command;
        static_cast<void>(Control_Exchange::ask(request, 10ms));
    }
    EXPECT_EQ(requests.messages(), 3U);
}

// A late refusal of an earlier one's question would tell that this one is done.
TEST_F(Exchange, telling_waits_for_the_answer_to_its_own_question) {
    requests.make();
    replies.make();
    Json::Value request;
    request["command"] = "kick_idle";
    EXPECT_EQ(Control_Exchange::tell(request, 10ms).outcome, Control_Exchange::Outcome::no_center);
    std::atomic<bool> told{false};
    std::thread telling([&] {
        EXPECT_EQ(Control_Exchange::tell(request, 60s).outcome, Control_Exchange::Outcome::replied);
        told = true;
    });
    EXPECT_TRUE(becomes_true([this] { return requests.messages() == 4; }));
    for (int i = 0; i < 2; ++i) {
        requests.take(1);
        const auto question = requests.take(1);
        const auto asked = zav_shm::parsed_json(question ? question->text.c_str() : "");
        EXPECT_FALSE(told) << i;
        replies.send(
            R"({"command":"query_shm","status":"invalid_name","reason":"Can't Find Shm Name )" +
                zav_shm::text_at(asked, "name") + " Distributor\"}",
            getpid());
        std::this_thread::sleep_for(30ms);
    }
    telling.join();
}

TEST_F(Exchange, with_a_full_request_queue_ends_in_time) {
    requests.make();
    replies.make();
    requests.set_mode(0600);
    while (requests.send(std::string(1028, 'x'), 1, 0ms)) {
    }
    const auto answer = Control_Exchange::ask(query("CAM_LOOP"), 100ms);
    EXPECT_EQ(answer.outcome, Control_Exchange::Outcome::no_center);
}

TEST_F(Exchange, takes_no_reply_that_an_earlier_process_left) {
    start();
    replies.send(R"({"command":"query_shm","status":"success","channel":99})", getpid());
    const auto answer = Control_Exchange::ask(query("CAM_LOOP"), 5s);
    EXPECT_EQ(answer.reply["channel"].asInt(), 4);
}

TEST_F(Exchange, passes_over_late_replies_to_other_requests) {
    requests.make();
    replies.make();
    std::thread fake_center([this] {
        requests.take(1);
        for (const char* late : {R"({"command":"register","status":"success"})", "no JSON", "[1]",
                                 "", R"({"command":"query_shm","status":"success","channel":1})"}) {
            replies.send(late, getpid());
        }
        replies.send(R"({"command":"query_shm","status":"success","channel":2})", getpid());
    });
    const auto answer = Control_Exchange::ask(
        query("CAM_LOOP"), 5s, [](const auto& reply) { return reply["channel"].asInt() == 2; });
    fake_center.join();
    EXPECT_EQ(answer.reply["channel"].asInt(), 2);
}

TEST_F(Exchange, takes_a_reply_that_is_longer_than_a_record_for_none) {
    requests.make();
    replies.make();
    std::thread fake_center([this] {
        requests.take(1);
        replies.send(std::string(4000, ' '), getpid());
        replies.send(R"({"command":"query_shm","status":"success"})", getpid());
    });
    const auto answer = Control_Exchange::ask(query("CAM_LOOP"), 5s);
    fake_center.join();
    EXPECT_TRUE(answer.granted());
}

TEST_F(Exchange, threads_of_one_process_do_not_take_each_others_replies) {
    start();
    std::vector<std::thread> threads;
    std::atomic<int> right{0};
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([&right, i] {
            const bool loop = i % 2 == 0;
            for (int turn = 0; turn < 25; ++turn) {
                const auto answer =
                    Control_Exchange::ask(query(loop ? "CAM_LOOP" : "CAM_REC"), 20s);
                right += answer.reply["channel"].asInt() == (loop ? 4 : 1) ? 1 : 0;
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(right, 200);
}

TEST_F(Exchange, a_request_beyond_the_record_is_refused_with_both_sizes) {
    const auto answer = Control_Exchange::ask(query(std::string(2000, 'x')), 5s);
    EXPECT_EQ(answer.outcome, Control_Exchange::Outcome::failed);
    EXPECT_NE(answer.reason().find("the limit is 1024"), std::string::npos) << answer.reason();
}

TEST_F(Exchange, telling_returns_when_the_center_has_done_it) {
    start();
    Json::Value request;
    request["command"] = "kick_idle";
    request["enable"] = true;
    const std::string printed = output_of([&] {
        EXPECT_EQ(Control_Exchange::tell(request, 5s).outcome, Control_Exchange::Outcome::replied);
    });
    EXPECT_EQ(printed, "In SHM_CENTER_KICK_IDLE execute, 1\n");
    EXPECT_EQ(replies.messages(), 0U);
}

TEST_F(Exchange, telling_without_a_center_fails_in_time) {
    Json::Value request;
    request["command"] = "kick_idle";
    EXPECT_EQ(Control_Exchange::tell(request, 50ms).outcome, Control_Exchange::Outcome::no_center);
    requests.make();
    replies.make();
    EXPECT_EQ(Control_Exchange::tell(request, 50ms).outcome, Control_Exchange::Outcome::no_center);
    while (requests.send(std::string(1028, 'x'), 1, 0ms)) {
    }
    EXPECT_EQ(Control_Exchange::tell(request, 50ms).outcome, Control_Exchange::Outcome::no_center);
    request["name"] = std::string(2000, 'x');
    EXPECT_EQ(Control_Exchange::tell(request, 50ms).outcome, Control_Exchange::Outcome::failed);
}

TEST_F(Exchange, notices_that_the_queue_is_removed_while_it_waits) {
    requests.make();
    replies.make();
    std::thread removing([this] {
        requests.take(1);
        replies.remove();
    });
    const auto answer = Control_Exchange::ask(query("CAM_LOOP"), 10s);
    removing.join();
    EXPECT_EQ(answer.outcome, Control_Exchange::Outcome::no_center);
    EXPECT_EQ(answer.reason(), "the center's queue was removed");
}

// Of many that were never answered only so many are remembered.
TEST_F(Exchange, asks_on_after_many_requests_without_an_answer) {
    requests.make();
    replies.make();
    for (int i = 0; i < 100; ++i) {
        const auto answer = Control_Exchange::ask(query("NOBODY_" + std::to_string(i)), 1ms);
        EXPECT_EQ(answer.outcome, Control_Exchange::Outcome::no_center);
        EXPECT_TRUE(requests.take(1)) << i;
    }
}

TEST_F(Exchange, whose_turn_does_not_come_ends_in_time) {
    requests.make();
    replies.make();
    std::thread first([] { static_cast<void>(Control_Exchange::ask(query("FIRST"), 300ms)); });
    EXPECT_TRUE(requests.take(1));
    const auto answer = Control_Exchange::ask(query("SECOND"), 20ms);
    EXPECT_EQ(answer.outcome, Control_Exchange::Outcome::no_center);
    EXPECT_EQ(requests.messages(), 0U) << "it did not ask";
    first.join();
}

TEST_F(Exchange, without_the_right_says_what_to_do) {
    start();
    const pid_t child = fork();
    if (child == 0) {
        bool right = setresuid(65534, 65534, 65534) == 0;
        const auto answer = Control_Exchange::ask(query("CAM_LOOP"), 1s);
        right = right && answer.outcome == Control_Exchange::Outcome::failed &&
                answer.reason().find("--group") != std::string::npos;
        _exit(right ? 0 : 1);
    }
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
}

}  // namespace
