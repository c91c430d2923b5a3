// SPDX-License-Identifier: Apache-2.0
#include "control/center_page.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace zav_shm {

namespace {

constexpr const char* system_directory = "/dev/shm/";

// One byte more than a page shows that the file is longer.
ssize_t read_up_to(int descriptor, char* buffer, std::size_t size) {
    std::size_t got = 0;
    while (got < size) {
        const ssize_t part = read(descriptor, buffer + got, size - got);
        if (part < 0 && errno == EINTR) {
            continue;
        }
        if (part < 0) {
            return -1;
        }
        if (part == 0) {
            break;
        }
        got += static_cast<std::size_t>(part);
    }
    return static_cast<ssize_t>(got);
}

bool is_valid(const Center_Page& page) {
    const Center_Page expected;
    return std::memcmp(page.magic, expected.magic, sizeof page.magic) == 0 &&
           page.version == expected.version && page.epoch != 0 && page.pid != 0;
}

}  // namespace

std::string center_page_path(const std::string& folder) {
    const std::size_t begin = folder.find_first_not_of('/');
    return system_directory + (begin == std::string::npos ? "" : folder.substr(begin)) +
           "/center_page";
}

// O_NONBLOCK keeps a FIFO of that name from blocking the open for ever.
std::optional<Center_Page> read_center_page(const std::string& folder) {
    const int descriptor =
        open(center_page_path(folder).c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK);
    if (descriptor < 0) {
        return std::nullopt;
    }
    char bytes[sizeof(Center_Page) + 1];
    const ssize_t got = read_up_to(descriptor, bytes, sizeof bytes);
    close(descriptor);
    if (got != static_cast<ssize_t>(sizeof(Center_Page))) {
        return std::nullopt;
    }
    Center_Page page;
    std::memcpy(&page, bytes, sizeof page);
    return is_valid(page) ? std::optional(page) : std::nullopt;
}

bool write_center_page(const std::string& folder, const Center_Page& page, File_Access access) {
    char bytes[sizeof page];
    std::memcpy(bytes, &page, sizeof page);
    return replace_file(center_page_path(folder), {bytes, sizeof bytes}, access);
}

void remove_center_page(const std::string& folder) { unlink(center_page_path(folder).c_str()); }

}  // namespace zav_shm
