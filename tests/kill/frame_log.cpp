// SPDX-License-Identifier: Apache-2.0
#include "frame_log.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>

Frame_Log* map_frame_log(const std::string& file) {
    const int descriptor = open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (descriptor < 0 || ftruncate(descriptor, sizeof(Frame_Log)) != 0) {
        return nullptr;
    }
    void* const memory =
        mmap(nullptr, sizeof(Frame_Log), PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
    close(descriptor);
    return memory == MAP_FAILED ? nullptr : static_cast<Frame_Log*>(memory);
}

void unmap_frame_log(Frame_Log* log) { munmap(log, sizeof(Frame_Log)); }

std::int64_t waited_for_processor_ns() {
    thread_local const int file = open("/proc/thread-self/schedstat", O_RDONLY | O_CLOEXEC);
    char text[96] = {};
    if (pread(file, text, sizeof text - 1, 0) <= 0) {
        return 0;
    }
    char* behind_run_time = nullptr;
    std::strtoull(text, &behind_run_time, 10);
    return std::strtoll(behind_run_time, nullptr, 10);
}
