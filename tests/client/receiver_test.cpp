// SPDX-License-Identifier: Apache-2.0
//
// The consumer's client, apart from moving to another producer.
#include "client_fixture.h"

namespace {

class Receiver_Client : public Clients {
protected:
    static std::string query_request() {
        return R"({"command":"query_shm","name":"PLAYER","pid":)" + pid() +
               R"(,"type":"Receiver"})";
    }

    // The producer that the client holds, as its next registration names it.
    std::string stored_producer(ZAV_SHM_CLIENT_RECEIVER& client) {
        center->requests();
        center->answer(R"({"command":"register","status":"fail"})");
        if (client.reg_shm(0, 0) == 0) {
            return "";
        }
        const std::string request = center->requests().at(0);
        const std::string start = R"("pair_name":")";
        const std::size_t value = request.find(start) + start.size();
        return request.substr(value, request.find('"', value) - value);
    }
};

// Registers and does not look at what opening endpoints without segments prints.
void quietly(const std::function<void()>& action) { output_of(action); }

// ---- construction and query ----

TEST_F(Receiver_Client, construction_with_a_name_asks_prints_nothing_and_registers_nothing) {
    center->configure(3, {4096, 8192});
    std::unique_ptr<ZAV_SHM_CLIENT_RECEIVER> client;
    EXPECT_EQ(output_of([&] { client = std::make_unique<ZAV_SHM_CLIENT_RECEIVER>("PLAYER"); }), "");
    EXPECT_EQ(center->requests(), Texts{query_request()});
    EXPECT_EQ(client->get_channel_num(), 3);
    EXPECT_EQ(client->get_stream_num(), 2);
    EXPECT_EQ(client->get_shm_page_size(0), 4096);
    EXPECT_EQ(client->get_shm_page_size(1), 8192);
    EXPECT_EQ(client->get_shm_page_size(3), 0);
    EXPECT_EQ(client->get_shm_page_size(-1), 0);
}

TEST_F(Receiver_Client, construction_with_a_producer_registers_every_pair_channel_by_channel) {
    center->configure(2, {4096, 8192});
    quietly([&] {
        const ZAV_SHM_CLIENT_RECEIVER client("PLAYER", "CAM_LOOP");
        EXPECT_EQ(center->requests(),
                  (Texts{query_request(), consumer_request("register", 0, 0, "CAM_LOOP"),
                         consumer_request("register", 0, 1, "CAM_LOOP"),
                         consumer_request("register", 1, 0, "CAM_LOOP"),
                         consumer_request("register", 1, 1, "CAM_LOOP")}));
    });
}

TEST_F(Receiver_Client, query_sets_where_segments_lie) {
    center->answer(
        R"({"command":"query_shm","status":"success","root_path":"/elsewhere","stream":0})");
    const ZAV_SHM_CLIENT_RECEIVER client("PLAYER");
    EXPECT_EQ(IPC_SHMEMORY::root_path, "/elsewhere");
}

TEST_F(Receiver_Client, without_a_reply_nothing_is_known_and_nothing_registered) {
    center->answer("");
    quietly([&] {
        const ZAV_SHM_CLIENT_RECEIVER client("PLAYER", "CAM_LOOP");
        EXPECT_EQ(client.get_channel_num(), 0);
        EXPECT_EQ(client.get_stream_num(), 0);
    });
    EXPECT_EQ(center->requests(), Texts{query_request()});
}

TEST_F(Receiver_Client, query_that_is_refused_throws_and_prints_no_status) {
    const auto built = [] { const ZAV_SHM_CLIENT_RECEIVER client("PLAYER", "CAM_LOOP"); };
    center->answer(R"({"command":"query_shm","status":"invalid_name"})");
    EXPECT_EQ(output_of([&] { EXPECT_EQ(thrown_by(built), "Invalid Status"); }), "");
    center->answer(R"({"command":"pair_src","status":"success"})");
    EXPECT_EQ(output_of([&] { EXPECT_EQ(thrown_by(built), "Invalid Command"); }), "");
    center->answer(query_reply("1", "2", "[4096]"));
    EXPECT_EQ(output_of([&] { EXPECT_EQ(thrown_by(built), "Invalid Page Size"); }),
              "Invalid Page Size\n");
}

TEST_F(Receiver_Client, second_query_appends_its_page_sizes) {
    const auto client = consumer(1, 1);
    center->answer(query_reply("1", "1", "[100]"));
    EXPECT_EQ(client->query_shm(), 1U);
    EXPECT_EQ(client->get_shm_page_size(0), 4096);
    EXPECT_EQ(client->get_shm_page_size(1), 100);
}

