// SPDX-License-Identifier: Apache-2.0
//
// Files of any bytes through the reader of traces, and through the search for a moment. An input
// that begins with the byte 1 has its checksums mended first, so that what stands behind them is
// reached, too.
#include <algorithm>
#include <vector>

#include "apps/trace/trace_reader.h"
#include "apps/trace/trace_seek.h"
#include "fuzz/fuzz_target.h"

namespace {

using namespace zav_shm;
using namespace zav_shm::trace;
using fuzz::require;
using Step = Trace_Reader::Step;

void write_checksum(Bytes& bytes, std::size_t at, std::uint32_t sum) {
    Bytes number;
    put(number, sum);
    std::copy(number.begin(), number.end(), bytes.begin() + static_cast<std::ptrdiff_t>(at));
}

// Record by record, by the lengths that stand there.
void mend_checksums(Bytes& bytes) {
    const auto part = [&](std::size_t at, std::size_t length) {
        return std::span<const std::byte>(bytes).subspan(at, length);
    };
    if (bytes.size() < file_header_bytes) {
        return;
    }
    write_checksum(bytes, file_header_bytes - 4, checksum(part(0, file_header_bytes - 4)));
    for (std::size_t at = file_header_bytes; bytes.size() - at >= record_head_bytes;) {
        Byte_Reader length(part(at + 12, 4));
        const std::size_t rest = bytes.size() - at - record_head_bytes;
        const auto body = std::min<std::size_t>(length.take<std::uint32_t>(), rest);
        write_checksum(bytes, at + 32, checksum(part(at + record_head_bytes, body)));
        write_checksum(bytes, at + 36, checksum(part(at, 36)));
        at += record_head_bytes + body;
    }
}

void check(const Trace_Reader& reader, const Trace_Memory& memory) {
    const Trace_Record& record = reader.record();
    require(record.offset + record_head_bytes + record.head.body_bytes == reader.offset(),
            "the next record begins behind this one");
    require(reader.offset() <= memory.size_bytes(), "a record lies within the file");
    if (record.head.type == Record_Type::frame) {
        require(record.head.stream < reader.streams().size(), "a frame is of a known stream");
        require(record.payload.size() == record.frame.payload_length &&
                    record.payload.size() + frame_header_bytes == record.head.body_bytes,
                "a payload is as long as its header says");
    }
    require(record.index.entries.size() <= index_entries_max, "an index is bounded");
}

void read(const Trace_Memory& memory, std::optional<std::uint16_t> only) {
    Trace_Reader reader(memory);
    if (const auto damage = reader.open()) {
        require(!damage->what.empty(), "what cannot be read says why");
        return;
    }
    require(reader.streams().size() <= streams_max, "streams are bounded");
    if (only) {
        reader.read_only(*only);
    }
    std::uint64_t before = reader.begin();
    Step step = Step::record;
    while ((step = reader.next()) == Step::record) {
        require(reader.record().offset >= before, "reading goes on");
        before = reader.offset();
        check(reader, memory);
    }
    if (step == Step::damage) {
        require(!reader.damage().what.empty() && reader.damage().offset <= memory.size_bytes(),
                "damage is named and lies in the file");
    } else {
        require(reader.offset() == memory.size_bytes(), "without damage all is read");
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) { return 0; }

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) {
        return 0;
    }
    const auto input = std::as_bytes(std::span<const uint8_t>(data, size)).subspan(2);
    Bytes bytes(input.begin(), input.end());
    if (data[0] == 1) {
        mend_checksums(bytes);
    }
    const Trace_Memory memory(bytes);
    read(memory, {});
    read(memory, 1);
    const auto moment_ns = std::int64_t{data[1]} * 100'000'000;
    for (const std::uint64_t offset : find_begins(memory, moment_ns)) {
        static_cast<void>(offset);  // whatever an index says: it is read as any other
    }
    return 0;
}
