// SPDX-License-Identifier: Apache-2.0
//
// Replies come from a queue that any process of the right user can write to: whatever they hold,
// an operation ends with a documented result.
#include <random>

#include "client_fixture.h"

namespace {

class Broken_Reply : public Clients {
protected:
    // What a query makes of the reply, printing included.
    struct Outcome {
        std::string thrown;
        std::string printed;
        int channels = 0;
        int streams = 0;
    };

    Outcome producer_query(const std::string& reply) {
        const auto client = producer(1, 1);
        Outcome outcome;
        center->answer(reply);
        outcome.printed =
            output_of([&] { outcome.thrown = thrown_by([&] { client->query_shm(); }); });
        outcome.channels = client->get_channel_num();
        outcome.streams = client->get_stream_num();
        forget_counts(*client);
        return outcome;
    }

    std::string consumer_query(const std::string& reply) {
        const auto client = consumer(1, 1);
        center->answer(reply);
        std::string thrown;
        output_of([&] { thrown = thrown_by([&] { client->query_shm(); }); });
        forget_counts(*client);
        return thrown;
    }

    // So that the client does not deregister some milliards of pairs.
    template <class Client>
    void forget_counts(Client& client) {
        center->answer(query_reply("0", "0", "[]"));
        output_of([&] { client.query_shm(); });
    }

    // Every operation that a client has, each answered with the same bytes.
    void answer_everything_with(const std::string& reply) {
        const auto distributor = producer(1, 1);
        const auto receiver = consumer(1, 1);
        for (int operation = 0; operation < 6; ++operation) {
            center->answer(reply);
        }
        output_of([&] {
            thrown_by([&] { distributor->query_shm(); });
            EXPECT_EQ(distributor->reg_shm(-1, -1), 1);
            EXPECT_EQ(distributor->dereg_shm(-1, -1), 1);
            thrown_by([&] { receiver->query_shm(); });
            EXPECT_EQ(receiver->reg_shm(-1, -1, "A"), 1);
            EXPECT_EQ(receiver->dereg_shm(-1, -1), 1);
            distributor->dereg_shm(-1, -1);  // granted now
            receiver->dereg_shm(-1, -1);
        });
        forget_counts(*distributor);
        forget_counts(*receiver);
    }
};

// A text of which nothing is understood says: no stream, and no page size for it.
TEST_F(Broken_Reply, query_that_is_no_object_changes_no_count) {
    for (const char* reply : {"no JSON at all", "5", "\"text\"", "[1,2]", "null", "\xFF\xFE"}) {
        const Outcome outcome = producer_query(reply);
        EXPECT_EQ(outcome.thrown, "nothing") << reply;
        EXPECT_EQ(outcome.channels, 1) << reply;
        EXPECT_EQ(outcome.streams, 1) << reply;
        EXPECT_EQ(consumer_query(reply), "nothing") << reply;
    }
}

TEST_F(Broken_Reply, query_is_printed_as_far_as_it_was_understood) {
    const auto second_label = [](const std::string& printed) {
        return printed.substr(printed.rfind("Recv Query : "));
    };
    EXPECT_EQ(second_label(producer_query("no JSON").printed), "Recv Query : \nnull\n");
    EXPECT_EQ(second_label(producer_query("[1,2]").printed), "Recv Query : \n[\n\t1,\n\t2\n]\n");
    EXPECT_EQ(second_label(producer_query(R"({"status":"success","channel":)").printed),
              "Recv Query : \n{\n\t\"channel\" : null,\n\t\"status\" : \"success\"\n}\n");
}

TEST_F(Broken_Reply, query_with_fields_of_wrong_types_reads_them_as_missing) {
    Outcome outcome = producer_query(
        R"({"command":5,"status":{},"channel":"9","stream":[3],"page_size":7,"root_path":[]})");
    EXPECT_EQ(outcome.thrown, "nothing");
    EXPECT_EQ(outcome.channels, 1);
    EXPECT_EQ(outcome.streams, 1);
    outcome = producer_query(R"({"channel":2.5,"stream":1,"page_size":["x"]})");
    EXPECT_EQ(outcome.thrown, "nothing");
    EXPECT_EQ(outcome.channels, 1);
    outcome = producer_query(R"({"channel":4,"stream":1,"page_size":{"a":1}})");
    EXPECT_EQ(outcome.thrown, "Invalid Page Size");
    EXPECT_EQ(outcome.channels, 1);
}

TEST_F(Broken_Reply, counts_out_of_range_are_not_taken_over) {
    for (const char* count : {"3000000000", "-3000000000", "1e300", "99999999999999999999"}) {
        const Outcome outcome = producer_query(query_reply(count, "1", "[4096]"));
        EXPECT_EQ(outcome.thrown, "nothing") << count;
        EXPECT_EQ(outcome.channels, 1) << count;
    }
}

TEST_F(Broken_Reply, huge_and_negative_counts_are_the_centers_word) {
    EXPECT_EQ(producer_query(query_reply("2147483647", "1", "[1]")).channels, 2147483647);
    EXPECT_EQ(producer_query(query_reply("-5", "1", "[1]")).channels, -5);
}

TEST_F(Broken_Reply, stream_count_without_as_many_page_sizes_is_refused) {
    for (const char* count : {"2147483647", "2", "-1", "0", "1.5"}) {
        EXPECT_EQ(producer_query(query_reply("1", count, "[1]")).thrown,
                  std::string(count) == "1.5" ? "nothing" : "Invalid Page Size")
            << count;
    }
    EXPECT_EQ(consumer_query(query_reply("1", "2147483647", "[1]")), "Invalid Page Size");
}

TEST_F(Broken_Reply, oversized_reply_reads_as_an_empty_one_and_is_gone) {
    const std::string oversized = query_reply("7", "1", "[1]") + std::string(1029, ' ');
    const Outcome outcome = producer_query(oversized);
    EXPECT_EQ(outcome.thrown, "nothing");
    EXPECT_EQ(outcome.channels, 1);
    const auto client = consumer();
    center->answer(oversized);
    EXPECT_EQ(client->reg_shm(0, 0, "CAM_LOOP"), 1);
    EXPECT_EQ(client->reg_shm(0, 0), 0);
    center->answer(oversized);
    output_of([&] { EXPECT_EQ(thrown_by([&] { client->pair_src("CAM_REC"); }), "Invalid Pair"); });
}

TEST_F(Broken_Reply, longest_reply_without_a_zero_byte_is_read_to_its_end) {
    std::string reply = query_reply("6", "1", "[1]");
    reply.insert(reply.size() - 1, std::string(1028 - reply.size(), ' '));
    EXPECT_EQ(producer_query(reply).channels, 6);
    reply.pop_back();
    EXPECT_EQ(producer_query(reply + "x").thrown, "nothing");
}

TEST_F(Broken_Reply, names_that_lead_nowhere_make_an_endpoint_whose_calls_fail) {
    const auto client = consumer();
    center->answer(R"({"command":"register","status":"success","shm_path":"/../../etc/passwd",)"
                   R"("sem_path_src":"/../x","sem_path_dst":"","sem_path_exist":")" +
                   std::string(600, 'n') + "\"}");
    output_of([&] { client->reg_shm(0, 0, "CAM_LOOP"); });
    Frame frame(10);
    EXPECT_FALSE(client->get_receiver(0, 0)->receive_frame(frame.get()));
}

