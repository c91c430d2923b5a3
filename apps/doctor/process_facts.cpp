// SPDX-License-Identifier: Apache-2.0
#include "apps/doctor/process_facts.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

#include "ipc/descriptor.h"
#include "ipc/file_content.h"
#include "ipc/monotonic_clock.h"

namespace zav_shm::doctor {

namespace {

std::string folder_of(pid_t pid) { return "/proc/" + std::to_string(pid); }

std::string text_of(const std::string& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

std::string link_of(const std::string& path) {
    std::array<char, 256> text{};
    const ssize_t length = readlink(path.c_str(), text.data(), text.size());
    return length > 0 ? std::string(text.data(), static_cast<std::size_t>(length)) : std::string();
}

// The words behind "KEY:" in a file with a line for each key.
std::vector<std::string> words_behind(const std::string& text, const std::string& key) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with(key)) {
            std::istringstream rest(line.substr(key.size()));
            return {std::istream_iterator<std::string>(rest), {}};
        }
    }
    return {};
}

template <class Number>
Number number(const std::string& text) {
    Number value = 0;
    std::from_chars(text.data(), text.data() + text.size(), value);
    return value;
}

// "17 (name) S 1 ...": the name may hold blanks and brackets, and ends at the last one.
void read_stat(Process_Facts& facts) {
    constexpr std::size_t start_word = 19;  // counted from the state on
    const std::string text = text_of(folder_of(facts.pid) + "/stat");
    const std::size_t begin = text.find('(');
    const std::size_t end = text.rfind(')');
    if (begin == std::string::npos || end == std::string::npos) {
        return;
    }
    facts.command = text.substr(begin + 1, end - begin - 1);
    std::istringstream rest(text.substr(end + 1));
    const std::vector<std::string> words{std::istream_iterator<std::string>(rest), {}};
    if (words.size() > start_word) {
        facts.is_stopped = words.front() == "T" || words.front() == "t";
        facts.start_ns =
            number<std::int64_t>(words[start_word]) * (ns_per_second / sysconf(_SC_CLK_TCK));
    }
}

void read_memlock(Process_Facts& facts) {
    const auto words = words_behind(text_of(folder_of(facts.pid) + "/limits"), "Max locked memory");
    if (!words.empty()) {
        facts.memlock_bytes = words.front() == "unlimited" ? Process_Facts::unlimited
                                                           : number<std::uint64_t>(words.front());
    }
}

}  // namespace

std::optional<File_Id> file_id(const std::string& path) {
    struct stat found {};
    if (stat(path.c_str(), &found) != 0) {
        return std::nullopt;
    }
    return File_Id{found.st_dev, found.st_ino};
}

std::optional<int> bits_of_program(const std::string& path) {
    const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    std::array<char, 5> head{};
    if (!file.is_open() ||
        read_up_to(file.get(), head.data(), head.size()) != ssize_t{head.size()} ||
        std::string(head.data(), 4) != "\177ELF") {
        return std::nullopt;
    }
    return head[4] == 1 ? 32 : 64;
}

std::optional<Process_Facts> facts_of(pid_t pid) {
    const std::string folder = folder_of(pid);
    const std::string status = text_of(folder + "/status");
    const auto users = words_behind(status, "Uid:");
    if (pid <= 0 || users.size() < 2) {
        return std::nullopt;
    }
    Process_Facts facts;
    facts.pid = pid;
    facts.uid = number<uid_t>(users[1]);
    facts.has_own_pid_namespace = words_behind(status, "NSpid:").size() > 1;
    read_stat(facts);
    read_memlock(facts);
    facts.maps_shared_memory = text_of(folder + "/maps").find(" /dev/shm/") != std::string::npos;
    facts.tmp = file_id(folder + "/root/tmp");
    facts.shm = file_id(folder + "/root/dev/shm");
    facts.ipc_namespace = link_of(folder + "/ns/ipc");
    facts.time_namespace = link_of(folder + "/ns/time");
    facts.bits = bits_of_program(folder + "/exe");
    return facts;
}

std::multimap<pid_t, pid_t> processes_by_own_id() {
    std::multimap<pid_t, pid_t> found;
    std::error_code error;
    std::filesystem::directory_iterator entry("/proc", error);
    for (; !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
        const std::string name = entry->path().filename().string();
        if (!std::all_of(name.begin(), name.end(),
                         [](unsigned char c) { return std::isdigit(c) != 0; })) {
            continue;
        }
        const auto ids = words_behind(text_of("/proc/" + name + "/status"), "NSpid:");
        if (!ids.empty()) {
            found.emplace(number<pid_t>(ids.back()), number<pid_t>(name));
        }
    }
    return found;
}

std::string process_text(pid_t pid, const std::string& command) {
    return "process " + std::to_string(pid) + (command.empty() ? "" : " (" + command + ")");
}

}  // namespace zav_shm::doctor
