// SPDX-License-Identifier: Apache-2.0
#include "client/shm_client_base.h"

#include <sys/msg.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>

#include "client/control_reply.h"
#include "control/control_protocol.h"

using zav_shm::Control_Record;
using zav_shm::Control_Reply;
namespace control = zav_shm::control;

ZAV_SHM_CLIENT_BASE::ZAV_SHM_CLIENT_BASE() : pid(getpid()) { init_msgq(); }

int ZAV_SHM_CLIENT_BASE::init_msgq() {
    send_msgq.open(control::request_project);
    recv_msgq.open(control::reply_project);
    return recv_msgq.id;
}

bool ZAV_SHM_CLIENT_BASE::send_msg(const char* text, int len) {
    if (text == nullptr || len < 0 || len > zav_shm::control_text_bytes) {
        errno = EINVAL;
        return false;
    }
    Control_Record record{};
    record.mtype = control::request_type;
    std::memcpy(record.text, text, static_cast<std::size_t>(len));
    return send_q(&record, zav_shm::control_record_bytes) >= 0;
}

int ZAV_SHM_CLIENT_BASE::send_q(const void* record, int size) {
    return msgsnd(send_msgq.id, record, static_cast<std::size_t>(size), 0);
}

int ZAV_SHM_CLIENT_BASE::recv_msg(void* buffer, int size) { return recv_q(buffer, size); }

int ZAV_SHM_CLIENT_BASE::recv_q(void* buffer, int size) {
    const ssize_t length = msgrcv(recv_msgq.id, buffer, static_cast<std::size_t>(size), pid, 0);
    if (length < 0 && errno == E2BIG && size >= zav_shm::control_record_bytes) {
        discard_oldest_reply();
        errno = E2BIG;
    }
    return static_cast<int>(length);
}

void ZAV_SHM_CLIENT_BASE::discard_oldest_reply() const {
    Control_Record record{};
    msgrcv(recv_msgq.id, &record, sizeof record.text, pid, IPC_NOWAIT | MSG_NOERROR);
}

std::optional<Control_Reply> ZAV_SHM_CLIENT_BASE::exchange(const std::string& request) {
    if (!send_msg(request.c_str(), static_cast<int>(request.size()))) {
        return std::nullopt;
    }
    Control_Record record{};
    if (recv_msg(&record, zav_shm::control_record_bytes) == 0) {
        return std::nullopt;
    }
    return Control_Reply({record.text, strnlen(record.text, sizeof record.text)});
}
