// SPDX-License-Identifier: Apache-2.0
#include "client/shm_client_base.h"

#include <sys/ipc.h>
#include <sys/msg.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <thread>
#include <vector>

#include "client/control_reply.h"
#include "support/interrupted.h"
#include "support/kernel_objects.h"
#include "support/raw_client.h"
#include "support/threads.h"

namespace {

class Open_Client : public ZAV_SHM_CLIENT_BASE {
public:
    using ZAV_SHM_CLIENT_BASE::exchange;
    using ZAV_SHM_CLIENT_BASE::pid;
    using ZAV_SHM_CLIENT_BASE::recv_msgq;
    using ZAV_SHM_CLIENT_BASE::send_msgq;
};

// The record as the kernel wants it, with every byte set that a receive has to overwrite.
struct Record {
    long type = -1;
    std::string text = std::string(1028, '#');
};

class Client_Base : public Kernel_Objects {
protected:
    void TearDown() override {
        requests.remove();
        replies.remove();
        Kernel_Objects::TearDown();
    }

    // Receives into memory of exactly the documented size.
    static ssize_t receive(ZAV_SHM_CLIENT_BASE& client, Record& record, int size = 1028) {
        std::vector<char> buffer(sizeof(long) + static_cast<std::size_t>(size), '#');
        const int length = client.recv_msg(buffer.data(), size);
        std::memcpy(&record.type, buffer.data(), sizeof record.type);
        record.text.assign(buffer.begin() + sizeof record.type, buffer.end());
        return length;
    }

