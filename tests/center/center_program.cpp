// SPDX-License-Identifier: Apache-2.0
//
// zav_test_center CONFIGURATION [destroyed | unprivileged]
//
// A process with a center, configured by JSON on the command line. Prints "ready" when it serves;
// SIGUSR1 makes one pass of kicking and prints "kicked", SIGTERM shuts down, prints "ended" and
// exits. "destroyed" destroys the center object at once; "unprivileged" becomes nobody before it
// builds the center, or exits with 77 when it cannot.
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "center/shm_center.h"

namespace {

constexpr uid_t nobody = 65534;
constexpr int cannot = 77;

int wait_for_signal(const sigset_t& set) {
    int number = 0;
    sigwait(&set, &number);
    return number;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string mode = argc > 2 ? argv[2] : "";
    setvbuf(stdout, nullptr, _IOLBF, 0);
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGUSR1);
    sigaddset(&set, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    if (mode == "unprivileged" && setresuid(nobody, nobody, nobody) != 0) {
        return cannot;
    }

    ZAV_SHM_CONFIG config;
    if (argc < 2 || !config.parse_config_with_json(argv[1]) || config.verify_config() == 0) {
        std::fputs("usage: zav_test_center CONFIGURATION [destroyed | unprivileged]\n", stderr);
        return EXIT_FAILURE;
    }
    ZAV_SHM_CONFIG* borrowed = &config;
    auto center = std::make_unique<ZAV_SHM_CENTER>(borrowed);
    if (mode == "destroyed") {
        center.reset();
    }
    std::puts("ready");
    while (wait_for_signal(set) == SIGUSR1) {
        center->kick_idle_client();
        std::puts("kicked");
    }
    center->shutdown();
    std::puts("ended");
    return EXIT_SUCCESS;
}
