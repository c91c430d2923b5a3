// SPDX-License-Identifier: Apache-2.0
#include "ring/ring_writer.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <thread>
#include <utility>

#include "ipc/descriptor.h"
#include "ipc/forks.h"
#include "ipc/futex.h"
#include "ipc/memory_fence.h"
#include "ipc/monotonic_clock.h"
#include "ipc/random_epoch.h"
#include "ipc/shared_memory_folder.h"
#include "ipc/test_point.h"

namespace zav_shm {

namespace {

// Between the two wakes of the readers of a ring that is replaced: the first may come just before
// one goes to sleep on it.
constexpr std::chrono::milliseconds second_wake_after{3};

std::uint64_t in_alignment(std::size_t bytes) {
    return (std::uint64_t{bytes} + ring_record_alignment - 1) / ring_record_alignment *
           ring_record_alignment;
}

/// The ring that has the name while a successor is made.
class Former_Ring {
public:
    explicit Former_Ring(const std::string& path)
        : ring_(Ring_Memory::open(path, Ring_Memory::Reading::copied, problem_)),
          file_(::open(path.c_str(), O_RDWR | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK)) {}

    bool is_there() const { return ring_ != nullptr; }

    /// Sends its readers to the name. Those who are awake find the state, where this user may write
    /// it; those who sleep are woken.
    void tell_readers() const {
        if (ring_->load(ring_state_offset) == ring_state::live && is_own_file()) {
            const std::uint32_t state = ring_state::succeeded;
            static_cast<void>(pwrite(file_.get(), &state, sizeof state, ring_state_offset));
        }
        futex_wake(ring_->head_word());
        std::this_thread::sleep_for(second_wake_after);
        futex_wake(ring_->head_word());
    }

private:
    bool is_own_file() const {
        struct stat status {};
        return file_.is_open() && fstat(file_.get(), &status) == 0 &&
               status.st_ino == ring_->inode();
    }

