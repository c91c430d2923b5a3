// SPDX-License-Identifier: Apache-2.0
#include <atomic>
#include <filesystem>
#include <fstream>
#include <thread>

#include "center_fixture.h"

namespace {

std::size_t threads_called(const std::string& wanted) {
    std::size_t count = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream file(task.path() / "comm");
        std::string name;
        std::getline(file, name);
        count += name == wanted ? 1U : 0U;
    }
    return count;
}

class Shutdown : public Center {
protected:
    void SetUp() override {
        Center::SetUp();
        start();
    }
};

// ---- what it ends ----

TEST_F(Shutdown, ends_the_receive_thread_and_all_relays) {
    ASSERT_EQ(threads_called("zav_center"), 1U);
    ASSERT_TRUE(becomes_true([] { return threads_called("zav_relay") == 12; }));
    center->shutdown();
    EXPECT_TRUE(becomes_true([] { return threads_called("zav_center") == 0; }));
    EXPECT_TRUE(becomes_true([] { return threads_called("zav_relay") == 0; }));
    EXPECT_EQ(center->manager(), nullptr);
}

TEST_F(Shutdown, leaves_segments_semaphores_and_queues) {
    center->shutdown();
    EXPECT_TRUE(exists("shm/CAM_LOOP_0_0"));
    EXPECT_TRUE(exists("sem.DST_PLAYER_SEM_0_0_0"));
    EXPECT_TRUE(requests.status().exists);
    EXPECT_TRUE(replies.status().exists);
}

TEST_F(Shutdown, prints_nothing) {
    EXPECT_EQ(output_of([this] { center->shutdown(); }), "");
}

TEST_F(Shutdown, may_be_called_again) {
    center->shutdown();
    center->shutdown();
    center.reset();
}

TEST_F(Shutdown, ends_relays_in_the_middle_of_their_waits) {
    for (const char* channel : {"0", "1", "2", "3"}) {
        client.ask(R"({"command":"register","type":"Receiver","name":"PLAYER",)"
                   R"("pair_name":"CAM_LOOP","channel":)" +
                   std::string(channel) + "}");
    }
    const Stopwatch watch;
    center->shutdown();
    EXPECT_LT(watch.elapsed(), std::chrono::seconds(10));
}

TEST_F(Shutdown, ends_a_center_whose_request_queue_was_removed_a_moment_ago) {
    for (int i = 0; i < 5; ++i) {
        output_of([this] {
            requests.remove();
            center->shutdown();
        });
        EXPECT_EQ(threads_called("zav_center"), 0U);
        stop();
        start();
    }
}

// ---- requests meanwhile ----

TEST_F(Shutdown, every_request_was_answered_or_is_still_there) {
    for (int i = 0; i < 10; ++i) {
        client.send_signed(farewell);
    }
    center->shutdown();
    EXPECT_EQ(requests.messages() + replies.messages(), 10U);
}

TEST_F(Shutdown, returns_while_a_client_never_stops_asking) {
    std::atomic<bool> stopping{false};
    std::thread asking([&] {
        while (!stopping) {
            client.send_signed(farewell);
            replies.take(client.pid(), std::chrono::milliseconds(1));
        }
    });
    settle();
    center->shutdown();
    stopping = true;
    requests.remove();  // so that nobody waits for room in it
    asking.join();
    EXPECT_EQ(threads_called("zav_center"), 0U);
}

// ---- afterwards ----

class After_Shutdown : public Shutdown {
protected:
    void SetUp() override {
        Shutdown::SetUp();
        center->shutdown();
    }

    // The result of an operation that prints, sends, takes and starts nothing.
    int quietly(const std::function<int()>& action) const {
        const std::size_t before = requests.messages();
        int result = 0;
        EXPECT_EQ(output_of([&] { result = action(); }), "");
        EXPECT_EQ(replies.messages(), 0U);
        EXPECT_EQ(requests.messages(), before);
        EXPECT_EQ(threads_called("zav_center"), 0U);
        return result;
    }

