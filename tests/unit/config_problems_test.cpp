// SPDX-License-Identifier: Apache-2.0
//
// What loads and should nevertheless not be run with.
#include "unit/config_fixture.h"

namespace {

class Config_Problems : public Config {
protected:
    static Config_Text system(const std::string& members) {
        return {.system = "{" + members + "}"};
    }
    static std::string entry(const std::string& name, const std::string& channel = "1",
                             const std::string& stream = "[]") {
        return "{\"name\": \"" + name + "\", \"channel\": " + channel + ", \"stream\": " + stream +
               "}";
    }
    static std::string list(const std::string& entries) { return "[" + entries + "]"; }
    static Config_Text distributors(const std::string& entries) {
        return {.distributor = list(entries)};
    }
    static Config_Text receivers(const std::string& entries) { return {.receiver = list(entries)}; }
};

TEST_F(Config_Problems, are_none_in_the_defaults) {
    config.load_default();
    EXPECT_EQ(config.problems(), std::vector<std::string>{});
}

TEST_F(Config_Problems, empty_paths) {
    expect_problem(system(R"("ROOT_PATH": "")"), "System.ROOT_PATH is empty");
    expect_problem(system(R"("SHM_PATH": "")"), "System.SHM_PATH is empty");
    expect_problem(system(R"("SEM_PATH": "")"), "System.SEM_PATH is empty");
}

TEST_F(Config_Problems, paths_with_slashes_or_climbing) {
    expect_problem(system(R"("SHM_PATH": "a/b")"), "System.SHM_PATH: \"a/b\" contains a slash");
    expect_problem(system(R"("SEM_PATH": "..")"), "System.SEM_PATH: \"..\" contains \"..\"");
    expect_problem(system(R"("SHM_PATH": ".")"), "System.SHM_PATH: \".\" is no folder of its own");
    expect_problem(system(R"("SEM_PATH": ".")"), "System.SEM_PATH: \".\" is no folder of its own");
    expect_problem(system(R"("ROOT_PATH": "/dev/../shm")"),
                   "System.ROOT_PATH: \"/dev/../shm\" contains \"..\"");
    expect_problem(system(R"("ROOT_PATH": "dev/shm")"),
                   "System.ROOT_PATH: \"dev/shm\" does not begin with a slash");
}

TEST_F(Config_Problems, zero_characters) {
    expect_problem(system(R"("SHM_PATH": "ab\u0000cd")"),
                   "System.SHM_PATH: \"ab\\u0000cd\" holds a zero character, \"ab\" is used");
    expect_problem(
        distributors(entry("CAM\\u0000ERA")),
        "Distributor[0].name: \"CAM\\u0000ERA\" holds a zero character, \"CAM\" is used");
}

TEST_F(Config_Problems, names_that_are_no_file_names) {
    expect_problem(distributors(entry("")), "Distributor[0].name is empty");
    expect_problem(receivers(entry("A/B")), "Receiver[0].name: \"A/B\" contains a slash");
    expect_problem(receivers(entry("..")), "Receiver[0].name: \"..\" contains \"..\"");
    expect_problem(distributors(R"({"name": 12, "channel": 1, "stream": []})"),
                   "Distributor[0].name: 12 is read as \"12\"");
}

TEST_F(Config_Problems, names_listed_twice) {
    expect_problem(distributors(entry("A") + "," + entry("B") + "," + entry("A")),
                   "Distributor[2].name: \"A\" is the name of Distributor[0], too");
    expect_problem(receivers(entry("A") + "," + entry("A")),
                   "Receiver[1].name: \"A\" is the name of Receiver[0], too");
}

TEST_F(Config_Problems, producer_and_consumer_may_share_a_name) {
    EXPECT_EQ(load(Config_Text{.distributor = list(entry("A")), .receiver = list(entry("A"))}), 1);
    EXPECT_EQ(config.problems(), std::vector<std::string>{});
}

TEST_F(Config_Problems, page_sizes_without_room_for_a_frame_or_beyond_a_segment) {
    const auto stream = [](const std::string& size) {
        return Config_Text{
            .stream = R"([{"index": 0, "page_size": 1}, {"index": 1, "page_size": )" + size + "}]"};
    };
    expect_problem(stream("0"), "Stream[1].page_size: 0 is not from 1 to 2147483519");
    expect_problem(stream("-1"), "Stream[1].page_size: -1 is not from 1 to 2147483519");
    expect_problem(stream("2147483520"),
                   "Stream[1].page_size: 2147483520 is not from 1 to 2147483519");
    EXPECT_EQ(load(stream("2147483519")), 1);
    EXPECT_EQ(config.problems(), std::vector<std::string>{});
}

TEST_F(Config_Problems, histories_that_are_no_numbers_of_bytes) {
    const auto stream = [](const std::string& bytes) {
        return Config_Text{.stream = R"([{"index": 0, "page_size": 1},
                                         {"index": 1, "page_size": 1, "history_bytes": )" +
                                     bytes + "}]"};
    };
    expect_problem(stream("-1"), "Stream[1].history_bytes: -1 is not from 0 to 2147483647");
    expect_problem(stream("2147483648"),
                   "Stream[1].history_bytes: 2147483648 is not an integer from 0 to 2147483647; "
                   "0 is used");
    expect_problem(stream(R"("4 MiB")"),
                   "Stream[1].history_bytes: \"4 MiB\" is not an integer from 0 to 2147483647; "
                   "0 is used");
    expect_problem(stream("[4096]"),
                   "Stream[1].history_bytes: an array is not an integer from 0 to 2147483647; 0 is "
                   "used");
    expect_problem(stream("4096.5"), "Stream[1].history_bytes: 4096.5 is read as 4096");
    for (const char* good : {"0", "null", "1", "4096", "2147483647"}) {
        ZAV_SHM_CONFIG fresh;
        EXPECT_EQ(fresh.parse_config(write(stream(good)).c_str()), 1);
        EXPECT_EQ(fresh.problems(), std::vector<std::string>{}) << good;
    }
}

TEST_F(Config_Problems, groups_that_are_no_names) {
    for (const char* bad : {"5", "\"\"", "true", "[\"a\"]"}) {
        const std::string list = R"([{"name": "A", "channel": 1, "stream": [0], "producers": )";
        EXPECT_EQ(load(Config_Text{.distributor = list + bad + "}]"}), 1);
        ASSERT_FALSE(config.problems().empty()) << bad;
        EXPECT_NE(config.problems()[0].find("Distributor[0].producers: "), std::string::npos);
        config.clear_config();
    }
    EXPECT_EQ(load(Config_Text{.stream = R"([{"index": 0, "page_size": 1, "group": 7}])"}), 1);
    ASSERT_FALSE(config.problems().empty());
    EXPECT_EQ(config.problems()[0].rfind("Stream[0].group: 7 is not a string", 0), 0U);
}

TEST_F(Config_Problems, group_of_a_producer_holds_for_all_its_streams) {
    ASSERT_EQ(
        load(Config_Text{
            .stream =
                R"([{"index": 0, "page_size": 1, "group": "s"}, {"index": 1, "page_size": 1}])",
            .distributor = R"([{"name": "A", "channel": 1, "stream": [0], "group": "a"},
                               {"name": "B", "channel": 1, "stream": [0], "producers": "p"}])"}),
        1);
    EXPECT_EQ(config.problems(), std::vector<std::string>{});
    const auto producers = config.distributors();
    EXPECT_EQ(readers_group(*producers[0], *config.streams()[0]), "a");
    EXPECT_EQ(readers_group(*producers[0], *config.streams()[1]), "a");
    EXPECT_EQ(readers_group(*producers[1], *config.streams()[0]), "s");
    EXPECT_EQ(readers_group(*producers[1], *config.streams()[1]), "");
    EXPECT_EQ(producers[0]->producers, "");
    EXPECT_EQ(producers[1]->producers, "p");
}

TEST_F(Config_Problems, history_that_is_given_counts_and_is_twice_the_page_otherwise) {
    ASSERT_EQ(load(Config_Text{.stream = R"([{"index": 0, "page_size": 1000},
                                {"index": 1, "page_size": 1000, "history_bytes": 50},
                                {"index": 2, "page_size": 2147483519, "history_bytes": 0}])"}),
              1);
    EXPECT_EQ(ring_history_bytes(*config.streams()[0]), 2000);
    EXPECT_EQ(ring_history_bytes(*config.streams()[1]), 50);
    EXPECT_EQ(ring_history_bytes(*config.streams()[2]), 4'294'967'038);
}

TEST_F(Config_Problems, negative_channel_counts) {
    expect_problem(distributors(entry("A", "-1")), "Distributor[0].channel: -1 is below 0");
}

TEST_F(Config_Problems, more_than_4096_channels) {
    // Two streams, and the consumer's two channels take four of them.
    EXPECT_EQ(load(distributors(entry("A", "2046"))), 1);
    EXPECT_EQ(config.problems(), std::vector<std::string>{});
    expect_problem(distributors(entry("A", "2047")),
                   "Receiver[0].channel: 2 channels of 2 streams make 4098 with those before, "
                   "4096 are the limit");
    expect_problem(distributors(entry("A", "2147483647") + "," + entry("B", "2147483647")),
                   "Distributor[0].channel: 2147483647 channels of 2 streams make 4294967294 with "
                   "those before, 4096 are the limit");
}

TEST_F(Config_Problems, segment_names_that_would_be_cut) {
    const std::string name(31, 'N');
    const auto text = [&name](std::size_t path_length) {
        return Config_Text{.system = R"({"SHM_PATH": ")" + std::string(path_length, 'p') + "\"}",
                           .stream = R"([{"index": 0, "page_size": 1}])",
                           .distributor = list(entry(name, "10")),
                           .receiver = list(entry(name, "10"))};
    };
    // "/" + 26 + "/" + 31 + "_9_0" is 63.
    EXPECT_EQ(load(text(26)), 1);
    EXPECT_EQ(config.problems(), std::vector<std::string>{});
    expect_problem(text(27), "Distributor[0].name: segment names would have 64 characters, 63 fit");
}

TEST_F(Config_Problems, stream_numbers_that_name_no_stream) {
    expect_problem(distributors(entry("A", "1", "[0, 1, 2]")),
                   "Distributor[0].stream[2]: there is no stream 2, only 0 to 1");
    expect_problem(receivers(entry("A", "1", "[2]")),
                   "Receiver[0].stream[0]: there is no stream 2, only 0 to 1");
}

TEST_F(Config_Problems, counts_that_differ_from_the_lists) {
    config.load_default();
    config.stream_num = 1;
    config.distributor_num = 4;
    config.receiver_num = -2;
    EXPECT_EQ(config.problems(),
              (std::vector<std::string>{"stream_num is 1, but 2 records are listed",
                                        "distributor_num is 4, but 3 records are listed",
                                        "receiver_num is -2, but 4 records are listed"}));
}

TEST_F(Config_Problems, go_with_what_they_were_about) {
    EXPECT_EQ(load(system(R"("SHM_PATH": ["x"])")), 1);
    EXPECT_EQ(config.problems().size(), 1U);
    config.load_default();
    EXPECT_EQ(config.problems(), std::vector<std::string>{});
}

TEST_F(Config_Problems, survive_fields_without_terminator_and_missing_records) {
    config.load_default();
    std::fill(std::begin(config.shm_path), std::end(config.shm_path), 's');
    std::fill(std::begin(config.sem_path), std::end(config.sem_path), 's');
    std::fill(std::begin(config.receiver_configs[1]->name),
              std::end(config.receiver_configs[1]->name), 'n');
    delete config.distributor_configs[0];
    config.distributor_configs[0] = nullptr;
    delete config.stream_configs[0];
    config.stream_configs[0] = nullptr;
    EXPECT_NE(output_of([this] { config.print_config(); }), "");
    EXPECT_EQ(config.problems(), std::vector<std::string>{});
}

}  // namespace
