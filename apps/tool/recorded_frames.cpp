// SPDX-License-Identifier: Apache-2.0
#include "apps/tool/recorded_frames.h"

#include "apps/tool/frame_time.h"

namespace zav_shm::tool {

namespace {

Entry_Point entry_of(const Received_Frame& frame) {
    if (frame.is_key_frame()) {
        return Entry_Point::key_frame;
    }
    return frame.is_recovery_point() ? Entry_Point::recovery_point : Entry_Point::none;
}

}  // namespace

void Recorded_Frames::add(int stream, const Received_Frame& frame, const Place& place) {
    const Frame_Index::Times times{.pts_ns = frame.header.pts_ns, .utc_ns = utc_ns_of(frame)};
    pending_.push_back(
        {{stream, frame.header.sequence, frame.length, entry_of(frame), times}, place});
    pending_bytes_ += place.bytes;
}

void Recorded_Frames::settle(std::uint64_t file_bytes) {
    while (!pending_.empty() && whole_.bytes + pending_.front().place.bytes <= file_bytes) {
        count(pending_.front());
        pending_bytes_ -= pending_.front().place.bytes;
        pending_.pop_front();
    }
}

void Recorded_Frames::count(const Pending& pending) {
    const Frame_Index::Frame& frame = pending.frame;
    index_.add(frame, whole_.bytes + pending.place.payload_offset);
    whole_.first_sequence = whole_.frames == 0 ? frame.sequence : whole_.first_sequence;
    whole_.last_sequence = frame.sequence;
    ++whole_.frames;
    whole_.bytes += pending.place.bytes;
    whole_.key_frames += frame.entry == Entry_Point::key_frame ? 1U : 0U;
    whole_.recovery_points += frame.entry == Entry_Point::recovery_point ? 1U : 0U;
}

Recorded_Totals Recorded_Frames::totals() const {
    Recorded_Totals totals = whole_;
    totals.handed_over = whole_.frames + pending_.size();
    totals.handed_over_bytes = whole_.bytes + pending_bytes_;
    return totals;
}

}  // namespace zav_shm::tool
