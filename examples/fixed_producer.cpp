// SPDX-License-Identifier: Apache-2.0
//
// A producer of the fixed interface: one frame at a time, in a slot without a history. Its pictures
// are text, so that a recording can be checked by reading it.
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <thread>

#include "client/shm_client_distributor.h"

int main(int argc, char** argv) {
    const int pictures = argc > 1 ? std::atoi(argv[1]) : 300;
    ZAV_SHM_CLIENT_DISTRIBUTOR camera("CAM_REC", false);
    ZAV_SHM_Stream_Distributor* const stream = camera.get_distributor(1, 1);
    for (int number = 1; number <= pictures; ++number) {
        std::string picture;
        for (int line = 1; line <= 20; ++line) {
            picture += "picture " + std::to_string(number) + " line " + std::to_string(line) + "\n";
        }
        STREAM_FRAME_FORMAT frame{};
        frame.payload = picture.data();
        frame.payload_length = static_cast<std::uint32_t>(picture.size());
        stream->distribute_frame(&frame);
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
}
