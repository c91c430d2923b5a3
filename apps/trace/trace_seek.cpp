// SPDX-License-Identifier: Apache-2.0
#include "apps/trace/trace_seek.h"

#include <algorithm>
#include <array>
#include <optional>

#include "apps/trace/trace_reader.h"

namespace zav_shm::trace {

namespace {

using Step = Trace_Reader::Step;

constexpr std::size_t block_bytes = std::size_t{64} << 10;

// The best begins among the frames that were looked at, in whatever order.
class Begins {
public:
    Begins(std::size_t streams, std::int64_t moment_ns) : moment_ns_(moment_ns), places_(streams) {}

    void add(const Index_Entry& entry) {
        if (entry.stream >= places_.size()) {
            return;
        }
        Place& place = places_[entry.stream];
        if (entry.moment_ns > moment_ns_) {
            take_if(place.behind, entry,
                    [](auto& now, auto& one) { return one.offset < now.offset; });
            return;
        }
        const auto is_later = [](auto& now, auto& one) { return one.offset > now.offset; };
        take_if(place.before, entry, is_later);
        if ((entry.flags & index_flag::entry_point) != 0) {
            take_if(place.key, entry, is_later);
        }
    }

    /// What lies before what was looked at cannot be better.
    bool are_found() const {
        return std::all_of(places_.begin(), places_.end(),
                           [](const Place& place) { return place.key.has_value(); });
    }

    std::vector<std::uint64_t> offsets(std::uint64_t end) const {
        std::vector<std::uint64_t> offsets;
        for (const Place& place : places_) {
            const auto& best = place.key ? place.key : place.before ? place.before : place.behind;
            offsets.push_back(best ? best->offset : end);
        }
        return offsets;
    }

private:
    struct Place {
        std::optional<Index_Entry> key;
        std::optional<Index_Entry> before;
        std::optional<Index_Entry> behind;
    };

    template <class Is_Better>
    static void take_if(std::optional<Index_Entry>& now, const Index_Entry& one,
                        const Is_Better& is_better) {
        if (!now || is_better(*now, one)) {
            now = one;
        }
    }

    const std::int64_t moment_ns_;
    std::vector<Place> places_;
};

Index_Entry entry_of(const Trace_Record& record) {
    return index_entry(record.offset, record.head.stream, record.frame, record.is_foreign(),
                       record.head.received.monotonic_ns);
}

// All frames from here on.
void add_frames(Trace_Reader& reader, std::uint64_t from, Begins& begins) {
    reader.go_to(from);
    while (reader.next() == Step::record) {
        if (reader.record().head.type == Record_Type::frame) {
            begins.add(entry_of(reader.record()));
        }
    }
}

// The index at this offset, if there is one.
const Index* index_at(Trace_Reader& reader, std::uint64_t offset) {
    reader.go_to(offset);
    const bool is_there = reader.next() == Step::record && reader.record().offset == offset &&
                          reader.record().head.type == Record_Type::index;
    return is_there ? &reader.record().index : nullptr;
}

std::optional<std::uint64_t> index_by_end(const Trace_Source& source, Trace_Reader& reader) {
    constexpr std::uint64_t length = record_head_bytes + end_bytes;
    if (source.size_bytes() < reader.begin() + length) {
        return {};
    }
    reader.go_to(source.size_bytes() - length);
    const bool is_end =
        reader.next() == Step::record && reader.record().head.type == Record_Type::end;
    return is_end && reader.record().end.last_index != 0
               ? std::optional(reader.record().end.last_index)
               : std::nullopt;
}

// Looks for the mark and type of an index, block by block from the end. That it is one, and no
// payload that looks like one, says the index, which holds its own offset and the trace's number.
std::optional<std::uint64_t> index_from_behind(const Trace_Source& source, Trace_Reader& reader) {
    Bytes pattern;
    put(pattern, record_mark);
    put(pattern, static_cast<std::uint16_t>(Record_Type::index));
    std::vector<std::byte> block(block_bytes + pattern.size());
    for (std::uint64_t end = source.size_bytes(); end > 0;) {
        const std::uint64_t begin = end > block_bytes ? end - block_bytes : 0;
        // A pattern that begins in this block may reach into the one behind it.
        const std::uint64_t to = std::min(source.size_bytes(), end + pattern.size() - 1);
        const auto bytes = std::span(block).first(static_cast<std::size_t>(to - begin));
        if (!source.read(begin, bytes).empty()) {
            return {};
        }
        auto behind = bytes.end();
        for (;;) {
            const auto found = std::find_end(bytes.begin(), behind, pattern.begin(), pattern.end());
            if (found == behind) {
                break;
            }
            const std::uint64_t offset = begin + static_cast<std::uint64_t>(found - bytes.begin());
            if (index_at(reader, offset) != nullptr) {
                return offset;
            }
            behind = found + static_cast<std::ptrdiff_t>(pattern.size()) - 1;
        }
        end = begin;
    }
    return {};
}

// @return false when the chain of indexes is broken.
bool add_indexes(Trace_Reader& reader, std::uint64_t last, Begins& begins) {
    add_frames(reader, last, begins);
    // Offsets only fall, so this comes to an end whatever they say.
    for (std::uint64_t offset = last; offset != 0 && !begins.are_found();) {
        const Index* const index = index_at(reader, offset);
        if (index == nullptr) {
            return false;
        }
        for (const Index_Entry& entry : index->entries) {
            begins.add(entry);
        }
        offset = index->before;
    }
    return true;
}

}  // namespace

std::vector<std::uint64_t> find_begins(const Trace_Source& source, std::int64_t moment_ns) {
    Trace_Reader reader(source);
    if (reader.open()) {
        return {};
    }
    Begins begins(reader.streams().size(), moment_ns);
    auto last = index_by_end(source, reader);
    last = last ? last : index_from_behind(source, reader);
    if (!last || !add_indexes(reader, *last, begins)) {
        add_frames(reader, reader.begin(), begins);
    }
    return begins.offsets(source.size_bytes());
}

}  // namespace zav_shm::trace
