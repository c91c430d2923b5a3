// SPDX-License-Identifier: Apache-2.0
#include "fuzz/fuzz_target.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>

namespace zav_shm::fuzz {

std::string_view text_of(const uint8_t* data, size_t size) {
    return {reinterpret_cast<const char*>(data), size};  // NOLINT(*-reinterpret-cast): bytes
}

void silence_standard_output() {
    const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
    require(nowhere >= 0 && dup2(nowhere, STDOUT_FILENO) >= 0, "/dev/null can be written");
    close(nowhere);
}

void require(bool holds, const char* rule, std::string_view text) {
    if (!holds) {
        std::cerr << "does not hold: " << rule << '\n' << text << '\n';
        std::abort();
    }
}

}  // namespace zav_shm::fuzz
