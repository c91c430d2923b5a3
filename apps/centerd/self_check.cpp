// SPDX-License-Identifier: Apache-2.0
#include "apps/centerd/self_check.h"

#include <sys/msg.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <thread>
#include <utility>

#include "control/control_protocol.h"
#include "ipc/zav_msg_q.h"

namespace zav_shm::centerd {

namespace {

using Clock = std::chrono::steady_clock;

// A question is answered with less than this.
constexpr msglen_t answer_bytes_max = 256;

constexpr std::chrono::milliseconds answer_wait{20};
constexpr std::chrono::milliseconds look_again{1};

// About a type that nobody has: the refusal is the shortest answer that the center gives.
std::string question_of(pid_t pid) {
    Json::Value question;
    question[control::field::command] = control::command::query_shm;
    question[control::field::type] = "";
    question[control::field::name] = "";
    question[control::field::pid] = pid;
    return control::written_on_one_line(question);
}

bool look_at(int queue, msqid_ds& status) { return msgctl(queue, IPC_STAT, &status) == 0; }

// Leaves the room of one more record to the clients.
bool has_room(const msqid_ds& status, msglen_t bytes) {
    return status.__msg_cbytes + bytes + control_record_bytes <= status.msg_qbytes;
}

}  // namespace

Self_Check::Self_Check(const Control_Queues& queues)
    : queues_(queues), pid_(getpid()), question_(question_of(pid_)) {
    has_taken_requests();  // what was before does not count
}

// An answer can get lost: the reply queue was removed, or full at the wrong moment. Once the
// request queue is empty the question has been taken, and asking again cannot pile questions up.
bool Self_Check::step() {
    const bool serves_others = has_taken_requests();
    if (asked_ && take_answers()) {
        asked_ = false;
        return true;
    }
    if ((asked_ && !is_question_taken()) || !may_ask()) {
        return serves_others;
    }
    asked_ = ask();
    const bool answered = asked_ && answer_comes();
    asked_ = asked_ && !answered;
    return answered;
}

bool Self_Check::answers_within(std::chrono::milliseconds limit) {
    const auto end = Clock::now() + limit;
    while (!step()) {
        if (Clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(look_again);
    }
    return true;
}

bool Self_Check::take_answers() const {
    Control_Record record{};
    bool taken = false;
    while (msgrcv(queues_.reply_id(), &record, sizeof record.text, pid_,
                  IPC_NOWAIT | MSG_NOERROR) >= 0) {
        taken = true;
    }
    return taken;
}

bool Self_Check::answer_comes() const {
    const auto end = Clock::now() + answer_wait;
    while (!take_answers()) {
        if (Clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(look_again);
    }
    return true;
}

bool Self_Check::ask() const {
    Control_Record record{};
    record.mtype = control::request_type;
    std::memcpy(record.text, question_.data(), question_.size());
    return msgsnd(queues_.request_id(), &record, control_record_bytes, IPC_NOWAIT) == 0;
}

bool Self_Check::may_ask() const {
    msqid_ds requests{};
    msqid_ds replies{};
    return look_at(queues_.request_id(), requests) && look_at(queues_.reply_id(), replies) &&
           has_room(requests, control_record_bytes) && has_room(replies, answer_bytes_max);
}

bool Self_Check::is_question_taken() const {
    msqid_ds requests{};
    return look_at(queues_.request_id(), requests) && requests.msg_qnum == 0;
}

// The kernel keeps the second in which a message was taken, and by whom: the process, or, when it
// was waiting for the message already, the thread.
bool Self_Check::has_taken_requests() {
    msqid_ds requests{};
    if (!look_at(queues_.request_id(), requests) || tgkill(pid_, requests.msg_lrpid, 0) != 0) {
        return false;
    }
    return std::exchange(taken_at_, requests.msg_rtime) != requests.msg_rtime;
}

}  // namespace zav_shm::centerd
