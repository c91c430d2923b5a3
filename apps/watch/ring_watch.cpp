// SPDX-License-Identifier: Apache-2.0
#include "apps/watch/ring_watch.h"

#include <sys/stat.h>

#include <algorithm>
#include <span>
#include <utility>

#include "frame/frame_header.h"
#include "ipc/memory_fence.h"

namespace zav_shm::watch {

namespace {

// How far back the first look goes for key frames, and how many entries a later one reads: 128 KiB.
constexpr std::uint64_t entries_max = 4096;

constexpr int attempts_max = 100;

// Two reads that agree show no byte half written.
std::optional<std::uint64_t> bytes_written(const Ring_Memory& ring) {
    const auto read = [&ring]() -> std::optional<std::uint64_t> {
        std::uint64_t value = 0;
        const bool is_there =
            ring.copy(ring_bytes_offset, std::as_writable_bytes(std::span(&value, 1)));
        return is_there ? std::optional(value) : std::nullopt;
    };
    std::optional<std::uint64_t> former = read();
    for (int i = 0; i < attempts_max && former; ++i) {
        const auto now = read();
        if (now == former) {
            return now;
        }
        former = now;
    }
    return std::nullopt;
}

std::uint64_t payload_of(std::uint64_t record_bytes, std::uint64_t frames) {
    const bool has_headers = frames <= record_bytes / sizeof(ZAV_SHM_Frame_Header);
    return has_headers ? record_bytes - frames * sizeof(ZAV_SHM_Frame_Header) : 0;
}

Stream::State state_of(const Ring_Memory& ring) {
    const auto state = ring.load(ring_state_offset);
    if (state == ring_state::closed) {
        return Stream::State::closed;
    }
    return state == ring_state::live && ring.has_writer() ? Stream::State::live
                                                          : Stream::State::left;
}

// The room between two records, the oldest and the newest.
std::uint64_t bytes_between(const Ring_Entry& oldest, const Ring_Entry& newest,
                            std::uint32_t data_bytes) {
    const std::uint64_t begin = oldest.offset;
    const std::uint64_t end = std::uint64_t{newest.offset} + newest.length;
    return std::min<std::uint64_t>(end > begin ? end - begin : end + data_bytes - begin,
                                   data_bytes);
}

void tell_history(const Ring_Watch::Look& look, Stream& stream) {
    stream.history.bytes_of_room = look.reader().memory().facts().data_bytes;
    const std::uint64_t first = look.oldest();
    const std::uint64_t last = look.newest();
    const auto newest = look.entry(last);
    const auto oldest = look.entry(first);
    if (first > last || !oldest || !newest) {
        return;
    }
    stream.history.frames =
        std::min<std::uint64_t>(last - first + 1, look.reader().memory().facts().index_count);
    stream.history.ns = time_since(oldest->time_ns, newest->time_ns).value_or(0);
    stream.history.bytes =
        bytes_between(*oldest, *newest, look.reader().memory().facts().data_bytes);
}

void tell_format(const Ring_Watch::Look& look, Stream& stream) {
    const std::uint64_t number = look.newest();
    const auto entry = look.entry(number);
    const Ring_Memory& ring = look.reader().memory();
    ZAV_SHM_Frame_Header header{};
    if (!entry || entry->length < sizeof header ||
        !ring.copy(ring.record_offset(*entry), std::as_writable_bytes(std::span(&header, 1))) ||
        !look.reader().is_in_reach(number) || !is_ours(header)) {
        return;
    }
    stream.codec = header.codec;
    stream.width = header.width;
    stream.height = header.height;
    stream.left_out = header.sequence > number ? header.sequence - number : 0;
}

}  // namespace

std::optional<std::int64_t> time_since(std::int64_t then_ns, std::int64_t now_ns) {
    return then_ns > 0 ? std::optional(now_ns > then_ns ? now_ns - then_ns : 0) : std::nullopt;
}

std::optional<double> rate_of(std::uint64_t now, std::uint64_t before, std::int64_t interval_ns) {
    if (now < before || interval_ns <= 0) {
        return std::nullopt;
    }
    return static_cast<double>(now - before) * 1e9 / static_cast<double>(interval_ns);
}

// ---- one look ----

std::uint64_t Ring_Watch::Look::behind(std::uint32_t cursor) const {
    const auto next = static_cast<std::uint32_t>(newest()) + 1;
    return static_cast<std::uint64_t>(std::max(ring_distance(next, cursor), 0));
}

std::optional<Ring_Entry> Ring_Watch::Look::entry(std::uint64_t number) const {
    Ring_Entry found;
    const std::uint64_t offset = reader_.memory().entry_offset(static_cast<std::uint32_t>(number));
    const bool is_there =
        number >= std::max<std::uint64_t>(oldest_, 1) && number <= newest_ &&
        reader_.memory().copy(offset, std::as_writable_bytes(std::span(&found, 1))) &&
        reader_.is_in_reach(number) && reader_.is_sound(found, number);
    return is_there ? std::optional(found) : std::nullopt;
}

// Of what is overwritten the time is not known any more: then as if frames had come before at the
// pace of those that are there.
std::optional<std::int64_t> Ring_Watch::Look::unread_since(std::uint32_t cursor) const {
    const std::uint64_t unread = behind(cursor);
    const std::uint64_t last = newest();
    const std::uint64_t first = oldest();
    if (unread == 0 || last == 0 || first > last) {
        return std::nullopt;
    }
    const std::uint64_t next = last - std::min(unread, last) + 1;
    const auto there = entry(std::max(next, first));
    const auto newest_there = next < first ? entry(last) : std::nullopt;
    if (!there || !newest_there || last == first) {
        return there ? std::optional(there->time_ns) : std::nullopt;
    }
    const auto held_ns =
        static_cast<double>(time_since(there->time_ns, newest_there->time_ns).value_or(0));
    const double before_ns =
        held_ns / static_cast<double>(last - first) * static_cast<double>(first - next);
    const bool is_sane = before_ns < static_cast<double>(there->time_ns);
    return is_sane ? there->time_ns - static_cast<std::int64_t>(before_ns) : 0;
}

// Times grow from record to record.
std::optional<std::int64_t> Ring_Watch::Look::first_time_after(std::int64_t time_ns) const {
    std::uint64_t low = oldest();
    std::uint64_t high = newest();
    const auto last = entry(high);
    if (low > high || !last || last->time_ns <= time_ns) {
        return std::nullopt;
    }
    std::int64_t found_ns = last->time_ns;
    while (low < high) {
        const std::uint64_t middle = low + (high - low) / 2;
        const auto there = entry(middle);
        if (there && there->time_ns > time_ns) {
            found_ns = there->time_ns;
            high = middle;
        } else {
            low = middle + 1;
        }
    }
    return found_ns;
}

// At once, in two pieces where the index comes to its end. What is overwritten meanwhile is told by
// the tail afterwards.
std::vector<Ring_Entry> Ring_Watch::Look::entries(std::uint64_t& first, std::uint64_t last) const {
    const Ring_Memory& ring = reader_.memory();
    const std::uint64_t count =
        std::min<std::uint64_t>({last + 1 - first, entries_max, ring.facts().index_count});
    first = last + 1 - count;
    std::vector<Ring_Entry> found(static_cast<std::size_t>(count));
    const std::uint64_t slot = first & (ring.facts().index_count - 1);
    const auto in_one_piece =
        static_cast<std::size_t>(std::min<std::uint64_t>(count, ring.facts().index_count - slot));
    const auto read = [&](std::uint64_t number, std::span<Ring_Entry> into) {
        return into.empty() || ring.copy(ring.entry_offset(static_cast<std::uint32_t>(number)),
                                         std::as_writable_bytes(into));
    };
    if (!read(first, std::span(found).first(in_one_piece)) ||
        !read(first + in_one_piece, std::span(found).subspan(in_one_piece))) {
        return {};
    }
    std::size_t bad = 0;
    for (std::size_t i = 0; i < found.size(); ++i) {
        if (!reader_.is_sound(found[i], first + i)) {
            bad = i + 1;
        }
    }
    acquire_fence();  // pairs with the one in Ring_Writer::reserve()
    const std::uint64_t oldest = reader_.oldest();
    const std::uint64_t lost = oldest > first ? std::min(oldest - first, count) : 0;
    const std::size_t left_out = std::max(bad, static_cast<std::size_t>(lost));
    found.erase(found.begin(), found.begin() + static_cast<std::ptrdiff_t>(left_out));
    first += left_out;
    return found;
}

// ---- over time ----

std::optional<Ring_Watch::Look> Ring_Watch::look(const std::string& path, std::int64_t now_ns,
                                                 Process_Watch& processes, Stream& stream) {
    Ring_Problem problem;
    auto memory = Ring_Memory::open(path, Ring_Memory::Reading::copied, problem);
    if (!memory) {
        stream.state = Stream::State::unread;
        stream.problem = problem.text;
        past_ = {};
        return std::nullopt;
    }
    const Ring_Facts& facts = memory->facts();
    if (facts.epoch != past_.epoch) {
        past_ = {};
        past_.epoch = facts.epoch;
    }
    struct stat status {};
    const bool has_owner = lstat(path.c_str(), &status) == 0;
    stream.state = state_of(*memory);
    stream.epoch = facts.epoch;
    stream.writer =
        processes.look(has_owner ? facts.writer_pid : 0, status.st_uid, facts.created_ns);
    stream.writer.pid = facts.writer_pid;
    Look look(std::move(memory));
    tell_rates(now_ns, look, note_entries(look), stream);
    tell_key_frames(now_ns, stream);
    tell_history(look, stream);
    tell_format(look, stream);
    if (stream.frames > 0) {
        stream.age_ns = time_since(past_.newest_ns, now_ns);
    }
    return look;
}

Ring_Watch::News Ring_Watch::note_entries(const Look& look) {
    News news;
    const std::uint64_t last = look.newest();
    std::uint64_t first = std::max(look.oldest(), past_.noted + 1);
    if (first > last) {
        return news;
    }
    const std::vector<Ring_Entry> entries = look.entries(first, last);
    if (first != past_.noted + 1) {
        past_.key.reset();  // there may have been others between it and the next
    }
    for (const Ring_Entry& entry : entries) {
        if ((entry.flags & ring_flag::key) != 0) {
            note_key_frame({first + news.count, entry.time_ns});
        }
        past_.newest_ns = entry.time_ns;
        ++news.count;
        news.bytes += entry.length;
    }
    past_.noted = last;
    return news;
}

// A writer that does not count its bytes has written as many with each frame as with those that
// are seen.
void Ring_Watch::tell_rates(std::int64_t now_ns, const Look& look, const News& news,
                            Stream& stream) {
    stream.frames = look.newest();
    const std::uint64_t written = bytes_written(look.reader().memory()).value_or(0);
    if (written != 0) {
        stream.bytes = payload_of(written, stream.frames);
    }
    const std::int64_t interval_ns = past_.taken_ns != 0 ? now_ns - past_.taken_ns : 0;
    const auto frames = rate_of(stream.frames, past_.frames, interval_ns);
    const auto seen = static_cast<double>(payload_of(news.bytes, news.count));
    const double mean = news.count != 0 ? seen / static_cast<double>(news.count) : 0;
    const auto bytes = stream.bytes ? rate_of(*stream.bytes, past_.bytes, interval_ns)
                                    : std::optional(frames.value_or(0) * mean);
    if (frames && bytes) {
        stream.rates = Stream::Rates{*frames, *bytes * 8};
    }
    past_.taken_ns = now_ns;
    past_.frames = stream.frames;
    past_.bytes = stream.bytes.value_or(0);
}

void Ring_Watch::note_key_frame(const Key_Frame& key) {
    if (past_.key) {
        past_.key_interval_ns = time_since(past_.key->time_ns, key.time_ns);
        past_.key_interval_frames = key.number - past_.key->number;
    }
    past_.key = key;
    past_.key_ns = key.time_ns;
}

void Ring_Watch::tell_key_frames(std::int64_t now_ns, Stream& stream) const {
    stream.key_age_ns = time_since(past_.key_ns, now_ns);
    stream.key_interval_ns = past_.key_interval_ns;
    stream.key_interval_frames = past_.key_interval_frames;
}

}  // namespace zav_shm::watch
