// SPDX-License-Identifier: Apache-2.0
#include "control/center_page.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "ipc/file_content.h"
#include "ipc/file_lock.h"
#include "ipc/process_exists.h"
#include "ipc/shared_memory_folder.h"

namespace zav_shm {

namespace {

bool is_valid(const Center_Page& page) {
    const Center_Page expected;
    return std::memcmp(page.magic, expected.magic, sizeof page.magic) == 0 &&
           page.version == expected.version && page.epoch != 0 && page.pid != 0;
}

std::optional<Center_Page> page_in(int descriptor) {
    char bytes[sizeof(Center_Page) + 1];  // one more shows that the file is longer
    if (read_up_to(descriptor, bytes, sizeof bytes) != sizeof(Center_Page)) {
        return {};
    }
    Center_Page page;
    std::memcpy(&page, bytes, sizeof page);
    return is_valid(page) ? std::optional(page) : std::nullopt;
}

Descriptor open_page(const std::string& folder) {
    return Descriptor(
        open(center_page_path(folder).c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
}

bool is_host_alive(int descriptor, const Center_Page& page) {
    const bool is_held = (page.flags & center_page_is_held) != 0;
    const auto found = is_held ? look_at_file_lock(descriptor) : File_Lock_State::unknown;
    return found == File_Lock_State::unknown ? process_exists(page.pid)
                                             : found == File_Lock_State::exclusive;
}

std::string_view bytes_of(const Center_Page& page, char (&room)[sizeof(Center_Page)]) {
    std::memcpy(room, &page, sizeof page);
    return {room, sizeof room};
}

}  // namespace

std::string center_page_path(const std::string& folder) {
    return shared_memory_path(folder + "/center_page");
}

std::optional<Center_Page> read_center_page(const std::string& folder) {
    const Descriptor file = open_page(folder);
    return file.is_open() ? page_in(file.get()) : std::nullopt;
}

bool write_center_page(const std::string& folder, const Center_Page& page, File_Access access) {
    char bytes[sizeof page];
    return replace_file(center_page_path(folder), bytes_of(page, bytes), access);
}

Descriptor hold_center_page(const std::string& folder, const Center_Page& page,
                            File_Access access) {
    File_Replacement replacement(center_page_path(folder));
    if (!replacement.is_open()) {
        return {};
    }
    Center_Page written = page;
    if (take_file_lock(replacement.descriptor())) {
        written.flags |= center_page_is_held;
    }
    char bytes[sizeof page];
    return replacement.finish(bytes_of(written, bytes), access) ? replacement.take() : Descriptor();
}

bool is_center_alive(const std::string& folder) {
    const Descriptor file = open_page(folder);
    const auto page = file.is_open() ? page_in(file.get()) : std::nullopt;
    return page && is_host_alive(file.get(), *page);
}

bool is_center_alive(const std::string& folder, pid_t pid) {
    const auto page = read_center_page(folder);
    return page && page->pid == static_cast<std::uint32_t>(pid) ? is_center_alive(folder)
                                                                : process_exists(pid);
}

void remove_center_page(const std::string& folder) { unlink(center_page_path(folder).c_str()); }

}  // namespace zav_shm
