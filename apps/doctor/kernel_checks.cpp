// SPDX-License-Identifier: Apache-2.0
//
// System calls that the history ring lives by, tried for real.
#include <fcntl.h>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

#include "apps/doctor/checks.h"
#include "ipc/descriptor.h"
#include "ipc/shared_memory_folder.h"

namespace zav_shm::doctor {

namespace {

// The one that takes 64-bit seconds.
#ifdef SYS_futex_time64
constexpr long futex_call = SYS_futex_time64;
constexpr const char* futex_name = "futex_time64";
#else
constexpr long futex_call = SYS_futex;
constexpr const char* futex_name = "futex";
#endif

// Waits for another value than there is, which fails at once.
Finding try_futex() {
    std::uint32_t word = 1;
    const long result = syscall(futex_call, &word, FUTEX_WAIT, 0, nullptr, nullptr, 0);
    if (result == 0 || errno == EAGAIN) {
        return well("futex", futex_name, "is there");
    }
    const std::string seen = std::string("fails: ") + std::strerror(errno);
    if (sizeof(long) == 4 && errno == ENOSYS) {
        return {Severity::warning, "futex", futex_name,
                seen + ": the older call is used, whose clock ends in 2038",
                "take kernel 5.1 or later"};
    }
    return {Severity::error, "futex", futex_name, seen + ": readers cannot wait for frames",
            "let the filter of system calls (SystemCallFilter=, seccomp) allow it"};
}

Finding try_locks() {
    const Descriptor folder(open(shared_memory_folder, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    if (folder.is_open() && fcntl(folder.get(), F_OFD_GETLK, &lock) != 0) {
        return {Severity::error, "ofd_locks", shared_memory_folder,
                std::string("has no locks of open files (F_OFD_GETLK): ") + std::strerror(errno) +
                    ": who lives and who is dead cannot be told",
                "take kernel 3.15 or later with CONFIG_FILE_LOCKING, and let the filter of system "
                "calls allow fcntl"};
    }
    return well("ofd_locks", shared_memory_folder, "has locks of open files");
}

}  // namespace

Findings check_kernel(const Host& /*host*/) { return {try_futex(), try_locks()}; }

}  // namespace zav_shm::doctor
