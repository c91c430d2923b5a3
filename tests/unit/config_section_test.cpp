// SPDX-License-Identifier: Apache-2.0
//
// From a document to records: what the sections accept, what they refuse, what they say.
#include "unit/config_fixture.h"

namespace {

using Config_System = Config;
using Config_Stream = Config;
using Config_Names = Config;
using Config_Object = Config;

TEST_F(Config_System, missing_gives_the_defaults) {
    EXPECT_EQ(load(Config_Text()), 1);
    EXPECT_EQ(printed, "");
    EXPECT_EQ(config.error(), "");
    EXPECT_STREQ(config.root_path, "/dev/shm");
    EXPECT_STREQ(config.shm_path, "shm");
    EXPECT_STREQ(config.sem_path, "sem");
    EXPECT_FALSE(config.kick_idle);
    EXPECT_EQ(config.problems(), std::vector<std::string>{});
}

TEST_F(Config_System, values_are_taken) {
    EXPECT_EQ(load(Config_Text{.system = R"({"ROOT_PATH": "/run/shm", "SHM_PATH": "frames",
                                             "SEM_PATH": "flags", "kick_idle": true})"}),
              1);
    EXPECT_STREQ(config.root_path, "/run/shm");
    EXPECT_STREQ(config.shm_path, "frames");
    EXPECT_STREQ(config.sem_path, "flags");
    EXPECT_TRUE(config.kick_idle);
}

TEST_F(Config_System, keys_are_case_sensitive) {
    EXPECT_EQ(
        load(Config_Text{.system = R"({"root_path": "/a", "Shm_Path": "b", "KICK_IDLE": 1})"}), 1);
    EXPECT_STREQ(config.root_path, "/dev/shm");
    EXPECT_STREQ(config.shm_path, "shm");
    EXPECT_FALSE(config.kick_idle);
}

TEST_F(Config_System, null_reads_as_missing) {
    EXPECT_EQ(load(Config_Text{.system = R"({"SHM_PATH": null, "kick_idle": null})"}), 1);
    EXPECT_STREQ(config.shm_path, "shm");
    EXPECT_EQ(config.problems(), std::vector<std::string>{});
}

TEST_F(Config_System, that_is_no_object_reads_as_missing) {
    for (const char* system : {"5", "[1]", "\"text\"", "true", "2.5"}) {
        EXPECT_EQ(load(Config_Text{.system = system}), 1) << system;
        EXPECT_STREQ(config.root_path, "/dev/shm") << system;
        EXPECT_STREQ(config.sem_path, "sem") << system;
        config.clear_config();
    }
    expect_problem(Config_Text{.system = "5"}, "System: 5 is not an object, the defaults are used");
}

TEST_F(Config_System, values_that_cannot_be_converted_read_as_missing) {
    EXPECT_EQ(load(Config_Text{.system = R"({"ROOT_PATH": [], "SHM_PATH": {"a": 1},
                                             "SEM_PATH": [2], "kick_idle": "yes"})"}),
              1);
    EXPECT_EQ(printed, "");
    EXPECT_STREQ(config.root_path, "/dev/shm");
    EXPECT_STREQ(config.shm_path, "shm");
    EXPECT_STREQ(config.sem_path, "sem");
    EXPECT_FALSE(config.kick_idle);
    EXPECT_EQ(config.problems(),
              (std::vector<std::string>{
                  "System.ROOT_PATH: an array is not a string, \"/dev/shm\" is used",
                  "System.SHM_PATH: an object is not a string, \"shm\" is used",
                  "System.SEM_PATH: an array is not a string, \"sem\" is used",
                  "System.kick_idle: \"yes\" is not a boolean, false is used"}));
}

TEST_F(Config_System, values_of_another_type_are_converted) {
    EXPECT_EQ(load(Config_Text{.system = R"({"SHM_PATH": 5, "SEM_PATH": true, "kick_idle": 2})"}),
              1);
    EXPECT_STREQ(config.shm_path, "5");
    EXPECT_STREQ(config.sem_path, "true");
    EXPECT_TRUE(config.kick_idle);
    EXPECT_EQ(config.problems(),
              (std::vector<std::string>{"System.SHM_PATH: 5 is read as \"5\"",
                                        "System.SEM_PATH: true is read as \"true\"",
                                        "System.kick_idle: 2 is not a boolean, true is used"}));
}

TEST_F(Config_System, path_of_31_characters_is_whole_and_a_longer_one_is_cut) {
    const std::string whole(31, 'p');
    EXPECT_EQ(load(Config_Text{.system = R"({"SHM_PATH": ")" + whole + "\"}"}), 1);
    EXPECT_EQ(config.shm_path, whole);
    EXPECT_EQ(config.problems(), std::vector<std::string>{});

