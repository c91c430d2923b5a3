// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

#include "ipc/descriptor.h"
#include "ring/ring_memory.h"

namespace zav_shm {

// A reader's card, version 1: one file of 4096 bytes beside the rings for each reader that wants to
// be seen, "<16 hexadecimal digits>.reader". It says who reads what and how far it is. Its reader
// alone writes it, and keeps it locked while it lives (ipc/file_lock.h). Whoever wants to know
// reads it with pread: the status, a display, a writer that waits for its readers. Device byte
// order.
//
//   off size field         unit    rule
//     0   4  magic         -       "ZAVK"
//     4   2  version       -       1
//     6   2  flags         -       1 reads without a name, 2 is fed through its relay
//     8   4  pid           -       as the reader sees itself
//    12   4  channel       -
//    16   4  stream        -
//    20   4  reserved      -       0
//    24   8  since_ns      ns      CLOCK_MONOTONIC when it began
//    32  32  consumer      -       its name, ended by zero bytes; empty without one
//    64  32  producer      -       whose ring it reads
//   128   4  cursor        -       lower half of the number that it reads next; with epoch alone on
//                                  its cache line
//   136   8  epoch         -       of the ring that the cursor is of; 0 while it has none
//   192  ..  counters      -       as below, each of 64 bits, from the reader's begin on
//  1024      latency       -       256 counters of 32 bits: frames by age (Latency_Histogram)
//
// A counter may be seen half written on a 32-bit processor, once in 2^32 events.
struct Reader_Card {
    enum Flags : std::uint16_t { nameless = 1, relayed = 2 };

    struct Counters {
        std::uint64_t frames = 0;      // taken
        std::uint64_t bytes = 0;       // of their payload
        std::uint64_t key_frames = 0;  // among them
        std::uint64_t overtaken = 0;   // lost: the reader was slower than the history is long
        std::uint64_t left_out = 0;    // lost: they never were in the ring
        std::uint64_t dropped = 0;     // passed over as the reader wants the newest only
        std::uint64_t skipped = 0;     // passed over on the way to a key frame
        std::uint64_t torn = 0;
        std::uint64_t invalid = 0;
        std::uint64_t no_memory = 0;
        std::uint64_t foreign = 0;
        std::uint64_t repeated = 0;
        std::uint64_t recoveries = 0;
        std::int64_t last_frame_ns = 0;  // CLOCK_MONOTONIC
        std::int64_t last_key_frame_ns = 0;
        std::int64_t last_publish_ns = 0;
        std::uint64_t last_sequence = 0;
    };

    char magic[4] = {'Z', 'A', 'V', 'K'};
    std::uint16_t version = 1;
    std::uint16_t flags = 0;
    std::uint32_t pid = 0;
    std::int32_t channel = 0;
    std::int32_t stream = 0;
    std::uint32_t reserved_1 = 0;
    std::int64_t since_ns = 0;
    char consumer[32] = {};
    char producer[32] = {};
    std::uint8_t reserved_2[32] = {};
    std::uint32_t cursor = 0;
    std::uint32_t reserved_3 = 0;
    std::uint64_t epoch = 0;
    std::uint8_t reserved_4[48] = {};
    Counters counters;
    std::uint8_t reserved_5[1024 - 192 - sizeof(Counters)] = {};
    std::uint32_t latency[256] = {};
    std::uint8_t reserved_6[2048] = {};
};
static_assert(sizeof(Reader_Card) == 4096);
static_assert(offsetof(Reader_Card, since_ns) == 24);
static_assert(offsetof(Reader_Card, producer) == 64);
static_assert(offsetof(Reader_Card, cursor) == 128);
static_assert(offsetof(Reader_Card, epoch) == 136);
static_assert(offsetof(Reader_Card, counters) == 192);
static_assert(offsetof(Reader_Card, latency) == 1024);
static_assert(std::is_trivially_copyable_v<Reader_Card>);

/// The card of a reader of this process. Where no file can be had it is private memory: the reader
/// counts as ever, and nobody sees it.
///
/// Owner    of the file, which goes with it.
/// Threads  one writes the card; any reads it.
/// Crash    the kernel gives the lock of a killed reader up, and whoever sweeps removes the file.
class Own_Card {
public:
    /// A name that no other card has.
    static std::string new_name();

    /// @param folder  of the rings
    /// @param name    by new_name()
    /// @param first   what it says to begin with
    Own_Card(const std::string& folder, const std::string& name, const Reader_Card& first);
    ~Own_Card();
    Own_Card(const Own_Card&) = delete;
    Own_Card& operator=(const Own_Card&) = delete;

    Reader_Card& operator*() const { return *card_; }
    Reader_Card* operator->() const { return card_; }

    /// Says which record of which ring the reader reads next, and wakes a writer that waits for
    /// that.
    void move_to(const Ring_Memory& ring, std::uint64_t number);
    void set_producer(const std::string& producer);

    /// True when the card's file has its name in this folder.
    bool is_in(const std::string& folder) const;

    /// Makes the file anew, in this folder, with what the card says. Without success it stays as it
    /// was. What `*` and `->` returned before is gone.
    void move_into(const std::string& folder);

private:
    bool make_file(const std::string& path, const Reader_Card& first);
    void leave_file();

    const std::string name_;
    std::string path_;
    Descriptor file_;
    Reader_Card* card_ = nullptr;  // the mapping of the file, or private_
    std::unique_ptr<Reader_Card> private_;
};

/// Adds to a counter of the own card; whoever looks meanwhile sees the former value or the new one.
template <class Counter>
void count(Counter& counter, std::uint64_t by = 1) {
    const Counter former = __atomic_load_n(&counter, __ATOMIC_RELAXED);
    __atomic_store_n(&counter, static_cast<Counter>(former + by), __ATOMIC_RELAXED);
}

template <class Field>
void set(Field& field, Field value) {
    __atomic_store_n(&field, value, __ATOMIC_RELAXED);
}

/// A card of any reader, as a file.
class Seen_Card {
public:
    Seen_Card(const std::string& folder, const std::string& name);

    /// False when its reader is gone; whoever may, removes the file.
    bool is_alive() const;

    /// What it says; nothing when it is no card. Every name in it ends within its field.
    std::optional<Reader_Card> read() const;

    /// Only what a waiting writer asks for: epoch and cursor.
    struct Position {
        std::uint64_t epoch = 0;
        std::uint32_t cursor = 0;
    };
    std::optional<Position> position() const;

    const std::string& name() const { return name_; }

private:
    std::string name_;
    Descriptor file_;
};

/// The names of all cards in a folder.
std::vector<std::string> card_names(const std::string& folder);

}  // namespace zav_shm
