// SPDX-License-Identifier: Apache-2.0
//
// A reply queue without room, and queues that are removed under a running center.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <thread>

#include "center_fixture.h"
#include "support/pid_namespace.h"

namespace {

// Refused with a reply of some 500 bytes, so that few replies fill the queue.
const std::string long_query =
    R"({"command":"query_shm","type":"Receiver","name":")" + std::string(430, 'x') + "\"}";

// ---- replies that nobody takes ----

class Full_Reply_Queue : public Center {
protected:
    void SetUp() override {
        Center::SetUp();
        gone_[0] = gone_pid();
        gone_[1] = gone_pid();
        start();
        reply_bytes_ = client.ask(long_query).size();
        ASSERT_GT(reply_bytes_, 500U);
    }

    std::size_t replies_that_fit() const { return replies.status().bytes_max / reply_bytes_; }

    // Leaves so many replies to processes that are gone, in turn.
    void leave_to_the_gone(std::size_t count) const {
        for (std::size_t i = 0; i < count; ++i) {
            ASSERT_TRUE(Raw_Client(gone_[i % 2]).send_signed(long_query));
        }
        served();
    }

    // Leaves so many replies to this process.
    void leave_to_the_living(std::size_t count) const {
        for (std::size_t i = 0; i < count; ++i) {
            ASSERT_TRUE(client.send_signed(long_query));
        }
        served();
    }

    std::size_t take_all_of_the_living() const {
        std::size_t count = 0;
        while (replies.take(client.pid(), std::chrono::milliseconds(0))) {
            ++count;
        }
        return count;
    }

    // Without a request that would be answered: the center has taken what was sent, and waits.
    void served() const {
        ASSERT_TRUE(becomes_true([this] { return requests.messages() == 0; }));
        client.send(R"({"command":"none"})");
        ASSERT_TRUE(becomes_true([this] { return requests.messages() == 0; }));
    }

private:
    long gone_[2] = {};
    std::size_t reply_bytes_ = 0;
};

TEST_F(Full_Reply_Queue, nothing_is_discarded_while_there_is_room) {
    leave_to_the_gone(replies_that_fit() - 1);
    settle();
    EXPECT_EQ(replies.messages(), replies_that_fit() - 1);
    leave_to_the_gone(1);
    EXPECT_EQ(replies.messages(), replies_that_fit());
}

TEST_F(Full_Reply_Queue, replies_to_the_gone_make_room_for_the_next_client) {
    leave_to_the_gone(replies_that_fit());
    EXPECT_EQ(output_while([this] {
                  EXPECT_EQ(field_of(client.ask(long_query), "status"), "invalid_name");
              }),
              "");
    EXPECT_EQ(replies.messages(), 0U);
}

TEST_F(Full_Reply_Queue, clients_that_vanish_for_ever_never_stop_the_others) {
    EXPECT_EQ(output_while([this] {
                  for (int i = 0; i < 10; ++i) {
                      leave_to_the_gone(replies_that_fit() / 2 + 3);
                      EXPECT_EQ(field_of(client.ask(long_query), "status"), "invalid_name");
                  }
              }),
              "");
}

TEST_F(Full_Reply_Queue, replies_to_the_living_are_kept_when_those_to_the_gone_are_discarded) {
    const std::size_t kept = replies_that_fit() / 2;
    leave_to_the_living(kept);
    leave_to_the_gone(replies_that_fit() - kept);
    const Raw_Client other(1);
    EXPECT_EQ(field_of(other.ask(long_query), "status"), "invalid_name");
    EXPECT_EQ(replies.messages(), kept);
    EXPECT_EQ(take_all_of_the_living(), kept);
}

