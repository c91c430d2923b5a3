// SPDX-License-Identifier: Apache-2.0
#include "bindings/c/values.h"

#include <algorithm>
#include <cstring>
#include <limits>

#include "bindings/c/structs.h"

namespace zav_shm::c_interface {

namespace {

constexpr std::chrono::milliseconds center_wait_default{2000};

std::string out_of_range(const char* name, std::int64_t value, const char* range) {
    return std::string(name) + " is " + std::to_string(value) + ", not " + range;
}

}  // namespace

// The numbers are those of the safe layer.
static_assert(ZAV_SHM_STATE_CLOSED == static_cast<int>(Frame_State::closed));
static_assert(ZAV_SHM_STATE_CONNECTED == static_cast<int>(Frame_State::connected));
static_assert(ZAV_SHM_STATE_WAITING_FOR_CENTER ==
              static_cast<int>(Frame_State::waiting_for_center));
static_assert(ZAV_SHM_STATE_WAITING_FOR_PRODUCER ==
              static_cast<int>(Frame_State::waiting_for_producer));
static_assert(ZAV_SHM_STATE_REFUSED == static_cast<int>(Frame_State::refused));
static_assert(ZAV_SHM_STATE_NO_RING == static_cast<int>(Frame_State::no_ring));
static_assert(ZAV_SHM_KEY_FRAME == frame_flag::key_frame);
static_assert(ZAV_SHM_CODEC_CONFIGURATION == frame_flag::codec_configuration);
static_assert(ZAV_SHM_DISCONTINUITY == frame_flag::discontinuity);
static_assert(ZAV_SHM_END_OF_STREAM == frame_flag::end_of_stream);
static_assert(ZAV_SHM_RECOVERY_POINT == frame_flag::recovery_point);
static_assert(ZAV_SHM_H264 == codec::h264 && ZAV_SHM_H265 == codec::h265);
static_assert(ZAV_SHM_MJPEG == codec::mjpeg && ZAV_SHM_RAW == codec::raw);
static_assert(ZAV_SHM_AAC == codec::aac && ZAV_SHM_OPUS == codec::opus);
static_assert(ZAV_SHM_G711 == codec::g711);

zav_shm_status read_format(const zav_shm_format* from, Frame_Format& into) {
    zav_shm_format said = {};
    if (const auto status = read_struct(from, "zav_shm_format", said); status != ZAV_SHM_OK) {
        return status;
    }
    into = {.codec = said.codec,
            .width = said.width,
            .height = said.height,
            .rate_num = said.rate_num,
            .rate_den = said.rate_den != 0 ? said.rate_den : 1,
            .channels = said.channels};
    return ZAV_SHM_OK;
}

zav_shm_status read_info(const zav_shm_frame_info* from, Frame_Info& into) {
    into = {};
    if (from == nullptr) {
        return ZAV_SHM_OK;
    }
    zav_shm_frame_info said = {};
    if (const auto status = read_struct(from, "zav_shm_frame_info", said); status != ZAV_SHM_OK) {
        return status;
    }
    if (said.flags > std::numeric_limits<std::uint16_t>::max() || said.reserved != 0) {
        return fail(ZAV_SHM_BAD_ARGUMENT,
                    said.reserved != 0
                        ? out_of_range("zav_shm_frame_info.reserved", said.reserved, "0")
                        : out_of_range("zav_shm_frame_info.flags", said.flags, "0 to 65535"));
    }
    into = {.flags = static_cast<std::uint16_t>(said.flags),
            .pts = std::chrono::nanoseconds(said.pts_ns),
            .utc = std::chrono::nanoseconds(said.utc_ns),
            .duration = std::chrono::microseconds(said.duration_us)};
    return ZAV_SHM_OK;
}

zav_shm_status read_start(std::uint32_t start, std::int64_t back_ns, Start& into) {
    if (start > ZAV_SHM_BACK) {
        return fail(ZAV_SHM_BAD_ARGUMENT, out_of_range("start", start, "a zav_shm_start"));
    }
    if (back_ns < 0) {
        return fail(ZAV_SHM_BAD_ARGUMENT, out_of_range("back_ns", back_ns, "0 or more"));
    }
    switch (start) {
        case ZAV_SHM_NEWEST_KEY:
            into = start::newest_key;
            break;
        case ZAV_SHM_LAST_KEY_FRAME:
            into = start::last_key_frame;
            break;
        case ZAV_SHM_OLDEST:
            into = start::oldest;
            break;
        case ZAV_SHM_BACK:
            into = start::back(std::chrono::nanoseconds(back_ns));
            break;
        default:
            into = start::newest;
    }
    return ZAV_SHM_OK;
}

zav_shm_status read_overflow(std::uint32_t overflow, Overflow_Policy& into) {
    switch (overflow) {
        case ZAV_SHM_DROP_UNTIL_KEY_FRAME:
            into = Overflow_Policy::drop_until_key_frame;
            return ZAV_SHM_OK;
        case ZAV_SHM_DROP_OLDEST:
            into = Overflow_Policy::drop_oldest;
            return ZAV_SHM_OK;
        case ZAV_SHM_NEWEST_ONLY:
            into = Overflow_Policy::newest_only;
            return ZAV_SHM_OK;
        default:
            return fail(ZAV_SHM_BAD_ARGUMENT,
                        out_of_range("overflow", overflow, "a zav_shm_overflow"));
    }
}

zav_shm_status check_numbers(std::int32_t channel, std::int32_t stream) {
    if (channel < 0 || stream < 0) {
        return fail(ZAV_SHM_BAD_ARGUMENT, channel < 0
                                              ? out_of_range("channel", channel, "0 or more")
                                              : out_of_range("stream", stream, "0 or more"));
    }
    return ZAV_SHM_OK;
}

std::chrono::milliseconds center_wait_of(std::int32_t ms) {
    return ms == 0 ? center_wait_default : std::chrono::milliseconds(std::max(ms, 0));
}

std::string text_of(const char* text, const char* unless_null) {
    return text != nullptr ? text : unless_null;
}

zav_shm_frame frame_of(const Frame_Facts& facts, const void* payload, std::size_t payload_bytes) {
    const ZAV_SHM_Frame_Header& header = facts.header;
    zav_shm_frame frame = {};
    frame.flags = header.flags;
    frame.payload_bytes = payload_bytes;
    frame.payload = payload;
    frame.sequence = header.sequence;
    frame.epoch = header.epoch;
    frame.publish_ns = header.publish_ns;
    frame.received_ns = facts.received_ns;
    frame.pts_ns = header.pts_ns;
    frame.utc_ns = header.utc_ns;
    frame.codec = header.codec;
    frame.width = header.width;
    frame.height = header.height;
    frame.rate_num = header.rate_num;
    frame.rate_den = header.rate_den;
    frame.channels = header.channels;
    frame.duration_us = header.duration_us;
    frame.verified = facts.verified ? 1 : 0;
    frame.epoch_changed = facts.epoch_changed ? 1 : 0;
    frame.overtaken = facts.before.overtaken;
    frame.left_out = facts.before.left_out;
    frame.no_memory = facts.before.no_memory;
    frame.dropped = facts.before.dropped;
    frame.skipped = facts.before.skipped;
    return frame;
}

zav_shm_status status_of(const Opened& opened) {
    if (opened) {
        return ZAV_SHM_OK;
    }
    return fail(ZAV_SHM_NOT_CONNECTED,
                opened.reason.empty() ? name_of(opened.state) : opened.reason);
}

zav_shm_status tell_state(Frame_State now, const std::string& why, zav_shm_state* state,
                          char* reason, std::size_t reason_bytes) {
    if (state == nullptr) {
        return fail_for_null("state");
    }
    if (reason == nullptr && reason_bytes != 0) {
        return fail_for_null("reason");
    }
    *state = static_cast<zav_shm_state>(now);
    if (reason_bytes != 0) {
        const std::size_t length = std::min(why.size(), reason_bytes - 1);
        std::memcpy(reason, why.data(), length);
        reason[length] = '\0';
    }
    return ZAV_SHM_OK;
}

}  // namespace zav_shm::c_interface
