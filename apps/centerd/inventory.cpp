// SPDX-License-Identifier: Apache-2.0
#include "apps/centerd/inventory.h"

#include <semaphore.h>
#include <unistd.h>

#include <numeric>

#include "ipc/shared_memory_folder.h"
#include "ring/ring_memory.h"
#include "stream/channel_names.h"
#include "stream/frame_slot.h"

namespace zav_shm::centerd {

namespace {

template <class Action>
void for_each_channel(const ZAV_SHM_CONFIG& config, const _SHM_DIST_RECV_CONFIG_& record,
                      const Action& action) {
    for (int channel = 0; channel < record.channel; ++channel) {
        int stream = 0;
        for (const auto* const stream_record : config.streams()) {
            action(Shm_Stream_Transmission_Index(record.name, channel, stream++), *stream_record);
        }
    }
}

}  // namespace

// The prefix of segment names is class-wide; the center sets it to the same value.
Inventory::Inventory(const ZAV_SHM_CONFIG& config)
    : segment_folder(shared_memory_path(config.shm_path)),
      rings_folder(zav_shm::rings_folder(config.shm_path)),
      semaphore_folder(shared_memory_path(config.sem_path)),
      page(segment_folder + "/center_page"),
      status(segment_folder + "/center_status.json"),
      lock(segment_folder + "/center_lock"),
      name_count(static_cast<int>(config.distributors().size() + config.receivers().size())),
      stream_count(static_cast<int>(config.streams().size())) {
    IPC_SHM_CTRL_INFO::set_shm_root_path(config.shm_path);
    const auto add_semaphores = [this](const IPC_SHM_CTRL_INFO& names) {
        for (const auto* name : {&names.sem_path_src, &names.sem_path_dst, &names.sem_path_exist}) {
            semaphores.push_back({semaphore_path(*name), sizeof(sem_t)});
        }
    };
    for (const auto* const record : config.distributors()) {
        for_each_channel(config, *record, [&](const auto& key, const auto& stream) {
            const IPC_SHM_SRC_CTRL_INFO names(key);
            segments.push_back({shared_memory_path(names.shm_path),
                                static_cast<std::uint64_t>(stream.page_size) + frame_header_bytes});
            rings.push_back(
                {rings_folder + "/" + channel_file_name(key.name, key.channel, key.stream),
                 ring_bytes(stream)});
            add_semaphores(names);
            ++relays;
        });
    }
    for (const auto* const record : config.receivers()) {
        for_each_channel(config, *record, [&](const auto& key, const auto& /*stream*/) {
            add_semaphores(IPC_SHM_DST_CTRL_INFO(key));
            ++consumer_channels;
        });
    }
}

// The greatest record is a whole page of payload with its header.
std::uint64_t Inventory::ring_bytes(const _SHM_STREAM_CONFIG_& stream) {
    const auto record_max = static_cast<std::uint32_t>(stream.page_size) +
                            static_cast<std::uint32_t>(frame_header_bytes);
    const Ring_Size size{static_cast<std::uint32_t>(ring_history_bytes(stream)), record_max};
    return size.file_bytes().value_or(0);
}

std::uint64_t Inventory::in_pages(std::uint64_t bytes) {
    const auto page_bytes = static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
    return (bytes + page_bytes - 1) / page_bytes * page_bytes;
}

std::uint64_t Inventory::in_pages(const std::vector<Shared_File>& files) {
    return std::accumulate(
        files.begin(), files.end(), std::uint64_t{0},
        [](std::uint64_t sum, const Shared_File& file) { return sum + in_pages(file.bytes); });
}

}  // namespace zav_shm::centerd
