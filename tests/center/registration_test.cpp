// SPDX-License-Identifier: Apache-2.0
//
// "register" and "deregister". Expected replies stand as they travel, indented by tabs.
#include "center_fixture.h"

namespace {

using Key = Shm_Stream_Transmission_Index;

class Registration : public Center {
protected:
    void SetUp() override {
        Center::SetUp();
        start();
    }

    std::string register_producer(const std::string& name, int channel, int stream) const {
        return client.ask(R"({"command":"register","type":"Distributor","name":")" + name +
                          R"(","channel":)" + std::to_string(channel) + R"(,"stream":)" +
                          std::to_string(stream) + "}");
    }

    std::string register_consumer(const std::string& name, const std::string& producer, int channel,
                                  int stream) const {
        return client.ask(R"({"command":"register","type":"Receiver","name":")" + name +
                          R"(","pair_name":")" + producer + R"(","channel":)" +
                          std::to_string(channel) + R"(,"stream":)" + std::to_string(stream) + "}");
    }

    std::string deregister(const std::string& type, const std::string& name) const {
        return client.ask(R"({"command":"deregister","type":")" + type + R"(","name":")" + name +
                          R"(","channel":0,"stream":0})");
    }

    int consumers_of(const Key& producer) const {
        return center->manager()->get_transmission(producer)->get_distributor_num();
    }
};

std::string refused(const std::string& reason) {
    return "{\n\t\"command\" : \"register\",\n\t\"reason\" : \"" + reason +
           "\",\n\t\"status\" : \"fail\"\n}";
}

const std::string deregistered = R"({
	"command" : "deregister",
	"status" : "success"
})";

// ---- producers ----

TEST_F(Registration, producer_is_told_the_names_of_its_channel) {
    EXPECT_EQ(register_producer("CAM_LOOP", 3, 1), R"({
	"command" : "register",
	"sem_path_dst" : "/SRC_CAM_LOOP_SEM_3_1_1",
	"sem_path_exist" : "/SRC_CAM_LOOP_SEM_3_1_2",
	"sem_path_src" : "/SRC_CAM_LOOP_SEM_3_1_0",
	"shm_path" : "/shm/CAM_LOOP_3_1",
	"status" : "success"
})");
    EXPECT_TRUE(exists("shm/CAM_LOOP_3_1"));
    EXPECT_TRUE(exists("sem.SRC_CAM_LOOP_SEM_3_1_0"));
}

TEST_F(Registration, nothing_is_printed_for_registrations_and_refusals) {
    const std::string printed = output_while([this] {
        register_producer("CAM_LOOP", 0, 0);
        register_producer("CAM_LOOP", 9, 0);
        register_consumer("PLAYER", "CAM_LOOP", 0, 0);
        register_consumer("PLAYER", "CAM_LOOP", 9, 0);
        deregister("Receiver", "PLAYER");
        deregister("Distributor", "CAM_LOOP");
        deregister("Nobody", "PLAYER");
    });
    EXPECT_EQ(printed, "");
}

TEST_F(Registration, producer_of_an_unknown_name_is_refused) {
    EXPECT_EQ(register_producer("CAM_9", 3, 1), R"({
	"command" : "register",
	"reason" : "Can't Find Channel 3, Stream 1 Distributor",
	"status" : "fail"
})");
}

TEST_F(Registration, producer_of_a_channel_beyond_the_last_is_refused) {
    EXPECT_EQ(register_producer("CAM_LOOP", 4, 0),
              refused("Can't Find Channel 4, Stream 0 Distributor"));
    EXPECT_EQ(register_producer("CAM_LOOP", 2147483647, 0),
              refused("Can't Find Channel 2147483647, Stream 0 Distributor"));
}

TEST_F(Registration, producer_of_a_stream_that_equals_the_length_of_its_list_is_refused) {
    EXPECT_EQ(register_producer("CAM_LOOP", 0, 2),
              refused("Can't Find Channel 0, Stream 2 Distributor"));
}

TEST_F(Registration, producer_with_an_empty_stream_list_is_refused_every_stream) {
    EXPECT_EQ(register_producer("SILENT", 0, 0),
              refused("Can't Find Channel 0, Stream 0 Distributor"));
    EXPECT_EQ(register_producer("SILENT", 0, 1),
              refused("Can't Find Channel 0, Stream 1 Distributor"));
}

TEST_F(Registration, name_of_a_consumer_is_no_producer) {
    EXPECT_EQ(register_producer("PLAYER", 0, 0),
              refused("Can't Find Channel 0, Stream 0 Distributor"));
}

TEST_F(Registration, registering_a_producer_changes_no_relay) {
    register_producer("CAM_LOOP", 0, 0);
    register_producer("CAM_LOOP", 0, 0);
    EXPECT_EQ(consumers_of({"CAM_LOOP", 0, 0}), 0);
}

// ---- consumers ----