    config.clear_config();
    EXPECT_EQ(load(Config_Text{.system = R"({"SHM_PATH": ")" + whole + "q\"}"}), 1);
    EXPECT_EQ(config.shm_path, whole);
    EXPECT_EQ(config.problems(),
              std::vector<std::string>{"System.SHM_PATH: \"" + whole +
                                       "q\" has 32 characters, 31 fit; \"" + whole + "\" is used"});
}

TEST_F(Config_Stream, records_keep_the_order_of_the_file) {
    EXPECT_EQ(load(Config_Text{.stream = R"([{"index": 7, "page_size": 10},
                                             {"index": 7, "page_size": -3}])",
                               .distributor = R"([{"name": "A", "channel": 1, "stream": []}])"}),
              1);
    ASSERT_EQ(config.stream_num, 2);
    ASSERT_EQ(config.stream_configs.size(), 2U);
    EXPECT_EQ(config.stream_configs[0]->index, 7);
    EXPECT_EQ(config.stream_configs[0]->page_size, 10);
    EXPECT_EQ(config.stream_configs[1]->index, 7);
    EXPECT_EQ(config.stream_configs[1]->page_size, -3);
}

TEST_F(Config_Stream, integers_reach_from_end_to_end) {
    EXPECT_EQ(load(Config_Text{.stream = R"([{"index": -2147483648, "page_size": 2147483647}])",
                               .distributor = R"([{"name": "A", "channel": 1, "stream": []}])",
                               .receiver = R"([{"name": "A", "channel": 1, "stream": []}])"}),
              1);
    EXPECT_EQ(config.stream_configs[0]->index, -2147483647 - 1);
    EXPECT_EQ(config.stream_configs[0]->page_size, 2147483647);
}

TEST_F(Config_Stream, values_of_another_type_are_converted) {
    EXPECT_EQ(load(Config_Text{.stream = R"([{"index": true, "page_size": 4096.7}, {"index": 1.0,
                                              "page_size": 1}])"}),
              1);
    EXPECT_EQ(config.stream_configs[0]->index, 1);
    EXPECT_EQ(config.stream_configs[0]->page_size, 4096);
    EXPECT_EQ(config.problems(),
              (std::vector<std::string>{"Stream[0].index: true is read as 1",
                                        "Stream[0].page_size: 4096.7 is read as 4096"}));
}

TEST_F(Config_Stream, failures_say_what_and_where) {
    const auto fails = [this](const std::string& stream, const std::string& error) {
        expect_failure(Config_Text{.stream = stream}, "Parse Stream Fail\n", error);
    };
    const std::string range = " is not an integer from -2147483648 to 2147483647";
    fails("", "Stream is missing");
    fails("null", "Stream is missing");
    fails("[]", "Stream is empty, at least one element is needed");
    fails("5", "Stream: 5 is not an array");
    fails("\"text\"", "Stream: \"text\" is not an array");
    fails(R"({"index": 0, "page_size": 1})", "Stream: an object is not an array");
    fails("[5]", "Stream[0]: 5 is not an object");
    fails("[null]", "Stream[0]: null is not an object");
    fails("[[]]", "Stream[0]: an array is not an object");
    fails(R"([{"page_size": 1}])", "Stream[0].index is missing");
    fails(R"([{"index": 0, "page_size": 1}, {"index": 0}])", "Stream[1].page_size is missing");
    fails(R"([{"index": 0, "page_size": null}])", "Stream[0].page_size is missing");
    fails(R"([{"index": "0", "page_size": 1}])", "Stream[0].index: \"0\"" + range);
    fails(R"([{"index": 0, "page_size": 2147483648}])", "Stream[0].page_size: 2147483648" + range);
    fails(R"([{"index": -2147483649, "page_size": 1}])", "Stream[0].index: -2147483649" + range);
    fails(R"([{"index": 0, "page_size": 18446744073709551615}])",
          "Stream[0].page_size: 18446744073709551615" + range);
    fails(R"([{"index": 0, "page_size": 1e300}])", "Stream[0].page_size: 1e+300" + range);
    fails(R"([{"index": {}, "page_size": 1}])", "Stream[0].index: an object" + range);
}

TEST_F(Config_Stream, section_fails_whatever_the_document_is) {
    expect_failure("5", "Parse Stream Fail\n", "the document is 5, not an object");
    expect_failure("[1]", "Parse Stream Fail\n", "the document is an array, not an object");
    expect_failure("\"x\"", "Parse Stream Fail\n", "the document is \"x\", not an object");
    expect_failure("null", "Parse Stream Fail\n", "Stream is missing");
    expect_failure("{}", "Parse Stream Fail\n", "Stream is missing");
}

