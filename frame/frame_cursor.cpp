// SPDX-License-Identifier: Apache-2.0
#include "frame/frame_cursor.h"

#include <algorithm>
#include <cstring>
#include <optional>

#include "frame/frame_record.h"
#include "ipc/monotonic_clock.h"

namespace zav_shm {

namespace {

// How often one look for a frame begins anew because the writer is faster.
constexpr int attempts_max = 64;

bool is_key(const Ring_Entry& entry) { return (entry.flags & ring_flag::key) != 0; }

bool is_foreign(const Ring_Entry& entry) { return (entry.flags & frame_record::foreign) != 0; }

// The first record that was begun since then; behind the newest one when none was.
std::uint64_t first_since(const Ring_Reader& reader, std::int64_t since_ns) {
    const auto before = reader.find_back(
        reader.newest(), [since_ns](const Ring_Entry& entry) { return entry.time_ns < since_ns; });
    return before ? *before + 1 : reader.oldest();
}

// What a killed publisher has left is no live stream, though its ring was never closed.
bool is_live(const Ring_Reader& reader) {
    return !reader.is_closed() && reader.memory().has_writer();
}

}  // namespace

// ---- where it begins ----

void Frame_Cursor::join(Ring_Reader& reader, std::int64_t since_ns) {
    const bool goes_on = handed_out_;
    begin(reader, rules_.from, since_ns);
    if (goes_on && had_key_ && rules_.key_frame_after_loss) {
        wait_ = Wait::firm;
    }
}

void Frame_Cursor::go_on_in(Ring_Reader& reader) {
    reader.move_to(1);  // what is overwritten of it already is lost
    const bool waits =
        handed_out_ ? rules_.key_frame_after_loss && had_key_ : rules_.start_at_key_frame;
    wait_ = waits ? Wait::firm : Wait::none;
    seen_key_ = false;
    joined_at_ = 1;
    passed_over_ = 0;
}

void Frame_Cursor::seek(Ring_Reader& reader, const Start& from) {
    begin(reader, from, monotonic_ns());
}

void Frame_Cursor::begin(Ring_Reader& reader, const Start& from, std::int64_t now_ns) {
    joined_at_ = first_since(reader, now_ns);
    place(reader, from, now_ns);
    losses_ = {};
    wait_ = rules_.start_at_key_frame ? Wait::firm : Wait::none;
    seen_key_ = reader.find_back(reader.newest(), is_key).has_value();
    handed_out_ = false;
    passed_over_ = 0;
    sequence_ = 0;
}

void Frame_Cursor::place(Ring_Reader& reader, const Start& from, std::int64_t now_ns) {
    const std::uint64_t newest = reader.newest();
    std::optional<std::uint64_t> number;
    switch (from.at) {
        case Start::At::newest:
            number = joined_at_;
            break;
        case Start::At::newest_key:
            number = is_live(reader) ? reader.find_back(newest, is_key) : std::nullopt;
            number = number ? number : joined_at_;
            break;
        case Start::At::last_key_frame:
            number = reader.find_back(newest, is_key);
            break;
        case Start::At::oldest:
            number = reader.oldest();
            break;
        case Start::At::back: {
            // A moment that is still to come is now.
            const std::int64_t since = now_ns - std::max<std::int64_t>(from.span.count(), 0);
            number = reader.find_back(newest, [since](const Ring_Entry& entry) {
                return is_key(entry) && entry.time_ns <= since;
            });
            number = number ? number : reader.find_on(0, is_key);
            number = number ? number : reader.find_on(0, [since](const Ring_Entry& entry) {
                return entry.time_ns >= since;
            });
            break;
        }
    }
    reader.move_to(number.value_or(newest + 1));
}

// ---- the next frame ----

Frame_Cursor::Found Frame_Cursor::find(Ring_Reader& reader, Ring_Record& record,
                                       Frame_Facts& frame) {
    for (int i = 0; i < attempts_max; ++i) {
        if (rules_.overflow == Overflow_Policy::newest_only && reader.cursor() < reader.newest()) {
            pass_over(reader, reader.newest(), losses_.dropped);
        }
        switch (reader.look(record)) {
            case Ring_Reader::Look::nothing:
                return Found::nothing;
            case Ring_Reader::Look::broken:
                return Found::broken;
            case Ring_Reader::Look::overtaken:
                recover(reader);
                continue;
            case Ring_Reader::Look::record:
                break;
        }
        if (is_left_out(reader, record)) {
            continue;
        }
        ZAV_SHM_Frame_Header header{};
        const bool copied = reader.copy(record, 0, std::as_writable_bytes(std::span(&header, 1)));
        if (!reader.is_in_reach(record.number)) {
            continue;
        }
        frame.verified = !is_foreign(record.entry);
        if (!copied || (frame.verified && !is_ours(header)) ||
            header.payload_length != record.entry.length - sizeof header) {
            pass_over(reader, reader.cursor() + 1, losses_.left_out);
            return Found::invalid;
        }
        frame.header = header;
        frame.number = record.number;
        if (begins_behind_gap(frame) && !is_key(record.entry)) {
            wait_ = Wait::firm;
            continue;
        }
        return Found::frame;
    }
    return Found::nothing;
}

// What is on the way to the key frame that is waited for is passed over in one step.
bool Frame_Cursor::is_left_out(Ring_Reader& reader, const Ring_Record& record) {
    seen_key_ = seen_key_ || is_key(record.entry);
    had_key_ = had_key_ || seen_key_;
    if (is_key(record.entry) || is_foreign(record.entry) ||
        (wait_ == Wait::while_there_are_any && !seen_key_)) {
        wait_ = Wait::none;
    }
    if (wait_ == Wait::none) {
        return false;
    }
    const std::uint64_t behind_newest = std::max(reader.newest(), record.number) + 1;
    const auto key = reader.find_on(
        record.number, [](const Ring_Entry& entry) { return is_key(entry) || is_foreign(entry); });
    pass_over(reader, key.value_or(behind_newest), losses_.skipped);
    return true;
}

void Frame_Cursor::recover(Ring_Reader& reader) {
    std::uint64_t to = reader.safe_oldest();
    if (rules_.overflow == Overflow_Policy::newest_only) {
        to = std::max(to, reader.newest());
    } else if (rules_.overflow == Overflow_Policy::drop_until_key_frame) {
        const auto key = reader.find_on(to, is_key);
        seen_key_ = seen_key_ || key;
        if (key) {
            to = *key;
        } else if (seen_key_ && wait_ == Wait::none) {
            wait_ = Wait::while_there_are_any;
        }
    }
    const std::uint64_t from = reader.cursor();
    const std::uint64_t counted_from = handed_out_ ? from : std::max(from, joined_at_);
    losses_.overtaken += to > counted_from ? to - counted_from : 0;
    passed_over_ += to > from ? to - from : 0;
    reader.move_to(to);
}

void Frame_Cursor::pass_over(Ring_Reader& reader, std::uint64_t to, std::uint64_t& cause) {
    const std::uint64_t from = reader.cursor();
    cause += to > from ? to - from : 0;
    passed_over_ += to > from ? to - from : 0;
    reader.move_to(to);
}

// ---- what was missed ----

bool Frame_Cursor::begins_behind_gap(const Frame_Facts& frame) const {
    return rules_.key_frame_after_loss && had_key_ && frame.verified && handed_out_ &&
           wait_ == Wait::none &&
           (losses_.lost() > 0 || frame.header.epoch != epoch_ || left_out_before(frame) > 0);
}

// The publisher numbers what it is given; the ring what is in it.
std::uint64_t Frame_Cursor::left_out_before(const Frame_Facts& frame) const {
    const ZAV_SHM_Frame_Header& header = frame.header;
    if (!frame.verified || sequence_ == 0 || header.epoch != epoch_ ||
        header.sequence <= sequence_) {
        return 0;
    }
    const std::uint64_t between = header.sequence - sequence_ - 1;
    return between > passed_over_ ? between - passed_over_ : 0;
}

void Frame_Cursor::take(Ring_Reader& reader, Frame_Facts& frame) {
    losses_.left_out += left_out_before(frame);
    frame.before = losses_;
    frame.epoch_changed = frame.verified && epoch_ != 0 && frame.header.epoch != epoch_;
    if (frame.verified) {
        epoch_ = frame.header.epoch;
        sequence_ = frame.header.sequence;
    } else {
        const auto length = frame.header.payload_length;
        frame.header = {};
        frame.header.payload_length = length;
    }
    losses_ = {};
    passed_over_ = 0;
    handed_out_ = true;
    reader.advance();
}

void Frame_Cursor::lose(Ring_Reader& reader) {
    pass_over(reader, reader.cursor() + 1, losses_.no_memory);
}

}  // namespace zav_shm
