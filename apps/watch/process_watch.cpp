// SPDX-License-Identifier: Apache-2.0
#include "apps/watch/process_watch.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <ctime>
#include <string_view>

#include "ipc/descriptor.h"
#include "ipc/file_content.h"
#include "ipc/monotonic_clock.h"

namespace zav_shm::watch {

namespace {

// A process may make its file within the clock tick that it was started in.
constexpr std::int64_t slack_ns = ns_per_second;

constexpr std::uint64_t start_ms_max = std::uint64_t{1} << 42U;  // a century and more

struct Process_Line {
    std::string command;
    char state = '?';
    std::uint64_t start_ticks = 0;  // since the machine was started
};

std::string proc_file(std::uint32_t pid, const char* file) {
    std::array<char, 4096> text{};
    const Descriptor opened(
        open(("/proc/" + std::to_string(pid) + "/" + file).c_str(), O_RDONLY | O_CLOEXEC));
    const ssize_t length =
        opened.is_open() ? read_up_to(opened.get(), text.data(), text.size()) : 0;
    return length > 0 ? std::string(text.data(), static_cast<std::size_t>(length)) : std::string();
}

// Takes fields off that are separated by blanks.
std::string_view field(std::string_view& rest) {
    rest.remove_prefix(std::min(rest.find_first_not_of(" \t\n"), rest.size()));
    const std::string_view found = rest.substr(0, rest.find_first_of(" \t\n"));
    rest.remove_prefix(found.size());
    return found;
}

std::uint64_t number(std::string_view text) {
    std::uint64_t value = 0;
    std::from_chars(text.data(), text.data() + text.size(), value);
    return value;
}

// "17 (name) S 1 ...": the name may hold blanks and brackets, and ends at the last one.
std::optional<Process_Line> line_of(std::uint32_t pid) {
    constexpr int fields_before_start = 18;  // from the parent's process id on
    const std::string text = proc_file(pid, "stat");
    const std::size_t begin = text.find('(');
    const std::size_t end = text.rfind(')');
    if (begin == std::string::npos || end == std::string::npos || end < begin) {
        return std::nullopt;
    }
    Process_Line line;
    line.command = text.substr(begin + 1, end - begin - 1);
    std::string_view rest = std::string_view(text).substr(end + 1);
    const std::string_view state = field(rest);
    line.state = state.empty() ? '?' : state.front();
    for (int i = 0; i < fields_before_start; ++i) {
        field(rest);
    }
    line.start_ticks = number(field(rest));
    return line;
}

// By which it makes files: "Uid:", then the real, effective, saved and file system's one.
std::optional<uid_t> user_of(std::uint32_t pid) {
    constexpr std::string_view key = "\nUid:";
    const std::string text = proc_file(pid, "status");
    const std::size_t found = text.find(key);
    if (found == std::string::npos) {
        return std::nullopt;
    }
    std::string_view rest = std::string_view(text).substr(found + key.size());
    for (int i = 0; i < 3; ++i) {
        field(rest);
    }
    return static_cast<uid_t>(number(field(rest)));
}

// /proc counts from the machine's start, suspensions included; CLOCK_MONOTONIC leaves them out.
bool began_before(std::uint64_t start_ticks, std::int64_t began_ns) {
    timespec boot{};
    clock_gettime(CLOCK_BOOTTIME, &boot);
    const std::int64_t suspended_ns =
        std::int64_t{boot.tv_sec} * ns_per_second + boot.tv_nsec - monotonic_ns();
    const auto ticks_per_second = static_cast<std::uint64_t>(sysconf(_SC_CLK_TCK));
    const std::uint64_t start_ms = start_ticks / ticks_per_second * 1000;
    return began_ns > 0 && start_ms < start_ms_max &&
           static_cast<std::int64_t>(start_ms) * ns_per_ms - suspended_ns - slack_ns <= began_ns;
}

}  // namespace

Process Process_Watch::look(std::uint32_t pid, uid_t uid, std::int64_t began_ns) {
    Process process{.pid = pid, .uid = uid, .command = {}, .is_stopped = false};
    const auto line = pid != 0 ? line_of(pid) : std::nullopt;
    if (!line) {
        return process;
    }
    const auto [known, is_new] = known_.try_emplace(pid);
    if (is_new || known->second.start_ticks != line->start_ticks) {
        known->second = {line->start_ticks, user_of(pid), true};
    }
    known->second.was_seen = true;
    if (known->second.uid == uid && began_before(line->start_ticks, began_ns)) {
        process.command = line->command;
        process.is_stopped = line->state == 'T' || line->state == 't';
    }
    return process;
}

void Process_Watch::forget_others() {
    std::erase_if(known_, [](const auto& entry) { return !entry.second.was_seen; });
    for (auto& [pid, known] : known_) {
        known.was_seen = false;
    }
}

}  // namespace zav_shm::watch
