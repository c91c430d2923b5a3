// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "ipc/descriptor.h"
#include "ipc/ring_place.h"
#include "ring/ring_layout.h"

namespace zav_shm {

/// How large a ring is to be.
struct Ring_Size {
    // What is kept at least, in records of any lengths with their alignment. A room that is much
    // larger than what is committed of it may for a while cost as much as the greatest record.
    std::uint32_t history_bytes = 0;
    std::uint32_t record_max = 0;  // bytes of the greatest record
    std::uint32_t records = 0;     // that are kept at most; 0: history_bytes / 1024, 64 .. 65536

    /// The whole file; nothing when a limit is exceeded, with the reason.
    std::optional<std::uint64_t> file_bytes(std::string* reason = nullptr) const;
};

/// Why there is no ring to be had, in one line that names it.
struct Ring_Problem {
    enum class Kind {
        none,
        absent,      // nobody has made it yet
        forbidden,   // no right to it
        no_room,     // in the file system, or in the address space
        held,        // another writer has it
        unreadable,  // it is there and is no ring of this version, or not whole
        system
    };
    Kind kind = Kind::none;
    std::string text;
    pid_t holder = 0;  // of `held`; 0 when it is not known

    explicit operator bool() const { return kind != Kind::none; }
};

/// The folder that a ring's name lies in.
std::string ring_folder(const std::string& path);

/// True while somebody writes the ring of this name. Some system calls.
bool is_ring_written(const std::string& path);

/// The memory of one ring: the file, or private memory, with its facts.
///
/// Owner    of the mapping and the descriptor. Destroying it leaves the file.
/// Threads  of its own none; the words are atomic, everything else is constant.
/// Crash    a reader that maps a ring trusts its publisher not to shrink the file: what is gone of
///          it raises SIGBUS. Opened as `copied` it maps the header alone and reads everything with
///          pread: then a file that shrinks is an error value.
class Ring_Memory {
public:
    enum class Reading { mapped, copied };

    /// Makes the file under the name `path`.new, with all facts in it, and renames it: a reader
    /// finds a whole ring or none. Whatever had the name keeps its readers. The file is locked as
    /// long as this object lives, which is the writer's sign of life.
    ///
    /// @param mode   of the file
    /// @param group  of the file; nothing: the folder's, where that is set so (setgid)
    static std::shared_ptr<Ring_Memory> make(const std::string& path, const Ring_Size& size,
                                             const Ring_Facts& facts, mode_t mode,
                                             std::optional<gid_t> group, Ring_Problem& problem);

    /// A ring that only this process sees, for a reader that cannot have the writer's.
    static std::shared_ptr<Ring_Memory> make_private(const Ring_Size& size, const Ring_Facts& facts,
                                                     Ring_Problem& problem);

    /// Opens a ring to read.
    static std::shared_ptr<Ring_Memory> open(const std::string& path, Reading reading,
                                             Ring_Problem& problem);

    ~Ring_Memory();
    Ring_Memory(const Ring_Memory&) = delete;
    Ring_Memory& operator=(const Ring_Memory&) = delete;

    const Ring_Facts& facts() const { return facts_; }

    /// Loads one of the words that change. Nothing when the file has lost it.
    std::optional<std::uint32_t> load(std::size_t offset) const;
    void store_release(std::size_t offset, std::uint32_t value);

    /// The word to sleep on.
    const std::uint32_t* head_word() const { return word(ring_head_offset); }
    const std::uint32_t* awaited_word() const { return word(ring_awaited_offset); }

    /// Copies bytes of the file out.
    ///
    /// @return false when they are not there (any more).
    bool copy(std::uint64_t offset, std::span<std::byte> into) const;

    /// Where bytes of the file lie; null for a ring that is read by copying.
    const std::byte* at(std::uint64_t offset) const {
        return reading_ == Reading::mapped ? base_ + offset : nullptr;
    }
    std::byte* writable_at(std::uint64_t offset) { return base_ + offset; }
    void write_entry(std::uint32_t number, const Ring_Entry& entry);

    /// The bytes of all records, which the writer keeps for displays.
    void write_bytes(std::uint64_t bytes);

    std::uint64_t entry_offset(std::uint32_t number) const {
        return ring_header_bytes +
               std::uint64_t{number & (facts_.index_count - 1)} * sizeof(Ring_Entry);
    }
    std::uint64_t record_offset(const Ring_Entry& entry) const {
        return std::uint64_t{facts_.data_offset} + entry.offset;
    }

    /// Which file it is, however it is called by now; 0 for private memory.
    std::uint64_t inode() const { return inode_; }

    /// True while the writer lives, also one in another PID namespace, and for private memory.
    bool has_writer() const;

    /// True when the file is shorter than it was.
    bool has_shrunk() const;

private:
    Ring_Memory() = default;
    bool map(std::uint64_t bytes, int protection, int flags);
    void begin(const Ring_Facts& facts);
    const std::uint32_t* word(std::size_t offset) const {
        const void* const there = base_ + offset;
        return static_cast<const std::uint32_t*>(there);
    }
    std::uint32_t* writable_word(std::size_t offset) {
        void* const there = base_ + offset;
        return static_cast<std::uint32_t*>(there);
    }

    Ring_Facts facts_;
    Reading reading_ = Reading::mapped;
    Descriptor file_;  // none: private memory
    bool is_writers_ = false;
    std::uint64_t inode_ = 0;
    std::byte* base_ = nullptr;
    std::size_t mapped_bytes_ = 0;
    std::uint64_t file_bytes_ = 0;
};

}  // namespace zav_shm
