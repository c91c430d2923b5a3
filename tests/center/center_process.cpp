// SPDX-License-Identifier: Apache-2.0
#include "center_process.h"

#include <ctime>

namespace {

long cpu_ms_of(pid_t process) {
    clockid_t clock{};
    timespec used{};
    EXPECT_EQ(clock_getcpuclockid(process, &clock), 0);
    EXPECT_EQ(clock_gettime(clock, &used), 0);
    return static_cast<long>(used.tv_sec) * 1000 + used.tv_nsec / 1'000'000;
}

}  // namespace

void Center_Process::TearDown() {
    center.reset();
    Control_Queues::TearDown();
}

bool Center_Process::start_center(const std::string& configuration, const std::string& mode) {
    center.reset();
    center.emplace(std::vector<std::string>{ZAV_TEST_CENTER, configuration, mode});
    while (const auto line = center->read_line()) {
        if (line == "ready") {
            announce_leftovers_of(*parsed(configuration));
            return true;
        }
    }
    return false;
}

Child_Process Center_Process::start_client(const std::vector<std::string>& role) {
    std::vector<std::string> command{ZAV_TEST_CLIENT};
    command.insert(command.end(), role.begin(), role.end());
    return Child_Process(command);
}

Child_Process Center_Process::start_ready_client(const std::vector<std::string>& role) {
    Child_Process client = start_client(role);
    EXPECT_EQ(client.read_line(), "ready") << role[0];
    return client;
}

// Also keeps the pipe empty, so that a center that prints without end is not held up by it.
std::string Center_Process::printed_within(std::chrono::milliseconds time) {
    return center->read_rest(time);
}

Center_Process::Load Center_Process::load_within(std::chrono::milliseconds time) {
    const long before = cpu_ms_of(center->pid());
    Load load;
    load.printed = printed_within(time);
    load.cpu_ms = cpu_ms_of(center->pid()) - before;
    return load;
}
