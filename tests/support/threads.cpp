// SPDX-License-Identifier: Apache-2.0
#include "support/threads.h"

#include <pthread.h>
#include <sched.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>

std::size_t thread_count() {
    const std::filesystem::directory_iterator tasks("/proc/self/task");
    return static_cast<std::size_t>(std::distance(begin(tasks), end(tasks)));
}

bool is_asleep(pid_t thread) {
    std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/stat");
    std::string line;
    std::getline(file, line);
    const std::size_t name_end = line.rfind(')');  // a thread's name may hold blanks
    return name_end != std::string::npos && line.size() > name_end + 2 && line[name_end + 2] == 'S';
}

bool becomes_true(const std::function<bool()>& condition, std::chrono::milliseconds limit) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

bool stay_on_processor(int processor) {
    cpu_set_t only;
    CPU_ZERO(&only);
    CPU_SET(static_cast<std::size_t>(processor), &only);
    return pthread_setaffinity_np(pthread_self(), sizeof only, &only) == 0;
}

bool go_before_all_others() {
    sched_param highest = {};
    highest.sched_priority = sched_get_priority_max(SCHED_FIFO);
    return pthread_setschedparam(pthread_self(), SCHED_FIFO, &highest) == 0;
}
