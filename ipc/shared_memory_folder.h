// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <string>
#include <string_view>

namespace zav_shm {

/// Where Linux keeps the files of shared memory. shm_open and sem_open allow no other place, so
/// everything that processes share by name lies here.
inline constexpr const char* shared_memory_folder = "/dev/shm";

/// Names of segments and semaphores begin with a slash, and paths are made with one.
inline std::string_view without_leading_slashes(std::string_view name) {
    name.remove_prefix(std::min(name.find_first_not_of('/'), name.size()));
    return name;
}

/// The path of what is called so below that folder: "/dev/shm/shm/CAM_LOOP_0_1".
inline std::string shared_memory_path(std::string_view name) {
    return shared_memory_folder + std::string("/").append(without_leading_slashes(name));
}

/// The file of a named semaphore: "/dev/shm/sem.SRC_CAM_LOOP_SEM_0_0_0".
inline std::string semaphore_path(std::string_view name) {
    return shared_memory_folder + std::string("/sem.").append(without_leading_slashes(name));
}

}  // namespace zav_shm
