// SPDX-License-Identifier: Apache-2.0
#include "apps/watch/snapshot_json.h"

#include <array>
#include <ctime>
#include <string>

#include "apps/text/printable.h"
#include "frame/frame_header.h"
#include "ipc/monotonic_clock.h"

namespace zav_shm::watch {

namespace {

double ms_of(std::int64_t ns) { return static_cast<double>(ns) / 1e6; }

Json::Value ms_of(const std::optional<std::int64_t>& ns) {
    return ns ? Json::Value(ms_of(*ns)) : Json::Value();
}

Json::Value count_of(const std::optional<std::uint64_t>& count) {
    return count ? Json::Value(Json::UInt64{*count}) : Json::Value();
}

Json::Value text_of(const std::string& text) {
    return text.empty() ? Json::Value() : Json::Value(printable(text));
}

// "2026-03-01T08:15:00.250Z"
std::string utc_text(std::int64_t utc_ns) {
    const auto seconds = static_cast<std::time_t>(utc_ns / ns_per_second);
    std::tm parts{};
    std::array<char, 32> date{};
    std::array<char, 16> fraction{};
    gmtime_r(&seconds, &parts);
    std::strftime(date.data(), date.size(), "%Y-%m-%dT%H:%M:%S", &parts);
    std::snprintf(fraction.data(), fraction.size(), ".%03dZ",
                  static_cast<int>(utc_ns % ns_per_second / ns_per_ms));
    return std::string(date.data()) + fraction.data();
}

void put_process(Json::Value& into, const Process& process) {
    into["pid"] = process.pid != 0 ? Json::Value(process.pid) : Json::Value();
    into["uid"] = process.pid != 0 ? Json::Value(process.uid) : Json::Value();
    into["command"] = text_of(process.command);
}

Json::Value json_of(const Consumer::Rates& rates) {
    Json::Value value;
    value["frames_per_s"] = rates.frames;
    value["bits_per_s"] = rates.bits;
    value["lost_per_s"] = rates.lost();
    value["overtaken_per_s"] = rates.overtaken;
    value["left_out_per_s"] = rates.left_out;
    value["no_memory_per_s"] = rates.no_memory;
    value["dropped_per_s"] = rates.dropped;
    value["skipped_per_s"] = rates.skipped;
    value["torn_per_s"] = rates.torn;
    value["invalid_per_s"] = rates.invalid;
    return value;
}

void put_counters(Json::Value& into, const Consumer& consumer) {
    const Reader_Card::Counters& counters = consumer.counters;
    into["received"] = Json::UInt64{counters.frames};
    into["received_bytes"] = Json::UInt64{counters.bytes};
    into["received_key_frames"] = Json::UInt64{counters.key_frames};
    into["lost"] = Json::UInt64{consumer.lost()};
    into["overtaken"] = Json::UInt64{counters.overtaken};
    into["left_out"] = Json::UInt64{counters.left_out};
    into["no_memory"] = Json::UInt64{counters.no_memory};
    into["dropped"] = Json::UInt64{counters.dropped};
    into["skipped"] = Json::UInt64{counters.skipped};
    into["torn"] = Json::UInt64{counters.torn};
    into["invalid"] = Json::UInt64{counters.invalid};
}

Json::Value json_of(const Consumer& consumer) {
    Json::Value value;
    value["kind"] = name_of(consumer.kind);
    value["state"] = name_of(consumer.state);
    value["name"] = printable(consumer.name);
    value["channel"] = consumer.channel;
    value["stream"] = consumer.stream;
    value["producer"] = printable(consumer.of.producer);
    value["producer_channel"] = consumer.of.channel;
    value["producer_stream"] = consumer.of.stream;
    value["card"] = text_of(consumer.card);
    value["relayed"] = consumer.is_relayed;
    put_process(value, consumer.process);
    value["behind"] = count_of(consumer.behind);
    value["not_reading_ms"] = ms_of(consumer.not_reading_ns);
    value["last_frame_age_ms"] = ms_of(consumer.last_frame_age_ns);
    value["missed_in_row"] = consumer.missed_in_row;
    put_counters(value, consumer);
    value["rates"] = consumer.rates ? json_of(*consumer.rates) : Json::Value();
    value["latency"] = Json::Value();
    if (const auto& latency = consumer.recent_latency) {
        value["latency"]["frames"] = Json::UInt64{latency->frames};
        value["latency"]["p50_us"] = static_cast<double>(latency->p50_ns) / 1e3;
        value["latency"]["p99_us"] = static_cast<double>(latency->p99_ns) / 1e3;
    }
    return value;
}

Json::Value json_of(const std::vector<Consumer>& consumers) {
    Json::Value list(Json::arrayValue);
    for (const Consumer& consumer : consumers) {
        list.append(json_of(consumer));
    }
    return list;
}

Json::Value json_of(const Relay& relay) {
    Json::Value value;
    value["cycles"] = Json::UInt64{relay.cycles};
    value["frames"] = Json::UInt64{relay.frames};
    value["presence_timeouts"] = Json::UInt64{relay.presence_timeouts};
    value["frame_timeouts"] = Json::UInt64{relay.frame_timeouts};
    value["read_timeouts"] = Json::UInt64{relay.read_timeouts};
    value["late_read_timeouts"] = Json::UInt64{relay.late_read_timeouts};
    return value;
}

Json::Value json_of(const Stream::History& history) {
    Json::Value value;
    value["frames"] = Json::UInt64{history.frames};
    value["seconds"] = static_cast<double>(history.ns) / 1e9;
    value["bytes"] = Json::UInt64{history.bytes};
    value["room_bytes"] = Json::UInt64{history.bytes_of_room};
    return value;
}

Json::Value json_of(const Stream& stream) {
    Json::Value value;
    value["producer"] = printable(stream.id.producer);
    value["channel"] = stream.id.channel;
    value["stream"] = stream.id.stream;
    value["state"] = name_of(stream.state);
    value["problem"] = text_of(stream.problem);
    put_process(value["writer"], stream.writer);
    value["writer"]["stopped"] = stream.writer.is_stopped;
    value["epoch"] = stream.epoch != 0 ? Json::Value(std::to_string(stream.epoch)) : Json::Value();
    value["frames"] = Json::UInt64{stream.frames};
    value["bytes"] = count_of(stream.bytes);
    value["left_out"] = Json::UInt64{stream.left_out};
    value["age_ms"] = ms_of(stream.age_ns);
    value["history"] = json_of(stream.history);
    value["codec"] = text_of(stream.codec != 0 ? codec_name(stream.codec) : "");
    value["width"] = stream.width;
    value["height"] = stream.height;
    value["key_interval_ms"] = ms_of(stream.key_interval_ns);
    value["key_interval_frames"] = count_of(stream.key_interval_frames);
    value["key_age_ms"] = ms_of(stream.key_age_ns);
    value["rates"] = Json::Value();
    if (stream.rates) {
        value["rates"]["frames_per_s"] = stream.rates->frames;
        value["rates"]["bits_per_s"] = stream.rates->bits;
    }
    value["relay"] = stream.relay ? json_of(*stream.relay) : Json::Value();
    value["consumers"] = json_of(stream.consumers);
    return value;
}

Json::Value json_of(const Center_Standing& center) {
    if (!center.is_there) {
        return {};
    }
    Json::Value value;
    value["alive"] = center.is_alive;
    value["pid"] = Json::UInt64{center.pid};
    value["age_ms"] = Json::Int64{center.age_ms};
    value["version"] = printable(center.version);
    value["started_utc"] = printable(center.started_utc);
    return value;
}

}  // namespace

const char* name_of(Consumer::Kind kind) {
    switch (kind) {
        case Consumer::Kind::named:
            return "named";
        case Consumer::Kind::tap:
            return "tap";
        case Consumer::Kind::fixed:
            break;
    }
    return "fixed";
}

const char* name_of(Consumer::State state) {
    switch (state) {
        case Consumer::State::reading:
            return "reading";
        case Consumer::State::not_reading:
            return "not_reading";
        case Consumer::State::stopped:
            return "stopped";
        case Consumer::State::gone:
            break;
    }
    return "gone";
}

const char* name_of(Stream::State state) {
    switch (state) {
        case Stream::State::live:
            return "live";
        case Stream::State::closed:
            return "closed";
        case Stream::State::left:
            return "left";
        case Stream::State::slot:
            return "slot";
        case Stream::State::unread:
            break;
    }
    return "unread";
}

Json::Value json_of(const Snapshot& snapshot) {
    Json::Value value;
    value["schema"] = json_schema;
    value["folder"] = printable(snapshot.folder);
    value["taken_utc"] = utc_text(snapshot.utc_ns);
    value["interval_ms"] = ms_of(snapshot.interval_ns);
    value["center"] = json_of(snapshot.center);
    value["streams"] = Json::Value(Json::arrayValue);
    for (const Stream& stream : snapshot.streams) {
        value["streams"].append(json_of(stream));
    }
    value["elsewhere"] = json_of(snapshot.elsewhere);
    value["omitted"] = Json::UInt64{snapshot.omitted};
    return value;
}

}  // namespace zav_shm::watch
