// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <limits>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace zav_shm::doctor {

/// Which file, whatever its name.
struct File_Id {
    dev_t device = 0;
    ino_t inode = 0;

    bool operator==(const File_Id&) const = default;
};

std::optional<File_Id> file_id(const std::string& path);

/// What /proc says of one process. What may not be looked at is missing.
struct Process_Facts {
    static constexpr std::uint64_t unlimited = std::numeric_limits<std::uint64_t>::max();

    pid_t pid = 0;  // as seen from here
    std::string command;
    uid_t uid = 0;
    bool is_stopped = false;
    bool has_own_pid_namespace = false;  // other than the one of /proc
    std::optional<std::uint64_t> memlock_bytes;
    std::optional<std::int64_t> start_ns;  // CLOCK_BOOTTIME

    // Only for its own user and for root:
    bool maps_shared_memory = false;  // has a file below /dev/shm in its memory
    std::optional<File_Id> tmp;
    std::optional<File_Id> shm;
    std::string ipc_namespace;   // "ipc:[4026531839]"; empty: not known
    std::string time_namespace;  // the same
    std::optional<int> bits;     // 32 or 64

    bool is_known() const { return tmp && !ipc_namespace.empty(); }
};

/// @return nothing when there is no such process.
std::optional<Process_Facts> facts_of(pid_t pid);

/// 32 or 64, from the head of a program's file.
std::optional<int> bits_of_program(const std::string& path);

/// All processes that /proc shows, by the id that each has for itself in its own PID namespace.
std::multimap<pid_t, pid_t> processes_by_own_id();

/// "process 812 (recorder)"
std::string process_text(pid_t pid, const std::string& command);

}  // namespace zav_shm::doctor
