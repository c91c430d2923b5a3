// SPDX-License-Identifier: Apache-2.0
#include "support/emulated.h"

#include <algorithm>
#include <string_view>

namespace {

constexpr std::string_view emulator = ZAV_TEST_EMULATOR;  // empty in a native build
constexpr std::string_view build_folder = ZAV_TEST_BUILD_FOLDER "/";
constexpr std::string_view preloading = "LD_PRELOAD=";

bool begins_with(const std::string& word, std::string_view begin) {
    return word.compare(0, begin.size(), begin) == 0;
}

}  // namespace

std::vector<std::string> startable(const std::vector<std::string>& command) {
    const auto program = std::find_if(command.begin(), command.end(), [](const std::string& word) {
        return begins_with(word, build_folder);
    });
    if (emulator.empty() || program == command.end()) {
        return command;
    }
    std::vector<std::string> before;
    std::vector<std::string> emulated{std::string(emulator)};
    for (auto word = command.begin(); word != program; ++word) {
        if (begins_with(*word, preloading)) {
            emulated.insert(emulated.end(), {"-E", *word});
        } else {
            before.push_back(*word);
        }
    }
    before.insert(before.end(), emulated.begin(), emulated.end());
    before.insert(before.end(), program, command.end());
    return before;
}
