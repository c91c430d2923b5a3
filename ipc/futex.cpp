// SPDX-License-Identifier: Apache-2.0
#include "ipc/futex.h"

#include <fcntl.h>
#include <linux/futex.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <limits>

#include "ipc/descriptor.h"
#include "ipc/monotonic_clock.h"

namespace zav_shm {

namespace {

// The kernel's own two forms of a point in time. `struct timespec` is neither for certain: a 32-bit
// program may be built with 64-bit time_t, which the older call would read as garbage.
struct Time_64 {
    std::int64_t seconds;
    std::int64_t nanoseconds;
};
struct Time_32 {
    std::int32_t seconds;
    std::int32_t nanoseconds;
};

long wait_with(long call, const std::uint32_t* word, std::uint32_t expected, const void* deadline,
               std::uint32_t set) {
    return syscall(call, word, FUTEX_WAIT_BITSET, expected, deadline, nullptr, set);
}

#ifdef SYS_futex_time64

// Kernels before 5.1 do not have the call, and sandboxes made for them refuse it.
bool is_missing(int error) { return error == ENOSYS || error == EPERM; }

long wait_until(const std::uint32_t* word, std::uint32_t expected, std::int64_t deadline_ns,
                std::uint32_t set) {
    static std::atomic<bool> has_time_64{true};
    if (has_time_64.load(std::memory_order_relaxed)) {
        const Time_64 deadline{deadline_ns / ns_per_second, deadline_ns % ns_per_second};
        const long result = wait_with(SYS_futex_time64, word, expected, &deadline, set);
        if (result == 0 || !is_missing(errno)) {
            return result;
        }
        has_time_64.store(false, std::memory_order_relaxed);
    }
    constexpr std::int64_t latest = std::numeric_limits<std::int32_t>::max();
    const Time_32 deadline{static_cast<std::int32_t>(std::min(deadline_ns / ns_per_second, latest)),
                           static_cast<std::int32_t>(deadline_ns % ns_per_second)};
    return wait_with(SYS_futex, word, expected, &deadline, set);
}

#else

long wait_until(const std::uint32_t* word, std::uint32_t expected, std::int64_t deadline_ns,
                std::uint32_t set) {
    const Time_64 deadline{deadline_ns / ns_per_second, deadline_ns % ns_per_second};
    return wait_with(SYS_futex, word, expected, &deadline, set);
}

#endif

}  // namespace

Futex_Wait futex_wait(const std::uint32_t* word, std::uint32_t expected, std::int64_t deadline_ns,
                      std::uint32_t set) {
    if (wait_until(word, expected, std::max<std::int64_t>(deadline_ns, 0), set) == 0) {
        return Futex_Wait::look_again;
    }
    switch (errno) {
        case ETIMEDOUT:
            return Futex_Wait::timed_out;
        case EFAULT:
            return Futex_Wait::gone;
        default:
            return Futex_Wait::look_again;
    }
}

void futex_wake(const std::uint32_t* word, std::uint32_t set) {
    if (set == futex_everybody) {
        syscall(SYS_futex, word, FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
    } else {
        syscall(SYS_futex, word, FUTEX_WAKE_BITSET, INT_MAX, nullptr, nullptr, set);
    }
}

// Waking touches no byte of the page, so that a file that is truncated meanwhile does no harm.
void futex_wake_in_file(const std::string& path, std::size_t offset) {
    const Descriptor file(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
    const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    void* const base = mmap(nullptr, page, PROT_READ, MAP_SHARED, file.get(), 0);
    if (base != MAP_FAILED) {
        const void* const word = static_cast<const std::byte*>(base) + offset;
        futex_wake(static_cast<const std::uint32_t*>(word));
        munmap(base, page);
    }
}

}  // namespace zav_shm
