// SPDX-License-Identifier: Apache-2.0
#include "ipc/zav_msg_q.h"

#include <sys/ipc.h>
#include <sys/msg.h>

#include <cerrno>

namespace {

constexpr const char* key_directory = "/tmp";

// Asked of an existing queue, these are the rights that the caller needs.
constexpr int read_and_write = 0600;

}  // namespace

bool ZAV_MSG_Q::open(int project) {
    id = msgget(ftok(key_directory, project), IPC_CREAT);
    return id >= 0;
}

bool ZAV_MSG_Q::open_existing(int project) {
    id = msgget(ftok(key_directory, project), read_and_write);
    return id >= 0;
}

int ZAV_MSG_Q::clean() {
    msqid_ds status{};
    const int error = msgctl(id, IPC_STAT, &status);
    if (error != 0) {
        return error;
    }
    ssize_t last = 0;
    for (msgqnum_t left = status.msg_qnum; left > 0; --left) {
        const ssize_t length = take(0);
        if (length < 0) {
            break;
        }
        last = length;
    }
    return static_cast<int>(last);
}

bool ZAV_MSG_Q::discard_oldest() { return take(0) >= 0; }

int ZAV_MSG_Q::discard_all(long type) {
    int count = 0;
    while (take(type) >= 0) {
        ++count;
    }
    return count;
}

// A message that does not fit into no room at all stays where it is.
bool ZAV_MSG_Q::holds(long type) const {
    zav_shm::Control_Record record{};
    return msgrcv(id, &record, 0, type, IPC_NOWAIT) < 0 && errno == E2BIG;
}

std::optional<pid_t> ZAV_MSG_Q::last_sender() const {
    msqid_ds status{};
    if (msgctl(id, IPC_STAT, &status) != 0 || status.msg_qnum != 0) {
        return {};
    }
    return status.msg_lspid;
}

// One that is longer than a record is cut: left in place it would be the oldest for ever.
ssize_t ZAV_MSG_Q::take(long type) const {
    zav_shm::Control_Record record{};
    return msgrcv(id, &record, sizeof record.text, type, IPC_NOWAIT | MSG_NOERROR);
}