// ---- registration ----

TEST_F(Receiver_Client, registration_prints_nothing_and_opens_an_endpoint_that_takes_frames) {
    make_slot(4096);
    const auto writer = make_writer("PLAYER");
    const auto client = consumer();
    EXPECT_EQ(output_of([&] { EXPECT_EQ(client->reg_shm(0, 0, "CAM_LOOP"), 1); }), "");
    EXPECT_EQ(center->requests(), Texts{consumer_request("register", 0, 0, "CAM_LOOP")});

    ZAV_SHM_Stream_Receiver* endpoint = nullptr;
    EXPECT_EQ(output_of([&] { endpoint = client->get_receiver(0, 0); }), "");
    const Peer relay(consumer_names("PLAYER"));
    relay.post(0);
    Frame frame(4096);
    EXPECT_TRUE(endpoint->receive_frame(frame.get()));
    EXPECT_EQ(relay.values(), (std::vector<int>{0, 1, 1}));
}

TEST_F(Receiver_Client, unpaired_registers_nothing) {
    const auto client = consumer(2, 2);
    EXPECT_EQ(client->reg_shm(0, 0), 0);
    EXPECT_EQ(client->reg_shm(1), 0);
    EXPECT_EQ(client->reg_shm(), 1);
    EXPECT_EQ(client->reg_shm(0, 0, ""), 1);
    EXPECT_EQ(center->requests(),
              Texts{consumer_request("register", 0, 0)
                        .replace(consumer_request("register", 0, 0).find("\"pid\""), 0,
                                 R"("pair_name":"",)")});
    EXPECT_EQ(client->reg_shm(0, 0), 0);
}

TEST_F(Receiver_Client, every_form_of_registration_asks_for_its_pairs) {
    const auto client = consumer(2, 2);
    const Texts all{
        consumer_request("register", 0, 0, "A"), consumer_request("register", 0, 1, "A"),
        consumer_request("register", 1, 0, "A"), consumer_request("register", 1, 1, "A")};
    quietly([&] {
        EXPECT_EQ(client->reg_shm("A"), 1);
        EXPECT_EQ(center->requests(), all);
        EXPECT_EQ(client->reg_shm(), 1);
        EXPECT_EQ(center->requests(), all);
        EXPECT_EQ(client->reg_shm(1), 1);
        EXPECT_EQ(client->reg_shm(1, "B"), 1);
        EXPECT_EQ(client->reg_shm(0, 1), 1);
        EXPECT_EQ(client->reg_shm(-5, 7, "B"), 1);
    });
    EXPECT_EQ(
        center->requests(),
        (Texts{consumer_request("register", 1, 0, "A"), consumer_request("register", 1, 0, "B"),
               consumer_request("register", 0, 1, "B"), consumer_request("register", -5, 7, "B")}));
    quietly([&] { client->dereg_shm(-5, 7); });
}

TEST_F(Receiver_Client, registration_of_all_pairs_when_there_is_none_succeeds) {
    const auto client = consumer(0, 1);
    EXPECT_NE(client->reg_shm("CAM_LOOP"), 0);
    EXPECT_EQ(client->reg_shm(), 1);
    EXPECT_EQ(center->requests(), Texts{});
}

TEST_F(Receiver_Client, second_registration_stores_the_producer_and_keeps_the_endpoint) {
    const auto client = consumer();
    quietly([&] { client->reg_shm(0, 0, "CAM_LOOP"); });
    ZAV_SHM_Stream_Receiver* const first = client->get_receiver(0, 0);
    EXPECT_EQ(output_of([&] { EXPECT_EQ(client->reg_shm(0, 0, "CAM_REC"), 1); }), "");
    EXPECT_EQ(client->get_receiver(0, 0), first);
    EXPECT_EQ(stored_producer(*client), "CAM_REC");
}

TEST_F(Receiver_Client, registration_that_is_not_granted_changes_nothing) {
    const auto client = consumer();
    quietly([&] { client->reg_shm(0, 0, "CAM_LOOP"); });
    for (const char* reply :
         {R"({"command":"register","status":"fail","shm_path":"/shm/X"})",
          R"({"command":"pair_src","status":"success"})", R"({"command":"register"})", ""}) {
        center->answer(reply);
        EXPECT_EQ(output_of([&] { EXPECT_EQ(client->reg_shm(0, 1, "CAM_REC"), 1); }), "");
        EXPECT_EQ(stored_producer(*client), "CAM_LOOP") << reply;
    }
    const std::string printed = output_of([&] { EXPECT_TRUE(client->is_register(0, 0)); });
    EXPECT_EQ(printed, "");
}

