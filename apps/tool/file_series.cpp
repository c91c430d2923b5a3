// SPDX-License-Identifier: Apache-2.0
#include "apps/tool/file_series.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <utility>

#include "apps/tool/file_name_pattern.h"
#include "apps/tool/frame_time.h"

namespace zav_shm::tool {

namespace {

constexpr const char* part = ".part";
constexpr const char* index_ending = ".index";
constexpr mode_t new_file_mode = 0666;  // less the umask

// Files of one second that are told apart; the name in the pattern may also be constant.
constexpr unsigned numbers_max = 100'000;

bool exists(const std::string& path) {
    struct stat status {};
    return lstat(path.c_str(), &status) == 0;
}

// Never over another file. Some file systems do not know that way of renaming.
bool rename_to_free_name(const std::string& from, const std::string& to) {
    if (renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) {
        return true;
    }
    if (errno != EINVAL && errno != ENOSYS) {
        return false;
    }
    if (exists(to)) {
        errno = EEXIST;
        return false;
    }
    return std::rename(from.c_str(), to.c_str()) == 0;
}

bool make_file(const std::string& path) {
    const Descriptor file(
        ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, new_file_mode));
    return file.is_open();
}

// The new name is only there after a loss of power when the folder is on the medium, too.
void sync_folder(const std::string& path) {
    const Descriptor folder(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (folder.is_open()) {
        fsync(folder.get());  // not every file system can
    }
}

Problem cannot(const std::string& what, const std::string& path, int error) {
    return {Exit_Status::input_output,
            "cannot " + what + " \"" + path + "\": " + std::strerror(error)};
}

}  // namespace

File_Series::File_Series(const Record_Options& options, std::unique_ptr<Series_Form> form,
                         int standard_output)
    : options_(options),
      form_(std::move(form)),
      standard_output_(standard_output),
      hangup_({SIGHUP}) {}

File_Series::~File_Series() = default;

std::optional<Problem> File_Series::open(Output_File::Clock::time_point /*end*/) {
    struct stat status {};
    if (stat(options_.directory.c_str(), &status) != 0) {
        return cannot("write into", options_.directory, errno);
    }
    if (!S_ISDIR(status.st_mode)) {
        return cannot("write into", options_.directory, ENOTDIR);
    }
    if (access(options_.directory.c_str(), W_OK | X_OK) != 0) {
        return cannot("write into", options_.directory, errno);
    }
    return form_->open();
}

void File_Series::begin_file(std::int64_t named_after_ns) {
    static_cast<void>(close());
    problem_.reset();
    named_after_ns_ = not_before_ns_ = named_after_ns;
}

bool File_Series::write(int stream, const Received_Frame& frame) {
    if (problem_) {
        return false;
    }
    if (frame.is_entry_point() || !frame.verified) {
        next_is_wanted_ = hangup_.take() > 0 || next_is_wanted_;
        if (file_ && (is_due(frame) || next_is_wanted_)) {
            if (auto problem = finish_file()) {
                problem_ = std::move(problem);
                return false;
            }
        }
    }
    if (!file_ && !start_file(frame)) {
        return false;
    }
    return file_->write(stream, frame);
}

bool File_Series::is_due(const Received_Frame& frame) const {
    const std::chrono::nanoseconds age(static_cast<std::int64_t>(
        static_cast<std::uint64_t>(moment_ns_of(frame)) - static_cast<std::uint64_t>(first_ns_)));
    const Recorded_Totals totals = file_->totals();
    return totals.handed_over > 0 &&
           (!file_->goes_on_with(frame) ||
            (options_.segment.count() != 0 && age >= options_.segment) ||
            (options_.segment_bytes != 0 && totals.handed_over_bytes >= options_.segment_bytes));
}

bool File_Series::start_file(const Received_Frame& frame) {
    const char* const kind = options_.is_event_recording() ? "event" : "record";
    const std::string pattern =
        !options_.pattern.empty()
            ? options_.pattern
            : std::string(kind) + "-%Y%m%d-%H%M%S" + form_->extension(frame.header.codec);
    const std::int64_t utc_ns =
        named_after_ns_.value_or(std::max(utc_ns_of(frame), not_before_ns_));
    named_after_ns_.reset();
    next_is_wanted_ = false;
    first_ns_ = moment_ns_of(frame);
    const std::string wanted = name_from(pattern, utc_ns);
    name_ = free_name(wanted.empty() ? std::string(kind) : wanted);
    if (name_.empty()) {
        problem_ = cannot("make", path_of(wanted + part), errno);
        return false;
    }
    file_ = form_->make(path_of(name_ + part),
                        options_.index_each ? path_of(name_ + index_ending) : "");
    auto problem = file_->open(Output_File::Clock::now());
    problem = problem ? problem : file_->begin();
    if (problem) {
        problem_ = std::move(problem);
        file_.reset();
        unlink(path_of(name_ + part).c_str());
        return false;
    }
    return true;
}

// Makes NAME.part of the first name that nothing has.
std::string File_Series::free_name(const std::string& name) const {
    for (unsigned number = 1; number <= numbers_max; ++number) {
        std::string candidate = number == 1 ? name : numbered(name, number);
        if (exists(path_of(candidate)) || exists(path_of(candidate + index_ending))) {
            continue;
        }
        if (make_file(path_of(candidate + part))) {
            return candidate;
        }
        if (errno != EEXIST) {
            return {};
        }
    }
    errno = EEXIST;
    return {};
}

std::optional<Problem> File_Series::finish_file() {
    auto problem = file_->close();
    const Recorded_Totals totals = file_->totals();
    file_.reset();
    if (totals.frames == 0) {
        unlink(path_of(name_ + part).c_str());
        unlink(path_of(name_ + index_ending).c_str());
        return problem;
    }
    if (give_name()) {
        finished_.add(totals);
        ++files_;
    } else if (!problem) {
        problem = cannot("rename", path_of(name_ + part), errno);
    }
    return problem;
}

// Another program may have made a file of that name since.
bool File_Series::give_name() {
    for (unsigned number = 1; number <= numbers_max; ++number) {
        const std::string name = number == 1 ? name_ : numbered(name_, number);
        if (number > 1 && exists(path_of(name + index_ending))) {
            continue;
        }
        if (rename_to_free_name(path_of(name_ + part), path_of(name))) {
            if (number > 1 && options_.index_each) {
                rename_to_free_name(path_of(name_ + index_ending), path_of(name + index_ending));
            }
            name_ = name;
            if (options_.sync) {
                sync_folder(options_.directory);
            }
            tell_finished(path_of(name_));
            return true;
        }
        if (errno != EEXIST) {
            return false;
        }
    }
    return false;
}

// Not waiting: a script that hangs holds no recording up.
void File_Series::tell_finished(const std::string& path) {
    const std::string line = path + "\n";
    pollfd waited{standard_output_, POLLOUT, 0};
    const bool is_taken =
        poll(&waited, 1, 0) == 1 && (waited.revents & POLLOUT) != 0 &&
        ::write(standard_output_, line.data(), line.size()) == static_cast<ssize_t>(line.size());
    if (!is_taken && !std::exchange(told_no_reader_, true)) {
        complain("the names of finished files go nowhere: nobody reads standard output");
    }
}

bool File_Series::flush_if_due() { return !problem_ && (!file_ || file_->flush_if_due()); }

std::optional<Problem> File_Series::close() {
    if (file_) {
        auto problem = finish_file();
        problem_ = problem_ ? problem_ : std::move(problem);
    }
    return problem_;
}

Recorded_Totals File_Series::totals() const {
    Recorded_Totals sum = finished_;
    if (file_) {
        sum.add(file_->totals());
    }
    return sum;
}

std::string File_Series::title() const {
    return "\"" + (name_.empty() ? options_.directory : path_of(name_)) + "\"";
}

}  // namespace zav_shm::tool
