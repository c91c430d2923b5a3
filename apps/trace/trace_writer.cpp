// SPDX-License-Identifier: Apache-2.0
#include "apps/trace/trace_writer.h"

#include <algorithm>
#include <utility>

namespace zav_shm::trace {

bool Trace_Writer::begin(const std::vector<Stream_Name>& streams) {
    record_.clear();
    put(record_, header_);
    failed_ = failed_ || !sink_(record_);
    offset_ = indexed_to_ = failed_ ? 0 : record_.size();
    std::uint16_t number = 0;
    for (const Stream_Name& name : streams) {
        begin_record();
        put(record_, name);
        write_record({.type = Record_Type::stream, .stream = number++, .received = header_.begin});
    }
    return !failed_;
}

bool Trace_Writer::add(std::uint16_t stream, const Frame& frame) {
    const std::uint64_t offset = offset_;
    begin_record();
    record_.reserve(record_head_bytes + frame_header_bytes + frame.payload.size());
    put(record_, frame.header);
    record_.insert(record_.end(), frame.payload.begin(), frame.payload.end());
    if (!write_record({.type = Record_Type::frame,
                       .stream = stream,
                       .flags = frame.foreign ? record_flag::foreign : 0,
                       .received = frame.received})) {
        return false;
    }
    ++frames_;
    entries_.push_back(
        index_entry(offset, stream, frame.header, frame.foreign, frame.received.monotonic_ns));
    const bool is_due =
        entries_.size() == index_entries_max || offset_ - indexed_to_ >= index_distance_bytes;
    return !is_due || write_index(frame.received);
}

bool Trace_Writer::add(std::uint16_t stream, const Frame_Losses& losses, const Moment& received) {
    begin_record();
    put(record_, losses);
    return write_record({.type = Record_Type::loss, .stream = stream, .received = received});
}

bool Trace_Writer::finish(const Moment& now) {
    if (!entries_.empty() && !write_index(now)) {
        return false;
    }
    begin_record();
    put(record_, End{header_.id, last_index_, frames_});
    return write_record({.type = Record_Type::end, .received = now});
}

bool Trace_Writer::write_index(const Moment& now) {
    const std::uint64_t offset = offset_;
    begin_record();
    put(record_, Index{offset, header_.id, last_index_, std::exchange(entries_, {})});
    if (!write_record({.type = Record_Type::index, .received = now})) {
        return false;
    }
    last_index_ = offset;
    indexed_to_ = offset_;
    return true;
}

// The body follows, behind room for the head.
void Trace_Writer::begin_record() {
    record_.clear();
    put_zeros(record_, record_head_bytes);
}

// In one piece, so that a file that takes pieces as they come ends behind a record most of the
// time.
bool Trace_Writer::write_record(Record_Head head) {
    if (failed_) {
        return false;
    }
    const auto body = std::span<const std::byte>(record_).subspan(record_head_bytes);
    head.body_bytes = static_cast<std::uint32_t>(body.size());
    head.body_checksum = checksum(body);
    head_.clear();
    put(head_, head);
    std::copy(head_.begin(), head_.end(), record_.begin());
    failed_ = !sink_(record_);
    offset_ += failed_ ? 0 : record_.size();
    return !failed_;
}

}  // namespace zav_shm::trace
