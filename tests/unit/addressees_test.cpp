// SPDX-License-Identifier: Apache-2.0
#include "center/addressees.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <limits>
#include <vector>

using zav_shm::Addressees;
using namespace std::chrono_literals;

namespace {

pid_t ended_process() {
    const pid_t pid = fork();
    if (pid == 0) {
        _exit(0);
    }
    waitpid(pid, nullptr, 0);
    return pid;
}

class Known : public testing::Test {
protected:
    std::vector<long> gone_after(std::chrono::seconds time) {
        std::vector<long> gone;
        addressees_.discard_gone([&gone](long addressee) { gone.push_back(addressee); },
                                 start_ + time);
        return gone;
    }
    void reply_to(long addressee, std::optional<pid_t> sender) {
        addressees_.request_comes_from(sender);
        addressees_.replied(addressee, start_);
    }

    const Addressees::Clock::time_point start_ = Addressees::Clock::now();
    const std::vector<long> nobody_;
    Addressees addressees_;
};

TEST_F(Known, addressee_is_gone_when_its_process_is) {
    const pid_t ended = ended_process();
    reply_to(getpid(), getpid());
    reply_to(ended, {});
    EXPECT_EQ(gone_after(0s), std::vector<long>{ended});
    EXPECT_EQ(gone_after(1h), nobody_) << "forgotten, and the living stay";
}

TEST_F(Known, process_that_has_ended_and_was_not_waited_for_is_gone) {
    const pid_t ended = fork();
    if (ended == 0) {
        _exit(0);
    }
    siginfo_t information{};
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(ended), &information, WEXITED | WNOWAIT), 0);
    reply_to(ended, ended);
    EXPECT_EQ(gone_after(0s), std::vector<long>{ended});
    waitpid(ended, nullptr, 0);
}

TEST_F(Known, addressee_that_no_process_can_have_is_gone) {
    const long beyond = std::numeric_limits<long>::max();
    reply_to(beyond, {});
    EXPECT_EQ(gone_after(0s), std::vector<long>{beyond});
}

// A reply that is not taken for so long is not waited for.
TEST_F(Known, addressee_that_may_be_out_of_sight_is_gone_when_it_has_long_had_no_reply) {
    const pid_t no_process = ended_process();
    reply_to(no_process, 0);
    EXPECT_EQ(gone_after(4s), nobody_);
    EXPECT_EQ(gone_after(5s), std::vector<long>{no_process});
    const pid_t another = ended_process();
    reply_to(another, getpid());
    EXPECT_EQ(gone_after(4s), nobody_) << "some are out of sight";
    reply_to(getpid(), getpid());
    EXPECT_EQ(gone_after(1h), std::vector<long>{another});
}

TEST_F(Known, addressees_without_a_reply_are_forgotten_when_there_are_many) {
    int asked = 0;
    const auto has_none = [&asked](long) {
        ++asked;
        return false;
    };
    for (long i = 1; i <= 1024; ++i) {
        reply_to(i, {});
        addressees_.forget_all_but(has_none);
    }
    EXPECT_EQ(asked, 0);
    reply_to(1025, {});
    addressees_.forget_all_but(has_none);
    EXPECT_EQ(asked, 1025);
    EXPECT_EQ(gone_after(1h), nobody_);
}

}  // namespace
