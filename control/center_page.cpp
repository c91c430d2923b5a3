// SPDX-License-Identifier: Apache-2.0
#include "control/center_page.h"

#include <unistd.h>

#include <cstring>

#include "ipc/file_content.h"
#include "ipc/shared_memory_folder.h"

namespace zav_shm {

namespace {

bool is_valid(const Center_Page& page) {
    const Center_Page expected;
    return std::memcmp(page.magic, expected.magic, sizeof page.magic) == 0 &&
           page.version == expected.version && page.epoch != 0 && page.pid != 0;
}

}  // namespace

std::string center_page_path(const std::string& folder) {
    return shared_memory_path(folder + "/center_page");
}

std::optional<Center_Page> read_center_page(const std::string& folder) {
    const auto file = read_regular_file(center_page_path(folder), sizeof(Center_Page));
    if (!file || file->text.size() != sizeof(Center_Page)) {
        return std::nullopt;
    }
    Center_Page page;
    std::memcpy(&page, file->text.data(), sizeof page);
    return is_valid(page) ? std::optional(page) : std::nullopt;
}

bool write_center_page(const std::string& folder, const Center_Page& page, File_Access access) {
    char bytes[sizeof page];
    std::memcpy(bytes, &page, sizeof page);
    return replace_file(center_page_path(folder), {bytes, sizeof bytes}, access);
}

void remove_center_page(const std::string& folder) { unlink(center_page_path(folder).c_str()); }

}  // namespace zav_shm
