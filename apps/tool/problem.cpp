// SPDX-License-Identifier: Apache-2.0
#include "apps/tool/problem.h"

#include <cstdio>

#include "apps/text/printable.h"

namespace zav_shm::tool {

namespace {

const char* program = "zav-shm";

}  // namespace

void name_program(const char* name) { program = name; }

void complain(const std::string& text) {
    const std::string line = std::string(program) + ": " + printable(text) + "\n";
    std::fwrite(line.data(), 1, line.size(), stderr);
    std::fflush(stderr);
}

Exit_Status report(const Problem& problem) {
    complain(problem.text);
    return problem.status;
}

std::string channel_text(const std::string& name, int channel, int stream) {
    return name + "/" + std::to_string(channel) + "/" + std::to_string(stream);
}

}  // namespace zav_shm::tool
