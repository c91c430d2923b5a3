// SPDX-License-Identifier: Apache-2.0
#include "ipc/zav_sem.h"

#include <fcntl.h>

#include <cerrno>
#include <cstring>

#include "ipc/deadline.h"
#include "ipc/name_field.h"
#include "ipc/standard_output.h"
#include "ipc/test_point.h"

namespace {

constexpr unsigned owner_only = 0600;

// More pending posts than any peer that keeps the protocol can leave (it leaves one at most).
constexpr int drain_limit = 4096;

}  // namespace

SEM_CTRL::SEM_CTRL(const char* new_name, bool create) {
    const bool named = store_name(new_name);
    if (!create) {
        if (named) {
            sem = sem_open(name, 0);
        }
        if (!is_open()) {
            zav_shm::standard_output() << "Open Sem Failed\n";
        }
        return;
    }
    if (named) {
        sem_unlink(name);
        sem = sem_open(name, O_CREAT | O_EXCL | O_RDWR, owner_only, 0);
    }
    if (!is_open()) {
        zav_shm::standard_output() << "Sem is SEM_FAILED, Open it " << name << '\n';
        if (named) {
            sem = sem_open(name, 0);
        }
    }
}

SEM_CTRL::SEM_CTRL(const char* new_name, int oflag, unsigned mode) {
    if (!store_name(new_name)) {
        return;
    }
    sem = sem_open(name, oflag, mode, 0);
    if (!is_open()) {
        sem = sem_open(name, 0);
    }
}

SEM_CTRL::~SEM_CTRL() {
    if (is_open()) {
        sem_close(sem);
    }
}

int SEM_CTRL::wait(long ms) {
    if (!is_open()) {
        errno = EINVAL;
        return -1;
    }
    const timespec deadline = zav_shm::wall_clock_deadline(ms);
    return sem_timedwait(sem, &deadline);
}

int SEM_CTRL::wait_steady(long ms) {
    if (!is_open()) {
        errno = EINVAL;
        return -1;
    }
    const timespec deadline = zav_shm::steady_clock_deadline(ms);
    int result = 0;
    do {
        result = sem_clockwait(sem, CLOCK_MONOTONIC, &deadline);
    } while (result != 0 && errno == EINTR);
    return result;
}

int SEM_CTRL::wait_forever() {
    if (!is_open()) {
        errno = EINVAL;
        return -1;
    }
    return sem_wait(sem);
}

int SEM_CTRL::try_wait() {
    if (!is_open()) {
        errno = EINVAL;
        return -1;
    }
    return sem_trywait(sem);
}

void SEM_CTRL::post_if_zero() {
    zav_shm::test_point("before_post", name);
    if (value() == 0) {
        sem_post(sem);
    }
    zav_shm::test_point("after_post", name);
}

// Drained with sem_trywait, not sem_init: initialising under a blocked waiter loses glibc's
// waiter count, and no later post would wake it again. A value that does not reach 0 belongs to
// a peer that posts without end or counted up to millions; the caller holds the relay's lock,
// so such a value is overwritten. Nobody sleeps on a semaphore whose value is above 0.
void SEM_CTRL::drain() {
    for (int taken = 0; taken < drain_limit; ++taken) {
        if (try_wait() != 0 && errno != EINTR) {
            return;
        }
    }
    sem_init(sem, 1, 0);
}

int SEM_CTRL::value() const {
    int current = -1;
    if (!is_open()) {
        errno = EINVAL;
        return -1;
    }
    sem_getvalue(sem, &current);
    return current;
}

bool SEM_CTRL::store_name(const char* new_name) {
    return zav_shm::store_name_field(name, new_name);
}

std::ostream& operator<<(std::ostream& out, const SEM_CTRL& semaphore) {
    return out << semaphore.name << ' ' << semaphore.value();
}
