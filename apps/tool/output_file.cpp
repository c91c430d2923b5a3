// SPDX-License-Identifier: Apache-2.0
#include "apps/tool/output_file.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <utility>

#include "apps/tool/options.h"

namespace zav_shm::tool {

namespace {

constexpr std::size_t buffer_bytes = std::size_t{1} << 20;
constexpr std::chrono::seconds hold_max{1};
constexpr std::chrono::milliseconds grace{500};
constexpr mode_t new_file_mode = 0666;  // less the umask

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

bool Output_File::open() {
    descriptor_ = file_ == standard_stream
                      ? fcntl(standard_output_, F_DUPFD_CLOEXEC, 0)
                      : ::open(file_.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, new_file_mode);
    struct stat status {};
    if (descriptor_ < 0 || fstat(descriptor_, &status) != 0) {
        return false;
    }
    is_regular_ = S_ISREG(status.st_mode);
    if (is_regular_) {
        held_back_.reserve(buffer_bytes);
    }
    return true;
}

bool Output_File::empty() const {
    const bool was_there = is_regular_ && file_ != standard_stream;
    return !was_there || ftruncate(descriptor_, 0) == 0;
}

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

bool Output_File::close(bool sync) {
    const bool flushed = flush();
    const bool synced = !sync || !flushed || !is_regular_ || fsync(descriptor_) == 0;
    const int error = errno;
    const bool closed = ::close(std::exchange(descriptor_, -1)) == 0;
    if (!flushed || !synced) {
        errno = error;
    }
    return flushed && synced && closed;
}

bool Output_File::flush() {
    const bool written = write_through(held_back_);
    held_back_.clear();
    return written;
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
        bytes = bytes.subspan(written > 0 ? static_cast<std::size_t>(written) : 0);
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

}  // namespace zav_shm::tool
