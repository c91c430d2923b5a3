// SPDX-License-Identifier: Apache-2.0
#include <cstdio>
#include <thread>
#include <vector>

#include "frame/frame_publisher.h"

int main() {
    ZAV_SHM_Frame_Publisher camera({.name = "CAM_LOOP", .channel = 0, .stream = 0});
    if (const auto opened = camera.open(); !opened) {
        std::fprintf(stderr, "producer: %s\n", opened.reason.c_str());
    }
    std::vector<std::byte> frame(20'000);  // what an encoder delivers
    for (int number = 0; number < 300; ++number) {
        const bool is_key = number % 30 == 0;
        const auto sent = camera.publish(
            frame, {.flags = is_key ? zav_shm::frame_flag::key_frame : std::uint16_t{0}});
        std::printf("frame %d: %s\n", number, zav_shm::name_of(sent.outcome));
        std::this_thread::sleep_for(std::chrono::milliseconds(33));
    }
}
