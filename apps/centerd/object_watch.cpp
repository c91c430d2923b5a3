// SPDX-License-Identifier: Apache-2.0
#include "apps/centerd/object_watch.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "ipc/descriptor.h"

namespace zav_shm::centerd {

namespace {

// All names of most configurations. The greatest allowed one is gone through in 16 looks.
constexpr std::size_t names_per_look = 1024;

constexpr int file_flags = O_RDWR | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK;

// 0 or an error number.
int lengthen(int file, std::uint64_t bytes) {
    int error = 0;
    do {
        error = posix_fallocate(file, 0, static_cast<off_t>(bytes));
    } while (error == EINTR);
    return error;
}

}  // namespace

Object_Watch::Object_Watch(const Inventory& inventory) {
    remember(Kind::folder, inventory.segment_folder, 0);
    for (const Shared_File& segment : inventory.segments) {
        remember(Kind::segment, segment.path, segment.bytes);
    }
    for (const Shared_File& semaphore : inventory.semaphores) {
        remember(Kind::semaphore, semaphore.path, semaphore.bytes);
    }
}

void Object_Watch::remember(Kind kind, const std::string& path, std::uint64_t bytes) {
    struct stat found {};  // all 0 for what is gone already, which the first look finds
    lstat(path.c_str(), &found);
    objects_.push_back({kind, path, bytes, found.st_dev, found.st_ino});
}

Object_Watch::Finding Object_Watch::look() {
    Finding found;
    const std::size_t count = std::min(objects_.size(), names_per_look);
    for (std::size_t i = 0; i < count && !found.lost; ++i) {
        look_at(objects_[next_], found);
        next_ = (next_ + 1) % objects_.size();
    }
    return found;
}

void Object_Watch::look_at(const Object& object, Finding& found) {
    static constexpr const char* words[] = {"folder ", "segment ", "semaphore "};
    const std::string title = words[static_cast<int>(object.kind)] + object.path;
    struct stat now {};
    if (lstat(object.path.c_str(), &now) != 0) {
        found.lost =
            title + (errno == ENOENT ? " was removed" : std::string(": ") + std::strerror(errno));
        return;
    }
    if (now.st_dev != object.device || now.st_ino != object.inode) {
        found.lost = title + " was removed or replaced";
        return;
    }
    const auto bytes = static_cast<std::uint64_t>(now.st_size);
    if (object.kind == Kind::folder || bytes >= object.bytes) {
        return;
    }
    if (object.kind == Kind::segment) {
        mend(object, bytes, found);
    } else {
        found.lost = title + " was cut to " + std::to_string(bytes) + " bytes";
    }
}

// The length alone: the pages that were cut off are gone, and new ones hold zeros, which nobody
// takes for a frame that is whole.
void Object_Watch::mend(const Object& object, std::uint64_t left_bytes, Finding& found) {
    const Descriptor file(open(object.path.c_str(), file_flags));
    const int error = file.is_open() ? lengthen(file.get(), object.bytes) : errno;
    if (error != 0 && mending_failed_) {
        return;
    }
    mending_failed_ = error != 0;
    found.mended.push_back(
        "segment " + object.path + " was cut to " + std::to_string(left_bytes) + " bytes; " +
        (error == 0 ? "it has its " + std::to_string(object.bytes) +
                          " again. Whoever touched it meanwhile was killed (SIGBUS)"
                    : "it cannot be lengthened again: " + std::string(std::strerror(error)) +
                          "; whoever touches it is killed (SIGBUS)"));
}

}  // namespace zav_shm::centerd
