// SPDX-License-Identifier: Apache-2.0
#include "apps/trace/trace_reader.h"

#include <algorithm>
#include <array>
#include <utility>

namespace zav_shm::trace {

namespace {

std::string part_of(std::uint64_t there, std::uint64_t whole) {
    return std::to_string(there) + " of " + std::to_string(whole) + " bytes";
}

const char* name_of(Record_Type type) {
    switch (type) {
        case Record_Type::stream:
            return "stream";
        case Record_Type::frame:
            return "frame";
        case Record_Type::loss:
            return "loss";
        case Record_Type::index:
            return "index";
        case Record_Type::end:
            return "end";
    }
    return "unknown";
}

bool is_of_stream(Record_Type type) {
    return type == Record_Type::frame || type == Record_Type::loss;
}

}  // namespace

std::string Damage::text() const { return "at byte " + std::to_string(offset) + ": " + what; }

std::optional<Damage> Trace_Reader::open() {
    std::array<std::byte, file_header_bytes> bytes{};
    const auto there =
        static_cast<std::size_t>(std::min<std::uint64_t>(source_.size_bytes(), bytes.size()));
    const auto part = std::span(bytes).first(there);
    if (std::string trouble = source_.read(0, part); !trouble.empty()) {
        return Damage{0, "it cannot be read: " + trouble, false};
    }
    Read_Header read = read_file_header(part);
    if (!read.mistake.empty()) {
        return Damage{0, std::move(read.mistake), there < bytes.size()};
    }
    header_ = read.header;
    next_ = file_header_bytes;
    read_streams();
    return {};
}

// Up to the first other record, or to damage, both of which next() comes to again.
void Trace_Reader::read_streams() {
    for (;;) {
        begin_ = record_.offset = next_;
        if (next_ == source_.size_bytes() || !read_head() ||
            record_.head.type != Record_Type::stream || !read_body()) {
            return;
        }
        auto name = read_stream_name(body_);
        if (!name || record_.head.stream != streams_.size() || streams_.size() == streams_max) {
            return;
        }
        streams_.push_back(std::move(*name));
        next_ += record_head_bytes + body_.size();
    }
}

Trace_Reader::Step Trace_Reader::next() {
    for (;;) {
        switch (find()) {
            case Found::record:
                return Step::record;
            case Found::nothing:
                return behind_end_ ? Step::end : Step::not_closed;
            case Found::damage:
                return Step::damage;
            case Found::other:
                break;
        }
    }
}

Trace_Reader::Found Trace_Reader::find() {
    record_.offset = next_;
    if (next_ == source_.size_bytes()) {
        return Found::nothing;
    }
    if (behind_end_) {
        fail(std::to_string(source_.size_bytes() - next_) + " bytes stand behind the trace's end");
        return Found::damage;
    }
    if (!read_head()) {
        return Found::damage;
    }
    const bool wanted = is_wanted();
    if (wanted && (!read_body() || !understand_body())) {
        return Found::damage;
    }
    next_ += record_head_bytes + record_.head.body_bytes;
    behind_end_ = record_.head.type == Record_Type::end;
    return wanted ? Found::record : Found::other;
}

// Types that a later program may write are passed over.
bool Trace_Reader::is_wanted() const {
    const Record_Type type = record_.head.type;
    if (type < Record_Type::stream || type > Record_Type::end) {
        return false;
    }
    return !only_ ||
           (is_of_stream(type) ? record_.head.stream == *only_ : type != Record_Type::index);
}

bool Trace_Reader::read_head() {
    const std::uint64_t size = source_.size_bytes();
    const std::uint64_t there = next_ <= size ? size - next_ : 0;
    if (there < record_head_bytes) {
        return fail("the file ends within a record, of whose head " +
                        part_of(there, record_head_bytes) + " are there",
                    true);
    }
    std::array<std::byte, record_head_bytes> bytes{};
    if (const std::string trouble = source_.read(next_, bytes); !trouble.empty()) {
        return fail("the file cannot be read: " + trouble);
    }
    const auto head = read_record_head(bytes);
    if (!head) {
        return fail("no record begins here, or its head is damaged: the checksum does not fit");
    }
    record_.head = *head;
    if (there - record_head_bytes < head->body_bytes) {
        return fail(std::string("the file ends within a record (") + name_of(head->type) +
                        "), of whose body " + part_of(there - record_head_bytes, head->body_bytes) +
                        " are there",
                    true);
    }
    return true;
}

bool Trace_Reader::read_body() {
    body_.resize(record_.head.body_bytes);
    if (const std::string trouble = source_.read(next_ + record_head_bytes, body_);
        !trouble.empty()) {
        return fail("the file cannot be read: " + trouble);
    }
    if (checksum(body_) != record_.head.body_checksum) {
        return fail(std::string("the record (") + name_of(record_.head.type) +
                    ") is damaged: the checksum of its body does not fit");
    }
    return true;
}

// What fits its checksum and still says nothing possible was written so.
bool Trace_Reader::understand_body() {
    const Record_Type type = record_.head.type;
    const std::int64_t received_ns = record_.head.received.monotonic_ns;
    bool fits = received_ns >= 0 && received_ns <= monotonic_max_ns &&
                (!is_of_stream(type) || record_.head.stream < streams_.size());
    if (type == Record_Type::stream) {
        fits = false;  // those in their place have been read
    } else if (type == Record_Type::frame) {
        const auto header = read_frame_header(body_, record_.is_foreign());
        fits = fits && header;
        record_.frame = header.value_or(ZAV_SHM_Frame_Header{});
        record_.payload = fits ? std::span<const std::byte>(body_).subspan(frame_header_bytes)
                               : std::span<const std::byte>();
    } else if (type == Record_Type::loss) {
        const auto losses = read_losses(body_);
        fits = fits && losses;
        record_.losses = losses.value_or(Frame_Losses{});
    } else if (type == Record_Type::index) {
        auto index = read_index(body_);
        fits = fits && index && index->id == header_.id && index->own_offset == next_ &&
               index->before < next_;
        record_.index = std::move(index).value_or(Index{});
    } else if (type == Record_Type::end) {
        const auto end = read_end(body_);
        fits = fits && end && end->id == header_.id && end->last_index < next_;
        record_.end = end.value_or(End{});
    }
    return fits || fail(std::string("the record (") + name_of(type) +
                        ") is not what such a record can be, or stands in the wrong place");
}

bool Trace_Reader::fail(std::string what, bool is_cut) {
    damage_ = {next_, std::move(what), is_cut};
    return false;
}

}  // namespace zav_shm::trace