TEST_F(Config_Names, records_are_taken_from_both_lists) {
    EXPECT_EQ(load(Config_Text{.distributor = R"([{"name": "A", "channel": 3, "stream": [1, 0, 1]},
                                     {"name": "B", "channel": -1, "stream": []}])",
                               .receiver = R"([{"name": "C", "channel": 0, "stream": [0]}])"}),
              1);
    ASSERT_EQ(config.distributor_num, 2);
    ASSERT_EQ(config.distributor_configs.size(), 2U);
    EXPECT_STREQ(config.distributor_configs[0]->name, "A");
    EXPECT_EQ(config.distributor_configs[0]->channel, 3);
    EXPECT_EQ(config.distributor_configs[0]->stream, (std::vector<int>{1, 0, 1}));
    EXPECT_EQ(config.distributor_configs[1]->channel, -1);
    ASSERT_EQ(config.receiver_num, 1);
    ASSERT_EQ(config.receiver_configs.size(), 1U);
    EXPECT_STREQ(config.receiver_configs[0]->name, "C");
    EXPECT_EQ(config.receiver_configs[0]->stream, std::vector<int>{0});
}

TEST_F(Config_Names, empty_stream_list_is_accepted_and_an_empty_stream_section_is_not) {
    EXPECT_EQ(load(Config_Text{.distributor = R"([{"name": "A", "channel": 1, "stream": []}])"}),
              1);
    EXPECT_TRUE(config.distributor_configs[0]->stream.empty());
    EXPECT_EQ(config.problems(), std::vector<std::string>{});
    expect_failure(Config_Text{.stream = "[]"}, "Parse Stream Fail\n",
                   "Stream is empty, at least one element is needed");
}

TEST_F(Config_Names, stream_number_may_equal_the_number_of_streams) {
    const auto list = [](const std::string& stream) {
        return Config_Text{.distributor =
                               R"([{"name": "A", "channel": 1, "stream": )" + stream + "}]"};
    };
    EXPECT_EQ(load(list("[2]")), 1);
    EXPECT_EQ(config.distributor_configs[0]->stream, std::vector<int>{2});
    expect_failure(list("[3]"), "Parse Distributor Fail\n",
                   "Distributor[0].stream[0]: 3 is not from 0 to 2");
    expect_failure(list("[0, -1]"), "Parse Distributor Fail\n",
                   "Distributor[0].stream[1]: -1 is not from 0 to 2");
}

TEST_F(Config_Names, name_of_31_characters_is_whole_and_a_longer_one_is_refused) {
    const auto list = [](std::size_t length) {
        return "[{\"name\": \"" + std::string(length, 'N') + "\", \"channel\": 1, \"stream\": []}]";
    };
    EXPECT_EQ(load(Config_Text{.receiver = list(31)}), 1);
    EXPECT_EQ(config.receiver_configs[0]->name, std::string(31, 'N'));
    expect_failure(Config_Text{.receiver = list(32)}, "Parse Receiver Fail\n",
                   "Receiver[0].name: \"" + std::string(32, 'N') + "\" has 32 characters, 31 fit");
    expect_failure(
        Config_Text{.distributor = list(1000)}, "Parse Distributor Fail\n",
        "Distributor[0].name: \"" + std::string(61, 'N') + "...\" has 1000 characters, 31 fit");
}

TEST_F(Config_Names, failures_say_what_and_where) {
    const auto fails = [this](const std::string& list, const std::string& error) {
        expect_failure(Config_Text{.distributor = list}, "Parse Distributor Fail\n",
                       "Distributor" + error);
        expect_failure(Config_Text{.receiver = list}, "Parse Receiver Fail\n", "Receiver" + error);
    };
    const std::string range = " is not an integer from -2147483648 to 2147483647";
    const std::string good = R"({"name": "A", "channel": 1, "stream": []})";
    fails("", " is missing");
    fails("[]", " is empty, at least one element is needed");
    fails("{}", ": an object is not an array");
    fails("true", ": true is not an array");
    fails("[" + good + ", 5]", "[1]: 5 is not an object");
    fails(R"([{"channel": 1, "stream": []}])", "[0].name is missing");
    fails(R"([{"name": null, "channel": 1, "stream": []}])", "[0].name is missing");
    fails(R"([{"name": ["A"], "channel": 1, "stream": []}])", "[0].name: an array is not a string");
    fails(R"([{"name": "A", "stream": []}])", "[0].channel is missing");
    fails(R"([{"name": "A", "channel": "9", "stream": []}])", "[0].channel: \"9\"" + range);
    fails(R"([{"name": "A", "channel": 3000000000, "stream": []}])",
          "[0].channel: 3000000000" + range);
    fails(R"([{"name": "A", "channel": 1}])", "[0].stream is missing");
    fails(R"([{"name": "A", "channel": 1, "stream": 0}])", "[0].stream is not an array");
    fails(R"([{"name": "A", "channel": 1, "stream": {"0": 0}}])", "[0].stream is not an array");
    fails(R"([{"name": "A", "channel": 1, "stream": ["0"]}])", "[0].stream[0]: \"0\"" + range);
    fails(R"([{"name": "A", "channel": 1, "stream": [0, 4294967296]}])",
          "[0].stream[1]: 4294967296" + range);
}

