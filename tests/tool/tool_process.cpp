// SPDX-License-Identifier: Apache-2.0
#include "tool/tool_process.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "support/histories.h"
#include "support/threads.h"

namespace {

std::vector<std::string> command_of(const std::vector<std::string>& arguments,
                                    const std::string& errors, const std::string& shell) {
    std::vector<std::string> command{"/bin/sh", "-c", "exec 2>'" + errors + "'; " + shell, "sh",
                                     ZAV_TEST_TOOL};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return command;
}

std::string all_of(const std::string& file) {
    std::ifstream in(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

}  // namespace

Tool_Process::Tool_Process(const std::vector<std::string>& arguments, std::string errors,
                           const std::string& shell)
    : process_(command_of(arguments, errors, shell)), errors_(std::move(errors)) {}

int Tool_Process::status() {
    const auto ended = process_.wait(std::chrono::seconds(20));
    EXPECT_TRUE(ended) << "still runs; it says:\n" << errors();
    return ended.value_or(-1);
}

std::string Tool_Process::errors() const { return all_of(errors_); }

bool Tool_Process::says(const std::string& text) const {
    const bool found = becomes_true([&] { return errors().find(text) != std::string::npos; });
    EXPECT_TRUE(found) << "no \"" << text << "\" in:\n" << errors();
    return found;
}

long Tool_Process::figure(const std::string& name) const {
    const std::string text = errors();
    const std::size_t found = text.rfind(" " + name + "=");
    if (found == std::string::npos) {
        ADD_FAILURE() << "no " << name << " in:\n" << text;
        return -1;
    }
    return std::strtol(text.c_str() + found + name.size() + 2, nullptr, 10);
}

void Tool::SetUp() {
    Center_Process::SetUp();
    char name[] = "/tmp/zav_tool_XXXXXX";
    ASSERT_NE(mkdtemp(name), nullptr);
    folder_ = name;
}

void Tool::TearDown() {
    center.reset();
    remove_histories(leaves_cards ? std::set<std::string>{".route", ".reader"}
                                  : std::set<std::string>{".route"});  // of a killed center
    Center_Process::TearDown();
    std::filesystem::remove_all(folder_);
}

Tool_Process Tool::start(const std::vector<std::string>& arguments, const std::string& shell) {
    return {arguments, path("errors_" + std::to_string(++started_)), shell};
}

std::string Tool::content(const std::string& file) { return all_of(file); }

void Tool::write(const std::string& file, const std::string& text) {
    std::ofstream(file, std::ios::binary) << text;
}

std::string Tool::stream(const std::string& name) {
    return std::string(ZAV_TEST_STREAMS) + "/" + name;
}

std::string Tool::sample(const std::string& name) {
    return std::string(ZAV_TEST_SAMPLES) + "/" + name;
}
