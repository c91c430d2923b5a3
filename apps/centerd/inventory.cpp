// SPDX-License-Identifier: Apache-2.0
#include "apps/centerd/inventory.h"

#include <semaphore.h>
#include <unistd.h>

#include <numeric>
#include <utility>

#include "ipc/ring_place.h"
#include "ipc/shared_memory_folder.h"
#include "ipc/unix_group.h"
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

// Of a group that does not exist the configuration has been refused.
std::optional<gid_t> group_of(const std::string& name) {
    return name.empty() ? std::nullopt : group_id(name);
}

// The slot is its readers' and its producers', and a file has one group only: its readers' one, in
// which the producers have to be, too.
Shared_File segment_of(const IPC_SHM_SRC_CTRL_INFO& names, const _SHM_DIST_RECV_CONFIG_& producer,
                       const _SHM_STREAM_CONFIG_& stream) {
    Shared_File segment{shared_memory_path(names.shm_path),
                        static_cast<std::uint64_t>(stream.page_size) + frame_header_bytes};
    const auto readers = group_of(readers_group(producer, stream));
    const auto producers = group_of(producer.producers);
    segment.group = readers ? readers : producers;
    segment.others_read = !readers && producers;
    return segment;
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
    const auto add_semaphores = [this](const IPC_SHM_CTRL_INFO& names, std::optional<gid_t> group) {
        for (const auto* name : {&names.sem_path_src, &names.sem_path_dst, &names.sem_path_exist}) {
            semaphores.push_back({semaphore_path(*name), sizeof(sem_t), group});
        }
    };
    for (const auto* const record : config.distributors()) {
        for_each_channel(config, *record, [&](const auto& key, const auto& stream) {
            const IPC_SHM_SRC_CTRL_INFO names(key);
            segments.push_back(segment_of(names, *record, stream));
            rings.push_back(
                {ring_path(rings_folder, key.name, key.channel, key.stream), ring_bytes(stream)});
            add_semaphores(names, group_of(record->producers));
            ++relays;
        });
        add_guarded(config, *record);
    }
    for (const auto* const record : config.receivers()) {
        for_each_channel(config, *record, [&](const auto& key, const auto& /*stream*/) {
            add_semaphores(IPC_SHM_DST_CTRL_INFO(key), std::nullopt);
            ++consumer_channels;
        });
    }
}

void Inventory::add_guarded(const ZAV_SHM_CONFIG& config, const _SHM_DIST_RECV_CONFIG_& producer) {
    Guarded_Folder folder{producer.name,
                          guarded_folder(rings_folder, producer.name),
                          group_of(producer.producers),
                          {}};
    bool is_needed = folder.producers.has_value();
    int number = 0;
    for (const auto* const stream : config.streams()) {
        const auto readers = group_of(readers_group(producer, *stream));
        folder.readers.push_back({readers_file(folder.path, number), number, readers});
        is_needed = is_needed || readers;
        ++number;
    }
    if (is_needed) {
        guarded.push_back(std::move(folder));
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
