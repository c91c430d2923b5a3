// SPDX-License-Identifier: Apache-2.0
#include "apps/tool/event_history.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>

#include "apps/tool/frame_time.h"
#include "ring/ring_layout.h"

namespace zav_shm::tool {

namespace {

constexpr double ns_per_s = 1e9;

// A history also keeps so many records at most: one for each KiB of its size.
constexpr std::uint64_t bytes_per_record = 1024;

// Bit rates vary.
constexpr double reserve = 1.1;
constexpr std::uint64_t rounded_to = 65'536;

std::string text_of(double value, int decimals) {
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), "%.*f", decimals, value);
    return text.data();
}

std::string seconds_of(std::chrono::nanoseconds span) {
    return text_of(static_cast<double>(span.count()) / ns_per_s, 1) + " s";
}

}  // namespace

void Event_History::note(const Frame_Facts& frame) {
    const std::int64_t moment_ns = moment_ns_of(frame);
    if (!has_first_) {
        has_first_ = true;
        first_ns_ = last_key_ns_ = moment_ns;
        is_foreign_ = !frame.verified;
        is_from_begin_ = frame.number == 1;
    }
    if (moment_ns > trigger_ns_) {
        is_known_ = true;
        return;
    }
    if (is_known_) {
        return;
    }
    if (frame.is_entry_point()) {
        longest_key_interval_ns_ = std::max(longest_key_interval_ns_, moment_ns - last_key_ns_);
        last_key_ns_ = moment_ns;
    }
    last_ns_ = moment_ns;
    ++frames_;
    const std::uint64_t record = sizeof frame.header + frame.header.payload_length;
    bytes_ += (record + ring_record_alignment - 1) / ring_record_alignment * ring_record_alignment;
}

std::chrono::nanoseconds Event_History::reach() const {
    return std::chrono::nanoseconds(trigger_ns_ - first_ns_);
}

std::optional<std::uint64_t> Event_History::bytes_needed() const {
    const auto span = static_cast<double>(last_ns_ - first_ns_);
    if (frames_ < 2 || span <= 0) {
        return {};
    }
    const std::int64_t key_interval_ns =
        std::max(longest_key_interval_ns_, trigger_ns_ - last_key_ns_);
    const double wanted = static_cast<double>(before_.count() + key_interval_ns) / span * reserve;
    const double bytes = wanted * static_cast<double>(std::max(bytes_, frames_ * bytes_per_record));
    return static_cast<std::uint64_t>(std::ceil(bytes / static_cast<double>(rounded_to))) *
           rounded_to;
}

std::string Event_History::shortfall() const {
    if (!has_first_ || is_foreign_ || reach() >= before_) {
        return {};
    }
    const std::string held = seconds_of(std::max(reach(), std::chrono::nanoseconds(0)));
    if (is_from_begin_) {
        return "begins " + held + " before the trigger and not " + seconds_of(before_) +
               ", since its publisher began then";
    }
    const std::string text =
        "the history holds " + held + " before the trigger and not " + seconds_of(before_);
    const auto needed = bytes_needed();
    if (!needed) {
        return text + "; raise history_bytes of the stream";
    }
    const double bits = static_cast<double>(bytes_) * 8 * ns_per_s;
    const double rate = bits / static_cast<double>(last_ns_ - first_ns_);
    return text + "; at the present " + text_of(rate / 1e6, 2) +
           " Mbit/s that needs \"history_bytes\": " + std::to_string(*needed) +
           " in the center's configuration, or publish --history " + std::to_string(*needed);
}

}  // namespace zav_shm::tool
