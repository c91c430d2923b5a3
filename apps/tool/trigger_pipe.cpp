// SPDX-License-Identifier: Apache-2.0
#include "apps/tool/trigger_pipe.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string_view>
#include <system_error>
#include <utility>

#include "ipc/random_epoch.h"
#include "ipc/shared_memory_folder.h"

namespace zav_shm::tool {

namespace {

constexpr std::string_view ending = ".trigger";
constexpr std::string_view line = "trigger\n";
constexpr std::size_t digits = 16;
constexpr int pipe_flags = O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC;

// By chance and not by process id: the same id may live in two PID namespaces.
std::string new_path(const std::string& folder, const std::string& end) {
    std::array<char, digits + 1> text{};
    std::snprintf(text.data(), text.size(), "%016" PRIx64, random_epoch());
    return folder + "/" + end + "." + text.data() + std::string(ending);
}

bool is_pipe(int descriptor) {
    struct stat status {};
    return fstat(descriptor, &status) == 0 && S_ISFIFO(status.st_mode);
}

// Whoever may read the folder may trigger.
mode_t pipe_mode(mode_t folder) {
    const mode_t readable = readable_file_mode(folder);
    return readable | ((readable & 0044U) >> 1U);
}

// The channel end of a pipe's name: "RECODER_0_0"; empty when it is no such name.
std::string end_of(const std::string& file) {
    constexpr std::size_t behind = 1 + digits + ending.size();
    const bool is_one =
        file.size() > behind && file.ends_with(ending) && file[file.size() - behind] == '.';
    return is_one ? file.substr(0, file.size() - behind) : std::string();
}

// "_0_1"
bool is_channel_and_stream(std::string_view text) {
    const std::size_t second = text.find('_', 1);
    return text.starts_with('_') && second != std::string_view::npos && second > 1 &&
           second + 1 < text.size() && text.find('_', second + 1) == std::string_view::npos &&
           text.find_first_not_of("_0123456789") == std::string_view::npos;
}

}  // namespace

// ---- the recorder's end ----

Trigger_Pipe::Trigger_Pipe(std::string folder, const std::string& end)
    : folder_(std::move(folder)), path_(new_path(folder_, end)) {}

Trigger_Pipe::~Trigger_Pipe() {
    if (has_name()) {
        unlink(path_.c_str());
    }
}

bool Trigger_Pipe::has_name() const {
    struct stat own {};
    struct stat named {};
    return pipe_.is_open() && fstat(pipe_.get(), &own) == 0 && lstat(path_.c_str(), &named) == 0 &&
           own.st_dev == named.st_dev && own.st_ino == named.st_ino;
}

bool Trigger_Pipe::keep() { return has_name() || make(); }

// Open before it has its name: a pipe without a reader is a dead recorder's. Also open for writing,
// so that it never ends.
bool Trigger_Pipe::make() {
    struct stat folder {};
    const std::string fresh = path_ + ".new";
    if (stat(folder_.c_str(), &folder) != 0 || mkfifo(fresh.c_str(), 0600) != 0) {
        return false;
    }
    Descriptor pipe(open(fresh.c_str(), O_RDWR | pipe_flags));
    if (pipe.is_open() && is_pipe(pipe.get()) &&
        fchmod(pipe.get(), pipe_mode(folder.st_mode)) == 0 &&
        rename(fresh.c_str(), path_.c_str()) == 0) {
        pipe_ = std::move(pipe);
        return true;
    }
    const int error = errno;
    unlink(fresh.c_str());
    errno = error;
    return false;
}

// Once only: somebody may write to it without end.
std::uint64_t Trigger_Pipe::take() {
    std::array<char, 4096> block{};
    const ssize_t got = pipe_.is_open() ? read(pipe_.get(), block.data(), block.size()) : 0;
    return got > 0
               ? static_cast<std::uint64_t>(std::count(block.begin(), block.begin() + got, '\n'))
               : 0;
}

// ---- the other end ----

Triggered trigger_recorders(const std::string& folder, const std::string& name,
                            const std::optional<std::string>& end) {
    namespace fs = std::filesystem;
    Triggered done;
    std::error_code failed;
    for (const auto& entry : fs::directory_iterator(folder, failed)) {
        const std::string its_end = end_of(entry.path().filename());
        const bool is_meant =
            end ? its_end == *end
                : its_end.starts_with(name) &&
                      is_channel_and_stream(std::string_view(its_end).substr(name.size()));
        if (!is_meant) {
            continue;
        }
        const std::string path = entry.path();
        const Descriptor pipe(open(path.c_str(), O_WRONLY | pipe_flags));
        if (!pipe.is_open()) {
            if (errno == ENXIO) {
                unlink(path.c_str());  // its recorder is gone
            } else if (errno != ENOENT) {
                done.problems.push_back("cannot open " + path + ": " + std::strerror(errno));
            }
        } else if (!is_pipe(pipe.get())) {
            done.problems.push_back(path + " is no pipe");
        } else if (write(pipe.get(), line.data(), line.size()) !=
                   static_cast<ssize_t>(line.size())) {
            done.problems.push_back("the recorder of " + path +
                                    " takes no triggers: " + std::strerror(errno));
        } else {
            ++done.recorders;
        }
    }
    if (failed && failed != std::errc::no_such_file_or_directory) {
        done.problems.push_back("cannot read " + folder + ": " + failed.message());
    }
    return done;
}

}  // namespace zav_shm::tool
