// SPDX-License-Identifier: Apache-2.0
#include "stream/channel_names.h"

#include <array>
#include <cstdio>
#include <memory>

namespace {

constexpr std::size_t name_buffer_bytes = 64;

std::string segment_name(const std::string& root, const std::string& name,
                         const Shm_Stream_Transmission_Index& key) {
    std::array<char, name_buffer_bytes> text{};
    std::snprintf(text.data(), text.size(), "/%s/%s_%d_%d", root.c_str(), name.c_str(), key.channel,
                  key.stream);
    return text.data();
}

std::string semaphore_name(const std::string& side, const Shm_Stream_Transmission_Index& key,
                           int number) {
    std::array<char, name_buffer_bytes> text{};
    std::snprintf(text.data(), text.size(), "/%s_%s_SEM_%d_%d_%d", side.c_str(), key.name.c_str(),
                  key.channel, key.stream, number);
    return text.data();
}

struct Roots {
    std::string segments;
    std::string semaphores;
};

// Made at its first use and never destroyed: a center may be of static storage.
Roots& roots() {
    static auto* const made = std::make_unique<Roots>().release();
    return *made;
}

}  // namespace

std::string& IPC_SHM_CTRL_INFO::shm_root_path = roots().segments;
std::string& IPC_SHM_CTRL_INFO::sem_root_path = roots().semaphores;

IPC_SHM_CTRL_INFO::IPC_SHM_CTRL_INFO(const std::string& side, const std::string& name,
                                     const Shm_Stream_Transmission_Index& key)
    : shm_path(segment_name(roots().segments, name, key)),
      sem_path_src(semaphore_name(side, key, 0)),
      sem_path_dst(semaphore_name(side, key, 1)),
      sem_path_exist(semaphore_name(side, key, 2)) {}

void IPC_SHM_CTRL_INFO::reset() {
    sem_path_src.clear();
    sem_path_dst.clear();
    sem_path_exist.clear();
    shm_path.clear();
}

void IPC_SHM_CTRL_INFO::set_shm_root_path(const std::string& path) { roots().segments = path; }

void IPC_SHM_CTRL_INFO::set_sem_root_path(const std::string& path) { roots().semaphores = path; }

IPC_SHM_SRC_CTRL_INFO::IPC_SHM_SRC_CTRL_INFO(const Shm_Stream_Transmission_Index& key)
    : IPC_SHM_CTRL_INFO("SRC", key.name, key) {}

IPC_SHM_DST_CTRL_INFO::IPC_SHM_DST_CTRL_INFO(const Shm_Stream_Transmission_Index& key)
    : IPC_SHM_CTRL_INFO("DST", key.name, key) {}

IPC_SHM_DST_CTRL_INFO::IPC_SHM_DST_CTRL_INFO(const Shm_Stream_Transmission_Index& key,
                                             const std::string& name)
    : IPC_SHM_CTRL_INFO("DST", name, key) {}