TEST_F(Receiver_Client, refused_first_registration_stores_no_producer) {
    const auto client = consumer();
    center->answer(R"({"command":"register","status":"fail"})");
    EXPECT_EQ(client->reg_shm("CAM_LOOP"), 1);
    EXPECT_EQ(stored_producer(*client), "");
}

TEST_F(Receiver_Client, endpoint_that_is_asked_for_is_registered_first) {
    make_slot(4096);
    const auto writer = make_writer("PLAYER");
    const auto client = consumer();
    client->reg_shm(0, 0, "CAM_LOOP");
    client->dereg_shm(0, 0);
    center->requests();
    EXPECT_EQ(output_of([&] { EXPECT_TRUE(client->is_register(0, 0)); }),
              "Can't Find..., Register it\n");
    EXPECT_EQ(center->requests(), Texts{consumer_request("register", 0, 0, "CAM_LOOP")});
}

// ---- deregistration ----

TEST_F(Receiver_Client, deregistration_of_all_prints_each_pair_between_the_sizes) {
    const auto client = consumer(2, 2);
    quietly([&] { client->reg_shm("CAM_LOOP"); });
    center->requests();
    EXPECT_EQ(output_of([&] { EXPECT_EQ(client->dereg_shm(), 1); }),
              "Before dereg_shm size 4\ndereg_shm (0, 0)\ndereg_shm (0, 1)\ndereg_shm (1, 0)\n"
              "dereg_shm (1, 1)\nAfter dereg_shm size 0\n");
    EXPECT_EQ(center->requests(),
              (Texts{consumer_request("deregister", 0, 0), consumer_request("deregister", 0, 1),
                     consumer_request("deregister", 1, 0), consumer_request("deregister", 1, 1)}));
}

TEST_F(Receiver_Client, deregistration_of_all_without_a_channel_prints_the_sizes_only) {
    const auto client = consumer(0, 1);
    EXPECT_EQ(output_of([&] { EXPECT_EQ(client->dereg_shm(), 1); }),
              "Before dereg_shm size 0\nAfter dereg_shm size 0\n");
}

TEST_F(Receiver_Client, deregistration_that_is_not_confirmed_keeps_the_endpoint) {
    const auto client = consumer();
    quietly([&] { client->reg_shm("CAM_LOOP"); });
    ZAV_SHM_Stream_Receiver* const endpoint = client->get_receiver(0, 0);
    for (const char* reply : {R"({"command":"deregister","status":"fail"})",
                              R"({"command":"register","status":"success"})", "{}", ""}) {
        center->answer(reply);
        EXPECT_EQ(output_of([&] { EXPECT_EQ(client->dereg_shm(0), 1); }), "") << reply;
        EXPECT_EQ(client->get_receiver(0, 0), endpoint);
    }
}

TEST_F(Receiver_Client, destruction_deregisters_between_two_lines_with_its_address) {
    auto client = consumer(1, 2);
    char address[32];
    std::snprintf(address, sizeof address, "%p", static_cast<const void*>(client.get()));
    const std::string line = "In ZAV_SHM_CLIENT_RECEIVER " + std::string(address) + " (1, 2) ";
    EXPECT_EQ(output_of([&] { client.reset(); }),
              line +
                  "dereg_shm Start\nBefore dereg_shm size 0\ndereg_shm (0, 0)\n"
                  "dereg_shm (0, 1)\nAfter dereg_shm size 0\n" +
                  line + "dereg_shm End\n");
    EXPECT_EQ(center->requests(),
              (Texts{consumer_request("deregister", 0, 0), consumer_request("deregister", 0, 1)}));
}

TEST_F(Receiver_Client, endpoint_that_the_center_did_not_let_go_outlives_its_client) {
    make_slot(4096);
    const auto writer = make_writer("PLAYER");
    auto client = consumer();
    client->reg_shm("CAM_LOOP");
    const std::unique_ptr<ZAV_SHM_Stream_Receiver> left(client->get_receiver(0, 0));
    center->answer(R"({"command":"deregister","status":"fail"})");
    EXPECT_NE(output_of([&] { client.reset(); }).find("After dereg_shm size 1\n"),
              std::string::npos);
    Peer(consumer_names("PLAYER")).post(0);
    Frame frame(4096);
    EXPECT_TRUE(left->receive_frame(frame.get()));
}

}  // namespace
