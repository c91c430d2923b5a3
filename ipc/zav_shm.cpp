// SPDX-License-Identifier: Apache-2.0
#include "ipc/zav_shm.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string_view>

#include "ipc/name_field.h"
#include "ipc/shared_memory_folder.h"

namespace {

constexpr unsigned size_unknown = 0xFFFFFFFFU;

// What shm_open adds to the caller's flags by itself. O_NONBLOCK keeps a FIFO of that name from
// blocking the open for ever.
constexpr int protective_flags = O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK;

bool names_a_folder(std::string_view name) { return name.find('/') != std::string_view::npos; }

bool climbs(std::string_view name) {
    while (true) {
        const std::size_t slash = name.find('/');
        if (name.substr(0, slash) == "..") {
            return true;
        }
        if (slash == std::string_view::npos) {
            return false;
        }
        name.remove_prefix(slash + 1);
    }
}

// shm_open refuses a name with an inner slash (EINVAL), so a segment in a folder is opened here.
int open_segment(const char* name, int oflag, unsigned mode) {
    const std::string_view rest = zav_shm::without_leading_slashes(name);
    if (!names_a_folder(rest)) {
        return shm_open(name, oflag, mode);
    }
    if (climbs(rest)) {
        errno = EINVAL;
        return -1;
    }
    return open(zav_shm::shared_memory_path(rest).c_str(), oflag | protective_flags, mode);
}

int unlink_segment(const char* name) {
    const std::string_view rest = zav_shm::without_leading_slashes(name);
    if (!names_a_folder(rest)) {
        return shm_unlink(name);
    }
    if (climbs(rest)) {
        errno = EINVAL;
        return -1;
    }
    return unlink(zav_shm::shared_memory_path(rest).c_str());
}

// 0 or an error number, as posix_fallocate.
int reserve_pages(int descriptor, std::uint32_t size) {
    int error = 0;
    do {
        error = size == 0 ? 0 : posix_fallocate(descriptor, 0, static_cast<off_t>(size));
    } while (error == EINTR);
    return error == EOPNOTSUPP ? 0 : error;
}

// Made at its first use and never destroyed: publishers and subscribers of static storage open
// segments before the objects of this file are made, and after they are gone.
std::string& stored_root_path() {
    static auto* const path = std::make_unique<std::string>().release();
    return *path;
}

}  // namespace

std::string& IPC_SHMEMORY::root_path = stored_root_path();

IPC_SHMEMORY::IPC_SHMEMORY(const char* new_name, int oflag, unsigned mode, int new_size) {
    if (new_size < 0) {
        std::printf("Shm open %s fail %s\n", new_name == nullptr ? "" : new_name,
                    std::strerror(EINVAL));
        return;
    }
    size = static_cast<std::uint32_t>(new_size);
    if (zav_shm_create(new_name, oflag, mode)) {
        zav_shm_map_rw();
    }
}

IPC_SHMEMORY::IPC_SHMEMORY(const char* new_name, int oflag) {
    size = get_shm_path_size(new_name);
    if (!zav_shm_open(new_name, oflag)) {
        return;
    }
    if (oflag == O_RDONLY) {
        zav_shm_map_readonly();
    } else {
        zav_shm_map_rw();
    }
}

// Closing clears the name, so that the unlink behind it is given an empty one and removes
// nothing. A destructor that really unlinked would delete every slot as soon as it is made:
// the center creates each through a handle that it destroys at once.
IPC_SHMEMORY::~IPC_SHMEMORY() {
    zav_shm_close();
    zav_shm_destroy();
    close_descriptor();
}

bool IPC_SHMEMORY::zav_shm_create(const char* new_name, int oflag, unsigned mode) {
    if (!open_descriptor(new_name, oflag, mode)) {
        std::printf("Shm open %s fail %s\n", new_name == nullptr ? "" : new_name,
                    std::strerror(errno));
        return false;
    }
    return set_length();
}

bool IPC_SHMEMORY::zav_shm_open(const char* new_name, int oflag) {
    return open_descriptor(new_name, oflag, 0);
}

bool IPC_SHMEMORY::zav_shm_map_rw() {
    if (sid < 0) {
        return false;
    }
    return map(PROT_READ | PROT_WRITE, "Map Fail...");
}

bool IPC_SHMEMORY::zav_shm_map_readonly() {
    if (sid < 0) {
        std::printf("In zav_shm_map_readonly sid %d is less than 0\n", sid);
        return false;
    }
    return map(PROT_READ, "zav_shm_map_readonly mmap fail ");
}

