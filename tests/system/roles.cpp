// SPDX-License-Identifier: Apache-2.0
#include "roles.h"

#include <cstdio>
#include <cstdlib>

#include "stream/zav_stream_processor.h"

void roles::print_ready() {
    std::puts("ready");
    std::fflush(stdout);
}

int main(int argc, char** argv) {
    const roles::Arguments arguments(argv + 1, argv + argc);
    IPC_SHM_CTRL_INFO::set_shm_root_path("shm");
    IPC_SHMEMORY::set_root_path("/dev/shm");
    const std::string role = arguments.empty() ? "" : arguments[0];
    if (role == "relay" && arguments.size() == 2) {
        return roles::relay(arguments);
    }
    if (role == "producer" && arguments.size() == 4) {
        return roles::producer(arguments);
    }
    if (role == "consumer" && arguments.size() == 2) {
        return roles::consumer(arguments);
    }
    std::fputs("usage: relay CONSUMERS | producer FIRST LAST FPS | consumer NAME\n", stderr);
    return EXIT_FAILURE;
}