TEST_F(Registration, consumer_is_told_its_semaphores_and_the_producers_segment) {
    EXPECT_EQ(register_consumer("PLAYER", "CAM_LOOP", 2, 1), R"({
	"command" : "register",
	"sem_path_dst" : "/DST_PLAYER_SEM_2_1_1",
	"sem_path_exist" : "/DST_PLAYER_SEM_2_1_2",
	"sem_path_src" : "/DST_PLAYER_SEM_2_1_0",
	"shm_path" : "/shm/CAM_LOOP_2_1",
	"status" : "success"
})");
    EXPECT_TRUE(exists("sem.DST_PLAYER_SEM_2_1_0"));
}

TEST_F(Registration, consumer_is_in_the_relay_when_its_reply_arrives) {
    register_consumer("PLAYER", "CAM_LOOP", 2, 1);
    EXPECT_EQ(consumers_of({"CAM_LOOP", 2, 1}), 1);
    EXPECT_EQ(consumers_of({"CAM_LOOP", 2, 0}), 0);
}

TEST_F(Registration, consumer_beyond_its_own_channels_is_refused) {
    EXPECT_EQ(register_consumer("PLAYER", "CAM_LOOP", 4, 0),
              refused("Can't Find Channel 4, Stream 0 Receiver"));
}

TEST_F(Registration, consumer_beyond_its_own_streams_is_refused) {
    EXPECT_EQ(register_consumer("PLAYER", "CAM_LOOP", 0, 2), R"({
	"command" : "register",
	"reason" : "Can't Find Channel 0, Stream 2 Receiver",
	"status" : "fail"
})");
    EXPECT_EQ(register_consumer("DEAF", "CAM_LOOP", 0, 0),
              refused("Can't Find Channel 0, Stream 0 Receiver"));
}

TEST_F(Registration, consumer_beyond_its_producers_channels_is_refused) {
    EXPECT_EQ(register_consumer("REMOTE_LOOP", "CAM_LOOP", 5, 0),
              refused("Can't Find Channel 5, Stream 0 Receiver"));
}

TEST_F(Registration, consumer_of_a_producer_without_streams_is_refused) {
    EXPECT_EQ(register_consumer("PLAYER", "SILENT", 0, 0),
              refused("Can't Find Channel 0, Stream 0 Receiver"));
}

TEST_F(Registration, consumer_of_an_unknown_producer_is_refused_by_its_numbers) {
    EXPECT_EQ(register_consumer("PLAYER", "CAM_9", 1, 0),
              refused("Can't Find Channel 1, Stream 0 Receiver"));
    EXPECT_EQ(register_consumer("PLAYER", "NONE", 1, 0),
              refused("Can't Find Channel 1, Stream 0 Receiver"));
}

TEST_F(Registration, consumer_without_a_pair_name_is_refused) {
    EXPECT_EQ(client.ask(R"({"command":"register","type":"Receiver","name":"PLAYER"})"),
              refused("Can't Find Channel 0, Stream 0 Receiver"));
}

TEST_F(Registration, consumer_of_an_unknown_name_is_refused) {
    EXPECT_EQ(register_consumer("CAM_LOOP", "CAM_LOOP", 0, 0),
              refused("Can't Find Channel 0, Stream 0 Receiver"));
}

TEST_F(Registration, same_consumer_twice_is_in_the_relay_once) {
    const std::string first = register_consumer("PLAYER", "CAM_LOOP", 0, 0);
    std::string second;
    const std::string printed =
        output_while([&] { second = register_consumer("PLAYER", "CAM_LOOP", 0, 0); });
    EXPECT_EQ(field_of(first, "status"), "success");
    EXPECT_EQ(second, first);
    EXPECT_EQ(printed, "Duplicate Distributor...\n");
    EXPECT_EQ(consumers_of({"CAM_LOOP", 0, 0}), 1);
}

// ---- numbers and types ----

TEST_F(Registration, missing_channel_and_stream_read_as_0) {
    EXPECT_EQ(
        field_of(client.ask(R"({"command":"register","type":"Distributor","name":"CAM_LOOP"})"),
                 "shm_path"),
        "/shm/CAM_LOOP_0_0");
}

TEST_F(Registration, negative_numbers_pass_the_checks) {
    EXPECT_EQ(register_producer("CAM_LOOP", -1, 0), R"({
	"command" : "register",
	"sem_path_dst" : "/SRC_CAM_LOOP_SEM_-1_0_1",
	"sem_path_exist" : "/SRC_CAM_LOOP_SEM_-1_0_2",
	"sem_path_src" : "/SRC_CAM_LOOP_SEM_-1_0_0",
	"shm_path" : "/shm/CAM_LOOP_-1_0",
	"status" : "success"
})");
    EXPECT_EQ(register_consumer("PLAYER", "CAM_LOOP", 0, -7), R"({
	"command" : "register",
	"sem_path_dst" : "/DST_PLAYER_SEM_0_-7_1",
	"sem_path_exist" : "/DST_PLAYER_SEM_0_-7_2",
	"sem_path_src" : "/DST_PLAYER_SEM_0_-7_0",
	"shm_path" : "/shm/CAM_LOOP_0_-7",
	"status" : "success"
})");
    EXPECT_EQ(deregister("Receiver", "PLAYER"), deregistered);
}

