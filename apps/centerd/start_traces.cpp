// SPDX-License-Identifier: Apache-2.0
#include "apps/centerd/start_traces.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace zav_shm::centerd {

namespace {

bool is_absent(const std::string& path) {
    struct stat found {};
    return lstat(path.c_str(), &found) != 0 && errno == ENOENT;
}

}  // namespace

Start_Traces::Start_Traces(const Inventory& inventory, const Control_Queues& queues)
    : queues_(queues), had_queues_(queues.exist()) {
    for (const auto* files : {&inventory.segments, &inventory.semaphores}) {
        for (const Shared_File& file : *files) {
            if (is_absent(file.path)) {
                absent_files_.push_back(file.path);
            }
        }
    }
    for (const Guarded_Folder& folder : inventory.guarded) {
        for (const Readers_File& file : folder.readers) {
            if (is_absent(file.path)) {
                absent_files_.push_back(file.path);
            }
        }
        if (is_absent(folder.path)) {
            absent_folders_.push_back(folder.path);
        }
    }
    for (const std::string& folder :
         {inventory.rings_folder, inventory.segment_folder, inventory.semaphore_folder}) {
        if (is_absent(folder)) {
            absent_folders_.push_back(folder);
        }
    }
}

void Start_Traces::remove_objects() const {
    for (const std::string& file : absent_files_) {
        unlink(file.c_str());
    }
    if (!had_queues_) {
        queues_.remove();
    }
}

void Start_Traces::remove_folders() const {
    for (const std::string& folder : absent_folders_) {
        rmdir(folder.c_str());
    }
}

}  // namespace zav_shm::centerd
