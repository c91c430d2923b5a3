// SPDX-License-Identifier: Apache-2.0
#include "apps/centerd/former_segments.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

namespace zav_shm::centerd {

namespace {

constexpr std::uint64_t stat_block_bytes = 512;  // the unit of st_blocks, whatever the file system

// What is no regular file is left to the center, which refuses it.
template <class Action>
void for_each_former(const Inventory& inventory, const Action& action) {
    for (const Shared_File& segment : inventory.segments) {
        struct stat found {};
        if (lstat(segment.path.c_str(), &found) == 0 && S_ISREG(found.st_mode)) {
            action(segment, static_cast<std::uint64_t>(found.st_size) == segment.bytes,
                   static_cast<std::uint64_t>(found.st_blocks) * stat_block_bytes);
        }
    }
}

}  // namespace

Former_Segments::Former_Segments(const Inventory& inventory) {
    for_each_former(inventory, [this](const Shared_File& segment, bool has_length, auto memory) {
        if (has_length) {
            ++of_same_length;
            reused_bytes += std::min(memory, Inventory::in_pages(segment.bytes));
        } else {
            ++of_another_length;
            freed_bytes += memory;
        }
    });
}

void Former_Segments::remove_of_another_length(const Inventory& inventory) {
    for_each_former(inventory, [](const Shared_File& segment, bool has_length, auto /*memory*/) {
        if (!has_length) {
            unlink(segment.path.c_str());
        }
    });
}

}  // namespace zav_shm::centerd
