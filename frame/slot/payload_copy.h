// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstring>
#include <span>

#include "ipc/test_point.h"

namespace zav_shm {

/// Copies a payload into or out of a slot. In builds for tests a process can be ended in the
/// middle; `object` names the copy.
inline void copy_payload(std::byte* to, std::span<const std::byte> payload,
                         [[maybe_unused]] const char* object) {
    if (payload.empty()) {
        return;
    }
#ifdef ZAV_SHM_TEST_POINTS
    const std::size_t half = payload.size() / 2;
    std::memcpy(to, payload.data(), half);
    test_point("copy", object);
    std::memcpy(to + half, payload.data() + half, payload.size() - half);
#else
    std::memcpy(to, payload.data(), payload.size());
#endif
}

}  // namespace zav_shm
