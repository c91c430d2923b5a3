// SPDX-License-Identifier: Apache-2.0
#include "apps/log/log.h"

#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <string_view>
#include <utility>

#include "apps/log/log_limit.h"
#include "apps/text/printable.h"
#include "ipc/annotated_mutex.h"

namespace zav_shm {

namespace {

constexpr std::array<std::pair<std::string_view, Log_Level>, 5> names{{
    {"error", Log_Level::error},
    {"warning", Log_Level::warning},
    {"notice", Log_Level::notice},
    {"info", Log_Level::info},
    {"debug", Log_Level::debug},
}};

std::atomic<const char*> program{"zav-shm"};
std::atomic<Log_Level> least_level{log_level_default};
std::atomic<bool> is_journal{false};

struct Limited {
    Mutex mutex;
    Log_Limit limit ZAV_SHM_GUARDED_BY(mutex);
};

// Never destroyed: threads may write lines while the process ends.
Limited& limited() {
    static auto* const only = new Limited;
    return *only;
}

// systemd tells which file its journal reads; a program whose standard error was led elsewhere
// inherits the variable all the same.
bool standard_error_is_journal() {
    const char* const stream = std::getenv("JOURNAL_STREAM");
    std::uintmax_t device = 0;
    std::uintmax_t inode = 0;
    struct stat status {};
    return stream != nullptr &&
           std::sscanf(stream, "%" SCNuMAX ":%" SCNuMAX, &device, &inode) == 2 &&
           fstat(STDERR_FILENO, &status) == 0 && status.st_dev == device && status.st_ino == inode;
}

void write_line(Log_Level level, const std::string& text) {
    const std::string front = is_journal ? "<" + std::to_string(static_cast<int>(level)) + ">"
                                         : std::string(program) + ": ";
    const std::string line = front + printable(text) + "\n";
    std::string_view rest = line;
    while (!rest.empty()) {
        const ssize_t count = write(STDERR_FILENO, rest.data(), rest.size());
        if (count < 0 && errno != EINTR) {
            return;  // nobody reads it
        }
        rest.remove_prefix(count < 0 ? 0 : static_cast<std::size_t>(count));
    }
}

std::string left_out_text(const std::string& object, std::uint64_t left_out) {
    return object + ": " + std::to_string(left_out) +
           (left_out == 1 ? " line more was left out" : " lines more were left out");
}

void write_limited(Log_Level level, const std::string& object, const std::string& text) {
    if (!is_logged(level)) {
        return;
    }
    std::optional<std::uint64_t> left_out;
    {
        const Guard guard(limited().mutex);
        left_out = limited().limit.pass(object, std::chrono::steady_clock::now());
    }
    if (!left_out) {
        return;
    }
    if (*left_out > 0) {
        write_line(level, left_out_text(object, *left_out));
    }
    write_line(level, text);
}

}  // namespace

std::optional<Log_Level> log_level_of(const std::string& name) {
    for (const auto& [known, level] : names) {
        if (known == name) {
            return level;
        }
    }
    return std::nullopt;
}

void open_log(const char* name, Log_Level least) {
    program = name;
    least_level = least;
    is_journal = standard_error_is_journal();
}

bool is_logged(Log_Level level) { return level <= least_level.load(); }

void write_log(Log_Level level, const std::string& object, const std::string& text) {
    write_limited(level, object, object + ": " + text);
}

void write_log(Log_Level level, const std::string& text) { write_limited(level, text, text); }

}  // namespace zav_shm
