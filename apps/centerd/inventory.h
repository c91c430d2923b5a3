// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "config/zav_shm_config.h"

namespace zav_shm::centerd {

/// One file below /dev/shm that the center makes.
struct Shared_File {
    std::string path;
    std::uint64_t bytes = 0;  // its length
    // Where the configuration keeps it for a group.
    std::optional<gid_t> group = {};
    bool others_read = false;  // clients that are not in it
};

/// What tells publishers who is to read the rings of a stream.
struct Readers_File {
    std::string path;
    int stream = 0;
    std::optional<gid_t> readers;  // nothing: all clients
};

/// A producer's own folder in that of the rings, which the configuration's groups make it need.
struct Guarded_Folder {
    std::string producer;
    std::string path;
    std::optional<gid_t> producers;  // nothing: all clients
    std::vector<Readers_File> readers;
};

/// Every name that the center of a configuration makes below /dev/shm. Names of a configuration
/// belong to it: nobody else makes any of them. And the rings, which publishers make.
struct Inventory {
    std::string segment_folder;    // "/dev/shm/shm"
    std::string rings_folder;      // "/dev/shm/shm/rings"
    std::string semaphore_folder;  // "/dev/shm/sem", stays empty
    std::vector<Shared_File> segments;
    std::vector<Shared_File> semaphores;
    std::vector<Shared_File> rings;  // one for each segment, as large as the configuration wants it
    std::vector<Guarded_Folder> guarded;
    std::string page;    // center_page
    std::string status;  // center_status.json
    std::string lock;    // center_lock
    int relays = 0;      // threads, one for each segment
    int consumer_channels = 0;
    int name_count = 0;    // of producers and consumers
    int stream_count = 0;  // of each channel

    explicit Inventory(const ZAV_SHM_CONFIG& config);

    /// The length of a ring, unless its publisher wants another one; 0 when no ring can be as
    /// large.
    static std::uint64_t ring_bytes(const _SHM_STREAM_CONFIG_& stream);

    /// What files of these lengths take: whole memory pages.
    static std::uint64_t in_pages(const std::vector<Shared_File>& files);
    static std::uint64_t in_pages(std::uint64_t bytes);

private:
    void add_guarded(const ZAV_SHM_CONFIG& config, const _SHM_DIST_RECV_CONFIG_& producer);
};

}  // namespace zav_shm::centerd
