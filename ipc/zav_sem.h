// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <semaphore.h>

#include <iosfwd>

/// One named POSIX semaphore of a channel.
///
/// Owner    the center creates the name (and removes an older one first); everybody else
///          only opens it. Destruction closes, and never unlinks.
/// Threads  one poster and one waiter, usually in different processes. No lock.
/// Errors   a handle that could not be opened has `sem` equal to SEM_FAILED. Every operation
///          on it does nothing and fails with errno EINVAL; nothing throws.
/// Crash    a killed process leaves the value as it was; the center's next start replaces the
///          semaphore, and handles opened before then are orphans.
class SEM_CTRL {
public:
    /// `create` true: removes an older semaphore of that name and creates a new one with the
    /// value 0 and mode 0600; if another process was faster, opens that one and says so.
    /// `create` false: opens an existing semaphore, and prints "Open Sem Failed" if there is none.
    ///
    /// @param name  with a leading slash, 255 characters at most; a longer or null name fails
    ///              with ENAMETOOLONG or EINVAL.
    SEM_CTRL(const char* name, bool create);

    /// sem_open with these flags, mode and the value 0; if that fails, opens an existing one.
    SEM_CTRL(const char* name, int oflag, unsigned mode);

    ~SEM_CTRL();

    SEM_CTRL(const SEM_CTRL&) = delete;
    SEM_CTRL& operator=(const SEM_CTRL&) = delete;

    /// Takes the semaphore, waiting up to `ms` milliseconds of wall-clock time. `ms` of 0 or
    /// less does not wait.
    ///
    /// @return 0 when taken; -1 otherwise, with errno ETIMEDOUT, EINTR or EINVAL.
    int wait(long ms);

    /// As wait(), by the steady clock and to its end: neither a step of the wall clock nor a signal
    /// changes this wait. For the safe layer: a wait that a signal ends early looks like a timeout.
    ///
    /// @return 0 when taken; -1 otherwise, with errno ETIMEDOUT or EINVAL.
    int wait_steady(long ms);

    /// Takes the semaphore, waiting without limit.
    ///
    /// @return 0 when taken; -1 otherwise, with errno EINTR or EINVAL.
    int wait_forever();

    /// Takes the semaphore if its value is above 0; never waits.
    ///
    /// @return 0 when taken; -1 otherwise, with errno EAGAIN or EINVAL.
    int try_wait();

    /// Posts only when the value is 0, so that the semaphore works as a flag that never
    /// counts above 1: a repeated post before the peer has waited is absorbed.
    void post_if_zero();

    /// Brings the value to 0 without disturbing a thread that is blocked in a wait: the next
    /// post wakes it.
    void drain();

    /// The current value; -1 with errno EINVAL on a failed handle.
    int value() const;

    bool is_open() const { return sem != SEM_FAILED; }

    sem_t* sem = SEM_FAILED;
    char name[256] = {};

private:
    bool store_name(const char* new_name);
};

/// Writes the name, one blank and the current value, without a line end.
std::ostream& operator<<(std::ostream& out, const SEM_CTRL& semaphore);
