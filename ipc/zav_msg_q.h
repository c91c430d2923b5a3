// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <optional>

namespace zav_shm {

/// Sizes of the control protocol. They are fixed: both sides hand exactly these to the queue
/// calls.
inline constexpr int control_text_bytes = 1024;    // what a request or reply may be long
inline constexpr int control_record_bytes = 1028;  // text bytes of a request, and of any receive

/// One message of a control queue as the kernel takes and gives it.
struct Control_Record {
    long mtype;  // 4 bytes on 32-bit ARM, 8 on a 64-bit host, as the kernel demands
    char text[control_record_bytes];
};

}  // namespace zav_shm

/// Holder of one System V message queue.
///
/// Owner    nobody: whoever comes first creates the queue, and nobody removes it. Destroying
///          the holder leaves it in place.
/// Threads  the kernel serialises; a holder itself is opened by one thread.
/// Errors   a queue that could not be had has the id -1, and every use of it fails.
class ZAV_MSG_Q {
public:
    /// Opens, or creates without any permission bits, the queue of this project number on /tmp.
    /// Only its low 8 bits count, and the directory itself does: a process with a /tmp of its own
    /// gets other queues.
    ///
    /// @return false when there is none, with the id -1 and errno.
    bool open(int project);

    /// Opens the queue of this project number and creates none.
    ///
    /// @return false with the id -1 and errno when there is none (ENOENT), or this process may
    ///         not write to and read from it (EACCES).
    bool open_existing(int project);

    /// Takes off and discards as many messages as the queue holds at this moment. Never waits:
    /// a message that another process takes meanwhile is not waited for.
    ///
    /// @return the length of the last one, 0 when there was none, or -1 with errno when the queue
    ///         cannot be asked.
    int clean();

    /// Takes off and discards the oldest message, however long it is; never waits.
    ///
    /// @return false when there is none.
    bool discard_oldest();

    /// Takes off and discards all messages of one type; never waits.
    ///
    /// @return how many.
    int discard_all(long type);

    /// True when a message of this type is waiting to be taken.
    bool holds(long type) const;

    /// For the only one who takes messages: which process sent the one that was taken last, by the
    /// id under which this process knows it; 0 when it is in a PID namespace that is not visible
    /// from here. Kernels before 4.17 tell the id that the sender has for itself.
    ///
    /// @return nothing when that cannot be told: others are waiting, and only the sender of the
    ///         newest is known.
    std::optional<pid_t> last_sender() const;

    int id = -1;

private:
    ssize_t take(long type) const;
};
