// SPDX-License-Identifier: Apache-2.0
//
// false_center FOLDER VERSION SEMAPHORE_BYTES AGE_S
//
// Holds a center's page and shows a status of this version and age, until it is ended.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>

#include "control/center_page.h"
#include "control/center_status.h"

int main(int argc, char** argv) {
    if (argc != 5) {
        return 2;
    }
    const std::string folder = argv[1];
    zav_shm::Center_Page page;
    page.epoch = 17;
    page.pid = static_cast<std::uint32_t>(getpid());
    page.semaphore_bytes = static_cast<std::uint32_t>(std::strtoul(argv[3], nullptr, 10));
    page.started_utc_ns = static_cast<std::uint64_t>(time(nullptr)) * 1'000'000'000U;
    mkdir(("/dev/shm/" + folder).c_str(), 0755);
    const auto held = zav_shm::hold_center_page(folder, page);
    const std::string status = zav_shm::center_status_path(folder);
    zav_shm::replace_file(
        status, "{\"pid\": " + std::to_string(getpid()) + ", \"version\": \"" + argv[2] + "\"}\n",
        {});
    const timespec then{time(nullptr) - std::strtol(argv[4], nullptr, 10), 0};
    const timespec times[2] = {then, then};
    utimensat(AT_FDCWD, status.c_str(), times, 0);
    std::puts("ready");
    std::fflush(stdout);
    pause();
    return held.is_open() ? 0 : 1;
}