    void expect_nothing_happens(const std::function<void()>& action) const {
        quietly([&] {
            action();
            return 0;
        });
    }
};

const std::string registration =
    R"({"command":"register","type":"Receiver","name":"PLAYER","pair_name":"CAM_LOOP","pid":77})";

TEST_F(After_Shutdown, requests_are_not_served) {
    client.send_signed(farewell);
    EXPECT_EQ(client.reply(std::chrono::milliseconds(200)), "no reply");
    EXPECT_EQ(requests.messages(), 1U);
}

TEST_F(After_Shutdown, handlers_do_nothing) {
    expect_nothing_happens([this] { center->shm_center_register(registration); });
    expect_nothing_happens([this] { center->shm_center_deregister(registration); });
    expect_nothing_happens([this] { center->shm_center_query_shm(registration); });
    expect_nothing_happens([this] { center->shm_center_pair(registration); });
    expect_nothing_happens([this] { center->shm_center_query_status(registration); });
}

TEST_F(After_Shutdown, checks_refuse_and_send_nothing) {
    EXPECT_EQ(quietly([this] { return center->verify_register_msg(registration); }), 0);
    EXPECT_EQ(quietly([this] { return center->verify_query_msg(registration); }), 0);
    EXPECT_EQ(quietly([this] { return center->verify_pair_msg(registration); }), 0);
}

TEST_F(After_Shutdown, kicking_does_nothing) {
    expect_nothing_happens([this] { center->enable_kick_idle_client(true); });
    expect_nothing_happens([this] { center->kick_idle_client(); });
}

TEST_F(After_Shutdown, record_is_not_sent) {
    Message_Record record{77, "text"};
    EXPECT_EQ(quietly([&] { return center->send_q(&record, 4); }), -1);
}

TEST_F(After_Shutdown, replies_are_not_sent) {
    Json::Value object;
    object["status"] = "success";
    const std::string text = "text";
    EXPECT_EQ(quietly([this] { return center->shm_center_reply_msg("text", 4, 77); }), -1);
    EXPECT_EQ(quietly([&] { return center->shm_center_reply_msg(text, 77); }), -1);
    EXPECT_EQ(quietly([&] { return center->shm_center_reply_msg(object, 77); }), -1);
    EXPECT_EQ(quietly([&] { return center->shm_center_reply_msg(text, text, 77); }), -1);
}

TEST_F(After_Shutdown, requests_are_not_received) {
    client.send_signed(farewell);
    Message_Record record{};
    EXPECT_EQ(quietly([&] { return center->recv_q(&record, 1028); }), -1);
}

TEST_F(After_Shutdown, receive_thread_is_not_started_again) {
    expect_nothing_happens([this] { center->create_recv_msgq(); });
}

// ---- the next one ----

class Next_Center : public Center {};

TEST_F(Next_Center, in_the_same_process_serves_as_the_first_did) {
    for (int i = 0; i < 3; ++i) {
        start();
        settle();
        EXPECT_EQ(field_of(client.ask(R"({"command":"register","type":"Receiver",)"
                                      R"("name":"PLAYER","pair_name":"CAM_LOOP"})"),
                           "shm_path"),
                  "/shm/CAM_LOOP_0_0");
        stop();
    }
}

TEST_F(Next_Center, may_have_another_configuration) {
    start();
    stop();
    start(R"({
        "Stream": [{"index": 0, "page_size": 4096}],
        "Distributor": [{"name": "OTHER", "channel": 1, "stream": [0]}],
        "Receiver": [{"name": "PLAYER", "channel": 1, "stream": [0]}]
    })");
    EXPECT_EQ(
        field_of(client.ask(R"({"command":"query_shm","type":"Distributor","name":"CAM_LOOP"})"),
                 "status"),
        "invalid_name");
    EXPECT_EQ(field_of(client.ask(R"({"command":"query_shm","type":"Distributor","name":"OTHER"})"),
                       "status"),
              "success");
}

}  // namespace
