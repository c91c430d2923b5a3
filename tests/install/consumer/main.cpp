// SPDX-License-Identifier: Apache-2.0
//
// One frame from a producer through a relay to a consumer, all in this process, with nothing but
// what an installed zav_shm offers. Exits with 0 when the frame arrived unchanged. Makes kernel
// objects and leaves them behind: to be run in private namespaces.

#include <fcntl.h>
#include <sys/stat.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>

#include "ipc/zav_shm.h"
#include "stream/zav_stream_processor.h"

namespace {

using Clock = std::chrono::steady_clock;
using Page = std::array<unsigned char, 4096>;

constexpr std::chrono::seconds patience{20};
constexpr unsigned owner_only = 0600;

bool make_slot(const IPC_SHM_CTRL_INFO& names) {
    mkdir("/dev/shm/shm", S_IRWXU);  // an older one will do
    const int slot_bytes = static_cast<int>(zav_shm::frame_header_bytes + sizeof(Page));
    const IPC_SHMEMORY slot(names.shm_path.c_str(), O_CREAT | O_RDWR, owner_only, slot_bytes);
    return slot.is_mapped();
}

Page test_picture() {
    Page picture{};
    for (std::size_t i = 0; i < picture.size(); ++i) {
        picture[i] = static_cast<unsigned char>(i % 251);
    }
    return picture;
}

// Offers the frame until a consumer was there to take it.
void produce(const IPC_SHM_CTRL_INFO& names, Page picture, Clock::time_point deadline) {
    ZAV_SHM_Stream_Distributor producer(names.shm_path, names.sem_path_src, names.sem_path_dst,
                                        names.sem_path_exist);
    STREAM_FRAME_FORMAT frame{};
    frame.payload_length = sizeof(Page);
    frame.payload = picture.data();
    while (!producer.distribute_frame(&frame) && Clock::now() < deadline) {
    }
}

bool consume(const IPC_SHM_CTRL_INFO& names, Page& picture, Clock::time_point deadline) {
    ZAV_SHM_Stream_Receiver consumer(names.shm_path, names.sem_path_src, names.sem_path_dst,
                                     names.sem_path_exist);
    STREAM_FRAME_FORMAT frame{};
    frame.payload = picture.data();
    while (Clock::now() < deadline) {
        if (consumer.receive_frame(&frame)) {
            return frame.payload_length == sizeof(Page);
        }
    }
    return false;
}

}  // namespace

int main() {
    IPC_SHM_CTRL_INFO::set_shm_root_path("shm");
    IPC_SHMEMORY::set_root_path("/dev/shm");
    const Shm_Stream_Transmission_Index camera("CAMERA", 0, 0);
    const IPC_SHM_SRC_CTRL_INFO source_names(camera);
    const IPC_SHM_DST_CTRL_INFO target_names(camera);
    if (!make_slot(source_names)) {
        return 1;
    }

    ZAV_SHM_Stream_Transmission_Receiver source(&source_names);
    ZAV_SHM_Stream_Transmission_Distributor target(&target_names);
    SHM_Stream_Transmission relay(&source);
    relay.insert_distributor(&target);
    if (relay.run(fun_transmission_stream) != 0) {
        return 1;
    }

    const auto deadline = Clock::now() + patience;
    std::thread producer(produce, source_names, test_picture(), deadline);
    Page received{};
    const bool arrived = consume(target_names, received, deadline);
    producer.join();
    const bool intact = arrived && received == test_picture();
    std::puts(intact ? "frame received" : "no frame");
    return intact ? 0 : 1;
}
