// SPDX-License-Identifier: Apache-2.0
//
// Whose requests pass that are for a group, by the credentials of processes that are there.
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include "center/access_check.h"
#include "center_fixture.h"

namespace {

using zav_shm::Access_Check;

constexpr const char* grouped = R"({
    "Stream": [{"index": 0, "page_size": 4096}, {"index": 1, "page_size": 4096, "group": "7001"}],
    "Distributor": [{"name": "CAM", "channel": 1, "stream": [0, 1], "producers": "7002"},
                    {"name": "FREE", "channel": 1, "stream": [0, 1], "group": "7003"},
                    {"name": "LOST", "channel": 1, "stream": [0, 1], "group": "nobody_has_it"}],
    "Receiver": [{"name": "PLAYER", "channel": 1, "stream": [0, 1]}]
})";

/// A process of this user, with this group among others.
class Other_User {
public:
    Other_User(uid_t user, gid_t group) {
        int ready[2] = {-1, -1};
        EXPECT_EQ(pipe(ready), 0);
        pid_ = fork();
        if (pid_ == 0) {
            const gid_t groups[] = {1, group};
            const bool is_set = setgroups(2, groups) == 0 && setresgid(user, user, user) == 0 &&
                                setresuid(user, user, user) == 0;
            static_cast<void>(!write(ready[1], is_set ? "y" : "n", 1));
            for (;;) {
                pause();
            }
        }
        char answer = 0;
        EXPECT_EQ(read(ready[0], &answer, 1), 1);
        is_set_ = answer == 'y';
        close(ready[0]);
        close(ready[1]);
    }
    ~Other_User() {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    Other_User(const Other_User&) = delete;
    Other_User& operator=(const Other_User&) = delete;

    pid_t pid() const { return pid_; }
    bool is_set() const { return is_set_; }

private:
    pid_t pid_ = -1;
    bool is_set_ = false;
};

class Access_Of_Groups : public Control_Queues {
protected:
    void SetUp() override {
        Control_Queues::SetUp();
        if (!inside_.is_set() || !outside_.is_set()) {
            GTEST_SKIP() << "needs the right to be other users";
        }
        config_ = parsed(grouped);
        check_.guard(*config_);
    }

    Other_User inside_{3001, 7002};
    Other_User outside_{3003, 7009};
    std::unique_ptr<ZAV_SHM_CONFIG> config_;
    Access_Check check_;
};

TEST_F(Access_Of_Groups, process_that_is_named_decides_while_the_sender_is_not_known) {
    EXPECT_TRUE(check_.may_produce("CAM", inside_.pid()));
    EXPECT_FALSE(check_.may_produce("CAM", outside_.pid()));
    EXPECT_TRUE(check_.may_produce("FREE", outside_.pid()));
    EXPECT_TRUE(check_.may_read("CAM", 0, outside_.pid()));
    EXPECT_FALSE(check_.may_read("CAM", 1, outside_.pid()));
    EXPECT_FALSE(check_.may_read("FREE", 0, outside_.pid()));
    EXPECT_EQ(check_.refused().count, 3U);
    EXPECT_EQ(check_.refused().latest, "process " + std::to_string(outside_.pid()) +
                                           " (user 3003) wanted to read FREE, stream 0, which is "
                                           "for group 7003 only");
}

TEST_F(Access_Of_Groups, sender_decides_whatever_process_is_named) {
    check_.request_comes_from(outside_.pid());
    EXPECT_FALSE(check_.may_produce("CAM", inside_.pid()));
    check_.request_comes_from(inside_.pid());
    EXPECT_TRUE(check_.may_produce("CAM", outside_.pid()));
}

TEST_F(Access_Of_Groups, who_cannot_be_seen_is_an_outsider_of_groups_alone) {
    check_.request_comes_from(0);
    EXPECT_FALSE(check_.may_produce("CAM", inside_.pid()));
    EXPECT_TRUE(check_.may_read("CAM", 0, inside_.pid()));
    check_.request_comes_from(std::nullopt);
    EXPECT_FALSE(check_.may_produce("CAM", 0));
    EXPECT_FALSE(check_.may_produce("CAM", -1));
    EXPECT_FALSE(check_.may_produce("CAM", 0x7fffffff));
}

TEST_F(Access_Of_Groups, group_that_does_not_exist_has_root_and_the_own_user_in_it) {
    EXPECT_FALSE(check_.may_read("LOST", 0, inside_.pid()));
    EXPECT_TRUE(check_.may_read("LOST", 0, getpid()));
}

TEST_F(Access_Of_Groups, streams_and_names_that_are_not_there_are_not_kept) {
    EXPECT_TRUE(check_.may_read("CAM", -1, outside_.pid()));
    EXPECT_TRUE(check_.may_read("CAM", 2, outside_.pid()));
    EXPECT_TRUE(check_.may_produce("NONE", outside_.pid()));
    EXPECT_EQ(check_.refused().count, 0U);
}

}  // namespace
