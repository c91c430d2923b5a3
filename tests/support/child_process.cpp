// SPDX-License-Identifier: Apache-2.0
#include "support/child_process.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <utility>

#include "support/emulated.h"
#include "support/threads.h"

using Clock = std::chrono::steady_clock;

Child_Process::Child_Process(const std::vector<std::string>& command) {
    const std::vector<std::string> words = startable(command);
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (const auto& word : words) {
        arguments.push_back(const_cast<char*>(word.c_str()));  // execv takes them so, unchanged
    }
    arguments.push_back(nullptr);
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        std::abort();
    }
    pid_ = fork();
    if (pid_ == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        dup2(ends[1], STDOUT_FILENO);
        execv(arguments[0], arguments.data());
        _exit(127);
    }
    close(ends[1]);
    output_ = ends[0];
}

Child_Process::Child_Process(Child_Process&& other) noexcept
    : pid_(std::exchange(other.pid_, -1)),
      output_(std::exchange(other.output_, -1)),
      pending_(std::move(other.pending_)),
      status_(other.status_) {}

Child_Process::~Child_Process() {
    kill();
    if (output_ >= 0) {
        close(output_);
    }
}

void Child_Process::signal(int number) const {
    if (pid_ > 0 && !status_) {
        ::kill(pid_, number);
    }
}

void Child_Process::kill() {
    signal(SIGKILL);
    wait();
}

std::optional<int> Child_Process::wait(std::chrono::milliseconds limit) {
    if (pid_ <= 0) {
        return std::nullopt;
    }
    becomes_true(
        [this] {
            int status = 0;
            if (!status_ && waitpid(pid_, &status, WNOHANG) == pid_) {
                status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            }
            return status_.has_value();
        },
        limit);
    return status_;
}

std::optional<std::string> Child_Process::read_line(std::chrono::milliseconds limit) {
    const auto end = Clock::now() + limit;
    while (true) {
        if (const std::size_t stop = pending_.find('\n'); stop != std::string::npos) {
            std::string line = pending_.substr(0, stop);
            pending_.erase(0, stop + 1);
            return line;
        }
        if (!fill(end)) {
            return std::nullopt;
        }
    }
}

std::string Child_Process::read_rest(std::chrono::milliseconds limit) {
    const auto end = Clock::now() + limit;
    while (fill(end)) {
    }
    return std::exchange(pending_, {});
}

// One read into `pending_`; false at the end of the output and when the time is over.
bool Child_Process::fill(Clock::time_point end) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
    pollfd waited{output_, POLLIN, 0};
    if (poll(&waited, 1, static_cast<int>(std::max<long long>(left.count(), 0))) <= 0) {
        return false;
    }
    char buffer[4096];
    const ssize_t got = read(output_, buffer, sizeof buffer);
    if (got <= 0) {
        return false;
    }
    pending_.append(buffer, static_cast<std::size_t>(got));
    return true;
}