    const Raw_Queue requests = Raw_Queue::of_requests();
    const Raw_Queue replies = Raw_Queue::of_replies();
};

TEST_F(Client_Base, opens_both_queues_of_tmp_without_any_permission_bits) {
    const Open_Client client;
    EXPECT_EQ(client.pid, getpid());
    EXPECT_EQ(client.send_msgq.id, msgget(ftok("/tmp", 5120), 0));
    EXPECT_EQ(client.recv_msgq.id, msgget(ftok("/tmp", 5121), 0));
    EXPECT_NE(client.send_msgq.id, client.recv_msgq.id);
    EXPECT_EQ(requests.status().mode, 0U);
    EXPECT_EQ(replies.status().mode, 0U);
}

TEST_F(Client_Base, opening_again_finds_the_same_queues_and_returns_the_one_of_replies) {
    Open_Client client;
    const int requests_id = client.send_msgq.id;
    EXPECT_EQ(client.init_msgq(), msgget(ftok("/tmp", 5121), 0));
    EXPECT_EQ(client.send_msgq.id, requests_id);
}

TEST_F(Client_Base, destruction_leaves_both_queues_with_what_they_hold) {
    { Open_Client().send_msg("{}", 2); }
    EXPECT_EQ(requests.messages(), 1U);
    EXPECT_TRUE(replies.status().exists);
}

// ---- sending ----

TEST_F(Client_Base, every_text_travels_as_1028_bytes_of_type_1_padded_with_zero_bytes) {
    Open_Client client;
    for (const std::size_t length : {0U, 1U, 100U, 1023U, 1024U}) {
        const std::string text(length, 'x');
        EXPECT_TRUE(client.send_msg(text.c_str(), static_cast<int>(length)));
        const auto sent = requests.take();
        ASSERT_TRUE(sent);
        EXPECT_EQ(sent->type, 1);
        EXPECT_EQ(sent->text, text + std::string(1028 - length, '\0'));
    }
}

TEST_F(Client_Base, sends_only_as_much_of_the_text_as_it_is_told) {
    EXPECT_TRUE(Open_Client().send_msg("abcdef", 3));
    EXPECT_EQ(requests.take()->text, "abc" + std::string(1025, '\0'));
}

TEST_F(Client_Base, text_that_no_record_can_hold_is_not_sent) {
    Open_Client client;
    const std::string text(5000, 'x');
    for (const int length : {1025, 1028, 5000, -1}) {
        EXPECT_FALSE(client.send_msg(text.c_str(), length)) << length;
        EXPECT_EQ(errno, EINVAL);
    }
    EXPECT_FALSE(client.send_msg(nullptr, 0));
    EXPECT_EQ(requests.messages(), 0U);
}

TEST_F(Client_Base, whole_record_is_sent_as_it_is) {
    struct {
        long type = 42;
        char text[8] = "abcdefg";
    } record;
    Open_Client client;
    EXPECT_EQ(client.send_q(&record, 5), 0);
    const auto sent = requests.take();
    EXPECT_EQ(sent->type, 42);
    EXPECT_EQ(sent->text, "abcde");
    EXPECT_EQ(client.send_q(&record, -1), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(Client_Base, full_request_queue_blocks_the_sender_until_there_is_room) {
    Open_Client client;
    const std::size_t room = requests.status().bytes_max / 1028;
    for (std::size_t i = 0; i < room; ++i) {
        ASSERT_TRUE(client.send_msg("{}", 2));
    }
    EXPECT_EQ(errno_after_interrupting([&] { EXPECT_FALSE(client.send_msg("{}", 2)); }), EINTR);
    EXPECT_EQ(requests.messages(), room);
    ASSERT_TRUE(requests.take());
    EXPECT_TRUE(client.send_msg("{}", 2));
}

// ---- receiving ----

TEST_F(Client_Base, takes_its_own_replies_in_order_and_leaves_those_of_others) {
    Open_Client client;
    replies.send("another's", getpid() + 1);
    replies.send("first", getpid());
    replies.send("second", getpid());
    Record record;
    EXPECT_EQ(receive(client, record), 5);
    EXPECT_EQ(record.type, getpid());
    EXPECT_EQ(record.text, "first" + std::string(1023, '#'));
    EXPECT_EQ(receive(client, record), 6);
    EXPECT_EQ(replies.messages(), 1U);
    EXPECT_EQ(replies.take()->type, getpid() + 1);
}

TEST_F(Client_Base, longest_reply_fills_the_buffer_and_no_byte_more) {
    Open_Client client;
    replies.send(std::string(1028, 'x'), getpid());
    Record record;
    EXPECT_EQ(receive(client, record), 1028);
    EXPECT_EQ(record.text, std::string(1028, 'x'));
}

TEST_F(Client_Base, empty_reply_has_length_0) {
    Open_Client client;
    replies.send("", getpid());
    Record record;
    EXPECT_EQ(client.recv_q(&record, 0), 0);
}

TEST_F(Client_Base, oversized_reply_fails_once_and_does_not_stay_in_the_way) {
    Open_Client client;
    replies.send(std::string(1029, 'x'), getpid());
    replies.send("next", getpid());
    Record record;
    EXPECT_EQ(receive(client, record), -1);
    EXPECT_EQ(errno, E2BIG);
    EXPECT_EQ(receive(client, record), 4);
}

TEST_F(Client_Base, reply_that_only_a_small_buffer_cannot_hold_stays) {
    Open_Client client;
    replies.send("four", getpid());
    Record record;
    EXPECT_EQ(receive(client, record, 3), -1);
    EXPECT_EQ(errno, E2BIG);
    EXPECT_EQ(receive(client, record, 4), 4);
}

TEST_F(Client_Base, waits_for_a_reply_that_comes_later) {
    Open_Client client;
    const pid_t waiting = gettid();
    std::thread late([&] {
        becomes_true([&] { return is_asleep(waiting); });
        replies.send("late", getpid());
    });
    Record record;
    EXPECT_EQ(receive(client, record), 4);
    late.join();
}

TEST_F(Client_Base, signal_handler_ends_the_wait_for_a_reply) {
    Open_Client client;
    Record record;
    EXPECT_EQ(errno_after_interrupting([&] { EXPECT_EQ(receive(client, record), -1); }), EINTR);
}

TEST_F(Client_Base, removed_queue_ends_the_wait_for_a_reply) {
    Open_Client client;
    const pid_t waiting = gettid();
    std::thread remover([&] {
        becomes_true([&] { return is_asleep(waiting); });
        replies.remove();
    });
    Record record;
    EXPECT_EQ(receive(client, record), -1);
    EXPECT_EQ(errno, EIDRM);
    remover.join();
}

// ---- queues that could not be had ----

// The greatest number of queues of this test's own namespace; the test is void where the system
// does not let it be changed.
class Queue_Limit {
public:
    explicit Queue_Limit(int limit) {
        std::ifstream(file) >> former_, std::ofstream(file) << limit;
    }
    ~Queue_Limit() { std::ofstream(file) << former_; }
    Queue_Limit(const Queue_Limit&) = delete;
    Queue_Limit& operator=(const Queue_Limit&) = delete;

private:
    static constexpr const char* file = "/proc/sys/kernel/msgmni";
    int former_ = 0;
};

TEST_F(Client_Base, without_queues_nothing_is_sent_and_nothing_received) {
    const Queue_Limit none(0);
    Open_Client client;
    if (requests.status().exists) {
        GTEST_SKIP() << "this user cannot forbid message queues";
    }
    EXPECT_EQ(client.init_msgq(), -1);
    EXPECT_EQ(client.send_msgq.id, -1);
    EXPECT_FALSE(client.send_msg("{}", 2));
    Record record;
    EXPECT_EQ(receive(client, record), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_FALSE(client.exchange("{}"));
}

// ---- one exchange ----

TEST_F(Client_Base, exchange_without_any_text_in_the_reply_is_none) {
    Open_Client client;
    replies.send("", getpid());
    EXPECT_FALSE(client.exchange("{}"));
    ASSERT_TRUE(requests.take());
}

TEST_F(Client_Base, reply_ends_at_its_first_zero_byte) {
    Open_Client client;
    replies.send(std::string("{\"command\":\"a\"}\0{\"command\":\"b\"}", 31), getpid());
    const auto reply = client.exchange("{}");
    ASSERT_TRUE(reply);
    EXPECT_TRUE(reply->answers("a"));
    ASSERT_TRUE(requests.take());
}

TEST_F(Client_Base, receive_that_fails_counts_as_an_empty_reply) {
    Open_Client client;
    replies.send(std::string(2000, 'x'), getpid());
    const auto reply = client.exchange("{}");
    ASSERT_TRUE(reply);
    EXPECT_FALSE(reply->is_text("command"));
    ASSERT_TRUE(requests.take());
}

}  // namespace
