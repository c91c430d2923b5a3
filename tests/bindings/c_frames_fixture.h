// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <zav_shm.h>

#include <array>
#include <string>

#include "frame/frames_fixture.h"

/// Publishers and subscribers of the C interface at a center of this process.
class C_Frames : public Frames {
protected:
    static zav_shm_publisher publisher(const char* name = "CAM_LOOP") {
        zav_shm_publisher_options options = {};
        options.size = sizeof options;
        options.name = name;
        zav_shm_publisher opened = 0;
        EXPECT_EQ(ZAV_SHM_OK, zav_shm_publisher_open(&options, &opened)) << zav_shm_last_error();
        return opened;
    }

    static zav_shm_subscriber_options reading(const char* name,
                                              zav_shm_start start = ZAV_SHM_NEWEST) {
        zav_shm_subscriber_options options = {};
        options.size = sizeof options;
        options.name = name;
        options.producer = "CAM_LOOP";
        options.start = start;
        return options;
    }

    static zav_shm_subscriber subscriber(const zav_shm_subscriber_options& options) {
        zav_shm_subscriber opened = 0;
        EXPECT_EQ(ZAV_SHM_OK, zav_shm_subscriber_open(&options, &opened)) << zav_shm_last_error();
        return opened;
    }

    static zav_shm_status publish(zav_shm_publisher to, const std::string& text,
                                  std::uint32_t flags = 0) {
        zav_shm_frame_info info = {};
        info.size = sizeof info;
        info.flags = flags;
        return zav_shm_publisher_publish(to, text.data(), text.size(), &info);
    }

    // The payload of the next frame as a text; the status' name where there is none.
    static std::string next(zav_shm_subscriber from, std::int32_t timeout_ms = 5000) {
        std::array<char, 4096> buffer{};
        zav_shm_frame frame = {};
        frame.size = sizeof frame;
        const auto status =
            zav_shm_subscriber_receive(from, buffer.data(), buffer.size(), timeout_ms, &frame);
        return status == ZAV_SHM_OK
                   ? std::string(buffer.data(), static_cast<std::size_t>(frame.payload_bytes))
                   : std::string("(") + zav_shm_status_name(status) + ")";
    }
};
