// SPDX-License-Identifier: Apache-2.0
#include "ipc/file_lock.h"

#include <fcntl.h>

#include <cerrno>

namespace zav_shm {

namespace {

struct flock whole_file(int type) {
    struct flock lock {};
    lock.l_type = static_cast<short>(type);
    lock.l_whence = SEEK_SET;
    return lock;  // from 0, of length 0: to the end, however far that moves
}

}  // namespace

bool take_file_lock(int descriptor) {
    struct flock lock = whole_file(F_WRLCK);
    int result = 0;
    do {
        result = fcntl(descriptor, F_OFD_SETLK, &lock);
    } while (result != 0 && errno == EINTR);
    if (result != 0 && errno == EACCES) {
        errno = EAGAIN;
    }
    return result == 0;
}

void release_file_lock(int descriptor) {
    struct flock lock = whole_file(F_UNLCK);
    fcntl(descriptor, F_OFD_SETLK, &lock);
}

// Asking for a shared lock meets an exclusive one alone; asking for an exclusive one meets both.
File_Lock_State look_at_file_lock(int descriptor) {
    struct flock lock = whole_file(F_RDLCK);
    if (fcntl(descriptor, F_OFD_GETLK, &lock) != 0) {
        return File_Lock_State::unknown;
    }
    if (lock.l_type == F_WRLCK) {
        return File_Lock_State::exclusive;
    }
    lock = whole_file(F_WRLCK);
    if (fcntl(descriptor, F_OFD_GETLK, &lock) != 0) {
        return File_Lock_State::unknown;
    }
    return lock.l_type == F_UNLCK ? File_Lock_State::free : File_Lock_State::shared;
}

}  // namespace zav_shm
