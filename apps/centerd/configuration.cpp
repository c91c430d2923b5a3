// SPDX-License-Identifier: Apache-2.0
#include "apps/centerd/configuration.h"

#include <sys/stat.h>

#include "apps/text/printable.h"
#include "ipc/shared_memory_folder.h"
#include "ipc/unix_group.h"

namespace zav_shm::centerd {

namespace {

// By what they are, not by how they are written: "/dev/shm/" and "/run/shm" may be the same. Where
// there is no such folder at all, the configuration is not to blame.
bool leads_elsewhere(const char* path) {
    struct stat given {};
    struct stat real {};
    return stat(shared_memory_folder, &real) == 0 &&
           (stat(path, &given) != 0 || given.st_dev != real.st_dev || given.st_ino != real.st_ino);
}

// Of a file that could not be read, the text names the path itself.
std::string mistake_of(const ZAV_SHM_CONFIG& config, const std::string& front) {
    if (config.error().rfind("cannot ", 0) == 0) {
        return config.error() + "; --config takes the path of a configuration file";
    }
    return front + config.error() + "; correct the file";
}

// A center cannot keep anybody out by a group that it does not know.
void check_group(std::vector<std::string>& lines, const std::string& place,
                 const std::string& group) {
    if (!group.empty() && !group_id(group)) {
        lines.push_back(place + ": there is no group \"" + printable(group) +
                        "\"; make it (groupadd), or correct the file");
    }
}

void check_groups(std::vector<std::string>& lines, const std::string& front,
                  const ZAV_SHM_CONFIG& config) {
    std::size_t i = 0;
    for (const auto* const stream : config.streams()) {
        check_group(lines, front + "Stream[" + std::to_string(i++) + "].group", stream->group);
    }
    i = 0;
    for (const auto* const producer : config.distributors()) {
        const std::string place = front + "Distributor[" + std::to_string(i++) + "]";
        check_group(lines, place + ".group", producer->group);
        check_group(lines, place + ".producers", producer->producers);
    }
}

}  // namespace

std::string title_of(const std::string& path) {
    return path.empty() ? "the built-in defaults" : path;
}

Outcome load(const std::string& path, ZAV_SHM_CONFIG& config) {
    const std::string front = title_of(path) + ": ";
    std::vector<std::string> lines;
    if (path.empty()) {
        config.load_default();
    } else if (config.parse_config(path.c_str()) == 0) {
        lines.push_back(mistake_of(config, front));
    }
    if (lines.empty()) {
        for (const std::string& problem : config.problems()) {
            lines.push_back(front + problem + "; correct the file");
        }
        check_groups(lines, front, config);
        if (leads_elsewhere(config.root_path)) {
            lines.push_back(front + "System.ROOT_PATH: \"" + config.root_path +
                            "\" is not the folder /dev/shm, where segments are made; set it to "
                            "\"/dev/shm\", or leave it out");
        }
    }
    if (lines.empty()) {
        return std::nullopt;
    }
    for (const std::string& warning : config.warnings()) {
        lines.push_back(front);
        lines.back().append("warning: ").append(warning);
    }
    return Failure{Exit_Status::configuration_refused, lines};
}

}  // namespace zav_shm::centerd
