// SPDX-License-Identifier: Apache-2.0
#include "apps/doctor/queues.h"

#include <sys/msg.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <system_error>

#include "control/control_protocol.h"
#include "ipc/shared_memory_folder.h"

namespace zav_shm::doctor {

namespace {

// Kernels before 4.17 show a queue only to those who may read it.
#ifndef MSG_STAT_ANY
constexpr int MSG_STAT_ANY = 13;
#endif

}  // namespace

std::vector<Queue> all_queues() {
    std::vector<Queue> queues;
    msginfo totals{};
    const int last = msgctl(0, MSG_INFO, reinterpret_cast<msqid_ds*>(&totals));
    for (int index = 0; index <= last; ++index) {
        msqid_ds found{};
        int id = msgctl(index, MSG_STAT_ANY, &found);
        if (id < 0) {
            id = msgctl(index, MSG_STAT, &found);
        }
        if (id >= 0) {
            queues.push_back({found.msg_perm.__key, id, found.msg_perm.uid, found.msg_perm.gid,
                              static_cast<mode_t>(found.msg_perm.mode & 0777U), found.__msg_cbytes,
                              found.msg_qbytes, found.msg_qnum, found.msg_lspid, found.msg_lrpid});
        }
    }
    return queues;
}

std::string key_text(key_t key) {
    std::array<char, 16> text{};
    std::snprintf(text.data(), text.size(), "0x%08x", static_cast<unsigned>(key));
    return text.data();
}

std::optional<Queue_Keys> keys_of_this_process() {
    const key_t requests = ftok("/tmp", control::request_project);
    const key_t replies = ftok("/tmp", control::reply_project);
    if (requests == -1 || replies == -1) {
        return std::nullopt;
    }
    return Queue_Keys{requests, replies};
}

std::vector<key_t> keys_with_a_lock() {
    constexpr std::string_view beginning = "zav_shm_queues_0x";
    std::vector<key_t> keys;
    std::error_code error;
    std::filesystem::directory_iterator entry(shared_memory_folder, error);
    for (; !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
        const std::string name = entry->path().filename().string();
        if (name.starts_with(beginning)) {
            keys.push_back(
                static_cast<key_t>(std::strtoul(name.c_str() + beginning.size(), nullptr, 16)));
        }
    }
    return keys;
}

}  // namespace zav_shm::doctor
