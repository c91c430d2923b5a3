// SPDX-License-Identifier: Apache-2.0
//
// What a center can be run with and what is probably not meant.
#include "config/utf8.h"
#include "unit/config_fixture.h"

namespace {

using Lines = std::vector<std::string>;

class Config_Warnings : public Config {
protected:
    // `content` loads without a problem.
    static Lines warnings_of(const std::string& content) {
        ZAV_SHM_CONFIG fresh;
        EXPECT_TRUE(fresh.parse_config_with_json(content)) << content << fresh.error();
        EXPECT_EQ(fresh.verify_config(), 1) << content << fresh.error();
        EXPECT_EQ(fresh.problems(), Lines{}) << content;
        return fresh.warnings();
    }

    static Lines warnings_of_name(const std::string& name) {
        return warnings_of(Config_Text{.distributor = R"([{"name": ")" + name +
                                                      R"(", "channel": 1, "stream": [0, 1]}])"});
    }

    static Lines warnings_of_list(const std::string& list) {
        return warnings_of(Config_Text{
            .receiver = R"([{"name": "PLAYER", "channel": 1, "stream": )" + list + "}]"});
    }
};

TEST_F(Config_Warnings, are_none_in_the_defaults_and_in_a_plain_file) {
    EXPECT_EQ(warnings_of(Config_Text()), Lines{});
    config.load_default();
    EXPECT_EQ(config.warnings(), Lines{});
}

// ---- keys ----

TEST_F(Config_Warnings, unknown_keys_that_are_nearly_known_ones) {
    std::string text = Config_Text();
    text.insert(1, R"("system": {"SHM_PATH": "x"}, "Recievers": 1, )");
    EXPECT_EQ(warnings_of(text),
              (Lines{"the unknown key \"Recievers\" is ignored; \"Receiver\" is a known one",
                     "the unknown key \"system\" is ignored; \"System\" is a known one"}));
    EXPECT_EQ(warnings_of(Config_Text{.system = R"({"kick_idel": true, "ShmPath": "x"})"}),
              (Lines{"System: the unknown key \"ShmPath\" is ignored; \"SHM_PATH\" is a known one",
                     "System: the unknown key \"kick_idel\" is ignored; \"kick_idle\" is a known "
                     "one"}));
}

TEST_F(Config_Warnings, keys_of_the_system_that_stand_outside_of_it) {
    std::string text = Config_Text();
    text.insert(1, R"("SHM_PATH": "x", "kick_idel": true, )");
    EXPECT_EQ(warnings_of(text),
              (Lines{"the key \"SHM_PATH\" is ignored; \"SHM_PATH\" belongs into \"System\"",
                     "the key \"kick_idel\" is ignored; \"kick_idle\" belongs into \"System\""}));
}

TEST_F(Config_Warnings, unknown_keys_in_elements_of_the_lists) {
    EXPECT_EQ(
        warnings_of(Config_Text{
            .stream = R"([{"index": 0, "page_size": 1, "pagesize": 9}])",
            .distributor = R"([{"name": "A", "channel": 1, "channels": 9, "stream": [0]}])",
            .receiver = R"([{"name": "B", "channel": 1, "stream": []},
                                        {"name": "C", "channel": 1, "stream": [], "nmae": 1}])"}),
        (Lines{"Stream[0]: the unknown key \"pagesize\" is ignored; \"page_size\" is a known one",
               "Distributor[0]: the unknown key \"channels\" is ignored; \"channel\" is a known "
               "one",
               "Receiver[1]: the unknown key \"nmae\" is ignored; \"name\" is a known one"}));
}

TEST_F(Config_Warnings, misspelt_history) {
    EXPECT_EQ(
        warnings_of(Config_Text{.stream = R"([{"index": 0, "page_size": 1, "history_byte": 9},
                          {"index": 1, "page_size": 1, "historyBytes": 9},
                          {"index": 2, "page_size": 1, "history_bytes": 9}])"}),
        (Lines{"Stream[0]: the unknown key \"history_byte\" is ignored; \"history_bytes\" is a "
               "known one",
               "Stream[1]: the unknown key \"historyBytes\" is ignored; \"history_bytes\" is a "
               "known one"}));
}

