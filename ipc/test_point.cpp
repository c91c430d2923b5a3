// SPDX-License-Identifier: Apache-2.0
#include "ipc/test_point.h"

#ifdef ZAV_SHM_TEST_POINTS

#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace zav_shm {

namespace {

struct Wanted {
    char place[32] = {};
    char object[32] = {};
    long count = 0;
    int signal = 0;
    char begin[96] = {};  // the file that has to be there; empty: none
};

Wanted read_environment() {
    Wanted wanted;
    const char* const text = std::getenv("ZAV_SHM_TEST_POINT");
    if (text == nullptr || std::sscanf(text, "%31s %31s %ld %d %95s", wanted.place, wanted.object,
                                       &wanted.count, &wanted.signal, wanted.begin) < 4) {
        return {};
    }
    return wanted;
}

// "SRC_0" of "/SRC_CAM_LOOP_SEM_0_0_0"; everything else is its own name.
std::string short_name(const char* object) {
    const std::size_t length = std::strlen(object);
    return object[0] == '/' && length > 5 ? std::string(object + 1, 4) + object[length - 1]
                                          : std::string(object);
}

std::atomic<const Test_Hook*> hook{nullptr};

}  // namespace

void set_test_hook(const Test_Hook* wanted) { hook = wanted; }

void test_point(const char* place, const char* object) {
    if (const Test_Hook* const call = hook) {
        (*call)(place, object);
    }
    static const Wanted wanted = read_environment();
    static std::atomic<long> left{wanted.count};
    if (wanted.signal == 0 || std::strcmp(place, wanted.place) != 0 ||
        short_name(object) != wanted.object) {
        return;
    }
    static std::atomic<bool> has_begun{wanted.begin[0] == '\0'};
    if (!has_begun) {
        has_begun = access(wanted.begin, F_OK) == 0;
        return;
    }
    if (left.fetch_sub(1) == 1) {
        std::raise(wanted.signal);
    }
}

}  // namespace zav_shm

#endif
