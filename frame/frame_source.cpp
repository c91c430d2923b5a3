// SPDX-License-Identifier: Apache-2.0
#include "frame/frame_source.h"

#include <new>
#include <utility>

#include "ipc/monotonic_clock.h"
#include "ipc/test_point.h"

namespace zav_shm {

namespace {

constexpr std::size_t header_bytes = sizeof(ZAV_SHM_Frame_Header);

// Makes room, which may throw bad_alloc. Never smaller: the next frame may need it.
std::span<std::byte> room_in(std::vector<std::byte>& bytes, std::size_t length) {
    if (length > bytes.max_size()) {
        throw std::bad_alloc();  // resize() would throw something else
    }
    if (bytes.size() < length) {
        bytes.resize(length);
    }
    return std::span(bytes).first(length);
}

}  // namespace

// ---- which ring ----

void Frame_Source::read_from(std::function<std::string()> where, std::int64_t since_ns) {
    use(std::make_unique<Ring_Follower>(std::move(where), reading_));
    if (follower_->changes_over()) {
        cursor_.join(*follower_->reader(), since_ns);
        former_epoch_ = follower_->reader()->memory().facts().epoch;
        joined_ = true;
    }
}

void Frame_Source::read_from(std::shared_ptr<const Ring_Memory> ring) {
    use(std::make_unique<Ring_Follower>(std::move(ring)));
    cursor_.go_on_in(*follower_->reader());  // it began with the present reading
    former_epoch_ = follower_->reader()->memory().facts().epoch;
    joined_ = true;
}

// No ring has this name.
void Frame_Source::read_from_nothing(const std::string& folder) {
    use(std::make_unique<Ring_Follower>(folder + "/.", reading_));
}

void Frame_Source::use(std::unique_ptr<Ring_Follower> follower) {
    {
        const Guard guard(mutex_);
        follower_.swap(follower);
    }
    joined_ = false;
}

void Frame_Source::wake() {
    const Guard guard(mutex_);
    if (follower_) {
        follower_->wake();
    }
}

bool Frame_Source::changes_over() {
    const std::uint64_t cursor = reader() == nullptr ? 0 : reader()->cursor();
    if (!follower_->changes_over()) {
        return false;
    }
    Ring_Reader& reader = *follower_->reader();
    const std::uint64_t epoch = std::exchange(former_epoch_, reader.memory().facts().epoch);
    if (epoch == former_epoch_ && cursor != 0) {
        reader.move_to(cursor);  // the same one again, which was given up for a while
    } else {
        cursor_.go_on_in(reader);
    }
    joined_ = true;
    return true;
}

void Frame_Source::seek(const Start& from) {
    if (Ring_Reader* const reader = follower_ ? follower_->reader() : nullptr) {
        cursor_.seek(*reader, from);
    }
}

// ---- the next frame ----

template <class Use>
Frame_Source::Got Frame_Source::next(Frame_Facts& frame, const Use& use) {
    Ring_Reader* const reader = follower_ ? follower_->reader() : nullptr;
    if (reader == nullptr) {
        return Got::nothing;
    }
    for (;;) {
        Ring_Record record;
        switch (cursor_.find(*reader, record, frame)) {
            case Frame_Cursor::Found::nothing:
                return Got::nothing;
            case Frame_Cursor::Found::invalid:
                ++invalid_;
                return Got::missed;
            case Frame_Cursor::Found::broken:
                follower_->give_up("its header or its index is nonsense");
                return Got::nothing;
            case Frame_Cursor::Found::frame:
                break;
        }
        bool is_there = false;
        try {
            is_there = use(*reader, record);
        } catch (const std::bad_alloc&) {
            cursor_.lose(*reader);
            ++no_memory_;
            return Got::missed;
        }
        test_point("copy", "read");
        if (!is_there) {
            follower_->give_up("it was truncated");
            return Got::nothing;
        }
        if (reader->is_in_reach(record.number)) {
            frame.received_ns = monotonic_ns();
            cursor_.take(*reader, frame);
            return Got::frame;
        }
        ++torn_;
    }
}

Frame_Source::Got Frame_Source::copy_next(Received_Frame& frame) {
    return next(frame, [&frame](const Ring_Reader& reader, const Ring_Record& record) -> bool {
        frame.length = record.entry.length - header_bytes;
        return reader.copy(record, header_bytes, room_in(frame.bytes, frame.length));
    });
}

Frame_Source::Got Frame_Source::view_next(Frame_View& view) {
    return next(view, [&view](const Ring_Reader& reader, const Ring_Record& record) -> bool {
        const std::size_t length = record.entry.length - header_bytes;
        if (record.bytes.empty()) {
            view.ring_.reset();
            const auto room = room_in(view.copy_, length);
            view.payload_ = room;
            return reader.copy(record, header_bytes, room);
        }
        if (view.ring_ != reader.shared_memory()) {
            view.ring_ = reader.shared_memory();
        }
        view.payload_ = record.bytes.subspan(header_bytes);
        return true;
    });
}

}  // namespace zav_shm