TEST_F(Config_Warnings, groups_that_keep_nothing_from_anybody) {
    EXPECT_EQ(
        warnings_of(Config_Text{
            .distributor =
                R"([{"name": "A", "channel": 1, "stream": [0], "producer": "x", "Group": "x"}])",
            .receiver = R"([{"name": "B", "channel": 1, "stream": [], "group": "x"}])"}),
        (Lines{"Distributor[0]: the unknown key \"Group\" is ignored; \"group\" is a known one",
               "Distributor[0]: the unknown key \"producer\" is ignored; \"producers\" is a known "
               "one",
               "Receiver[0]: the key \"group\" is ignored; it belongs to a \"Distributor\""}));
}

TEST_F(Config_Warnings, history_that_no_ring_can_have) {
    EXPECT_EQ(warnings_of(Config_Text{.stream = R"([{"index": 0, "page_size": 1431655701},
                          {"index": 1, "page_size": 1431655702},
                          {"index": 2, "page_size": 2147483519, "history_bytes": 2147483585},
                          {"index": 3, "page_size": 2147483519, "history_bytes": 2147483586}])"}),
              (Lines{"Stream[1].history_bytes: 2863311404 (twice the page size) is more than fits "
                     "into a ring beside the greatest frame, 2863311402; publishers cannot make it",
                     "Stream[3].history_bytes: 2147483586 is more than fits into a ring beside the "
                     "greatest frame, 2147483585; publishers cannot make it"}));
}

TEST_F(Config_Warnings, are_none_for_keys_of_somebodys_own) {
    std::string text = Config_Text{
        .system = R"({"comment": "", "board": "x", "": 0, "version": 2})",
        .stream = R"([{"index": 0, "page_size": 1, "fps": 25, "note": "", "codec": "h265"}])",
        .distributor = R"([{"name": "A", "channel": 1, "stream": [0], "description": ""}])",
        .receiver = R"([{"name": "B", "channel": 1, "stream": [0], "note": 1, "type": 2}])"};
    text.insert(1, R"("Comment": "", "Version": 1, ")" + std::string(500, 'x') + R"(": 1, )");
    EXPECT_EQ(warnings_of(text), Lines{});
}

TEST_F(Config_Warnings, keys_given_twice) {
    EXPECT_EQ(warnings_of("{\n\"Stream\": [], " + std::string(Config_Text()).substr(1)),
              Lines{"line 2, column 15: the key \"Stream\" is given again; the last one counts"});
    EXPECT_EQ(
        warnings_of(
            Config_Text{.receiver = R"([{"name": "A\u0007", "channel": 1, "stream": [], "\u001b": 1,
                             "\u001b": 2}])"})
            .front(),
        "line 2, column 30: the key \"\\u001b\" is given again; the last one counts");
}

TEST_F(Config_Warnings, text_behind_the_object) {
    const std::string text = Config_Text();
    const std::string place = "line 2, column 2: ";
    EXPECT_EQ(warnings_of(text + "\n }"), Lines{place + "what follows the object is ignored"});
    EXPECT_EQ(warnings_of(text + "\n rest"), Lines{place + "what follows the object is ignored"});
    EXPECT_EQ(warnings_of(text + "\n {\"Stream\": []}"),
              Lines{place + "what follows the object is ignored"});
    EXPECT_EQ(warnings_of(text + "\n\t // the end /* */\n/* indeed */\n"), Lines{});
}

// ---- stream lists ----

TEST_F(Config_Warnings, stream_lists_that_accept_other_streams_than_they_name) {
    EXPECT_EQ(warnings_of_list("[1]"),
              Lines{"Receiver[0].stream: [1] accepts stream 0, since its length counts and not its "
                    "numbers; write [0]"});
    for (const char* list : {"[1, 0]", "[0, 0]", "[1, 1]"}) {
        EXPECT_EQ(warnings_of_list(list),
                  Lines{"Receiver[0].stream: " + std::string(list) +
                        " accepts the streams 0 to 1, since its length counts and not its "
                        "numbers; write [0, 1]"});
    }
    for (const char* list : {"[]", "[0]", "[0, 1]"}) {
        EXPECT_EQ(warnings_of_list(list), Lines{}) << list;
    }
}

