// SPDX-License-Identifier: Apache-2.0
#include "apps/trace/trace_format.h"

#include <algorithm>
#include <cstring>

#include "ipc/monotonic_clock.h"

namespace zav_shm::trace {

namespace {

constexpr std::size_t checksum_bytes = 4;

// Older than this a frame cannot be when a reader gets it, whatever its header says.
constexpr std::int64_t history_max_ns = 3600 * ns_per_second;

// The checksum of what has been put since `begin`.
void put_checksum(Bytes& bytes, std::size_t begin) {
    put(bytes, checksum(std::span(bytes).subspan(begin)));
}

// Both directions name the fields once, in their order in the file.
template <class Header, class Use>
void each_field(Header& header, const Use& use) {
    use(header.magic);
    use(header.version);
    use(header.flags);
    use(header.sequence);
    use(header.payload_length);
    use(header.codec);
    use(header.epoch);
    use(header.publish_ns);
    use(header.pts_ns);
    use(header.utc_ns);
    use(header.width);
    use(header.height);
    use(header.rate_num);
    use(header.rate_den);
    use(header.channels);
    use(header.duration_us);
    for (auto& byte : header.reserved) {
        use(byte);
    }
    use(header.commit);
}

template <class Losses, class Use>
void each_cause(Losses& losses, const Use& use) {
    use(losses.overtaken);
    use(losses.left_out);
    use(losses.no_memory);
    use(losses.dropped);
    use(losses.skipped);
}

std::int64_t distance(std::int64_t from, std::int64_t to) {
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(to) -
                                     static_cast<std::uint64_t>(from));
}

}  // namespace

std::string Stream_Name::text() const {
    return producer + "/" + std::to_string(channel) + "/" + std::to_string(stream);
}

std::int64_t moment_of(const ZAV_SHM_Frame_Header& header, bool foreign, std::int64_t received_ns) {
    const std::int64_t age = distance(header.publish_ns, received_ns);
    return !foreign && age >= 0 && age <= history_max_ns ? header.publish_ns : received_ns;
}

Index_Entry index_entry(std::uint64_t offset, std::uint16_t stream,
                        const ZAV_SHM_Frame_Header& header, bool foreign,
                        std::int64_t received_ns) {
    constexpr auto decodable = frame_flag::key_frame | frame_flag::recovery_point;
    const bool is_entry_point = !foreign && (header.flags & decodable) != 0;
    return {.offset = offset,
            .moment_ns = moment_of(header, foreign, received_ns),
            .stream = stream,
            .flags = is_entry_point ? index_flag::entry_point : std::uint16_t{0}};
}

// ---- to bytes ----

void put(Bytes& bytes, const File_Header& header) {
    const std::size_t begin = bytes.size();
    put_text(bytes, {magic, sizeof magic});
    put(bytes, version);
    put(bytes, static_cast<std::uint16_t>(file_header_bytes));
    put_zeros(bytes, 4);
    put(bytes, header.id);
    put(bytes, header.begin.monotonic_ns);
    put(bytes, header.begin.utc_ns);
    put_zeros(bytes, begin + file_header_bytes - checksum_bytes - bytes.size());
    put_checksum(bytes, begin);
}

void put(Bytes& bytes, const Record_Head& head) {
    const std::size_t begin = bytes.size();
    put(bytes, record_mark);
    put(bytes, static_cast<std::uint16_t>(head.type));
    put(bytes, head.stream);
    put(bytes, head.flags);
    put(bytes, head.body_bytes);
    put(bytes, head.received.monotonic_ns);
    put(bytes, head.received.utc_ns);
    put(bytes, head.body_checksum);
    put_checksum(bytes, begin);
}

void put(Bytes& bytes, const Stream_Name& name) {
    put(bytes, name.channel);
    put(bytes, name.stream);
    put_text(bytes, name.producer);
}

void put(Bytes& bytes, const ZAV_SHM_Frame_Header& header) {
    each_field(header, [&](auto field) { put(bytes, field); });
}

void put(Bytes& bytes, const Frame_Losses& losses) {
    each_cause(losses, [&](std::uint64_t count) { put(bytes, count); });
}

void put(Bytes& bytes, const Index& index) {
    put(bytes, index.own_offset);
    put(bytes, index.id);
    put(bytes, index.before);
    put(bytes, static_cast<std::uint32_t>(index.entries.size()));
    put_zeros(bytes, 4);
    for (const Index_Entry& entry : index.entries) {
        put(bytes, entry.offset);
        put(bytes, entry.moment_ns);
        put(bytes, entry.stream);
        put(bytes, entry.flags);
        put_zeros(bytes, 4);
    }
}

void put(Bytes& bytes, const End& end) {
    put(bytes, end.id);
    put(bytes, end.last_index);
    put(bytes, end.frames);
}

