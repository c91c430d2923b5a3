// SPDX-License-Identifier: Apache-2.0
//
// What the daemon tells a service manager, on a real notification socket, and when it keeps the
// watchdog waiting.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <csignal>
#include <cstring>

#include "daemon_fixture.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

class Daemon_Notification : public Daemon_Process {
protected:
    void SetUp() override {
        Daemon_Process::SetUp();
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path_ = folder() + "/notify";
        std::strncpy(address.sun_path, path_.c_str(), sizeof address.sun_path - 1);
        socket_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        ASSERT_EQ(bind(socket_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    }
    void TearDown() override {
        daemon.reset();
        close(socket_);
        Daemon_Process::TearDown();
    }

    // As a service manager starts it; `watchdog` in milliseconds, 0 for none.
    bool start_notifying(int watchdog = 0) {
        Words environment{"/usr/bin/env", "NOTIFY_SOCKET=" + path_};
        if (watchdog > 0) {
            environment.push_back("WATCHDOG_USEC=" + std::to_string(watchdog * 1000));
        }
        return start({}, environment);
    }

    // The next message, or "" when none comes.
    std::string message(milliseconds limit = seconds(10)) const {
        std::string text(4096, '\0');
        ssize_t got = -1;
        becomes_true(
            [&] {
                got = recv(socket_, text.data(), text.size(), 0);
                return got >= 0;
            },
            limit);
        text.resize(got < 0 ? 0 : static_cast<std::size_t>(got));
        return text;
    }

    bool is_fed(milliseconds limit = seconds(10)) const { return message(limit) == "WATCHDOG=1"; }

    void forget_messages() const {
        while (!message(milliseconds(0)).empty()) {
        }
    }

    // The receive thread prints into a pipe that nobody empties until it cannot go on.
    void wedge_the_center() const {
        for (int i = 0; i < 200 && requests.messages() < 3; ++i) {
            requests.send(R"({"command":"query_status"})");
            becomes_true([this] { return requests.messages() == 0; }, milliseconds(200));
        }
        ASSERT_TRUE(becomes_true([this] { return requests.messages() > 0; }));
    }

    std::string path_;
    int socket_ = -1;
};

TEST_F(Daemon_Notification, tells_when_it_is_ready_what_it_serves_and_when_it_ends) {
    ASSERT_TRUE(start_notifying());
    const std::string ready = message();
    EXPECT_EQ(ready.rfind("READY=1\nSTATUS=serves 12 producer and 28 consumer channels of ", 0), 0U)
        << ready;
    EXPECT_EQ(end(), 0);
    EXPECT_EQ(message().rfind("STOPPING=1\n", 0), 0U);
    EXPECT_EQ(message(milliseconds(0)), "");
}

TEST_F(Daemon_Notification, is_ready_only_when_the_center_answers_and_the_page_is_there) {
    ASSERT_TRUE(start_notifying());
    ASSERT_EQ(message().rfind("READY=1", 0), 0U);
    EXPECT_TRUE(exists("shm/center_page"));
    EXPECT_TRUE(exists("shm/center_status.json"));
    EXPECT_EQ(end(), 0);
}

TEST_F(Daemon_Notification, that_is_refused_is_never_ready) {
    ASSERT_TRUE(start_notifying());
    message();
    run({"--config", configuration()}, {"/usr/bin/env", "NOTIFY_SOCKET=" + path_});
    EXPECT_EQ(message(milliseconds(0)), "");
    EXPECT_EQ(end(), 0);
}

TEST_F(Daemon_Notification, without_a_watchdog_asks_the_center_nothing) {
    ASSERT_TRUE(start_notifying());
    message();
    EXPECT_EQ(message(milliseconds(1500)), "");
    EXPECT_EQ(end(), 0);
}

TEST_F(Daemon_Notification, watchdog_is_fed_several_times_within_its_time) {
    ASSERT_TRUE(start_notifying(1000));
    message();
    const Stopwatch watch;
    for (int i = 0; i < 8; ++i) {
        EXPECT_TRUE(is_fed());
    }
    EXPECT_LT(watch.elapsed(), seconds(8));
    EXPECT_EQ(replies.messages(), 0U);
    EXPECT_EQ(end(), 0);
}

TEST_F(Daemon_Notification, watchdog_is_not_fed_while_the_center_cannot_answer) {
    ASSERT_TRUE(start_notifying(400));
    message();
    ASSERT_TRUE(is_fed());
    wedge_the_center();
    std::this_thread::sleep_for(milliseconds(500));
    forget_messages();
    EXPECT_EQ(message(milliseconds(1500)), "");
    EXPECT_LE(requests.messages(), 5U) << "questions pile up";
    daemon->read_rest(milliseconds(500));
    EXPECT_TRUE(is_fed());
    EXPECT_TRUE(is_fed());
    becomes_true([this] {
        daemon->read_rest(milliseconds(10));
        return requests.messages() == 0;
    });
    EXPECT_EQ(end(), 0);
}

TEST_F(Daemon_Notification, main_thread_lives_and_ends_while_the_center_cannot_go_on) {
    ASSERT_TRUE(start_notifying(400));
    wedge_the_center();
    std::this_thread::sleep_for(milliseconds(1100));
    const auto before = content_of("/dev/shm/shm/center_status.json");
    EXPECT_TRUE(
        becomes_true([&] { return content_of("/dev/shm/shm/center_status.json") != before; }));
    EXPECT_EQ(end(), 1);
    EXPECT_NE(errors().find("receive thread does not end"), std::string::npos);
    EXPECT_FALSE(exists("shm/center_page"));
    announce_locks_of_a_killed_one();
}

// Another reply would be one too many for the center to send.
TEST_F(Daemon_Notification, full_reply_queue_is_left_alone) {
    ASSERT_TRUE(start_notifying(400));
    message();
    while (replies.send(std::string(500, 'x'), getpid(), milliseconds(0))) {
    }
    std::this_thread::sleep_for(milliseconds(300));
    const std::size_t full = replies.status().bytes;
    forget_messages();
    EXPECT_EQ(message(milliseconds(1200)), "");
    EXPECT_EQ(replies.status().bytes, full);
    EXPECT_EQ(daemon->read_rest(milliseconds(10)), "");  // no reply that could not be sent

    // The center still serves, which shows.
    EXPECT_TRUE(becomes_true([this] {
        requests.send(R"({"command":"none"})");
        return is_fed(milliseconds(300));
    }));
    while (replies.take(getpid(), milliseconds(0))) {
    }
    EXPECT_TRUE(is_fed());
    EXPECT_EQ(end(), 0);
}

}  // namespace
