// SPDX-License-Identifier: Apache-2.0
#include "apps/tool/recorded_frames.h"

namespace zav_shm::tool {

namespace {

Entry_Point entry_of(const Received_Frame& frame) {
    if (frame.is_key_frame()) {
        return Entry_Point::key_frame;
    }
    return frame.is_recovery_point() ? Entry_Point::recovery_point : Entry_Point::none;
}

}  // namespace

void Recorded_Frames::add(int stream, const Received_Frame& frame) {
    pending_.push_back({stream, frame.header.sequence, frame.length, entry_of(frame)});
}

void Recorded_Frames::settle(std::uint64_t file_bytes) {
    while (!pending_.empty() && bytes_ + pending_.front().bytes <= file_bytes) {
        count(pending_.front());
        pending_.pop_front();
    }
}

void Recorded_Frames::count(const Frame& frame) {
    index_.add(frame.stream, frame.sequence, frame.bytes, frame.entry);
    first_sequence_ = frames_ == 0 ? frame.sequence : first_sequence_;
    last_sequence_ = frame.sequence;
    ++frames_;
    bytes_ += frame.bytes;
    key_frames_ += frame.entry == Entry_Point::key_frame ? 1U : 0U;
    recovery_points_ += frame.entry == Entry_Point::recovery_point ? 1U : 0U;
}

}  // namespace zav_shm::tool
