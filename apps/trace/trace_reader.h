// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "apps/trace/trace_format.h"
#include "apps/trace/trace_source.h"

namespace zav_shm::trace {

/// Where a trace cannot be read on, and what is wrong there.
struct Damage {
    std::uint64_t offset = 0;  // of the record, or of the header (0)
    std::string what;
    bool is_cut = false;  // the file ends within the record: its writer was killed, or had no room

    /// "at byte 4711: ..."
    std::string text() const;
};

/// One record. What it points to is valid until the next step of its reader.
struct Trace_Record {
    std::uint64_t offset = 0;
    Record_Head head;

    // By type.
    ZAV_SHM_Frame_Header frame = {};
    std::span<const std::byte> payload;
    Frame_Losses losses;
    Index index;
    End end;

    bool is_foreign() const { return (head.flags & record_flag::foreign) != 0; }
    std::int64_t moment_ns() const {
        return moment_of(frame, is_foreign(), head.received.monotonic_ns);
    }
};

/// Reads a trace from its begin to its end or to the first damage, and trusts nothing that stands
/// there: not a byte of a record that does not fit its checksums is handed out.
///
/// Threads  one; several readers may read one source.
/// Errors   are values. Memory is bounded by the length of the file and of its longest record.
class Trace_Reader {
public:
    enum class Step {
        record,
        end,         // behind the end record: the trace was closed in order
        not_closed,  // behind the last record, without an end: the writer is at work, or was killed
        damage
    };

    explicit Trace_Reader(const Trace_Source& source) : source_(source) {}

    /// Reads the file header and the streams.
    ///
    /// @return what makes the file unreadable. Damage behind the header comes up with next().
    std::optional<Damage> open();

    const File_Header& header() const { return header_; }
    const std::vector<Stream_Name>& streams() const { return streams_; }

    /// Of the first record behind the streams.
    std::uint64_t begin() const { return begin_; }

    /// From now on frames and losses of this stream only. What belongs to others is passed over
    /// unread, so that damage in it is not seen.
    void read_only(std::uint16_t stream) { only_ = stream; }

    /// The next record is the one at this offset.
    void go_to(std::uint64_t offset) {
        next_ = offset;
        behind_end_ = false;
    }

    Step next();

    /// What next() has found.
    const Trace_Record& record() const { return record_; }
    const Damage& damage() const { return damage_; }

    /// Where the next record begins.
    std::uint64_t offset() const { return next_; }

private:
    enum class Found { record, other, nothing, damage };

    Found find();
    bool is_wanted() const;
    bool read_head();
    bool read_body();
    bool understand_body();
    void read_streams();
    bool fail(std::string what, bool is_cut = false);

    const Trace_Source& source_;
    File_Header header_;
    std::vector<Stream_Name> streams_;
    std::optional<std::uint16_t> only_;
    std::uint64_t begin_ = 0;
    std::uint64_t next_ = 0;
    bool behind_end_ = false;  // the record before was the end
    Bytes body_;
    Trace_Record record_;
    Damage damage_;
};

}  // namespace zav_shm::trace
