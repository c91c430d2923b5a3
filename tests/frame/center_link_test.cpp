// SPDX-License-Identifier: Apache-2.0
#include "frame/center_link.h"

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <thread>

#include "../center/center_fixture.h"
#include "control/center_page.h"
#include "control/center_status.h"
#include "control/control_protocol.h"

using namespace std::chrono_literals;
using zav_shm::Center_Link;

namespace {

class Link : public Center {
protected:
    Link() {
        requests.make();
        replies.make();
    }

    /// Waits for the next request and checks its command.
    void expect_request(const char* command) {
        const auto request = requests.take(1);
        const std::string text = request ? request->text : "";
        EXPECT_NE(text.find("\"command\":\"" + std::string(command) + "\""), std::string::npos)
            << text;
    }

    void grant(const char* command, const std::string& producer = "CAM_LOOP") {
        replies.send(R"({"command":")" + std::string(command) +
                         R"(","status":"success","shm_path":"/shm/)" + producer + "_0_0\"}",
                     getpid());
    }

    /// What a center answers to a consumer that it knows nothing about.
    std::thread answer_leaving_and_registering(const std::string& producer = "CAM_LOOP") {
        return std::thread([this, producer] {
            expect_request("deregister");
            grant("deregister");
            expect_request("register");
            grant("register", producer);
        });
    }

    /// As another center's host does when that answers.
    void publish_page(std::uint64_t epoch, std::uint32_t semaphore_bytes = sizeof(sem_t)) {
        leaves_segment("shm/center_page");
        std::filesystem::create_directory("/dev/shm/shm");
        zav_shm::Center_Page page;
        page.epoch = epoch;
        page.pid = static_cast<std::uint32_t>(getpid());
        page.semaphore_bytes = semaphore_bytes;
        EXPECT_TRUE(zav_shm::write_center_page("/shm", page));
        std::this_thread::sleep_for(60ms);  // it is looked for every 50 ms
    }

    Center_Link link_{zav_shm::control::type::receiver, "PLAYER", "CAM_LOOP", 0, 0};
};

TEST_F(Link, of_a_consumer_leaves_before_it_registers) {
    std::thread answering = answer_leaving_and_registering();
    EXPECT_EQ(link_.register_end(5s).outcome, Center_Link::Outcome::registered);
    answering.join();
}

// A busy relay holds up the center for longer than an impatient attempt lasts. Left once more, the
// consumer would hold a registration that the center has taken back.
TEST_F(Link, does_not_leave_again_behind_a_registration_that_is_answered_late) {
    std::thread answering([this] {
        expect_request("deregister");
        grant("deregister");
    });
    EXPECT_EQ(link_.register_end(100ms).outcome, Center_Link::Outcome::no_center);
    answering.join();
    expect_request("register");
    grant("register");
    EXPECT_EQ(link_.register_end(5s).outcome, Center_Link::Outcome::registered);
    EXPECT_EQ(requests.messages(), 0U);
}

TEST_F(Link, leaves_again_before_the_next_registration) {
    for (int time = 0; time < 2; ++time) {
        std::thread answering = answer_leaving_and_registering();
        EXPECT_EQ(link_.register_end(5s).outcome, Center_Link::Outcome::registered);
        answering.join();
    }
}

TEST_F(Link, notices_a_center_that_comes_after_an_attempt) {
    EXPECT_FALSE(link_.center_has_come());
    publish_page(1);
    EXPECT_TRUE(link_.center_has_come());
    EXPECT_EQ(link_.register_end(1ms).outcome, Center_Link::Outcome::no_center);
    std::this_thread::sleep_for(60ms);
    EXPECT_FALSE(link_.center_has_come()) << "the one that did not answer";
    publish_page(2);
    EXPECT_TRUE(link_.center_has_come());
    EXPECT_FALSE(link_.center_has_come()) << "looks every 50 ms only";
}

TEST_F(Link, waits_for_a_center_until_the_time_is_over_or_it_comes) {
    using Clock = std::chrono::steady_clock;
    const auto end = Clock::now() + 80ms;
    link_.wait_for_center(end);
    EXPECT_GE(Clock::now(), end);
    std::thread coming([this] { publish_page(1); });
    const auto far_end = Clock::now() + 60s;
    link_.wait_for_center(far_end);
    EXPECT_LT(Clock::now(), far_end);
    coming.join();
}

