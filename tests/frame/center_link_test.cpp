// SPDX-License-Identifier: Apache-2.0
#include "frame/center_link.h"

#include <unistd.h>

#include <thread>

#include "../center/center_fixture.h"
#include "control/control_protocol.h"

using namespace std::chrono_literals;
using zav_shm::Center_Link;
using Outcome = Center_Link::Outcome;

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

    void grant(const char* command) {
        replies.send(R"({"command":")" + std::string(command) +
                         R"(","status":"success","shm_path":"/shm/CAM_LOOP_0_0"})",
                     getpid());
    }

    Center_Link link_{zav_shm::control::type::receiver, "PLAYER", "CAM_LOOP", 0, 0};
};

TEST_F(Link, of_a_consumer_leaves_before_it_registers) {
    std::thread answering([this] {
        expect_request("deregister");
        grant("deregister");
        expect_request("register");
        grant("register");
    });
    EXPECT_EQ(link_.register_end(5s).outcome, Outcome::registered);
    answering.join();
}

// A busy relay holds up the center for longer than an impatient attempt lasts. Left once more, the
// consumer would hold a registration that the center has taken back.
TEST_F(Link, does_not_leave_again_behind_a_registration_that_is_answered_late) {
    std::thread answering([this] {
        expect_request("deregister");
        grant("deregister");
    });
    EXPECT_EQ(link_.register_end(100ms).outcome, Outcome::no_center);
    answering.join();
    expect_request("register");
    grant("register");
    EXPECT_EQ(link_.register_end(5s).outcome, Outcome::registered);
    EXPECT_EQ(requests.messages(), 0U);
}

TEST_F(Link, leaves_again_before_the_next_registration) {
    for (int time = 0; time < 2; ++time) {
        std::thread answering([this] {
            expect_request("deregister");
            grant("deregister");
            expect_request("register");
            grant("register");
        });
        EXPECT_EQ(link_.register_end(5s).outcome, Outcome::registered);
        answering.join();
    }
}

}  // namespace
