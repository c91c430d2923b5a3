// SPDX-License-Identifier: Apache-2.0
#include "apps/tool/watch_line.h"

#include <json/json.h>

#include <array>
#include <cinttypes>
#include <cstdio>

#include "apps/tool/json_text.h"

namespace zav_shm::tool {

namespace {

constexpr double ns_per_s = 1e9;

Json::Value value_of(const std::optional<double>& age) {
    return age ? Json::Value(*age) : Json::Value();
}

}  // namespace

Watch_Sample sample_of(const Subscriber_Counters& before, const Subscriber_Counters& now,
                       std::chrono::nanoseconds stretch, std::int64_t now_ns, Frame_State state) {
    Latency_Histogram latency = now.latency;
    latency -= before.latency;
    Watch_Sample sample;
    sample.state = state;
    sample.seconds = static_cast<double>(stretch.count()) / ns_per_s;
    sample.frames = now.frames - before.frames;
    if (stretch.count() > 0) {
        sample.frames_per_s = static_cast<double>(sample.frames) / sample.seconds;
        sample.mbit_per_s =
            static_cast<double>(now.bytes - before.bytes) * 8 / 1e6 / sample.seconds;
    }
    sample.latency_p50_us = static_cast<double>(latency.percentile_ns(0.5)) / 1000;
    sample.latency_p99_us = static_cast<double>(latency.percentile_ns(0.99)) / 1000;
    sample.lost = now.lost() - before.lost();
    sample.lost_total = now.lost();
    sample.torn_total = now.torn;
    sample.dropped_total = now.dropped;
    sample.reconnects = now.recoveries;
    if (now.last_key_frame_ns != 0) {
        sample.key_frame_age_s = static_cast<double>(now_ns - now.last_key_frame_ns) / ns_per_s;
    }
    return sample;
}

std::string text_of(const Watch_Sample& sample) {
    std::array<char, 256> text{};
    std::snprintf(text.data(), text.size(),
                  "%6.1f frames/s %8.3f Mbit/s  latency p50 %.0f us p99 %.0f us  lost %" PRIu64
                  " (total %" PRIu64 ")  key frame ",
                  sample.frames_per_s, sample.mbit_per_s, sample.latency_p50_us,
                  sample.latency_p99_us, sample.lost, sample.lost_total);
    std::string line = text.data();
    if (sample.key_frame_age_s) {
        std::snprintf(text.data(), text.size(), "%.1f s ago", *sample.key_frame_age_s);
        line += text.data();
    } else {
        line += "none yet";
    }
    if (sample.recovery_point_age_s) {
        std::snprintf(text.data(), text.size(), ", recovery point %.1f s ago",
                      *sample.recovery_point_age_s);
        line += text.data();
    }
    if (sample.damaged_total > 0) {
        line += "  DAMAGED " + std::to_string(sample.damaged_total);
    }
    return line + "  " + name_of(sample.state);
}

std::string json_of(const Watch_Sample& sample) {
    Json::Value line;
    line["state"] = name_of(sample.state);
    line["seconds"] = sample.seconds;
    line["frames"] = Json::UInt64{sample.frames};
    line["frames_per_s"] = sample.frames_per_s;
    line["mbit_per_s"] = sample.mbit_per_s;
    line["latency_p50_us"] = sample.latency_p50_us;
    line["latency_p99_us"] = sample.latency_p99_us;
    line["lost"] = Json::UInt64{sample.lost};
    line["lost_total"] = Json::UInt64{sample.lost_total};
    line["torn_total"] = Json::UInt64{sample.torn_total};
    line["dropped_total"] = Json::UInt64{sample.dropped_total};
    line["damaged_total"] = Json::UInt64{sample.damaged_total};
    line["reconnects"] = Json::UInt64{sample.reconnects};
    line["key_frame_age_s"] = value_of(sample.key_frame_age_s);
    line["recovery_point_age_s"] = value_of(sample.recovery_point_age_s);
    return json_line(line);
}

}  // namespace zav_shm::tool
