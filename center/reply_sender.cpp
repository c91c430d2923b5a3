// SPDX-License-Identifier: Apache-2.0
#include "center/reply_sender.h"

#include <sys/msg.h>
#include <sys/types.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fstream>
#include <string>

#include "control/control_protocol.h"

namespace zav_shm {

namespace {

// More than a queue holds of the shortest replies; beyond it those without one are forgotten.
constexpr std::size_t addressees_max = 1024;

// A process that has ended and that its parent has not waited for still has its id.
bool has_ended(long pid) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    std::getline(file, line);
    const std::size_t name_end = line.rfind(')');  // the name before it may hold anything
    const char state = name_end + 2 < line.size() ? line[name_end + 2] : '?';
    return name_end != std::string::npos && (state == 'Z' || state == 'X');
}

bool is_gone(long pid) {
    return static_cast<pid_t>(pid) != pid ||
           (kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH) || has_ended(pid);
}

long type_of(const void* record) {
    long type = 0;
    std::memcpy(&type, record, sizeof type);
    return type;
}

}  // namespace

int Reply_Sender::send(const void* record, int size) {
    if (record == nullptr || size < 0 || size > control_record_bytes || type_of(record) < 1) {
        errno = EINVAL;
        return -1;
    }
    const std::lock_guard guard(lock_);
    int result = try_to_send(record, size);
    if (result < 0 && errno == EAGAIN) {
        discard_replies_to_the_dead();
        result = try_to_send(record, size);
    } else if (result < 0 && (errno == EIDRM || errno == EINVAL)) {  // the queue was removed
        queue_.open(control::reply_project);
        addressees_.clear();
        result = try_to_send(record, size);
    }
    if (result == 0) {
        remember(type_of(record));
    }
    return result;
}

int Reply_Sender::try_to_send(const void* record, int size) {
    int result = 0;
    do {
        result = msgsnd(queue_.id, record, static_cast<std::size_t>(size), IPC_NOWAIT);
    } while (result < 0 && errno == EINTR);
    return result;
}

void Reply_Sender::discard_replies_to_the_dead() {
    for (auto it = addressees_.begin(); it != addressees_.end();) {
        if (is_gone(*it)) {
            queue_.discard_all(*it);
            it = addressees_.erase(it);
        } else {
            ++it;
        }
    }
}

void Reply_Sender::remember(long addressee) {
    addressees_.insert(addressee);
    if (addressees_.size() > addressees_max) {
        std::erase_if(addressees_, [this](long pid) { return !queue_.holds(pid); });
    }
}

}  // namespace zav_shm
