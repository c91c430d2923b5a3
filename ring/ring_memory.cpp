// SPDX-License-Identifier: Apache-2.0
#include "ring/ring_memory.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstring>
#include <limits>

#include "ipc/file_lock.h"
#include "ipc/memory_fence.h"
#include "ipc/test_point.h"
#include "ipc/unix_group.h"
#include "ring/steady_word.h"

namespace zav_shm {

namespace {

constexpr std::uint64_t data_bytes_max = std::numeric_limits<std::uint32_t>::max() & ~63U;
constexpr std::uint32_t bytes_per_record = 1024;  // by which the index is sized
constexpr std::uint32_t records_min = 64;
constexpr std::uint32_t records_max = 65536;

constexpr std::uint64_t aligned(std::uint64_t bytes, std::uint64_t to) {
    return (bytes + to - 1) / to * to;
}

std::uint32_t index_count_for(const Ring_Size& size) {
    const std::uint32_t records =
        size.records != 0
            ? size.records
            : std::clamp(size.history_bytes / bytes_per_record, records_min, records_max);
    return std::max(std::bit_ceil(records), ring_index_min);
}

std::uint64_t data_bytes_for(const Ring_Size& size) {
    return aligned(size.history_bytes, ring_record_alignment) +
           aligned(size.record_max, ring_record_alignment);
}

std::uint64_t data_offset_for(std::uint32_t index_count) {
    return aligned(ring_header_bytes + std::uint64_t{index_count} * sizeof(Ring_Entry),
                   ring_header_bytes);
}

// What a header may say without leading a reader out of the file.
bool is_sound(const Ring_Facts& facts, std::uint64_t file_bytes) {
    return facts.epoch != 0 && std::has_single_bit(facts.index_count) &&
           facts.index_count >= ring_index_min && facts.index_count <= ring_index_max &&
           facts.data_offset >= data_offset_for(facts.index_count) &&
           facts.data_offset % ring_record_alignment == 0 && facts.record_max <= facts.data_bytes &&
           std::uint64_t{facts.data_offset} + facts.data_bytes <= file_bytes;
}

Ring_Problem problem_of(const std::string& path, const char* what, int error) {
    const std::string text = std::string(what) + " " + path + ": " + std::strerror(error);
    switch (error) {
        case ENOENT:
        case ENOTDIR:
            return {Ring_Problem::Kind::absent, "there is no " + path, 0};
        case EACCES:
        case EPERM:
            return {Ring_Problem::Kind::forbidden, text, 0};
        case ENOSPC:
        case ENOMEM:
        case EDQUOT:
            return {Ring_Problem::Kind::no_room, text, 0};
        case ELOOP:
            return {Ring_Problem::Kind::unreadable, path + " is a symbolic link, no ring", 0};
        default:
            return {Ring_Problem::Kind::system, text, 0};
    }
}

Ring_Problem no_room(const std::string& path, std::uint64_t bytes) {
    struct statvfs found {};
    std::string text = "no room for " + path + ": it takes " + std::to_string(bytes) + " bytes";
    if (statvfs(ring_folder(path).c_str(), &found) == 0 && found.f_blocks != 0) {
        text += ", " + std::to_string(std::uint64_t{found.f_bavail} * found.f_frsize) +
                " are available";
    }
    return {Ring_Problem::Kind::no_room, text, 0};
}

Ring_Problem unreadable(const std::string& path, const std::string& why) {
    return {Ring_Problem::Kind::unreadable, path + " is no ring that can be read: " + why, 0};
}

// Only somebody who is in a group can give files to it.
Ring_Problem not_of_group(const std::string& path, gid_t group) {
    const std::string name = group_title(group);
    const std::string user = user_title(geteuid());
    return {Ring_Problem::Kind::forbidden,
            path + " is for readers of group " + name + ", and the user of this process, " + user +
                ", is not in it: add it (usermod -aG " + name + " " + user + ") and start it anew",
            0};
}

// All pages at once: a full file system shows here, and not as SIGBUS in whoever touches a page. In
// pieces, since older kernels end the call at a signal and undo what it has done: beside a
// timer of a millisecond a large piece would never come to an end.
int reserve(int descriptor, std::uint64_t bytes) {
    constexpr std::uint64_t piece = 256 << 10U;
    int error = 0;
    for (std::uint64_t done = 0; done < bytes && error == 0; done += piece) {
        do {
            error = posix_fallocate(descriptor, static_cast<off_t>(done),
                                    static_cast<off_t>(std::min(piece, bytes - done)));
        } while (error == EINTR);
    }
    return error;
}

bool read_at(int descriptor, std::uint64_t offset, std::span<std::byte> into) {
    while (!into.empty()) {
        const ssize_t got = pread(descriptor, into.data(), into.size(), static_cast<off_t>(offset));
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            return false;
        }
        offset += static_cast<std::uint64_t>(got);
        into = into.subspan(static_cast<std::size_t>(got));
    }
    return true;
}

// The one place that reads what the writer may be writing. ThreadSanitizer, which sees writer and
// reader of private memory share it, is not to look at it: what it would report is what `tail`
// finds.
#ifdef __SANITIZE_THREAD__
__attribute__((no_sanitize("thread"))) void copy_racing(std::byte* to, const std::byte* from,
                                                        std::size_t bytes) {
    const volatile std::byte* source = from;
    for (std::size_t i = 0; i < bytes; ++i) {
        to[i] = source[i];
    }
}
#else
void copy_racing(std::byte* to, const std::byte* from, std::size_t bytes) {
    std::memcpy(to, from, bytes);
}
#endif

}  // namespace

