// SPDX-License-Identifier: Apache-2.0
//
// "query_shm". Expected replies stand as they travel, indented by tabs.
#include "center_fixture.h"

namespace {

class Query : public Center {
protected:
    std::string query(const std::string& type, const std::string& name) const {
        return client.ask(R"({"command":"query_shm","type":")" + type + R"(","name":")" + name +
                          "\"}");
    }
};

TEST_F(Query, producer_is_told_its_counts_and_page_sizes) {
    start();
    EXPECT_EQ(query("Distributor", "CAM_LOOP"), R"({
	"channel" : 4,
	"command" : "query_shm",
	"name" : "CAM_LOOP",
	"page_size" : 
	[
		4096,
		8192
	],
	"root_path" : "/dev/shm",
	"shm_path" : "shm",
	"status" : "success",
	"stream" : 2,
	"type" : "Distributor"
})");
}

TEST_F(Query, consumer_is_told_its_counts_and_page_sizes) {
    start();
    EXPECT_EQ(query("Receiver", "REMOTE_LOOP"), R"({
	"channel" : 9,
	"command" : "query_shm",
	"name" : "REMOTE_LOOP",
	"page_size" : 
	[
		4096,
		8192
	],
	"root_path" : "/dev/shm",
	"shm_path" : "shm",
	"status" : "success",
	"stream" : 2,
	"type" : "Receiver"
})");
}

TEST_F(Query, name_with_an_empty_stream_list_gets_no_page_sizes) {
    start();
    EXPECT_EQ(query("Distributor", "SILENT"), R"({
	"channel" : 1,
	"command" : "query_shm",
	"name" : "SILENT",
	"root_path" : "/dev/shm",
	"shm_path" : "shm",
	"status" : "success",
	"stream" : 0,
	"type" : "Distributor"
})");
}

TEST_F(Query, two_streams_of_a_mebibyte_are_reported_as_such) {
    start(R"({
        "Stream": [{"index": 0, "page_size": 1048576}, {"index": 1, "page_size": 1048576}],
        "Distributor": [{"name": "CAM_LOOP", "channel": 1, "stream": [0, 1]}],
        "Receiver": [{"name": "PLAYER", "channel": 3, "stream": [0, 1]}]
    })");
    EXPECT_EQ(query("Receiver", "PLAYER"), R"({
	"channel" : 3,
	"command" : "query_shm",
	"name" : "PLAYER",
	"page_size" : 
	[
		1048576,
		1048576
	],
	"root_path" : "/dev/shm",
	"shm_path" : "shm",
	"status" : "success",
	"stream" : 2,
	"type" : "Receiver"
})");
}

// The list may name the number that follows the last stream.
TEST_F(Query, page_sizes_follow_the_stream_numbers_and_are_0_beyond_the_last) {
    start(R"({
        "Stream": [{"index": 7, "page_size": 4096}, {"index": 8, "page_size": 8192}],
        "Distributor": [{"name": "CAM_LOOP", "channel": 1, "stream": [2, 1, 0, 1]}],
        "Receiver": [{"name": "PLAYER", "channel": 1, "stream": [1]}]
    })");
    EXPECT_EQ(query("Distributor", "CAM_LOOP"), R"({
	"channel" : 1,
	"command" : "query_shm",
	"name" : "CAM_LOOP",
	"page_size" : 
	[
		0,
		8192,
		4096,
		8192
	],
	"root_path" : "/dev/shm",
	"shm_path" : "shm",
	"status" : "success",
	"stream" : 4,
	"type" : "Distributor"
})");
}

TEST_F(Query, configured_folder_is_reported_as_configured) {
    std::string configuration = small_configuration;
    configuration.insert(1, R"("System": {"SHM_PATH": "shm", "ROOT_PATH": "/dev/shm/"},)");
    start(configuration);
    EXPECT_EQ(field_of(query("Receiver", "DEAF"), "root_path"), "/dev/shm/");
}

TEST_F(Query, numbers_of_a_channel_end_are_ignored) {
    start();
    const std::string reply = client.ask(
        R"({"command":"query_shm","type":"Receiver","name":"PLAYER","channel":99,"stream":-1})");
    EXPECT_EQ(reply, query("Receiver", "PLAYER"));
    EXPECT_EQ(field_of(reply, "status"), "success");
}

TEST_F(Query, unknown_producer_is_refused) {
    start();
    EXPECT_EQ(query("Distributor", "PLAYER"), R"({
	"command" : "query_shm",
	"reason" : "Can't Find Shm Name PLAYER Distributor",
	"status" : "invalid_name"
})");
}

TEST_F(Query, consumer_that_only_the_producers_list_holds_is_refused) {
    start();
    EXPECT_EQ(query("Receiver", "CAM_LOOP"), R"({
	"command" : "query_shm",
	"reason" : "Can't Find Shm Name CAM_LOOP Receiver",
	"status" : "invalid_name"
})");
}

TEST_F(Query, part_of_a_name_and_an_empty_name_are_refused) {
    start();
    EXPECT_EQ(field_of(query("Receiver", "PLAY"), "reason"), "Can't Find Shm Name PLAY Receiver");
    EXPECT_EQ(field_of(query("Receiver", "PLAYER2"), "reason"),
              "Can't Find Shm Name PLAYER2 Receiver");
    EXPECT_EQ(field_of(query("Receiver", ""), "reason"), "Can't Find Shm Name  Receiver");
}

TEST_F(Query, other_types_are_refused) {
    start();
    EXPECT_EQ(query("Recorder", "PLAYER"), R"({
	"command" : "query_shm",
	"reason" : "Invalid Type Recorder",
	"status" : "invalid_name"
})");
}

TEST_F(Query, nothing_is_printed) {
    start();
    EXPECT_EQ(output_while([this] {
                  query("Receiver", "PLAYER");
                  query("Receiver", "NOBODY");
                  query("Recorder", "PLAYER");
              }),
              "");
}

}  // namespace
