// SPDX-License-Identifier: Apache-2.0
//
// zav_test_ring_role write PATH HISTORY RECORD_MAX INDEX RECORDS PAUSE_US
// zav_test_ring_role read PATH mapped|copied|in_place RECORDS
// zav_test_ring_role scribble PATH header|ring
// zav_test_ring_role shrink PATH
//
// The processes under test: of this build, or of another one, 32 bits wide beside 64.
//
// A writer fills records of all lengths with bytes that tell which record they are of, with a pause
// behind each or as fast as it can; RECORDS of them, or with 0 until SIGTERM. A reader checks every
// byte of what it is handed, is overtaken on purpose again and again, and ends when it has had
// RECORDS whole ones, or with 0 at the writer's end; it tells what it saw, and fails if a byte was
// wrong. Who scribbles writes anything anywhere into the file until it is killed, and who shrinks
// gives it other lengths.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "ipc/monotonic_clock.h"
#include "ring/pattern.h"
#include "ring/ring_follower.h"
#include "ring/ring_writer.h"

using namespace zav_shm;
using Look = Ring_Reader::Look;
using Reading = Ring_Memory::Reading;

namespace {

constexpr std::int64_t ms = 1'000'000;

std::atomic<bool> ends{false};

void end_at_sigterm() {
    struct sigaction action = {};
    action.sa_handler = [](int) { ends = true; };
    sigaction(SIGTERM, &action, nullptr);
}

void tell(const std::string& line) {
    std::puts(line.c_str());
    std::fflush(stdout);
}

// ---- writing ----

int write_records(const std::string& path, const Ring_Size& size, std::uint64_t records,
                  std::chrono::microseconds pause) {
    Ring_Problem problem;
    const auto writer = Ring_Writer::open(path, size, problem);
    if (!writer) {
        tell("refused: " + problem.text);
        return 3;
    }
    tell("open");
    while (!ends && (records == 0 || writer->last() < records)) {
        const std::uint64_t number = writer->last() + 1;
        const std::size_t length = length_of_record(number, size.record_max);
        // Now and then a room of the greatest size, of which less is committed.
        const bool is_loan = number % 16 == 0;
        const std::span<std::byte> room = writer->reserve(is_loan ? size.record_max : length);
        fill_with_pattern(room.first(length), number);
        writer->commit(length, tags_of_record(number));
        if (pause.count() > 0) {
            std::this_thread::sleep_for(pause);
        }
    }
    tell("wrote " + std::to_string(writer->last()));
    return 0;
}

// ---- reading ----

class Reader_Role {
public:
    Reader_Role(const std::string& path, const std::string& way, std::uint64_t records)
        : in_place_(way == "in_place"),
          wanted_(records),
          follower_(path, way == "copied" ? Reading::copied : Reading::mapped) {}

    int run() {
        while (wanted_ == 0 || whole_ < wanted_) {
            Ring_Reader* const reader = follower_.reader();
            if (reader == nullptr) {
                wait_for_news();
                continue;
            }
            Ring_Record record;
            const bool is_last_look = is_over(*reader);
            switch (reader->look(record)) {
                case Look::record:
                    take(*reader, record);
                    break;
                case Look::overtaken:
                    go_on(*reader);
                    break;
                case Look::nothing:
                    if (is_last_look) {
                        return summary();
                    }
                    wait_for_news();
                    break;
                case Look::broken:
                    tell("broken at " + std::to_string(reader->cursor()));
                    return 4;
            }
        }
        return summary();
    }

private:
    void wait_for_news() {
        if (follower_.changes_over()) {
            follower_.reader()->move_to(1);
            tell("open");
        } else {
            follower_.wait(monotonic_ns() + 1000 * ms);
            asks_for_writer_ = true;
        }
    }

    // Asked before a look: what the writer wrote last is there by then.
    bool is_over(const Ring_Reader& reader) {
        return reader.is_closed() ||
               (std::exchange(asks_for_writer_, false) && !reader.memory().has_writer());
    }

    void take(Ring_Reader& reader, const Ring_Record& record) {
        const std::size_t length = record.entry.length;
        const std::span<const std::byte> bytes = in_place_ ? record.bytes : copied(reader, record);
        if (in_place_) {
            stand_still_sometimes(reader, record.number);
        }
        const bool is_right = bytes.size() == length && holds_pattern(bytes, record.number) &&
                              length == length_of_record(record.number, greatest(reader)) &&
                              has_tags_of_record(record.entry, record.number);
        if (!reader.is_in_reach(record.number)) {
            ++overtaken_in_use_;
        } else if (is_right) {
            ++whole_;
        } else {
            ++wrong_;
            tell("wrong: " + std::to_string(record.number) + " of " + std::to_string(length));
        }
        reader.advance();
    }

    // Until it is overtaken.
    void stand_still_sometimes(const Ring_Reader& reader, std::uint64_t number) {
        if (++uses_ % stands_still_every == 0) {
            const std::int64_t end = monotonic_ns() + 2 * ms;
            while (reader.is_in_reach(number) && monotonic_ns() < end) {
            }
        }
    }

    // In two halves.
    std::span<const std::byte> copied(const Ring_Reader& reader, const Ring_Record& record) {
        buffer_.resize(record.entry.length);
        const std::span<std::byte> whole(buffer_);
        const std::size_t half = whole.size() / 2;
        bool is_there = reader.copy(record, 0, whole.first(half));
        stand_still_sometimes(reader, record.number);
        is_there = reader.copy(record, half, whole.subspan(half)) && is_there;
        return is_there ? whole : std::span<std::byte>();
    }