// It lives in a PID namespace of its own and has an id there that nobody has here.
TEST_F(Full_Reply_Queue, reply_to_the_living_of_another_pid_namespace_is_kept) {
    int unused = 2;
    while (kill(unused, 0) == 0 || errno != ESRCH) {
        ++unused;
    }
    int asked[2];
    int go_on[2];
    ASSERT_EQ(pipe2(asked, O_CLOEXEC), 0);
    ASSERT_EQ(pipe2(go_on, O_CLOEXEC), 0);
    const auto ask_and_take_the_reply_late = [&] {
        const Raw_Client inside;
        char byte = 'x';
        const bool has_asked = inside.send_signed(long_query) &&
                               becomes_true([this] { return replies.messages() == 1; }) &&
                               write(asked[1], &byte, 1) == 1;
        return has_asked && read(go_on[0], &byte, 1) == 1 &&
                       inside.reply(std::chrono::milliseconds(0)) != "no reply"
                   ? 7
                   : 8;
    };
    int result = 0;
    char byte = 'x';
    std::thread other([&] {
        result = result_in_pid_namespace(ask_and_take_the_reply_late, unused);
        EXPECT_EQ(write(asked[1], "x", 1), 1);  // also when it could not ask
    });
    EXPECT_EQ(read(asked[0], &byte, 1), 1);
    // One by one, so that the center knows who sent each; of who is unknown it would wait to be
    // sure.
    for (std::size_t i = 0; i <= replies_that_fit(); ++i) {
        leave_to_the_gone(1);
    }
    EXPECT_EQ(field_of(client.ask(long_query), "status"), "invalid_name");
    EXPECT_LT(replies.messages(), replies_that_fit() / 2) << "those to the gone are discarded";
    EXPECT_EQ(write(go_on[1], "x", 1), 1);
    other.join();
    EXPECT_EQ(result, 7);
    for (const int end : {asked[0], asked[1], go_on[0], go_on[1]}) {
        close(end);
    }
}

TEST_F(Full_Reply_Queue, reply_that_finds_only_living_addressees_fails_with_its_lines) {
    leave_to_the_living(replies_that_fit());
    EXPECT_EQ(output_of([this] {
                  Raw_Client(1).send_signed(long_query);
                  served();
              }),
              send_failure);
    EXPECT_EQ(replies.messages(), replies_that_fit());
}

TEST_F(Full_Reply_Queue, center_serves_on_when_the_living_have_taken_theirs) {
    leave_to_the_living(replies_that_fit());
    output_of([this] { leave_to_the_living(3); });
    EXPECT_EQ(take_all_of_the_living(), replies_that_fit());
    EXPECT_EQ(field_of(client.ask(long_query), "status"), "invalid_name");
    EXPECT_EQ(replies.messages(), 0U);
}

// A request that is refused its reply has nevertheless been carried out.
TEST_F(Full_Reply_Queue, command_whose_reply_fails_is_carried_out) {
    leave_to_the_living(replies_that_fit());
    output_of([this] {
        client.send_signed(R"({"command":"register","type":"Receiver","name":"PLAYER",)"
                           R"("pair_name":"CAM_LOOP"})");
        served();
    });
    auto* const relay =
        center->manager()->get_transmission(Shm_Stream_Transmission_Index("CAM_LOOP", 0, 0));
    EXPECT_EQ(relay->get_distributor_num(), 1);
}

// ---- queues that are removed ----

class Removed_Queue : public Center {
protected:
    void SetUp() override {
        Center::SetUp();
        start();
    }
};

// The second line is that of a center that was not waiting at that moment.
bool is_one_error_line(const std::string& text) {
    return text == "Recv Error, Identifier removed\n" || text == "Recv Error, Invalid argument\n";
}

TEST_F(Removed_Queue, requests_are_served_on_the_new_queue_after_one_line) {
    for (int i = 0; i < 10; ++i) {
        const std::string printed = output_while([this] { requests.remove(); });
        EXPECT_TRUE(is_one_error_line(printed)) << printed;
    }
}

TEST_F(Removed_Queue, replies_go_to_the_new_queue_without_a_line) {
    EXPECT_EQ(output_while([this] {
                  for (int i = 0; i < 10; ++i) {
                      replies.remove();
                      settle();
                  }
              }),
              "");
}

TEST_F(Removed_Queue, both_may_be_removed_at_once) {
    for (int i = 0; i < 10; ++i) {
        const std::string printed = output_while([this] {
            requests.remove();
            replies.remove();
        });
        EXPECT_TRUE(is_one_error_line(printed)) << printed;
    }
}

TEST_F(Removed_Queue, queue_that_was_full_of_replies_is_no_matter_once_removed) {
    output_of([this] {
        for (int i = 0; i < 40; ++i) {
            client.send_signed(long_query);
        }
        ASSERT_TRUE(becomes_true([this] { return requests.messages() == 0; }));
        replies.remove();
        settle();
    });
    EXPECT_EQ(field_of(client.ask(long_query), "status"), "invalid_name");
}

}  // namespace
