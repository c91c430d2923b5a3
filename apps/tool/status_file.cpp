// SPDX-License-Identifier: Apache-2.0
#include "apps/tool/status_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <limits>
#include <optional>

#include "apps/tool/json_text.h"
#include "control/center_status.h"

namespace zav_shm::tool {

namespace {

// 4096 channels with a dozen consumers each stay below this.
constexpr std::size_t file_bytes_max = std::size_t{16} << 20;

struct File_Content {
    std::string text;
    timespec changed{};
};

/// A regular file of bounded size; nothing with errno.
std::optional<File_Content> read_file(const std::string& path) {
    const int descriptor = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (descriptor < 0) {
        return {};
    }
    File_Content content;
    struct stat status {};
    bool good = fstat(descriptor, &status) == 0;
    if (good && !S_ISREG(status.st_mode)) {
        errno = S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
        good = false;
    }
    content.changed = status.st_mtim;
    char block[65536];
    while (good) {
        const ssize_t got = read(descriptor, block, sizeof block);
        if (got == 0) {
            break;
        }
        good = got > 0 || errno == EINTR;
        content.text.append(block, got > 0 ? static_cast<std::size_t>(got) : 0);
        if (content.text.size() > file_bytes_max) {
            errno = EFBIG;
            good = false;
        }
    }
    const int error = errno;
    close(descriptor);
    errno = error;
    return good ? std::optional(std::move(content)) : std::nullopt;
}

// Never below 0: the wall clock may have been set back meanwhile.
std::chrono::milliseconds age_of(const timespec& changed) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    const std::int64_t ms = (std::int64_t{now.tv_sec} - changed.tv_sec) * 1000 +
                            (now.tv_nsec - changed.tv_nsec) / 1'000'000;
    return std::chrono::milliseconds(std::max<std::int64_t>(ms, 0));
}

bool exists(Json::UInt64 pid) {
    if (pid == 0 || pid > static_cast<Json::UInt64>(std::numeric_limits<pid_t>::max())) {
        return false;
    }
    return kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM;
}

}  // namespace

std::string status_path(const std::string& folder) { return center_status_path(folder); }

std::variant<Center_Status, Problem> read_center_status(const std::string& path) {
    const auto file = read_file(path);
    if (!file && errno == ENOENT) {
        return Problem{Exit_Status::no_center,
                       "no center: there is no " + path +
                           "; start zav-shm-centerd, or say where with --folder"};
    }
    if (!file) {
        return Problem{Exit_Status::input_output,
                       "cannot read " + path + ": " + std::strerror(errno)};
    }
    Center_Status status;
    status.content = parsed_json(file->text);
    if (!status.content.isObject()) {
        return Problem{Exit_Status::input_output, path + " is not the status of a center: its " +
                                                      std::to_string(file->text.size()) +
                                                      " bytes are no JSON object"};
    }
    status.age = age_of(file->changed);
    status.is_alive = exists(count_at(status.content, "pid"));
    return status;
}

std::string json_of(const Center_Status& status) {
    Json::Value content = status.content;
    content["age_ms"] = Json::Int64{status.age.count()};
    content["alive"] = status.is_alive;
    content["stale"] = status.is_stale();
    return json_line(content) + "\n";
}

}  // namespace zav_shm::tool
