// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "config/zav_shm_config.h"

namespace zav_shm::centerd {

/// One file below /dev/shm that the center makes.
struct Shared_File {
    std::string path;
    std::uint64_t bytes = 0;  // its length
};

/// Every name that the center of a configuration makes below /dev/shm. Names of a configuration
/// belong to it: nobody else makes any of them.
struct Inventory {
    std::string segment_folder;    // "/dev/shm/shm"
    std::string semaphore_folder;  // "/dev/shm/sem", stays empty
    std::vector<Shared_File> segments;
    std::vector<Shared_File> semaphores;
    std::string page;    // center_page
    std::string status;  // center_status.json
    std::string lock;    // center_lock
    int relays = 0;      // threads, one for each segment
    int consumer_channels = 0;
    int name_count = 0;    // of producers and consumers
    int stream_count = 0;  // of each channel

    explicit Inventory(const ZAV_SHM_CONFIG& config);

    /// What files of these lengths take: whole memory pages.
    static std::uint64_t in_pages(const std::vector<Shared_File>& files);
    static std::uint64_t in_pages(std::uint64_t bytes);
};

}  // namespace zav_shm::centerd
