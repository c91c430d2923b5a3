// SPDX-License-Identifier: Apache-2.0
//
// A consumer of the fixed interface beside subscribers: a publisher feeds the slot, too. It has to
// be back for the next frame in time; what it is too late for is lost.
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <vector>

#include "client/shm_client_receiver.h"
#include "frame/frame_header.h"

namespace {

volatile std::sig_atomic_t ends = 0;

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "fixed_consumer STREAM_FILE INDEX_FILE\n");
        return 2;
    }
    std::signal(SIGTERM, [](int) { ends = 1; });
    std::ofstream pictures(argv[1], std::ios::binary);
    std::ofstream index(argv[2]);
    ZAV_SHM_CLIENT_RECEIVER player("REMOTE_PLAYBACK", "CAM_LOOP");
    ZAV_SHM_Stream_Receiver* const stream = player.get_receiver(0, 1);
    std::vector<char> room(static_cast<std::size_t>(player.get_shm_page_size(1)));
    while (ends == 0) {
        STREAM_FRAME_FORMAT frame{};
        frame.payload = room.data();
        if (stream->receive_frame(&frame)) {
            ZAV_SHM_Frame_Header header;  // what a publisher puts into the first bytes
            std::memcpy(&header, &frame, sizeof header);
            pictures.write(room.data(), frame.payload_length);
            index << 1 << ' ' << header.sequence << ' ' << frame.payload_length << ' '
                  << (header.flags & zav_shm::frame_flag::key_frame) << std::endl;
        }
    }
}
