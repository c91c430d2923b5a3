// SPDX-License-Identifier: Apache-2.0
#include "apps/centerd/control_queues.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <fstream>

#include "control/control_protocol.h"
#include "ipc/shared_memory_folder.h"

namespace zav_shm::centerd {

namespace {

constexpr const char* key_folder = "/tmp";
constexpr msglen_t default_queue_bytes = 16'384;  // the kernel's own default
constexpr msglen_t held_queue_bytes = 1;          // also how many messages without bytes fit

std::string hexadecimal(key_t key) {
    std::array<char, 16> text{};
    std::snprintf(text.data(), text.size(), "0x%08x", static_cast<unsigned>(key));
    return text.data();
}

// What a queue may hold at most unless its maker had privileges.
msglen_t queue_bytes_limit() {
    std::ifstream file("/proc/sys/kernel/msgmnb");
    msglen_t bytes = default_queue_bytes;
    return file >> bytes ? bytes : default_queue_bytes;
}

}  // namespace

Outcome Control_Queues::find_keys(Control_Queues& queues) {
    queues.request_key_ = ftok(key_folder, control::request_project);
    queues.reply_key_ = ftok(key_folder, control::reply_project);
    if (queues.request_key_ == -1 || queues.reply_key_ == -1) {
        return system_failure(std::string("folder ") + key_folder, errno,
                              "it names the queues: there has to be one");
    }
    return std::nullopt;
}

Outcome Control_Queues::prepare(File_Access access, Requests requests) {
    if (Outcome failed = prepare_queue("request", request_key_, access, requests, request_id_)) {
        return failed;
    }
    is_held_ = requests == Requests::held;
    return prepare_queue("reply", reply_key_, access, Requests::taken, reply_id_);
}

Outcome Control_Queues::prepare_queue(const char* name, key_t key, File_Access access,
                                      Requests requests, int& id) {
    id = msgget(key, IPC_CREAT | static_cast<int>(access.mode));
    if (id < 0 && errno == EACCES) {  // it is there, and has fewer permissions
        id = msgget(key, 0);
    }
    if (id < 0 || set_access(id, access, requests) != 0) {
        return system_failure(std::string(name) + " queue " + hexadecimal(key), errno,
                              "if another user made it, remove it (ipcrm -Q " + hexadecimal(key) +
                                  ") and start the center before its clients");
    }
    return std::nullopt;
}

// A queue without permission bits does not even let its owner look at it, but be changed. One that
// is smaller than usual was held by a daemon that was killed; one that is larger, somebody with
// privileges made so, and without them it cannot be made so again.
int Control_Queues::set_access(int id, File_Access access, Requests requests) {
    const msglen_t usual_bytes = queue_bytes_limit();
    msqid_ds status{};
    if (msgctl(id, IPC_STAT, &status) != 0 && errno != EACCES) {
        return -1;
    }
    status.msg_perm.uid = geteuid();
    status.msg_perm.gid = access.group;
    status.msg_perm.mode = static_cast<decltype(status.msg_perm.mode)>(access.mode);
    const bool is_open = status.msg_qbytes >= usual_bytes;
    if (requests == Requests::held) {
        bytes_before_hold_ = is_open ? status.msg_qbytes : bytes_before_hold_;
        status.msg_qbytes = held_queue_bytes;
        return msgctl(id, IPC_SET, &status);
    }
    if (!is_open) {
        const bool was_held = id == request_id_;
        status.msg_qbytes = std::max(usual_bytes, was_held ? bytes_before_hold_ : 0);
    }
    if (msgctl(id, IPC_SET, &status) == 0) {
        return 0;
    }
    status.msg_qbytes = usual_bytes;
    return errno == EPERM ? msgctl(id, IPC_SET, &status) : -1;
}

// A start that fails must not leave a queue behind in which no request fits.
void Control_Queues::open_if_held(File_Access access) {
    if (is_held_) {
        prepare(access);
    }
}

bool Control_Queues::were_replaced() const {
    return msgget(request_key_, 0) != request_id_ || msgget(reply_key_, 0) != reply_id_;
}

bool Control_Queues::exist() const {
    return msgget(request_key_, 0) >= 0 || errno != ENOENT || msgget(reply_key_, 0) >= 0 ||
           errno != ENOENT;
}

// By key, not by id: a queue that somebody removed meanwhile was made again under the same key.
void Control_Queues::remove() const {
    for (const key_t key : {request_key_, reply_key_}) {
        const int id = msgget(key, 0);
        if (id >= 0) {
            msgctl(id, IPC_RMID, nullptr);
        }
    }
}

Outcome Control_Queues::give_to(uid_t owner) const {
    for (const key_t key : {request_key_, reply_key_}) {
        const int id = msgget(key, 0);
        msqid_ds status{};
        if (id < 0 && errno == ENOENT) {
            continue;
        }
        if (id < 0 || msgctl(id, IPC_STAT, &status) != 0) {
            return system_failure("queue " + hexadecimal(key), errno, "run as root");
        }
        status.msg_perm.uid = owner;
        if (msgctl(id, IPC_SET, &status) != 0) {
            return system_failure("giving queue " + hexadecimal(key) + " away", errno,
                                  "run as root");
        }
    }
    return std::nullopt;
}

std::string Control_Queues::text() const {
    return "queues " + hexadecimal(request_key_) + " and " + hexadecimal(reply_key_);
}

std::string Control_Queues::lock_path() const {
    return shared_memory_path("zav_shm_queues_" + hexadecimal(request_key_));
}

}  // namespace zav_shm::centerd