TEST_F(Config_Names, null_in_a_stream_list_reads_as_0) {
    expect_problem(Config_Text{.distributor = R"([{"name": "A", "channel": 1, "stream": [null]}])"},
                   "Distributor[0].stream[0]: null is read as 0");
}

TEST_F(Config_Object, is_empty_when_constructed) {
    expect_empty();
    EXPECT_TRUE(config.root.isNull());
    EXPECT_EQ(config.error(), "");
}

TEST_F(Config_Object, is_left_empty_by_any_failing_section) {
    config.load_default();
    config.kick_idle = true;
    expect_failure(Config_Text{.receiver = "[{}]"}, "Parse Receiver Fail\n",
                   "Receiver[0].name is missing");
}

TEST_F(Config_Object, filled_twice_keeps_the_first_records_in_front) {
    config.load_default();
    EXPECT_EQ(load(Config_Text{.stream = R"([{"index": 5, "page_size": 10}])",
                               .distributor = R"([{"name": "A", "channel": 1, "stream": []}])",
                               .receiver = R"([{"name": "A", "channel": 1, "stream": []}])"}),
              1);
    EXPECT_EQ(config.stream_num, 1);
    ASSERT_EQ(config.stream_configs.size(), 3U);
    EXPECT_EQ(config.stream_configs[0]->page_size, 1048576);
    EXPECT_EQ(config.stream_configs[1]->page_size, 1048576);
    EXPECT_EQ(config.stream_configs[2]->page_size, 10);
    ASSERT_EQ(config.streams().size(), 1U);
    EXPECT_EQ(config.streams()[0]->page_size, 1048576);
}

TEST_F(Config_Object, sections_can_be_parsed_one_by_one) {
    ASSERT_TRUE(config.parse_config_with_json(R"({"Stream": [{"index": 3, "page_size": 4}, {}],
        "Mine": [{"name": "A", "channel": 1, "stream": []}, {"name": "B"}]})"));
    EXPECT_EQ(config.parse_system_config(), 1);
    EXPECT_EQ(config.parse_stream_config(), 0);
    EXPECT_EQ(config.error(), "Stream[1].index is missing");
    EXPECT_EQ(config.stream_num, 2);
    EXPECT_EQ(config.stream_configs.size(), 1U);
    EXPECT_EQ(config.parse_dist_config(), 0);
    EXPECT_EQ(config.parse_recv_config(), 0);

    int count = 0;
    EXPECT_EQ(config.parse_dist_recv_config("Mine", config.receiver_configs, count), 0);
    EXPECT_EQ(config.error(), "Mine[1].channel is missing");
    EXPECT_EQ(count, 2);
    EXPECT_EQ(config.receiver_configs.size(), 1U);
    EXPECT_EQ(config.parse_dist_recv_config(nullptr, config.receiver_configs, count), 0);
    EXPECT_EQ(config.parse_system_config(), 1);
    EXPECT_EQ(config.error(), "");
}

TEST_F(Config_Object, without_document_fails_at_the_streams_and_keeps_what_it_holds) {
    EXPECT_EQ(output_of([&] { EXPECT_EQ(config.verify_config(), 0); }), "Parse Stream Fail\n");
    EXPECT_STREQ(config.shm_path, "shm");
}

TEST_F(Config_Object, is_never_iterated_beyond_its_records) {
    config.load_default();
    config.stream_num = 100;
    config.distributor_num = 2147483647;
    config.receiver_num = -1;
    EXPECT_EQ(config.streams().size(), 2U);
    EXPECT_EQ(config.distributors().size(), 3U);
    EXPECT_TRUE(config.receivers().empty());
}

}  // namespace
