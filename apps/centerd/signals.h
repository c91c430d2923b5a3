// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <csignal>

#include "ipc/descriptor.h"

namespace zav_shm::centerd {

/// Interrupts the relays' waits. By default it is ignored, so a stray one does no harm.
inline constexpr int interrupting_signal = SIGURG;

/// Blocks the signals that end the daemon, and those that others might send it, in this thread and
/// in all that it starts afterwards; installs the handler, which does nothing, of the interrupting
/// one, and one that tells why SIGBUS ends the process. To be called before there are threads.
///
/// SIGTERM, SIGINT and SIGHUP end the daemon. SIGPIPE, SIGUSR1 and SIGUSR2 do nothing, and a file
/// that would be longer than the process's limit is an error and not the end (SIGXFSZ).
void set_up_signals();

/// Keeps the interrupting signal from this thread and those that it starts: it is for the relays.
void block_interrupting_signal();

/// From now on the process has `seconds` left: if it lives longer, for the center's receive thread
/// cannot go on, it says so and ends with 1.
void limit_the_end(unsigned seconds);

/// Takes that limit away: the center has ended, and the process goes on.
void lift_the_limit();

/// Waits for one of the signals that end the daemon, and leaves it to be taken.
bool is_end_wanted_within(std::chrono::milliseconds limit);

/// Readable when the daemon is to end.
Descriptor make_end_descriptor();

}  // namespace zav_shm::centerd
