// SPDX-License-Identifier: Apache-2.0
#include "center/reply_sender.h"

#include <sys/msg.h>

#include <cerrno>
#include <cstring>

#include "control/control_protocol.h"

namespace zav_shm {

namespace {

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
    const Guard guard(lock_);
    int result = try_to_send(record, size);
    if (result < 0 && errno == EAGAIN) {
        addressees_.discard_gone([this](long addressee)
                                     ZAV_SHM_REQUIRES(lock_) { queue_.discard_all(addressee); });
        result = try_to_send(record, size);
    } else if (result < 0 && (errno == EIDRM || errno == EINVAL)) {  // the queue was removed
        queue_.open(control::reply_project);
        addressees_.clear();
        result = try_to_send(record, size);
    }
    if (result == 0) {
        addressees_.replied(type_of(record));
        addressees_.forget_all_but([this](long addressee)
                                       ZAV_SHM_REQUIRES(lock_) { return queue_.holds(addressee); });
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

void Reply_Sender::request_comes_from(std::optional<pid_t> sender) {
    const Guard guard(lock_);
    addressees_.request_comes_from(sender);
}

}  // namespace zav_shm