std::string ring_folder(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : path.substr(0, std::max<std::size_t>(slash, 1));
}

bool is_ring_written(const std::string& path) {
    Ring_Problem problem;
    const auto ring = Ring_Memory::open(path, Ring_Memory::Reading::copied, problem);
    return ring && ring->has_writer();
}

std::optional<std::uint64_t> Ring_Size::file_bytes(std::string* reason) const {
    const std::uint64_t bytes = data_bytes_for(*this);
    std::string text;
    if (records > ring_index_max) {
        text = std::to_string(records) + " records; the limit is " + std::to_string(ring_index_max);
    } else if (bytes > data_bytes_max || bytes == 0) {
        text = std::to_string(bytes) + " bytes of records; the limits are 1 and " +
               std::to_string(data_bytes_max);
    }
    if (!text.empty()) {
        if (reason != nullptr) {
            *reason = text;
        }
        return std::nullopt;
    }
    return data_offset_for(index_count_for(*this)) + bytes;
}

std::shared_ptr<Ring_Memory> Ring_Memory::make(const std::string& path, const Ring_Size& size,
                                               const Ring_Facts& facts, mode_t mode,
                                               std::optional<gid_t> group, Ring_Problem& problem) {
    std::string reason;
    const auto bytes = size.file_bytes(&reason);
    if (!bytes) {
        problem = {Ring_Problem::Kind::system, path + ": " + reason, 0};
        return nullptr;
    }
    const std::string fresh = path + ".new";
    unlink(fresh.c_str());                               // what a writer left that was killed here
    std::shared_ptr<Ring_Memory> ring(new Ring_Memory);  // its constructor is private
    ring->file_ =
        Descriptor(::open(fresh.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!ring->file_.is_open()) {
        problem = problem_of(fresh, "cannot make", errno);
        return nullptr;
    }
    ring->facts_.index_count = index_count_for(size);
    ring->facts_.data_bytes = static_cast<std::uint32_t>(data_bytes_for(size));
    ring->facts_.record_max = size.record_max;
    ring->file_bytes_ = *bytes;
    const int error = reserve(ring->file_.get(), *bytes);
    struct stat status {};
    if (error == ENOSPC) {
        problem = no_room(path, *bytes);
    } else if (error != 0) {
        problem = problem_of(fresh, "cannot reserve", error);
    } else if (!ring->map(*bytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_POPULATE)) {
        problem = problem_of(fresh, "cannot map", errno);
    } else if (!take_file_lock(ring->file_.get())) {
        // Before anybody else may open it: a reader could lock it first.
        problem = problem_of(fresh, "cannot lock", errno);
    } else if (group && fchown(ring->file_.get(), static_cast<uid_t>(-1), *group) != 0) {
        problem = errno == EPERM ? not_of_group(path, *group)
                                 : problem_of(fresh, "cannot give its group to", errno);
    } else if (fchmod(ring->file_.get(), mode) != 0 || fstat(ring->file_.get(), &status) != 0) {
        problem = problem_of(fresh, "cannot give its mode to", errno);
    } else {
        ring->begin(facts);
        test_point("ring", "made");
        if (rename(fresh.c_str(), path.c_str()) == 0) {
            ring->inode_ = status.st_ino;
            ring->is_writers_ = true;
            test_point("ring", "named");
            return ring;
        }
        problem = problem_of(path, "cannot replace", errno);
    }
    unlink(fresh.c_str());
    return nullptr;
}

std::shared_ptr<Ring_Memory> Ring_Memory::make_private(const Ring_Size& size,
                                                       const Ring_Facts& facts,
                                                       Ring_Problem& problem) {
    std::string reason;
    const auto bytes = size.file_bytes(&reason);
    if (!bytes) {
        problem = {Ring_Problem::Kind::system, "a private ring: " + reason, 0};
        return nullptr;
    }
    std::shared_ptr<Ring_Memory> ring(new Ring_Memory);
    ring->facts_.index_count = index_count_for(size);
    ring->facts_.data_bytes = static_cast<std::uint32_t>(data_bytes_for(size));
    ring->facts_.record_max = size.record_max;
    ring->file_bytes_ = *bytes;
    if (!ring->map(*bytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS)) {
        problem = problem_of("memory", "no private", errno);
        return nullptr;
    }
    ring->begin(facts);
    return ring;
}

std::shared_ptr<Ring_Memory> Ring_Memory::open(const std::string& path, Reading reading,
                                               Ring_Problem& problem) {
    std::shared_ptr<Ring_Memory> ring(new Ring_Memory);
    ring->reading_ = reading;
    // O_NONBLOCK keeps a FIFO of that name from blocking the open for ever.
    ring->file_ = Descriptor(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
    struct stat status {};
    if (!ring->file_.is_open() || fstat(ring->file_.get(), &status) != 0) {
        problem = problem_of(path, "cannot open", errno);
        return nullptr;
    }
    Ring_Facts facts;
    const Ring_Facts expected;
    if (!S_ISREG(status.st_mode)) {
        problem = unreadable(path, "it is no file");
        return nullptr;
    }
    if (!read_at(ring->file_.get(), 0, std::as_writable_bytes(std::span(&facts, 1)))) {
        problem = unreadable(path, std::to_string(status.st_size) + " bytes are no header");
        return nullptr;
    }
    if (std::memcmp(facts.magic, expected.magic, sizeof facts.magic) != 0) {
        problem = unreadable(path, "it does not begin with ZAVR");
        return nullptr;
    }
    if (facts.version != expected.version || facts.header_bytes != expected.header_bytes) {
        problem = unreadable(path, "its version is " + std::to_string(facts.version) +
                                       ", this program reads " + std::to_string(ring_version));
        return nullptr;
    }
    if (!is_sound(facts, static_cast<std::uint64_t>(status.st_size))) {
        problem = unreadable(path, "its header contradicts itself or its length of " +
                                       std::to_string(status.st_size) + " bytes");
        return nullptr;
    }
    ring->facts_ = facts;
    ring->inode_ = status.st_ino;
    ring->file_bytes_ = std::uint64_t{facts.data_offset} + facts.data_bytes;
    const std::uint64_t bytes =
        reading == Reading::mapped ? ring->file_bytes_ : std::uint64_t{ring_header_bytes};
    if (!ring->map(bytes, PROT_READ, MAP_SHARED | MAP_POPULATE)) {
        problem = problem_of(path, "cannot map", errno);
        return nullptr;
    }
    return ring;
}

Ring_Memory::~Ring_Memory() {
    if (base_ != nullptr) {
        munmap(base_, mapped_bytes_);
    }
}

bool Ring_Memory::map(std::uint64_t bytes, int protection, int flags) {
    mapped_bytes_ = static_cast<std::size_t>(bytes);
    if (mapped_bytes_ != bytes) {
        errno = ENOMEM;  // more than the address space of this process
        return false;
    }
    void* const base = mmap(nullptr, mapped_bytes_, protection, flags, file_.get(), 0);
    base_ = base == MAP_FAILED ? nullptr : static_cast<std::byte*>(base);
    return base_ != nullptr;
}

void Ring_Memory::begin(const Ring_Facts& facts) {
    facts_.epoch = facts.epoch;
    facts_.created_ns = facts.created_ns;
    facts_.writer_pid = facts.writer_pid;
    facts_.data_offset = static_cast<std::uint32_t>(data_offset_for(facts_.index_count));
    std::memcpy(base_, &facts_, sizeof facts_);
    store_release(ring_tail_offset, 1);
}

std::optional<std::uint32_t> Ring_Memory::load(std::size_t offset) const {
    if (reading_ == Reading::mapped) {
        return __atomic_load_n(word(offset), __ATOMIC_ACQUIRE);
    }
    const auto value = steady_word([this, offset]() -> std::optional<std::uint32_t> {
        std::uint32_t read = 0;
        const bool is_there =
            read_at(file_.get(), offset, std::as_writable_bytes(std::span(&read, 1)));
        return is_there ? std::optional(read) : std::nullopt;
    });
    acquire_fence();
    return value;
}

void Ring_Memory::store_release(std::size_t offset, std::uint32_t value) {
    __atomic_store_n(writable_word(offset), value, __ATOMIC_RELEASE);
}

bool Ring_Memory::copy(std::uint64_t offset, std::span<std::byte> into) const {
    if (offset > file_bytes_ || into.size() > file_bytes_ - offset) {
        return false;
    }
    if (reading_ == Reading::copied) {
        return read_at(file_.get(), offset, into);
    }
    if (!into.empty()) {  // an empty one may lie nowhere
        copy_racing(into.data(), base_ + offset, into.size());
    }
    return true;
}

void Ring_Memory::write_entry(std::uint32_t number, const Ring_Entry& entry) {
    std::memcpy(base_ + entry_offset(number), &entry, sizeof entry);
}

// In halves: a store of 64 bits is dear where the processor has none.
void Ring_Memory::write_bytes(std::uint64_t bytes) {
    constexpr std::size_t half_bytes = sizeof(std::uint32_t);
    constexpr bool is_low_first = std::endian::native == std::endian::little;
    constexpr std::size_t low = ring_bytes_offset + (is_low_first ? 0 : half_bytes);
    constexpr std::size_t high = ring_bytes_offset + (is_low_first ? half_bytes : 0);
    __atomic_store_n(writable_word(low), static_cast<std::uint32_t>(bytes), __ATOMIC_RELAXED);
    __atomic_store_n(writable_word(high), static_cast<std::uint32_t>(bytes >> 32U),
                     __ATOMIC_RELAXED);
}

// The writer's own lock does not stand in its own way, so that it would not see it.
bool Ring_Memory::has_writer() const {
    return is_writers_ || !file_.is_open() ||
           look_at_file_lock(file_.get()) == File_Lock_State::exclusive;
}

bool Ring_Memory::has_shrunk() const {
    struct stat status {};
    return file_.is_open() && fstat(file_.get(), &status) == 0 &&
           static_cast<std::uint64_t>(status.st_size) < file_bytes_;
}

}  // namespace zav_shm
