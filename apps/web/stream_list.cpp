// SPDX-License-Identifier: Apache-2.0
#include "apps/web/stream_list.h"

#include <json/json.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>
#include <span>
#include <tuple>
#include <utility>

#include "apps/media/nal_scan.h"
#include "apps/media/nal_unit.h"
#include "frame/frame_header.h"
#include "frame/frame_source.h"
#include "ipc/ring_place.h"
#include "ipc/shared_memory_folder.h"

namespace zav_shm::web {

namespace {

constexpr unsigned sequence_parameter_set = 7;

// Takes "_12" off the end.
std::optional<int> take_number(std::string_view& text) {
    const std::size_t at = text.rfind('_');
    if (at == std::string_view::npos) {
        return {};
    }
    const std::string_view digits = text.substr(at + 1);
    int number = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), number);
    if (error != std::errc() || end != digits.data() + digits.size() || number < 0) {
        return {};
    }
    text = text.substr(0, at);
    return number;
}

// video/mp4 with the codecs parameter of RFC 6381, by the first sequence parameter set.
std::string mime_of(std::span<const std::byte> unit) {
    for (media::Nal_Scan scan(unit); scan.next();) {
        const auto nal = scan.nal_unit();
        if (nal.size() >= 4 &&
            media::nal_type(media::Video_Codec::h264, nal[0]) == sequence_parameter_set) {
            std::array<char, 48> text{};
            std::snprintf(text.data(), text.size(), "video/mp4; codecs=\"avc1.%02x%02x%02x\"",
                          std::to_integer<unsigned>(nal[1]), std::to_integer<unsigned>(nal[2]),
                          std::to_integer<unsigned>(nal[3]));
            return text.data();
        }
    }
    return {};
}

// By the ring alone: a subscriber would have a card, which others see and a paced publisher waits
// for.
std::optional<Stream_Facts> look_into(const Stream_Key& key, const std::string& file) {
    Ring_Problem problem;
    auto ring = Ring_Memory::open(file, Ring_Memory::Reading::copied, problem);
    if (!ring) {
        return {};
    }
    Stream_Facts facts;
    facts.key = key;
    Frame_Source source({}, Ring_Memory::Reading::copied);
    source.read_from(std::move(ring));
    source.seek(start::last_key_frame);
    Received_Frame frame;
    if (source.copy_next(frame) != Frame_Source::Got::frame || !frame.verified) {
        return facts;
    }
    const ZAV_SHM_Frame_Header& header = frame.header;
    facts.codec = codec_name(header.codec);
    facts.width = header.width;
    facts.height = header.height;
    facts.frames_per_second =
        header.rate_den != 0 ? static_cast<double>(header.rate_num) / header.rate_den : 0;
    facts.age_s = static_cast<double>(frame.age_ns()) / 1e9;
    if (header.codec == codec::h264) {
        facts.mime = mime_of(frame.payload());
    }
    return facts;
}

}  // namespace

std::optional<Stream_Key> key_of_file(std::string_view file) {
    std::string_view name = file;
    const auto stream = take_number(name);
    const auto channel = stream ? take_number(name) : std::nullopt;
    if (!channel || !is_file_name(name) || channel_file_name(name, *channel, *stream) != file) {
        return {};
    }
    return Stream_Key{std::string(name), *channel, *stream};
}

std::vector<Stream_Facts> list_streams(const std::string& folder) {
    std::vector<Stream_Facts> streams;
    for (const auto& [name, path] : ring_files(rings_folder("/" + folder))) {
        const auto key = key_of_file(name);
        if (auto facts = key ? look_into(*key, path) : std::nullopt) {
            streams.push_back(std::move(*facts));
        }
    }
    std::sort(streams.begin(), streams.end(), [](const Stream_Facts& a, const Stream_Facts& b) {
        return std::tie(a.key.name, a.key.channel, a.key.stream) <
               std::tie(b.key.name, b.key.channel, b.key.stream);
    });
    return streams;
}

std::string json_of(const std::vector<Stream_Facts>& streams) {
    Json::Value list(Json::arrayValue);
    for (const Stream_Facts& facts : streams) {
        Json::Value entry;
        entry["name"] = facts.key.name;
        entry["channel"] = facts.key.channel;
        entry["stream"] = facts.key.stream;
        entry["codec"] = facts.codec;
        entry["mime"] = facts.mime;
        entry["width"] = facts.width;
        entry["height"] = facts.height;
        entry["frames_per_second"] = facts.frames_per_second;
        entry["age_s"] = facts.age_s;
        list.append(entry);
    }
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    writer["precision"] = 6;
    return Json::writeString(writer, list);
}

}  // namespace zav_shm::web
