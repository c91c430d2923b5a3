// SPDX-License-Identifier: Apache-2.0
#include "ipc/random_epoch.h"

#include <sys/random.h>
#include <unistd.h>

#include "ipc/monotonic_clock.h"

namespace zav_shm {

// A system that has not gathered randomness yet, early at boot, must not hold a camera up: there
// the time and the process have to do.
std::uint64_t random_epoch() {
    std::uint64_t epoch = 0;
    if (getrandom(&epoch, sizeof epoch, GRND_NONBLOCK) != sizeof epoch) {
        epoch = static_cast<std::uint64_t>(monotonic_ns()) ^
                (static_cast<std::uint64_t>(getpid()) << 44U);
    }
    return epoch != 0 ? epoch : 1;
}

}  // namespace zav_shm
