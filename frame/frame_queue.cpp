// SPDX-License-Identifier: Apache-2.0
#include "frame/frame_queue.h"

#include <algorithm>
#include <utility>

namespace zav_shm {

void Frame_Queue::Gap::swallow(const Received_Frame& frame) {
    if (frame.epoch_changed) {
        // What was lost of the former epoch is nothing that the next frame can tell.
        *this = {};
        epoch_changed = true;
    }
    lost += frame.lost;
    skipped += frame.skipped;
    dropped += frame.dropped + 1;
}

void Frame_Queue::Gap::leave_to(Received_Frame& frame) {
    if (!frame.epoch_changed) {
        frame.lost += lost;
        frame.dropped += dropped;
        frame.skipped += skipped;
        frame.epoch_changed = epoch_changed;
    }
    *this = {};
}

Frame_Queue::Frame_Queue(const Limits& limits)
    : limits_(limits),
      ring_(limits.overflow == Overflow_Policy::newest_only
                ? 1
                : std::max<std::size_t>(limits.frames, 1)) {
    spare_.reserve(ring_.size() + 1);
}

bool Frame_Queue::is_full_for(const Received_Frame& frame) const {
    return count_ == ring_.size() || (count_ > 0 && bytes_ + frame.length > limits_.bytes);
}

void Frame_Queue::keep(std::vector<std::byte>&& buffer) {
    if (!buffer.empty() && spare_bytes_ + buffer.size() <= limits_.bytes) {
        spare_bytes_ += buffer.size();
        spare_.push_back(std::move(buffer));
    }
}

std::vector<std::byte> Frame_Queue::spare_buffer() {
    if (spare_.empty()) {
        return {};
    }
    std::vector<std::byte> buffer = std::move(spare_.back());
    spare_.pop_back();
    spare_bytes_ -= buffer.size();
    return buffer;
}

std::uint64_t Frame_Queue::drop_oldest() {
    Received_Frame& oldest = ring_[first_];
    before_first_.swallow(oldest);
    bytes_ -= oldest.length;
    keep(std::move(oldest.bytes));
    first_ = index(1);
    --count_;
    return 1;
}

std::uint64_t Frame_Queue::drop_all() {
    std::uint64_t dropped = 0;
    while (count_ > 0) {
        dropped += drop_oldest();
    }
    return dropped;
}

std::uint64_t Frame_Queue::make_room(const Received_Frame& frame) {
    std::uint64_t dropped = 0;
    while (is_full_for(frame)) {
        dropped += drop_oldest();
    }
    return dropped;
}

std::uint64_t Frame_Queue::push(Received_Frame& frame) {
    const std::lock_guard guard(mutex_);
    if (closed_) {
        return 0;
    }
    const bool is_key = frame.is_entry_point() || !frame.verified;
    seen_key_ = seen_key_ || frame.is_entry_point();
    std::uint64_t dropped = 0;
    if (limits_.overflow == Overflow_Policy::drop_until_key_frame && seen_key_) {
        if (!is_key && (waits_for_key_ || is_full_for(frame))) {
            waits_for_key_ = true;
            before_next_.swallow(frame);
            return 1;
        }
        waits_for_key_ = false;
        if (is_full_for(frame)) {
            dropped = drop_all();
        }
    } else {
        dropped = make_room(frame);
    }
    before_next_.leave_to(frame);
    if (count_ == 0) {
        before_first_.leave_to(frame);
    }
    bytes_ += frame.length;
    ring_[index(count_)] = std::exchange(frame, {});
    frame.bytes = spare_buffer();
    ++count_;
    changed_.notify_one();
    return dropped;
}

bool Frame_Queue::let_pass(const Received_Frame& frame) {
    const std::lock_guard guard(mutex_);
    if (closed_ || count_ > 0 || waits_for_key_) {
        return false;
    }
    seen_key_ = seen_key_ || frame.is_entry_point();
    return true;  // an empty queue that waits for no key frame has no gap to tell of
}

Receive_Status Frame_Queue::pop(Received_Frame& frame, std::chrono::milliseconds timeout) {
    std::unique_lock lock(mutex_);
    // The C++ library enters the kernel, for the least time that it can wait, also for 0.
    if (timeout > std::chrono::milliseconds(0)) {
        changed_.wait_for(lock, timeout, [this] { return closed_ || count_ > 0; });
    }
    if (closed_) {
        return Receive_Status::closed;
    }
    if (count_ == 0) {
        return Receive_Status::timeout;
    }
    Received_Frame& oldest = ring_[first_];
    before_first_.leave_to(oldest);
    bytes_ -= oldest.length;
    keep(std::move(frame.bytes));
    frame = std::move(oldest);
    first_ = index(1);
    --count_;
    return Receive_Status::frame;
}

void Frame_Queue::close() {
    const std::lock_guard guard(mutex_);
    closed_ = true;
    first_ = count_ = bytes_ = 0;
    before_first_ = before_next_ = {};
    waits_for_key_ = false;
    changed_.notify_all();
}

void Frame_Queue::open() {
    const std::lock_guard guard(mutex_);
    closed_ = false;
}

std::size_t Frame_Queue::size() const {
    const std::lock_guard guard(mutex_);
    return count_;
}

}  // namespace zav_shm
