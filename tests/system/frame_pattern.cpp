// SPDX-License-Identifier: Apache-2.0
#include "frame_pattern.h"

#include <algorithm>
#include <cstring>
#include <ctime>

namespace frame_pattern {

namespace {

// splitmix64: a full-period generator that can start anywhere.
std::uint64_t mixed(std::uint64_t value) {
    value += 0x9E3779B97F4A7C15U;
    value = (value ^ (value >> 30U)) * 0xBF58476D1CE4E5B9U;
    value = (value ^ (value >> 27U)) * 0x94D049BB133111EBU;
    return value ^ (value >> 31U);
}

std::uint64_t word(std::uint64_t number, std::size_t index) { return mixed(mixed(number) + index); }

void fill_back(unsigned char (&back)[108], std::uint64_t number) {
    std::memset(back, static_cast<int>(number % 251), sizeof back);
}

}  // namespace

std::uint32_t payload_length(std::uint64_t number) {
    switch (number % 16) {
        case 0:
            return 0;
        case 1:
            return 1;
        case 2:
            return page_size - 1;
        case 3:
            return page_size;
        default:
            return static_cast<std::uint32_t>(mixed(number) % (page_size + 1));
    }
}

void fill(STREAM_FRAME_FORMAT& frame, std::vector<unsigned char>& buffer, const Stamp& stamp) {
    std::memcpy(frame.header_front, &stamp.number, sizeof stamp.number);
    std::memcpy(frame.header_front + 8, &stamp.publish_ns, sizeof stamp.publish_ns);
    frame.payload_length = payload_length(stamp.number);
    fill_back(frame.header_back, stamp.number);
    frame.header_back[0] = stamp.last ? 1 : 0;
    frame.header_back[1] = stamp.period_ms;
    frame.payload = buffer.data();
    for (std::size_t at = 0; at < frame.payload_length; at += sizeof(std::uint64_t)) {
        const std::uint64_t value = word(stamp.number, at);
        std::memcpy(buffer.data() + at, &value,
                    std::min(sizeof value, std::size_t{frame.payload_length} - at));
    }
}

Stamp stamp_of(const STREAM_FRAME_FORMAT& frame) {
    Stamp stamp{};
    std::memcpy(&stamp.number, frame.header_front, sizeof stamp.number);
    std::memcpy(&stamp.publish_ns, frame.header_front + 8, sizeof stamp.publish_ns);
    stamp.last = frame.header_back[0] == 1;
    stamp.period_ms = frame.header_back[1];
    return stamp;
}

bool is_right(const STREAM_FRAME_FORMAT& frame) {
    const std::uint64_t number = stamp_of(frame).number;
    unsigned char back[108];
    fill_back(back, number);
    if (frame.payload_length != payload_length(number) ||
        std::memcmp(frame.header_back + 2, back + 2, sizeof back - 2) != 0) {
        return false;
    }
    const auto* const bytes = static_cast<const unsigned char*>(frame.payload);
    for (std::size_t at = 0; at < frame.payload_length; at += sizeof(std::uint64_t)) {
        const std::uint64_t value = word(number, at);
        if (std::memcmp(bytes + at, &value,
                        std::min(sizeof value, std::size_t{frame.payload_length} - at)) != 0) {
            return false;
        }
    }
    return true;
}

std::int64_t now_ns() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return std::int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

}  // namespace frame_pattern
