// SPDX-License-Identifier: Apache-2.0
#include "apps/centerd/reply_sweeper.h"

#include <sys/msg.h>

#include <limits>

#include "ipc/zav_msg_q.h"

namespace zav_shm::centerd {

namespace {

// A reply that nobody took for so long is not waited for.
constexpr std::chrono::seconds waiting_max{5};

// No process has such an id.
constexpr long mark_type = std::numeric_limits<long>::max() - 1;

bool is_crowded(const msqid_ds& status) { return 2 * status.__msg_cbytes > status.msg_qbytes; }

// The type of the oldest message of this type, or of all with 0; 0 when there was none.
long take(int queue, long type) {
    Control_Record record{};
    const ssize_t length =
        msgrcv(queue, &record, sizeof record.text, type, IPC_NOWAIT | MSG_NOERROR);
    return length < 0 ? 0 : record.mtype;
}

}  // namespace

std::size_t Reply_Sweeper::step(Clock::time_point now) {
    msqid_ds status{};
    if (msgctl(queues_.reply_id(), IPC_STAT, &status) != 0) {
        return 0;
    }
    if (marked_queue_ != queues_.reply_id()) {
        if (is_crowded(status)) {
            put_mark(now);
        }
        return 0;
    }
    if (now - marked_at_ < waiting_max) {
        return 0;
    }
    const std::size_t taken = is_crowded(status) ? take_what_is_before_the_mark() : 0;
    take(marked_queue_, mark_type);
    marked_queue_ = -1;
    return taken;
}

// A message without bytes fits into a full queue.
void Reply_Sweeper::put_mark(Clock::time_point now) {
    Control_Record record{};
    record.mtype = mark_type;
    msqid_ds status{};
    if (msgsnd(queues_.reply_id(), &record, 0, IPC_NOWAIT) == 0 &&
        msgctl(queues_.reply_id(), IPC_STAT, &status) == 0) {
        marked_queue_ = queues_.reply_id();
        marked_at_ = now;
        marked_count_ = status.msg_qnum;
    }
}

// Counted, too: whoever takes messages of any type may have taken the mark.
std::size_t Reply_Sweeper::take_what_is_before_the_mark() const {
    std::size_t taken = 0;
    for (std::size_t left = marked_count_; left > 0; --left) {
        const long type = take(marked_queue_, 0);
        if (type == 0 || type == mark_type) {
            break;
        }
        ++taken;
    }
    return taken;
}

}  // namespace zav_shm::centerd
