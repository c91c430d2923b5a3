// SPDX-License-Identifier: Apache-2.0
#include "support/raw_client.h"

#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "support/threads.h"

namespace {

// More than any message of these tests, so that none is cut.
constexpr std::size_t text_bytes_max = 8192;

struct Record {
    long type;
    char text[text_bytes_max];
};

}  // namespace

pid_t gone_pid() {
    const pid_t pid = fork();
    if (pid == 0) {
        _exit(0);
    }
    waitpid(pid, nullptr, 0);
    return pid;
}

// ---- queue ----

int Raw_Queue::id(int flags) const { return msgget(ftok("/tmp", project_), flags); }

bool Raw_Queue::send(const std::string& bytes, long type, std::chrono::milliseconds limit) const {
    if (bytes.size() > text_bytes_max) {
        return false;
    }
    Record record{type, {}};
    std::memcpy(record.text, bytes.data(), bytes.size());
    return becomes_true([&] { return msgsnd(id(0x200), &record, bytes.size(), IPC_NOWAIT) == 0; },
                        limit);
}

std::optional<Raw_Message> Raw_Queue::take(long type, std::chrono::milliseconds limit) const {
    Record record{};
    ssize_t length = -1;
    becomes_true(
        [&] {
            length = msgrcv(id(0), &record, sizeof record.text, type, IPC_NOWAIT);
            return length >= 0;
        },
        limit);
    if (length < 0) {
        return std::nullopt;
    }
    return Raw_Message{record.type, {record.text, static_cast<std::size_t>(length)}};
}

void Raw_Queue::make() const { id(0x200); }

void Raw_Queue::remove() const { msgctl(id(0), IPC_RMID, nullptr); }

void Raw_Queue::set_mode(unsigned short mode) const {
    msqid_ds status{};
    msgctl(id(0), IPC_STAT, &status);
    status.msg_perm.mode = mode;
    msgctl(id(0), IPC_SET, &status);
}

Raw_Queue::Status Raw_Queue::status() const {
    msqid_ds status{};
    if (msgctl(id(0), IPC_STAT, &status) != 0) {
        return {};
    }
    return {status.msg_qnum, status.__msg_cbytes, status.msg_qbytes, status.msg_perm.mode & 0777U,
            true};
}

// ---- client ----

bool Raw_Client::send(const std::string& text) const {
    std::string record = text;
    record.resize(1028);
    return Raw_Queue::of_requests().send(record);
}

bool Raw_Client::send_signed(const std::string& text) const {
    const std::size_t end = text.rfind('}');
    return send(text.substr(0, end) + ",\"pid\":" + std::to_string(pid_) + text.substr(end));
}

std::string Raw_Client::ask(const std::string& text) const {
    return send_signed(text) ? reply() : "no room for a request";
}

std::string Raw_Client::reply(std::chrono::milliseconds limit) const {
    const auto message = Raw_Queue::of_replies().take(pid_, limit);
    return message ? message->text : "no reply";
}

std::string field_of(const std::string& reply, const std::string& field) {
    const std::string start = "\"" + field + "\" : \"";
    const std::size_t at = reply.find(start);
    if (at == std::string::npos) {
        return {};
    }
    const std::size_t value = at + start.size();
    return reply.substr(value, reply.find('"', value) - value);
}
