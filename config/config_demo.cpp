// SPDX-License-Identifier: Apache-2.0
//
// config_demo [FILE]
//
// Prints the default configuration, or the one in FILE. Standard error names what is wrong with
// FILE, and what in it is probably not meant. Exit status: 0; 1 when FILE cannot be loaded or
// should not be run with; 2 for misuse.
#include <cstdio>

#include "config/zav_shm_config.h"

namespace {

int show_file(const char* path) {
    ZAV_SHM_CONFIG config;
    const bool loaded = config.parse_config(path) != 0;
    std::vector<std::string> problems{config.error()};
    if (loaded) {
        config.print_config();
        problems = config.problems();
    }
    for (const auto& problem : problems) {
        std::fprintf(stderr, "config_demo: %s\n", problem.c_str());
    }
    for (const auto& warning : config.warnings()) {
        std::fprintf(stderr, "config_demo: warning: %s\n", warning.c_str());
    }
    return problems.empty() ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 2) {
        std::fprintf(stderr, "config_demo: %d arguments, at most one FILE is taken\n", argc - 1);
        return 2;
    }
    if (argc == 2) {
        return show_file(argv[1]);
    }
    ZAV_SHM_CONFIG config;
    config.load_default();
    config.print_config();
    return 0;
}