TEST_F(Config_Warnings, stream_lists_longer_than_there_are_streams) {
    EXPECT_EQ(warnings_of_list("[0, 1, 1]"),
              Lines{"Receiver[0].stream: [0, 1, 1] accepts the streams 0 to 2, but there are only "
                    "the streams 0 to 1; write [0, 1]"});
    std::string many = "0";
    for (int i = 1; i < 40; ++i) {
        many += ", 1";
    }
    const Lines found = warnings_of_list("[" + many + "]");
    ASSERT_EQ(found.size(), 1U);
    EXPECT_NE(found[0].find("1, 1, ...] accepts the streams 0 to 39"), std::string::npos)
        << found[0];
}

// ---- names ----

TEST_F(Config_Warnings, names_that_can_hardly_be_typed) {
    const std::string where = "Distributor[0].name: ";
    EXPECT_EQ(warnings_of_name("CAM\\u0007"),
              Lines{where + "\"CAM\\u0007\" has control characters"});
    EXPECT_EQ(warnings_of_name("CAM\\u009b"),
              Lines{where + "\"CAM\\u009b\" has control characters"});
    EXPECT_EQ(warnings_of_name("C\xC3"), Lines{where + "\"C\\ufffd\" is not valid UTF-8"});
    EXPECT_EQ(warnings_of_name("."), Lines{where + "\".\" reads like a folder"});
    EXPECT_EQ(warnings_of_name("CAM "), Lines{where + "\"CAM \" begins or ends with a blank"});
    for (const char* name : {"CAM_LOOP", "K\xC3\xBC\x63he", "\xF0\x9F\x93\xB7", "A B", ".x"}) {
        EXPECT_EQ(warnings_of_name(name), Lines{}) << name;
    }
}

TEST_F(Config_Warnings, paths_that_can_hardly_be_typed) {
    EXPECT_EQ(warnings_of(Config_Text{.system = R"({"SHM_PATH": "s\u001b[2J"})"}),
              Lines{"System.SHM_PATH: \"s\\u001b[2J\" has control characters"});
    EXPECT_EQ(warnings_of(Config_Text{.system = "{\"SEM_PATH\": \"\xFF\"}"}),
              Lines{"System.SEM_PATH: \"\\ufffd\" is not valid UTF-8"});
}

TEST_F(Config_Warnings, utf8_is_told_from_what_is_none) {
    const auto bytes = [](const char* text) { return zav_shm::first_utf8_character(text).bytes; };
    EXPECT_EQ(bytes("a"), 1U);
    EXPECT_EQ(bytes("\xC2\x80"), 2U);
    EXPECT_EQ(bytes("\xE0\xA0\x80"), 3U);
    EXPECT_EQ(bytes("\xF4\x8F\xBF\xBF"), 4U);
    EXPECT_EQ(zav_shm::first_utf8_character("\xF0\x9F\x93\xB7").code, 0x1F4F7U);
    for (const char* text :
         {"\x80", "\xC0\x80", "\xC1\xBF", "\xC3", "\xC3(", "\xE0\x9F\xBF", "\xED\xA0\x80",
          "\xE2\x82", "\xF0\x8F\xBF\xBF", "\xF4\x90\x80\x80", "\xF5\x80\x80\x80", "\xFF"}) {
        EXPECT_EQ(bytes(text), 0U) << text;
    }
}

// ---- whose they are ----

TEST_F(Config_Warnings, of_the_text_are_there_also_when_it_does_not_load) {
    EXPECT_EQ(load(R"({"Streams": []})"), 0);
    EXPECT_EQ(config.error(), "Stream is missing");
    EXPECT_EQ(config.warnings(),
              Lines{"the unknown key \"Streams\" is ignored; \"Stream\" is a known one"});
    config.load_default();
    EXPECT_EQ(config.warnings(), Lines{});
}

TEST_F(Config_Warnings, are_none_of_a_text_that_is_no_json) {
    EXPECT_EQ(load("{\"a\": 1, \"a\": 2"), 0);
    EXPECT_EQ(config.warnings(), Lines{});
}

}  // namespace