TEST_F(Registration, other_types_are_refused) {
    EXPECT_EQ(client.ask(R"({"command":"register","type":"Recorder","name":"CAM_LOOP"})"), R"({
	"command" : "register",
	"reason" : "Invalid Register Type Recorder",
	"status" : "fail"
})");
    EXPECT_EQ(client.ask(R"({"command":"register","name":"CAM_LOOP"})"),
              refused("Invalid Register Type "));
}

// ---- names that are configured twice ----

class Registration_Of_Double_Names : public Registration {
protected:
    void SetUp() override {
        Center::SetUp();
        start(R"({
            "Stream": [{"index": 0, "page_size": 4096}],
            "Distributor": [{"name": "CAM", "channel": 1, "stream": []},
                            {"name": "CAM", "channel": 2, "stream": [0]}],
            "Receiver": [{"name": "PLAYER", "channel": 1, "stream": []},
                         {"name": "PLAYER", "channel": 2, "stream": [0]}]
        })");
    }
};

TEST_F(Registration_Of_Double_Names, search_for_a_producer_goes_on_behind_an_entry_that_is_small) {
    EXPECT_EQ(field_of(register_producer("CAM", 1, 0), "status"), "success");
    EXPECT_EQ(register_producer("CAM", 2, 0),
              refused("Can't Find Channel 2, Stream 0 Distributor"));
}

TEST_F(Registration_Of_Double_Names, search_for_a_consumers_producer_ends_at_the_first_entry) {
    EXPECT_EQ(register_consumer("PLAYER", "CAM", 1, 0),
              refused("Can't Find Channel 1, Stream 0 Receiver"));
}

class Registration_Of_A_Double_Consumer : public Registration {
protected:
    void SetUp() override {
        Center::SetUp();
        start(R"({
            "Stream": [{"index": 0, "page_size": 4096}],
            "Distributor": [{"name": "CAM", "channel": 2, "stream": [0]}],
            "Receiver": [{"name": "PLAYER", "channel": 1, "stream": []},
                         {"name": "PLAYER", "channel": 2, "stream": [0]}]
        })");
    }
};

TEST_F(Registration_Of_A_Double_Consumer, search_goes_on_behind_an_entry_that_is_small) {
    EXPECT_EQ(field_of(register_consumer("PLAYER", "CAM", 1, 0), "status"), "success");
}

// ---- leaving ----

TEST_F(Registration, consumer_that_leaves_is_out_of_the_relay_when_its_reply_arrives) {
    register_consumer("PLAYER", "CAM_LOOP", 0, 0);
    EXPECT_EQ(deregister("Receiver", "PLAYER"), deregistered);
    EXPECT_EQ(consumers_of({"CAM_LOOP", 0, 0}), 0);
}

TEST_F(Registration, producer_that_leaves_keeps_its_segment_and_its_consumers) {
    register_producer("CAM_LOOP", 0, 0);
    register_consumer("PLAYER", "CAM_LOOP", 0, 0);
    EXPECT_EQ(deregister("Distributor", "CAM_LOOP"), deregistered);
    EXPECT_EQ(consumers_of({"CAM_LOOP", 0, 0}), 1);
    EXPECT_TRUE(exists("shm/CAM_LOOP_0_0"));
}

TEST_F(Registration, whoever_never_registered_leaves_with_success) {
    EXPECT_EQ(deregister("Distributor", "CAM_LOOP"), deregistered);
    EXPECT_EQ(deregister("Distributor", "CAM_9"), deregistered);
    EXPECT_EQ(deregister("Receiver", "PLAYER"), deregistered);
    EXPECT_EQ(deregister("Receiver", "PLAYER_9"), deregistered);
}

TEST_F(Registration, other_types_cannot_leave) {
    EXPECT_EQ(deregister("Recorder", "PLAYER"), R"({
	"command" : "deregister",
	"reason" : "Invalid Deregister Type Recorder",
	"status" : "fail"
})");
}

TEST_F(Registration, consumer_that_left_may_come_back_to_another_producer) {
    register_consumer("PLAYER", "CAM_LOOP", 0, 0);
    deregister("Receiver", "PLAYER");
    EXPECT_EQ(field_of(register_consumer("PLAYER", "CAM_REC", 0, 0), "shm_path"),
              "/shm/CAM_REC_0_0");
    EXPECT_EQ(consumers_of({"CAM_LOOP", 0, 0}), 0);
    EXPECT_EQ(consumers_of({"CAM_REC", 0, 0}), 1);
}

}  // namespace
