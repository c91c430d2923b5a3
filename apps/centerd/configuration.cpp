// SPDX-License-Identifier: Apache-2.0
#include "apps/centerd/configuration.h"

#include <sys/stat.h>

#include "ipc/shared_memory_folder.h"

namespace zav_shm::centerd {

namespace {

// By what they are, not by how they are written: "/dev/shm/" and "/run/shm" may be the same.
bool is_memory_folder(const char* path) {
    struct stat given {};
    struct stat real {};
    return stat(path, &given) == 0 && stat(shared_memory_folder, &real) == 0 &&
           given.st_dev == real.st_dev && given.st_ino == real.st_ino;
}

}  // namespace

std::string title_of(const std::string& path) {
    return path.empty() ? "the built-in defaults" : path;
}

Outcome load(const std::string& path, ZAV_SHM_CONFIG& config) {
    const std::string title = title_of(path);
    Failure refused{Exit_Status::configuration_refused, {}};
    if (path.empty()) {
        config.load_default();
    } else if (config.parse_config(path.c_str()) == 0) {
        refused.lines.push_back(title + ": " + config.error() + "; correct the file");
        return refused;
    }
    for (const std::string& problem : config.problems()) {
        refused.lines.push_back(title);
        refused.lines.back().append(": ").append(problem).append("; correct the file");
    }
    if (!is_memory_folder(config.root_path)) {
        refused.lines.push_back(title + ": System.ROOT_PATH: \"" + config.root_path +
                                "\" is not the folder /dev/shm, where segments are made; set it "
                                "to \"/dev/shm\", or leave it out");
    }
    return refused.lines.empty() ? Outcome() : refused;
}

}  // namespace zav_shm::centerd