    Ring_Problem problem_;  // not told: there may well be none
    const std::shared_ptr<const Ring_Memory> ring_;
    const Descriptor file_;
};

Ring_Facts new_facts() {
    Ring_Facts facts;
    facts.epoch = random_epoch();
    facts.created_ns = monotonic_ns();
    facts.writer_pid = static_cast<std::uint32_t>(getpid());
    return facts;
}

}  // namespace

// ---- life ----

std::unique_ptr<Ring_Writer> Ring_Writer::open(const std::string& path, const Ring_Size& size,
                                               Ring_Problem& problem,
                                               const std::optional<Ring_Access>& access) {
    const std::string folder = ring_folder(path);
    struct stat status {};
    if (stat(folder.c_str(), &status) != 0) {
        problem = {Ring_Problem::Kind::absent, "there is no folder " + folder, 0};
        return nullptr;
    }
    const mode_t mode = access ? access->mode : readable_file_mode(status.st_mode);
    const auto group = access ? access->needed_group() : std::nullopt;
    Writer_Lock lock;
    if (!lock.take(path + ".lock", problem)) {
        return nullptr;
    }
    const Former_Ring former(path);
    auto ring = Ring_Memory::make(path, size, new_facts(), mode, group, problem);
    if (!ring) {
        if (!former.is_there()) {
            lock.remove();
        }
        return nullptr;
    }
    if (former.is_there()) {
        former.tell_readers();
    }
    std::unique_ptr<Ring_Writer> writer(new Ring_Writer(std::move(ring)));  // private constructor
    writer->lock_ = std::move(lock);
    return writer;
}

std::unique_ptr<Ring_Writer> Ring_Writer::open_private(const Ring_Size& size, Ring_Problem& problem,
                                                       std::uint64_t first) {
    auto ring = Ring_Memory::make_private(size, new_facts(), problem);
    if (!ring) {
        return nullptr;
    }
    const std::uint64_t before = first - 1;
    const auto low = static_cast<std::uint32_t>(before);
    // Nobody reads that record; its entry tells readers the upper half of the numbers.
    Ring_Entry entry;
    entry.number_high = static_cast<std::uint32_t>(before >> 32U);
    ring->write_entry(low, entry);
    ring->store_release(ring_tail_offset, low + 1);
    ring->store_release(ring_head_offset, low);
    std::unique_ptr<Ring_Writer> writer(new Ring_Writer(std::move(ring)));
    writer->last_ = before;
    writer->oldest_ = first;
    return writer;
}

Ring_Writer::Ring_Writer(std::shared_ptr<Ring_Memory> ring)
    : ring_(std::move(ring)), forks_(forks_so_far()), begins_(ring_->facts().index_count) {}

Ring_Writer::~Ring_Writer() { close(); }

// The state before the wake: who wakes without news looks at it.
void Ring_Writer::close() {
    if (std::exchange(closed_, true) || forks_ != forks_so_far()) {
        return;
    }
    has_room_ = false;
    ring_->store_release(ring_state_offset, ring_state::closed);
    futex_wake(ring_->head_word());
    lock_.release();
}

// ---- records ----

std::span<std::byte> Ring_Writer::reserve(std::size_t bytes) {
    has_room_ = false;
    if (bytes > record_max() || closed_ || forks_ != forks_so_far()) {
        return {};
    }
    room_begin_ = place_for(bytes);
    room_bytes_ = bytes;
    oldest_ = std::max(oldest_, oldest_beside(room_begin_, bytes));
    test_point("ring", "reserve");
    // Who sees this tail sees the head that was stored before it; pairs with the acquires in
    // Ring_Reader::look() and oldest(), which take a tail that is further ahead for a broken one.
    ring_->store_release(ring_tail_offset, static_cast<std::uint32_t>(oldest_));
    // Nothing that is written from here on is seen before the new tail; pairs with the fence in
    // Ring_Reader::is_in_reach().
    release_fence();
    test_point("ring", "tail");
    has_room_ = true;
    return {
        ring_->writable_at(ring_->facts().data_offset + room_begin_ % ring_->facts().data_bytes),
        bytes};
}

std::uint64_t Ring_Writer::commit(std::size_t bytes, const Record_Tags& tags) {
    if (!std::exchange(has_room_, false) || bytes > room_bytes_ || forks_ != forks_so_far()) {
        return 0;
    }
    const std::uint64_t number = last_ + 1;
    const auto low = static_cast<std::uint32_t>(number);
    Ring_Entry entry;
    entry.offset = static_cast<std::uint32_t>(room_begin_ % ring_->facts().data_bytes);
    entry.length = static_cast<std::uint32_t>(bytes);
    entry.flags = tags.flags;
    entry.number_high = static_cast<std::uint32_t>(number >> 32U);
    entry.pts_ns = tags.pts_ns;
    entry.time_ns = tags.time_ns;
    test_point("ring", "record");
    ring_->write_entry(low, entry);
    test_point("ring", "entry");
    begins_[slot_of(number)] = room_begin_;
    end_ = room_begin_ + in_alignment(bytes);
    last_ = number;
    bytes_ += bytes;
    ring_->write_bytes(bytes_);
    // Pairs with the acquire in Ring_Reader::look().
    ring_->store_release(ring_head_offset, low);
    test_point("ring", "head");
    futex_wake(ring_->head_word());
    return number;
}

std::uint64_t Ring_Writer::oldest_after(std::size_t bytes) const {
    return std::max(oldest_, oldest_beside(place_for(bytes), bytes));
}

std::size_t Ring_Writer::slot_of(std::uint64_t number) const {
    return static_cast<std::uint32_t>(number) & (ring_->facts().index_count - 1);
}

// A record does not cross the end of the data: it begins with the next lap.
std::uint64_t Ring_Writer::place_for(std::size_t bytes) const {
    const std::uint64_t data_bytes = ring_->facts().data_bytes;
    const std::uint64_t left = data_bytes - end_ % data_bytes;
    return bytes <= left ? end_ : end_ + left;
}

// The first record that is neither overwritten by one at this place nor loses its entry to it.
std::uint64_t Ring_Writer::oldest_beside(std::uint64_t begin, std::size_t bytes) const {
    const std::uint64_t index_count = ring_->facts().index_count;
    const std::uint64_t data_bytes = ring_->facts().data_bytes;
    const std::uint64_t end = begin + in_alignment(bytes);
    const std::uint64_t next = last_ + 1;
    std::uint64_t oldest = next > index_count ? std::max(oldest_, next - index_count + 1) : oldest_;
    while (oldest < next && begins_[slot_of(oldest)] + data_bytes < end) {
        ++oldest;
    }
    return oldest;
}

}  // namespace zav_shm