    // At the very end of the history half of the times, where it is overtaken again soonest.
    void go_on(Ring_Reader& reader) {
        const std::uint64_t before = reader.cursor();
        reader.move_to(++overtaken_ % 2 == 0 ? reader.oldest() : reader.safe_oldest());
        lost_ += reader.cursor() - before;
    }

    static std::size_t greatest(const Ring_Reader& reader) {
        return reader.memory().facts().record_max;
    }

    int summary() const {
        std::printf("whole %" PRIu64 " overtaken_in_use %" PRIu64 " overtaken %" PRIu64
                    " lost %" PRIu64 " wrong %" PRIu64 "\n",
                    whole_, overtaken_in_use_, overtaken_, lost_, wrong_);
        return wrong_ == 0 ? 0 : 1;
    }

    static constexpr std::uint64_t stands_still_every = 256;

    const bool in_place_;
    const std::uint64_t wanted_;
    Ring_Follower follower_;
    std::vector<std::byte> buffer_;
    bool asks_for_writer_ = false;
    std::uint64_t uses_ = 0;
    std::uint64_t whole_ = 0;
    std::uint64_t overtaken_in_use_ = 0;
    std::uint64_t overtaken_ = 0;
    std::uint64_t lost_ = 0;  // by being overtaken before a copy
    std::uint64_t wrong_ = 0;
};

// ---- scribbling ----

/// The words of a file, to be changed at random.
class Scribbler {
public:
    Scribbler(std::span<std::uint32_t> words, bool changes_header)
        : words_(words),
          changes_header_(changes_header),
          index_words_(words[2] * sizeof(Ring_Entry) / sizeof(std::uint32_t)) {}

    // Some of it goes anywhere; the rest is what leads a reader on: heads and tails near each
    // other, and entries that are nearly right.
    void scribble_once() {
        switch (random() % 16) {
            case 0:
                put(ring_head_offset / word, 1000 + random() % 300);
                break;
            case 1:
                put(ring_tail_offset / word, 900 + random() % 300);
                break;
            case 2:
                put(ring_state_offset / word, random() % 2);
                break;
            case 3:
                put(first_entry + random() % index_words_, random());
                break;
            case 4:
                put(random() % first_entry, random());
                break;
            case 5:
                put(random() % words_.size(), random());
                break;
            default:
                put_entry(random() % (index_words_ / entry_words));
        }
    }

private:
    static constexpr std::size_t word = sizeof(std::uint32_t);
    static constexpr std::size_t first_entry = ring_header_bytes / word;
    static constexpr std::size_t entry_words = sizeof(Ring_Entry) / word;

    std::uint32_t random() { return static_cast<std::uint32_t>(engine_()); }

    void put(std::size_t at, std::uint32_t value) {
        if (changes_header_ || at >= sizeof(Ring_Facts) / word) {
            __atomic_store_n(&words_[at], value, __ATOMIC_RELAXED);
        }
    }

    void put_entry(std::size_t which) {
        const std::size_t at = first_entry + which * entry_words;
        put(at, random() % (words_.size() * word) & ~63U);
        put(at + 1, random() % 5000);
        put(at + 2, random() % 2);
        put(at + 3, 0);
    }

    const std::span<std::uint32_t> words_;
    const bool changes_header_;
    const std::size_t index_words_;
    std::mt19937 engine_{static_cast<std::uint32_t>(getpid())};
};

int scribble(const std::string& path, bool changes_header) {
    const int file = open(path.c_str(), O_RDWR | O_CLOEXEC);
    struct stat status {};
    if (file < 0 || fstat(file, &status) != 0) {
        return 1;
    }
    const auto bytes = static_cast<std::size_t>(status.st_size);
    void* const memory = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    if (memory == MAP_FAILED) {
        return 1;
    }
    Scribbler scribbler({static_cast<std::uint32_t*>(memory), bytes / sizeof(std::uint32_t)},
                        changes_header);
    tell("open");
    for (;;) {
        scribbler.scribble_once();
    }
}

int shrink(const std::string& path) {
    std::mt19937 engine(7);
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) {
        return 1;
    }
    tell("open");
    for (;;) {
        const auto length = static_cast<off_t>(engine()) % (status.st_size + 1);
        if (truncate(path.c_str(), length) != 0 || truncate(path.c_str(), status.st_size) != 0) {
            return 1;
        }
    }
}

std::uint64_t number_from(const char* text) { return std::strtoull(text, nullptr, 10); }

}  // namespace

int main(int argc, char** argv) {
    end_at_sigterm();
    const std::string role = argc > 2 ? argv[1] : "";
    if (role == "write" && argc == 8) {
        const Ring_Size size{static_cast<std::uint32_t>(number_from(argv[3])),
                             static_cast<std::uint32_t>(number_from(argv[4])),
                             static_cast<std::uint32_t>(number_from(argv[5]))};
        const std::chrono::microseconds pause(number_from(argv[7]));
        return write_records(argv[2], size, number_from(argv[6]), pause);
    }
    if (role == "read" && argc == 5) {
        return Reader_Role(argv[2], argv[3], number_from(argv[4])).run();
    }
    if (role == "scribble" && argc == 4) {
        return scribble(argv[2], argv[3] == std::string("header"));
    }
    if (role == "shrink" && argc == 3) {
        return shrink(argv[2]);
    }
    std::fputs("zav_test_ring_role write|read|scribble|shrink PATH ...: see its source\n", stderr);
    return 2;
}
