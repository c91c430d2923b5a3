// SPDX-License-Identifier: Apache-2.0
#include "center/addressees.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

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

TEST_F(Known, addressee_of_this_namespace_is_gone_when_its_process_is) {
    const pid_t ended = ended_process();
    reply_to(getpid(), getpid());
    reply_to(ended, ended);
    EXPECT_EQ(gone_after(0s), std::vector<long>{ended});
    EXPECT_EQ(gone_after(1h), nobody_) << "forgotten, and the living stay";
}

// As the center's own question does, or a test that stands for many clients.
TEST_F(Known, addressee_that_another_process_asks_for_is_judged_by_its_own_id) {
    const pid_t ended = ended_process();
    reply_to(ended, getpid());
    EXPECT_EQ(gone_after(0s), std::vector<long>{ended});
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

// A reply that is not taken for so long is not waited for.
TEST_F(Known, addressee_that_is_out_of_sight_is_gone_when_it_has_long_had_no_reply) {
    const pid_t no_process = ended_process();
    reply_to(no_process, 0);
    EXPECT_EQ(gone_after(4s), nobody_);
    EXPECT_EQ(gone_after(5s), std::vector<long>{no_process});
}

TEST_F(Known,
       addressee_of_an_unknown_sender_is_judged_by_its_id_unless_there_are_other_namespaces) {
    const pid_t first = ended_process();
    reply_to(first, {});
    reply_to(getpid(), {});
    EXPECT_EQ(gone_after(0s), std::vector<long>{first});
    const pid_t elsewhere = ended_process();
    reply_to(elsewhere, 0);
    const pid_t second = ended_process();
    reply_to(second, {});
    EXPECT_EQ(gone_after(4s), nobody_) << "it may be out of sight, too";
    EXPECT_EQ(gone_after(5s), (std::vector<long>{elsewhere, second}));
}

TEST_F(Known, sender_that_was_told_once_is_remembered) {
    const pid_t elsewhere = ended_process();
    reply_to(elsewhere, 0);
    reply_to(elsewhere, {});
    EXPECT_EQ(gone_after(4s), nobody_);
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
