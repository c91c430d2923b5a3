// SPDX-License-Identifier: Apache-2.0
#include "ipc/ring_place.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <system_error>

#include "ipc/shared_memory_folder.h"
#include "ipc/unix_group.h"

namespace zav_shm {

namespace {

namespace fs = std::filesystem;

constexpr std::string_view guarded_ending = ".d";  // rings' names end with a number
constexpr mode_t readable = 0644;

// By the kernel's own judgement, as the effective user.
bool may(const std::string& path, int what) {
    return faccessat(AT_FDCWD, path.c_str(), what, AT_EACCESS) == 0;
}

std::string process_title() {
    return "this process (user " + user_title(geteuid()) + ") is not in it";
}

// "CAM_LOOP" of "CAM_LOOP_0_1"; the whole where it is no such name.
std::string_view producer_of(std::string_view file) {
    std::string_view name = file;
    for (int numbers = 0; numbers < 2; ++numbers) {
        const std::size_t at = name.rfind('_');
        if (at == std::string_view::npos) {
            return file;
        }
        name = name.substr(0, at);
    }
    return name;
}

void add_files_in(const std::string& folder,
                  std::vector<std::pair<std::string, std::string>>& files) {
    std::error_code error;
    fs::directory_iterator file(folder, error);
    for (; !error && file != fs::directory_iterator(); file.increment(error)) {
        files.emplace_back(file->path().filename().string(), file->path().string());
    }
}

}  // namespace

std::string guarded_folder(const std::string& rings, std::string_view producer) {
    return rings + "/" + std::string(producer) + std::string(guarded_ending);
}

bool is_guarded(const std::string& rings, std::string_view producer) {
    struct stat folder {};
    struct stat all {};
    return is_file_name(producer) && lstat(guarded_folder(rings, producer).c_str(), &folder) == 0 &&
           S_ISDIR(folder.st_mode) && stat(rings.c_str(), &all) == 0 && folder.st_uid == all.st_uid;
}

std::string ring_path(const std::string& rings, std::string_view producer, int channel,
                      int stream) {
    return (is_guarded(rings, producer) ? guarded_folder(rings, producer) : rings) + "/" +
           channel_file_name(producer, channel, stream);
}

std::string readers_file(const std::string& guarded, int stream) {
    return guarded + "/stream_" + std::to_string(stream) + ".readers";
}

// A stream that the host knows nothing of is its producers' own.
std::optional<Ring_Access> ring_access(const std::string& rings, std::string_view producer,
                                       int stream) {
    const std::string folder = guarded_folder(rings, producer);
    struct stat own {};
    struct stat said {};
    if (!is_guarded(rings, producer) || stat(folder.c_str(), &own) != 0) {
        return std::nullopt;
    }
    const bool is_said = lstat(readers_file(folder, stream).c_str(), &said) == 0 &&
                         S_ISREG(said.st_mode) && said.st_uid == own.st_uid;
    return is_said ? Ring_Access{said.st_gid, said.st_mode & readable}
                   : Ring_Access{own.st_gid, 0640};
}

std::string reading_refusal(const std::string& rings, std::string_view producer, int stream) {
    const auto access = ring_access(rings, producer, stream);
    const std::string file = readers_file(guarded_folder(rings, producer), stream);
    if (!access || may(file, R_OK) || errno != EACCES) {
        return {};
    }
    return std::string(producer) + ", stream " + std::to_string(stream) +
           ", may be read by group " + group_title(access->group) + " only; " + process_title();
}

std::string producing_refusal(const std::string& rings, std::string_view producer) {
    const std::string folder = guarded_folder(rings, producer);
    struct stat own {};
    if (!is_guarded(rings, producer) || stat(folder.c_str(), &own) != 0 ||
        may(folder, W_OK | X_OK) || errno != EACCES) {
        return {};
    }
    const std::string group = group_title(own.st_gid);
    const std::string user = user_title(geteuid());
    return std::string(producer) + " may be produced by group " + group + " only; " +
           process_title() + ": add it (usermod -aG " + group + " " + user + ") and start it anew";
}

std::vector<std::pair<std::string, std::string>> ring_files(const std::string& rings) {
    std::vector<std::pair<std::string, std::string>> in_all;
    std::vector<std::pair<std::string, std::string>> files;
    add_files_in(rings, in_all);
    for (auto& [name, path] : in_all) {
        const bool is_folder = name.ends_with(guarded_ending);
        const std::string producer = name.substr(0, name.size() - guarded_ending.size());
        if (is_folder && is_guarded(rings, producer)) {
            add_files_in(path, files);
        } else if (!is_guarded(rings, producer_of(name))) {
            files.emplace_back(std::move(name), std::move(path));
        }
    }
    return files;
}

}  // namespace zav_shm
