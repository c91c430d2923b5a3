// SPDX-License-Identifier: Apache-2.0
#include "apps/watch/center_look.h"

#include <sys/types.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <limits>
#include <utility>

#include "apps/watch/ring_watch.h"
#include "control/center_page.h"
#include "control/json_text.h"
#include "ipc/file_content.h"
#include "ipc/monotonic_clock.h"
#include "ipc/shared_memory_folder.h"

namespace zav_shm::watch {

namespace {

// 4096 channels with a dozen consumers each stay below this.
constexpr std::size_t file_bytes_max = std::size_t{16} << 20;

// As for readers of rings, and a second more, by which the status may be old.
constexpr std::int64_t pause_max_ns = 1700 * ns_per_ms;

std::int64_t nanoseconds(const timespec& time) {
    return std::int64_t{time.tv_sec} * ns_per_second + time.tv_nsec;
}

// Never below 0: the wall clock may have been set back meanwhile.
std::int64_t age_ms_of(const timespec& changed) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return std::max<std::int64_t>((nanoseconds(now) - nanoseconds(changed)) / ns_per_ms, 0);
}

// The page beside the status tells it in every PID namespace.
bool is_alive(const std::string& path, Json::UInt64 pid) {
    const std::string folder = path.substr(0, path.rfind('/'));
    const std::string root = shared_memory_folder;
    return pid <= static_cast<Json::UInt64>(std::numeric_limits<pid_t>::max()) &&
           is_center_alive(folder.starts_with(root) ? folder.substr(root.size()) : folder,
                           static_cast<pid_t>(pid));
}

Stream_Id end_of(const Json::Value& value) {
    return {text_at(value, "name"), number_at(value, "channel"), number_at(value, "stream")};
}

Consumer consumer_of(const Json::Value& value, const Stream_Id& producer) {
    const Stream_Id end = end_of(value);
    Consumer consumer;
    consumer.kind = Consumer::Kind::fixed;
    consumer.name = end.producer;
    consumer.of = producer;
    consumer.channel = end.channel;
    consumer.stream = end.stream;
    consumer.is_relayed = true;
    consumer.counters.frames = count_at(value, "frames");
    consumer.missed_in_row = static_cast<std::uint32_t>(std::min<Json::UInt64>(
        count_at(value, "missed_in_row"), std::numeric_limits<std::uint32_t>::max()));
    return consumer;
}

}  // namespace

std::optional<Center_File> read_center_file(const std::string& path, std::size_t* bytes_read) {
    const auto file = read_regular_file(path, file_bytes_max);
    if (!file) {
        return std::nullopt;
    }
    if (bytes_read != nullptr) {
        *bytes_read = file->text.size();
    }
    Center_File found;
    found.content = parsed_json(file->text);
    if (!found.content.isObject()) {
        errno = EBADMSG;
        return std::nullopt;
    }
    found.age_ms = age_ms_of(file->changed);
    found.written_ns = nanoseconds(file->changed);
    found.is_alive = is_alive(path, count_at(found.content, "pid"));
    return found;
}

Center_Standing standing_of(const Center_File& file) {
    return {.is_there = true,
            .is_alive = file.is_alive,
            .pid = count_at(file.content, "pid"),
            .age_ms = file.age_ms,
            .version = text_at(file.content, "version"),
            .started_utc = text_at(file.content, "started_utc")};
}

std::vector<Center_Channel> channels_of(const Center_File& file) {
    std::vector<Center_Channel> channels;
    for (const Json::Value& value : list_at(file.content, "channels")) {
        Center_Channel channel;
        channel.id = end_of(value);
        channel.relay = {.cycles = count_at(value, "cycles"),
                         .frames = count_at(value, "frames"),
                         .presence_timeouts = count_at(value, "presence_timeouts"),
                         .frame_timeouts = count_at(value, "frame_timeouts"),
                         .read_timeouts = count_at(value, "read_timeouts"),
                         .late_read_timeouts = count_at(value, "late_read_timeouts")};
        for (const Json::Value& consumer : list_at(value, "consumers")) {
            channel.consumers.push_back(consumer_of(consumer, channel.id));
        }
        if (channel.relay.frames > 0 || !channel.consumers.empty()) {
            channels.push_back(std::move(channel));
        }
    }
    return channels;
}

// ---- over time ----

void Slot_Watch::look(Center_Channel& channel, std::int64_t written_ns, std::int64_t now_ns) {
    const bool is_first = written_ns_ == 0;
    const std::int64_t interval_ns = is_first ? 0 : written_ns - written_ns_;
    if (is_first || interval_ns != 0) {
        if (const auto frames = rate_of(channel.relay.frames, frames_, interval_ns)) {
            rates_ = Stream::Rates{*frames, 0};
        }
        if (!is_first && channel.relay.frames != frames_) {
            changed_ns_ = now_ns;
        }
        frames_ = channel.relay.frames;
        written_ns_ = written_ns;
    }
    for (Consumer& consumer : channel.consumers) {
        look_at(consumer, interval_ns, now_ns);
    }
}

// Its semaphores tell the relay when it is not back; a frame that was announced to it is one that
// it came for.
void Slot_Watch::look_at(Consumer& consumer, std::int64_t interval_ns, std::int64_t now_ns) {
    const std::string end = channel_file_name(consumer.name, consumer.channel, consumer.stream);
    const auto [found, is_new] = consumers_.try_emplace(end);
    Consumer_Memory& memory = found->second;
    const std::uint64_t frames = consumer.counters.frames;
    if (is_new || frames != memory.frames) {
        memory.changed_ns = now_ns;
    }
    if (!is_new && interval_ns != 0) {
        if (const auto rate = rate_of(frames, memory.frames, interval_ns)) {
            memory.rates = Consumer::Rates{};
            memory.rates->frames = *rate;
        }
    }
    memory.frames = frames;
    consumer.rates = memory.rates;
    const std::int64_t pause_ns = now_ns - memory.changed_ns;
    if (consumer.missed_in_row > 0 && pause_ns > pause_max_ns) {
        consumer.not_reading_ns = pause_ns;
        consumer.state = Consumer::State::not_reading;
    }
}

}  // namespace zav_shm::watch
