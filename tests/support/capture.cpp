// SPDX-License-Identifier: Apache-2.0
#include "support/capture.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <iostream>

namespace {

std::string content_of(int descriptor) {
    std::string text;
    char buffer[4096];
    lseek(descriptor, 0, SEEK_SET);
    for (ssize_t got = 0; (got = read(descriptor, buffer, sizeof buffer)) > 0;) {
        text.append(buffer, static_cast<std::size_t>(got));
    }
    return text;
}

void flush_all() {
    std::cout.flush();
    std::fflush(stdout);
}

}  // namespace

std::string output_of(const std::function<void()>& action) {
    flush_all();
    const int saved = dup(STDOUT_FILENO);
    const int file = memfd_create("captured_output", MFD_CLOEXEC);
    dup2(file, STDOUT_FILENO);
    action();
    flush_all();
    dup2(saved, STDOUT_FILENO);
    close(saved);
    std::string text = content_of(file);
    close(file);
    return text;
}