// ---- from bytes ----

Read_Header read_file_header(std::span<const std::byte> bytes) {
    const std::size_t known = std::min(bytes.size(), sizeof magic);
    if (known == 0 || std::memcmp(bytes.data(), magic, known) != 0) {
        return {{}, "it is no trace"};
    }
    if (bytes.size() < file_header_bytes) {
        return {{},
                "it is cut in its header, of which " + std::to_string(bytes.size()) + " of " +
                    std::to_string(file_header_bytes) + " bytes are there"};
    }
    Byte_Reader reader(bytes.first(file_header_bytes));
    reader.take_bytes(sizeof magic);
    if (const auto other = reader.take<std::uint16_t>(); other != version) {
        return {{},
                "it is a trace of version " + std::to_string(other) + "; this program reads " +
                    std::to_string(version)};
    }
    reader.take_bytes(6);
    Read_Header read;
    reader.take_into(read.header.id);
    reader.take_into(read.header.begin.monotonic_ns);
    reader.take_into(read.header.begin.utc_ns);
    reader.take_bytes(20);
    const std::size_t checked = file_header_bytes - checksum_bytes;
    if (reader.take<std::uint32_t>() != checksum(bytes.first(checked))) {
        read.mistake = "its header is damaged: the checksum does not fit";
    }
    return read;
}

std::optional<Record_Head> read_record_head(std::span<const std::byte> bytes) {
    Byte_Reader reader(bytes);
    Record_Head head;
    const auto mark = reader.take<std::uint32_t>();
    head.type = static_cast<Record_Type>(reader.take<std::uint16_t>());
    reader.take_into(head.stream);
    reader.take_into(head.flags);
    reader.take_into(head.body_bytes);
    reader.take_into(head.received.monotonic_ns);
    reader.take_into(head.received.utc_ns);
    reader.take_into(head.body_checksum);
    const auto sum = reader.take<std::uint32_t>();
    const bool fits = !reader.is_short() && mark == record_mark &&
                      sum == checksum(bytes.first(record_head_bytes - checksum_bytes));
    return fits ? std::optional(head) : std::nullopt;
}

std::optional<Stream_Name> read_stream_name(std::span<const std::byte> body) {
    Byte_Reader reader(body);
    Stream_Name name;
    reader.take_into(name.channel);
    reader.take_into(name.stream);
    for (const std::byte byte : reader.rest()) {
        name.producer += static_cast<char>(byte);
    }
    const std::size_t length = name.producer.size();
    const bool fits = !reader.is_short() && length > 0 && length <= name_bytes_max &&
                      name.producer.find('\0') == std::string::npos;
    return fits ? std::optional(std::move(name)) : std::nullopt;
}

std::optional<ZAV_SHM_Frame_Header> read_frame_header(std::span<const std::byte> body,
                                                      bool foreign) {
    Byte_Reader reader(body);
    ZAV_SHM_Frame_Header header = {};
    each_field(header, [&](auto& field) { reader.take_into(field); });
    const bool is_ours = header.magic == frame_magic && header.version == frame_version;
    const bool fits =
        !reader.is_short() && header.payload_length == reader.rest().size() && (is_ours || foreign);
    return fits ? std::optional(header) : std::nullopt;
}

std::optional<Frame_Losses> read_losses(std::span<const std::byte> body) {
    Byte_Reader reader(body);
    Frame_Losses losses;
    each_cause(losses, [&](std::uint64_t& count) { reader.take_into(count); });
    return body.size() == loss_bytes ? std::optional(losses) : std::nullopt;
}

std::optional<Index> read_index(std::span<const std::byte> body) {
    Byte_Reader reader(body);
    Index index;
    reader.take_into(index.own_offset);
    reader.take_into(index.id);
    reader.take_into(index.before);
    const auto count = reader.take<std::uint32_t>();
    reader.take_bytes(4);
    if (reader.is_short() || count > index_entries_max ||
        reader.rest().size() != count * index_entry_bytes) {
        return {};
    }
    for (std::uint32_t i = 0; i < count; ++i) {
        Index_Entry entry;
        reader.take_into(entry.offset);
        reader.take_into(entry.moment_ns);
        reader.take_into(entry.stream);
        reader.take_into(entry.flags);
        reader.take_bytes(4);
        index.entries.push_back(entry);
    }
    return index;
}

std::optional<End> read_end(std::span<const std::byte> body) {
    Byte_Reader reader(body);
    End end;
    reader.take_into(end.id);
    reader.take_into(end.last_index);
    reader.take_into(end.frames);
    return body.size() == end_bytes ? std::optional(end) : std::nullopt;
}

}  // namespace zav_shm::trace
