// SPDX-License-Identifier: Apache-2.0
#include <cstdio>

#include "frame/frame_subscriber.h"

using namespace std::chrono_literals;

int main() {
    ZAV_SHM_Frame_Subscriber player({.name = "PLAYER", .producer = "CAM_LOOP"});
    if (const auto opened = player.open(); !opened) {
        std::fprintf(stderr, "consumer: %s\n", opened.reason.c_str());
    }
    zav_shm::Received_Frame frame;
    for (int number = 0; number < 300;) {
        if (player.receive(frame, 1s) == zav_shm::Receive_Status::frame) {
            std::printf("%zu bytes, lost %llu\n", frame.payload().size(),
                        static_cast<unsigned long long>(frame.before.lost()));
            ++number;
        } else {
            std::printf("%s\n", zav_shm::name_of(player.state()));
        }
    }
}
