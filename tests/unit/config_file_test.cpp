// SPDX-License-Identifier: Apache-2.0
//
// From a path to a document: what can be read, and what is JSON.
#include <sys/stat.h>
#include <unistd.h>

#include <random>

#include "unit/config_fixture.h"

namespace {

class Config_File : public Config {
protected:
    // Nothing but `output` happens: the defaults, loaded before, are still there.
    void expect_refusal(const char* file, const std::string& output, const std::string& error) {
        config.load_default();
        EXPECT_EQ(load_path(file), 0);
        EXPECT_EQ(printed, output);
        EXPECT_EQ(config.error(), error);
        EXPECT_STREQ(config.root_path, "/dev/shm");
        EXPECT_EQ(config.stream_num, 2);
        EXPECT_EQ(config.stream_configs.size(), 2U);
        EXPECT_EQ(config.distributor_configs.size(), 3U);
        EXPECT_EQ(config.receiver_configs.size(), 4U);
    }
    void expect_invalid(const std::string& content, const std::string& error) {
        expect_refusal(write(content).c_str(), "", error);
    }
};

TEST_F(Config_File, that_does_not_exist_is_not_opened) {
    const std::string missing = path("missing");
    expect_refusal(missing.c_str(), "Failed to open file " + missing + "\n",
                   "cannot open " + missing + ": No such file or directory");
}

TEST_F(Config_File, of_no_path_is_not_opened) {
    expect_refusal(nullptr, "Failed to open file \n", "cannot open the file: no path was given");
    expect_refusal("", "Failed to open file \n", "cannot open : No such file or directory");
}

TEST_F(Config_File, that_is_a_folder_is_not_read) {
    std::filesystem::create_directory(path("folder"));
    expect_refusal(path("folder").c_str(), "",
                   "cannot read " + path("folder") + ": Is a directory");
}

TEST_F(Config_File, that_is_a_fifo_without_writer_is_not_waited_for) {
    ASSERT_EQ(mkfifo(path("fifo").c_str(), 0600), 0);
    expect_refusal(path("fifo").c_str(), "",
                   "cannot read " + path("fifo") + ": not a regular file");
}

TEST_F(Config_File, that_is_a_device_is_not_read) {
    expect_refusal("/dev/zero", "", "cannot read /dev/zero: not a regular file");
}

TEST_F(Config_File, beyond_one_mebibyte_is_not_read) {
    const std::string file = write("");
    ASSERT_EQ(truncate(file.c_str(), off_t{1} << 33), 0);
    expect_refusal(file.c_str(), "",
                   "cannot read " + file + ": 8589934592 bytes, 1048576 are the limit");
}

TEST_F(Config_File, of_exactly_one_mebibyte_is_read) {
    std::string text = Config_Text();
    text.resize(1024 * 1024, ' ');
    EXPECT_EQ(load(text), 1);
}

TEST_F(Config_File, ends_at_its_first_zero_byte) {
    const std::string zero(1, '\0');
    EXPECT_EQ(load(std::string(Config_Text()) + zero + "not read"), 1);
    expect_invalid("// " + zero + "\n" + std::string(Config_Text()),
                   "line 1, column 4: Syntax error: value, object or array expected.");
}

TEST_F(Config_File, that_is_empty_is_no_json) {
    const std::string error = "line 1, column 1: Syntax error: value, object or array expected.";
    expect_invalid("", error);
    expect_invalid(std::string(1, '\0'), error);
}

TEST_F(Config_File, with_a_mistake_is_told_where) {
    expect_invalid("{\n\n  \"a\": ]\n}",
                   "line 3, column 8: Syntax error: value, object or array expected.");
    expect_invalid("[\n1 2]", "line 2, column 3: Missing ',' or ']' in array declaration");
    expect_invalid("{\"a\" 1}", "line 1, column 6: Missing ':' after object member name");
}

TEST_F(Config_File, with_a_byte_order_mark_is_told_so) {
    expect_invalid("\xEF\xBB\xBF" + std::string(Config_Text()),
                   "the text begins with a byte order mark; save it as UTF-8 without one");
    const std::string error = "the text is UTF-16; save it as UTF-8 without a byte order mark";
    expect_invalid(std::string("\xFF\xFE{\0}\0", 6), error);
    expect_invalid(std::string("\xFE\xFF\0{\0}", 6), error);
}

TEST_F(Config_File, nested_up_to_the_limit_is_parsed_and_beyond_is_no_json) {
    expect_invalid(std::string(1001, '['), "nested deeper than 1000 levels");
    expect_invalid(std::string(1024 * 1024, '['), "nested deeper than 1000 levels");
    EXPECT_TRUE(config.parse_config_with_json(std::string(999, '[') + std::string(999, ']')));
}

TEST_F(Config_File, is_read_again_after_one_that_was_nested_too_deep) {
    EXPECT_EQ(load(std::string(1001, '[')), 0);
    EXPECT_TRUE(config.root.isNull());
    EXPECT_EQ(load(Config_Text()), 1);
    EXPECT_EQ(config.error(), "");
}

TEST_F(Config_File, of_damaged_text_neither_throws_nor_crashes) {
    const std::string valid = Config_Text{.system = R"({"ROOT_PATH": "/dev/shm"})"};
    const std::string damage = "{}[]\",:0-9eE.n\\\xff\x01tru";
    std::mt19937 random(1);
    int loaded = 0;
    for (int round = 0; round < 3000; ++round) {
        std::string text = valid;
        for (auto changes = 1 + random() % 3; changes > 0; --changes) {
            text[random() % text.size()] = damage[random() % damage.size()];
        }
        ZAV_SHM_CONFIG fresh;
        output_of([&] {
            if (fresh.parse_config_with_json(text) && fresh.verify_config() == 1) {
                ++loaded;
                fresh.print_config();
            }
        });
        EXPECT_LE(fresh.problems().size(), 100U);
        EXPECT_LE(fresh.warnings().size(), 100U);
    }
    EXPECT_GT(loaded, 0);
    EXPECT_LT(loaded, 3000);
}

TEST_F(Config_File, may_hold_comments_and_other_keys) {
    EXPECT_EQ(load("/* front */ {\"Other\": {}, // rest of the line\n" +
                   std::string(Config_Text()).substr(1) + " // end"),
              1);
    EXPECT_EQ(config.problems(), std::vector<std::string>{});
}

TEST_F(Config_File, parsed_text_stays_in_root) {
    EXPECT_TRUE(config.root.isNull());
    EXPECT_EQ(load(R"({"Stream": []})"), 0);
    EXPECT_TRUE(config.root["Stream"].isArray());
    config.clear_config();
    EXPECT_TRUE(config.root["Stream"].isArray());
}

}  // namespace
