// SPDX-License-Identifier: Apache-2.0
#include "apps/centerd/reader_sweeper.h"

#include <fcntl.h>
#include <unistd.h>

#include <filesystem>
#include <system_error>

#include "ipc/descriptor.h"
#include "ipc/file_lock.h"

namespace zav_shm::centerd {

namespace {

// A lock that who may only read can have is no sign of life. What cannot be opened is left alone.
bool is_dead(const std::string& path) {
    const Descriptor card(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
    if (!card.is_open()) {
        return false;
    }
    const File_Lock_State state = look_at_file_lock(card.get());
    return state == File_Lock_State::free || state == File_Lock_State::shared;
}

}  // namespace

std::size_t Reader_Sweeper::step() {
    std::set<std::string> dead;
    std::size_t removed = 0;
    std::error_code error;
    std::filesystem::directory_iterator file(folder_, error);
    for (; !error && file != std::filesystem::directory_iterator(); file.increment(error)) {
        const std::string name = file->path().filename();
        if ((!name.ends_with(".reader") && !name.ends_with(".reader.new")) ||
            !is_dead(file->path())) {
            continue;
        }
        if (!seen_dead_.contains(name)) {
            dead.insert(name);
        } else if (unlink(file->path().c_str()) == 0) {
            ++removed;
        }
    }
    seen_dead_ = std::move(dead);
    return removed;
}

}  // namespace zav_shm::centerd
