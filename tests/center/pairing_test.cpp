// SPDX-License-Identifier: Apache-2.0
//
// "pair_src". Expected replies stand as they travel, indented by tabs.
#include "center_fixture.h"

namespace {

using Key = Shm_Stream_Transmission_Index;

class Pairing : public Center {
protected:
    void SetUp() override {
        Center::SetUp();
        start();
    }

    void register_player() const {
        ASSERT_EQ(field_of(client.ask(R"({"command":"register","type":"Receiver",)"
                                      R"("name":"PLAYER","pair_name":"CAM_LOOP"})"),
                           "status"),
                  "success");
    }

    std::string pair(const std::string& name, const std::string& producer, int channel = 0,
                     int stream = 0) const {
        return client.ask(R"({"command":"pair_src","type":"Receiver","name":")" + name +
                          R"(","pair_name":")" + producer + R"(","channel":)" +
                          std::to_string(channel) + R"(,"stream":)" + std::to_string(stream) + "}");
    }

    int consumers_of(const Key& producer) const {
        return center->manager()->get_transmission(producer)->get_distributor_num();
    }
};

const char* const removal = "In shm_center_pair remove_distributor\n";

TEST_F(Pairing, consumer_moves_to_the_other_producer_and_is_told_its_segment) {
    register_player();
    std::string reply;
    EXPECT_EQ(output_while([&] { reply = pair("PLAYER", "CAM_REC"); }), removal);
    EXPECT_EQ(reply, R"({
	"command" : "pair_src",
	"sem_path_dst" : "/DST_PLAYER_SEM_0_0_1",
	"sem_path_exist" : "/DST_PLAYER_SEM_0_0_2",
	"sem_path_src" : "/DST_PLAYER_SEM_0_0_0",
	"shm_path" : "/shm/CAM_REC_0_0",
	"status" : "success"
})");
    EXPECT_EQ(consumers_of({"CAM_LOOP", 0, 0}), 0);
    EXPECT_EQ(consumers_of({"CAM_REC", 0, 0}), 1);
}

TEST_F(Pairing, consumer_that_was_fed_by_nobody_is_fed) {
    EXPECT_EQ(field_of(pair("PLAYER", "CAM_LOOP", 3, 1), "shm_path"), "/shm/CAM_LOOP_3_1");
    EXPECT_EQ(consumers_of({"CAM_LOOP", 3, 1}), 1);
}

TEST_F(Pairing, same_producer_again_leaves_the_consumer_in_its_relay_once) {
    register_player();
    EXPECT_EQ(output_while([&] { pair("PLAYER", "CAM_LOOP"); }), removal);
    EXPECT_EQ(consumers_of({"CAM_LOOP", 0, 0}), 1);
}

TEST_F(Pairing, request_indented_by_tabs_is_served) {
    client.send(
        "{\n\t\"channel\" : 0,\n\t\"command\" : \"pair_src\",\n\t\"name\" : \"PLAYER\",\n"
        "\t\"pair_name\" : \"CAM_REC\",\n\t\"pid\" : 77,\n\t\"stream\" : 0,\n"
        "\t\"type\" : \"Receiver\"\n}");
    EXPECT_EQ(field_of(Raw_Client(77).reply(), "shm_path"), "/shm/CAM_REC_0_0");
}

TEST_F(Pairing, type_of_a_producer_is_refused_by_name) {
    std::string reply;
    EXPECT_EQ(output_while([&] {
                  reply = client.ask(R"({"command":"pair_src","type":"Distributor",)"
                                     R"("name":"PLAYER","pair_name":"CAM_LOOP"})");
              }),
              "");
    EXPECT_EQ(reply, R"({
	"command" : "pair_src",
	"reason" : "Can't Find Shm Name PLAYER",
	"status" : "invalid_name"
})");
}

TEST_F(Pairing, unknown_consumer_is_refused) {
    EXPECT_EQ(pair("CAM_LOOP", "CAM_LOOP"), R"({
	"command" : "pair_src",
	"reason" : "Can't Find Shm Name CAM_LOOP",
	"status" : "invalid_name"
})");
}

TEST_F(Pairing, unknown_consumer_and_producer_are_refused_by_the_consumers_name) {
    EXPECT_EQ(field_of(pair("NOBODY", "CAM_9"), "reason"), "Can't Find Shm Name NOBODY");
}

TEST_F(Pairing, refusal_leaves_the_consumer_where_it_was) {
    register_player();
    std::string reply;
    EXPECT_EQ(output_while([&] { reply = pair("PLAYER", "CAM_9"); }), "");
    EXPECT_EQ(reply, R"({
	"command" : "pair_src",
	"reason" : "Can't Find Shm Pair Name CAM_9",
	"status" : "invalid_name"
})");
    EXPECT_EQ(consumers_of({"CAM_LOOP", 0, 0}), 1);
}

TEST_F(Pairing, none_is_refused_unless_a_producer_is_called_so) {
    register_player();
    EXPECT_EQ(pair("PLAYER", "NONE"), R"({
	"command" : "pair_src",
	"reason" : "Can't Find Shm Pair Name NONE",
	"status" : "invalid_name"
})");
    EXPECT_EQ(consumers_of({"CAM_LOOP", 0, 0}), 1);
}

TEST_F(Pairing, numbers_that_do_not_exist_are_not_refused) {
    EXPECT_EQ(pair("PLAYER", "CAM_REC", 99, -3), R"({
	"command" : "pair_src",
	"sem_path_dst" : "/DST_PLAYER_SEM_99_-3_1",
	"sem_path_exist" : "/DST_PLAYER_SEM_99_-3_2",
	"sem_path_src" : "/DST_PLAYER_SEM_99_-3_0",
	"shm_path" : "/shm/CAM_REC_99_-3",
	"status" : "success"
})");
}

// The consumer has channel 2 and the producer has not: it is unpaired, and stays so.
TEST_F(Pairing, channel_that_the_producer_has_not_leaves_the_consumer_unfed) {
    pair("PLAYER", "CAM_LOOP", 2, 0);
    EXPECT_EQ(field_of(pair("PLAYER", "CAM_REC", 2, 0), "status"), "success");
    EXPECT_EQ(consumers_of({"CAM_LOOP", 2, 0}), 0);
}

// ---- a producer that is called NONE ----

class Pairing_With_None : public Pairing {
protected:
    void SetUp() override {
        Center::SetUp();
        start(R"({
            "Stream": [{"index": 0, "page_size": 4096}],
            "Distributor": [{"name": "CAM_LOOP", "channel": 1, "stream": [0]},
                            {"name": "NONE", "channel": 1, "stream": [0]}],
            "Receiver": [{"name": "PLAYER", "channel": 1, "stream": [0]}]
        })");
    }
};

TEST_F(Pairing_With_None, consumer_is_detached_and_told_nothing_more) {
    register_player();
    std::string reply;
    EXPECT_EQ(output_while([&] { reply = pair("PLAYER", "NONE"); }), removal);
    EXPECT_EQ(reply, R"({
	"command" : "pair_src",
	"status" : "success"
})");
    EXPECT_EQ(consumers_of({"CAM_LOOP", 0, 0}), 0);
    EXPECT_EQ(consumers_of({"NONE", 0, 0}), 0);
}

TEST_F(Pairing_With_None, detached_consumer_may_be_paired_again) {
    register_player();
    pair("PLAYER", "NONE");
    EXPECT_EQ(field_of(pair("PLAYER", "CAM_LOOP"), "shm_path"), "/shm/CAM_LOOP_0_0");
    EXPECT_EQ(consumers_of({"CAM_LOOP", 0, 0}), 1);
}

}  // namespace
