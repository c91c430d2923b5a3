// SPDX-License-Identifier: Apache-2.0
#include "ipc/zav_msg_q.h"

#include <sys/ipc.h>
#include <sys/msg.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "support/kernel_objects.h"
#include "support/pid_namespace.h"

namespace {

class Message_Queue : public Kernel_Objects {
protected:
    void SetUp() override {
        Kernel_Objects::SetUp();
        ASSERT_TRUE(queue.open(5120));
    }
    void TearDown() override {
        msgctl(queue.id, IPC_RMID, nullptr);
        Kernel_Objects::TearDown();
    }

    struct Message {
        long type;
        char text[4096];
    };

    void send(long type, const std::string& text) const {
        Message message{type, {}};
        std::memcpy(message.text, text.data(), text.size());
        ASSERT_EQ(msgsnd(queue.id, &message, text.size(), IPC_NOWAIT), 0);
    }

    msgqnum_t count() const {
        msqid_ds status{};
        msgctl(queue.id, IPC_STAT, &status);
        return status.msg_qnum;
    }

    ZAV_MSG_Q queue;
};

TEST_F(Message_Queue, is_the_one_of_its_project_on_tmp_without_permission_bits) {
    EXPECT_EQ(queue.id, msgget(ftok("/tmp", 5120), 0));
    msqid_ds status{};
    ASSERT_EQ(msgctl(queue.id, IPC_STAT, &status), 0);
    EXPECT_EQ(status.msg_perm.mode & 0777U, 0U);
    ZAV_MSG_Q again;
    EXPECT_TRUE(again.open(5120));
    EXPECT_EQ(again.id, queue.id);
}

TEST_F(Message_Queue, opening_an_existing_one_makes_none) {
    ZAV_MSG_Q replies;
    EXPECT_FALSE(replies.open_existing(5121));
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(replies.id, -1);
    EXPECT_EQ(msgget(ftok("/tmp", 5121), 0), -1);
    ZAV_MSG_Q again;
    EXPECT_TRUE(again.open_existing(5120));
    EXPECT_EQ(again.id, queue.id);
}

TEST_F(Message_Queue, cleaned_holds_nothing_and_tells_the_last_length) {
    EXPECT_EQ(queue.clean(), 0);
    send(1, "one");
    send(77, "three");
    EXPECT_EQ(queue.clean(), 5);
    EXPECT_EQ(count(), 0U);
}

TEST_F(Message_Queue, cleaned_of_a_message_longer_than_a_record) {
    send(1, std::string(2000, 'x'));
    send(1, "short");
    EXPECT_EQ(queue.clean(), 5);
    EXPECT_EQ(count(), 0U);
}

TEST_F(Message_Queue, cleaning_one_that_is_gone_fails) {
    ZAV_MSG_Q none;
    EXPECT_EQ(none.clean(), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(Message_Queue, discards_the_oldest_whatever_its_length) {
    EXPECT_FALSE(queue.discard_oldest());
    send(5, std::string(3000, 'x'));
    send(6, "kept");
    EXPECT_TRUE(queue.discard_oldest());
    EXPECT_FALSE(queue.holds(5));
    EXPECT_TRUE(queue.holds(6));
}

TEST_F(Message_Queue, discards_all_of_one_type_and_no_other) {
    send(5, "a");
    send(6, "b");
    send(5, std::string(2000, 'c'));
    EXPECT_EQ(queue.discard_all(5), 2);
    EXPECT_EQ(queue.discard_all(5), 0);
    EXPECT_EQ(count(), 1U);
}

TEST_F(Message_Queue, asking_what_it_holds_takes_nothing) {
    send(6, "b");
    EXPECT_TRUE(queue.holds(6));
    EXPECT_TRUE(queue.holds(6));
    EXPECT_FALSE(queue.holds(7));
}

TEST_F(Message_Queue, tells_who_sent_the_message_taken_last_when_no_other_waits) {
    send(1, "one");
    send(1, "two");
    EXPECT_FALSE(queue.last_sender()) << "of the second";
    queue.discard_oldest();
    EXPECT_FALSE(queue.last_sender()) << "of the second, which waits";
    queue.discard_oldest();
    EXPECT_EQ(queue.last_sender(), getpid());
    EXPECT_FALSE(ZAV_MSG_Q().last_sender());
}

TEST_F(Message_Queue, tells_a_sender_of_another_pid_namespace_by_the_id_that_it_has_here) {
    const auto send_from_there = [this] {
        send(1, "one");
        return getpid();  // a small number
    };
    const int there = result_in_pid_namespace(send_from_there);
    EXPECT_LE(there, 100);
    queue.discard_oldest();
    const auto sender = queue.last_sender();
    ASSERT_TRUE(sender);
    EXPECT_NE(*sender, there);
    EXPECT_NE(*sender, 0);
}

}  // namespace
