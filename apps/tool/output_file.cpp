// SPDX-License-Identifier: Apache-2.0
#include "apps/tool/output_file.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <utility>

#include "apps/tool/options.h"

namespace zav_shm::tool {

namespace {

constexpr std::size_t buffer_bytes = std::size_t{1} << 20;
constexpr std::chrono::seconds hold_max{1};
constexpr std::chrono::milliseconds grace{500};
constexpr std::chrono::milliseconds look{20};  // for the reader of a named pipe
constexpr mode_t new_file_mode = 0666;         // less the umask

// Without blocking: a named pipe without a reader, and a serial line without a partner, would hold
// the program up where no signal ends it. A file that is there is opened without O_CREAT, which the
// kernel refuses even root for the file of another user in a folder like /tmp.
int open_for_writing(const char* file) {
    constexpr int flags = O_WRONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
    const int descriptor = open(file, flags);
    if (descriptor >= 0 || errno != ENOENT) {
        return descriptor;
    }
    return open(file, flags | O_CREAT, new_file_mode);
}

bool is_named_pipe(const char* file) {
    struct stat status {};
    return stat(file, &status) == 0 && S_ISFIFO(status.st_mode);
}

std::string folder_of(const std::string& file) {
    const std::size_t slash = file.rfind('/');
    return slash == std::string::npos ? "." : file.substr(0, slash + 1);
}

// A new file is only there after a loss of power when its folder's entry is on the medium, too.
void sync_folder_of(const std::string& file) {
    const int folder = open(folder_of(file).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folder >= 0) {
        fsync(folder);  // not every file system can
        close(folder);
    }
}

}  // namespace

Output_File::Output_File(std::string file, int standard_output, const Stop_Signal& stop)
    : file_(std::move(file)),
      title_(file_ == standard_stream ? "standard output" : "\"" + file_ + "\""),
      standard_output_(standard_output),
      stop_(stop) {}

Output_File::~Output_File() {
    if (descriptor_ >= 0) {
        ::close(descriptor_);
    }
}

std::optional<Problem> Output_File::open(Clock::time_point end) {
    if (auto problem = file_ == standard_stream ? open_standard_output() : open_named(end)) {
        return problem;
    }
    struct stat status {};
    if (fstat(descriptor_, &status) != 0) {
        return cannot_open();
    }
    is_regular_ = S_ISREG(status.st_mode);
    if (is_regular_) {
        held_back_.reserve(buffer_bytes);
    }
    return {};
}

std::optional<Problem> Output_File::open_standard_output() {
    const int flags = fcntl(standard_output_, F_GETFL);
    if (flags >= 0 && (flags & O_ACCMODE) == O_RDONLY) {
        errno = EBADF;
        return cannot_open();
    }
    descriptor_ = fcntl(standard_output_, F_DUPFD_CLOEXEC, 0);
    return descriptor_ < 0 ? std::optional(cannot_open()) : std::nullopt;
}

std::optional<Problem> Output_File::open_named(Clock::time_point end) {
    const auto begin = Clock::now();
    bool told = false;
    while ((descriptor_ = open_for_writing(file_.c_str())) < 0) {
        if (errno != ENXIO || !is_named_pipe(file_.c_str())) {
            return cannot_open();
        }
        if (!told && Clock::now() - begin > grace) {
            complain("waiting for somebody who reads the pipe " + title_);
            told = true;
        }
        if (stop_.wait_until(std::min(Clock::now() + look, end))) {
            return Problem{Exit_Status::input_output,
                           "stopped by a signal before anybody read the pipe " + title_};
        }
        if (Clock::now() >= end) {
            return Problem{Exit_Status::input_output,
                           "nobody reads the pipe " + title_ + ": the time is over"};
        }
    }
    return {};
}

bool Output_File::is_named_file() const { return is_regular_ && file_ != standard_stream; }

bool Output_File::empty() const { return !is_named_file() || ftruncate(descriptor_, 0) == 0; }

bool Output_File::write(std::span<const std::byte> bytes) {
    if (!is_regular_) {
        return write_through(bytes);
    }
    if (held_back_.size() + bytes.size() > buffer_bytes && !flush()) {
        return false;
    }
    if (bytes.size() > buffer_bytes) {
        return write_through(bytes);
    }
    if (held_back_.empty()) {
        held_since_ = Clock::now();
    }
    held_back_.insert(held_back_.end(), bytes.begin(), bytes.end());
    return true;
}

bool Output_File::flush_if_due() {
    return held_back_.empty() || Clock::now() - held_since_ < hold_max || flush();
}

bool Output_File::cut_back(std::uint64_t bytes) {
    held_back_.clear();
    if (written_ == bytes) {
        return true;
    }
    if (!is_named_file() || ftruncate(descriptor_, static_cast<off_t>(bytes)) != 0 ||
        lseek(descriptor_, static_cast<off_t>(bytes), SEEK_SET) < 0) {
        return false;
    }
    written_ = bytes;
    return true;
}

bool Output_File::close(bool sync) {
    if (descriptor_ < 0) {
        return true;
    }
    const bool flushed = flush();
    const bool synced = !sync || !flushed || sync_to_medium();
    const int error = errno;
    const bool closed = ::close(std::exchange(descriptor_, -1)) == 0;
    if (!flushed || !synced) {
        errno = error;
    }
    return flushed && synced && closed;
}

bool Output_File::sync_to_medium() const {
    if (!is_regular_) {
        return true;
    }
    if (fsync(descriptor_) != 0) {
        return false;
    }
    if (is_named_file()) {
        sync_folder_of(file_);
    }
    return true;
}

bool Output_File::flush() {
    const bool done = write_through(held_back_);
    held_back_.clear();
    return done;
}

// A pipe that is ready has room for PIPE_BUF bytes, so a piece of that size never blocks.
bool Output_File::write_through(std::span<const std::byte> bytes) {
    while (!bytes.empty()) {
        if (!is_regular_ && !wait_until_writable()) {
            return false;
        }
        const std::size_t piece =
            is_regular_ ? bytes.size() : std::min<std::size_t>(bytes.size(), PIPE_BUF);
        const ssize_t written = ::write(descriptor_, bytes.data(), piece);
        if (written < 0 && errno != EINTR && errno != EAGAIN) {
            return false;
        }
        const std::size_t taken = written > 0 ? static_cast<std::size_t>(written) : 0;
        written_ += taken;
        bytes = bytes.subspan(taken);
    }
    return true;
}

bool Output_File::wait_until_writable() {
    while (!stop_.wait_for(descriptor_, POLLOUT, Clock::now() + std::chrono::hours(1))) {
        if (!stop_.requested()) {
            continue;
        }
        pollfd waited{descriptor_, POLLOUT, 0};
        if (poll(&waited, 1, static_cast<int>(grace.count())) <= 0) {
            errno = ETIMEDOUT;
            return false;
        }
        return true;
    }
    return true;
}

std::string Output_File::cause(int error) {
    return error == ETIMEDOUT ? "nobody reads it" : std::strerror(error);
}

Problem Output_File::cannot_open() const {
    return {Exit_Status::input_output, "cannot open " + title_ + ": " + std::strerror(errno)};
}

}  // namespace zav_shm::tool
