// SPDX-License-Identifier: Apache-2.0
#include "frame/link/center_link.h"

#include <unistd.h>

#include <filesystem>
#include <thread>

#include "../center/center_fixture.h"
#include "control/center_page.h"
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

    std::thread answer_registration() {
        return std::thread([this] {
            expect_request("register");
            grant("register");
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
    }

    Center_Link link_{{.type = zav_shm::control::type::receiver,
                       .name = "PLAYER",
                       .producer = "CAM_LOOP",
                       .card = {}},
                      Center_Link::Way::ring};
    Center_Link relayed_{link_.end(), Center_Link::Way::relay};
};

TEST_F(Link, takes_one_exchange_for_a_registration_and_leaves_nothing_before) {
    for (int time = 0; time < 2; ++time) {
        std::thread answering = answer_registration();
        const auto made = link_.register_end(5s);
        answering.join();
        EXPECT_EQ(made.outcome, Center_Link::Outcome::granted);
        EXPECT_EQ(made.segment, "/shm/CAM_LOOP_0_0");
        EXPECT_EQ(link_.folder(), "/shm");
    }
    EXPECT_EQ(requests.messages(), 0U);
}

// A busy relay holds up the center for longer than an impatient attempt lasts.
TEST_F(Link, takes_the_late_answer_to_an_earlier_attempt) {
    EXPECT_EQ(link_.register_end(50ms).outcome, Center_Link::Outcome::no_center);
    std::thread answering = answer_registration();
    EXPECT_EQ(link_.register_end(5s).outcome, Center_Link::Outcome::granted);
    answering.join();
    EXPECT_EQ(requests.messages(), 0U) << "asked once";
}

TEST_F(Link, says_what_a_center_says_that_refuses) {
    std::thread answering([this] {
        expect_request("register");
        replies.send(R"({"command":"register","status":"failed","reason":"no such stream"})",
                     getpid());
    });
    const auto made = link_.register_end(5s);
    answering.join();
    EXPECT_EQ(made.outcome, Center_Link::Outcome::refused);
    EXPECT_NE(made.reason.find("PLAYER/0/0"), std::string::npos) << made.reason;
}

TEST_F(Link, notices_a_center_that_comes_after_an_attempt) {
    EXPECT_FALSE(link_.center_has_come());
    publish_page(1);
    EXPECT_TRUE(link_.center_has_come());
    EXPECT_EQ(link_.register_end(1ms).outcome, Center_Link::Outcome::no_center);
    EXPECT_FALSE(link_.center_has_come()) << "the one that did not answer";
    publish_page(2);
    EXPECT_TRUE(link_.center_has_come());
}

// Semaphores are shared with a relay only: a ring is the same to both.
// Who registered with it while it was starting need not do so again.
TEST_F(Link, takes_the_center_that_has_answered_for_no_other_one) {
    publish_page(1);
    zav_shm::remove_center_page("/shm");
    std::thread coming([this] {
        expect_request("register");
        publish_page(2);
        grant("register");
    });
    EXPECT_TRUE(link_.register_end(5s));
    coming.join();
    EXPECT_FALSE(link_.center_has_come());
    EXPECT_FALSE(link_.is_stale());
    publish_page(3);
    EXPECT_TRUE(link_.center_has_come());
}

TEST_F(Link, is_refused_by_a_center_of_another_word_size_when_it_is_for_a_relay) {
    publish_page(1, sizeof(sem_t) / 2);
    for (Center_Link* const link : {&relayed_, &link_}) {
        std::thread answering = answer_registration();
        const auto made = link->register_end(5s);
        answering.join();
        if (link == &link_) {
            EXPECT_TRUE(made) << made.reason;
        } else {
            EXPECT_EQ(made.outcome, Center_Link::Outcome::refused);
            EXPECT_EQ(made.reason,
                      "the center's semaphores have " + std::to_string(sizeof(sem_t) / 2) +
                          " bytes and this process's " + std::to_string(sizeof(sem_t)) +
                          ": 32- and 64-bit processes cannot share a slot");
        }
    }
}

TEST_F(Link, remembers_a_producer_only_when_the_center_has_granted_it) {
    EXPECT_EQ(link_.pair("CAM_REC", 50ms).outcome, Center_Link::Outcome::no_center);
    EXPECT_EQ(link_.end().producer, "CAM_LOOP");
    std::thread answering([this] {
        expect_request("pair_src");
        grant("pair_src", "CAM_REC");
    });
    EXPECT_TRUE(link_.pair("CAM_REC", 20s));
    answering.join();
    EXPECT_EQ(link_.end().producer, "CAM_REC");
}

TEST_F(Link, does_not_take_the_answer_to_another_pairing_for_its_own) {
    std::thread answering([this] {
        expect_request("pair_src");
        grant("pair_src", "CAM_LOOP");
    });
    EXPECT_EQ(link_.pair("CAM_REC", 150ms).outcome, Center_Link::Outcome::no_center);
    answering.join();
    EXPECT_EQ(link_.end().producer, "CAM_LOOP");
}

TEST_F(Link, becomes_stale_when_another_center_has_come) {
    publish_page(1);
    std::thread answering = answer_registration();
    EXPECT_TRUE(link_.register_end(5s));
    answering.join();
    EXPECT_FALSE(link_.is_stale());
    publish_page(2);
    EXPECT_TRUE(link_.is_stale());
}

// One that lives in another PID namespace has no process of that id here.
TEST_F(Link, takes_a_center_for_alive_whose_page_is_held) {
    leaves_segment("shm/center_page");
    std::filesystem::create_directory("/dev/shm/shm");
    zav_shm::Center_Page page;
    page.epoch = 7;
    page.pid = 0x7ffffff0;
    page.semaphore_bytes = sizeof(sem_t);
    auto held = zav_shm::hold_center_page("/shm", page);
    ASSERT_TRUE(held.is_open());
    std::thread answering = answer_registration();
    EXPECT_TRUE(link_.register_end(5s));
    answering.join();
    EXPECT_FALSE(link_.center_is_gone());
    held = {};
    EXPECT_TRUE(link_.center_is_gone());
}

// The center that starts throws away what has waited for it, while others ask it already: what was
// thrown away is asked for again.
TEST_F(Link, repeats_what_another_server_of_the_queue_has_thrown_away) {
    EXPECT_EQ(link_.register_end(10ms).outcome, Center_Link::Outcome::no_center);
    std::this_thread::sleep_for(300ms);  // what is taken off is answered within that
    EXPECT_EQ(link_.register_end(10ms).outcome, Center_Link::Outcome::no_center);
    EXPECT_EQ(requests.messages(), 1U) << "still in the queue, and may be served";
    expect_request("register");
    client.send(R"({"command":"query_status"})");
    EXPECT_EQ(link_.register_end(10ms).outcome, Center_Link::Outcome::no_center);
    EXPECT_EQ(requests.messages(), 2U);
}

}  // namespace
