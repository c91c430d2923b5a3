// SPDX-License-Identifier: Apache-2.0
#include "apps/rtspd/problem.h"

#include <cstdio>

#include "apps/text/printable.h"

namespace zav_shm::rtspd {

void report(const std::string& text) {
    std::fprintf(stderr, "zav-shm-rtspd: %s\n", printable(text).c_str());
}

}  // namespace zav_shm::rtspd
