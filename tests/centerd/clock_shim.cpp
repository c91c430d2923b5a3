// SPDX-License-Identifier: Apache-2.0
//
// Loaded before a daemon: shows it a wall clock that can be set, without touching the machine's.
//
// The file that CLOCK_SHIM_AHEAD names holds by how many seconds its clock is ahead. The FIFO that
// CLOCK_SHIM_STEPS names stands for its timers of the wall clock: they are readable when a byte was
// written to it, and reading them fails with ECANCELED, as the kernel's do after a step.
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/syscall.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <ctime>

namespace {

// The calls that take this program's timespec; 32-bit kernels have others for 32-bit seconds.
#ifdef SYS_clock_gettime64
static_assert(sizeof(time_t) == 8);
constexpr long gettime_call = SYS_clock_gettime64;
constexpr long settime_call = SYS_timerfd_settime64;
#else
constexpr long gettime_call = SYS_clock_gettime;
constexpr long settime_call = SYS_timerfd_settime;
#endif

std::atomic<int> shown_timer{-1};

// Not by read(), which is shown otherwise below.
long seconds_ahead() {
    const char* const path = std::getenv("CLOCK_SHIM_AHEAD");
    const int file = path == nullptr ? -1 : open(path, O_RDONLY | O_CLOEXEC);
    char text[32] = {};
    if (file >= 0) {
        syscall(SYS_read, file, text, sizeof text - 1);
        close(file);
    }
    return std::strtol(text, nullptr, 10);
}

}  // namespace

extern "C" {

int clock_gettime(clockid_t clock, timespec* now) noexcept {
    const int result = static_cast<int>(syscall(gettime_call, clock, now));
    if (result == 0 && clock == CLOCK_REALTIME) {
        const int error = errno;
        now->tv_sec += seconds_ahead();
        errno = error;
    }
    return result;
}

int timerfd_create(int clock, int flags) noexcept {
    if (clock != CLOCK_REALTIME) {
        return static_cast<int>(syscall(SYS_timerfd_create, clock, flags));
    }
    shown_timer = open(std::getenv("CLOCK_SHIM_STEPS"), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    return shown_timer;
}

int timerfd_settime(int timer, int flags, const itimerspec* expiry, itimerspec* former) noexcept {
    if (timer != shown_timer) {
        return static_cast<int>(syscall(settime_call, timer, flags, expiry, former));
    }
    return (flags & TFD_TIMER_CANCEL_ON_SET) != 0 ? 0 : -1;
}

ssize_t read(int file, void* buffer, std::size_t size) {
    if (file != shown_timer) {
        return syscall(SYS_read, file, buffer, size);
    }
    char byte = 0;
    if (syscall(SYS_read, file, &byte, 1) != 1) {
        return -1;
    }
    errno = ECANCELED;
    return -1;
}
}