int IPC_SHMEMORY::zav_shm_close() {
    zav_shm::clear_name_field(name);
    if (mem_addr == nullptr || size == 0) {
        return 0;
    }
    if (munmap(mem_addr, size) != 0) {  // also for MAP_FAILED, which no mapping has
        std::printf("Munmap %s fail\n", name);
        return -1;
    }
    size = 0;
    mem_addr = nullptr;
    return 0;
}

int IPC_SHMEMORY::zav_shm_destroy() { return unlink_segment(name); }

std::string IPC_SHMEMORY::get_shm_path() const {
    return {name, strnlen(name, zav_shm::name_field_bytes)};
}

unsigned IPC_SHMEMORY::get_shm_path_size(const char* name) {
    if (name == nullptr) {
        return size_unknown;
    }
    const std::string path = stored_root_path() + "/" + name;
    const int descriptor = open(path.c_str(), O_RDONLY | protective_flags);
    if (descriptor == 0) {  // standard input was closed; kept as a failure on purpose
        return size_unknown;
    }
    struct stat status {};
    const bool known = fstat(descriptor, &status) == 0;
    if (descriptor > 0) {
        close(descriptor);
    }
    return known ? static_cast<unsigned>(status.st_size) : size_unknown;
}

int IPC_SHMEMORY::shm_change_path(const char* path) {
    if (path == nullptr) {
        zav_shm_close();
        return closed;
    }
    const std::string current = get_shm_path();
    std::printf("Change SHM from %s to %s\n", current.c_str(), path);
    if (current == path) {
        return unchanged;
    }
    zav_shm_close();
    if (*path == '\0') {
        return closed;
    }
    size = get_shm_path_size(path);
    if (!zav_shm_open(path, O_RDONLY)) {
        return closed;
    }
    zav_shm_map_readonly();
    return switched;
}

void IPC_SHMEMORY::set_root_path(const std::string& path) { stored_root_path() = path; }

bool IPC_SHMEMORY::operator==(const IPC_SHMEMORY& other) const {
    return std::strncmp(name, other.name, zav_shm::name_field_bytes) == 0;
}

bool IPC_SHMEMORY::is_mapped() const { return mem_addr != nullptr && mem_addr != MAP_FAILED; }

std::size_t IPC_SHMEMORY::mapped_bytes() const {
    static const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    return is_mapped() ? (std::size_t{size} + page - 1) / page * page : 0;
}

bool IPC_SHMEMORY::open_descriptor(const char* new_name, int oflag, unsigned mode) {
    close_descriptor();
    sid = -1;
    if (!zav_shm::store_name_field(name, new_name)) {
        return false;
    }
    sid = open_segment(name, oflag, mode);
    descriptor_open_ = sid >= 0;
    return descriptor_open_;
}

bool IPC_SHMEMORY::set_length() {
    struct stat former {};
    if (fstat(sid, &former) != 0 || ftruncate(sid, static_cast<off_t>(size)) != 0) {
        return false;
    }
    const int error = reserve_pages(sid, size);
    if (error == 0) {
        return true;
    }
    const bool restored = ftruncate(sid, former.st_size) == 0;
    errno = restored ? error : EIO;
    return false;
}

bool IPC_SHMEMORY::map(int protection, const char* failure) {
    unmap_former();
    mem_addr = MAP_FAILED;
    struct stat status {};
    if (!descriptor_open_) {
        errno = EBADF;
    } else if (fstat(sid, &status) == 0) {
        // A longer mapping than the segment would succeed on a 64-bit host and raise SIGBUS
        // when it is touched; an unknown size (0xFFFFFFFF) must fail there, too.
        if (static_cast<std::uint64_t>(status.st_size) < size) {
            errno = ENOMEM;
        } else {
            mem_addr = mmap(nullptr, size, protection, MAP_SHARED, sid, 0);
        }
    }
    if (mem_addr == MAP_FAILED) {
        std::printf("%s%s\n", failure, std::strerror(errno));
    }
    close_descriptor();
    return mem_addr != MAP_FAILED;
}

void IPC_SHMEMORY::unmap_former() {
    if (is_mapped() && size != 0) {
        munmap(mem_addr, size);
    }
}

void IPC_SHMEMORY::close_descriptor() {
    if (descriptor_open_) {
        close(sid);
        descriptor_open_ = false;
    }
}
