// SPDX-License-Identifier: Apache-2.0
#include "apps/tool/center_health.h"

#include <sys/statvfs.h>

#include <algorithm>
#include <cstdint>

#include "apps/tool/center_request.h"
#include "apps/tool/json_text.h"

namespace zav_shm::tool {

namespace {

// How long a center is given that the file or its process id do not show to be well.
constexpr std::chrono::milliseconds doubt_max{500};

std::string text_of(std::uint64_t number, std::uint64_t of, const char* unit) {
    return std::to_string(number) + " of " + std::to_string(of) + " " + unit;
}

// Why the file cannot be replaced, as far as the file system tells.
std::string room_of(const std::string& path) {
    struct statvfs room {};
    if (statvfs(path.c_str(), &room) != 0) {
        return {};
    }
    return ": the file system has " +
           text_of(std::uint64_t{room.f_bavail} * room.f_frsize,
                   std::uint64_t{room.f_blocks} * room.f_frsize, "bytes") +
           " and " + text_of(room.f_favail, room.f_files, "files left") +
           ((room.f_flag & ST_RDONLY) != 0 ? ", and is read-only" : "");
}

std::optional<Problem> trouble_of(const Center_Status& status, const std::string& path,
                                  bool answers) {
    const std::string age = std::to_string(status.age.count() / 1000) + " s old";
    if (!status.is_alive) {
        return Problem{Exit_Status::no_center, "the center is gone: process " +
                                                   std::to_string(count_at(status.content, "pid")) +
                                                   " does not exist, and " + path + " is " + age};
    }
    if (!status.is_stale()) {
        return {};
    }
    if (answers) {
        return Problem{Exit_Status::input_output, "the center answers, but what it tells is old: " +
                                                      path + " is " + age + room_of(path)};
    }
    return Problem{Exit_Status::no_center, "the center hangs: it does not answer, and " + path +
                                               " is " + age + ", it should be 1 s at most"};
}

}  // namespace

std::optional<Problem> trouble_with(Center_Status& status, const std::string& path,
                                    std::chrono::milliseconds wait) {
    const bool is_doubtful = !status.is_alive || status.is_stale();
    const bool answers = is_doubtful && center_answers(std::min(wait, doubt_max));
    status.is_alive = status.is_alive || answers;
    return trouble_of(status, path, answers);
}

}  // namespace zav_shm::tool