TEST_F(Broken_Reply, no_bytes_do_more_than_fail) {
    for (const std::string& reply :
         {std::string("{"), std::string(1028, '['), std::string(999, '[') + "]",
          std::string(400, '{'), std::string(1028, '"'), std::string(500, '\\'),
          std::string(3, '\0'), std::string(R"({"command":"\u0000","status":"\ud800"})"),
          std::string(R"({"command":"register","status":"success"})"),
          std::string(
              R"({"command":"register","status":"success","shm_path":5,"sem_path_src":{}})"),
          std::string(R"({"command":"deregister","status":"success"} and more)"),
          std::string(R"(/* noted */ {"command":"query_shm" /* too */})")}) {
        answer_everything_with(reply);
    }
}

TEST_F(Broken_Reply, random_bytes_do_no_more_than_fail) {
    std::mt19937 random(20240229);  // NOLINT(cert-msc51-cpp): the same bytes each time
    const std::string valid = query_reply("2", "2", "[4096,8192]");
    for (int round = 0; round < 60; ++round) {
        std::string reply = round % 2 == 0 ? valid : std::string(random() % 1028 + 1, ' ');
        for (int change = round % 2 == 0 ? 3 : 1028; change > 0; --change) {
            reply[random() % reply.size()] = static_cast<char>(random() % 256);
        }
        answer_everything_with(reply);
    }
}

}  // namespace
