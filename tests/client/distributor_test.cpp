// SPDX-License-Identifier: Apache-2.0
//
// The producer's client: what it asks, what it prints, what it makes of each answer.
#include "client_fixture.h"

namespace {

class Distributor_Client : public Clients {
protected:
    static std::string query_request() {
        return R"({"command":"query_shm","name":"CAM_LOOP","pid":)" + pid() +
               R"(,"type":"Distributor"})";
    }

    static std::string tabbed_query_request() {
        return "{\n\t\"command\" : \"query_shm\",\n\t\"name\" : \"CAM_LOOP\",\n\t\"pid\" : " +
               pid() + ",\n\t\"type\" : \"Distributor\"\n}";
    }

    // A client that has registered (0, 0) on real kernel objects.
    std::unique_ptr<ZAV_SHM_CLIENT_DISTRIBUTOR> registered_producer() {
        auto client = producer();
        output_of([&] { client->reg_shm(0); });
        center->requests();
        return client;
    }
};

const std::string tabbed_channel =
    "{\n\t\"command\" : \"register\",\n\t\"sem_path_dst\" : \"/SRC_CAM_LOOP_SEM_0_0_1\",\n\t"
    "\"sem_path_exist\" : \"/SRC_CAM_LOOP_SEM_0_0_2\",\n\t\"sem_path_src\" : "
    "\"/SRC_CAM_LOOP_SEM_0_0_0\",\n\t\"shm_path\" : \"/shm/CAM_LOOP_0_0\",\n\t\"status\" : "
    "\"success\"\n}";

const std::string tabbed_farewell_reply =
    "{\n\t\"command\" : \"deregister\",\n\t\"status\" : \"success\"\n}";

// ---- construction and query ----

TEST_F(Distributor_Client, construction_asks_and_prints_request_and_reply_with_the_same_label) {
    center->answer(query_reply("2", "1", "[65536]"));
    std::unique_ptr<ZAV_SHM_CLIENT_DISTRIBUTOR> client;
    const std::string printed = output_of(
        [&] { client = std::make_unique<ZAV_SHM_CLIENT_DISTRIBUTOR>("CAM_LOOP", false); });
    EXPECT_EQ(printed, "Recv Query : \n" + tabbed_query_request() +
                           "\nRecv Query : \n{\n\t\"channel\" : 2,\n\t\"command\" : "
                           "\"query_shm\",\n\t\"page_size\" : \n\t[\n\t\t65536\n\t],\n\t"
                           "\"root_path\" : \"/dev/shm\",\n\t\"shm_path\" : \"shm\",\n\t"
                           "\"status\" : \"success\",\n\t\"stream\" : 1\n}\n");
    EXPECT_EQ(center->requests(), Texts{query_request()});
    EXPECT_EQ(client->get_channel_num(), 2);
    EXPECT_EQ(client->get_stream_num(), 1);
    EXPECT_EQ(client->get_shm_page_size(0), 65536);
}

TEST_F(Distributor_Client, construction_with_registration_registers_every_pair_channel_by_channel) {
    center->configure(2, {4096, 8192});
    output_of([&] {
        const ZAV_SHM_CLIENT_DISTRIBUTOR client("CAM_LOOP", true);
        EXPECT_EQ(center->requests(),
                  (Texts{query_request(), producer_request("register", 0, 0),
                         producer_request("register", 0, 1), producer_request("register", 1, 0),
                         producer_request("register", 1, 1)}));
    });
}

TEST_F(Distributor_Client, query_sets_where_segments_lie) {
    const auto client = producer();
    center->answer(
        R"({"command":"query_shm","status":"success","root_path":"/elsewhere","stream":0})");
    output_of([&] { EXPECT_EQ(client->query_shm(), 1U); });
    EXPECT_EQ(IPC_SHMEMORY::root_path, "/elsewhere");
}

TEST_F(Distributor_Client, without_a_reply_nothing_is_known_and_nothing_registered) {
    center->answer("");
    output_of([&] {
        const ZAV_SHM_CLIENT_DISTRIBUTOR client("CAM_LOOP", true);
        EXPECT_EQ(client.get_channel_num(), 0);
        EXPECT_EQ(client.get_stream_num(), 0);
        EXPECT_EQ(client.get_shm_page_size(0), 0);
    });
    EXPECT_EQ(center->requests(), Texts{query_request()});
}

TEST_F(Distributor_Client, name_too_long_for_a_request_is_not_sent) {
    output_of([&] {
        ZAV_SHM_CLIENT_DISTRIBUTOR client(std::string(1000, 'x'), true);
        EXPECT_EQ(client.query_shm(), 0U);
    });
    EXPECT_EQ(center->requests(), Texts{});
}

TEST_F(Distributor_Client, query_whose_page_sizes_are_not_one_per_stream_is_refused) {
    const auto client = producer();
    for (const char* sizes : {"[1]", "[1,2,3]", "[]", "null"}) {
        center->answer(query_reply("7", "2", sizes));
        std::string printed = output_of(
            [&] { EXPECT_EQ(thrown_by([&] { client->query_shm(); }), "Invalid Page Size"); });
        EXPECT_EQ(printed.substr(printed.rfind('}')), "}\nInvalid Page Size\n") << sizes;
    }
    EXPECT_EQ(client->get_channel_num(), 1);
    EXPECT_EQ(client->get_stream_num(), 1);
    EXPECT_EQ(client->get_shm_page_size(1), 0);
}

TEST_F(Distributor_Client, query_refused_by_the_center_prints_its_status) {
    center->answer(R"({"command":"query_shm","status":"invalid_name","reason":"unknown"})");
    const std::string printed = output_of([&] {
        const auto built = [] { const ZAV_SHM_CLIENT_DISTRIBUTOR client("CAM_LOOP", true); };
        EXPECT_EQ(thrown_by(built), "Invalid Status");
    });
    EXPECT_EQ(printed.substr(printed.rfind('}')), "}\nStatus is invalid_name\n");
    EXPECT_EQ(center->requests(), Texts{query_request()});
}

TEST_F(Distributor_Client, reply_to_another_command_is_refused) {
    center->answer(R"({"command":"register","status":"fail"})");
    const std::string printed = output_of([&] {
        const auto built = [] { const ZAV_SHM_CLIENT_DISTRIBUTOR client("CAM_LOOP", true); };
        EXPECT_EQ(thrown_by(built), "Invalid Command");
    });
    EXPECT_EQ(printed.substr(printed.rfind('}')), "}\n");
}

TEST_F(Distributor_Client, query_without_command_and_status_passes) {
    const auto client = producer();
    center->answer(R"({"channel":3,"stream":1,"page_size":[77],"root_path":"/dev/shm"})");
    output_of([&] { EXPECT_EQ(client->query_shm(), 1U); });
    EXPECT_EQ(client->get_channel_num(), 3);
    output_of([&] { EXPECT_EQ(client->dereg_shm(), 1); });
}

TEST_F(Distributor_Client, second_query_appends_its_page_sizes) {
    const auto client = producer(1, 2);
    center->answer(query_reply("1", "2", "[100,200]"));
    output_of([&] { client->query_shm(); });
    EXPECT_EQ(client->get_shm_page_size(0), 4096);
    EXPECT_EQ(client->get_shm_page_size(1), 8192);
    EXPECT_EQ(client->get_shm_page_size(2), 100);
    center->answer(query_reply("1", "3", "[7,8,9]"));
    output_of([&] { client->query_shm(); });
    EXPECT_EQ(client->get_shm_page_size(3), 200);
    EXPECT_EQ(client->get_shm_page_size(4), 0);
}

TEST_F(Distributor_Client, page_size_behind_the_last_stream_and_below_the_first_is_0) {
    const auto client = producer(1, 2);
    EXPECT_EQ(client->get_shm_page_size(1), 8192);
    EXPECT_EQ(client->get_shm_page_size(2), 0);
    EXPECT_EQ(client->get_shm_page_size(3), 0);
    EXPECT_EQ(client->get_shm_page_size(-1), 0);
    EXPECT_EQ(client->get_shm_page_size(-2147483647 - 1), 0);
    EXPECT_EQ(client->get_shm_page_size(2147483647), 0);
}

// ---- registration ----

TEST_F(Distributor_Client, registration_prints_request_reply_and_segment_and_opens_the_endpoint) {
    make_slot(4096);
    const auto source = make_source();
    const auto client = producer();
    const std::string printed = output_of([&] { EXPECT_EQ(client->reg_shm(0, 0), 1); });
    EXPECT_EQ(printed, "Send Reg : \n" + tabbed_producer_request("register", 0, 0) +
                           "\nRecv Reg : \n" + tabbed_channel + "\nCreate /shm/CAM_LOOP_0_0\n");
    EXPECT_EQ(center->requests(), Texts{producer_request("register", 0, 0)});

    ZAV_SHM_Stream_Distributor* endpoint = nullptr;
    EXPECT_EQ(output_of([&] { endpoint = client->get_distributor(0, 0); }),
              "In get_distributor 0, 0\nFind OK\n");
    const Peer peer(producer_names());
    peer.post(2);
    Frame frame(100);
    EXPECT_TRUE(endpoint->distribute_frame(frame.get()));
    EXPECT_EQ(peer.values(), (std::vector<int>{1, 0, 0}));
    output_of([&] { client->dereg_shm(); });
}

TEST_F(Distributor_Client, pair_that_is_out_of_range_is_not_sent) {
    const auto client = producer(2, 3);
    EXPECT_EQ(output_of([&] {
                  EXPECT_EQ(client->reg_shm(2, 0), 0);
                  EXPECT_EQ(client->reg_shm(2), 0);
                  EXPECT_EQ(client->reg_shm(0, 3), 0);
                  EXPECT_EQ(client->reg_shm(2147483647, 2147483647), 0);
              }),
              "");
    EXPECT_EQ(center->requests(), Texts{});
}

TEST_F(Distributor_Client, negative_pair_is_sent) {
    const auto client = producer();
    output_of([&] { EXPECT_EQ(client->reg_shm(-1, -2), 1); });
    EXPECT_EQ(center->requests(), Texts{producer_request("register", -1, -2)});
    output_of([&] { client->dereg_shm(-1, -2); });
}

TEST_F(Distributor_Client, one_number_means_stream_0) {
    const auto client = producer(2, 2);
    output_of([&] {
        EXPECT_EQ(client->reg_shm(1), 1);
        EXPECT_EQ(client->dereg_shm(1), 1);
    });
    EXPECT_EQ(center->requests(),
              (Texts{producer_request("register", 1, 0), producer_request("deregister", 1, 0)}));
}

TEST_F(Distributor_Client, refused_registration_makes_an_endpoint_all_the_same) {
    const auto client = producer();
    center->answer(R"({"command":"register","status":"fail","shm_path":"/shm/ODD"})");
    const std::string printed = output_of([&] { EXPECT_EQ(client->reg_shm(0, 0), 1); });
    EXPECT_NE(printed.find("}\nCreate /shm/ODD\n"), std::string::npos) << printed;
    ZAV_SHM_Stream_Distributor* endpoint = nullptr;
    EXPECT_EQ(output_of([&] { endpoint = client->get_distributor(0, 0); }),
              "In get_distributor 0, 0\nFind OK\n");
    Frame frame(1);
    EXPECT_FALSE(endpoint->distribute_frame(frame.get()));
}

TEST_F(Distributor_Client, reply_to_another_command_makes_no_endpoint) {
    const auto client = producer();
    center->answer(R"({"command":"deregister","status":"success","shm_path":"/shm/ODD"})");
    center->answer("");
    std::string printed = output_of([&] {
        EXPECT_EQ(client->reg_shm(0, 0), 1);
        EXPECT_EQ(client->reg_shm(0, 0), 1);
    });
    EXPECT_EQ(printed.find("Create"), std::string::npos) << printed;
    printed = output_of([&] { client->get_distributor(0, 0); });
    EXPECT_NE(printed.find("Can't Find...Register it\n"), std::string::npos) << printed;
}

TEST_F(Distributor_Client, second_registration_keeps_the_first_endpoint_and_says_so) {
    make_slot(4096);
    const auto source = make_source();
    const auto client = registered_producer();
    ZAV_SHM_Stream_Distributor* first = nullptr;
    output_of([&] { first = client->get_distributor(0, 0); });
    const std::string printed = output_of([&] { EXPECT_EQ(client->reg_shm(0, 0), 1); });
    EXPECT_EQ(printed.substr(printed.rfind('}')),
              "}\nCreate /shm/CAM_LOOP_0_0\nInsert Channel 0, Stream 0 Fail\n");
    output_of([&] {
        EXPECT_EQ(client->get_distributor(0, 0), first);
        client->dereg_shm();
    });
}

TEST_F(Distributor_Client, endpoint_that_is_asked_for_is_registered_first) {
    make_slot(4096);
    const auto source = make_source();
    const auto client = producer();
    const std::string printed = output_of([&] { client->get_distributor(0, 0); });
    EXPECT_EQ(printed, "In get_distributor 0, 0\nCan't Find...Register it\nSend Reg : \n" +
                           tabbed_producer_request("register", 0, 0) + "\nRecv Reg : \n" +
                           tabbed_channel +
                           "\nCreate /shm/CAM_LOOP_0_0\nIn get_distributor 0, 0\nFind OK\n");
    output_of([&] { client->dereg_shm(); });
}

// ---- deregistration ----

TEST_F(Distributor_Client, confirmed_deregistration_prints_and_takes_the_endpoint_away) {
    const auto client = registered_producer();
    const std::string printed = output_of([&] { EXPECT_EQ(client->dereg_shm(0, 0), 1); });
    EXPECT_EQ(printed, "Send DeReg : \n" + tabbed_producer_request("deregister", 0, 0) +
                           "\nRecv DeReg : \n" + tabbed_farewell_reply + "\n");
    EXPECT_EQ(center->requests(), Texts{producer_request("deregister", 0, 0)});
    output_of([&] { client->get_distributor(0, 0); });
    EXPECT_EQ(center->requests(), Texts{producer_request("register", 0, 0)});
}

TEST_F(Distributor_Client, deregistration_that_is_not_confirmed_keeps_the_endpoint) {
    const auto client = registered_producer();
    for (const char* reply : {R"({"command":"deregister","status":"fail"})",
                              R"({"command":"register","status":"success"})", "{}", ""}) {
        center->answer(reply);
        output_of([&] { EXPECT_EQ(client->dereg_shm(0, 0), 1); });
    }
    EXPECT_EQ(output_of([&] { client->get_distributor(0, 0); }),
              "In get_distributor 0, 0\nFind OK\n");
}

TEST_F(Distributor_Client, destruction_deregisters_every_pair_also_one_never_registered) {
    auto client = producer(2, 2);
    output_of([&] {
        client->reg_shm(1, 0);
        center->requests();
        client.reset();
    });
    EXPECT_EQ(center->requests(),
              (Texts{producer_request("deregister", 0, 0), producer_request("deregister", 0, 1),
                     producer_request("deregister", 1, 0), producer_request("deregister", 1, 1)}));
}

TEST_F(Distributor_Client, endpoint_that_the_center_did_not_let_go_outlives_its_client) {
    make_slot(4096);
    const auto source = make_source();
    auto client = registered_producer();
    std::unique_ptr<ZAV_SHM_Stream_Distributor> left;
    center->answer(R"({"command":"deregister","status":"fail"})");
    output_of([&] {
        left.reset(client->get_distributor(0, 0));
        client.reset();
    });
    Peer(producer_names()).post(2);
    Frame frame(10);
    EXPECT_TRUE(left->distribute_frame(frame.get()));
}

}  // namespace
