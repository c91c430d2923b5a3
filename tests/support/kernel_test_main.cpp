// SPDX-License-Identifier: Apache-2.0
//
// main() of every test that touches kernel objects: unless it already runs in private
// namespaces, it starts itself again in some.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "support/emulated.h"

namespace {

[[noreturn]] void restart_in_private_namespaces(char** arguments) {
    const char* const launcher = ZAV_SHM_NAMESPACES_LAUNCHER;
    char path[4096] = {};
    if (readlink("/proc/self/exe", path, sizeof path - 1) < 0) {
        std::perror("/proc/self/exe");
        std::exit(EXIT_FAILURE);
    }
    std::vector<std::string> words{launcher, path};
    for (char** argument = arguments + 1; *argument != nullptr; ++argument) {
        words.emplace_back(*argument);
    }
    words = startable(words);
    std::vector<char*> command;
    for (std::string& word : words) {
        command.push_back(word.data());
    }
    command.push_back(nullptr);
    execv(launcher, command.data());
    std::fprintf(stderr, "cannot start %s: %s\n", launcher, std::strerror(errno));
    std::exit(EXIT_FAILURE);
}

}  // namespace

int main(int argc, char** argv) {
    const std::vector<char*> arguments(argv, argv + argc + 1);  // gtest takes its own away
    testing::InitGoogleTest(&argc, argv);
    const bool only_lists = GTEST_FLAG_GET(list_tests);
    if (!only_lists && std::getenv("ZAV_SHM_PRIVATE_NAMESPACES") == nullptr) {
        auto copy = arguments;
        restart_in_private_namespaces(copy.data());
    }
    return RUN_ALL_TESTS();
}
