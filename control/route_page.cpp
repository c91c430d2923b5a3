// SPDX-License-Identifier: Apache-2.0
#include "control/route_page.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "control/replaced_file.h"
#include "ipc/descriptor.h"
#include "ipc/file_content.h"
#include "ipc/shared_memory_folder.h"

namespace zav_shm {

namespace {

bool is_valid(const Route_Page& page) {
    const Route_Page expected;
    return std::memcmp(page.magic, expected.magic, sizeof page.magic) == 0 &&
           page.version == expected.version && page.source <= Route_Page::slot &&
           page.serial != 0 && page.producer[sizeof page.producer - 1] == '\0';
}

}  // namespace

std::string route_path(const std::string& rings_folder, const std::string& consumer, int channel,
                       int stream) {
    return rings_folder + "/" + channel_file_name(consumer, channel, stream) + ".route";
}

std::optional<Route> read_route(const std::string& path) {
    const auto content = read_regular_file(path, sizeof(Route_Page));
    Route_Page page;
    if (!content || content->text.size() != sizeof page) {
        return std::nullopt;
    }
    std::memcpy(&page, content->text.data(), sizeof page);
    if (!is_valid(page)) {
        return std::nullopt;
    }
    return Route{page.producer, static_cast<Route_Page::Source>(page.source), page.serial};
}

bool write_route(const std::string& path, const Route& route) {
    struct stat folder {};
    Route_Page page;
    if (route.producer.size() >= sizeof page.producer) {
        errno = ENAMETOOLONG;
        return false;
    }
    if (stat(path.substr(0, path.rfind('/')).c_str(), &folder) != 0) {
        return false;
    }
    page.source = route.source;
    page.serial = route.serial;
    std::memcpy(page.producer, route.producer.data(), route.producer.size());
    char bytes[sizeof page];
    std::memcpy(bytes, &page, sizeof page);
    File_Access access;
    access.mode = readable_file_mode(folder.st_mode);
    return replace_file(path, {bytes, sizeof bytes}, access);
}

}  // namespace zav_shm
