// SPDX-License-Identifier: Apache-2.0
#include "bench/private_namespaces.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

namespace zav_shm::bench {

namespace {

constexpr int wanted_namespaces = CLONE_NEWIPC | CLONE_NEWNS;

bool failed(const char* what) {
    std::fprintf(stderr,
                 "%s: %s\nThis program runs in IPC and mount namespaces of its own only. Run it as "
                 "root, or allow user namespaces.\n",
                 what, std::strerror(errno));
    return false;
}

bool write_file(const char* path, const std::string& text) {
    const int descriptor = open(path, O_WRONLY | O_CLOEXEC);
    if (descriptor < 0) {
        return false;
    }
    const bool written =
        write(descriptor, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    const int error = errno;
    close(descriptor);
    errno = error;
    return written;
}

// Inside it this user is root, which is what a mount needs.
bool unshare_with_user_namespace() {
    const std::string user = "0 " + std::to_string(geteuid()) + " 1";
    const std::string group = "0 " + std::to_string(getegid()) + " 1";
    if (unshare(CLONE_NEWUSER | wanted_namespaces) != 0) {
        return failed("unshare of a user namespace");
    }
    const bool mapped = write_file("/proc/self/setgroups", "deny") &&
                        write_file("/proc/self/uid_map", user) &&
                        write_file("/proc/self/gid_map", group);
    return mapped || failed("mapping the user into the user namespace");
}

bool unshare_namespaces() {
    if (unshare(wanted_namespaces) == 0) {
        return true;
    }
    return errno == EPERM ? unshare_with_user_namespace() : failed("unshare");
}

}  // namespace

bool enter_private_namespaces() {
    if (!unshare_namespaces()) {
        return false;
    }
    // Without this the mount below would be seen outside, too. In a chroot the root is no mount
    // point; then it is enough that /dev/shm is one.
    if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 &&
        mount("none", "/dev/shm", nullptr, MS_PRIVATE, nullptr) != 0) {
        return failed("making the mounts private");
    }
    if (mount("tmpfs", "/dev/shm", "tmpfs", MS_NOSUID | MS_NODEV, "mode=1777") != 0) {
        return failed("mounting a tmpfs on /dev/shm");
    }
    return true;
}

}  // namespace zav_shm::bench
