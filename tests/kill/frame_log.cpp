// SPDX-License-Identifier: Apache-2.0
#include "frame_log.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

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
