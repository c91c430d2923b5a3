// SPDX-License-Identifier: Apache-2.0
#include "apps/tool/trace_account.h"

#include <algorithm>
#include <cstdio>

#include "apps/tool/text_table.h"

namespace zav_shm::tool {

namespace {

constexpr double ns_per_s = 1e9;

std::string with_three_decimals(double value) {
    char text[64];
    std::snprintf(text, sizeof text, "%.3f", value);
    return text;
}

Json::Value json_of(std::uint64_t number) { return static_cast<Json::UInt64>(number); }

std::string picture_of(const ZAV_SHM_Frame_Header& header) {
    return header.width == 0 ? "-"
                             : std::to_string(header.width) + "x" + std::to_string(header.height);
}

}  // namespace

Trace_Account::Trace_Account(const std::vector<trace::Stream_Name>& names) {
    for (const trace::Stream_Name& name : names) {
        streams_.emplace_back();
        streams_.back().title = name.text();
    }
}

void Trace_Account::add(const trace::Trace_Record& record) {
    const bool is_frame = record.head.type == trace::Record_Type::frame;
    if (!is_frame && record.head.type != trace::Record_Type::loss) {
        return;
    }
    Stream& stream = streams_.at(record.head.stream);
    if (is_frame) {
        add_frame(stream, record);
        return;
    }
    stream.losses.overtaken += record.losses.overtaken;
    stream.losses.left_out += record.losses.left_out;
    stream.losses.no_memory += record.losses.no_memory;
    stream.losses.dropped += record.losses.dropped;
    stream.losses.skipped += record.losses.skipped;
}

void Trace_Account::add_frame(Stream& stream, const trace::Trace_Record& record) {
    const std::int64_t moment_ns = record.moment_ns();
    stream.first_ns = stream.frames == 0 ? moment_ns : std::min(stream.first_ns, moment_ns);
    stream.last_ns = stream.frames == 0 ? moment_ns : std::max(stream.last_ns, moment_ns);
    ++stream.frames;
    stream.bytes += record.payload.size();
    if (record.is_foreign()) {
        ++stream.foreign;
        return;
    }
    const ZAV_SHM_Frame_Header& header = record.frame;
    stream.key_frames += (header.flags & frame_flag::key_frame) != 0 ? 1U : 0U;
    if (stream.producers == 0) {
        stream.first_sequence = header.sequence;
    }
    if (stream.producers == 0 || header.epoch != stream.last.epoch) {
        ++stream.producers;
    } else if (header.sequence > stream.last.sequence) {
        stream.missing += header.sequence - stream.last.sequence - 1;
    }
    stream.last = header;
}

std::string Trace_Account::table() const {
    std::vector<Row> rows{{"stream", "codec", "picture", "frames", "key", "bytes", "seconds",
                           "first", "last", "missing", "lost", "producers", "foreign"}};
    for (const Stream& stream : streams_) {
        rows.push_back({stream.title, stream.producers == 0 ? "-" : codec_name(stream.last.codec),
                        picture_of(stream.last), std::to_string(stream.frames),
                        std::to_string(stream.key_frames), std::to_string(stream.bytes),
                        with_three_decimals(seconds_of(stream)),
                        std::to_string(stream.first_sequence), std::to_string(stream.last.sequence),
                        std::to_string(stream.missing), std::to_string(stream.losses.lost()),
                        std::to_string(stream.producers), std::to_string(stream.foreign)});
    }
    return aligned(rows, {0, 1, 2});
}

Json::Value Trace_Account::json() const {
    Json::Value list(Json::arrayValue);
    for (const Stream& stream : streams_) {
        Json::Value one;
        one["stream"] = stream.title;
        one["codec"] = stream.producers == 0 ? "" : codec_name(stream.last.codec);
        one["width"] = stream.last.width;
        one["height"] = stream.last.height;
        one["frames"] = json_of(stream.frames);
        one["key_frames"] = json_of(stream.key_frames);
        one["bytes"] = json_of(stream.bytes);
        one["seconds"] = seconds_of(stream);
        one["first"] = json_of(stream.first_sequence);
        one["last"] = json_of(stream.last.sequence);
        one["missing"] = json_of(stream.missing);
        one["lost"] = json_of(stream.losses.lost());
        one["overtaken"] = json_of(stream.losses.overtaken);
        one["left_out"] = json_of(stream.losses.left_out);
        one["no_memory"] = json_of(stream.losses.no_memory);
        one["producers"] = json_of(stream.producers);
        one["foreign"] = json_of(stream.foreign);
        list.append(one);
    }
    return list;
}

std::uint64_t Trace_Account::frames() const {
    std::uint64_t sum = 0;
    for (const Stream& stream : streams_) {
        sum += stream.frames;
    }
    return sum;
}

std::uint64_t Trace_Account::payload_bytes() const {
    std::uint64_t sum = 0;
    for (const Stream& stream : streams_) {
        sum += stream.bytes;
    }
    return sum;
}

double Trace_Account::seconds_of(const Stream& stream) {
    return static_cast<double>(stream.last_ns - stream.first_ns) / ns_per_s;
}

double Trace_Account::seconds() const {
    bool any = false;
    std::int64_t first_ns = 0;
    std::int64_t last_ns = 0;
    for (const Stream& stream : streams_) {
        if (stream.frames > 0) {
            first_ns = any ? std::min(first_ns, stream.first_ns) : stream.first_ns;
            last_ns = any ? std::max(last_ns, stream.last_ns) : stream.last_ns;
            any = true;
        }
    }
    return static_cast<double>(last_ns - first_ns) / ns_per_s;
}

}  // namespace zav_shm::tool
