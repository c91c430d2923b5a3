// SPDX-License-Identifier: Apache-2.0
#include "bench/bench_channel.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <string>

#include "ipc/shared_memory_folder.h"
#include "stream/frame_slot.h"

namespace zav_shm::bench {

namespace {

constexpr const char* segment_folder = "shm";
constexpr unsigned owner_only = 0600;

Shm_Stream_Transmission_Index producer_key() { return {producer_name(), 0, 0}; }

}  // namespace

bool prepare_names() {
    IPC_SHMEMORY::set_root_path(shared_memory_folder);
    IPC_SHM_CTRL_INFO::set_shm_root_path(segment_folder);
    const std::string folder = shared_memory_path(segment_folder);
    return mkdir(folder.c_str(), 0700) == 0 || errno == EEXIST;
}

std::string producer_name() { return "PRODUCER"; }

std::string consumer_name(int consumer) {
    std::string name = "CONSUMER";
    return name += std::to_string(consumer);
}

IPC_SHM_SRC_CTRL_INFO producer_names() { return IPC_SHM_SRC_CTRL_INFO(producer_key()); }

IPC_SHM_DST_CTRL_INFO consumer_names(int consumer) {
    const Shm_Stream_Transmission_Index key(consumer_name(consumer), 0, 0);
    IPC_SHM_DST_CTRL_INFO names(key);
    names.shm_path = producer_names().shm_path;
    return names;
}

Bench_Center::Bench_Center(std::size_t payload_bytes, int consumers)
    : segment_(producer_names().shm_path.c_str(), O_CREAT | O_RDWR, owner_only,
               static_cast<int>(payload_bytes + frame_header_bytes)),
      source_([] {
          const IPC_SHM_SRC_CTRL_INFO names = producer_names();
          return ZAV_SHM_Stream_Transmission_Receiver(&names);
      }()),
      relay_(&source_) {
    for (int i = 0; i < consumers; ++i) {
        const IPC_SHM_DST_CTRL_INFO names = consumer_names(i);
        writers_.push_back(std::make_unique<ZAV_SHM_Stream_Transmission_Distributor>(&names));
        relay_.insert_distributor(writers_.back().get());
    }
}

bool Bench_Center::start() {
    bool complete = segment_.is_mapped() && source_.get_sem_value(0) == 0;
    for (const auto& writer : writers_) {
        complete = complete && writer->get_sem_value(0) == 0;
    }
    return complete && relay_.run(fun_transmission_stream) == 0;
}

}  // namespace zav_shm::bench