TEST_F(Link, is_refused_by_a_center_of_another_word_size) {
    publish_page(1, sizeof(sem_t) / 2);
    std::thread answering = answer_leaving_and_registering();
    const auto made = link_.register_end(5s);
    answering.join();
    EXPECT_EQ(made.outcome, Center_Link::Outcome::refused);
    EXPECT_EQ(made.reason, "the center's semaphores have " + std::to_string(sizeof(sem_t) / 2) +
                               " bytes and this process's " + std::to_string(sizeof(sem_t)) +
                               ": 32- and 64-bit processes cannot share a channel");
}

TEST_F(Link, remembers_a_producer_only_when_the_center_has_granted_it) {
    std::thread answering([this] {
        for (int i = 0; i < 2; ++i) {
            expect_request("query_shm");
            replies.send(R"({"command":"query_shm","status":"success","channel":1,"stream":1})",
                         getpid());
            expect_request("pair_src");
        }
        replies.send(R"({"command":"pair_src","status":"success","shm_path":"/shm/CAM_REC_0_0"})",
                     getpid());
    });
    EXPECT_EQ(link_.pair("CAM_REC", 120ms).outcome, Center_Link::Outcome::no_center);
    EXPECT_EQ(link_.producer(), "CAM_LOOP");
    EXPECT_TRUE(link_.is_in_doubt());
    EXPECT_TRUE(link_.pair("CAM_REC", 20s));
    EXPECT_EQ(link_.producer(), "CAM_REC");
    EXPECT_FALSE(link_.is_in_doubt());
    answering.join();
}

TEST_F(Link, waits_with_a_pairing_for_a_center_that_comes_within_its_time) {
    replies.remove();
    requests.remove();
    std::thread coming([this] {
        std::this_thread::sleep_for(100ms);
        start();
    });
    EXPECT_TRUE(link_.pair("CAM_REC", 20s));
    coming.join();
}

// The slot that is read is what counts, not what was asked for.
TEST_F(Link, follows_what_the_center_says_of_the_slot_that_is_read) {
    namespace fs = std::filesystem;
    const std::string status = zav_shm::center_status_path("/shm");
    leaves_segment("shm/center_status.json");
    fs::create_directory("/dev/shm/shm");
    std::ofstream(status) << R"({"channels": [{"name": "CAM_REC", "consumers":
        [{"name": "PLAYER", "channel": 0, "stream": 0}]}]})";
    EXPECT_EQ(link_.follow_pairing("/shm/CAM_LOOP_0_0"), "/shm/CAM_REC_0_0");
    EXPECT_EQ(link_.follow_pairing("/shm/CAM_LOOP_0_0"), "/shm/CAM_REC_0_0") << "it is still read";
    EXPECT_EQ(link_.follow_pairing("/shm/CAM_REC_0_0"), "");
    EXPECT_EQ(link_.producer(), "CAM_REC");

    std::thread answering = answer_leaving_and_registering("CAM_REC");
    EXPECT_TRUE(link_.register_end(20s));
    answering.join();
    EXPECT_EQ(link_.follow_pairing("/shm/CAM_LOOP_0_0"), "") << "written before that";
    fs::last_write_time(status, fs::file_time_type::clock::now() + 5s);
    EXPECT_EQ(link_.follow_pairing("/shm/CAM_LOOP_0_0"), "/shm/CAM_REC_0_0");
}

// The center that starts throws away what has waited for it, while others ask it already: what was
// thrown away is asked for again.
TEST_F(Link, repeats_what_another_server_of_the_queue_has_thrown_away) {
    EXPECT_EQ(link_.register_end(10ms).outcome, Center_Link::Outcome::no_center);
    std::this_thread::sleep_for(300ms);  // what is taken off is answered within that
    EXPECT_EQ(link_.register_end(10ms).outcome, Center_Link::Outcome::no_center);
    EXPECT_EQ(requests.messages(), 1U) << "still in the queue, and may be served";
    expect_request("deregister");
    client.send(R"({"command":"query_status"})");
    EXPECT_EQ(link_.register_end(10ms).outcome, Center_Link::Outcome::no_center);
    EXPECT_EQ(requests.messages(), 2U);
}

}  // namespace
