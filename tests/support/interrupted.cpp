// SPDX-License-Identifier: Apache-2.0
#include "support/interrupted.h"

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <thread>

#include "support/threads.h"

int errno_after_interrupting(const std::function<void()>& wait) {
    struct sigaction action {};
    action.sa_handler = [](int) {};  // without SA_RESTART
    struct sigaction former {};
    sigaction(SIGUSR1, &action, &former);

    std::atomic<pid_t> id{0};
    std::atomic<bool> returned{false};
    int error = 0;
    std::thread waiting([&] {
        id = gettid();
        errno = 0;
        wait();
        error = errno;
        returned = true;
    });
    becomes_true([&] { return returned || (id != 0 && is_asleep(id)); });
    while (!returned) {
        pthread_kill(waiting.native_handle(), SIGUSR1);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    waiting.join();
    sigaction(SIGUSR1, &former, nullptr);
    return error;
}
