// SPDX-License-Identifier: Apache-2.0
//
// queue_maker PROJECT MODE OWNER MESSAGES
//
// Makes the queue of this project number on /tmp, or takes the one that is there; gives it mode
// (octal) and owner; and puts messages of 1028 bytes in, as many as fit.
#include <sys/ipc.h>
#include <sys/msg.h>

#include <cstdlib>

#include "ipc/zav_msg_q.h"

int main(int argc, char** argv) {
    if (argc != 5) {
        return 2;
    }
    const auto number = [argv](int index, int base) {
        return std::strtol(argv[index], nullptr, base);
    };
    const int id = msgget(ftok("/tmp", static_cast<int>(number(1, 10))), IPC_CREAT | 0600);
    zav_shm::Control_Record record{};
    record.mtype = 1'000'000;
    for (long i = 0; i < number(4, 10); ++i) {
        msgsnd(id, &record, zav_shm::control_record_bytes, IPC_NOWAIT);
    }
    msqid_ds status{};
    if (msgctl(id, IPC_STAT, &status) != 0) {
        return 1;
    }
    status.msg_perm.mode = static_cast<unsigned short>(number(2, 8));
    status.msg_perm.uid = static_cast<uid_t>(number(3, 10));
    return msgctl(id, IPC_SET, &status) == 0 ? 0 : 1;
}
