// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

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

/// Where the rings of the segments' folder lie, with all that belongs to them:
/// "/dev/shm/shm/rings". `folder` is written as in the segments' names, "/shm"; the slash may be
/// missing.
inline std::string rings_folder(std::string_view folder) {
    return shared_memory_path(folder) + "/rings";
}

/// What a file beside the rings is called: "CAM_LOOP_0_1".
inline std::string channel_file_name(std::string_view name, int channel, int stream) {
    return std::string(name) + "_" + std::to_string(channel) + "_" + std::to_string(stream);
}

/// True for the name of one visible file: what comes from a client can then lead to no other
/// folder.
inline bool is_file_name(std::string_view name) {
    return !name.empty() && name.front() != '.' && name.find('/') == std::string_view::npos;
}

/// The mode of a file in a folder of this mode: whoever may list the folder may read the file, and
/// nobody but its user may write to it.
inline mode_t readable_file_mode(mode_t folder) {
    const bool for_group = (folder & 0050U) == 0050U;
    const bool for_others = (folder & 0005U) == 0005U;
    return 0600U | (for_group ? 0040U : 0U) | (for_others ? 0004U : 0U);
}

}  // namespace zav_shm
